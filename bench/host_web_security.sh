#!/usr/bin/env bash
# The host's web defences as a client sees them, against the box's host:
# password guesses per second from one address, forged (cookie-only and
# cross-site) state-changing calls refused, and how a session ends.
#
#   bench/host_web_security.sh [BUILD_DIR] [SECONDS]
#
# Guesses are sent back to back for SECONDS (default 60).
# Runs a box of its own from BUILD_DIR (default build) and prints what it
# measured.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
seconds=${2:-60}

# shellcheck source=bench/box_session.sh
. "$root/bench/box_session.sh" host-web-security "$build" "$0" "$build" "$seconds"
password=$(cat "$FARLINK_BOX_RUN_DIR/admin-password")

# codes FROM ARGS...: each answer's error code (0 for a success), one a line.
codes() {
    local from=$1
    shift
    { curl -s --interface "$from" "$@" && echo; } | sed 's/}{/}\n{/g' |
        sed -n 's/.*"code":\([0-9]*\).*/\1/p; /"success":true/s/.*/0/p'
}

# --- guesses from one address -------------------------------------------------
mapfile -t urls < <(for ((i = 0; i < 500; i++)); do echo "$url/auth.cgi"; done)
answers=$(mktemp)
start=$(date +%s.%N)
while ((SECONDS < seconds)); do
    codes 127.0.0.1 -d account=admin -d passwd=wrong "${urls[@]}" >>"$answers"
done
end=$(date +%s.%N)
awk -v s="$start" -v e="$end" '{ n++ } $1 == 400 { t++ } $1 == 115 { w++ } END {
    printf "guesses: %d sent from one address in %.1f s (%.0f/s); %d checked (%.3f/s), %d refused with 115\n",
        n, e - s, n / (e - s), t, t / (e - s), w }' "$answers"
rm -f "$answers"
printf 'right password from that address: code %s; from 127.0.0.2: code %s\n' \
    "$(codes 127.0.0.1 -d account=admin --data-urlencode "passwd=$password" "$url/auth.cgi")" \
    "$(codes 127.0.0.2 -d account=admin --data-urlencode "passwd=$password" "$url/auth.cgi")"

# --- forged calls -------------------------------------------------------------
login=$(curl -s --interface 127.0.0.3 -d account=admin --data-urlencode "passwd=$password" \
    "$url/auth.cgi")
sid=$(sed -n 's/.*"sid":"\([0-9a-f]*\)".*/\1/p' <<<"$login")
token=$(sed -n 's/.*"token":"\([0-9a-f]*\)".*/\1/p' <<<"$login")
set_upnp="$url/entry.cgi?api=ORVO.Core.Farlink.Upnp&version=1&method=set&enabled=true"
foreign=(-b "id=$sid" -H "Origin: https://evil.test" -H "Referer: https://evil.test/")
forged=$({
    codes 127.0.0.3 "${foreign[@]}" "$set_upnp"
    codes 127.0.0.3 "${foreign[@]}" "$url/entry.cgi" \
        -d api=ORVO.Core.Farlink.Upnp -d version=1 -d method=set -d enabled=true
})
printf 'forged calls (cookie-only GET, cross-site form POST): codes %s\n' "$(echo $forged)"
printf 'with the token header: code %s; with _sid: code %s\n' \
    "$(codes 127.0.0.3 -b "id=$sid" -H "X-Farlink-Token: $token" "$set_upnp&enabled=false")" \
    "$(codes 127.0.0.3 "$set_upnp&enabled=false&_sid=$sid")"

# --- how a session ends -------------------------------------------------------
codes 127.0.0.3 -b "id=$sid" -H "X-Farlink-Token: $token" "$url/auth.cgi" -d method=logout >/dev/null
printf 'after logout: code %s\n' "$(codes 127.0.0.3 "$set_upnp&_sid=$sid")"
