#!/usr/bin/env bash
# Fetches the FTP daemons that the compatibility tests run besides vsftpd
# (ProFTPD and Pure-FTPd) and unpacks them, without installing them, into a
# cache folder that outlives build/: Debian's FTP daemons conflict with each
# other as packages, so only vsftpd is installed; the others run from the
# unpacked tree. Their runtime libraries are installed normally
# (COMPAT_PACKAGES in scripts/packages.sh).
#
# The folder is $BRINDLE_FTP_SERVERS, by default
# /var/cache/brindle-tests/servers; the tests look there too. Running the
# script again does nothing once the folder holds the wanted versions.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

cache="${BRINDLE_FTP_SERVERS:-/var/cache/brindle-tests/servers}"
packages=(proftpd-core pure-ftpd pure-ftpd-common)

if [ "$(id -u)" -ne 0 ]; then
  # The daemons' tests need root and skip without it; so does this.
  echo "ftp-servers.sh: not root, ProFTPD and Pure-FTPd not fetched" >&2
  exit 0
fi

install_missing "${COMPAT_PACKAGES[@]}"

# The versions apt would fetch now; the stamp records what was unpacked.
wanted=$(apt-cache policy "${packages[@]}" |
  awk '/^[^ ]/ {name=$1} /Candidate:/ {print name, $2}')
if [ -f "$cache/stamp" ] && [ "$(cat "$cache/stamp")" = "$wanted" ] &&
  [ -x "$cache/usr/sbin/proftpd" ] && [ -x "$cache/usr/sbin/pure-ftpd" ]; then
  exit 0
fi
if ! grep -q ' [0-9]' <<<"$wanted"; then
  # No package lists yet (a fresh machine): fetch them once.
  apt-get update -qq
  wanted=$(apt-cache policy "${packages[@]}" |
    awk '/^[^ ]/ {name=$1} /Candidate:/ {print name, $2}')
fi

mkdir -p "$(dirname "$cache")"
work=$(mktemp -d "$(dirname "$cache")/fetch.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir "$work/debs" "$work/tree"
# apt's download sandbox user must be able to write the target folder.
chmod 755 "$work" "$work/debs"
! id _apt >/dev/null 2>&1 || chown _apt "$work/debs"
(cd "$work/debs" && apt-get download -qq "${packages[@]}")
for deb in "$work"/debs/*.deb; do
  dpkg -x "$deb" "$work/tree"
done
printf '%s\n' "$wanted" >"$work/tree/stamp"
chmod 755 "$work/tree"

# Swap the new tree in whole, so that a half-unpacked cache is never seen.
rm -rf "$cache.old"
[ ! -e "$cache" ] || mv "$cache" "$cache.old"
mv "$work/tree" "$cache"
rm -rf "$cache.old"
echo "FTP servers unpacked in $cache:"
sed 's/^/  /' "$cache/stamp"
