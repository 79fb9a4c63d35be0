#!/usr/bin/env bash
# PID 1 of the emulated box, started by box/farlink-box inside fresh mount,
# network and PID namespaces with the machine's listening socket on fd 3.
# Builds the box's file system, network and services, then waits for Ctrl-C
# or runs the given command. On the way out it stops the services in reverse
# order (the system log last, so that it can take their final lines).
set -euo pipefail

build=$FARLINK_BOX_BUILD_DIR
run=$FARLINK_BOX_RUN_DIR
bin=$build/bin
scratch=/run/farlink-box # private tmpfs: overlay layers, keys
outer_port=${FARLINK_BOX_LISTEN_PORT:?started without farlink-box-listen}
password=$FARLINK_BOX_PASSWORD
keep=$FARLINK_BOX_KEEP
unset FARLINK_BOX_LISTEN_PORT FARLINK_BOX_PASSWORD FARLINK_BOX_KEEP

host_port=8080
control_v4=127.0.10.1
control_v6=fd00:10::1
# The forwarder's connections to the host come from here, and only they may
# name their client in a PROXY header.
forwarder_source=127.0.0.2
silent_nameserver=127.0.10.53
service_user=nobody

# The deployment's host names, as the module and the kit were built with.
# shellcheck source=/dev/null
. "$build/deployment.env"
primary=$FARLINK_PRIMARY_CONTROL_HOST
secondary=$FARLINK_SECONDARY_CONTROL_HOST
relayinfo=${FARLINK_DEFAULT_RELAYINFO_URL#*://}
relayinfo=${relayinfo%%[:/]*}
# The register sites the control server names: the global host's first
# label replaced.
primary_domain=${primary#*.}
secondary_domain=${secondary#*.}

service_names=()
service_pids=()

fail() {
    echo "farlink-box: $*" >&2
    exit 1
}

# --- file system ------------------------------------------------------------

overlay() {
    local dir=$1 layer=$scratch/overlay${1//\//-}
    mkdir -p "$layer/upper" "$layer/work"
    mount -t overlay "box${dir//\//-}" \
        -o "lowerdir=$dir,upperdir=$layer/upper,workdir=$layer/work" "$dir"
}

# The target must be a plain file in the overlay before a file can be bound
# over it (the machine's may be a symbolic link or missing).
bind_file() {
    local source=$1 target=$2
    if [ -L "$target" ] || [ ! -f "$target" ]; then
        rm -f "$target"
        : >"$target"
    fi
    mount --bind "$source" "$target"
}

bind_dir() {
    mkdir -p "$2"
    mount --bind "$1" "$2"
}

make_dev() {
    mount -t tmpfs -o mode=0755,nosuid box-dev /dev
    local name major minor
    while read -r name major minor; do
        mknod -m 0666 "/dev/$name" c "$major" "$minor"
    done <<'EOF'
null 1 3
zero 1 5
full 1 7
random 1 8
urandom 1 9
tty 5 0
EOF
    mkdir /dev/pts /dev/shm
    mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 box-devpts /dev/pts
    ln -s pts/ptmx /dev/ptmx
    mount -t tmpfs -o mode=1777,nosuid,nodev box-shm /dev/shm
    ln -s /proc/self/fd /dev/fd
    ln -s /proc/self/fd/0 /dev/stdin
    ln -s /proc/self/fd/1 /dev/stdout
    ln -s /proc/self/fd/2 /dev/stderr
}

make_file_system() {
    mount --make-rprivate /
    mount -t tmpfs -o mode=0755 box-run /run
    mkdir -p "$scratch"
    overlay /usr
    overlay /etc
    make_dev
}

# --- the box's state, kept in the run directory -------------------------------

random_hex() { openssl rand -hex "$1"; }

write_json_file() {
    local path=$1 mode=$2
    cat >"$path"
    chmod "$mode" "$path"
}

seed_run_dir() {
    mkdir -p "$run/orvorelayd" "$run/orvo-var-run" "$run/initial"
    chmod 0755 "$run" "$run/orvorelayd" "$run/orvo-var-run"
    write_json_file "$run/orvorelayd/auth.conf" 0600 <<EOF
{"serial": "FLBOX$(random_hex 5 | tr a-f A-F)", "api_key": "$(random_hex 16)"}
EOF
    write_json_file "$run/account.conf" 0644 <<EOF
{"bound": true, "account": "admin@farlink.test", "email": "admin@farlink.test",
 "kivo_id": "kivo-$(random_hex 6)", "auth_key": "$(random_hex 16)", "realname_validated": true}
EOF
    printf 'hostname="farlink-box"\n' >"$run/orvoinfo.conf"
    printf 'nameserver 127.0.0.1\noptions timeout:1 attempts:1\n' >"$run/resolv.conf"
    printf '127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost ip6-loopback\n' >"$run/hosts"
    chmod 0644 "$run/orvoinfo.conf" "$run/resolv.conf" "$run/hosts"
    (umask 077 && printf '%s\n' "$password" >"$run/admin-password")
    # What the test fixture restores before every test.
    cp -a "$run/orvorelayd" "$run/orvoinfo.conf" "$run/resolv.conf" "$run/account.conf" \
        "$run/initial/"
}

install_orvo() {
    mkdir -p /usr/orvo/sbin /usr/orvo/bin /usr/orvo/var/lib/orvorelayd /usr/orvo/etc/orvokivo
    install -m 0755 "$bin/orvorelayd" "$bin/orvorelayd-daemon" /usr/orvo/sbin/
    install -m 0755 "$bin/orvokivo" /usr/orvo/bin/orvokivo
    install -m 0644 "$run/account.conf" /usr/orvo/etc/orvokivo/account.conf
    bind_dir "$run/orvorelayd" /usr/orvo/etc/orvorelayd
    bind_dir "$run/orvo-var-run" /usr/orvo/var/run
    bind_file "$run/orvoinfo.conf" /etc/orvoinfo.conf
    bind_file "$run/resolv.conf" /etc/resolv.conf
    bind_file "$run/hosts" /etc/hosts
}

# A CA made for this box only; its key never leaves the box's tmpfs. libcurl
# in the box trusts it through the system bundle (in the /etc overlay).
# It signs the control server's certificate and the web API host's; a
# browser or curl outside the box trusts the host with run/ca.pem.
new_ec_key=(-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes)

make_tls() {
    local server_names="DNS:*.$primary_domain,DNS:*.$secondary_domain,DNS:$primary_domain,DNS:$relayinfo,DNS:$FARLINK_DEFAULT_DIRECT_DOMAIN"
    local host_names="IP:127.0.0.1,IP:::1,DNS:localhost"
    # A browser told to trust ca.pem then trusts it for these names only.
    openssl req -x509 "${new_ec_key[@]}" -days 7 -subj "/CN=Farlink box CA" \
        -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign" \
        -addext "$(name_constraints "$server_names,$host_names")" \
        -keyout "$scratch/ca.key" -out "$run/ca.pem" 2>/dev/null
    issue_certificate server farlink.test "$server_names"
    issue_certificate host farlink-box "$host_names"
    cat "$run/ca.pem" >>/etc/ssl/certs/ca-certificates.crt
}

# name_constraints ALT_NAMES: an extension that permits exactly the names
# (with their subdomains; a wildcard's parent) and addresses in ALT_NAMES.
name_constraints() {
    local name permitted=()
    local -a names
    IFS=, read -r -a names <<<"$1"
    for name in "${names[@]}"; do
        case $name in
        DNS:\*.*) permitted+=("permitted;DNS:${name#DNS:\*.}") ;;
        DNS:*) permitted+=("permitted;$name") ;;
        IP:*:*) permitted+=("permitted;$name/ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff") ;;
        IP:*) permitted+=("permitted;$name/255.255.255.255") ;;
        esac
    done
    (IFS=, && echo "nameConstraints=critical,${permitted[*]}")
}

# issue_certificate NAME COMMON_NAME SUBJECT_ALT_NAMES: a server key and
# certificate from the box's CA, as $scratch/NAME.key (root's only) and NAME.pem.
issue_certificate() {
    local name=$1 common_name=$2 alt_names=$3
    (umask 077 && openssl req "${new_ec_key[@]}" -subj "/CN=$common_name" \
        -keyout "$scratch/$name.key" -out "$scratch/$name.csr" 2>/dev/null)
    openssl x509 -req -in "$scratch/$name.csr" -days 7 -set_serial "0x$(random_hex 8)" \
        -CA "$run/ca.pem" -CAkey "$scratch/ca.key" -out "$scratch/$name.pem" 2>/dev/null \
        -extfile <(printf '%s\n' "subjectAltName=$alt_names" "extendedKeyUsage=serverAuth")
}

# --- network ----------------------------------------------------------------

make_network() {
    ip link set lo up
    sysctl -qw net.ipv6.conf.lo.disable_ipv6=0
    # The kernel's default lets only 10 log messages queue before senders block.
    sysctl -qw net.unix.max_dgram_qlen=512
    # 127.0.0.0/8 is local as a whole once lo is up; IPv6 needs its address.
    ip -6 addr add "$control_v6/128" dev lo
}

write_dnsmasq_conf() {
    local name
    {
        printf '%s\n' no-resolv no-hosts 'local=/#/' no-round-robin \
            listen-address=127.0.0.1 bind-interfaces user=root log-queries \
            "log-facility=$run/dnsmasq.log" "pid-file=$scratch/dnsmasq.pid"
        for name in "$primary" "$secondary" "rs.$primary_domain" "cnc.$secondary_domain" \
            "cnc.$primary_domain" "vac.$primary_domain" "$relayinfo" \
            "$FARLINK_DEFAULT_DIRECT_DOMAIN"; do
            echo "host-record=$name,$control_v4,$control_v6"
        done
        # Names for resolver tests: order of several A records, one family only.
        echo "host-record=multi-a.farlink.test,127.0.20.1"
        echo "host-record=multi-a.farlink.test,127.0.20.2"
        echo "host-record=multi-a.farlink.test,127.0.20.3"
        echo "host-record=v6only.farlink.test,fd00:20::1"
        echo "host-record=both.farlink.test,127.0.20.4,fd00:20::4"
    } >"$run/dnsmasq.conf"
}

# --- services ---------------------------------------------------------------

# Starts a service in its own session (so a Ctrl-C on the terminal reaches
# only this script, which stops the services in order), logging to
# run/NAME.log. The machine's socket on fd 3 is kept from every service.
start_service() {
    local name=$1
    shift
    setsid "$@" </dev/null >>"$run/$name.log" 2>&1 3<&- &
    service_names+=("$name")
    service_pids+=($!)
}

# Waits (bounded) until CHECK succeeds; fails with the service's log if the
# service dies or the bound passes.
wait_ready() {
    local name=$1 tries
    shift
    local pid=${service_pids[-1]}
    for ((tries = 0; tries < 100; tries++)); do
        "$@" >/dev/null 2>&1 && return 0
        kill -0 "$pid" 2>/dev/null || fail "$name did not start; see $run/$name.log"
        sleep 0.1
    done
    fail "$name was not ready within 10 s; see $run/$name.log"
}

log_says() { grep -q -- "$2" "$run/$1.log"; }

start_services() {
    start_service syslogd "$bin/farlink-syslogd" --socket /dev/log --output "$run/syslog.log"
    wait_ready syslogd log_says syslogd ready

    write_dnsmasq_conf
    start_service dnsmasq dnsmasq --keep-in-foreground "--conf-file=$run/dnsmasq.conf"
    wait_ready dnsmasq getent hosts "$primary"

    # A name server address that takes queries and never answers.
    start_service silent-nameserver "$bin/farlink-box-listen" --udp \
        "$silent_nameserver:53" -- sleep infinity

    start_service controlserver "$bin/farlink-controlserver" \
        --cert "$scratch/server.pem" --key "$scratch/server.key" \
        --bind "$control_v4" --bind "$control_v6" --https-port 443 --http-port 80 \
        --control 127.0.0.1:8444 --records "$run/controlserver-records.json"
    wait_ready controlserver log_says controlserver '^ready'

    # FARLINK_BOX_HOST_WRAPPER (e.g. "valgrind --log-file=...") runs the host
    # under a checking tool.
    local -a wrapper
    read -r -a wrapper <<<"${FARLINK_BOX_HOST_WRAPPER:-}"
    # The admin page, when the build (or the installed box) has it.
    local -a web=()
    [ -d "$build/web-root" ] && web=(--web-root "$build/web-root")
    start_service host "$bin/farlink-box-listen" --fd 3 "127.0.0.1:$host_port" -- \
        "${wrapper[@]}" "$bin/farlink-host" --module "$build/lib/libwebapi-ORVO.Core.Farlink.so" \
        --listen-fd 3 --user "$service_user" --password-file "$run/admin-password" \
        --tls-cert "$scratch/host.pem" --tls-key "$scratch/host.key" \
        --access-log "$run/access.log" --audit-log "$run/audit.log" --pid-file "$run/host.pid" \
        --proxy-from "$forwarder_source" "${web[@]}"
    wait_ready host log_says host "listening on"

    # Connections to the machine's 127.0.0.1:PORT come in here; each tells
    # the host its outside client.
    setsid "$bin/farlink-box-forward" --listen-fd 3 --to "127.0.0.1:$host_port" \
        --proxy-from "$forwarder_source" </dev/null >>"$run/forward.log" 2>&1 &
    service_names+=(forward)
    service_pids+=($!)
    exec 3<&-
}

stop_services() {
    local i pid tries
    for ((i = ${#service_pids[@]} - 1; i >= 0; i--)); do
        pid=${service_pids[i]}
        kill -TERM "$pid" 2>/dev/null || continue
        for ((tries = 0; tries < 50; tries++)); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.1
        done
        kill -KILL "$pid" 2>/dev/null || true
    done
}

on_exit() {
    local status=$?
    trap - EXIT INT TERM HUP
    stop_services
    echo "farlink-box: stopped; logs are in $run" >&2
    exit "$status"
}

# --- the box's life -----------------------------------------------------------

announce() {
    cat >&2 <<EOF
farlink-box: ready
  open      https://127.0.0.1:$outer_port/  (the admin page; inside the box: port $host_port)
  web API   https://127.0.0.1:$outer_port/webapi/
  login     account admin, password $password
  CA        $run/ca.pem  (curl --cacert $run/ca.pem ...)
  logs      $run
EOF
}

export_box_environment() {
    export FARLINK_BOX_URL=https://127.0.0.1:$host_port
    export FARLINK_BOX_CONTROL_URL=http://127.0.0.1:8444
    export FARLINK_BOX_SERVICE_USER=$service_user
    export FARLINK_BOX_SILENT_NAMESERVER=$silent_nameserver
}

wait_for_stop() {
    echo "farlink-box: Ctrl-C stops the box" >&2
    sleep infinity &
    wait $! || true
}

main() {
    trap on_exit EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP
    make_file_system
    seed_run_dir
    install_orvo
    make_tls
    make_network
    start_services
    export_box_environment
    announce
    [ $# -gt 0 ] || {
        wait_for_stop
        return 0
    }
    local status=0
    "$@" || status=$?
    [ "$keep" = 1 ] && wait_for_stop
    return "$status"
}

main "$@"
