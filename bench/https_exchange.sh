#!/usr/bin/env bash
# Where the time of one exchange with the box's control server goes, and
# the relay library's exchange against the control server and against
# `openssl s_server -www` (a server without Nagle waits in its writes):
#
#   bench/https_exchange.sh [BUILD_DIR] [ROUNDS]
#
# curl's phases (connected, TLS done, first byte, last byte; medians of
# ROUNDS, default 30, in ms) for an HTTPS POST and GET and a plain HTTP GET
# to the control server, and for a GET to s_server; then the p50 and p99 of
# the relay library's exchange (farlink_floors --relay) to both. curl's own
# "TLS done" includes its reading of the whole CA bundle; what follows it
# is the server's.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
rounds=${2:-30}

. "$root/bench/box_session.sh" https-exchange "$build" "$0" "$build" "$rounds"
control=$(. "$build/deployment.env"; echo "$FARLINK_PRIMARY_CONTROL_HOST")
scratch=$(mktemp -d)
# The control server's own certificate, names and all, for the second server.
key=$(ps -o args= -C farlink-controlserver | sed -n 's/.*--key \([^ ]*\).*/\1/p')
cert=${key%.key}.pem
openssl s_server -quiet -www -accept 127.0.10.1:8443 -cert "$cert" -key "$key" \
    </dev/null >/dev/null 2>&1 &
s_server=$!
trap 'kill "$s_server"; rm -rf "$scratch"' EXIT
for ((i = 0; i < 50; i++)); do
    curl -s -o /dev/null "https://$control:8443/" && break
    sleep 0.1
done

phases() {  # NAME CURL_ARGS...
    local name=$1
    shift
    for ((i = 0; i < rounds; i++)); do
        curl -s -o /dev/null -w '%{time_connect} %{time_appconnect} %{time_starttransfer} %{time_total}\n' "$@"
    done >"$scratch/times"
    local column
    for column in 1 2 3 4; do
        cut -d' ' -f"$column" "$scratch/times" | sort -g | awk -v r="$rounds" \
            'NR == int(r / 2) + 1 { printf " %.1f |", $1 * 1000 }'
    done | sed "s/^/| $name |/"
    echo
}

echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
echo
echo '| curl, medians in ms | connected | TLS done | first byte | last byte |'
echo '|---|---|---|---|---|'
body='{"version":1,"command":"get_register_site"}'
phases "control server, HTTPS POST" -H 'Content-Type: application/json' -d "$body" \
    "https://$control/Serv.php"
phases "control server, HTTPS GET" "https://$control/Serv.php"
phases "control server, HTTP GET" "http://$control/Serv.php"
phases "openssl s_server -www, HTTPS GET" "https://$control:8443/"
echo
echo '| relay library exchange | p50 ms | p99 ms |'
echo '|---|---|---|'
for target in "control server|https://$control/Serv.php" "openssl s_server -www|https://$control:8443/"; do
    "$build/bin/farlink_floors" --relay "${target#*|}" "$rounds" |
        awk -v name="${target%%|*}" '{ printf "| %s | %.2f | %.2f |\n", name, $2, $3 }'
done
