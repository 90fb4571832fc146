cmake_minimum_required(VERSION 3.16)
project(PlatformUser LANGUAGES CXX)

find_package(OrvPlatform 1.0 REQUIRED)
add_executable(platform platform.cpp)
target_link_libraries(platform PRIVATE OrvPlatform::OrvPlatform)
