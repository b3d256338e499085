#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer on) in build-fuzz/ and runs each of them for a
# bounded time. Fails on any crash, leak, sanitizer report or
# unexpected exception, and leaves the reproducing input in
# build-fuzz/artifacts/. A command target whose harness could not set
# itself up (a socket, a thread: tests/fuzz/command/harness_failure.h)
# exits with status 71 and no input; that fails the run too, reported as
# the harness's failure.
#
#   bash scripts/fuzz.sh [SECONDS [TARGET...]]
#
# SECONDS defaults to 60; TARGET is one of remote_entry, remote_listing, path,
# request_url, list_command, download_command, remove_command,
# upload_command (default: all eight). New inputs that the fuzzers find are
# kept in build-fuzz/corpus/TARGET; the checked-in seeds in
# tests/fuzz/corpus are only read (the four command targets share
# tests/fuzz/corpus/command and tests/fuzz/command.dict, and each reads the
# corpus its long runs grew in tests/fuzz/corpus/TARGET). FUZZ_JOBS
# (default 2) is how many targets run at once.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] ||
  targets=(remote_entry remote_listing path request_url
    list_command download_command remove_command upload_command)

install_missing "${BUILD_PACKAGES[@]}" "${FUZZ_PACKAGES[@]}"

CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBRINDLE_FUZZ=ON \
  -DBRINDLE_BUILD_TESTS=OFF -DBRINDLE_BUILD_MAN=OFF >/dev/null
cmake --build build-fuzz

run_target() {
  local target=$1 seeds=$1 here=$PWD
  local corpora=("$here/build-fuzz/corpus/$target"
    "$here/tests/fuzz/corpus/$target")
  # The command targets share their seeds and dictionary; each keeps the
  # corpus its long runs grew in tests/fuzz/corpus/TARGET.
  if [[ $target == *_command ]]; then
    seeds="command"
    corpora+=("$here/tests/fuzz/corpus/command")
  fi
  mkdir -p "build-fuzz/corpus/$target" build-fuzz/artifacts build-fuzz/logs
  # A failed input ends the run: no -keep_going options. Paths are absolute:
  # the command targets run each input in a directory of their own.
  "$here/build-fuzz/tests/fuzz/${target}_fuzzer" \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -max_len=16384 -print_final_stats=1 \
    -dict="$here/tests/fuzz/$seeds.dict" \
    -artifact_prefix="$here/build-fuzz/artifacts/$target-" \
    "${corpora[@]}" >"build-fuzz/logs/$target.log" 2>&1
}

failed=0
pids=()
names=()
report() {
  local target=$1 status=$2 log="build-fuzz/logs/$1.log"
  local runs
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  if [ "$status" -eq 0 ]; then
    echo "fuzz $target: ok, ${runs:-?} inputs in ${seconds}s"
  elif [ "$status" -eq 71 ] && grep -q '^fuzz harness: ' "$log"; then
    echo "fuzz $target: HARNESS FAILURE after ${runs:-?} inputs (no finding" \
      "about brindle, no input saved):"
    grep '^fuzz harness: ' "$log"
    failed=1
  else
    echo "fuzz $target: FAILED (status $status); end of its log:"
    tail -n 40 "$log"
    ls build-fuzz/artifacts/"$target"-* 2>/dev/null || true
    failed=1
  fi
}
wait_oldest() {
  local status=0
  wait "${pids[0]}" || status=$?
  report "${names[0]}" "$status"
  pids=("${pids[@]:1}")
  names=("${names[@]:1}")
}
for target in "${targets[@]}"; do
  [ ${#pids[@]} -lt "${FUZZ_JOBS:-2}" ] || wait_oldest
  run_target "$target" &
  pids+=($!)
  names+=("$target")
done
while [ ${#pids[@]} -gt 0 ]; do wait_oldest; done
exit "$failed"
