#!/usr/bin/env bash
# Fuzzes the readers of files with libFuzzer and tells what the inputs reach: fuzz.sh [-s SECONDS] [TARGET...]. Each
# target, all of them when none is named, runs for SECONDS (60) on its corpus, which grows from run to run in out/fuzz.
# What ends a target is kept as a file in out/fuzz/findings and ends this script; the target given that file runs it
# alone.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
while getopts s: option; do
    case $option in
        s) seconds=$OPTARG ;;
        *) echo "usage: scripts/fuzz.sh [-s SECONDS] [TARGET...]" >&2; exit 2 ;;
    esac
done
shift $((OPTIND - 1))

# The sources of each target's readers.
declare -A sources=(
    [archive]="foundation/archive.h foundation/Cloud.cpp foundation/CloudWithWeight.cpp foundation/PointImage.cpp
               foundation/BaseTriMesh.cpp foundation/RigidMatrix.cpp foundation/CameraInParam.cpp"
    [calibration]="readCaliData/CameraCalibration.cpp readCaliData/FormattedReader.cpp recording/calibrationText.cpp"
    [debug]="fusiontrackoperation/DebugRecordReader.cpp fusiontrackoperation/recordFields.h"
    [image]="recording/greyPng.cpp recording/DepthImage.cpp recording/GreyPicture.cpp exposure/greyFile.cpp"
    [mesh]="recording/meshFile.cpp recording/plyMesh.cpp recording/meshReaders.h"
    [project]="fusiontrackoperation/projectFile.cpp fusiontrackoperation/sessionProject.cpp fusion/octreeFile.h
               fusion/leafFile.h"
    [settings]="apps/settingsFile.cpp"
    [text]="recording/poseText.cpp recording/trajectoryText.cpp recording/numberText.cpp recording/frameNames.cpp"
)
targets=("$@")
[ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(printf '%s\n' "${!sources[@]}" | sort)

scripts/setup.sh fuzz
cmake --preset release > /dev/null
cmake --build --preset release --target makeCorpus -j "$(nproc)"
cmake --preset fuzz > /dev/null
cmake --build --preset fuzz -j "$(nproc)"

programs=build/fuzz/fuzz
corpus=out/fuzz/corpus
findings=out/fuzz/findings
mkdir -p "$corpus" "$findings"
build/release/fuzz/makeCorpus "$corpus" "${targets[@]}"

# One gigabyte in all, 256 MiB at once, a second an input: far above what files of these sizes may cost.
export ASAN_OPTIONS=quarantine_size_mb=16:detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1
limits=(-rss_limit_mb=1024 -malloc_limit_mb=256 -timeout=10 -max_len=65536)
for target in "${targets[@]}"; do
    echo "== $target, $seconds s"
    log=out/fuzz/$target.log
    if ! "$programs/fuzz_$target" "${limits[@]}" -max_total_time="$seconds" -print_final_stats=1 -close_fd_mask=1 \
            -artifact_prefix="$findings/$target-" "$corpus/$target" > "$log" 2>&1; then
        tail -n 60 "$log"
        exit 1
    fi
    grep -E 'stat::(number_of_executed_units|average_exec_per_sec|slowest_unit_time_sec|peak_rss_mb)' "$log"
    # The corpus once more, to count the lines it reaches.
    profile=out/fuzz/$target.profraw
    LLVM_PROFILE_FILE=$profile "$programs/fuzz_$target" "${limits[@]}" -runs=0 -close_fd_mask=1 "$corpus/$target" \
        > /dev/null 2>&1
    llvm-profdata-14 merge -sparse "$profile" -o "out/fuzz/$target.profdata"
    # shellcheck disable=SC2086,SC2116
    # Without sources on the command line, because it takes those of the library for unknown.
    llvm-cov-14 report "$programs/fuzz_$target" -object build/fuzz/libVexelAlgorithm.so \
        -instr-profile="out/fuzz/$target.profdata" 2> /dev/null |
        awk -v wanted="$(echo ${sources[$target]})" '
            BEGIN { split(wanted, names); for (i in names) { sub(".*/", "", names[i]); isWanted[names[i]] } }
            { name = $1; sub(".*/", "", name) }
            name in isWanted { printf "  %-52s %6s lines, %7s reached\n", $1, $8, $10 }'
done
