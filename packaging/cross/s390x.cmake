# Debian s390x (64-bit big-endian: stands in for big-endian MIPS), with a sysroot from sysroot.sh:
#   cmake -S . -B build-s390x -DCMAKE_TOOLCHAIN_FILE=packaging/cross/s390x.cmake -DQZ_SYSROOT=DIR
set(QZ_CROSS_TRIPLET s390x-linux-gnu)
set(QZ_CROSS_QEMU s390x)
set(CMAKE_SYSTEM_PROCESSOR s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian-sysroot.cmake)
