#!/usr/bin/env bash
# Soak test: mixed adb shell, push and pull over several tunnels to the platform simulator for
# a chosen time, while the platform drops WebSockets at random. Reports the transfers done, the
# errors, the tunnel restarts, and the daemon's resident memory and thread count over time.
# Everything lives in a temporary directory (configuration home, adb server on a port of its
# own, simulator sandbox) and is stopped at the end.
#
#   scripts/soak.sh [MINUTES]          default 20
#
# KB_SOAK_TUNNELS (5), KB_SOAK_DROP_SECONDS (mean seconds between drops, 20),
# KB_SOAK_SAMPLE_SECONDS (30), KB_SOAK_RTT_MS (10), KB_SOAK_BANDWIDTH_KBPS (0: no cap),
# KB_BUILD_DIR (build), KB_SOAK_NO_BUILD=1 to use the binaries already built,
# KB_SOAK_KEEP=1 to keep the work directory.
# Exits with 1 when a transfer that reported success was corrupted, when an adb command hung,
# when the daemon died or when a tunnel is not CONNECTED at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

minutes=${1:-20}
tunnels=${KB_SOAK_TUNNELS:-5}
drop_seconds=${KB_SOAK_DROP_SECONDS:-20}
sample_seconds=${KB_SOAK_SAMPLE_SECONDS:-30}
build_dir=${KB_BUILD_DIR:-build}
if [[ "${KB_SOAK_NO_BUILD:-}" != 1 ]]; then
    cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$build_dir" -j "$(nproc 2>/dev/null || echo 2)" --target kbadbtunneld kbplatform-sim
fi

kbadbtunneld=$PWD/$build_dir/src/daemon/kbadbtunneld
simulator=$PWD/$build_dir/tools/kbplatform-sim/kbplatform-sim
adb=/usr/lib/android-sdk/platform-tools/adb
work=$(mktemp -d -t kbadbtunneld-soak.XXXXXX)
sim_pid=""
children=()

export KBSAAS_CONFIG_HOME=$work/home
export HOME=$work/home
export ANDROID_USER_HOME=$work/home/.android
export ANDROID_ADB_SERVER_PORT=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
unset ADB_SERVER_SOCKET ANDROID_SERIAL KB_LOG_TO_STDERR
mkdir -p "$KBSAAS_CONFIG_HOME" "$work/sandbox" "$work/files"

cleanup() {
    for pid in "${children[@]}"; do kill "$pid" 2>/dev/null || true; done
    "$kbadbtunneld" stop >/dev/null 2>&1 || true
    "$adb" kill-server >/dev/null 2>&1 || true
    if [[ -n "$sim_pid" ]]; then kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null || true; fi
    if [[ "${KB_SOAK_KEEP:-}" == 1 ]]; then echo "work directory kept: $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT

field() { python3 -c "import json,sys; d=json.load(sys.stdin); print($1)"; }
admin() { # admin PATH JSON
    python3 - "$base_url/_sim/$1" "$2" <<'EOF'
import sys, urllib.request
request = urllib.request.Request(sys.argv[1], data=sys.argv[2].encode(), method="POST",
                                 headers={"Content-Type": "application/json"})
urllib.request.build_opener(urllib.request.ProxyHandler({})).open(request, timeout=10).read()
EOF
}
state_of() { # state_of UUID -> "STATE SERIAL"
    "$kbadbtunneld" getinstances | field "' '.join([i['state'] + ' ' + i['adb_serial'] for i in d['instances'] if i['uuid'] == '$1'])"
}

"$simulator" --instances "$tunnels" --sandbox "$work/sandbox" --rtt-ms "${KB_SOAK_RTT_MS:-10}" \
    --bandwidth-kbps "${KB_SOAK_BANDWIDTH_KBPS:-0}" >"$work/sim.json" 2>"$work/sim.log" &
sim_pid=$!
for _ in $(seq 100); do [[ -s "$work/sim.json" ]] && break; sleep 0.1; done
ready=$(head -n 1 "$work/sim.json")
base_url=$(field 'd["base_url"]' <<<"$ready")
export KB_PLATFORM_BASE_URL=$base_url
printf '{"api_token": "%s"}\n' "$(field 'd["api_token"]' <<<"$ready")" >"$KBSAAS_CONFIG_HOME/auth.json"
printf '{"android-sdk-path": "/usr/lib/android-sdk"}\n' >"$KBSAAS_CONFIG_HOME/config.json"
mapfile -t uuids < <(field '"\n".join(i["uuid"] for i in d["instances"])' <<<"$ready")

sizes=(65536 4194304 33554432)
for size in "${sizes[@]}"; do
    head -c "$size" /dev/urandom >"$work/files/$size.bin"
    sha256sum "$work/files/$size.bin" | cut -d' ' -f1 >"$work/files/$size.sha"
done

serials=()
for uuid in "${uuids[@]}"; do
    "$kbadbtunneld" connect "$uuid" >/dev/null
done
for uuid in "${uuids[@]}"; do
    serial=""
    for _ in $(seq 300); do
        s=$(state_of "$uuid")
        if [[ "$s" == CONNECTED* ]]; then serial=${s#CONNECTED }; break; fi
        sleep 0.2
    done
    [[ -n "$serial" ]] || { echo "tunnel $uuid did not come up" >&2; tail -n 40 "$KBSAAS_CONFIG_HOME/kbadbtunneld.log" >&2; exit 1; }
    serials+=("$serial")
    mkdir -p "$work/sandbox/$uuid/data/local/tmp"
    for size in "${sizes[@]}"; do cp "$work/files/$size.bin" "$work/sandbox/$uuid/data/local/tmp/src-$size.bin"; done
done
daemon_pid=$(grep -o 'kbadbtunneld:[0-9]*:[^]]*\] \[debug\] ==== SERVER started' "$KBSAAS_CONFIG_HOME/kbadbtunneld.log" | tail -n 1 | cut -d: -f2)
deadline=$(($(date +%s) + minutes * 60))
echo "soak: $tunnels tunnels for $minutes min, daemon pid $daemon_pid, work $work"

wait_device() { # wait_device SERIAL; up to 90 s
    for _ in $(seq 90); do
        [[ "$(timeout 30 "$adb" -s "$1" get-state 2>/dev/null)" == device ]] && return 0
        sleep 1
    done
    return 1
}

worker() { # worker INDEX
    local index=$1 uuid=${uuids[$1]} serial=${serials[$1]} n=0
    while (($(date +%s) < deadline)); do
        n=$((n + 1))
        local ops=(shell push pull) op size started outcome rc
        op=${ops[RANDOM % 3]}
        size=${sizes[RANDOM % ${#sizes[@]}]}
        started=$(date +%s.%N)
        rc=0
        case $op in
        shell)
            out=$(timeout 300 "$adb" -s "$serial" shell "echo soak-$index-$n" 2>&1) || rc=$?
            [[ $rc -eq 0 && "$out" != "soak-$index-$n" ]] && rc=99
            ;;
        push)
            timeout 300 "$adb" -s "$serial" push "$work/files/$size.bin" "/data/local/tmp/w$n.bin" >/dev/null 2>&1 || rc=$?
            if [[ $rc -eq 0 ]]; then
                [[ "$(sha256sum "$work/sandbox/$uuid/data/local/tmp/w$n.bin" | cut -d' ' -f1)" == "$(cat "$work/files/$size.sha")" ]] || rc=99
            fi
            rm -f "$work/sandbox/$uuid/data/local/tmp/w$n.bin"
            ;;
        pull)
            timeout 300 "$adb" -s "$serial" pull "/data/local/tmp/src-$size.bin" "$work/pulled-$index.bin" >/dev/null 2>&1 || rc=$?
            if [[ $rc -eq 0 ]]; then
                [[ "$(sha256sum "$work/pulled-$index.bin" | cut -d' ' -f1)" == "$(cat "$work/files/$size.sha")" ]] || rc=99
            fi
            rm -f "$work/pulled-$index.bin"
            ;;
        esac
        case $rc in
        0) outcome=ok ;;
        99) outcome=corrupt ;;
        124) outcome=hang ;;
        *) outcome=error ;;
        esac
        [[ $op == shell ]] && size=0
        echo "$(date +%s) $index $op $size $outcome $(awk "BEGIN {printf \"%.1f\", $(date +%s.%N) - $started}")" >>"$work/results.txt"
        if [[ $outcome != ok ]]; then
            if ! wait_device "$serial"; then
                # The tunnel gave up (or never came back): connect again, as a user would.
                echo "$(date +%s) $index reconnect" >>"$work/reconnects.txt"
                "$kbadbtunneld" connect "$uuid" >/dev/null || true
                wait_device "$serial" || true
            fi
        fi
    done
}

dropper() {
    while (($(date +%s) < deadline)); do
        sleep $((drop_seconds / 2 + RANDOM % (drop_seconds + 1)))
        local index=$((RANDOM % tunnels)) after=$(((RANDOM % 5) << 20))
        admin close "{\"instance_uuid\": \"${uuids[$index]}\", \"after_bytes\": $after}" >/dev/null 2>&1 &&
            echo "$(date +%s) $index $after" >>"$work/drops.txt"
    done
}

sampler() {
    local start
    start=$(date +%s)
    while (($(date +%s) < deadline + 5)); do
        if [[ -r /proc/$daemon_pid/status ]]; then
            printf '%s %s %s %s\n' $(($(date +%s) - start)) \
                "$(awk '/^VmRSS:/ {print $2}' "/proc/$daemon_pid/status")" \
                "$(awk '/^Threads:/ {print $2}' "/proc/$daemon_pid/status")" \
                "$(grep -c 'Attempting to create tunnel.' "$KBSAAS_CONFIG_HOME/kbadbtunneld.log")" >>"$work/samples.txt"
        else
            echo "$(($(date +%s) - start)) dead" >>"$work/samples.txt"
        fi
        sleep "$sample_seconds"
    done
}

touch "$work/results.txt" "$work/drops.txt" "$work/reconnects.txt"
sampler &
children+=($!)
dropper &
children+=($!)
workers=()
for index in $(seq 0 $((tunnels - 1))); do
    worker "$index" &
    workers+=($!)
done
children+=("${workers[@]}")
wait "${workers[@]}"

alive=yes
[[ -r /proc/$daemon_pid/status ]] || alive=no
sleep 2
final_states=$("$kbadbtunneld" getinstances | field '" ".join(sorted(i["state"] for i in d["instances"]))')
attempts=$(grep -c 'Attempting to create tunnel.' "$KBSAAS_CONFIG_HOME/kbadbtunneld.log" || true)

echo
echo "== soak: $minutes min, $tunnels tunnels, a drop every ~${drop_seconds}s"
awk '{count[$3 " " $5]++; if ($5 == "ok" && $3 != "shell") bytes += $4}
     END {for (k in count) printf "  %-16s %d\n", k, count[k]; printf "  bytes moved      %.1f MiB\n", bytes / 1048576}' \
    "$work/results.txt" | sort
echo "  drops            $(wc -l <"$work/drops.txt")"
echo "  tunnel restarts  $((attempts - tunnels))"
echo "  user reconnects  $(wc -l <"$work/reconnects.txt")"
echo "  daemon alive     $alive; final states: $final_states"
echo "== daemon over time (seconds, RSS KiB, threads, tunnel attempts so far)"
cat "$work/samples.txt"

status=0
grep -q ' corrupt ' "$work/results.txt" && { echo "FAIL: a transfer that reported success was corrupted" >&2; status=1; }
grep -q ' hang ' "$work/results.txt" && { echo "FAIL: an adb command hung" >&2; status=1; }
[[ $alive == yes ]] || { echo "FAIL: the daemon died" >&2; status=1; }
[[ "$final_states" == "$(printf 'CONNECTED %.0s' $(seq "$tunnels") | sed 's/ $//')" ]] ||
    { echo "FAIL: not every tunnel is CONNECTED at the end" >&2; status=1; }
exit $status
