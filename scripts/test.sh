#!/bin/bash
# Sets everything up and runs all tests: once in a normal build (build/) and
# once with AddressSanitizer and UndefinedBehaviorSanitizer (build-asan/).
# Exit status 0 only when both runs pass.
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$top"
scripts/setup.sh

jobs=$(nproc)

run_suite() {
    local dir=$1
    shift
    echo "== $dir: configure and build"
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    echo "== $dir: test"
    ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 300
}

run_suite build
run_suite build-asan -DNXA_SANITIZE=ON -DNXA_BUILD_BENCH=OFF
echo "== all tests passed, normal and sanitized"
