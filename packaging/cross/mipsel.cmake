# Debian mipsel (32-bit little-endian, strict alignment), with a sysroot from sysroot.sh:
#   cmake -S . -B build-mipsel -DCMAKE_TOOLCHAIN_FILE=packaging/cross/mipsel.cmake -DQZ_SYSROOT=DIR
set(QZ_CROSS_TRIPLET mipsel-linux-gnu)
set(QZ_CROSS_QEMU mipsel)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/debian-sysroot.cmake)
