# orv_add_test(NAME SOURCES ... LIBRARIES ... [LABELS ...] [LOCKS ...] [TIMEOUT s] [WRAPPER command...] [PROCESSES n] [COVERING]
#              [WRITES_VAR_TMP])
#   One GoogleTest program. ctest knows each of its tests by its own name and runs each in a process of its own. With
#   ORV_TESTS_TOGETHER in its environment it runs them in few processes (tests/runner/together.py).
#   LABELS: unit, broker, tls, bus, ... (ctest -L unit).
#   LOCKS: resources that no two tests may use at a time.
#   WRITES_VAR_TMP: the tests have the status files written, whose paths are fixed. Each process gets a /var/tmp of its own; on
#     a machine that does not permit that, one such test runs at a time.
#   TIMEOUT: of each test (default: 300 s).
#   PROCESSES: how many those are (default: 1); more where tests mostly wait.
#   WRAPPER: the command that starts the program, for tests that need surroundings of their own.
#   COVERING: the build with coverage counters has it, too: it covers the library, or has tests that can run neither under a
#     sanitizer nor as emulated code. The target "covering" builds these programs, and their tests have that label.

find_package(GTest REQUIRED)
include(GoogleTest)

# Half of the time in which a test is compiled goes into the same few headers, so several sources are compiled together, and
# those headers once for all. A compiler cache saves more, also between folders, and wants each source by itself. Only a
# build with a cache shows whether each source of a test includes what it uses.
set(one_by_one OFF)
if(ORV_CCACHE AND NOT DEFINED ENV{CCACHE_DISABLE})
  set(one_by_one ON)
endif()
set(precompile ON)
if(one_by_one)
  set(precompile OFF)
endif()
set(join ON)
if(one_by_one)
  set(join OFF)
endif()
option(ORV_PRECOMPILE_TEST_HEADERS "Compile what most tests include once for all of them" ${precompile})
option(ORV_JOIN_TEST_SOURCES "Compile several sources of a test program together" ${join})
set(CMAKE_UNITY_BUILD_BATCH_SIZE 10)

add_custom_target(covering)

# orv_tested_sources(VARIABLE TARGET): those of a program's sources that are no code of tests.
function(orv_tested_sources variable target)
  set(tested "")
  get_target_property(sources ${target} SOURCES)
  foreach(source IN LISTS sources)
    string(REPLACE "${PROJECT_SOURCE_DIR}/" "" path "${source}") # in whose own path there may be a folder of that name
    if(path MATCHES "/src/")
      list(APPEND tested ${source})
    endif()
  endforeach()
  set(${variable} "${tested}" PARENT_SCOPE)
endfunction()

# orv_join_sources(TARGET)
#   For code of tests. What is tested among the sources is compiled as it is elsewhere.
function(orv_join_sources target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ${ORV_JOIN_TEST_SOURCES})
  if(ORV_JOIN_TEST_SOURCES AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-subobject-linkage) # which takes sources for headers then
  endif()
  orv_tested_sources(tested ${target})
  orv_compile_alone(${tested})
  # A fifth of the time in which code of tests is compiled goes into UndefinedBehaviorSanitizer's checks. The check of types
  # stays: so tests still see by the compiler's word that there is a sanitizer, which some of them would not survive.
  if(ORV_SANITIZE MATCHES undefined)
    target_compile_options(${target} PRIVATE -fno-sanitize=undefined -fsanitize=vptr)
    if(tested)
      set_property(SOURCE ${tested} APPEND PROPERTY COMPILE_OPTIONS -fsanitize=undefined)
    endif()
  endif()
endfunction()

# orv_compile_as_test(TARGET)
function(orv_compile_as_test target)
  orv_join_sources(${target})
  # gtest's macros are not written for this one.
  target_compile_options(${target} PRIVATE -Wno-sign-conversion)
  if(ORV_SANITIZE)
    # What is tested stays optimised; test code compiles in a third of the time without it.
    target_compile_options(${target} PRIVATE -O0)
  endif()
  if(CMAKE_CROSSCOMPILING AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Code of tests compiles in three quarters of the time; without any optimisation the emulator would lose more than that.
    target_compile_options(${target} PRIVATE -Og)
    orv_tested_sources(tested ${target})
    if(tested)
      set_property(SOURCE ${tested} APPEND PROPERTY COMPILE_OPTIONS -Os)
      set_property(SOURCE ${tested} PROPERTY SKIP_PRECOMPILE_HEADERS ON)
    endif()
  endif()
  if(CMAKE_CROSSCOMPILING_EMULATOR OR ORV_SANITIZE MATCHES thread)
    # Neither ThreadSanitizer nor qemu's user emulation lets a forked child start threads.
    target_compile_definitions(${target} PRIVATE ORV_NO_THREADS_AFTER_FORK)
  endif()
endfunction()

# orv_compile_alone(SOURCE...)
#   For sources of this folder that use a name for something else than another source of the same program does.
function(orv_compile_alone)
  if(NOT ARGN)
    return()
  endif()
  set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

if(ORV_PRECOMPILE_TEST_HEADERS)
  add_executable(orv-test-headers EXCLUDE_FROM_ALL ${PROJECT_SOURCE_DIR}/cmake/OrvTestHeaders.cpp)
  orv_compile_as_test(orv-test-headers)
  target_link_libraries(orv-test-headers PRIVATE GTest::gtest)
  target_precompile_headers(orv-test-headers PRIVATE ${PROJECT_SOURCE_DIR}/cmake/OrvTestHeaders.h)
endif()

# orv_or_together(TIMEOUT PROCESSES COMMAND...)
#   What ctest does with the program whose tests have just been asked for.
function(orv_or_together timeout processes)
  get_property(included DIRECTORY PROPERTY TEST_INCLUDE_FILES)
  list(POP_BACK included one_by_one)
  set(properties_of_one ${properties})
  set(limit 300) # as the presets have it
  if(timeout)
    string(APPEND properties_of_one " TIMEOUT ${timeout}")
    set(limit ${timeout})
  endif()
  if(NOT processes)
    set(processes 1)
  endif()
  list(JOIN ARGN "]==] [==[" command)
  set(together "")
  foreach(number RANGE 1 ${processes})
    string(APPEND together "  add_test(${name}.${number} [==[${PROJECT_SOURCE_DIR}/tests/runner/together.py]==] --limit ${limit}"
      " --part ${number}/${processes} [==[${command}]==])\n  set_tests_properties(${name}.${number} PROPERTIES ${properties}"
      " TIMEOUT 1800 WORKING_DIRECTORY [==[${CMAKE_CURRENT_BINARY_DIR}]==])\n")
  endforeach()
  # A list, such as two labels, does not survive gtest_discover_tests' own PROPERTIES.
  set(file ${CMAKE_CURRENT_BINARY_DIR}/${name}-for-ctest.cmake)
  set(permitted "")
  if(properties MATCHES var_tmp_lock)
    set(permitted "execute_process(COMMAND unshare --mount --propagation private mount -t tmpfs orv /var/tmp
  RESULT_VARIABLE denied OUTPUT_QUIET ERROR_QUIET)
set(var_tmp_lock)
if(denied)
  set(var_tmp_lock RESOURCE_LOCK var-tmp)
endif()\n")
  endif()
  file(WRITE ${file} "${permitted}if(DEFINED ENV{ORV_TESTS_TOGETHER})\n${together}else()\n  include([==[${one_by_one}]==])\n"
    "  if(${name}_names)\n    set_tests_properties(\${${name}_names} PROPERTIES ${properties_of_one})\n  endif()\nendif()\n")
  set_property(DIRECTORY PROPERTY TEST_INCLUDE_FILES ${included} ${file})
endfunction()

function(orv_add_test name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "COVERING;WRITES_VAR_TMP" "TIMEOUT;PROCESSES" "SOURCES;LIBRARIES;LABELS;LOCKS;WRAPPER")
  if(NOT name MATCHES "^[a-z-]+-tests$")
    message(FATAL_ERROR "a test program is called like orv-log-tests, but this one: ${name}")
  endif()
  if(ARG_WRITES_VAR_TMP)
    list(APPEND ARG_SOURCES ${PROJECT_SOURCE_DIR}/libs/OrvStackSdk/tests/support/PrivateVarTmp.cpp)
  endif()
  set(built "")
  # The emulator of programs has neither a bus nor networks of its own: the preset mipsel-release runs tests of these labels.
  if(NOT ORV_TEST_PROGRAMS OR (CMAKE_CROSSCOMPILING AND NOT ARG_LABELS MATCHES "unit|broker|tls"))
    set(built EXCLUDE_FROM_ALL)
  endif()
  add_executable(${name} ${built} ${ARG_SOURCES})
  if(ARG_COVERING)
    list(APPEND ARG_LABELS covering)
    add_dependencies(covering ${name})
  endif()
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gtest GTest::gtest_main Threads::Threads)
  orv_compile_as_test(${name})
  if(ORV_PRECOMPILE_TEST_HEADERS)
    target_precompile_headers(${name} REUSE_FROM orv-test-headers)
  endif()
  if(ARG_WRAPPER)
    # The property that ctest asks for a command to put before the program.
    set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR "${ARG_WRAPPER};${CMAKE_CROSSCOMPILING_EMULATOR}")
  endif()
  set(properties PROCESSORS 1)
  if(ARG_LABELS)
    string(APPEND properties " LABELS \"${ARG_LABELS}\"")
  endif()
  if(ARG_WRITES_VAR_TMP)
    string(APPEND properties " \${var_tmp_lock}")
  endif()
  if(ARG_LOCKS)
    string(APPEND properties " RESOURCE_LOCK \"${ARG_LOCKS}\"")
  endif()
  if(ARG_WRAPPER)
    string(APPEND properties " SKIP_RETURN_CODE 77")
  endif()
  # Asked for their tests when ctest runs, not when they are built: a program for another processor is slow to ask.
  gtest_discover_tests(${name} TEST_LIST ${name}_names DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60)
  orv_or_together("${ARG_TIMEOUT}" "${ARG_PROCESSES}" ${ARG_WRAPPER} ${CMAKE_CROSSCOMPILING_EMULATOR} ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${name})
endfunction()

# orv_runnable(VARIABLE TARGET)
#   Path of a file that starts the program, for tests that start it themselves: the program or, for another processor, a
#   script that starts it under the emulator.
function(orv_runnable variable target)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    set(${variable} $<TARGET_FILE:${target}> PARENT_SCOPE)
    return()
  endif()
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
  set(script ${PROJECT_BINARY_DIR}/emulated/${target})
  file(GENERATE OUTPUT ${script} CONTENT "#!/bin/sh\nexec ${emulator} $<TARGET_FILE:${target}> \"$@\"\n"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  set(${variable} ${script} PARENT_SCOPE)
endfunction()
