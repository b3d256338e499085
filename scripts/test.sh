#!/usr/bin/env bash
# Installs what is missing, builds brindle and its tests from scratch in
# build/, and runs the whole test suite (unit and end-to-end) with CTest.
# End-to-end tests that need root (vsftpd, local accounts) are skipped with a
# printed reason when run as an ordinary user.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

install_missing "${SUITE_PACKAGES[@]}"
bash scripts/ftp-servers.sh

rm -rf build
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build
cd build
exec ctest --output-on-failure --parallel 2
