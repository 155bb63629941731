#!/usr/bin/env bash
# The main job: builds everything, starts the bundled platform simulator, opens a tunnel to
# one of its instances with kbadbtunneld and runs real adb commands through it.
# Nothing outside a temporary directory is touched: the configuration home, the adb server
# (on a port of its own) and the simulator all live there and are stopped at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

build_dir=${KB_BUILD_DIR:-build}
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build_dir" -j "$(nproc 2>/dev/null || echo 2)" --target kbadbtunneld kbplatform-sim

kbadbtunneld=$PWD/$build_dir/src/daemon/kbadbtunneld
simulator=$PWD/$build_dir/tools/kbplatform-sim/kbplatform-sim
adb=/usr/lib/android-sdk/platform-tools/adb
work=$(mktemp -d -t kbadbtunneld-demo.XXXXXX)
sim_pid=""

export KBSAAS_CONFIG_HOME=$work/home
export HOME=$work/home # adb keeps its keys under $HOME/.android
export ANDROID_ADB_SERVER_PORT=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
unset ADB_SERVER_SOCKET ANDROID_SERIAL
mkdir -p "$KBSAAS_CONFIG_HOME" "$work/sandbox"

cleanup() {
    "$kbadbtunneld" stop >/dev/null 2>&1 || true
    "$adb" kill-server >/dev/null 2>&1 || true
    [[ -n "$sim_pid" ]] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

step() { printf '\n\033[1m==> %s\033[0m\n' "$*"; }
field() { python3 -c "import json,sys; d=json.load(sys.stdin); print($1)"; }

step "Starting the platform simulator (round trip ${KB_DEMO_RTT_MS:-20} ms)"
"$simulator" --instances 1 --sandbox "$work/sandbox" --rtt-ms "${KB_DEMO_RTT_MS:-20}" \
    >"$work/sim.json" 2>"$work/sim.log" &
sim_pid=$!
for _ in $(seq 100); do [[ -s "$work/sim.json" ]] && break; sleep 0.1; done
ready=$(head -n 1 "$work/sim.json")
echo "$ready"
base_url=$(field 'd["base_url"]' <<<"$ready")
api_token=$(field 'd["api_token"]' <<<"$ready")
uuid=$(field 'd["instances"][0]["uuid"]' <<<"$ready")

step "Configuring kbadbtunneld in $KBSAAS_CONFIG_HOME"
# Credentials are for the user's eyes only; the daemon warns about an auth.json others can read.
(umask 077 && printf '{"api_token": "%s"}\n' "$api_token" >"$KBSAAS_CONFIG_HOME/auth.json")
printf '{"android-sdk-path": "/usr/lib/android-sdk"}\n' >"$KBSAAS_CONFIG_HOME/config.json"
export KB_PLATFORM_BASE_URL=$base_url
cat "$KBSAAS_CONFIG_HOME/config.json"

step "kbadbtunneld connect $uuid"
"$kbadbtunneld" connect "$uuid"
serial=""
for _ in $(seq 150); do
    state=$("$kbadbtunneld" getinstances | field '[i["state"] + " " + i["adb_serial"] for i in d["instances"]][0]')
    if [[ "$state" == CONNECTED* ]]; then
        serial=${state#CONNECTED }
        break
    fi
    sleep 0.2
done
"$kbadbtunneld" getinstances
if [[ -z "$serial" ]]; then
    echo "The tunnel did not come up; the daemon's log follows." >&2
    tail -n 40 "$KBSAAS_CONFIG_HOME/kbadbtunneld.log" >&2
    exit 1
fi

step "adb devices"
"$adb" devices -l
step "adb -s $serial shell getprop ro.product.model; uname -a"
"$adb" -s "$serial" shell 'getprop ro.product.model; uname -a'
step "adb push / pull of 32 MiB, checked byte for byte"
head -c $((32 << 20)) /dev/urandom >"$work/payload.bin"
"$adb" -s "$serial" push "$work/payload.bin" /data/local/tmp/payload.bin
"$adb" -s "$serial" pull /data/local/tmp/payload.bin "$work/payload.back"
sha256sum "$work/payload.bin" "$work/payload.back"
cmp "$work/payload.bin" "$work/payload.back" && echo "identical"
step "adb ls /data/local/tmp"
"$adb" -s "$serial" ls /data/local/tmp

step "kbadbtunneld getdaemoninfo, disconnect, stop"
"$kbadbtunneld" getdaemoninfo
"$kbadbtunneld" disconnect "$uuid"
"$kbadbtunneld" stop
echo
echo "Demo finished: the tunnel carried shell, push and pull traffic to the simulated device."
