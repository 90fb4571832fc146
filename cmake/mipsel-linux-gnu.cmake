# The gateway's processor: MIPS32 release 2, little endian, hard float, glibc. Debian's cross-compiler, the libraries of
# the sysroot that script/lib/mipsel-sysroot makes, tests under qemu's user emulation.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_LIBRARY_ARCHITECTURE mipsel-linux-gnu)

if(NOT ORV_MIPSEL_SYSROOT)
  if(DEFINED ENV{ORV_CACHE})
    set(ORV_MIPSEL_SYSROOT $ENV{ORV_CACHE}/sysroot-mipsel)
  else()
    set(ORV_MIPSEL_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../.cache/sysroot-mipsel)
  endif()
endif()
get_filename_component(ORV_MIPSEL_SYSROOT ${ORV_MIPSEL_SYSROOT} ABSOLUTE)
set(ORV_MIPSEL_SYSROOT ${ORV_MIPSEL_SYSROOT} CACHE PATH "Folder with the mipsel libraries and headers")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORV_MIPSEL_SYSROOT)
if(NOT EXISTS ${ORV_MIPSEL_SYSROOT}/usr/lib/mipsel-linux-gnu)
  message(FATAL_ERROR "There is no mipsel sysroot in ${ORV_MIPSEL_SYSROOT}: make it with script/lib/mipsel-sysroot, "
                      "or name another one with -DORV_MIPSEL_SYSROOT=...")
endif()

set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_SYSROOT ${ORV_MIPSEL_SYSROOT})
set(CMAKE_C_FLAGS_INIT "-march=mips32r2 -mhard-float")
set(CMAKE_CXX_FLAGS_INIT "-march=mips32r2 -mhard-float")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR} ${ORV_MIPSEL_SYSROOT}/usr/lib/mipsel-linux-gnu/pkgconfig:${ORV_MIPSEL_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ORV_MIPSEL_SYSROOT})

# qemu's -L leads the program's own file accesses into the sysroot, but not the loader's search for libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-mipsel -cpu 24Kf -L ${ORV_MIPSEL_SYSROOT}
    -E LD_LIBRARY_PATH=${ORV_MIPSEL_SYSROOT}/lib/mipsel-linux-gnu:${ORV_MIPSEL_SYSROOT}/usr/lib/mipsel-linux-gnu)
