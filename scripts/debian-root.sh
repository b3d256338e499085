#!/usr/bin/env bash
# Checks brindle on another Debian release from a Debian 12 machine (or any
# Debian with mmdebstrap): builds a minimal root of RELEASE with mmdebstrap
# from the mirror this machine uses, copies this checkout into it (the files
# git tracks, as they are in the working tree, without build directories),
# and runs inside it, with chroot, what a user of that release runs: the
# test suite (scripts/test.sh), the Debian package round trip
# (scripts/package.sh: build, lintian, hardening-check, install,
# autopkgtest, purge), a second build of the package that must be
# byte-identical (scripts/reproducible.sh) and the benchmark harness at 1%
# of its data. /proc, /sys and /dev are mounted into the root while the
# commands run and unmounted afterwards, also after a failure. Run as root.
#
# RELEASE is one of
#   trixie (or 13)       Debian 13
#   sid (or unstable)    Debian unstable, where uploads go. Its Release file
#                        on a mirror that is no longer updated can be past
#                        its Valid-Until date: apt in the root is told not
#                        to check it.
#   bookworm-backports   Debian 12 with libcurl (libcurl4,
#                        libcurl4-openssl-dev, curl) from bookworm-backports
#
#   bash scripts/debian-root.sh RELEASE   build a root in a temporary
#                                         directory, check, remove the root
#   bash scripts/debian-root.sh RELEASE root DIR
#                                         only build the root in DIR (new)
#   bash scripts/debian-root.sh RELEASE check DIR
#                                         only check, in the root in DIR
#   bash scripts/debian-root.sh RELEASE remove DIR
#                                         remove the root in DIR
#   bash scripts/debian-root.sh RELEASE shell DIR [COMMAND]
#                                         run COMMAND (default: an
#                                         interactive shell) in DIR's root,
#                                         in the checkout copied there
#   bash scripts/debian-root.sh RELEASE bench DIR [OUTPUT]
#                                         copy the checkout into DIR's root
#                                         and run the full benchmark there
#                                         (bash bench/run.sh); its report
#                                         comes back as OUTPUT (default
#                                         docs/benchmarks-debian13.md for
#                                         Debian 13, docs/benchmarks-RELEASE.md
#                                         otherwise), the chart beside it as
#                                         .png
#
# DEBIAN_ROOT_MIRROR overrides the mirror; DEBIAN_ROOT_STEPS (default "test
# package reproducible bench") chooses what "check" runs, from those four
# and "coverage": scripts/coverage.sh --sanitize in the root, its report
# copied out as docs/coverage-debian13.md (Debian 13) or
# docs/coverage-RELEASE.md. "bench" hands
# BENCH_SUITE, BENCH_RUNS, BENCH_WARMUP, BENCH_SCALE, BENCH_ONLY,
# BENCH_ENTRIES and BENCH_TMPDIR (a directory in the root) on to
# bench/run.sh. scripts/debian13.sh is this script for Debian 13.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/packages.sh
source scripts/packages.sh

if [ "$(id -u)" -ne 0 ]; then
  echo "debian-root.sh: run as root (it builds a root and chroots into it)" >&2
  exit 1
fi

# The release: its suite for mmdebstrap, its name in messages, and what its
# root needs besides the suite itself.
release=${1:-}
shift || true
suite=""
label=""
mmdebstrap_options=()
case $release in
  trixie | 13)
    release=trixie suite=trixie label="Debian 13"
    ;;
  sid | unstable)
    release=sid suite=sid label="Debian unstable"
    # The mirror's copy of unstable may be older than its Release file's
    # Valid-Until: apt in the root (and mmdebstrap) would refuse it. The
    # option stays in the root's apt configuration, for the apt-get of the
    # steps inside.
    mmdebstrap_options+=(--aptopt='Acquire::Check-Valid-Until "false"')
    ;;
  bookworm-backports)
    suite=bookworm label="Debian 12 with libcurl from bookworm-backports"
    ;;
  *)
    echo "usage: bash scripts/debian-root.sh RELEASE [root DIR | check DIR |" \
      "remove DIR | shell DIR [COMMAND] | bench DIR [OUTPUT]]" >&2
    echo "RELEASE: trixie (13), sid (unstable) or bookworm-backports" >&2
    exit 2
    ;;
esac

# Where the checkout goes inside the root.
inside=/brindle

# The Debian archive this machine installs from, unless DEBIAN_ROOT_MIRROR
# names one.
mirror() {
  echo "${DEBIAN_ROOT_MIRROR:-$(debian_mirror)}"
}

build_root() {  # DIR
  local dir=$1 packages begun=$SECONDS
  [ ! -e "$dir" ] || [ -z "$(ls -A "$dir")" ] || {
    echo "debian-root.sh: $dir exists and is not empty" >&2
    exit 1
  }
  install_missing "${CI_PACKAGES[@]}"
  # Everything the steps need is installed while the root is built, in one
  # go; the scripts inside then find nothing missing but the libraries of
  # the unpacked FTP daemons. git lets the benchmark report name the commit
  # it measured.
  packages=$(printf '%s\n' "${SUITE_PACKAGES[@]}" "${BENCH_PACKAGES[@]}" \
    git | sort -u | paste -sd , -)
  local sources=("deb $(mirror) $suite main")
  if [ "$release" = bookworm-backports ]; then
    # Backports are never chosen by themselves (NotAutomatic): libcurl and
    # the curl program are upgraded from there once the root is built.
    sources+=("deb $(mirror) bookworm-backports main")
    # (One line: mmdebstrap runs the hook with sh -c.)
    # shellcheck disable=SC2016 # $1 is the root, for mmdebstrap's sh
    mmdebstrap_options+=(--customize-hook='chroot "$1" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends -t bookworm-backports libcurl4 libcurl4-openssl-dev curl >/dev/null')
  fi
  echo "Building a $label root in $dir from $(mirror)"
  mmdebstrap --quiet --variant=apt "${mmdebstrap_options[@]}" \
    --include="$packages" "$suite" "$dir" "${sources[@]}"
  echo "$label root built in $((SECONDS - begun)) s"
}

mounted=()
unmount_all() {
  local index
  for ((index = ${#mounted[@]} - 1; index >= 0; index--)); do
    umount -R "${mounted[$index]}" 2>/dev/null ||
      umount -R --lazy "${mounted[$index]}" || true
  done
  mounted=()
}
mount_into() {  # DIR
  local dir=$1
  # The root becomes a mount point of its own, as / is: "unshare --mount"
  # (the tests' private /dev for Pure-FTPd) changes the propagation of /,
  # which only a mount point has.
  mount --bind "$dir" "$dir"
  mounted+=("$dir")
  mount --make-private "$dir"
  mount -t proc proc "$dir/proc"
  mounted+=("$dir/proc")
  local fs
  for fs in sys dev; do
    # Recursive (/dev/pts, /dev/shm), and one-way: unmounting it in the
    # root must never unmount anything of this machine's.
    mount --rbind "/$fs" "$dir/$fs"
    mounted+=("$dir/$fs")
    mount --make-rslave "$dir/$fs"
  done
}

# Processes still running with their root in DIR: what the steps started
# and left behind (a step that ran out of time). They are stopped by pid
# so that the root can be unmounted and removed.
stop_leftovers() {  # DIR
  local dir pid pids=() round
  dir=$(readlink -f "$1")
  for round in TERM KILL; do
    pids=()
    for pid in /proc/[0-9]*; do
      [ "$(readlink "$pid/root" 2>/dev/null)" = "$dir" ] || continue
      pids+=("${pid#/proc/}")
    done
    [ ${#pids[@]} -gt 0 ] || return 0
    echo "debian-root.sh: stopping ${#pids[@]} processes left in the root (SIG$round)"
    kill -s "$round" "${pids[@]}" 2>/dev/null || true
    sleep 2
  done
}

# Runs one command line inside the root, in the copied checkout, with a
# clean environment.
run_inside() {  # DIR COMMAND
  chroot "$1" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    HOME=/root LANG=C.UTF-8 TERM=dumb ${CI:+CI="$CI"} \
    bash -c "cd $inside && $2"
}

require_root() {  # DIR
  [ -x "$1/usr/bin/apt-get" ] || {
    echo "debian-root.sh: $1 holds no Debian root" >&2
    exit 1
  }
}

# Replaces the copy of the checkout in the root with the files git tracks,
# as they are in the working tree. The copy is a git repository at this
# checkout's commit, with its index, so that "git describe --dirty" inside
# names the same commit and sees the same changes.
copy_checkout() {  # DIR
  local dir=$1
  echo "Copying the checkout into $dir$inside"
  rm -rf "${dir:?}$inside"
  mkdir -p "$dir$inside"
  git ls-files -z | tar --null -T - -cf - | tar -xf - -C "$dir$inside"
  git -C "$dir$inside" init --quiet
  git -C "$dir$inside" fetch --quiet --no-tags "$PWD" HEAD
  git -C "$dir$inside" reset --quiet FETCH_HEAD
}

check_root() {  # DIR
  local dir=$1 step started status failed=0
  require_root "$dir"
  copy_checkout "$dir"
  mount_into "$dir"
  echo "Debian $(cat "$dir/etc/debian_version"), $(
    run_inside "$dir" 'curl-config --version' 2>/dev/null ||
      echo "libcurl unknown")"
  for step in ${DEBIAN_ROOT_STEPS:-test package reproducible bench}; do
    started=$SECONDS
    echo
    case $step in
      test)
        echo "== $label: unit and end-to-end tests"
        run_inside "$dir" 'bash scripts/test.sh' && status=0 || status=$?
        ;;
      package)
        echo "== $label: Debian package: build, lintian, hardening-check, install, autopkgtest, purge"
        run_inside "$dir" 'bash scripts/package.sh' && status=0 || status=$?
        ;;
      reproducible)
        # A second build, compared with the package step's (or two builds
        # when that step did not run).
        echo "== $label: reproducible package build"
        # shellcheck disable=SC2016 # expanded inside the root
        run_inside "$dir" 'reference=""
          ! ls build-deb/src/*.deb >/dev/null 2>&1 || reference=build-deb/src
          bash scripts/reproducible.sh $reference' && status=0 || status=$?
        ;;
      coverage)
        # The sanitizers' run of the whole suite with coverage, whose report
        # comes back into this checkout's docs/.
        echo "== $label: the whole suite under the sanitizers, with coverage"
        run_inside "$dir" "COVERAGE_OUTPUT=$coverage_output bash scripts/coverage.sh --sanitize" &&
          status=0 || status=$?
        [ ! -f "$dir$inside/$coverage_output" ] ||
          cp "$dir$inside/$coverage_output" "$coverage_output"
        ;;
      bench)
        echo "== $label: benchmark harness, at 1% of the data and one round"
        # shellcheck disable=SC2016 # expanded inside the root
        run_inside "$dir" 'out=$(mktemp -d) &&
          BENCH_SCALE=0.01 BENCH_RUNS=1 BENCH_WARMUP=0 \
          BENCH_OUTPUT="$out/benchmarks.md" bash bench/run.sh &&
          rm -rf "$out"' && status=0 || status=$?
        ;;
      *)
        echo "debian-root.sh: unknown step '$step'" >&2
        status=2
        ;;
    esac
    echo "== $label $step: status $status after $((SECONDS - started)) s"
    [ "$status" -eq 0 ] || failed=1
  done
  stop_leftovers "$dir"
  unmount_all
  return "$failed"
}

# Runs bench/run.sh in the root, with the BENCH_* settings of this
# environment, and copies its report and chart out to OUTPUT and the .png
# beside it. Inside, the report is docs/ plus OUTPUT's name, so that its
# links to the rest of the checkout hold; an existing OUTPUT goes in first,
# so that the notes that bench.py keeps in it survive.
bench_root() {  # DIR OUTPUT
  local dir=$1 output=$2 name chart setting settings=() started=$SECONDS
  local status
  require_root "$dir"
  name=$(basename "$output")
  chart=${name%.*}.png
  copy_checkout "$dir"
  [ ! -f "$output" ] || cp "$output" "$dir$inside/docs/$name"
  for setting in SUITE RUNS WARMUP SCALE ONLY ENTRIES TMPDIR; do
    setting=BENCH_$setting
    [ -z "${!setting:-}" ] ||
      settings+=("$setting=$(printf %q "${!setting}")")
  done
  settings+=("BENCH_OUTPUT=docs/$name")
  mount_into "$dir"
  echo "Debian $(cat "$dir/etc/debian_version"), $(
    run_inside "$dir" 'curl-config --version' 2>/dev/null ||
      echo "libcurl unknown")"
  echo "== $label: full benchmark: ${settings[*]} bash bench/run.sh"
  run_inside "$dir" "${settings[*]} bash bench/run.sh" && status=0 ||
    status=$?
  echo "== $label benchmark: status $status after $((SECONDS - started)) s"
  stop_leftovers "$dir"
  unmount_all
  [ "$status" -eq 0 ] || return "$status"
  mkdir -p "$(dirname "$output")"
  cp "$dir$inside/docs/$name" "$output"
  cp "$dir$inside/docs/$chart" "$(dirname "$output")/$chart"
  echo "Wrote $output and $(dirname "$output")/$chart"
}

remove_root() {  # DIR
  local dir=$1
  # Never follow a mount that is still there into this machine's files.
  if findmnt -rn -o TARGET |
    awk -v root="$(readlink -f "$dir")" '
      $0 == root || index($0, root "/") == 1 { found = 1 }
      END { exit !found }'; then
    echo "debian-root.sh: $dir still has mounts; not removed" >&2
    return 1
  fi
  rm -rf --one-file-system "$dir"
}

# Whatever happens, nothing stays mounted and nothing keeps running in the
# root; a temporary root is removed.
root_dir=""
temporary=""
cleanup() {
  [ -z "$root_dir" ] || stop_leftovers "$root_dir"
  unmount_all
  [ -z "$temporary" ] || remove_root "$temporary"
}
trap cleanup EXIT
# A time-out (SIGTERM) or an interrupt ends the script through that trap.
trap 'exit 143' TERM
trap 'exit 130' INT

default_bench_output=docs/benchmarks-$release.md
coverage_output=docs/coverage-$release.md
if [ "$release" = trixie ]; then
  default_bench_output=docs/benchmarks-debian13.md
  coverage_output=docs/coverage-debian13.md
fi
case ${1:-} in
  root)
    build_root "${2:?debian-root.sh RELEASE root DIR}"
    ;;
  check)
    root_dir=${2:?debian-root.sh RELEASE check DIR}
    check_root "$root_dir"
    ;;
  remove)
    remove_root "${2:?debian-root.sh RELEASE remove DIR}"
    ;;
  bench)
    root_dir=${2:?debian-root.sh RELEASE bench DIR [OUTPUT]}
    bench_root "$root_dir" "${3:-$default_bench_output}"
    ;;
  shell)
    root_dir=${2:?debian-root.sh RELEASE shell DIR [COMMAND]}
    mount_into "$root_dir"
    if [ $# -gt 2 ]; then
      run_inside "$root_dir" "${*:3}"
    else
      chroot "$root_dir" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin \
        HOME=/root LANG=C.UTF-8 TERM="${TERM:-dumb}" bash -l
    fi
    ;;
  "")
    temporary=$(mktemp -d "/var/tmp/brindle-$release.XXXXXX")
    root_dir=$temporary
    build_root "$root_dir"
    check_root "$root_dir"
    ;;
  *)
    echo "usage: bash scripts/debian-root.sh RELEASE [root DIR | check DIR |" \
      "remove DIR | shell DIR [COMMAND] | bench DIR [OUTPUT]]" >&2
    exit 2
    ;;
esac
