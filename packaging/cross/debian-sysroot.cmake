# Shared part of the cross toolchain files in this directory: Debian's cross
# compiler for QZ_CROSS_TRIPLET, the target's libraries from a sysroot that
# sysroot.sh unpacked, and qemu-user to run what is built (unit tests,
# GoogleTest's test discovery). Not used on its own: include it from a
# target file, which sets QZ_CROSS_TRIPLET, QZ_CROSS_QEMU and
# CMAKE_SYSTEM_PROCESSOR.
#
# QZ_SYSROOT (a -D option or the environment) names the sysroot.

if(NOT QZ_SYSROOT AND DEFINED ENV{QZ_SYSROOT})
  set(QZ_SYSROOT "$ENV{QZ_SYSROOT}")
endif()
if(NOT QZ_SYSROOT OR NOT IS_DIRECTORY "${QZ_SYSROOT}/usr/lib/${QZ_CROSS_TRIPLET}")
  message(FATAL_ERROR
    "Set QZ_SYSROOT to a sysroot of ${QZ_CROSS_TRIPLET} made by packaging/cross/sysroot.sh "
    "(scripts/cross-test.sh makes one).")
endif()
# CMake reads this file again for its compiler checks; hand the value on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QZ_SYSROOT)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${QZ_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${QZ_CROSS_TRIPLET}-g++)
# Headers and libraries in the multiarch directories of the sysroot; the
# compiler's own libc and libstdc++ headers come first, as in a native build.
set(CMAKE_SYSROOT "${QZ_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE ${QZ_CROSS_TRIPLET})
set(CMAKE_FIND_ROOT_PATH "${QZ_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${QZ_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${QZ_SYSROOT}/usr/lib/${QZ_CROSS_TRIPLET}/pkgconfig:${QZ_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# The loader and libc under qemu must be the sysroot's, the same build as
# the libraries: a loader of another build hangs threaded programs.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${QZ_CROSS_QEMU}-static -L "${QZ_SYSROOT}")
