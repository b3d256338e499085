#!/usr/bin/env bash
# Benchmarks brindle against the curl command-line tool and lftp on a local
# vsftpd: installs what is missing, builds brindle in build-bench/ with the
# Debian package's compiler and linker flags (dpkg-buildflags, hardening
# included, and no build type's flags on top: what users run), and runs
# bench/bench.py, which writes docs/benchmarks.md and docs/benchmarks.png
# (with BENCH_SUITE=scale, the scale suite: docs/benchmarks-scale.md and
# .png). Run as root (it creates and removes a throwaway local account and
# its own vsftpd). BENCH_SUITE, BENCH_RUNS, BENCH_SCALE, BENCH_WARMUP,
# BENCH_ONLY, BENCH_ENTRIES and BENCH_OUTPUT tune a run; see bench/bench.py.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/packages.sh
source scripts/packages.sh

if [ "$(id -u)" -ne 0 ]; then
  echo "run.sh: run as root (it creates a local account and starts vsftpd)" >&2
  exit 1
fi
install_missing "${BUILD_PACKAGES[@]}" python3 "${BENCH_PACKAGES[@]}"

cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=None \
  -DBRINDLE_DPKG_BUILDFLAGS=ON -DBRINDLE_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench --target brindle >/dev/null

exec /usr/bin/python3 bench/bench.py --brindle build-bench/brindle \
  ${BENCH_OUTPUT:+--output "$BENCH_OUTPUT"}
