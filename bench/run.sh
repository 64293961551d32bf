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
bench/speech.sh

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
