#!/usr/bin/env bash
# Fuzz campaigns (docs/fuzzing.md): builds the harnesses as libFuzzer
# programs with AddressSanitizer and UndefinedBehaviorSanitizer (clang, in
# build-fuzz/) and runs them one after another, at low priority, each until
# SECONDS have passed or 1,000,000 inputs have run. The box's harnesses run
# inside an emulated box built the same way.
#
#   scripts/fuzz.sh [--seconds N] [--runs N] [HARNESS...]
#
# Per harness, under build-fuzz/fuzz/HARNESS/: log, corpus/ (what the search
# added to the committed seeds), artifacts/ (inputs that failed). One line
# per harness goes to build-fuzz/fuzz/summary.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=900
runs=1000000
all=(fuzz_host_request fuzz_host_frames fuzz_relay_answers fuzz_config_files fuzz_rows)
box_harnesses=" fuzz_config_files fuzz_rows "
harnesses=()
while [ $# -gt 0 ]; do
    case $1 in
        --seconds) seconds=${2:?}; shift 2 ;;
        --runs) runs=${2:?}; shift 2 ;;
        -h | --help) sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) harnesses+=("$1"); shift ;;
    esac
done
[ ${#harnesses[@]} -gt 0 ] || harnesses=("${all[@]}")

build=build-fuzz
scripts/install-deps.sh
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DFARLINK_FUZZ=ON -DFARLINK_BENCH=OFF >/dev/null
nice -n 10 cmake --build "$build" -j "$(nproc)" --target fuzzers

# A finding of the sanitizers is a crash, so the fuzzer keeps its input. No
# input deserves a single allocation of 256 MiB (-malloc_limit_mb): one that
# asks for it has been believed about a size it announced.
export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

# The box's programs write their sanitizer reports into their logs.
box_reports() {
    { grep -lE 'ERROR: (Address|Leak)Sanitizer|runtime error:' "$1"/*.log 2>/dev/null || true; } | wc -l
}

run_one() {
    local name=$1 work=$build/fuzz/$1 program=$PWD/$build/bin/$1
    rm -rf "$work" "$build/box-runs/$name"
    mkdir -p "$work/corpus" "$work/artifacts"
    local args=(-max_total_time="$seconds" -runs="$runs" -timeout=30 -rss_limit_mb=2048
        -malloc_limit_mb=256
        -print_final_stats=1 -artifact_prefix="$PWD/$work/artifacts/"
        -dict="$PWD/tests/fuzz/dict/$name.dict" "$PWD/$work/corpus" "$PWD/tests/fuzz/corpus/$name")
    local command=("$program" "${args[@]}")
    case $box_harnesses in
        *" $name "*) command=(box/farlink-box --build "$build" --run-dir "$build/box-runs/$name"
                              --port 0 -- "${command[@]}") ;;
    esac
    local started=$SECONDS status=0
    nice -n 10 "${command[@]}" >"$work/log" 2>&1 || status=$?
    local executions coverage features reports=0 threw
    threw=$(grep -c '^handler threw:' "$work/log" || true)
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/log" | tail -1)
    coverage=$(grep -oE ' cov: [0-9]+' "$work/log" | tail -1 | tr -dc 0-9)
    features=$(grep -oE ' ft: [0-9]+' "$work/log" | tail -1 | tr -dc 0-9)
    [ -d "$build/box-runs/$name" ] && reports=$(box_reports "$build/box-runs/$name")
    printf '%s: %s executions in %ss, %s edges, %s features, %s findings, %s handler exceptions, %s box program reports, exit %s\n' \
        "$name" "${executions:-?}" $((SECONDS - started)) "${coverage:-?}" "${features:-?}" \
        "$(find "$work/artifacts" -type f | wc -l)" "$threw" "$reports" "$status" |
        tee -a "$build/fuzz/summary.txt"
}

mkdir -p "$build/fuzz"
for name in "${harnesses[@]}"; do run_one "$name"; done
