#!/usr/bin/env bash
# Records real ADB traffic through a tunnel (one `adb push`, one `adb shell`) and turns it into
# seed inputs for the packet reader and bridge fuzz targets.
#   fuzz/capture-corpus.sh [build dir, default: build]
# The daemon's socket reads and writes are taken with strace, so the bytes are exactly what the
# ADB server sent and received; everything runs on loopback against kbplatform-sim, with its
# own configuration home and its own adb server port.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${1:-build}
daemon_bin=$root/$build/src/daemon/kbadbtunneld
sim_bin=$root/$build/tools/kbplatform-sim/kbplatform-sim
adb_bin=${ADB:-/usr/lib/android-sdk/platform-tools/adb}
[ -x "$adb_bin" ] || adb_bin=$(command -v adb)

work=$(mktemp -d)
pids=()
adb_port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
cleanup() {
    set +e
    [ -n "${home:-}" ] && KBSAAS_CONFIG_HOME=$home "$daemon_bin" stop >/dev/null 2>&1
    ANDROID_ADB_SERVER_PORT=$adb_port "$adb_bin" kill-server >/dev/null 2>&1
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
    rm -rf "$work"
}
trap cleanup EXIT

home=$work/home
mkdir -p "$home" "$work/sandbox"
"$sim_bin" --sandbox "$work/sandbox" >"$work/ready.json" 2>"$work/sim.log" &
pids+=($!)
for _ in $(seq 100); do [ -s "$work/ready.json" ] && break; sleep 0.1; done
read -r base_url api_token uuid < <(python3 -c '
import json,sys; r=json.load(open(sys.argv[1])); print(r["base_url"], r["api_token"], r["instances"][0]["uuid"])' "$work/ready.json")
printf '{"api_token": "%s"}\n' "$api_token" >"$home/auth.json"
printf '{"android-sdk-path": "/usr/lib/android-sdk"}\n' >"$home/config.json"

unset ADB_SERVER_SOCKET ANDROID_SERIAL
export KBSAAS_CONFIG_HOME=$home KB_PLATFORM_BASE_URL=$base_url ANDROID_ADB_SERVER_PORT=$adb_port
export HOME=$home ANDROID_USER_HOME=$home/.android
"$adb_bin" start-server >/dev/null 2>&1
"$daemon_bin" start >/dev/null
daemon_pid=$(grep -o "kbadbtunneld:[0-9]*:[^]]*\] \[debug\] ==== SERVER starting" "$home/kbadbtunneld.log" | tail -1 | cut -d: -f2)
strace -f -qq -p "$daemon_pid" -e trace=read,write,readv,writev,recvfrom,sendto,recvmsg,sendmsg \
    -xx -s 2000000 -o "$work/trace" &
strace_pid=$!
sleep 1
"$daemon_bin" connect "$uuid" >/dev/null
serial=
for _ in $(seq 150); do
    serial=$("$daemon_bin" getinstances | python3 -c '
import json,sys; print(next((i["adb_serial"] for i in json.load(sys.stdin)["instances"] if i["state"]=="CONNECTED"), ""))')
    [ -n "$serial" ] && break
    sleep 0.2
done
[ -n "$serial" ] || { echo "tunnel did not connect" >&2; exit 1; }
head -c 300000 /dev/urandom >"$work/payload.bin"
"$adb_bin" -s "$serial" push "$work/payload.bin" /data/local/tmp/payload.bin >&2
"$adb_bin" -s "$serial" shell 'echo hello; ls; cat /dev/null' >&2
"$daemon_bin" disconnect "$uuid" >/dev/null
sleep 1
kill "$strace_pid"
wait "$strace_pid" 2>/dev/null || true

python3 - "$work/trace" "$root/fuzz/corpus" <<'PY'
import os, re, struct, sys
trace, out = sys.argv[1], sys.argv[2]
call = re.compile(r'^(\d+)\s+(read|write|recvfrom|sendto)\((\d+), "((?:\\x[0-9a-f]{2})*)"')
unfinished = re.compile(r'^(\d+)\s+(read|recvfrom)\((\d+), <unfinished')
resumed = re.compile(r'^(\d+)\s+<\.\.\. (read|recvfrom) resumed>"((?:\\x[0-9a-f]{2})*)"')
pending = {}
streams = {}  # (fd, direction) -> bytes, in order, with the global order of chunks
chunks = []
for line in open(trace):
    m = unfinished.match(line)
    if m:
        pending[m.group(1)] = int(m.group(3))
        continue
    m = resumed.match(line)
    if m and m.group(1) in pending:
        name, fd, data = m.group(2), pending.pop(m.group(1)), bytes.fromhex(m.group(3).replace('\\x', ''))
    else:
        m = call.match(line)
        if not m:
            continue
        name, fd, data = m.group(2), int(m.group(3)), bytes.fromhex(m.group(4).replace('\\x', ''))
    if data:
        chunks.append((fd, name in ('read', 'recvfrom'), data))
# The ADB server's connection is the fd whose first read starts with CNXN.
tcp_fd = next((fd for fd, inbound, data in chunks if inbound and data.startswith(b'CNXN')), None)
if tcp_fd is None:
    sys.exit('no ADB traffic found in the trace')
records = []  # (from_device, bytes)
for fd, inbound, data in chunks:
    if fd == tcp_fd:
        records.append((not inbound, data))

def bridge_input(records):
    out = bytearray()
    for from_device, data in records:
        for i in range(0, len(data), 4096):
            part = data[i:i + 4096]
            out += bytes([2 | (1 if from_device else 0)]) + struct.pack('<H', len(part) - 1) + part
    return bytes(out)

def write(target, name, data):
    os.makedirs(os.path.join(out, target), exist_ok=True)
    with open(os.path.join(out, target, name), 'wb') as f:
        f.write(data)

server = b''.join(d for dev, d in records if not dev)
device = b''.join(d for dev, d in records if dev)
write('packetreader', 'adb-server-stream', b'\x00' + server[:65536])
write('packetreader', 'device-stream', b'\x05' + device[:65536])
# The whole session, and its first messages alone (handshake, shell), which stay small.
write('bridge', 'push-and-shell', bridge_input(records))
small = [(dev, d) for dev, d in records if len(d) <= 512]
write('bridge', 'small-messages', bridge_input(small[:200]))
print('tcp fd', tcp_fd, 'records', len(records), 'server bytes', len(server), 'device bytes', len(device))
PY
