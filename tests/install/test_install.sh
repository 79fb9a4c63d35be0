#!/usr/bin/env bash
# Runs inside the box: installs the packages with dpkg (the box's overlays on
# /usr and /etc, and one over dpkg's database, make it throwaway), builds the
# example module out of tree twice, and asks the installed host for answers.
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
    [ ${#debs[@]} -eq 4 ] || fail "expected 4 packages in $packages, found ${#debs[@]}"
    dpkg --log=/dev/null -i "${debs[@]}" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg -i"; }
    local package
    for package in liborvo-platform1 liborvo-platform-dev orvo-farlink farlink-host; do
        dpkg-query -W -f='${Status}\n' "$package" | grep -q 'install ok installed' ||
            fail "$package is not installed"
    done
    echo "ok: installed ${debs[*]##*/}"
}

# Starts the installed host on a free port with MODULE; sets url.
start_host() {
    local module=$1 out=$work/host.out
    /usr/sbin/farlink-host --module "$module" --listen 127.0.0.1:0 --password pw \
        --access-log "$work/access.log" >"$out" 2>"$work/host.err" &
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
        "$url/webapi/auth.cgi" || fail "login"
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

check_installed_farlink() {
    local module
    module=$(dpkg -L orvo-farlink | grep '/libwebapi-ORVO.Core.Farlink.so$')
    start_host "$module"
    expect "installed Farlink status" "$(call ORVO.Core.Farlink 1 status)" '{"data":{"alias_status":*,"status":*},"success":true}'
    stop_host
}

# The installed box's launcher runs a box of its own (nested in this one)
# from the installed tree, admin page included.
check_installed_box() {
    /usr/sbin/farlink-box --port 0 --run-dir "$work/installed-box" -- \
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

throwaway_dpkg_database
install_packages
build_examples
check_installed_farlink
check_installed_box
echo "install test passed"
