#!/bin/sh
# Installs everything the build, the tests and the demo need on Debian 12.
set -eu
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends \
    g++ make cmake pkg-config ca-certificates \
    libglib2.0-dev libjansson-dev \
    googletest libgtest-dev libbenchmark-dev \
    clang-14 libclang-rt-14-dev shellcheck \
    faketime zip unzip wput curl python3 python3-pyftpdlib \
    python3-pytest python3-pytest-xdist python3-psutil python3-pyelftools \
    iproute2 net-tools util-linux procps gawk libxml2-utils \
    busybox libjson-c-dev
