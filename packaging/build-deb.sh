#!/usr/bin/env bash
# Builds the Debian package in one command: build/deb/vantorix_VERSION_ARCH.deb.
#   packaging/build-deb.sh
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup
cmake -S . -B build/deb -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DVANTORIX_BUILD_TESTS=OFF -DVANTORIX_BUILD_BENCHMARKS=OFF >/dev/null
ninja -C build/deb
(cd build/deb && cpack -G DEB >/dev/null)
ls build/deb/*.deb
