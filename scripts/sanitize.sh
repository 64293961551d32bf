#!/usr/bin/env bash
# Sanitizer runs, each from its CMake preset (CMakePresets.json):
#   asan  the library's tests with AddressSanitizer + UndefinedBehaviorSanitizer,
#         and every allocation of the slots failed in turn under LeakSanitizer
#         (build-asan; which tests, see tests/sanitizers/tests.cmake)
#   tsan  the cancel and concurrency tests with ThreadSanitizer (build-tsan)
#   leak  the leak cycle under LeakSanitizer, LEAK_CYCLES cycles (default 20)
# Each step builds only the programs it runs, unoptimised: compiling is most
# of a step's time, and the runtime's own code, which does the heavy work, is
# not instrumented anyway.
#   scripts/sanitize.sh [asan|tsan|leak]...     (default: all three)
set -euo pipefail
cd "$(dirname "$0")/.."
steps=("$@")
if ((${#steps[@]} == 0)); then steps=(asan tsan leak); fi

status=0
for step in "${steps[@]}"; do
  echo "== $step"
  start=$SECONDS
  case $step in
    asan)
      cmake --preset asan >/dev/null
      cmake --build --preset asan --target unit_tests host_tests alloc_failures
      ctest --preset asan --timeout 1200 || status=1
      ;;
    tsan)
      cmake --preset tsan >/dev/null
      cmake --build --preset tsan --target host_tests
      ctest --preset tsan --timeout 1200 || status=1
      ;;
    leak)
      cmake --preset asan >/dev/null
      cmake --build --preset asan --target workload
      scripts/leak.sh --lsan "${LEAK_CYCLES:-20}" || status=1
      ;;
    *)
      echo "unknown step $step (asan, tsan or leak)" >&2
      exit 2
      ;;
  esac
  echo "== $step took $((SECONDS - start)) s"
done
exit $status
