#!/usr/bin/env bash
# Installs everything the build, the tests, the tool and the benchmarks need (Debian).
set -euo pipefail
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends \
  build-essential cmake pkg-config clang libclang-rt-14-dev \
  libgtest-dev libgmock-dev libbenchmark-dev \
  libopenimageio-dev openimageio-tools libtiff-tools \
  python3 python3-opencv python3-numpy \
  icc-profiles-free colord-data >/dev/null
echo "dependencies installed"
