#!/usr/bin/env bash
# Installs the Debian packages the project builds with, only those missing;
# with --test also those that only the tests use (a browser, Python test
# libraries, and Dask, distributed and pandas for the `kel.dask` module and
# `kel batch`); with --bench those the benchmarks use (photographs and Pillow,
# Dask). Runs `apt-get update` once, and only when something has to be
# installed.
#
#   scripts/install-deps.sh [--test | --bench]
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libboost-filesystem-dev libboost-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libxxhash-dev libzstd-dev libpugixml-dev libpng-dev nlohmann-json3-dev libcli11-dev librapidcheck-dev
  libcpp-httplib-dev
  python3 python3-dev pybind11-dev python3-numpy
)
dask=(python3-dask python3-distributed python3-pandas)
if [ "${1:-}" = "--test" ]; then
  packages+=(python3-pytest python3-hypothesis python3-html5lib python3-pil chromium "${dask[@]}")
fi
# The benchmarks compress photographs (Debian's MATE backgrounds, decoded
# with Pillow) and run kel.dask.
if [ "${1:-}" = "--bench" ]; then
  packages+=(python3-pil mate-backgrounds chromium "${dask[@]}")
fi

# The view page is built with npm; a machine without Node.js gets Debian's.
if ! command -v npm >/dev/null 2>&1; then
  packages+=(nodejs npm)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing missing packages: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
