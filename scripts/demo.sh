#!/usr/bin/env bash
# From nothing to a mesh: builds the tool, lets it render a recording of a virtual object and fuses that.
# Arguments go to `vexel-scan simulate`, say --frames 80.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset release > /dev/null
cmake --build --preset release --target vexel-scan -j "$(nproc)"

tool=build/release/apps/vexel-scan
out=out/demo
rm -rf "$out"
mkdir -p "$out"
"$tool" simulate "$out/recording" --noise "$@"
"$tool" fuse "$out/recording" --voxel 1 --out "$out/result"

echo
echo "Mesh, pictures and report:"
find "$PWD/$out/result" -type f | sort | sed 's/^/  /'
