#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tools need.
# Safe to run again: only missing packages are installed.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config make
  libgtest-dev libgmock-dev
  umockdev libumockdev-dev
  libusb-1.0-0-dev libuvc-dev
  libpng-dev
  python3-numpy python3-pytest python3-venv
  clang libclang-rt-dev
  valgrind
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
