#!/usr/bin/env bash
# Installs everything the build, the tests, the demo and the armhf cross build need, on
# Debian bookworm, as root. Safe to run again.
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive

dpkg --print-foreign-architectures | grep -qx armhf || dpkg --add-architecture armhf
# The security mirror's armhf index may fail to download; the main archive suffices.
apt-get update || true

apt-get install -y --no-install-recommends \
  build-essential cmake ninja-build pkg-config git ca-certificates \
  libboost-dev libspeexdsp-dev libgtest-dev libgmock-dev googletest libbenchmark-dev \
  libasound2-dev libsndfile1-dev libsystemd-dev dbus dbus-bin \
  sox espeak-ng util-linux procps \
  clang lld libclang-rt-14-dev \
  qemu-user crossbuild-essential-armhf

# -t bookworm keeps the armhf packages at the same versions as the native ones.
apt-get install -y --no-install-recommends -t bookworm \
  libspeexdsp-dev:armhf libgtest-dev:armhf libgmock-dev:armhf \
  libasound2-dev:armhf libsndfile1-dev:armhf libsystemd-dev:armhf
