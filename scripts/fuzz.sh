#!/usr/bin/env bash
# Builds the libFuzzer targets with clang into build-fuzz and runs each for the
# given number of seconds (default 600), then prints how many inputs it ran.
# The corpus of each target grows in build-fuzz/corpus/ from run to run.
#   scripts/fuzz.sh [seconds] [target...]      (default: every target)
#     llm_slots_fuzzer      the LLM settings and stop-string/stop-token slots
#     whisper_slots_fuzzer  the Whisper settings, language-map and suppression-list slots
# Every target takes the setting names of the tables and the value fragments of
# tests/fuzz/values.dict (build-fuzz/tests/fuzz/settings.dict, made by the build).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-600}
shift || true

if ! command -v clang++ >/dev/null; then
  echo "clang++ is missing: apt-get install clang" >&2
  exit 1
fi

cmake --preset fuzz >/dev/null
fuzzers=("$@")
if ((${#fuzzers[@]} == 0)); then fuzzers=(llm_slots_fuzzer whisper_slots_fuzzer); fi
cmake --build build-fuzz --target "${fuzzers[@]}"

status=0
for fuzzer in "${fuzzers[@]}"; do
  corpus=build-fuzz/corpus/$fuzzer
  artifacts=build-fuzz/artifacts/$fuzzer/
  log=build-fuzz/$fuzzer.log
  mkdir -p "$corpus" "$artifacts"
  options=(-max_total_time="$seconds" -artifact_prefix="$artifacts" -print_final_stats=1 -dict=build-fuzz/tests/fuzz/settings.dict)
  echo "== $fuzzer for ${seconds}s (log: $log)"
  if build-fuzz/tests/fuzz/$fuzzer "$corpus" "${options[@]}" >"$log" 2>&1; then
    result="no findings"
  else
    result="FINDING: see $log and $artifacts"
    status=1
  fi
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || true)
  if [[ -z "$runs" ]]; then runs=$(grep -o 'Done [0-9]* runs' "$log" | grep -o '[0-9]*' || echo "?"); fi
  echo "$fuzzer: ${runs} executions in ${seconds}s, $result"
done
exit $status
