#!/usr/bin/env bash
# From nothing to a mesh: builds the tool, lets it render a hand-held scan of a virtual object, and tracks and fuses that
# without the poses, which are only compared with afterwards. Arguments go to `vexel-scan simulate`, say --seed 7.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset release > /dev/null
cmake --build --preset release --target vexel-scan -j "$(nproc)"

tool=build/release/apps/vexel-scan
out=out/demo
rm -rf "$out"
mkdir -p "$out"
"$tool" simulate "$out/recording" --sequence full_turn --noise "$@"
"$tool" track "$out/recording" --preset object --truth --out "$out/result"

echo
echo "Mesh, trajectory, pictures and report:"
find "$PWD/$out/result" -type f | sort | sed 's/^/  /'
