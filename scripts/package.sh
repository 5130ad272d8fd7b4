#!/bin/bash
# Makes the Debian packages (libnxaclient0, libnxaclient-dev, nxahost) in
# build/packages: installs what is missing, builds, runs cpack.
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$top"
scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
cpack -G DEB --config build/CPackConfig.cmake -B build/packages
ls build/packages/*.deb
