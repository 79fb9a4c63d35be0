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

# Build trees elsewhere (worktrees, CI clones) reuse objects compiled here.
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}"
cmake -S . -B "$build_dir" "${cmake_args[@]}" >/dev/null
cmake --build "$build_dir" -j "$(nproc)"

if [ "${FARLINK_ASAN:-0}" != 1 ]; then
    exec ctest --test-dir "$build_dir" --output-on-failure -j 1 "$@"
fi

# Every process the tests start (the box's host, its workers and programs
# included, whatever user they run as) writes its sanitizer reports into
# one directory; any report fails the run, even one whose test passed.
reports=$PWD/$build_dir/sanitizer-reports
rm -rf "$reports"
mkdir -p "$reports"
chmod 1777 "$reports"
export ASAN_OPTIONS="halt_on_error=1:detect_leaks=1:log_path=$reports/asan"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:log_path=$reports/ubsan"
status=0
ctest --test-dir "$build_dir" --output-on-failure -j 1 "$@" || status=$?
if [ -n "$(ls -A "$reports")" ]; then
    echo "test.sh: sanitizer reports in $reports:" >&2
    for report in "$reports"/*; do
        echo "--- $report" >&2
        head -n 60 "$report" >&2
    done
    exit 1
fi
exit "$status"
