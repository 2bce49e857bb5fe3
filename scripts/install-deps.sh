#!/usr/bin/env bash
# Installs everything the build, the tests, the demo and the armhf cross build need, on
# Debian bookworm, as root. Safe to run again. With the argument "demo", only what
# scripts/demo.sh needs (a native build of the daemon and its tools, sox, espeak-ng).
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive

if [ "${1:-}" = demo ]; then
  apt-get update || true
  apt-get install -y --no-install-recommends \
    build-essential cmake ninja-build pkg-config ca-certificates \
    libboost-dev libspeexdsp-dev libsoxr-dev libasound2-dev libsndfile1-dev libsystemd-dev \
    sox espeak-ng alsa-utils util-linux
  exit 0
fi

dpkg --print-foreign-architectures | grep -qx armhf || dpkg --add-architecture armhf
# The security mirror's armhf index may fail to download; the main archive suffices.
apt-get update || true

apt-get install -y --no-install-recommends \
  build-essential cmake ninja-build pkg-config git ca-certificates \
  libboost-dev libspeexdsp-dev libsoxr-dev libgtest-dev libgmock-dev googletest libbenchmark-dev \
  libasound2-dev libsndfile1-dev libsystemd-dev dbus dbus-bin \
  sox espeak-ng util-linux procps \
  alsa-utils gstreamer1.0-tools gstreamer1.0-alsa gstreamer1.0-plugins-base \
  clang lld libclang-rt-14-dev \
  qemu-user crossbuild-essential-armhf

# -t bookworm keeps the armhf packages at the same versions as the native ones.
apt-get install -y --no-install-recommends -t bookworm \
  libspeexdsp-dev:armhf libsoxr-dev:armhf libgtest-dev:armhf libgmock-dev:armhf \
  libasound2-dev:armhf libsndfile1-dev:armhf libsystemd-dev:armhf
