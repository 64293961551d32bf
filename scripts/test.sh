#!/usr/bin/env bash
# Runs the whole test suite, installing and building whatever is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --no-run
ctest --test-dir build --output-on-failure "$@"
