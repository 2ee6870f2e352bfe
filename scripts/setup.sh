#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the tools need (only those missing).
set -euo pipefail

packages=(cmake g++ make pkg-config
          libcurl4-openssl-dev libssl-dev libsqlite3-dev nlohmann-json3-dev
          libgtest-dev libgmock-dev libcpp-httplib-dev libbenchmark-dev iproute2
          libc-ares-dev libmicrohttpd-dev libldns-dev libsystemd-dev bind9-dnsutils dnsmasq-base tinyproxy-bin openssl groff-base python3 clang libclang-rt-14-dev ccache)

missing=()
for package in "${packages[@]}"; do
  [ "$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null)" = 'install ok installed' ] ||
    missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
