#!/usr/bin/env bash
# Fetches the FTP daemons that the compatibility tests run besides vsftpd
# (ProFTPD, Pure-FTPd, GNU inetutils ftpd and ftpd-ssl) and unpacks them,
# without installing them, into a cache folder that outlives build/:
# Debian's FTP daemons conflict with each other as packages, so only vsftpd
# is installed; the others run from the unpacked tree. (The servers that
# conflict with nothing, Twisted, aioftp and GridFTP, are installed as
# TEST_PACKAGES of scripts/packages.sh.) The shared libraries that the
# unpacked packages depend on are installed normally; their names come from
# the packages' own Depends, so they are right on every Debian release.
#
# Debian 13 no longer has ftpd-ssl. Where the release has no such package,
# Debian 12's ("bookworm") is taken from the same Debian mirror, through an
# apt of its own whose sources, package lists and cache live in a temporary
# folder: the system's apt state is left as it was. Its libraries (libssl3,
# libpam0g) are the release's own, found through the same Depends; the
# check at the end proves that the daemon finds them.
#
# The folder is $BRINDLE_FTP_SERVERS, by default
# /var/cache/brindle-tests/servers; the tests look there too. Running the
# script again unpacks nothing once the folder holds the wanted versions.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/packages.sh
source scripts/packages.sh

cache="${BRINDLE_FTP_SERVERS:-/var/cache/brindle-tests/servers}"
packages=(proftpd-core pure-ftpd pure-ftpd-common inetutils-ftpd)
# Taken from Debian 12 where this release does not have it.
borrowed=ftpd-ssl
borrowed_from=bookworm

if [ "$(id -u)" -ne 0 ]; then
  # The daemons' tests need root and skip without it; so does this.
  echo "ftp-servers.sh: not root, ProFTPD and Pure-FTPd not fetched" >&2
  exit 0
fi

# The versions apt would fetch now; the stamp records what was unpacked.
candidates() {
  apt-cache policy "$@" 2>/dev/null |
    awk '/^[^ ]/ {name=$1} /Candidate:/ && $2 != "(none)" {print name, $2}'
}
if ! grep -q ' [0-9]' <<<"$(candidates "${packages[@]}")"; then
  # No package lists yet (a fresh machine): fetch them once.
  apt-get update -qq
fi

temporary=()
trap 'rm -rf "${temporary[@]}"' EXIT

# Runs apt-get or apt-cache on Debian 12's archive alone, with the private
# configuration that older_apt_setup writes.
older_apt_dir=""
older_apt() {  # apt-get|apt-cache ARGS...
  "$1" -c "$older_apt_dir/apt.conf" "${@:2}"
}
older_apt_setup() {
  local mirror keyring=/usr/share/keyrings/debian-archive-keyring.gpg
  mirror=$(debian_mirror)
  older_apt_dir=$(mktemp -d /tmp/brindle-apt-$borrowed_from.XXXXXX)
  temporary+=("$older_apt_dir")
  # apt's download sandbox user must reach the lists' folder.
  chmod 755 "$older_apt_dir"
  mkdir "$older_apt_dir"/{lists,cache,sources.list.d,preferences.d}
  # Only the Packages index, of this machine's architecture.
  printf 'deb [arch=%s target=Packages signed-by=%s] %s %s main\n' \
    "$(dpkg --print-architecture)" "$keyring" "$mirror" "$borrowed_from" \
    >"$older_apt_dir/sources.list"
  # Read after the system's configuration (which may name a proxy): only
  # sources, pinning, lists and cache are replaced, and the hooks that the
  # system's "apt-get update" runs are not run for this one.
  cat >"$older_apt_dir/apt.conf" <<EOF
Dir::Etc::SourceList "$older_apt_dir/sources.list";
Dir::Etc::SourceParts "$older_apt_dir/sources.list.d";
Dir::Etc::Preferences "$older_apt_dir/preferences";
Dir::Etc::PreferencesParts "$older_apt_dir/preferences.d";
Dir::State::Lists "$older_apt_dir/lists";
Dir::Cache "$older_apt_dir/cache";
Acquire::Languages "none";
#clear APT::Update::Pre-Invoke;
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
EOF
  local out
  out=$(older_apt apt-get update -qq 2>&1) || {
    printf 'ftp-servers.sh: cannot read Debian 12 (%s) from %s for %s:\n%s\n' \
      "$borrowed_from" "$mirror" "$borrowed" "$out" >&2
    exit 1
  }
}

if [ -n "$(candidates "$borrowed")" ]; then
  packages+=("$borrowed")
  wanted=$(candidates "${packages[@]}")
else
  older_apt_setup
  # The stamp names the suite after the version.
  wanted=$(candidates "${packages[@]}")
  older=$(older_apt apt-cache policy "$borrowed" 2>/dev/null |
    awk '/Candidate:/ && $2 != "(none)" {print $2}')
  if [ -z "$older" ]; then
    echo "ftp-servers.sh: neither this Debian release nor Debian 12" \
      "($borrowed_from, at $(debian_mirror)) has a package $borrowed" >&2
    exit 1
  fi
  wanted+=$'\n'"$borrowed: $older $borrowed_from"
fi

if [ -f "$cache/stamp" ] && [ "$(cat "$cache/stamp")" = "$wanted" ] &&
  [ -f "$cache/depends" ] &&
  [ -x "$cache/usr/sbin/proftpd" ] && [ -x "$cache/usr/sbin/pure-ftpd" ] &&
  [ -x "$cache/usr/sbin/ftpd" ] && [ -x "$cache/usr/sbin/in.ftpd" ]; then
  :
else
  mkdir -p "$(dirname "$cache")"
  work=$(mktemp -d "$(dirname "$cache")/fetch.XXXXXX")
  temporary+=("$work")
  mkdir "$work/debs" "$work/tree"
  # apt's download sandbox user must be able to write the target folder.
  chmod 755 "$work" "$work/debs"
  ! id _apt >/dev/null 2>&1 || chown _apt "$work/debs"
  (cd "$work/debs" && apt-get download -qq "${packages[@]}")
  [ -z "$older_apt_dir" ] ||
    (cd "$work/debs" && older_apt apt-get download -qq "$borrowed")
  for deb in "$work"/debs/*.deb; do
    dpkg -x "$deb" "$work/tree"
    # What each package needs at run time, for the step below.
    dpkg-deb --field "$deb" Package Pre-Depends Depends >>"$work/tree/depends"
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
fi

# --- The libraries the unpacked daemons need ---------------------------------
# Every dependency of the unpacked packages that names a shared library
# package (Debian's sections libs and oldlibs), with its version and its
# alternatives as the package states them. Dependencies among the unpacked
# packages themselves are met by the tree; the rest (init scripts, inetd,
# debconf, perl for maintainer scripts) serves the installed package, not a
# daemon started from the tree.
mapfile -t clauses < <(sed -n 's/^\(Pre-\)\?Depends: //p' "$cache/depends" |
  tr ',' '\n' | sed 's/^ *//; s/ *$//' | grep . | sort -u)
unpacked=$(sed -n 's/^Package: //p' "$cache/depends")
firsts=()
for clause in "${clauses[@]}"; do
  firsts+=("${clause%%[ (|:]*}")
done
# The section of every first alternative that is a real package.
sections=$(apt-cache show --no-all-versions "${firsts[@]}" 2>/dev/null |
  awk '/^Package:/ {name=$2} /^Section:/ {print name, $2}')
# A first alternative that is no real package here but that another
# package provides takes that package's section: Debian 13's libssl3t64
# provides the libssl3 that Debian 12's ftpd-ssl depends on.
for name in $(printf '%s\n' "${firsts[@]}" | sort -u); do
  ! awk -v name="$name" '$1 == name { found = 1 } END { exit !found }' \
    <<<"$sections" || continue
  providers=$(apt-cache showpkg "$name" 2>/dev/null |
    sed -n '/^Reverse Provides:/,$p' | sed '1d; s/[ :].*//' | sort -u)
  [ -n "$providers" ] || continue
  # shellcheck disable=SC2086 # one name a word
  section=$(apt-cache show --no-all-versions $providers 2>/dev/null |
    awk '/^Section:/ { print $2 }' | grep -m1 -xE 'libs|oldlibs' || true)
  [ -z "$section" ] || sections+=$'\n'"$name $section"
done
libraries=()
for i in "${!clauses[@]}"; do
  names=$(tr '|' '\n' <<<"${clauses[$i]}" | sed 's/^ *//; s/[ (:].*//')
  if grep -qxFf <(printf '%s\n' "$unpacked") <<<"$names"; then
    continue
  fi
  section=$(awk -v name="${firsts[$i]}" '$1 == name { print $2 }' \
    <<<"$sections")
  case $section in
    libs | oldlibs) libraries+=("${clauses[$i]}") ;;
  esac
done

# What apt would do for the given dependencies: its Inst and Remv lines.
plan() {
  local IFS=, out
  out=$(apt-get satisfy -s "$*" 2>&1) || {
    printf 'ftp-servers.sh: apt-get satisfy %s:\n%s\n' "$*" "$out" >&2
    return 1
  }
  grep -E '^(Inst|Remv) ' <<<"$out" || true
}
planned=""
[ ${#libraries[@]} -eq 0 ] || planned=$(plan "${libraries[@]}")
if grep -q '^Remv ' <<<"$planned"; then
  # A library whose installation would remove an installed package (a
  # daemon it conflicts with) is left out, and named.
  kept=()
  for clause in "${libraries[@]}"; do
    removed=$(plan "$clause" | awk '$1 == "Remv" { print $2 }' | paste -sd ' ' -)
    if [ -n "$removed" ]; then
      echo "ftp-servers.sh: not installing '$clause': apt would remove $removed" >&2
    else
      kept+=("$clause")
    fi
  done
  libraries=("${kept[@]}")
  planned=""
  [ ${#libraries[@]} -eq 0 ] || planned=$(plan "${libraries[@]}")
fi
if grep -q '^Inst ' <<<"$planned"; then
  echo "Installing the FTP servers' libraries:" \
    "$(awk '$1 == "Inst" { print $2 }' <<<"$planned" | paste -sd ' ' -)"
  (IFS=,; apt_get_quietly satisfy "${libraries[*]}")
fi

# Every program of the tree must now find its libraries.
unresolved=""
for program in "$cache"/usr/sbin/* "$cache"/usr/bin/*; do
  if [ ! -f "$program" ] || [ "$(head -c 4 "$program")" != $'\x7fELF' ]; then
    continue
  fi
  absent=$(ldd "$program" 2>/dev/null | awk '/not found/ { print $1 }' |
    paste -sd ' ' -)
  [ -z "$absent" ] || unresolved+="  ${program#"$cache"/}: $absent"$'\n'
done
if [ -n "$unresolved" ]; then
  printf 'ftp-servers.sh: libraries not found:\n%s' "$unresolved" >&2
  if [ -n "$older_apt_dir" ] &&
    grep -q '^  usr/sbin/in\.ftpd:' <<<"$unresolved"; then
    echo "ftp-servers.sh: in.ftpd is Debian 12's $borrowed; no package of" \
      "this Debian release provides the libraries it was built against" >&2
  fi
  exit 1
fi
