# Debian armhf (32-bit little-endian (ARMv7, hard float)), with a sysroot from sysroot.sh:
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=packaging/cross/armhf.cmake -DQZ_SYSROOT=DIR
set(QZ_CROSS_TRIPLET arm-linux-gnueabihf)
set(QZ_CROSS_QEMU arm)
set(CMAKE_SYSTEM_PROCESSOR arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-sysroot.cmake)
