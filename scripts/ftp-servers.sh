#!/usr/bin/env bash
# Fetches the FTP daemons that the compatibility tests run besides vsftpd
# (ProFTPD, Pure-FTPd, GNU inetutils ftpd and, where the Debian release still
# has it, ftpd-ssl) and unpacks them, without installing them, into a cache
# folder that outlives build/: Debian's FTP daemons conflict with each other
# as packages, so only vsftpd is installed; the others run from the unpacked
# tree. (The servers that conflict with nothing, Twisted, aioftp and GridFTP,
# are installed as TEST_PACKAGES of scripts/packages.sh.) Their runtime libraries are installed normally
# (COMPAT_PACKAGES in scripts/packages.sh).
#
# The folder is $BRINDLE_FTP_SERVERS, by default
# /var/cache/brindle-tests/servers; the tests look there too. Running the
# script again does nothing once the folder holds the wanted versions.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

cache="${BRINDLE_FTP_SERVERS:-/var/cache/brindle-tests/servers}"
packages=(proftpd-core pure-ftpd pure-ftpd-common inetutils-ftpd)
# Debian 13 no longer has ftpd-ssl; its tests say so and skip there.
optional=(ftpd-ssl)

if [ "$(id -u)" -ne 0 ]; then
  # The daemons' tests need root and skip without it; so does this.
  echo "ftp-servers.sh: not root, ProFTPD and Pure-FTPd not fetched" >&2
  exit 0
fi

install_missing "${COMPAT_PACKAGES[@]}"

# The versions apt would fetch now; the stamp records what was unpacked.
candidates() {
  apt-cache policy "$@" 2>/dev/null |
    awk '/^[^ ]/ {name=$1} /Candidate:/ && $2 != "(none)" {print name, $2}'
}
if ! grep -q ' [0-9]' <<<"$(candidates "${packages[@]}")"; then
  # No package lists yet (a fresh machine): fetch them once.
  apt-get update -qq
fi
for package in "${optional[@]}"; do
  [ -z "$(candidates "$package")" ] || packages+=("$package")
done
wanted=$(candidates "${packages[@]}")
if [ -f "$cache/stamp" ] && [ "$(cat "$cache/stamp")" = "$wanted" ] &&
  [ -x "$cache/usr/sbin/proftpd" ] && [ -x "$cache/usr/sbin/pure-ftpd" ] &&
  [ -x "$cache/usr/sbin/ftpd" ]; then
  exit 0
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
