#!/usr/bin/env bash
# Builds brindle, its unit tests and the binary the end-to-end tests run with
# AddressSanitizer (leak checking included) and UndefinedBehaviorSanitizer,
# from scratch in build-asan/, and runs the whole CTest suite against that
# build. Any sanitizer report ends the reporting process with status 86 and a
# stack trace on standard error, so the test that ran it fails.
#
# The sanitizers' options are compiled into brindle and the unit tests
# (src/cli/sanitizer_options.cc), since the end-to-end tests run brindle with
# an environment of PATH only; ASAN_OPTIONS and friends still override them.
# Leak checking also covers the runs that switch to a local account and the
# exit() paths of a failed switch; blocks still referenced from live stack
# frames at exit() are not leaks and are not reported. LeakSanitizer cannot
# run under ptrace (a debugger, strace), which nothing in the suite uses.
# e2e.test_memcheck skips itself here: valgrind cannot run an
# AddressSanitizer binary, and this build has its own leak checker.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

install_missing "${SUITE_PACKAGES[@]}"
bash scripts/ftp-servers.sh

rm -rf build-asan
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DBRINDLE_SANITIZE=ON
cmake --build build-asan -j 2
cd build-asan
exec ctest --output-on-failure --parallel 2
