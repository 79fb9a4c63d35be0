#!/usr/bin/env bash
# Installs the Debian packages that building, running the box and testing
# need. Safe to run again: it installs only what is missing, quietly.
set -euo pipefail

packages=(
    build-essential cmake pkg-config ccache
    libjsoncpp-dev libevent-dev libssl-dev libcurl4-openssl-dev prometheus-cpp-dev libseccomp-dev
    libgtest-dev googletest libbenchmark-dev
    dnsmasq-base openssl ca-certificates iproute2 util-linux procps curl
    dpkg-dev file lintian wrk
    libsystemd-dev systemd scdoc logrotate
    chromium chromium-driver python3-selenium python3-jsonschema fonts-wqy-microhei
    clang libclang-rt-14-dev
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps: missing packages (${missing[*]}); run as root to install them" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
