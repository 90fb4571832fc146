# What is installed, and in which package it goes: one CMake package and one pkg-config file each for the library and for
# the platform. Components: runtime, dev, c-runtime, c-dev, test-dev, platform, platform-dev, app-support-dev, tools.

include(CMakePackageConfigHelpers)
set(ORV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake)
set(ORV_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(ORV_CONTRACT_DIR ${CMAKE_INSTALL_INCLUDEDIR}/orv-platform)
# From the pkg-config files up to the prefix, wherever that is when they are read.
file(RELATIVE_PATH ORV_PKGCONFIG_TO_PREFIX /prefix/${ORV_PKGCONFIG_DIR} /prefix)
string(REGEX REPLACE "/$" "" ORV_PKGCONFIG_TO_PREFIX ${ORV_PKGCONFIG_TO_PREFIX})

# orv_install_package(NAME TARGETS ... COMPONENT ... DEVEL_COMPONENT ... PKGCONFIG template)
function(orv_install_package name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "COMPONENT;DEVEL_COMPONENT;PKGCONFIG" "TARGETS")
  install(TARGETS ${ARG_TARGETS} EXPORT ${name}Targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${ARG_COMPONENT} NAMELINK_COMPONENT ${ARG_DEVEL_COMPONENT})
  install(EXPORT ${name}Targets NAMESPACE ${name}:: DESTINATION ${ORV_CMAKE_DIR}/${name} COMPONENT ${ARG_DEVEL_COMPONENT})
  # The same package in the build folder, for projects that do not want to install.
  export(EXPORT ${name}Targets NAMESPACE ${name}:: FILE ${PROJECT_BINARY_DIR}/${name}Targets.cmake)
  configure_file(cmake/package/Config.cmake.in ${name}Config.cmake @ONLY)
  write_basic_package_version_file(${name}ConfigVersion.cmake COMPATIBILITY SameMajorVersion)
  configure_file(cmake/package/${ARG_PKGCONFIG}.in ${ARG_PKGCONFIG} @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}Config.cmake ${PROJECT_BINARY_DIR}/${name}ConfigVersion.cmake
    DESTINATION ${ORV_CMAKE_DIR}/${name} COMPONENT ${ARG_DEVEL_COMPONENT})
  install(FILES ${PROJECT_BINARY_DIR}/${ARG_PKGCONFIG} DESTINATION ${ORV_PKGCONFIG_DIR} COMPONENT ${ARG_DEVEL_COMPONENT})
endfunction()

orv_install_package(OrvStackSdk TARGETS OrvStackSdk COMPONENT runtime DEVEL_COMPONENT dev PKGCONFIG orvstacksdk.pc)
install(DIRECTORY libs/OrvStackSdk/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

# Components of the same CMake package, in packages of their own: find_package(OrvStackSdk COMPONENTS C)
install(TARGETS OrvStackSdkC EXPORT OrvStackSdkCTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT c-runtime NAMELINK_COMPONENT c-dev)
install(EXPORT OrvStackSdkCTargets NAMESPACE OrvStackSdk:: DESTINATION ${ORV_CMAKE_DIR}/OrvStackSdk COMPONENT c-dev)
export(EXPORT OrvStackSdkCTargets NAMESPACE OrvStackSdk:: FILE ${PROJECT_BINARY_DIR}/OrvStackSdkCTargets.cmake)
install(DIRECTORY libs/OrvStackSdkC/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT c-dev)
configure_file(cmake/package/orvstacksdk-c.pc.in orvstacksdk-c.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orvstacksdk-c.pc DESTINATION ${ORV_PKGCONFIG_DIR} COMPONENT c-dev)

# and COMPONENTS Testing
if(ORV_BUILD_TEST_KIT)
  install(TARGETS OrvStackSdkTesting EXPORT OrvStackSdkTestingTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT test-dev)
  install(EXPORT OrvStackSdkTestingTargets NAMESPACE OrvStackSdk:: DESTINATION ${ORV_CMAKE_DIR}/OrvStackSdk COMPONENT test-dev)
  export(EXPORT OrvStackSdkTestingTargets NAMESPACE OrvStackSdk:: FILE ${PROJECT_BINARY_DIR}/OrvStackSdkTestingTargets.cmake)
  install(DIRECTORY libs/OrvStackSdk/testing/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT test-dev)
  configure_file(cmake/package/orvstacksdk-testing.pc.in orvstacksdk-testing.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/orvstacksdk-testing.pc DESTINATION ${ORV_PKGCONFIG_DIR} COMPONENT test-dev)
endif()

if(ORV_PLATFORM STREQUAL "linux")
  orv_install_package(OrvPlatform TARGETS OrvPlatform OrvPlatformContract COMPONENT platform DEVEL_COMPONENT platform-dev
    PKGCONFIG orvplatform.pc)
  install(DIRECTORY libs/OrvPlatform/include/ DESTINATION ${ORV_CONTRACT_DIR} COMPONENT platform-dev)
  install(FILES libs/OrvPlatform/config/gateway.ini DESTINATION ${ORV_SYSCONF_DIR}/orv COMPONENT platform)
  install(FILES libs/OrvPlatform/config/mosquitto.conf libs/OrvPlatform/config/acl
    libs/OrvPlatform/config/connman-policy.conf
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/liborvplatform${PROJECT_VERSION_MAJOR}/examples COMPONENT platform)
endif()

# What the reference application is made with besides, for those who copy it.
if(ORV_BUILD_APPS)
  install(TARGETS OrvLog OrvNetlink OrvSignals EXPORT OrvAppSupportTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT app-support-dev)
  install(EXPORT OrvAppSupportTargets NAMESPACE OrvAppSupport:: DESTINATION ${ORV_CMAKE_DIR}/OrvAppSupport COMPONENT app-support-dev)
  install(DIRECTORY libs/OrvNetlink/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT app-support-dev)
  install(FILES apps/log/LogLevel.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orv-apps/log COMPONENT app-support-dev)
  install(FILES apps/signals/Signals.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orv-apps/signals COMPONENT app-support-dev)
  set(name OrvAppSupport)
  set(requirements "find_package(PkgConfig REQUIRED)\npkg_check_modules(MNL REQUIRED IMPORTED_TARGET libmnl)\n")
  configure_file(cmake/package/Config.cmake.in package/OrvAppSupportConfig.cmake @ONLY)
  write_basic_package_version_file(package/OrvAppSupportConfigVersion.cmake COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/package/OrvAppSupportConfig.cmake ${PROJECT_BINARY_DIR}/package/OrvAppSupportConfigVersion.cmake
    DESTINATION ${ORV_CMAKE_DIR}/OrvAppSupport COMPONENT app-support-dev)
endif()

# What packages are made of is among all that is no test program.
add_custom_target(all-but-tests)
function(orv_add_all_but_tests directory)
  get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type MATCHES "^(EXECUTABLE|SHARED_LIBRARY|STATIC_LIBRARY)$" AND NOT target MATCHES "-tests$|^orv-test-headers$")
      add_dependencies(all-but-tests ${target})
    endif()
  endforeach()
  get_property(below DIRECTORY ${directory} PROPERTY SUBDIRECTORIES)
  foreach(subdirectory IN LISTS below)
    orv_add_all_but_tests(${subdirectory})
  endforeach()
endfunction()
orv_add_all_but_tests(${PROJECT_SOURCE_DIR})

# The label "packaged": script/package-test does the same with the installed packages.
if(ORV_BUILD_TESTS AND ORV_BUILD_APPS AND ORV_PLATFORM STREQUAL "linux" AND NOT ORV_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME InstalledElsewhere
    COMMAND ${PROJECT_SOURCE_DIR}/tests/consumer/elsewhere.sh ${PROJECT_BINARY_DIR} ${CMAKE_CXX_COMPILER})
  set_tests_properties(InstalledElsewhere PROPERTIES LABELS binary TIMEOUT 300)
  if(NOT ORV_COVERAGE) # whose static libraries ask more of a link than a consumer knows
    add_test(NAME GatewayAppCopied
      COMMAND ${PROJECT_SOURCE_DIR}/tests/consumer/gateway-app.sh ${PROJECT_BINARY_DIR} ${CMAKE_CXX_COMPILER})
    add_test(NAME ExamplesCopied
      COMMAND ${PROJECT_SOURCE_DIR}/tests/consumer/examples.sh ${PROJECT_BINARY_DIR} ${CMAKE_CXX_COMPILER})
    set_tests_properties(GatewayAppCopied PROPERTIES LABELS "binary;packaged" TIMEOUT 600)
    set_tests_properties(ExamplesCopied PROPERTIES LABELS binary TIMEOUT 600)
  endif()
  if(ORV_BUILD_TEST_KIT AND NOT ORV_COVERAGE)
    add_test(NAME InstalledTestKit
      COMMAND ${PROJECT_SOURCE_DIR}/tests/consumer/test-kit.sh ${PROJECT_BINARY_DIR} ${CMAKE_CXX_COMPILER})
    set_tests_properties(InstalledTestKit PROPERTIES LABELS "binary;packaged" TIMEOUT 600)
  endif()
endif()
