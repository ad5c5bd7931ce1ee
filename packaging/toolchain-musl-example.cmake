# Example CMake toolchain file for a musl router target, laid out as an
# OpenWrt SDK lays it out (any musl cross toolchain with a separate target
# staging directory works the same way).
#
#   export STAGING_DIR=$HOME/openwrt-sdk/staging_dir
#   export QZ_TOOLCHAIN_DIR=$STAGING_DIR/toolchain-mipsel_24kc_gcc-12.3.0_musl
#   export QZ_TARGET_DIR=$STAGING_DIR/target-mipsel_24kc_musl
#   export QZ_TRIPLET=mipsel-openwrt-linux-musl
#   cmake -S . -B build-mipsel \
#         -DCMAKE_TOOLCHAIN_FILE=packaging/toolchain-musl-example.cmake \
#         -DCMAKE_BUILD_TYPE=MinSizeRel -DQZ_BUILD_TESTS=OFF
#   cmake --build build-mipsel
#
# The three QZ_* values may also be given as -D options. The target staging
# directory must already hold glib2 and jansson (in an SDK:
# "./scripts/feeds install glib2 libjansson" and
# "make package/glib2/compile package/jansson/compile").
# For aarch64: toolchain-aarch64_generic_gcc-..._musl, target-aarch64_generic_musl,
# aarch64-openwrt-linux-musl.

foreach(var QZ_TOOLCHAIN_DIR QZ_TARGET_DIR QZ_TRIPLET)
  if(NOT ${var} AND DEFINED ENV{${var}})
    set(${var} "$ENV{${var}}")
  endif()
endforeach()
if(NOT QZ_TRIPLET)
  set(QZ_TRIPLET mipsel-openwrt-linux-musl)
endif()
if(NOT QZ_TOOLCHAIN_DIR OR NOT QZ_TARGET_DIR)
  message(FATAL_ERROR
    "Set QZ_TOOLCHAIN_DIR (the cross compiler's directory, holding bin/) and "
    "QZ_TARGET_DIR (the target staging directory, holding usr/lib) in the "
    "environment or with -D.")
endif()
# CMake reads this file again for its compiler checks; hand the values on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES
     QZ_TOOLCHAIN_DIR QZ_TARGET_DIR QZ_TRIPLET)

set(CMAKE_SYSTEM_NAME Linux)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR "${QZ_TRIPLET}")

set(CMAKE_C_COMPILER "${QZ_TOOLCHAIN_DIR}/bin/${QZ_TRIPLET}-gcc")
set(CMAKE_CXX_COMPILER "${QZ_TOOLCHAIN_DIR}/bin/${QZ_TRIPLET}-g++")

# Headers and libraries come from the target only; build tools from the host.
set(CMAKE_FIND_ROOT_PATH "${QZ_TARGET_DIR}" "${QZ_TOOLCHAIN_DIR}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# glib-2.0 and jansson are found through pkg-config: read only the target's
# .pc files, and put the staging directory in front of the paths they give.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${QZ_TARGET_DIR}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${QZ_TARGET_DIR}/usr/lib/pkgconfig:${QZ_TARGET_DIR}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
