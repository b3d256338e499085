# Installs the Debian packages given as arguments that are not installed yet.
# Sourced by the other scripts; runs apt-get only when something is missing.

install_missing() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f='${Status}\n' "$package" 2>/dev/null |
      grep -q '^install ok installed$' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0

  echo "Installing Debian packages: ${missing[*]}"
  apt_get_quietly install "${missing[@]}"
}

# Runs "apt-get update", then "apt-get COMMAND ARGS..." non-interactively and
# without recommended packages, as root (through sudo otherwise), e.g.
# apt_get_quietly install PACKAGE... or apt_get_quietly satisfy 'DEPENDS'.
apt_get_quietly() {
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  # Keep apt from starting the FTP daemons it installs: tests start their
  # own servers on loopback.
  local made_policy=""
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    printf '#!/bin/sh\nexit 101\n' | $sudo tee /usr/sbin/policy-rc.d >/dev/null
    $sudo chmod 755 /usr/sbin/policy-rc.d
    made_policy=1
  fi
  local status=0
  # On a machine shared with other apt users, wait for their dpkg lock
  # rather than fail.
  $sudo apt-get update -qq &&
    DEBIAN_FRONTEND=noninteractive $sudo apt-get -y -qq \
      -o DPkg::Lock::Timeout=600 --no-install-recommends "$@" >/dev/null ||
    status=$?
  [ -z "$made_policy" ] || $sudo rm -f /usr/sbin/policy-rc.d
  return "$status"
}

# The Debian archive this system installs from, as its apt sources name it
# (not its security or updates suites), or deb.debian.org when the package
# lists do not say.
debian_mirror() {
  # shellcheck disable=SC2016 # apt's own $(FIELD) placeholders
  apt-get indextargets --format '$(LABEL) $(CODENAME) $(REPO_URI)' \
    'Created-By: Packages' 2>/dev/null |
    awk '$1 == "Debian" && $2 !~ /-/ { print $3; exit }' | grep . ||
    echo http://deb.debian.org/debian/
}

# What building brindle needs (dpkg-dev: dpkg-buildflags, whose hardening
# flags every build uses).
BUILD_PACKAGES=(
  cmake ninja-build g++ pkg-config dpkg-dev
  libcurl4-openssl-dev libboost-regex-dev libboost-program-options-dev
)
# What its tests need on top: GoogleTest, pytest, the FTP servers that do
# not conflict with vsftpd (pyftpdlib, Twisted, aioftp, GridFTP), socat (the
# inetd-style listener of the unpacked inetutils ftpd and ftpd-ssl), valgrind
# for the memcheck runs, passwd (useradd, chpasswd) for the throwaway local
# accounts, whois for its mkpasswd (password hashes for the daemons' own user
# files, GridFTP's included), and mount for Pure-FTPd's private /dev.
TEST_PACKAGES=(
  libgtest-dev libgmock-dev python3 python3-pytest python3-pyftpdlib
  python3-twisted python3-aioftp globus-gridftp-server-progs socat
  vsftpd curl valgrind passwd whois mount
)
# What the fuzz targets need: clang with libFuzzer and the sanitizer runtimes
# (this Debian release's default clang).
FUZZ_PACKAGES=(clang libclang-rt-dev)
# What the manual page, the shell completion and the Debian package need on
# top: scdoc renders the page, man-db and groff check it, bash-completion
# drives the completion test, debhelper builds the package (with dpkg-dev),
# lintian, devscripts (hardening-check) and binutils (objdump, readelf)
# check it, autopkgtest runs its end-to-end tests on this machine.
PACKAGING_PACKAGES=(
  scdoc man-db groff-base bash-completion dpkg-dev debhelper lintian
  devscripts autopkgtest binutils
)
# Everything the whole test suite needs. The compatibility matrix needs the
# ProFTPD and Pure-FTPd binaries and their runtime libraries too: the
# daemons conflict with vsftpd as packages, so scripts/ftp-servers.sh
# unpacks them and installs the libraries that their packages depend on.
SUITE_PACKAGES=(
  "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" "${PACKAGING_PACKAGES[@]}"
)
# The linters of scripts/lint.sh (this Debian release's default LLVM).
QUALITY_PACKAGES=(clang-tidy clang-format cppcheck)
# What scripts/coverage.sh needs on top of the suite: gcovr, which reads the
# counts of GCC's coverage build through the gcov of the same GCC.
COVERAGE_PACKAGES=(gcovr)
# What the benchmark script needs on top of the build: the FTP server, the
# clients it compares brindle with, and the chart plotter.
BENCH_PACKAGES=(
  vsftpd curl lftp gnuplot-nox time
)
# What .ci/run needs on top: mmdebstrap builds the Debian 13 root that the
# suite runs in after the Debian 12 stages.
CI_PACKAGES=(mmdebstrap)

# Installs what debian/control's Build-Depends name and this machine lacks
# (run from the top of the checkout).
install_build_depends() {
  dpkg-checkbuilddeps >/dev/null 2>&1 || apt_get_quietly build-dep ./
}
