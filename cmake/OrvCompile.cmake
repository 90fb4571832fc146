# How everything in this tree is compiled: one language level, one set of warnings, hidden symbols, hardening.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)

find_program(ORV_CCACHE ccache)
if(ORV_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${ORV_CCACHE})
endif()

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

# 32-bit processors have no 64-bit atomics of their own; there they come from a library.
include(CheckCXXSourceCompiles)
check_cxx_source_compiles("#include <atomic>
std::atomic<unsigned long long> value;
int main() { return static_cast<int>(value++); }" ORV_HAS_ATOMIC64)
if(NOT ORV_HAS_ATOMIC64)
  string(APPEND CMAKE_CXX_STANDARD_LIBRARIES " -Wl,--push-state,--as-needed -latomic -Wl,--pop-state")
endif()

# Otherwise a 32-bit processor can neither open nor look at a file beyond 2 GiB or with a date beyond 2038, and everybody can
# give a file such a date. No interface of ours, nor any that we call, carries time_t, off_t or timeval.
add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)

# Relative source names keep a build folder out of log lines, coverage and debug information.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

set(is_cpp "$<COMPILE_LANGUAGE:CXX>")
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow "$<${is_cpp}:-Wnon-virtual-dtor;-Wold-style-cast>" -Wcast-align
                    $<${is_cpp}:-Woverloaded-virtual> -Wconversion -Wsign-conversion -Wformat=2 -Wimplicit-fallthrough)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_compile_options(-Wthread-safety)
endif()
if(ORV_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()

add_compile_options(-fstack-protector-strong)
if(CMAKE_BUILD_TYPE MATCHES "Rel" AND NOT ORV_SANITIZE)
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack -Wl,--as-needed)
if(NOT ORV_SANITIZE AND NOT ORV_COVERAGE)
  add_link_options(-Wl,--gc-sections)
endif()

if(ORV_SANITIZE)
  # A report needs files and lines, not types and variables.
  add_compile_options(-gline-tables-only)
  add_compile_options(-fsanitize=${ORV_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ORV_SANITIZE})
  # Links the largest of the test programs in a fifth of the time.
  find_program(ORV_LLD ld.lld)
  if(ORV_LLD)
    add_link_options(-fuse-ld=lld)
  endif()
else()
  add_link_options(LINKER:--no-undefined)
endif()

# Only for what is asked about, the library and what shares its inline functions: each program writes its counts when it ends,
# and several thousand do.
if(ORV_COVERAGE)
  set(ORV_COVERAGE_OPTIONS --coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
