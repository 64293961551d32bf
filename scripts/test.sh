#!/usr/bin/env bash
# Runs the whole test suite, installing and building whatever is missing first.
# Then, unless VELMORA_SKIP_RELIABILITY=1, the reliability runs CI needs: the
# library's tests under ASan+UBSan, the cancel and concurrency tests under
# TSan, two leak cycles under LeakSanitizer (a leak shows in one), 20 s of
# each fuzz target and two minutes of the soak (scripts/soak.sh): about 15
# minutes on two cores, mostly the suite and the soak.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --no-run
# A test without a time limit of its own gets 20 minutes: a wedge fails the run instead of using up CI.
ctest --test-dir build --output-on-failure --timeout 1200 "$@"
if [[ -z "${VELMORA_SKIP_RELIABILITY:-}" ]]; then
  LEAK_CYCLES=2 scripts/sanitize.sh asan tsan leak
  scripts/fuzz.sh 20
  scripts/soak.sh 120
fi
