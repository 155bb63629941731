#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the demo need, when missing.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config
    qt6-base-dev qt6-websockets-dev qt6-httpserver-dev libssl-dev openssl
    adb socat dante-server tinyproxy procps python3 groff-base lintian
)
if [[ "${KB_WITH_BENCH_DEPS:-}" == 1 ]]; then
    packages+=(gnuplot-nox)
fi

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
if [[ $(id -u) -ne 0 ]]; then
    sudo="sudo"
fi
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
# The proxy packages start system services on install; the tests run their own instances.
for service in danted tinyproxy; do
    if command -v systemctl >/dev/null 2>&1 && systemctl is-active --quiet "$service" 2>/dev/null; then
        $sudo systemctl stop "$service" || true
    fi
done
