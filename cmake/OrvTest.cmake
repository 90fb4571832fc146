# orv_add_test(NAME SOURCES ... LIBRARIES ... [LABELS ...] [LOCKS ...] [TIMEOUT s] [SHARDS n])
#   One GoogleTest program, run by ctest as one test, or as SHARDS parts of it: for many tests that mostly wait.
#   LABELS: unit, broker, tls, bus, ... (ctest -L unit).
#   LOCKS: resources that no two tests may use at a time, e.g. var-tmp (the status files have fixed paths).

find_package(GTest REQUIRED)

function(orv_add_test name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "TIMEOUT;SHARDS" "SOURCES;LIBRARIES;LABELS;LOCKS")
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gtest GTest::gtest_main Threads::Threads)
  # gtest's macros are not written for this one.
  target_compile_options(${name} PRIVATE -Wno-sign-conversion)
  if(ORV_SANITIZE)
    # What is tested stays optimised; test code compiles in a third of the time without it.
    target_compile_options(${name} PRIVATE -O0 -gline-tables-only)
  endif()
  if(ARG_SHARDS)
    set(tests "")
    math(EXPR last "${ARG_SHARDS} - 1")
    foreach(shard RANGE ${last})
      add_test(NAME ${name}-${shard} COMMAND ${name})
      set_tests_properties(${name}-${shard} PROPERTIES
        ENVIRONMENT "GTEST_TOTAL_SHARDS=${ARG_SHARDS};GTEST_SHARD_INDEX=${shard}")
      list(APPEND tests ${name}-${shard})
    endforeach()
  else()
    add_test(NAME ${name} COMMAND ${name})
    set(tests ${name})
  endif()
  if(ARG_LABELS)
    set_tests_properties(${tests} PROPERTIES LABELS "${ARG_LABELS}")
  endif()
  if(ARG_LOCKS)
    set_tests_properties(${tests} PROPERTIES RESOURCE_LOCK "${ARG_LOCKS}")
  endif()
  if(ARG_TIMEOUT)
    set_tests_properties(${tests} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
  endif()
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
