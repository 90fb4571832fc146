# Debian packages, one for each component that is installed. script/package makes them.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvstacksdk)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_PACKAGE_VENDOR "OrvStackSdk maintainers")
set(CPACK_PACKAGE_CONTACT "OrvStackSdk maintainers <maintainers@orvstacksdk.example>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${CMAKE_SYSTEM_PROCESSOR})
  # The machine's own package database knows nothing of the other processor's libraries.
  set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/CPackCross.cmake)
  file(WRITE ${CPACK_PROJECT_CONFIG_FILE}
    "set(SHLIBDEPS_EXECUTABLE ${PROJECT_SOURCE_DIR}/script/lib/sysroot-shlibdeps)\nset(ENV{ORV_SYSROOT} ${CMAKE_SYSROOT})\n"
    "set(READELF_EXECUTABLE ${CMAKE_READELF})\nset(OBJDUMP_EXECUTABLE ${CMAKE_OBJDUMP})\n")
endif()

# orv_debian_package(COMPONENT package SUMMARY line DESCRIPTION text [SECTION ...] [DEPENDS ...] [CONTROL file...])
function(orv_debian_package component package)
  cmake_parse_arguments(PARSE_ARGV 2 ARG "" "SUMMARY;DESCRIPTION;SECTION;DEPENDS" "CONTROL")
  string(TOUPPER ${component} upper)
  set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_COMPONENT_${upper}_DESCRIPTION "${ARG_SUMMARY}\n${ARG_DESCRIPTION}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${ARG_SUMMARY}\n${ARG_DESCRIPTION}" PARENT_SCOPE)
  if(ARG_SECTION)
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${ARG_SECTION} PARENT_SCOPE)
  endif()
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${ARG_DEPENDS}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA "${ARG_CONTROL}" PARENT_SCOPE)
  install(FILES cmake/package/copyright DESTINATION share/doc/${package} COMPONENT ${component})
  install(FILES ${PROJECT_BINARY_DIR}/changelog.gz DESTINATION share/doc/${package} COMPONENT ${component})
endfunction()

# What changed stands in CHANGELOG.md; a package only says which version it is.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${PROJECT_BINARY_DIR}/changelog
  "orvstacksdk (${PROJECT_VERSION}) unstable; urgency=medium\n\n  * Release ${PROJECT_VERSION}; CHANGELOG.md of the sources says what changed.\n\n"
  " -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
execute_process(COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/changelog)

set(major ${PROJECT_VERSION_MAJOR})
set(same "(= ${PROJECT_VERSION})")
set(CPACK_COMPONENTS_ALL "")

orv_debian_package(runtime liborvstacksdk${major}
  SUMMARY "connected-services client library for gateways"
  DESCRIPTION "With it an application takes part in a gateway's connected-services stack: it\nspeaks for the application on the local MQTT broker, supervises the WAN route\nbetween Ethernet and Cellular, and turns connectivity into LEDs and status."
  DEPENDS "liborvplatform${major} (>= ${PROJECT_VERSION})"
  CONTROL ${PROJECT_SOURCE_DIR}/cmake/package/triggers)
orv_debian_package(dev liborvstacksdk-dev SECTION libdevel
  SUMMARY "connected-services client library for gateways - development"
  DESCRIPTION "Headers, the CMake package OrvStackSdk and the pkg-config file orvstacksdk for\nbuilding applications against liborvstacksdk${major}."
  DEPENDS "liborvstacksdk${major} ${same}")
orv_debian_package(c-runtime liborvstacksdkc${major}
  SUMMARY "connected-services client library for gateways - for C"
  DESCRIPTION "The functions in C over liborvstacksdk${major}, for applications in C and in languages\nthat call C, such as Python."
  DEPENDS "liborvstacksdk${major} (>= ${PROJECT_VERSION}), liborvplatform${major} (>= ${PROJECT_VERSION})"
  CONTROL ${PROJECT_SOURCE_DIR}/cmake/package/triggers)
orv_debian_package(c-dev liborvstacksdkc-dev SECTION libdevel
  SUMMARY "connected-services client library for gateways - development in C"
  DESCRIPTION "The header, the component C of the CMake package OrvStackSdk and the pkg-config\nfile orvstacksdk-c for building applications against liborvstacksdkc${major}."
  DEPENDS "liborvstacksdkc${major} ${same}, liborvstacksdk-dev ${same}")
if(ORV_BUILD_TEST_KIT)
  orv_debian_package(test-dev liborvstacksdk-test-dev SECTION libdevel
    SUMMARY "connected-services client library for gateways - test kit"
    DESCRIPTION "An application's unit tests link it instead of the library: the real client on a\nsimulated gateway, in one process and in virtual time. orv-simulate, which\norv-shell --simulate runs, does it by hand."
    DEPENDS "liborvstacksdk-dev ${same}")
endif()
if(ORV_PLATFORM STREQUAL "linux")
  orv_debian_package(platform liborvplatform${major}
    SUMMARY "platform services of a Linux gateway"
    DESCRIPTION "What the connected-services library asks of a gateway, on Linux: the connection\nto the MQTT broker, the connection manager, logging and the configuration in\n/etc/orv/gateway.ini."
    CONTROL ${PROJECT_SOURCE_DIR}/cmake/package/conffiles ${PROJECT_SOURCE_DIR}/cmake/package/triggers)
  orv_debian_package(platform-dev liborvplatform-dev SECTION libdevel
    SUMMARY "platform services of a Linux gateway - development"
    DESCRIPTION "The headers of the platform contract, the CMake package OrvPlatform and the\npkg-config file orvplatform."
    DEPENDS "liborvplatform${major} ${same}")
endif()
if(ORV_BUILD_APPS)
  orv_debian_package(app-support-dev liborvappsupport-dev SECTION libdevel
    SUMMARY "what the programs of a Linux gateway are made with - development"
    DESCRIPTION "Links, IPv4 addresses, routes and rules from the kernel, signals in a\nprogram's loop and the log's levels, as static libraries and headers with the\nCMake package OrvAppSupport. The reference application gateway-app is made\nwith them."
    DEPENDS "libmnl-dev, pkg-config")
  orv_debian_package(tools orv-tools SECTION utils
    SUMMARY "programs for the connected-services stack of a gateway"
    DESCRIPTION "orv-shell makes every call of the connected-services client library by hand or\nfrom a scenario file. gateway-app is the reference application.\norv-status shows whether the cloud is reached, over which path, and why.\norv-config-check says what is wrong with a configuration file.\norv-source-routes gives connections that are bound to an interface a route.\nServices are neither enabled nor started."
    DEPENDS "liborvstacksdk${major} ${same}, liborvplatform${major} ${same}"
    CONTROL ${PROJECT_SOURCE_DIR}/cmake/package/tools/conffiles ${PROJECT_SOURCE_DIR}/cmake/package/tools/postinst
      ${PROJECT_SOURCE_DIR}/cmake/package/tools/postrm)
endif()

include(CPack)
