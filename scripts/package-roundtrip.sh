#!/usr/bin/env bash
# Builds the Debian packages with CPack, checks kbadbtunneld's with lintian (no errors allowed;
# the warnings are printed), installs it with apt-get (so that its
# dependencies resolve as on a user's machine), checks the installed program, manual page,
# completion and run-time libraries, starts and stops its daemon, then removes and purges the
# package and checks that nothing of it is left.
#
# Usage: scripts/package-roundtrip.sh [build dir]     (default: build-pkg in the source tree)
# Needs root or sudo; installs into the running system.
set -euo pipefail

src=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-$src/build-pkg}
jobs=${KB_JOBS:-2}

sudo=""
if [[ $(id -u) -ne 0 ]]; then
    sudo="sudo"
fi

step()
{
    echo "==> $*"
}

die()
{
    echo "FAILED: $*" >&2
    exit 1
}

scratch=$(mktemp -d)
cleanup()
{
    # A daemon started below that is still running: find it by the configuration home in its
    # environment and end it by its process id.
    local environ pid
    for environ in /proc/[0-9]*/environ; do
        pid=${environ#/proc/}
        pid=${pid%/environ}
        if [[ $(cat "/proc/$pid/comm" 2>/dev/null) == kbadbtunneld ]] \
            && tr '\0' '\n' <"$environ" 2>/dev/null | grep -qx "KBSAAS_CONFIG_HOME=$scratch/config"; then
            kill "$pid" 2>/dev/null || true
        fi
    done
    rm -rf "$scratch"
}
trap cleanup EXIT

# --- build ---------------------------------------------------------------------------------

step "configure $build"
# CPack builds every target first; the tests are not part of a package.
cmake -S "$src" -B "$build" -G Ninja -DBUILD_TESTING=OFF -DKB_BUILD_TOOLS=ON >/dev/null
step "build"
cmake --build "$build" -j"$jobs" >/dev/null

step "cpack -G DEB"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB)
shopt -s nullglob
debs=("$build"/kbadbtunneld_*.deb)
shopt -u nullglob
[[ ${#debs[@]} -eq 1 ]] || die "expected one kbadbtunneld_*.deb in $build, found ${#debs[@]}"
deb=${debs[0]}
echo "package: $(basename "$deb")"
dpkg-deb --field "$deb" Package Version Architecture Maintainer Depends Recommends
dpkg-deb --contents "$deb" | awk '{print $NF}'

step "lintian $(basename "$deb")"
command -v lintian >/dev/null || die "lintian is not installed (scripts/install-deps.sh installs it)"
# lintian exits non-zero for errors only with --fail-on error; warnings are shown, not fatal.
lintian --fail-on error --display-info "$deb" || die "lintian reports errors for $(basename "$deb")"

# --- install -------------------------------------------------------------------------------

if dpkg-query -W -f='${Status}' kbadbtunneld 2>/dev/null | grep -q "install ok installed"; then
    die "kbadbtunneld is already installed; remove it first"
fi

step "apt-get install $deb"
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -q "$deb"

program=$(command -v kbadbtunneld) || die "kbadbtunneld is not on the PATH after installation"
[[ $program == /usr/bin/kbadbtunneld ]] || die "kbadbtunneld found at $program instead of /usr/bin"

export HOME=$scratch/home KBSAAS_CONFIG_HOME=$scratch/config
mkdir -p "$HOME"

step "kbadbtunneld --version"
version=$(kbadbtunneld --version)
echo "$version"
expected=$(dpkg-query -W -f='${Version}' kbadbtunneld)
expected=${expected%-*}
[[ $version == "kbadbtunneld $expected" ]] || die "--version printed '$version', expected 'kbadbtunneld $expected'"

step "man -w kbadbtunneld"
page=$(man -w kbadbtunneld) || die "man does not find the kbadbtunneld page"
echo "$page"
man_lint=$(MANWIDTH=80 man --warnings=w "$page" 2>&1 >/dev/null) || die "man could not render $page"
[[ -z $man_lint ]] || die "man warnings: $man_lint"

step "/usr/share/doc/kbadbtunneld"
docdir=/usr/share/doc/kbadbtunneld
for file in README.md.gz changelog.Debian.gz copyright; do
    [[ -f $docdir/$file ]] || die "$docdir/$file is not installed"
done
zcat "$docdir/changelog.Debian.gz" | head -n1

step "bash completion"
completion=/usr/share/bash-completion/completions/kbadbtunneld
[[ -f $completion ]] || die "$completion is not installed"
bash --norc --noprofile -c 'source "$1" && complete -p kbadbtunneld' _ "$completion"

step "run-time libraries belong to the package's dependencies"
# Everything the program loads, linked or opened at run time (TLS), must come from a package
# that installing kbadbtunneld pulls in, or it would be missing on a fresh system.
closure=$(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts --no-breaks \
    --no-replaces --no-enhances kbadbtunneld | grep -v '^ ' | tr -d '<>' | sort -u)
libraries=$(ldd "$program" | awk '$3 ~ /^\// {print $3}')
libraries+=$'\n'$(ldconfig -p | awk '$1 ~ /^lib(ssl|crypto)\.so\.3$/ {print $NF}')
libraries+=$'\n'$(find /usr/lib -path '*/qt6/plugins/tls/*openssl*.so' 2>/dev/null)
for library in $libraries; do
    real=$(readlink -f "$library")
    owner=$(dpkg -S "$real" 2>/dev/null | head -n1 | cut -d: -f1) \
        || owner=$(dpkg -S "$library" 2>/dev/null | head -n1 | cut -d: -f1) \
        || die "no package owns $library"
    grep -qx "$owner" <<<"$closure" || die "$library comes from $owner, which kbadbtunneld does not depend on"
    echo "$library <- $owner"
done

step "daemon from the installed package"
kbadbtunneld start
kbadbtunneld getdaemoninfo | tee "$scratch/info.json"
grep -q '"running": true' "$scratch/info.json" || die "getdaemoninfo did not reach the daemon"
kbadbtunneld stop
kbadbtunneld getdaemoninfo | grep -q '"running": false' || die "the daemon is still running after stop"

# --- remove --------------------------------------------------------------------------------

step "apt-get remove kbadbtunneld"
$sudo env DEBIAN_FRONTEND=noninteractive apt-get remove -y -q kbadbtunneld
# The package has no configuration files, so "remove" normally leaves nothing to purge.
if dpkg-query -W -f='${Status}' kbadbtunneld 2>/dev/null | grep -q config-files; then
    step "apt-get purge kbadbtunneld"
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get purge -y -q kbadbtunneld
else
    step "apt-get purge kbadbtunneld: nothing left to purge"
fi

hash -r
if command -v kbadbtunneld >/dev/null; then
    die "kbadbtunneld is still on the PATH: $(command -v kbadbtunneld)"
fi
for file in /usr/bin/kbadbtunneld /usr/share/man/man1/kbadbtunneld.1.gz "$completion" "$docdir"; do
    [[ ! -e $file ]] || die "$file is still present after removal"
done
if dpkg-query -W -f='${Status}' kbadbtunneld 2>/dev/null | grep -q installed; then
    die "dpkg still lists kbadbtunneld: $(dpkg-query -W -f='${Status}' kbadbtunneld)"
fi
echo "kbadbtunneld removed: binary, manual page and completion are gone"
echo "package round trip: OK"
