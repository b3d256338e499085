#!/usr/bin/env bash
# Builds brindle, its unit tests and the binary the end-to-end tests run with
# AddressSanitizer (leak checking included) and UndefinedBehaviorSanitizer,
# from scratch in build-asan/, and runs the whole CTest suite against that
# build. Any sanitizer report ends the reporting process with status 86 and a
# stack trace on standard error, so the test that ran it fails.
#
# The end-to-end tests run brindle with an environment of PATH only, so the
# binary carries the same options compiled in (src/cli/sanitizer_options.cc);
# the variables below cover the unit tests and anything else CTest starts.
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

export ASAN_OPTIONS="detect_leaks=1:halt_on_error=1:abort_on_error=0:exitcode=86:detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1:strict_string_checks=1"
export LSAN_OPTIONS="exitcode=86"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:exitcode=86"

rm -rf build-asan
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DBRINDLE_SANITIZE=ON
cmake --build build-asan -j 2
cd build-asan
exec ctest --output-on-failure --parallel 2
