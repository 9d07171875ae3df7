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

cmake --preset asan
cmake --build --preset asan --target boundary_tests -j "$jobs"
ctest --preset asan -j "$jobs" -L '^boundary$' --no-tests=error
