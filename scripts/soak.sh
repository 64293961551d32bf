#!/usr/bin/env bash
# Drives both families through a random mix of every slot for SECONDS in one
# process (tests/reliability/workload.cpp, soak mode) and judges its resident memory.
#   scripts/soak.sh [--llm-only] [SECONDS] [SEED]   default 120 s; an hour by hand: 3600
# Fails on a wrong status, a generation that stops making progress (the
# threads' stacks are printed) or memory that keeps growing after warm-up.
# --llm-only leaves Whisper out.
set -euo pipefail
cd "$(dirname "$0")/.."
speech=build/soak-speech.f32
if [[ "${1:-}" == "--llm-only" ]]; then speech=none; shift; fi
seconds=${1:-120}
cmake --build build --target workload >/dev/null
if [[ $speech != none && ! -s $speech ]]; then
  espeak-ng -w build/soak-speech.wav "The quick brown fox jumps over the lazy dog. Then it ran far away."
  sox build/soak-speech.wav -r 16000 -c 1 -e floating-point -b 32 -t raw "$speech"
fi
build/tests/workload build/src/Tarvik.Velmora.Framework.OpenVINOBindings.so models soak "$speech" "$seconds" ${2:-} \
  2> >(grep -v '^E0000\|^WARNING: All log' >&2)
