#!/usr/bin/env bash
# Installs the Debian 12 packages the build and the tests need, when missing.
set -euo pipefail
pkgs=(cmake g++ make pkg-config libudev-dev libgtest-dev libgmock-dev libbenchmark-dev umockdev libumockdev-dev clang libclang-rt-14-dev libhidapi-dev valgrind
      python3 python3-pytest python3-setuptools python3-wheel python3-pip)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
