#!/bin/sh
# Prints how much of the code base is test code. A line counts when it is neither blank nor a
# whole-line comment, in the C++, Python and shell files git tracks.
#   product: src/ (the program) and tools/ (the peers the tests, demo and benchmarks run against:
#            the platform simulator and the scripted ADB host)
#   tests:   tests/ (the user-docs check is test code as much as the Qt tests are)
#   neither: fuzz/ and bench/ - harnesses run on demand, outside the test suite; they find and
#            measure, they do not check behaviour, so they are shown apart and not in the share.
# The project keeps tests/ at or below a third of product + tests; with --check the script
# fails when the share is above that.
set -eu
check=0
[ "${1:-}" = "--check" ] && check=1
cd "$(dirname "$0")/.."

count() {
    cpp=$(git ls-files -- "$@" | grep -E '\.(cpp|h)$' | tr '\n' '\0' | xargs -0 -r cat \
        | grep -cvE '^[[:space:]]*(//.*)?$' || true)
    scripts=$(git ls-files -- "$@" | grep -E '\.(py|sh)$' | tr '\n' '\0' | xargs -0 -r cat \
        | grep -cvE '^[[:space:]]*(#.*)?$' || true)
    echo $((cpp + scripts))
}

src=$(count src)
tools=$(count tools)
tests=$(count tests)
fuzz=$(count fuzz)
bench=$(count bench)
product=$((src + tools))

printf 'product code %6d lines (src %d, tools %d)\n' "$product" "$src" "$tools"
printf 'test code    %6d lines (tests/)\n' "$tests"
printf 'neither      %6d lines (fuzz %d, bench %d: not counted)\n' "$((fuzz + bench))" "$fuzz" "$bench"
awk -v t="$tests" -v p="$product" -v check="$check" 'BEGIN {
    share = 100 * t / (t + p)
    over = share > 100 / 3
    printf "test share   %5.1f %% of product + test code (limit 33.3 %%%s)\n", share, over ? ", over" : ""
    exit check && over ? 1 : 0
}'
