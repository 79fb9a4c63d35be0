#!/usr/bin/env bash
# Builds everything and runs every test: unit, load and box tests. Run as
# root (box tests need namespaces and mounts). FARLINK_ASAN=1 builds with
# AddressSanitizer and UndefinedBehaviorSanitizer into build-asan instead.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

build_dir=build
cmake_args=(-DCMAKE_BUILD_TYPE=Release)
if [ "${FARLINK_ASAN:-0}" = 1 ]; then
    build_dir=build-asan
    cmake_args=(-DCMAKE_BUILD_TYPE=Debug -DFARLINK_ASAN=ON)
fi

cmake -S . -B "$build_dir" "${cmake_args[@]}" >/dev/null
cmake --build "$build_dir" -j "$(nproc)"
ctest --test-dir "$build_dir" --output-on-failure -j 1 "$@"
