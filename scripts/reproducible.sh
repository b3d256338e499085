#!/usr/bin/env bash
# Checks that brindle's Debian package builds reproducibly: builds the
# binary packages twice with dpkg-buildpackage -b from two copies of the
# files git tracks (as they are in the working tree) and compares the .deb
# files byte for byte. The two builds differ in everything that must not
# matter: the build path (and its length), the source files' times (old
# ones against the time of the copy), the umask, the time zone, the locale,
# the number of parallel jobs, whether the tests are built and run
# (nocheck), and the time they run at (one after the other).
#
#   bash scripts/reproducible.sh        two builds
#   bash scripts/reproducible.sh DIR    one build, compared with the .deb
#                                       files in DIR (scripts/package.sh's
#                                       build-deb/src, built with the tests
#                                       from the path build-deb/src/brindle) SOURCE_DATE_EPOCH comes from debian/changelog in both, as
# dpkg-buildpackage sets it. On a difference it shows diffoscope's report
# where diffoscope is installed, cmp's otherwise. Works in build-repro/.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

install_missing "${BUILD_PACKAGES[@]}" "${PACKAGING_PACKAGES[@]}"
install_build_depends

started=$SECONDS
out=$PWD/build-repro
rm -rf "$out"
version=$(dpkg-parsechangelog -l debian/changelog -S Version)
arch=$(dpkg --print-architecture)

reference=${1:+$(readlink -f "$1")}
build() {  # NAME DIR UMASK TZ LOCALE OPTIONS STAMP: one build, its .debs in $out/NAME
  local name=$1 dir=$2 mask=$3 zone=$4 locale=$5 options=$6 stamp=$7
  local begun=$SECONDS
  mkdir -p "$dir" "$out/$name"
  git ls-files -z | tar --null -T - -cf - | tar -xf - -C "$dir"
  # The source files' times: those of the working tree, or all STAMP.
  [ -z "$stamp" ] || find "$dir" -exec touch --no-dereference --date="$stamp" {} +
  echo "== build $name: $dir, umask $mask, TZ=$zone, LC_ALL=$locale, DEB_BUILD_OPTIONS=$options, files dated ${stamp:-as in the working tree}"
  (cd "$dir" && umask "$mask" &&
    env TZ="$zone" LC_ALL="$locale" DEB_BUILD_OPTIONS="$options" \
      dpkg-buildpackage -us -uc -b) >"$out/$name.log" 2>&1 || {
    tail -n 40 "$out/$name.log"
    echo "reproducible.sh: build $name failed (log: $out/$name.log)" >&2
    exit 1
  }
  mv "$(dirname "$dir")"/*.deb "$out/$name/"
  echo "   $((SECONDS - begun)) s: $(cd "$out/$name" && ls)"
}

if [ -n "$reference" ]; then
  mkdir -p "$out/first"
  cp "$reference"/*.deb "$out/first/"
  echo "== build first: the .deb files in $reference"
else
  build first "$out/a/brindle" 022 UTC C.UTF-8 parallel=2 \
    "2000-01-01 00:00 UTC"
fi
build second "$out/second-build-in-a-longer-path/src/brindle-$version" 002 \
  Pacific/Kiritimati C "nocheck parallel=1" ""

failed=0
for deb in "brindle_${version}_$arch.deb" "brindle-dbgsym_${version}_$arch.deb"; do
  if cmp -s "$out/first/$deb" "$out/second/$deb"; then
    echo "identical: $deb $(sha256sum <"$out/first/$deb" | cut -c1-64)"
  else
    failed=1
    echo "DIFFERENT: $deb"
    if command -v diffoscope >/dev/null; then
      diffoscope "$out/first/$deb" "$out/second/$deb" || true
    else
      cmp "$out/first/$deb" "$out/second/$deb" || true
    fi
  fi
done
[ "$(ls "$out/first")" = "$(ls "$out/second")" ] ||
  { echo "the two builds made different files"; failed=1; }
if [ "$failed" -ne 0 ]; then
  echo "reproducible.sh: the two builds differ ($((SECONDS - started)) s)"
  exit 1
fi
rm -rf "$out/a" "$out/second-build-in-a-longer-path"
echo "reproducible.sh: two builds, byte-identical .deb files ($((SECONDS - started)) s)"
