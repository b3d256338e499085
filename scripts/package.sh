#!/usr/bin/env bash
# Builds brindle's Debian source package and its binary packages with
# dpkg-buildpackage from a clean copy of the files git tracks (as they are
# in the working tree) in build-deb/src/brindle, checks them with lintian
# (every tag fails, bar the overrides that debian/ justifies) and
# hardening-check, installs the package with apt-get on this machine,
# checks the installed program, manual page and bash completion from their
# installed paths, runs the package's autopkgtest (the end-to-end tests
# against /usr/bin/brindle) with autopkgtest's null runner, and purges the
# package again, together with every package that its installation or the
# tests pulled in, and checks that nothing of it is left. Packages that
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
install_build_depends
# One version: CMakeLists.txt's, which debian/changelog and NEWS repeat.
bash scripts/release.sh check

# The packages installed now: whatever else is installed at the end (what
# brindle's installation and the autopkgtest pulled in) is purged again.
installed_packages() {
  dpkg-query -W -f='${db:Status-Abbrev} ${Package}\n' |
    awk '$1 ~ /^.i/ { print $2 }' | sort
}
before=$(installed_packages)
work=$(mktemp -d /tmp/brindle-package.XXXXXX)
purge_new_packages() {
  local new
  new=$(comm -13 <(echo "$before") <(installed_packages))
  [ -z "$new" ] || {
    echo "purging what the package and its tests pulled in: $(paste -sd ' ' <<<"$new")"
    # shellcheck disable=SC2086 # one package name a word
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq $new >/dev/null
  }
}
# Installs again what was installed before and is not now: a daemon that
# the daemon of a later autopkgtest removed, as their packages conflict.
restore_removed_packages() {
  local removed
  removed=$(comm -23 <(echo "$before") <(installed_packages))
  [ -z "$removed" ] || {
    echo "installing again what the tests' daemons removed: $(paste -sd ' ' <<<"$removed")"
    # shellcheck disable=SC2086 # one package name a word
    apt_get_quietly install $removed
  }
}
cleanup() {
  if installed brindle; then
    echo "package.sh: removing brindle after a failure"
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq brindle >/dev/null ||
      true
  fi
  purge_new_packages || true
  restore_removed_packages || true
  rm -rf "$work"
}
trap cleanup EXIT

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
step "Building the source and binary packages"
rm -rf build-deb
mkdir -p build-deb/src/brindle
git ls-files -z | tar --null -T - -cf - | tar -xf - -C build-deb/src/brindle
(cd build-deb/src/brindle && dpkg-buildpackage -us -uc) >build-deb/build.log \
  2>&1 || { tail -n 40 build-deb/build.log; exit 1; }
version=$(dpkg-parsechangelog -l debian/changelog -S Version)
arch=$(dpkg --print-architecture)
deb=$PWD/build-deb/src/brindle_${version}_$arch.deb
for file in "$deb" "build-deb/src/brindle-dbgsym_${version}_$arch.deb" \
  "build-deb/src/brindle_$version.dsc"; do
  [ -f "$file" ] || { echo "package.sh: $file was not built" >&2; exit 1; }
  echo "built $file"
done
grep -E '^(100% tests passed|[0-9]+% tests passed)' build-deb/build.log ||
  echo "(no tests run at build time: nocheck)"
dpkg-deb --info "$deb"
dpkg-deb --contents "$deb"

step "lintian $(dpkg-query -W -f='${Version}' lintian)"
# debian/control's Standards-Version is unstable's Debian policy. An older
# release's lintian (Debian 12's knows policy up to 4.6.2, Debian 13's up to
# 4.7.2) calls it newer than it knows: only that is left out there.
standards=$(sed -n 's/^Standards-Version: *//p' debian/control)
known=$(/usr/bin/python3 -c '
import json, sys
releases = json.load(open(sys.argv[1]))["releases"]
print("\n".join(r["version"] for r in releases))' \
  /usr/share/lintian/data/debian-policy/releases.json 2>/dev/null || true)
suppressed=()
if ! grep -qE "^${standards//./\\.}(\\.[0-9]+)?$" <<<"$known"; then
  echo "(this lintian knows Debian policy up to $(sort -V <<<"$known" | tail -n 1), not $standards: newer-standards-version left out)"
  suppressed+=(newer-standards-version)
fi
# Left out where this lintian knows them (unstable's tags them, pedantic);
# fixing them would break the Debian 12 build:
#   package-uses-old-debhelper-compat-version (unstable's lintian asks for
#     compat 14): Debian 12's debhelper offers compat levels up to 13.
#   redundant-rules-requires-root-no-field (unstable's dpkg builds without
#     root unless told otherwise): Debian 12's dpkg builds as root (with
#     fakeroot) unless the field says "no", and its lintian calls a package
#     without the field silent-on-rules-requiring-root.
#   redundant-priority-optional-field (unstable's dpkg defaults to
#     "optional"): Debian 12's lintian recommends the field in the source
#     paragraph (recommended-field).
# A lintian that does not know a tag stops at once when told to leave it
# out: only the tags this one knows are named.
known_tags=$(lintian-explain-tags --list-tags 2>/dev/null || true)
for tag in package-uses-old-debhelper-compat-version \
  redundant-priority-optional-field redundant-rules-requires-root-no-field; do
  if grep -qx "$tag" <<<"$known_tags"; then suppressed+=("$tag"); fi
done
echo "(left out: ${suppressed[*]:-nothing})"
suppress=()
[ ${#suppressed[@]} -eq 0 ] ||
  suppress=(--suppress-tags "$(IFS=,; echo "${suppressed[*]}")")
# --fail-on none: the status says whether lintian itself ran, the output
# which tags it found.
lintian -EvIL +pedantic --fail-on none "${suppress[@]}" \
  "build-deb/src/brindle_${version}_$arch.changes" >build-deb/lintian.txt 2>&1 &&
  lintian_status=0 || lintian_status=$?
cat build-deb/lintian.txt
verify "lintian ran to its end (status $lintian_status)" [ "$lintian_status" -eq 0 ]
tags=$(grep -E '^[EWIPX]: ' build-deb/lintian.txt || true)
verify "lintian: no tags ($(grep -c . <<<"$tags" || true) shown above)" [ -z "$tags" ]

dpkg-deb --extract "$deb" "$work/root"
dpkg-deb --extract "build-deb/src/brindle-dbgsym_${version}_$arch.deb" \
  "$work/dbgsym"
step "hardening-check /usr/bin/brindle"
# Control-flow protection is found only where the linker marks the program
# for IBT and SHSTK, which it does only when every object it links is
# marked. Neither Debian 12's nor Debian 13's glibc start files (Scrt1.o,
# crti.o, crtn.o) are, so no program of theirs is marked (not /usr/bin/ls
# either), whatever -fcf-protection puts in the code: it is required where
# a program built with -fcf-protection does get the marking. It is x86's;
# branch protection (BTI and PAC), which Debian 13's hardening-check asks
# for too, is arm64's.
skip=()
echo 'int main() { return 0; }' >"$work/probe.cc"
if ! { g++ -fcf-protection "$work/probe.cc" -o "$work/probe" 2>/dev/null &&
  readelf -n "$work/probe" | grep -q 'x86 feature: IBT, SHSTK'; }; then
  echo "(this toolchain does not mark a program built with -fcf-protection for IBT and SHSTK: control-flow protection not required)"
  skip+=(--nocfprotection)
fi
help=$(hardening-check --help 2>&1 || true)
[ "$arch" = arm64 ] || ! grep -q -- --nobranchprotection <<<"$help" ||
  skip+=(--nobranchprotection)
hardening-check "${skip[@]}" "$work/root/usr/bin/brindle" &&
  status=0 || status=$?
verify "hardening-check ${skip[*]}: every feature found (status $status)" \
  [ "$status" -eq 0 ]
# hardening-check finds stack clash protection only by the probes in a
# function with a frame larger than a page, which brindle may not have: the
# compiler's record of its options in the debugging symbols says whether it
# was built with it.
readelf --debug-dump=info "$work"/dbgsym/usr/lib/debug/.build-id/*/*.debug \
  2>/dev/null | grep 'DW_AT_producer' | grep -v 'GNU AS' >"$work/producers" || true
# (It records no -D options: hardening-check finds _FORTIFY_SOURCE's
# checked functions instead.)
for flag in -fstack-protector-strong -fstack-clash-protection; do
  verify "every compilation unit was built with $flag" \
    eval "[ -s '$work/producers' ] && ! grep -qv -e '$flag' '$work/producers'"
done

# Every shared library that the program loads directly must come from a
# package that the .deb depends on.
step "Checking the dependencies"
depends=$(dpkg-deb --field "$deb" Depends)
depended=$(tr ',' '\n' <<<"$depends" | sed 's/^ *//; s/[ (].*//' | sort -u)
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
  /usr/share/doc/brindle/README.md.gz /usr/share/doc/brindle/copyright \
  /usr/share/doc/brindle/changelog.gz; do
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
build-deb/src/brindle/obj-*/brindle --help >"$work/help.built"
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

# --- autopkgtest -------------------------------------------------------------
# BRINDLE_AUTOPKGTEST_TESTS names the tests of debian/tests/control to run
# (all of them by default; "none" runs none, for a machine that runs the
# end-to-end tests from a build of their own anyway). Each FTP daemon has a
# test of its own, and installing its daemon removes the one before (they
# conflict as packages); the packages removed that way are installed again
# below.
tests=${BRINDLE_AUTOPKGTEST_TESTS:-$(sed -n \
  's/^Features: *test-name=\([^ ,]*\).*/\1/p' debian/tests/control)}
if [ "$tests" = none ]; then
  step "autopkgtest: none run (BRINDLE_AUTOPKGTEST_TESTS=none)"
else
  step "autopkgtest: $(wc -w <<<"$tests") tests of the end-to-end tests against /usr/bin/brindle (null runner): $(paste -sd ' ' <<<"$tests")"
  autopkgtest_started=$SECONDS
  # The tests need the machine itself or a container (local accounts,
  # daemons, a mount namespace for Pure-FTPd) and change it (breaks-testbed):
  # the null runner declares neither (Debian 12's declares isolation-machine
  # only), and this machine (or the root of scripts/debian-root.sh) is there
  # for the checks.
  ignored=isolation-machine,isolation-container,breaks-testbed
  null=(--ignore-restrictions="$ignored" -- null)
  selected=()
  for name in $tests; do
    selected+=(--test-name="$name")
  done
  # The daemons that the tests install are not started by their packages:
  # the tests start their own on loopback.
  made_policy=""
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    printf '#!/bin/sh\nexit 101\n' >/usr/sbin/policy-rc.d
    chmod 755 /usr/sbin/policy-rc.d
    made_policy=1
  fi
  autopkgtest --no-built-binaries --output-dir build-deb/autopkgtest \
    --summary-file build-deb/autopkgtest.summary "${selected[@]}" \
    "$deb" "build-deb/src/brindle_$version.dsc" "${null[@]}" \
    >build-deb/autopkgtest.log 2>&1 && status=0 || status=$?
  [ -z "$made_policy" ] || rm -f /usr/sbin/policy-rc.d
  # Each test's pytest summary and why its tests of other servers skipped.
  grep -E '^autopkgtest .*: test |^e2e: skipped|^FAILED |[0-9]+ passed|[0-9]+ failed' \
    build-deb/autopkgtest.log | tail -n 60 || true
  cat build-deb/autopkgtest.summary 2>/dev/null || true
  verify "autopkgtest passed (status $status, $((SECONDS - autopkgtest_started)) s; log in build-deb/autopkgtest.log)" \
    [ "$status" -eq 0 ]
fi

# --- Remove -----------------------------------------------------------------
step "Purging the package"
DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq brindle >/dev/null
purge_new_packages
restore_removed_packages
verify "dpkg knows no brindle package any more, not even its configuration" \
  eval '[ -z "$(dpkg-query -W -f="\${db:Status-Abbrev}" brindle 2>/dev/null)" ] ||
    [ "$(dpkg-query -W -f="\${db:Status-Abbrev}" brindle)" = "un " ]'
verify "no package is left installed that was not before" \
  [ "$(installed_packages)" = "$before" ]
# Every file and directory of the package that is not a shared directory
# (/usr, /usr/share/man/man1 and the like) is gone.
left=$(dpkg-deb --fsys-tarfile "$deb" | tar -t | sed 's|^\./|/|; s|/$||' |
  while read -r path; do
    [ -n "$path" ] && [ -e "$path" ] || continue
    [ -d "$path" ] && dpkg -S "$path" >/dev/null 2>&1 && continue
    echo "$path"
  done)
verify "nothing of the package is left on disk ${left:+(left: $left)}" \
  [ -z "$left" ]

echo
if [ "$failures" -ne 0 ]; then
  echo "package.sh: $failures checks failed ($((SECONDS - started)) s)"
  exit 1
fi
echo "package.sh: $deb built, installed, checked and removed ($((SECONDS - started)) s)"
