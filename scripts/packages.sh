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
# What its tests need on top: GoogleTest, pytest, and the FTP servers.
TEST_PACKAGES=(
  libgtest-dev libgmock-dev python3 python3-pytest python3-pyftpdlib
  vsftpd curl
)
# What the benchmark script needs on top of the build: the FTP server, the
# clients it compares brindle with, and the chart plotter.
BENCH_PACKAGES=(
  vsftpd curl lftp gnuplot-nox time
)
