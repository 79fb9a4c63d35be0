#!/usr/bin/env bash
# What the host costs while nobody uses it, and what the first request after
# that costs:
#
#   bench/footprint.sh [BUILD_DIR] [SECONDS]
#
# With no connection open, counts every host process's context switches
# (all its threads, voluntary and not) over SECONDS (default 60) and takes
# its PSS and RSS at the end; then times get_misc_config after idle periods
# against the median of 20 warm ones (server time: first byte after the TLS
# handshake). Prints Markdown tables; BENCHMARKS.md has the figures.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
seconds=${2:-60}

. "$root/bench/box_session.sh" footprint "$build" "$0" "$build" "$seconds"

host_pids() { pgrep -x 'farlink-host|farlink-front|farlink-worker' | sort -n; }

switches() {  # PID: context switches of all its threads so far
    cat /proc/"$1"/task/*/status 2>/dev/null |
        awk '/_ctxt_switches/ { n += $2 } END { print n + 0 }'
}

memory_kb() {  # PID FIELD: a figure of smaps_rollup in kB
    awk -v f="$2:" '$1 == f { print $2 }' /proc/"$1"/smaps_rollup
}

server_ms() {
    curl -sf -o /dev/null -w '%{time_starttransfer} %{time_appconnect}\n' "${session[@]}" \
        "$url/entry.cgi?api=ORVO.Core.Farlink&version=3&method=get_misc_config" |
        awk '{ printf "%.3f\n", ($1 - $2) * 1000 }'
}
server_ms >/dev/null  # its first call ever makes the files it keeps
# The connections so far and any the front keeps are gone before counting.
sleep 5
declare -A before
for pid in $(host_pids); do before[$pid]=$(switches "$pid"); done
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
sleep "$seconds"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
echo
echo "| process | context switches in ${seconds} s | per s | PSS MB | RSS MB |"
echo '|---|---|---|---|---|'
total=0
for pid in $(host_pids); do
    name=$(cat /proc/"$pid"/comm)
    after=$(switches "$pid")
    pss=$(memory_kb "$pid" Pss)
    total=$((total + pss))
    if [ -n "${before[$pid]:-}" ]; then
        count=$((after - before[$pid]))
    else
        count="(started during)"
    fi
    awk -v n="$name" -v c="$count" -v s="$seconds" -v p="$pss" -v r="$(memory_kb "$pid" Rss)" \
        'BEGIN { printf "| %s | %s | %s | %.1f | %.1f |\n", n, c,
                 c ~ /^[0-9]+$/ ? sprintf("%.2f", c / s) : "-", p / 1024, r / 1024 }'
done
awk -v t="$total" 'BEGIN { printf "| all host processes | | | %.1f | |\n", t / 1024 }'

# One sample is at the mercy of a busy machine: the first after the long
# idle period, then four more after 10 s each.
firsts=$(server_ms; for ((i = 0; i < 4; i++)); do sleep 10; server_ms; done)
warm=$(for ((i = 0; i < 20; i++)); do server_ms; done | sort -g | sed -n 10p)
echo
echo '| get_misc_config, server time | ms |'
echo '|---|---|'
echo "| first after ${seconds} s idle | $(head -1 <<<"$firsts") |"
echo "| first after idle, median of 5 | $(sort -g <<<"$firsts" | sed -n 3p) |"
echo "| warm (median of 20) | $warm |"
