#!/usr/bin/env bash
# The long sanitizer runs: the concurrency tests under the thread sanitizer, every test under the address and
# undefined-behaviour sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

scripts/setup.sh

# The thread sanitizer cannot place its shadow memory under a strongly randomised address space.
fixed_addresses=()
if setarch "$(uname -m)" -R true 2> /dev/null; then
    fixed_addresses=(setarch "$(uname -m)" -R)
fi
cmake --preset tsan
"${fixed_addresses[@]}" cmake --build --preset tsan --target concurrency_tests -j "$jobs"
"${fixed_addresses[@]}" ctest --preset tsan -L '^concurrency$' --no-tests=error

cmake --preset asan
cmake --build --preset asan -j "$jobs"
ctest --preset asan -j "$jobs" --no-tests=error
