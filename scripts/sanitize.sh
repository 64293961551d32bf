#!/usr/bin/env bash
# Sanitizer runs, each from its CMake preset (CMakePresets.json):
#   asan  the whole test suite with AddressSanitizer + UndefinedBehaviorSanitizer
#         (build-asan; the Python ctypes host is left out, see tests/sanitizers/tests.cmake)
#   tsan  the cancel and concurrency tests with ThreadSanitizer (build-tsan)
#   leak  the leak cycle under LeakSanitizer, LEAK_CYCLES cycles (default 20)
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
    asan | tsan)
      cmake --preset "$step" >/dev/null
      cmake --build --preset "$step"
      ctest --preset "$step" || status=1
      ;;
    leak)
      cmake --preset asan >/dev/null
      cmake --build --preset asan --target leak_cycle
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
