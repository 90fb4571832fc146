# A project in C alone.
cmake_minimum_required(VERSION 3.16)
project(Doorbell LANGUAGES C)

find_package(OrvStackSdk 1.0 REQUIRED COMPONENTS C)
add_executable(first-steps first-steps.c)
target_link_libraries(first-steps PRIVATE OrvStackSdk::C)
set_target_properties(first-steps PROPERTIES C_STANDARD 99)
