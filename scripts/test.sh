#!/usr/bin/env bash
# Everything that must hold before a change is taken: all tests in a release build, then the tests of bad input again
# under the address and undefined-behaviour sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

scripts/setup.sh

cmake --preset release
cmake --build --preset release -j "$jobs"
ctest --preset release -j "$jobs" --no-tests=error

# Without the checks that scripts/sanitize.sh makes up for: they are a third of the time that compiling takes.
cmake --preset boundary
cmake --build --preset boundary -j "$jobs"
ctest --preset boundary -j "$jobs"
