#!/usr/bin/env bash
# The release recipe. The version is CMakeLists.txt's project(VERSION); the
# Debian packaging (debian/changelog: that version, or, should the source
# package become non-native, that version plus a Debian revision) and NEWS
# must agree with it.
#
#   bash scripts/release.sh check   check that CMakeLists.txt, debian/changelog
#                                   and NEWS name the same version (.ci/run
#                                   runs this)
#   bash scripts/release.sh tarball [REF]
#                                   the release tarball of REF (default:
#                                   the tag vVERSION, or HEAD before there is
#                                   one) with git archive, named as a Debian
#                                   orig tarball:
#                                   build-release/brindle_VERSION.orig.tar.gz,
#                                   without debian/
#
# A release, by hand:
#   1. Set the version in CMakeLists.txt (project(brindle VERSION X.Y.Z)),
#      add a "brindle X.Y.Z" section at the top of NEWS, and add a
#      debian/changelog entry X.Y.Z (dch -v X.Y.Z, distribution unstable;
#      the source package is native, 3.0 (native)); commit.
#   2. bash scripts/release.sh check && bash .ci/run (or at least
#      bash scripts/package.sh and bash scripts/debian13.sh).
#   3. git tag -s vX.Y.Z -m "brindle X.Y.Z"
#   4. bash scripts/release.sh tarball; publish it with its signature
#      (gpg --armor --detach-sign build-release/brindle_X.Y.Z.orig.tar.gz).
#   5. For the sponsor: the source package of the tag
#      (dpkg-buildpackage -S in a checkout of it, or sbuild in a sid
#      chroot). Should the package become non-native (3.0 (quilt), version
#      X.Y.Z-1), the tarball of step 4 is its orig tarball: place it beside
#      the checkout.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake_version() {
  sed -n 's/^project(brindle VERSION \([0-9][0-9.]*\)\b.*/\1/p' CMakeLists.txt
}
debian_version() {
  dpkg-parsechangelog -l debian/changelog -S Version
}

check() {
  local version debian upstream news failed=0
  version=$(cmake_version)
  debian=$(debian_version)
  # The upstream part: without the epoch and the Debian revision.
  upstream=${debian#*:}
  upstream=${upstream%-*}
  news=$(sed -n '1s/^brindle \([^ ]*\)$/\1/p' NEWS)
  if [ -z "$version" ]; then
    echo "release.sh: no project(brindle VERSION ...) in CMakeLists.txt" >&2
    return 1
  fi
  if [ "$upstream" != "$version" ]; then
    echo "release.sh: debian/changelog's version $debian is not $version" \
      "(CMakeLists.txt) plus a Debian revision" >&2
    failed=1
  fi
  if [ "$news" != "$version" ]; then
    echo "release.sh: NEWS begins with '$(head -n 1 NEWS)', not" \
      "'brindle $version'" >&2
    failed=1
  fi
  [ "$failed" -eq 0 ] || return 1
  echo "version $version: CMakeLists.txt, debian/changelog ($debian) and NEWS agree"
}

tarball() {  # [REF]
  local version ref out
  version=$(cmake_version)
  ref=${1:-}
  if [ -z "$ref" ]; then
    ref=HEAD
    ! git rev-parse -q --verify "refs/tags/v$version" >/dev/null ||
      ref=v$version
  fi
  mkdir -p build-release
  out=build-release/brindle_$version.orig.tar.gz
  # The files git tracks at REF, but debian/, under brindle-VERSION/;
  # dated by the commit (git archive's own doing), compressed without a
  # name or time stamp.
  git archive --format=tar --prefix="brindle-$version/" "$ref" -- . \
    ':(exclude)debian' | gzip -n -9 >"$out"
  echo "$out: $(git rev-parse --short=12 "$ref^{commit}") ($ref)," \
    "$(tar -tzf "$out" | grep -vc '/$') files"
}

case ${1:-} in
  check) check ;;
  tarball) tarball "${2:-}" ;;
  *)
    echo "usage: bash scripts/release.sh check | tarball [REF]" >&2
    exit 2
    ;;
esac
