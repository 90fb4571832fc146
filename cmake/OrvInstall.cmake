# What is installed, and in which package it goes: one CMake package and one pkg-config file each for the library and for
# the platform. Components: runtime, dev, platform, platform-dev, tools.

include(CMakePackageConfigHelpers)
set(ORV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake)
set(ORV_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(ORV_CONTRACT_DIR ${CMAKE_INSTALL_INCLUDEDIR}/orv-platform)

# orv_install_package(NAME TARGETS ... COMPONENT ... DEVEL_COMPONENT ... PKGCONFIG template)
function(orv_install_package name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "COMPONENT;DEVEL_COMPONENT;PKGCONFIG" "TARGETS")
  install(TARGETS ${ARG_TARGETS} EXPORT ${name}Targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${ARG_COMPONENT} NAMELINK_COMPONENT ${ARG_DEVEL_COMPONENT})
  install(EXPORT ${name}Targets NAMESPACE ${name}:: DESTINATION ${ORV_CMAKE_DIR}/${name} COMPONENT ${ARG_DEVEL_COMPONENT})
  configure_file(cmake/package/Config.cmake.in ${name}Config.cmake @ONLY)
  write_basic_package_version_file(${name}ConfigVersion.cmake COMPATIBILITY SameMajorVersion)
  configure_file(cmake/package/${ARG_PKGCONFIG}.in ${ARG_PKGCONFIG} @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}Config.cmake ${PROJECT_BINARY_DIR}/${name}ConfigVersion.cmake
    DESTINATION ${ORV_CMAKE_DIR}/${name} COMPONENT ${ARG_DEVEL_COMPONENT})
  install(FILES ${PROJECT_BINARY_DIR}/${ARG_PKGCONFIG} DESTINATION ${ORV_PKGCONFIG_DIR} COMPONENT ${ARG_DEVEL_COMPONENT})
endfunction()

orv_install_package(OrvStackSdk TARGETS OrvStackSdk COMPONENT runtime DEVEL_COMPONENT dev PKGCONFIG orvstacksdk.pc)
install(DIRECTORY libs/OrvStackSdk/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

if(ORV_PLATFORM STREQUAL "linux")
  orv_install_package(OrvPlatform TARGETS OrvPlatform OrvPlatformContract COMPONENT platform DEVEL_COMPONENT platform-dev
    PKGCONFIG orvplatform.pc)
  install(DIRECTORY libs/OrvPlatform/include/ DESTINATION ${ORV_CONTRACT_DIR} COMPONENT platform-dev)
  install(FILES libs/OrvPlatform/config/gateway.ini DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/orv COMPONENT platform)
  install(FILES libs/OrvPlatform/config/mosquitto.conf libs/OrvPlatform/config/acl
    libs/OrvPlatform/config/connman-policy.conf
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/liborvplatform${PROJECT_VERSION_MAJOR}/examples COMPONENT platform)
endif()
