#!/bin/sh
# Builds the benchmark hosts, makes the 30 s speech sample, runs the rounds and
# writes bench/RESULTS.md and bench/ratios.png. Options go to run.py
# (--quick, --rounds N, --tokens N). With --instructions first, counts
# instructions under callgrind instead and writes bench/INSTRUCTIONS.md
# (about an hour; --quick: minutes on the small fixtures).
set -eu
cd "$(dirname "$0")/.."

cmake -S . -B build -G Ninja -DVELMORA_BUILD_BENCH=ON >/dev/null
cmake --build build -j2 --target Tarvik.Velmora.Framework.OpenVINOBindings velmora-bench velmora_bench_noop velmora_bench_marks >/dev/null

mkdir -p bench/out
if [ ! -s bench/out/speech.f32 ]; then
    espeak-ng -s 150 -w bench/out/speech.wav "The library adds a small interface on top of the runtime. \
Its users will compare it with calling the runtime directly, and the goal is that the difference cannot be seen. \
Speech recognition turns spoken words into written text. This recording lasts half a minute, so that the model \
has a full window of audio to transcribe. The quick brown fox jumps over the lazy dog. Every measurement is \
repeated, and the spread is reported together with the median, because the machine is shared with other work."
    # Exactly 30 s of 16 kHz mono float samples: padded with silence or cut.
    sox bench/out/speech.wav -r 16000 -c 1 -b 32 -e float -t raw bench/out/speech.f32 pad 0 30 trim 0 30
fi

if [ "${1:-}" = "--instructions" ]; then
    shift
    exec .venv/bin/python bench/instructions.py "$@"
fi

# The chart's plotting library lives in its own environment: .venv holds the
# pinned runtime, is shared by every work tree and is left as it is.
if [ ! -x bench/.venv-chart/bin/python ]; then
    .venv/bin/python -m venv bench/.venv-chart
    bench/.venv-chart/bin/pip install -q -r bench/requirements.txt
fi

.venv/bin/python bench/run.py "$@"
bench/.venv-chart/bin/python bench/chart.py >/dev/null
