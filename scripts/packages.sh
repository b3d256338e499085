# Installs the Debian packages given as arguments that are not installed yet.
# Sourced by the other scripts; runs apt-get only when something is missing.

install_missing() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f='${Status}\n' "$package" 2>/dev/null |
      grep -q '^install ok installed$' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0

  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "Installing Debian packages: ${missing[*]}"
  # Keep apt from starting the FTP daemons it installs: tests start their
  # own servers on loopback.
  local made_policy=""
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    printf '#!/bin/sh\nexit 101\n' | $sudo tee /usr/sbin/policy-rc.d >/dev/null
    $sudo chmod 755 /usr/sbin/policy-rc.d
    made_policy=1
  fi
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq \
    --no-install-recommends "${missing[@]}" >/dev/null
  [ -z "$made_policy" ] || $sudo rm -f /usr/sbin/policy-rc.d
}

# What building brindle needs.
BUILD_PACKAGES=(
  cmake ninja-build g++ pkg-config
  libcurl4-openssl-dev libboost-regex-dev libboost-program-options-dev
)
# What its tests need on top: GoogleTest, pytest, the FTP servers that do
# not conflict with vsftpd (pyftpdlib, Twisted, aioftp, GridFTP), socat (the
# inetd-style listener of the unpacked inetutils ftpd and ftpd-ssl), whois
# (mkpasswd, for GridFTP's password file), and valgrind for the memcheck
# runs.
TEST_PACKAGES=(
  libgtest-dev libgmock-dev python3 python3-pytest python3-pyftpdlib
  python3-twisted python3-aioftp globus-gridftp-server-progs socat whois
  vsftpd curl valgrind
)
# What the fuzz targets need: clang with libFuzzer and the sanitizer runtimes.
FUZZ_PACKAGES=(clang-14 libclang-rt-14-dev)
# What the manual page, the shell completion and the Debian package need on
# top: scdoc renders the page, man-db and groff check it, bash-completion
# drives the completion test, dpkg-dev (dpkg-shlibdeps) and file let CPack
# compute the package's dependencies, binutils (objdump) checks them.
PACKAGING_PACKAGES=(
  scdoc man-db groff-base bash-completion dpkg-dev file binutils
)
# What the compatibility matrix needs on top: the runtime libraries of the
# ProFTPD and Pure-FTPd binaries that scripts/ftp-servers.sh unpacks (the
# daemons themselves conflict with vsftpd as packages and are not installed).
COMPAT_PACKAGES=(
  libhiredis0.14 libmemcached11 libmemcachedutil2 libpcre2-posix3
  libsodium23 libcap2 libacl1 libssl3 libpam0g libcrypt1 libwrap0
)
# Everything the whole test suite needs.
SUITE_PACKAGES=(
  "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" "${PACKAGING_PACKAGES[@]}"
  "${COMPAT_PACKAGES[@]}"
)
# The linters of scripts/lint.sh.
QUALITY_PACKAGES=(clang-tidy-14 clang-format-14 cppcheck)
# What the benchmark script needs on top of the build: the FTP server, the
# clients it compares brindle with, and the chart plotter.
BENCH_PACKAGES=(
  vsftpd curl lftp gnuplot-nox time
)
