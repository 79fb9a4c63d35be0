#!/usr/bin/env bash
# The cost of every method of the module against the floors of the work it
# must do, measured in one run inside the box:
#
#   bench/method_costs.sh [BUILD_DIR] [SECONDS]
#
# Floors (farlink_floors, at the start and at the end of the run, averaged):
# a program run (posix_spawn of a program that prints one word, its output
# read, the wait), an HTTPS exchange (one POST to the control server through
# libcurl on a new connection: name lookup, a full handshake against a trust
# store parsed once, the exchange; and one over plain HTTP),
# a file read (a relay configuration read and parsed), a file write (written
# whole, flushed and renamed into place), a privileged section (the module's
# own, with its trace lines) and a name lookup (A and AAAA through the box's
# resolver); the host floor is an unknown method, answered by the host
# itself. The kit's two programs are timed as the spawn floor's program is.
#
# Each method runs SECONDS (default 3) with wrk at 1 connection (p50, p99)
# and at 16 (requests/s, and the longest time without a completed request,
# from the host's access log). Its ratio is its p50 over the sum of the
# floors of its work. Prints a Markdown table; BENCHMARKS.md has the figures.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
seconds=${2:-3}

. "$root/bench/box_session.sh" method-costs "$build" "$0" "$build" "$seconds"
run=$FARLINK_BOX_RUN_DIR
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

core=ORVO.Core.Farlink
alias1='server_alias=mybox&kivo_account=alice@example.test&kivo_password=secret1&force=false'
alias2='server_alias=mybox&force=false'
# name | query | POST body | work: spawn https read write section lookup http
rows_daemon_off=(
    "status v1|api=$core&version=1&method=status||0 0 3 0 0 1"
    "get v1|api=$core&version=1&method=get||1 0 2 0 3 0"
    "set v1 enabled=false|api=$core&version=1&method=set&enabled=false||1 0 0 0 1 0"
    "Permission get|api=$core.Permission&version=1&method=get||0 0 1 0 0 0"
    "Permission set|api=$core.Permission&version=1&method=set|services=[{\"id\":\"web\",\"enabled\":true}]|1 0 0 1 1 0"
    "Upnp set|api=$core.Upnp&version=1&method=set&enabled=true||1 0 0 1 1 0"
    "Upnp get|api=$core.Upnp&version=1&method=get||0 0 1 0 0 0"
    "SNI set|api=$core.SNI&version=1&method=set&enabled=false||0 0 0 1 1 0"
    "Hostname get_ip|api=$core.Hostname&version=1&method=get_ip&hostname=both.farlink.test||0 0 0 0 0 1"
    "RegisterSite get|api=$core.RegisterSite&version=1&method=get||0 0 0 0 0 0 1"
    "get v2|api=$core&version=2&method=get||2 0 3 0 6 0"
    "set v2 enabled=false|api=$core&version=2&method=set&enabled=false||1 0 0 0 1 0"
    "get_misc_config v3|api=$core&version=3&method=get_misc_config||0 0 1 0 0 0"
    "set_misc_config v3|api=$core&version=3&method=set_misc_config&relay_enabled=false||1 0 0 1 1 0"
    "check_availability v3|api=$core&version=3&method=check_availability||0 1 0 0 0 0"
)
# With the register site and the server ID known, and the daemon running.
rows_daemon_on=(
    "set_server_alias v1|api=$core&version=1&method=set_server_alias|$alias1|1 1 3 2 4 0"
    "set_server_alias v2|api=$core&version=2&method=set_server_alias|$alias2|1 1 4 2 5 0"
)

call() {  # QUERY [BODY]
    if [ -n "${2:-}" ]; then
        curl -sf "${session[@]}" --data "$2" "$url/entry.cgi?$1"
    else
        curl -sf "${session[@]}" "$url/entry.cgi?$1"
    fi
}

# wrk's "requests/s p50 p99", latencies in milliseconds.
measure() {  # CONNECTIONS QUERY [BODY]
    local connections=$1 threads=$(( $1 < 2 ? 1 : 2 )) script=$work/request.lua
    if [ -n "${3:-}" ]; then
        printf 'wrk.method = "POST"\nwrk.body = [==[%s]==]\nwrk.headers["Content-Type"] = "application/x-www-form-urlencoded"\n' "$3" >"$script"
    else
        : >"$script"
    fi
    wrk -t "$threads" -c "$connections" -d "${seconds}s" --latency -s "$script" \
        -H "Cookie: id=$sid" -H "X-Farlink-Token: $token" "$url/entry.cgi?$2" |
        awk 'function ms(t) { if (t ~ /us$/) return t / 1000; if (t ~ /ms$/) return t + 0;
                              if (t ~ /s$/) return t * 1000; return t }
             /Requests\/sec/ {rps=$2} $1=="50%" {p50=ms($2)} $1=="99%" {p99=ms($2)}
             END {printf "%s %s %s", rps, p50, p99}'
}

# The longest time in the access log's lines from byte FROM on without an
# answered request, in seconds.
longest_gap() {  # FROM
    tail -c +"$(( $1 + 1 ))" "$run/access.log" |
        awk '{ split(substr($1, 12, 15), t, ":"); s = t[1] * 3600 + t[2] * 60 + t[3];
               if (n++ && s - last > gap) gap = s - last; last = s }
             END {printf "%.2f", gap}'
}

floors() {
    local control
    control=$(. "$build/deployment.env"; echo "$FARLINK_PRIMARY_CONTROL_HOST")
    "$build/bin/farlink_floors" "$build/bin/farlink_bench_word" \
        /usr/orvo/etc/orvorelayd/orvorelayd.conf "https://$control/Serv.php" \
        "http://$control/Serv.php" "$work" 150
    "$build/bin/farlink_floors" --lookup both.farlink.test 150
    # The kit's two programs, run as the spawn floor's program is.
    "$build/bin/farlink_floors" --run relayd-status 150 /usr/orvo/sbin/orvorelayd --farlink status
    "$build/bin/farlink_floors" --run kivo-query 150 /usr/orvo/bin/orvokivo --query_account --cache
    local rps1 rps16 p50
    read -r rps1 p50 _ <<<"$(measure 1 "api=Bench.Nothing&version=1&method=none")"
    read -r rps16 _ _ <<<"$(measure 16 "api=Bench.Nothing&version=1&method=none")"
    echo "host $p50 $rps1 $rps16"
}

results=$work/results
run_rows() {
    local row name query body workload rps1 p50 p99 rps16
    for row in "$@"; do
        IFS='|' read -r name query body workload <<<"$row"
        call "$query" "$body" >/dev/null || true  # a first call makes the files it keeps
        read -r rps1 p50 p99 <<<"$(measure 1 "$query" "$body")"
        local from
        from=$(stat -c %s "$run/access.log")
        read -r rps16 _ _ <<<"$(measure 16 "$query" "$body")"
        echo "$name|$workload|$p50|$p99|$rps1|$rps16|$(longest_gap "$from")" >>"$results"
    done
}

echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)" >&2
call "api=$core&version=1&method=get" >/dev/null  # writes the configuration the floor reads
floors >"$work/floors.1"
run_rows "${rows_daemon_off[@]}"
call "api=$core&version=1&method=set_server_alias" "$alias1" >/dev/null
call "api=$core&version=1&method=set&enabled=true" >/dev/null
run_rows "${rows_daemon_on[@]}"
call "api=$core&version=1&method=set&enabled=false" >/dev/null
floors >"$work/floors.2"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)" >&2

awk -v floors1="$work/floors.1" -v floors2="$work/floors.2" '
    function take(file,   line, f) {
        while ((getline line < file) > 0) {
            split(line, f, " ")
            floor[f[1]] += f[2] / 2
            if (f[1] == "host") { rps1 += f[3] / 2; rps16 += f[4] / 2 }
        }
    }
    BEGIN {
        take(floors1); take(floors2)
        n = split("spawn https read write section lookup http", kind, " ")
        printf "Floors, p50 in ms: host %.3f (%.0f req/s at 1, %.0f at 16)", floor["host"], rps1, rps16
        for (i = 1; i <= n; i++) printf ", %s %.3f", kind[i], floor[kind[i]]
        printf ".\n\n`orvorelayd --farlink status` %.3f ms (%.1f x the spawn floor), ",
            floor["relayd-status"], floor["relayd-status"] / floor["spawn"]
        printf "`orvokivo --query_account --cache` %.3f ms (%.1f x).\n\n",
            floor["kivo-query"], floor["kivo-query"] / floor["spawn"]
        printf "| method | work | floors ms | p50 ms | p99 ms | p50 / floors | req/s at 1 | req/s at 16 | longest gap at 16, s |\n"
        printf "|---|---|---|---|---|---|---|---|---|\n"
        FS = "|"
    }
    {
        split($2, count, " ")
        sum = floor["host"]; text = ""
        for (i = 1; i <= n; i++) {
            sum += count[i] * floor[kind[i]]
            if (count[i] > 0) text = text (text == "" ? "" : ", ") count[i] " " kind[i]
        }
        printf "| %s | %s | %.3f | %.3f | %.3f | %.1f | %.0f | %.0f | %s |\n",
            $1, text == "" ? "-" : text, sum, $3, $4, $3 / sum, $5, $6, $7
    }' "$results"
