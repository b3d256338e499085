#!/usr/bin/env bash
# Builds brindle, starts a throwaway FTP server on 127.0.0.1 that serves an
# empty temporary directory, and round-trips a small sample tree through it:
# upload, list, download, compare, remove. Prints each command and its output.
# Run as root: transfers switch to the unprivileged account "nobody".
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

if [ "$(id -u)" -ne 0 ]; then
  echo "demo.sh: run as root (transfers switch to the account 'nobody')" >&2
  exit 1
fi
install_missing "${BUILD_PACKAGES[@]}" scdoc python3 python3-pyftpdlib

# The program and its manual page only: the tests need GoogleTest, which
# scripts/test.sh installs.
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DBRINDLE_BUILD_TESTS=OFF >/dev/null
cmake --build build >/dev/null
brindle="$PWD/build/brindle"

work=$(mktemp -d /tmp/brindle-demo.XXXXXX)
chmod 755 "$work"
server_pid=""
cleanup() {
  [ -z "$server_pid" ] || kill "$server_pid" 2>/dev/null || true
  [ -z "$server_pid" ] || wait "$server_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# The sample tree: nested directories, a binary file, a name with blanks.
mkdir -p "$work/sample/docs/notes" "$work/server" "$work/download"
printf 'hello, ftp\n' >"$work/sample/readme.txt"
printf 'first note\n' >"$work/sample/docs/notes/1st note.txt"
head -c 65536 /dev/urandom >"$work/sample/docs/random.bin"
chmod -R a+rX "$work/sample"
chown nobody "$work/download"

/usr/bin/python3 tests/e2e/servers/scripted_ftpd.py --root "$work/server" \
  --port-file "$work/port" --log "$work/server.log" \
  --script "$work/script.json" --user demo --password demo \
  >"$work/server.out" 2>&1 &
server_pid=$!
for _ in $(seq 100); do [ -s "$work/port" ] && break; sleep 0.05; done
port=$(cat "$work/port")
echo "FTP server on 127.0.0.1:$port, login demo/demo, serving an empty directory"

server=(--host 127.0.0.1 --port "$port")
export FTP_LOGIN=demo FTP_PASSWORD=demo

run() {
  local shown status
  shown=$(printf ' %q' "$@")
  echo
  echo "\$ brindle${shown//$work/\$DEMO}"
  "$brindle" "$@" && status=0 || status=$?
  echo "(exit status $status)"
}

run --upload "${server[@]}" --local-user nobody \
  --local-path "$work/sample" --remote-path /sample --recursive
run --list "${server[@]}" --remote-path /sample/.
run --list "${server[@]}" --remote-path /sample/docs/. --long-listing
run --list "${server[@]}" --remote-path "/sample/docs/notes/1st note.txt"
run --download "${server[@]}" --local-user nobody \
  --remote-path /sample --local-path "$work/download/sample" --recursive
echo
echo "\$ diff -r \$DEMO/sample \$DEMO/download/sample"
diff -r "$work/sample" "$work/download/sample" && echo "(identical)"
run --remove "${server[@]}" --remote-path /sample --recursive
run --list "${server[@]}" --remote-path /.
echo
echo "Done: the tree went up, came back identical, and was removed."
