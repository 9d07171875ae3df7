#!/usr/bin/env bash
# Installs what building and testing needs on Debian 12 or a relative of it, with the argument "fuzz" also what
# scripts/fuzz.sh needs. Does nothing when all is there.
set -euo pipefail

packages=(
    g++ cmake ninja-build
    libeigen3-dev libtbb-dev libopenmesh-dev libhwy-dev     # the library
    libjpeg-dev libpng-dev                                  # the library: images of the choice of exposure
    libgoogle-glog-dev                                      # the library: warnings of numerical routines
    libopencv-dev                                           # the library: rectification; pictures and recordings
    libopencv-contrib-dev                                   # rgbd, the peer in the benchmarks
    libcli11-dev nlohmann-json3-dev                         # the tool
    libgtest-dev libbenchmark-dev                           # tests and benchmarks
)
if [ "${1:-}" = fuzz ]; then
    packages+=(clang-14 llvm-14 libomp-14-dev)
fi

if ! command -v apt-get > /dev/null || ! command -v dpkg-query > /dev/null; then
    echo "setup: this is not a Debian-like system; install the equivalents of: ${packages[*]}" >&2
    exit 1
fi

missing=()
for package in "${packages[@]}"; do
    state=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2> /dev/null || true)
    [ "$state" = installed ] || missing+=("$package")
done
if [ ${#missing[@]} -eq 0 ]; then
    echo "setup: everything is installed"
    exit 0
fi

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo > /dev/null; then
        echo "setup: these packages are missing, and installing them takes root or sudo: ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
fi

echo "setup: installing ${missing[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { "${as_root[@]}" apt-get update -qq &&
       "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
     } > "$log" 2>&1 < /dev/null; then
    cat "$log" >&2
    echo "setup: apt-get failed" >&2
    exit 1
fi
echo "setup: done"
