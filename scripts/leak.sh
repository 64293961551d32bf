#!/usr/bin/env bash
# Runs every slot of both families in a loop of whole handle lifetimes
# (tests/reliability/workload.cpp, cycle mode) and prints the resident memory.
#   scripts/leak.sh [CYCLES]          the normal build (build/), default 300 cycles:
#                                     resident memory early and late in the run
#   scripts/leak.sh --lsan [CYCLES]   the address build (build-asan), default 20:
#                                     LeakSanitizer's report at exit
set -euo pipefail
cd "$(dirname "$0")/.."
library=Tarvik.Velmora.Framework.OpenVINOBindings.so

if [[ "${1:-}" == "--lsan" ]]; then
  cycles=${2:-20}
  # Only third-party libraries are suppressed: anything our library or the
  # host allocated and lost is reported.
  # Full unwinding, so that every allocation names the library it came from.
  TBB_ENABLE_SANITIZERS=1 ASAN_OPTIONS=detect_leaks=1:fast_unwind_on_malloc=0 \
  LSAN_OPTIONS=suppressions=$PWD/tests/sanitizers/lsan.supp:print_suppressions=1 \
    build-asan/tests/workload "build-asan/src/$library" models cycle "$cycles" 2> >(grep -v '^E0000\|^WARNING: All log' >&2)
else
  cycles=${1:-300}
  cmake --build build --target workload >/dev/null
  build/tests/workload "build/src/$library" models cycle "$cycles" 2> >(grep -v '^E0000\|^WARNING: All log' >&2)
fi
