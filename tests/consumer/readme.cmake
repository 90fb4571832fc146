cmake_minimum_required(VERSION 3.16)
project(FirstSteps LANGUAGES CXX)

find_package(OrvStackSdk 1.0 REQUIRED)
add_executable(first-steps first-steps.cpp)
target_link_libraries(first-steps PRIVATE OrvStackSdk::OrvStackSdk)
