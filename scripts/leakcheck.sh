#!/usr/bin/env bash
# Runs the daemon under valgrind's memcheck for one connect, transfer, disconnect and stop
# cycle against kbplatform-sim, and fails on a definite leak or a memory error whose stack
# passes through this project's code. Everything is on loopback, with a temporary
# configuration home and an adb server on a port of its own.
#   scripts/leakcheck.sh [build dir, default: build]   (a build without sanitizers)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${1:-${KB_BUILD_DIR:-build}}
daemon_bin=$root/$build/src/daemon/kbadbtunneld
sim_bin=$root/$build/tools/kbplatform-sim/kbplatform-sim
if [ ! -x "$daemon_bin" ] || [ ! -x "$sim_bin" ]; then
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
    cmake --build "$build" --target kbadbtunneld kbplatform-sim
fi
adb_bin=/usr/lib/android-sdk/platform-tools/adb
[ -x "$adb_bin" ] || adb_bin=$(command -v adb)

work=$(mktemp -d)
sim_pid=
vg_pid=
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
adb_port=$(free_port)
cleanup() {
    set +e
    ANDROID_ADB_SERVER_PORT=$adb_port "$adb_bin" kill-server >/dev/null 2>&1
    if [ -n "$vg_pid" ]; then
        kill "$vg_pid" 2>/dev/null
        for _ in $(seq 50); do kill -0 "$vg_pid" 2>/dev/null || break; sleep 0.2; done
        kill -9 "$vg_pid" 2>/dev/null
    fi
    [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null
    wait 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

home=$work/home
mkdir -p "$home" "$work/sandbox"
"$sim_bin" --sandbox "$work/sandbox" >"$work/ready.json" 2>"$work/sim.log" &
sim_pid=$!
for _ in $(seq 100); do [ -s "$work/ready.json" ] && break; sleep 0.1; done
read -r base_url api_token uuid < <(python3 -c '
import json,sys; r=json.load(open(sys.argv[1])); print(r["base_url"], r["api_token"], r["instances"][0]["uuid"])' "$work/ready.json")
printf '{"api_token": "%s"}\n' "$api_token" >"$home/auth.json"
printf '{"android-sdk-path": "/usr/lib/android-sdk"}\n' >"$home/config.json"

unset ADB_SERVER_SOCKET ANDROID_SERIAL KB_LOG_TO_STDERR
export KBSAAS_CONFIG_HOME=$home KB_PLATFORM_BASE_URL=$base_url ANDROID_ADB_SERVER_PORT=$adb_port
export HOME=$home ANDROID_USER_HOME=$home/.android
"$adb_bin" start-server >/dev/null 2>&1

# The daemon as the client would launch it, with the same environment, but under memcheck.
valgrind --tool=memcheck --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite \
    --num-callers=40 --suppressions="$root/scripts/valgrind.supp" --fullpath-after="$root/" --log-file="$work/memcheck.log" "$daemon_bin" -d &
vg_pid=$!
# Ready once its local socket exists (getdaemoninfo answers even without a daemon).
for _ in $(seq 600); do
    [ -n "$(find "$home/tmp" -type s 2>/dev/null)" ] && break
    sleep 0.2
done
[ -n "$(find "$home/tmp" -type s 2>/dev/null)" ] || { echo "daemon did not start under valgrind" >&2; exit 1; }

state() {
    "$daemon_bin" getinstances | python3 -c '
import json,sys
for i in json.load(sys.stdin)["instances"]:
    if i["uuid"] == sys.argv[1]: print(i["state"], i["adb_serial"])' "$1"
}
"$daemon_bin" connect "$uuid" >/dev/null
serial=
for _ in $(seq 600); do
    read -r st serial < <(state "$uuid"; echo) || true
    [ "${st:-}" = CONNECTED ] && break
    sleep 0.2
done
[ "${st:-}" = CONNECTED ] || { echo "tunnel did not connect under valgrind" >&2; exit 1; }

head -c 2000000 /dev/urandom >"$work/up.bin"
"$adb_bin" -s "$serial" push "$work/up.bin" /data/local/tmp/up.bin >/dev/null
"$adb_bin" -s "$serial" pull /data/local/tmp/up.bin "$work/down.bin" >/dev/null
cmp "$work/up.bin" "$work/down.bin"
[ "$("$adb_bin" -s "$serial" shell echo leakcheck)" = leakcheck ]
"$daemon_bin" disconnect "$uuid" >/dev/null
"$daemon_bin" stop >/dev/null
wait "$vg_pid" || true
vg_pid=
starts=$(grep -c '==== SERVER starting' "$home/kbadbtunneld.log" || true)
[ "$starts" = 1 ] || { echo "expected one daemon, the one under valgrind; saw $starts" >&2; exit 1; }

log=$work/memcheck.log
grep -A6 'LEAK SUMMARY' "$log" || true
grep 'ERROR SUMMARY' "$log" || true
# Loss records and errors whose stack has a frame of our sources; Qt's and OpenSSL's own
# process-lifetime allocations are not ours to fix.
python3 - "$log" <<'PY'
import re, sys
log = open(sys.argv[1]).read().splitlines()
records, current = [], None
for line in log:
    body = re.sub(r'^==\d+== ?', '', line)
    if current is None:
        if 'are definitely lost' in body or body.startswith(('Invalid ', 'Conditional jump', 'Use of uninitialised', 'Mismatched free', 'Source and destination overlap', 'Syscall param')):
            current = [body]
    elif body.strip() == '':
        records.append(current)
        current = None
    else:
        current.append(body)
ours = [r for r in records if any('(src/' in l for l in r[1:])]
for r in records:
    if r not in ours:
        frames = [l.strip() for l in r[1:] if l.strip().startswith(('at ', 'by '))]
        print('not ours:', r[0], '|', ' <- '.join(frames[:4]))
for r in ours:
    print('\n'.join(r), end='\n\n')
print(f'{len(records)} leak/error records, {len(ours)} through our code')
sys.exit(1 if ours else 0)
PY
