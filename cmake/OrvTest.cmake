# orv_add_test(NAME SOURCES ... LIBRARIES ... [LABELS ...] [LOCKS ...] [TIMEOUT s])
#   One GoogleTest program, run by ctest as one test. LABELS: unit, broker, tls, bus, ... (ctest -L unit).
#   LOCKS: resources that no two tests may use at a time, e.g. var-tmp (the status files have fixed paths).

find_package(GTest REQUIRED)

function(orv_add_test name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "TIMEOUT" "SOURCES;LIBRARIES;LABELS;LOCKS")
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gtest GTest::gtest_main Threads::Threads)
  # gtest's macros are not written for this one.
  target_compile_options(${name} PRIVATE -Wno-sign-conversion)
  add_test(NAME ${name} COMMAND ${name})
  if(ARG_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
  endif()
  if(ARG_LOCKS)
    set_tests_properties(${name} PROPERTIES RESOURCE_LOCK "${ARG_LOCKS}")
  endif()
  if(ARG_TIMEOUT)
    set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
  endif()
endfunction()
