#!/usr/bin/env bash
# Throughput and latency of the host inside the box: its own floor (an
# unknown method, answered without a worker) and get_misc_config v3 (a
# handler that reads misc.conf), at 1 and at 16 connections, with wrk.
#
#   bench/host_throughput.sh [BUILD_DIR] [SECONDS]
#
# Runs a box of its own from BUILD_DIR (default build) and prints one table
# row per case; the figures are in BENCHMARKS.md.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
seconds=${2:-5}

. "$root/bench/box_session.sh" host-throughput "$build" "$0" "$build" "$seconds"

floor="$url/entry.cgi?api=Bench.Nothing&version=1&method=none"
misc="$url/entry.cgi?api=ORVO.Core.Farlink&version=3&method=get_misc_config"
curl -sf "${session[@]}" "$misc" >/dev/null  # creates misc.conf

# wrk's requests per second and its 50th and 99th latency percentiles.
measure() {
    local connections=$1 target=$2 threads=$(( $1 < 2 ? 1 : 2 ))
    wrk -t "$threads" -c "$connections" -d "${seconds}s" --latency -H "Cookie: id=$sid" \
        -H "X-Farlink-Token: $token" "$target" |
        awk '/Requests\/sec/ {rps=$2} $1=="50%" {p50=$2} $1=="99%" {p99=$2}
             END {printf "%s %s %s", rps, p50, p99}'
}

printf '| case | connections | requests/s | p50 | p99 | ratio to floor |\n|---|---|---|---|---|---|\n'
for connections in 1 16; do
    read -r floor_rps floor_p50 floor_p99 <<<"$(measure "$connections" "$floor")"
    read -r misc_rps misc_p50 misc_p99 <<<"$(measure "$connections" "$misc")"
    ratio=$(awk -v a="$misc_rps" -v b="$floor_rps" 'BEGIN {printf "%.2f", a / b}')
    printf '| host floor (unknown method) | %s | %.0f | %s | %s | 1.00 |\n' \
        "$connections" "$floor_rps" "$floor_p50" "$floor_p99"
    printf '| get_misc_config v3 | %s | %.0f | %s | %s | %s |\n' \
        "$connections" "$misc_rps" "$misc_p50" "$misc_p99" "$ratio"
done
