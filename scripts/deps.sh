#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing. With --test it adds
# what the tests need besides (Python with numpy and Pillow for the cross-check against an
# independent implementation, tifffile for the white-light numpy benchmark; pytest and Dask for the
# Python package's tests); with --fuzz, clang and its runtime libraries (libFuzzer, ASan, UBSan) for
# the harnesses of fuzz/ and the AddressSanitizer build. The flags combine. Does nothing when
# everything is present.
set -euo pipefail

packages=(cmake g++ make pkgconf libgtest-dev libgmock-dev libbenchmark-dev libfftw3-dev libeigen3-dev
          libtiff-dev libpng-dev libcli11-dev libsleef-dev nlohmann-json3-dev python3-dev pybind11-dev)
for flag in "$@"; do
  case "$flag" in
    --test) packages+=(python3 python3-numpy python3-pil python3-tifffile python3-pytest python3-dask
                       python3-distributed) ;;
    --fuzz) packages+=(clang-14 libclang-rt-14-dev) ;;
    *) echo "usage: scripts/deps.sh [--test] [--fuzz]" >&2; exit 2 ;;
  esac
done

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing missing packages: ${missing[*]}"
if [[ $(id -u) -ne 0 ]]; then
  echo "error: not root; install them with: sudo apt-get install ${missing[*]}" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
