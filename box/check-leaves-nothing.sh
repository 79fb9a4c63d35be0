#!/usr/bin/env bash
# Starts the box twice and checks that the machine is as before each time:
# once running `true` (orderly stop), once killed with SIGKILL while it
# waits. No mount, no process, no /usr/orvo, same /etc and /dev.
#
#   box/check-leaves-nothing.sh BUILD_DIR WORK_DIR
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build=${1:?usage: check-leaves-nothing.sh BUILD_DIR WORK_DIR}
work=${2:?usage: check-leaves-nothing.sh BUILD_DIR WORK_DIR}
mkdir -p "$work"
work=$(cd "$work" && pwd)

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

machine_state() {
    findmnt -rn -o TARGET,FSTYPE,SOURCE | sort
    ls -la /dev
    [ -e /usr/orvo ] && echo "/usr/orvo exists"
    md5sum /etc/resolv.conf /etc/hosts /etc/ssl/certs/ca-certificates.crt 2>&1
    ip -br addr
}

processes_of() { ps -eo pid=,args= | grep -F -- "$1" | grep -v -e grep -e check-leaves || true; }

# The kernel tears a PID namespace down asynchronously; allow it a moment.
expect_nothing_left() {
    local run=$1 tries
    for ((tries = 0; tries < 50; tries++)); do
        [ -z "$(processes_of "$run")" ] && break
        sleep 0.1
    done
    [ -z "$(processes_of "$run")" ] || fail "processes left behind: $(processes_of "$run")"
    diff <(echo "$before") <(machine_state) >&2 || fail "the machine changed (see diff above)"
}

before=$(machine_state)

"$here/farlink-box" --build "$build" --run-dir "$work/orderly" --port 0 -- true ||
    fail "box with 'true' exited with $?"
expect_nothing_left "$work/orderly"
[ -s "$work/orderly/syslogd.log" ] || fail "the run directory lost its logs"

setsid "$here/farlink-box" --build "$build" --run-dir "$work/killed" --port 0 \
    >"$work/killed.out" 2>&1 </dev/null &
launcher=$!
for ((tries = 0; tries < 300; tries++)); do
    grep -q 'farlink-box: ready' "$work/killed.out" && break
    kill -0 "$launcher" 2>/dev/null || fail "box did not start: $(cat "$work/killed.out")"
    sleep 0.1
done
grep -q 'farlink-box: ready' "$work/killed.out" || fail "box not ready within 30 s"
url=$(grep -o 'https://127.0.0.1:[0-9]*/webapi/' "$work/killed.out")
code=$(curl -s -o /dev/null --max-time 10 -w '%{http_code}' --cacert "$work/killed/ca.pem" \
    "${url}auth.cgi" || true)
[ "$code" != 000 ] || fail "the host is not reachable from the machine at $url"
# setsid forks when it happens to lead its process group, and then $! is not
# the launcher: the launcher is the oldest process of this run.
kill -KILL "$(pgrep -o -f -- "--run-dir $work/killed")"
wait "$launcher" 2>/dev/null || true
expect_nothing_left "$work/killed"
echo "box leaves nothing behind"
