# Debian arm64 (64-bit little-endian), with a sysroot from sysroot.sh:
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=packaging/cross/arm64.cmake -DQZ_SYSROOT=DIR
set(QZ_CROSS_TRIPLET aarch64-linux-gnu)
set(QZ_CROSS_QEMU aarch64)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-sysroot.cmake)
