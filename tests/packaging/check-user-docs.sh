#!/usr/bin/env bash
# Checks the files a user reads or sources: the manual page (groff lint, and every command,
# state and environment variable of the program documented) and the bash completion
# (candidates offered in each position, and the options it offers match those the program
# accepts).
#
# Usage: check-user-docs.sh <source dir> [<kbadbtunneld executable>]
set -uo pipefail

src=${1:?usage: check-user-docs.sh <source dir> [<kbadbtunneld executable>]}
program=${2:-}
man_page=$src/doc/kbadbtunneld.1
completion=$src/completion/kbadbtunneld.bash

failures=0
fail()
{
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# --- manual page ---------------------------------------------------------------------------

if command -v groff >/dev/null; then
    lint=$(groff -man -ww -z "$man_page" 2>&1)
    [[ -z $lint ]] || fail "groff warnings in the manual page:"$'\n'"$lint"
else
    echo "SKIP: groff is not installed, manual page not linted"
fi

# The section a term is documented in: the lines from ".SH <section>" to the next ".SH".
# Searched with grep reading it whole (no -q): a grep that stops at the first match would kill
# sed with SIGPIPE once the section outgrows one write, failing the pipeline under pipefail.
section()
{
    sed -n "/^\.SH $1\$/,/^\.SH /p" "$man_page"
}

mapfile -t commands < <(sed -n 's/.*_COMMAND("\([a-z]*\)").*/\1/p' "$src/src/daemon/adbtunnelparser.h")
[[ ${#commands[@]} -eq 7 ]] || fail "expected 7 command words in adbtunnelparser.h, found: ${commands[*]}"
for command in "${commands[@]}"; do
    section COMMANDS | grep -E "^\.BI? $command( |\$)" >/dev/null || fail "command '$command' missing from COMMANDS"
done

mapfile -t states < <(sed -n 's/.*QStringLiteral("\([A-Z_]*\)").*/\1/p' "$src/src/daemon/adbtunnelstate.cpp")
[[ ${#states[@]} -ge 5 ]] || fail "expected the tunnel state names in adbtunnelstate.cpp, found: ${states[*]}"
for state in "${states[@]}"; do
    [[ $state == UNKNOWN ]] && continue
    section STATES | grep -x "\.B $state" >/dev/null || fail "state '$state' missing from STATES"
done

# Every environment variable the program reads is a string literal in src/.
mapfile -t variables < <(grep -rhoE '"(KB|KBSAAS|KESTRELBOX|KBADBTUNNELD|QT)_[A-Z0-9_]+"' "$src/src" \
    | tr -d '"' | sort -u)
[[ ${#variables[@]} -ge 10 ]] || fail "found only ${#variables[@]} environment variables in the sources"
for variable in "${variables[@]}"; do
    section ENVIRONMENT | grep -x "\.B $variable" >/dev/null || fail "environment variable $variable missing from ENVIRONMENT"
done

# --- bash completion -----------------------------------------------------------------------

# Runs the completion for a command line whose last word is the one being completed, in a
# clean shell; prints the candidates one per line, sorted.
complete_line()
{
    bash --norc --noprofile -c '
        source "$1" || exit 2
        shift
        COMP_WORDS=("$@")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        COMP_LINE="${COMP_WORDS[*]}"
        COMP_POINT=${#COMP_LINE}
        _kbadbtunneld
        printf "%s\n" "${COMPREPLY[@]}"
    ' complete "$completion" "$@" | sed '/^$/d' | sort
}

# expect_candidates <expected, blank-separated> -- <words...>
expect_candidates()
{
    local expected=$1
    shift 2
    local actual
    actual=$(complete_line "$@" | tr '\n' ' ' | sed 's/ $//')
    expected=$(tr ' ' '\n' <<<"$expected" | sed '/^$/d' | sort | tr '\n' ' ' | sed 's/ $//')
    [[ $actual == "$expected" ]] || fail "completing '$*': expected [$expected], got [$actual]"
}

bash --norc --noprofile -c 'source "$1" && complete -p kbadbtunneld' _ "$completion" >/dev/null \
    || fail "the completion file does not register a completion for kbadbtunneld"

expect_candidates "${commands[*]}" -- kbadbtunneld ''
expect_candidates "getdaemoninfo getinstances" -- kbadbtunneld get
expect_candidates "--adb-serial-port" -- kbadbtunneld connect abc --adb
expect_candidates "" -- kbadbtunneld connect --adb-serial-port ''
expect_candidates "" -- kbadbtunneld connect --adb-serial-port = ''
expect_candidates "" -- kbadbtunneld connect --wait --timeout ''
expect_candidates "" -- kbadbtunneld connect --timeout 5 abc ''

# Instance ids for "disconnect" come from "getinstances" of the same executable.
cat >"$work/kbadbtunneld" <<'EOF'
#!/bin/sh
[ "$1" = getinstances ] || exit 1
cat <<'JSON'
{
    "exit_code": 0,
    "instances": [
        {
            "adb_serial": "localhost:40001",
            "state": "CONNECTED",
            "uuid": "7f1c2a90-0000-4000-8000-000000000001"
        },
        {
            "adb_serial": "",
            "state": "FAILED",
            "uuid": "c3d4e5f6-0000-4000-8000-000000000002"
        }
    ],
    "running": true
}
JSON
EOF
chmod +x "$work/kbadbtunneld"
fake=$work/kbadbtunneld
expect_candidates "7f1c2a90-0000-4000-8000-000000000001 c3d4e5f6-0000-4000-8000-000000000002" -- "$fake" disconnect ''
expect_candidates "" -- "$fake" disconnect 7f1c2a90-0000-4000-8000-000000000001 ''
expect_candidates "" -- "$fake" connect ''

# The options the program accepts, command by command, are those the completion offers.
if [[ -n $program ]]; then
    home=$work/home
    mkdir -p "$home"
    for words in "" "connect" "disconnect" "getinstances"; do
        # shellcheck disable=SC2086 # words is split on purpose
        accepted=$(HOME=$home KBSAAS_CONFIG_HOME=$home/config "$program" $words --help 2>/dev/null \
            | grep -oE -- '--[a-z][a-z-]*' | sort -u | tr '\n' ' ' | sed 's/ $//')
        [[ -n $accepted ]] || fail "'kbadbtunneld $words --help' printed no options"
        # shellcheck disable=SC2086
        offered=$(complete_line kbadbtunneld $words -- | tr '\n' ' ' | sed 's/ $//')
        [[ $accepted == "$offered" ]] \
            || fail "after '$words': the program accepts [$accepted], the completion offers [$offered]"
    done
fi

if ((failures > 0)); then
    echo "$failures check(s) failed" >&2
    exit 1
fi
echo "manual page and bash completion: all checks passed"
