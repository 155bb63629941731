#!/usr/bin/env bash
# Runs the benchmark suite: builds what it needs into build-bench/, then measures. See bench/README.md.
#   bench/run.sh            the full suite (about half an hour)
#   bench/run.sh --quick    a quick pass
#   bench/run.sh --help     every option
set -euo pipefail
cd "$(dirname "$0")/.."
exec python3 bench/run.py "$@"
