#!/usr/bin/env bash
# Builds the Debian package of brindle in build-deb/, installs it with apt-get
# on this machine, checks the installed program, manual page and bash
# completion from their installed paths, and removes the package again,
# together with any package that its installation pulled in. Packages that
# were installed before are never removed. Run as root.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

if [ "$(id -u)" -ne 0 ]; then
  echo "package.sh: run as root (it installs and removes a package)" >&2
  exit 1
fi
installed() {  # PACKAGE: whether it is installed
  dpkg-query -W -f='${Status}\n' "$1" 2>/dev/null |
    grep -q '^install ok installed$'
}
if installed brindle; then
  echo "package.sh: a brindle package is already installed; it is left alone" >&2
  exit 1
fi
install_missing "${BUILD_PACKAGES[@]}" "${PACKAGING_PACKAGES[@]}"

started=$SECONDS
failures=0
step() { echo; echo "== $*"; }
ok() { echo "ok: $*"; }
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
verify() {  # MESSAGE COMMAND...: MESSAGE as passed or failed, by COMMAND
  local message=$1
  shift
  if "$@"; then ok "$message"; else fail "$message"; fi
}

# --- Build ----------------------------------------------------------------
step "Building the package"
cmake -S . -B build-deb -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_INSTALL_PREFIX=/usr -DBRINDLE_BUILD_TESTS=OFF >/dev/null
cmake --build build-deb >/dev/null
rm -f build-deb/brindle_*.deb
(cd build-deb && cpack -G DEB >/dev/null)
debs=(build-deb/brindle_*.deb)
[ ${#debs[@]} -eq 1 ] || { echo "package.sh: expected one .deb" >&2; exit 1; }
deb=$PWD/${debs[0]}
dpkg-deb --info "$deb"
dpkg-deb --contents "$deb"

# Every shared library that the program loads directly must come from a
# package that the .deb depends on.
step "Checking the dependencies"
depends=$(dpkg-deb --field "$deb" Depends)
depended=$(tr ',' '\n' <<<"$depends" | sed 's/^ *//; s/[ (].*//' | sort -u)
work=$(mktemp -d /tmp/brindle-package.XXXXXX)
pulled_in=()
cleanup() {
  if installed brindle; then
    echo "package.sh: removing brindle after a failure"
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq brindle >/dev/null ||
      true
  fi
  local leftover=() package
  for package in "${pulled_in[@]}"; do
    ! installed "$package" || leftover+=("$package")
  done
  [ ${#leftover[@]} -eq 0 ] ||
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq "${leftover[@]}" \
      >/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
dpkg-deb --extract "$deb" "$work/root"
# The package that owns a library file, however merged /usr spells its path.
owner_of() {  # PATH
  local candidate
  for candidate in "$1" "/usr$1" "$(readlink -f "$1")"; do
    dpkg -S "$candidate" 2>/dev/null | awk -F: '!done { print $1; done = 1 }' |
      grep . && return 0
  done
  return 0
}
needed=$(objdump -p "$work/root/usr/bin/brindle" | awk '$1 == "NEEDED" { print $2 }')
resolved=$(ldd "$work/root/usr/bin/brindle")
for library in $needed; do
  path=$(awk -v lib="$library" '$1 == lib && $2 == "=>" { print $3 }' \
    <<<"$resolved")
  owner=""
  [ -z "$path" ] || owner=$(owner_of "$path")
  # The package itself, or a name it provides (libboost-regex1.74.0 provides
  # the libboost-regex1.74.0-icu72 that its shlibs file names).
  names=$owner
  [ -z "$owner" ] || names+=$'\n'$(dpkg-query -W -f='${Provides}' "$owner" |
    tr ',' '\n' | sed 's/^ *//; s/[ (].*//')
  if [ -n "$owner" ] && grep -qxFf <(grep . <<<"$names") <<<"$depended"; then
    ok "$library from $owner, which the package depends on"
  else
    fail "$library (${path:-not found}, from '${owner:-no package}') is not covered by Depends: $depends"
  fi
done
# The libraries brindle is built on are among them (linked, not copied in),
# whatever their packages are called on this release (libcurl4 on Debian
# 12, libcurl4t64 on Debian 13). Boost.Regex is one of them only where it
# is a library of its own: Boost 1.76 and later (Debian 13's 1.83) make it
# header-only, and the program then needs no libboost_regex.
for soname in 'libcurl\.so\.4' 'libboost_program_options\.so\.[0-9.]+'; do
  verify "links $(grep -xE "$soname" <<<"$needed" || echo "no $soname")" \
    grep -qxE "$soname" <<<"$needed"
done

# A fresh machine: let apt resolve the package against an empty list of
# installed packages, so that every dependency, and theirs, must come from
# the archive.
step "Resolving the dependencies for a machine with nothing installed"
compgen -G '/var/lib/apt/lists/*_Packages*' >/dev/null || apt-get update -qq
: >"$work/empty-status"
if apt-get install -s --no-install-recommends \
  -o Dir::State::status="$work/empty-status" "$deb" >"$work/fresh.log" 2>&1; then
  fresh=$(awk '$1 == "Inst" { print $2 }' "$work/fresh.log")
  ok "apt would install brindle with $(($(wc -l <<<"$fresh") - 1)) packages, among them $(
    grep -E '^(libcurl|libboost-)' <<<"$fresh" | paste -sd ' ' -)"
else
  fail "apt cannot install the package on an empty machine: $(tail -n 5 "$work/fresh.log")"
fi

# --- Install ----------------------------------------------------------------
step "Installing $deb"
# What apt is about to install besides brindle is what it pulls in: it is
# removed again at the end.
mapfile -t pulled_in < <(apt-get install -s --no-install-recommends "$deb" |
  awk '$1 == "Inst" && $2 != "brindle" { print $2 }')
[ ${#pulled_in[@]} -eq 0 ] ||
  echo "apt pulls in: ${pulled_in[*]} (removed again at the end)"
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
  "$deb" >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; exit 1; }
verify "brindle $(dpkg-query -W -f='${Version}' brindle 2>/dev/null) installed" \
  installed brindle

# dpkg may be told to leave out paths (Debian's container images drop
# /usr/share/man and /usr/share/doc this way); such files are in the package
# but not on disk.
excluded() {  # PATH: whether a dpkg path-exclude (not re-included) covers it
  local verdict="" line pattern
  while read -r line; do
    pattern=${line#* }
    # shellcheck disable=SC2053
    [[ $1 == $pattern ]] || continue
    case $line in
      path-exclude*) verdict=excluded ;;
      path-include*) verdict="" ;;
    esac
  done < <(cat /etc/dpkg/dpkg.cfg /etc/dpkg/dpkg.cfg.d/* 2>/dev/null |
    grep -E '^path-(ex|in)clude[= ]' | sed 's/=/ /')
  [ -n "$verdict" ]
}

step "Checking the installed files"
listed=$(dpkg -L brindle)
page=/usr/share/man/man1/brindle.1.gz
for file in /usr/bin/brindle $page \
  /usr/share/bash-completion/completions/brindle \
  /usr/share/doc/brindle/README.md /usr/share/doc/brindle/LICENSE; do
  if [ -f "$file" ] && grep -qx "$file" <<<"$listed"; then
    ok "$file (listed by dpkg -L)"
  elif excluded "$file"; then
    echo "note: $file is in the package but this machine's dpkg configuration excludes it"
  else
    fail "$file missing or not listed by dpkg -L"
  fi
done

step "Running /usr/bin/brindle --help"
/usr/bin/brindle --help >"$work/help.installed" && status=0 || status=$?
build-deb/brindle --help >"$work/help.built"
verify "exit status $status" [ "$status" -eq 0 ]
verify "help text identical to the built program's ($(wc -l <"$work/help.installed") lines)" \
  cmp -s "$work/help.installed" "$work/help.built"
head -n 3 "$work/help.installed"
ldd /usr/bin/brindle >"$work/ldd.txt"
verify "every shared library resolves" \
  [ "$(grep -c 'not found' "$work/ldd.txt")" -eq 0 ]

step "Reading the manual page"
export LC_ALL=C.UTF-8 MANWIDTH=80 MANPAGER=cat PAGER=cat
if [ -f $page ]; then
  found=$(man -w brindle) && status=0 || status=$?
  verify "man -w brindle: '$found' (status $status)" [ "$found" == "$page" ]
  man brindle >"$work/page.txt" 2>"$work/page.err" || true
  verify "man brindle: $(wc -l <"$work/page.txt") lines with SECURITY" \
    grep -q '^SECURITY$' "$work/page.txt"
  verify "man brindle: nothing on stderr $(cat "$work/page.err")" \
    [ ! -s "$work/page.err" ]
  checked=$page
else
  # Excluded on this machine: read the page that the package carries.
  checked=$work/root$page
  found=$(MANPATH=$work/root/usr/share/man man -w brindle) || true
  verify "man -w brindle in the package: '$found'" [ "$found" == "$checked" ]
fi
man --warnings -l "$checked" >/dev/null 2>"$work/warnings.txt" || true
verify "man --warnings -l $checked: no warning $(cat "$work/warnings.txt")" \
  [ ! -s "$work/warnings.txt" ]

step "Loading the installed bash completion"
registered=$(bash -c 'source /usr/share/bash-completion/bash_completion
  complete -p brindle 2>/dev/null && echo "loaded too early"
  __load_completion brindle && complete -p brindle') || true
verify "bash-completion loads it on demand: '$registered'" \
  [ "$registered" == "complete -F _brindle brindle" ]

# --- Remove -----------------------------------------------------------------
step "Removing the package"
DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq brindle >/dev/null
remaining=()
for package in "${pulled_in[@]}"; do
  ! installed "$package" || remaining+=("$package")
done
[ ${#remaining[@]} -eq 0 ] ||
  DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq "${remaining[@]}" \
    >/dev/null
verify "brindle is no longer installed" eval '! installed brindle'
for file in /usr/bin/brindle $page /usr/share/bash-completion/completions/brindle \
  /usr/share/doc/brindle; do
  verify "$file is gone" [ ! -e "$file" ]
done

echo
if [ "$failures" -ne 0 ]; then
  echo "package.sh: $failures checks failed ($((SECONDS - started)) s)"
  exit 1
fi
echo "package.sh: $deb built, installed, checked and removed ($((SECONDS - started)) s)"
