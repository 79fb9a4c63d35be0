#!/usr/bin/env bash
# Runs inside the box: installs the packages with dpkg (the box's overlays on
# /usr and /etc, and one over dpkg's database, make it throwaway), builds the
# example module out of tree twice, asks the installed host for answers,
# checks the service unit and rotates the logs under load.
#   test_install.sh PACKAGE_DIR EXAMPLE_SOURCE_DIR
set -euo pipefail
packages=$1 example=$2
work=$FARLINK_BOX_RUN_DIR/install-test
rm -rf "$work" && mkdir -p "$work"
host_pid=

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

cleanup() {
    [ -z "$host_pid" ] || kill "$host_pid" 2>/dev/null || true
}
trap cleanup EXIT

throwaway_dpkg_database() {
    local layer=$work/dpkg-layer
    mkdir -p "$layer/upper" "$layer/work"
    mount -t overlay box-dpkg -o "lowerdir=/var/lib/dpkg,upperdir=$layer/upper,workdir=$layer/work" \
        /var/lib/dpkg
}

install_packages() {
    local debs=("$packages"/*.deb)
    [ ${#debs[@]} -eq 5 ] || fail "expected 5 packages in $packages, found ${#debs[@]}"
    dpkg --log=/dev/null -i "${debs[@]}" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg -i"; }
    local package
    for package in liborvo-platform1 liborvo-platform-dev orvo-farlink farlink-host farlink-box; do
        dpkg-query -W -f='${Status}\n' "$package" | grep -q 'install ok installed' ||
            fail "$package is not installed"
    done
    echo "ok: installed ${debs[*]##*/}"
}

# Starts the installed host on a free port with MODULE and further options
# (a later one wins); sets url.
start_host() {
    local module=$1 out=$work/host.out
    shift
    # The shell opens the output in the background; the loop below reads it at once.
    : >"$out"
    /usr/sbin/farlink-host --module "$module" --listen 127.0.0.1:0 --password pw \
        --access-log "$work/access.log" "$@" >"$out" 2>"$work/host.err" &
    host_pid=$!
    local tries
    for ((tries = 0; tries < 100; tries++)); do
        url=$(sed -n 's|^farlink-host: listening on \(http[^ ]*\)$|\1|p' "$out")
        [ -n "$url" ] && break
        kill -0 "$host_pid" 2>/dev/null || { cat "$work/host.err"; fail "host did not start with $module"; }
        sleep 0.1
    done
    [ -n "$url" ] || fail "host gave no address"
    curl -sf -c "$work/jar" -o "$work/login.json" -d account=admin -d passwd=pw \
        "$url/webapi/auth.cgi" || { cat "$work/host.err"; fail "login to $url"; }
}

stop_host() {
    kill -TERM "$host_pid"
    wait "$host_pid" || fail "host did not stop cleanly"
    host_pid=
}

# call API VERSION METHOD [curl data...]: prints the answer.
call() {
    local api=$1 version=$2 method=$3
    shift 3
    curl -sf -b "$work/jar" -H "X-Farlink-Token: $(token)" \
        "$url/webapi/entry.cgi?api=$api&version=$version&method=$method" "$@"
}

# The anti-forgery token the login answer carried, if the host hands one out.
token() {
    sed -n 's/.*"token":"\([^"]*\)".*/\1/p' "$work/login.json" 2>/dev/null || true
}

expect() {
    local what=$1 answer=$2 pattern=$3
    [[ $answer == $pattern ]] || fail "$what answered $answer"
    echo "ok: $what -> $answer"
}

check_example() {
    local how=$1 module=$2
    # Read whole before matching: grep -q leaving early would break the pipe.
    local libraries
    libraries=$(ldd "$module")
    grep -Eq 'libwebapi-OVM5.so.1 => /(usr/)?lib/' <<<"$libraries" || fail "$how: not linked to the installed kit"
    start_host "$module"
    expect "$how greet" "$(call Example.Hello 1 greet --data-urlencode name=box)" \
        '{"data":{"greeting":"hello, box"},"success":true}'
    expect "$how greet without name" "$(call Example.Hello 1 greet)" '*"code":2901*'
    stop_host
}

build_examples() {
    cp -r "$example" "$work/src"
    make -s -C "$work/src" >"$work/make.log" 2>&1 || { cat "$work/make.log"; fail "pkg-config build"; }
    check_example pkg-config "$work/src/libwebapi-Example.Hello.so"

    cmake -S "$work/src" -B "$work/cmake-build" >"$work/cmake.log" 2>&1 &&
        cmake --build "$work/cmake-build" >>"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; fail "find_package build"; }
    check_example find_package "$work/cmake-build/libwebapi-Example.Hello.so"
}

farlink_module() {
    dpkg -L orvo-farlink | grep '/libwebapi-ORVO.Core.Farlink.so$'
}

check_installed_farlink() {
    start_host "$(farlink_module)"
    expect "installed Farlink status" "$(call ORVO.Core.Farlink 1 status)" '{"data":{"alias_status":*,"status":*},"success":true}'
    stop_host
}

# The installed box's launcher runs a box of its own (nested in this one)
# from the installed tree, admin page included.
check_installed_box() {
    /usr/bin/farlink-box --port 0 --run-dir "$work/installed-box" -- \
        sh -c 'for p in /proc/[0-9]*; do readlink -f $p/exe; done | grep farlink-host | sort -u
               curl -sf "$FARLINK_BOX_URL/" | grep -o "<title>Farlink relay</title>"
               curl -sf "$FARLINK_BOX_URL/openapi.json" | grep -o "\"openapi\": \"3.1.0\""' \
        >"$work/box.out" 2>&1 ||
        { cat "$work/box.out"; fail "installed box"; }
    grep -qx /usr/sbin/farlink-host "$work/box.out" || { cat "$work/box.out"; fail "installed box runs another host"; }
    grep -q "<title>Farlink relay</title>" "$work/box.out" &&
        grep -q '"openapi": "3.1.0"' "$work/box.out" || { cat "$work/box.out"; fail "installed box serves no admin page"; }
    echo "ok: installed box serves with /usr/sbin/farlink-host, the admin page included"
}

# The unit as installed: systemd's own checks, its sandbox no weaker than
# measured (exposure 3.0), and the user its front runs as.
check_service_unit() {
    local unit
    unit=$(dpkg -L farlink-host | grep '/farlink-host.service$')
    systemd-analyze verify "$unit" >"$work/verify.log" 2>&1 || { cat "$work/verify.log"; fail "unit verify"; }
    systemd-analyze security --offline=yes --threshold=30 "$unit" >"$work/security.log" 2>&1 ||
        { tail -3 "$work/security.log"; fail "unit sandbox weaker than exposure 3.0"; }
    getent passwd _farlink >/dev/null || fail "no user _farlink after installing farlink-host"
    echo "ok: $unit verifies, $(grep -o 'exposure level.*' "$work/security.log")"
}

# The shipped logrotate file rotates the logs of a host that serves the way
# the unit starts it, again and again while clients call; every request's
# line and every audit record is in exactly one file, whole.
check_log_rotation() {
    local logs=/var/log/farlink-host run=/run/farlink-host clients=4 calls=100 rotation
    mount -t tmpfs box-logs /var/log  # the machine's own logs stay untouched
    mkdir -p "$logs" "$run"
    start_host "$(farlink_module)" --pid-file "$run/farlink-host.pid" \
        --access-log "$logs/access.log" --audit-log "$logs/audit.log"
    local client pids=()
    for ((client = 0; client < clients; client++)); do
        for ((i = 0; i < calls; i++)); do
            call ORVO.Core.Farlink.Upnp 1 set -d enabled=true >/dev/null || echo failed
        done >"$work/client-$client.out" &
        pids+=($!)
    done
    # Fewer rotations than the file keeps, so that none is dropped.
    for rotation in 1 2 3 4; do
        sleep 0.2
        logrotate -f -s "$work/logrotate.state" /etc/logrotate.d/farlink-host || fail "logrotate"
    done
    kill -0 "${pids[@]}" 2>/dev/null || fail "the clients were done before the last rotation"
    wait "${pids[@]}"
    ! grep -q failed "$work"/client-*.out || fail "a call failed during rotation"
    stop_host
    [ -e "$logs/access.log.2.gz" ] || fail "no compressed rotation: $(ls "$logs")"
    [ -s "$logs/access.log" ] && [ -s "$logs/audit.log" ] || fail "nothing written to the reopened logs"
    local requests=$((1 + clients * calls)) access audit
    access=$(zcat -f "$logs"/access.log* | awk 'NF == 10' | wc -l)
    audit=$(zcat -f "$logs"/audit.log* |
        python3 -c 'import json, sys; print(sum(1 for line in sys.stdin if json.loads(line)))')
    [ "$access" -eq "$requests" ] && [ "$(zcat -f "$logs"/access.log* | wc -l)" -eq "$requests" ] ||
        fail "access log lines across rotations: $access whole of $(zcat -f "$logs"/access.log* | wc -l), want $requests"
    [ "$audit" -eq "$requests" ] || fail "audit records across rotations: $audit, want $requests"
    umount /var/log
    echo "ok: 4 rotations under load kept all $requests access and audit lines whole"
}

throwaway_dpkg_database
install_packages
check_service_unit
build_examples
check_installed_farlink
check_log_rotation
check_installed_box
echo "install test passed"
