#!/usr/bin/env bash
# Runs the whole test suite, installing and building whatever is missing first.
# Then, unless VELMORA_SKIP_RELIABILITY=1, the reliability runs CI needs: the
# suite under ASan+UBSan, the cancel and concurrency tests under TSan, a short
# leak cycle under LeakSanitizer and 20 s of each fuzz target (about half an
# hour on two cores, mostly the two sanitizer builds).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --no-run
ctest --test-dir build --output-on-failure "$@"
if [[ -z "${VELMORA_SKIP_RELIABILITY:-}" ]]; then
  LEAK_CYCLES=5 scripts/sanitize.sh asan tsan leak
  scripts/fuzz.sh 20
fi
