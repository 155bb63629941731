#!/usr/bin/env bash
# Builds the project with a sanitizer and runs the tests under it.
#   scripts/sanitize.sh address [ctest args...]   ASan + UBSan, the whole suite, in build-asan
#   scripts/sanitize.sh thread  [ctest args...]   TSan, the threaded tests, in build-tsan
# KB_BUILD_DIR overrides the build directory. Extra arguments go to ctest.
# KB_SANITIZE_TESTS="tst_a tst_b ..." builds and runs only those tests (and the two programs the
# end-to-end tests start): the thread checker's build of everything would not fit CI's budget.
#
# The daemon is a separate process that the client starts detached, so its sanitizer output
# would vanish with its standard error: every process writes its reports into
# <build>/sanitizer-reports/ instead (log_path), and the run fails when any report is there.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

mode=${1:-address}
shift || true
case "$mode" in
address) build_dir=${KB_BUILD_DIR:-build-asan} ;;
thread) build_dir=${KB_BUILD_DIR:-build-tsan} ;;
*)
    echo "usage: $0 address|thread [ctest arguments...]" >&2
    exit 1
    ;;
esac

jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKB_DEVELOPER_MODE=ON \
    -DKB_SANITIZE="$mode"
selection=()
if [ -n "${KB_SANITIZE_TESTS:-}" ]; then
    read -r -a tests <<<"$KB_SANITIZE_TESTS"
    cmake --build "$build_dir" -j "$jobs" --target kbadbtunneld kbplatform-sim "${tests[@]}"
    selection=(-R "^($(IFS='|'; echo "${tests[*]}"))(_v1)?\$")
else
    cmake --build "$build_dir" -j "$jobs"
fi

# Transfers run several times slower under a sanitizer than QTest's default 300 s per test
# function allows.
export QTEST_FUNCTION_TIMEOUT=1800000

reports=$root/$build_dir/sanitizer-reports
rm -rf "$reports"
mkdir -p "$reports"

if [ "$mode" = address ]; then
    # detect_leaks: LeakSanitizer runs in every process at exit, the daemon included.
    # detect_odr_violation=0: Qt's plugins and libraries define some globals twice.
    export ASAN_OPTIONS="detect_leaks=1:detect_stack_use_after_return=0:detect_odr_violation=0:strict_string_checks=1:log_path=$reports/asan:log_exe_name=1"
    export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:log_path=$reports/ubsan:log_exe_name=1"
    export LSAN_OPTIONS="suppressions=$root/scripts/lsan.supp:print_suppressions=0"
    set +e
    ctest --test-dir "$build_dir" --output-on-failure -j "$jobs" --timeout 1200 "${selection[@]}" "$@"
    status=$?
    set -e
else
    export TSAN_OPTIONS="suppressions=$root/scripts/tsan.supp:die_after_fork=0:history_size=4:second_deadlock_stack=1:log_path=$reports/tsan:log_exe_name=1"
    # Unit tests of the threaded classes and the end-to-end tests (daemon, tunnel threads, adb
    # thread). The others are single-threaded and gain nothing here.
    set +e
    if [ ${#selection[@]} -eq 0 ]; then
        selection=(-R 'tst_(e2e_|websockettcpbridge|tcpserver|adbclient|adbtunnel|singleinstance|cli|networkprovider|webserviceclient|websocket)')
    fi
    ctest --test-dir "$build_dir" --output-on-failure -j "$jobs" --timeout 1800 "${selection[@]}" "$@"
    status=$?
    set -e
fi

# A process killed while its sanitizer was starting the exit-time leak scan leaves an empty file.
find "$reports" -type f -empty -delete
if compgen -G "$reports/*" >/dev/null; then
    echo "Sanitizer reports in $reports:" >&2
    for report in "$reports"/*; do
        echo "==== $report" >&2
        cat "$report" >&2
    done
    status=1
fi
exit $status
