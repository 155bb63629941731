#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) and runs each for a while.
#   fuzz/run.sh [seconds per target, default 600] [target...]
# Targets: packetreader bridge localsocket jsonconfig versionnumber authreplies websocketframe (default: all).
# KB_FUZZ_JOBS targets run at once (default 2). Each starts from the seeds in fuzz/corpus/<target>
# and from what earlier runs found, kept in build-fuzz/corpus/<target>; crashing inputs land in
# build-fuzz/findings/<target>/. Copy each into fuzz/regressions/<target>/ once it is fixed.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
seconds=${1:-600}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(packetreader bridge localsocket jsonconfig versionnumber authreplies websocketframe)
build=${KB_FUZZ_BUILD_DIR:-build-fuzz}
jobs=${KB_FUZZ_JOBS:-2}

CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKB_SANITIZE=address -DKB_BUILD_FUZZERS=ON -DBUILD_TESTING=OFF -DKB_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export QT_QPA_PLATFORM=offscreen
# KB_ADBTUNNEL_VERSION=1 fuzzes the bridge's plain relay instead of the retain mode.
unset KB_ADBTUNNEL_DEBUG

run_one() {
    local name=$1 corpus=$root/$build/corpus/$1 findings=$root/$build/findings/$1 dict=()
    mkdir -p "$corpus" "$findings"
    [ -f "$root/fuzz/$name.dict" ] && dict=(-dict="$root/fuzz/$name.dict")
    local seeds=()
    [ -d "$root/fuzz/corpus/$name" ] && seeds+=("$root/fuzz/corpus/$name")
    [ -d "$root/fuzz/regressions/$name" ] && seeds+=("$root/fuzz/regressions/$name")
    local started=$SECONDS
    "$root/$build/fuzz/fuzz_$name" "$corpus" "${seeds[@]}" "${dict[@]}" -max_total_time="$seconds" \
        -max_len=65536 -timeout=20 -rss_limit_mb=4096 -print_final_stats=1 \
        -artifact_prefix="$findings/" >"$root/$build/fuzz-$name.log" 2>&1 || true
    local execs crashes elapsed=$((SECONDS - started))
    execs=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$root/$build/fuzz-$name.log" | awk '{print $2}')
    crashes=$(find "$findings" -type f ! -name 'slow-unit-*' | wc -l)
    echo "$name: ${execs:-?} executions in ${elapsed}s, $crashes finding(s) (log: $build/fuzz-$name.log)"
}

running=0
for name in "${targets[@]}"; do
    run_one "$name" &
    running=$((running + 1))
    if [ "$running" -ge "$jobs" ]; then
        wait -n
        running=$((running - 1))
    fi
done
wait
