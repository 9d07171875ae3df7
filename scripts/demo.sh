#!/usr/bin/env bash
# From nothing to a mesh: builds the tool, lets a virtual speckle scanner take forty raw stereo pairs around an object,
# judges its calibration, and turns the pairs into a model. The true poses are only compared with afterwards. Arguments
# go to `vexel-scan simulate`, say --seed 7.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset release > /dev/null
cmake --build --preset release --target vexel-scan -j "$(nproc)"

tool=build/release/apps/vexel-scan
out=out/demo
rm -rf "$out"
mkdir -p "$out"
"$tool" simulate "$out/recording" --stereo --noise --sequence full_turn --frames 40 "$@"
"$tool" check-calibration "$out/recording" | tail -n +5
"$tool" scan "$out/recording" --truth --out "$out/result"

echo
echo "Mesh, trajectory, pictures and report:"
find "$PWD/$out/result" -type f | sort | sed 's/^/  /'
