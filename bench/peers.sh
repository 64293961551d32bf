#!/bin/sh
# Compares the library with the engines a user would pick instead, on the same
# weights: llama.cpp (llama-cpp-python) on the GGUF that models/smollm2 is made
# from, faster-whisper on the Whisper base weights. Writes bench/PEERS.md and bench/peers.png.
# Options go to bench/peers.py (--rounds N, --tokens N, --quick).
#
# The peers live in bench/.venv-peers, made here from PyPI; they never enter
# .venv or the product. llama.cpp is compiled for the instruction sets this
# CPU reports, as a user building it here would.
set -eu
cd "$(dirname "$0")/.."
PEERS=bench/.venv-peers

cmake -S . -B build -G Ninja -DVELMORA_BUILD_BENCH=ON >/dev/null
cmake --build build -j2 --target Tarvik.Velmora.Framework.OpenVINOBindings velmora-turns >/dev/null

if [ ! -x $PEERS/bin/python ]; then
    .venv/bin/python -m venv $PEERS
    $PEERS/bin/pip install -q --upgrade pip
fi
if ! $PEERS/bin/python -c "import llama_cpp, faster_whisper" 2>/dev/null; then
    flags=$(grep -m1 '^flags' /proc/cpuinfo)
    has() { case " $flags " in *" $1 "*) echo ON ;; *) echo OFF ;; esac; }
    # The release wheels target a generic CPU; this build uses what the CPU has.
    CMAKE_ARGS="-DGGML_NATIVE=OFF -DGGML_AVX=$(has avx) -DGGML_AVX2=$(has avx2) -DGGML_FMA=$(has fma)"
    CMAKE_ARGS="$CMAKE_ARGS -DGGML_F16C=$(has f16c) -DGGML_BMI2=$(has bmi2) -DGGML_AVX512=$(has avx512f)"
    CMAKE_ARGS="$CMAKE_ARGS -DGGML_AVX_VNNI=$(has avx_vnni)"
    export CMAKE_ARGS
    # The Debian cmake (scripts/apt-packages.txt), ahead of any wrapper earlier on PATH.
    PATH=/usr/bin:$PATH nice $PEERS/bin/pip install -q --no-binary llama-cpp-python -r bench/requirements-peers.txt
fi
if [ ! -x bench/.venv-chart/bin/python ]; then
    .venv/bin/python -m venv bench/.venv-chart
    bench/.venv-chart/bin/pip install -q -r bench/requirements.txt
fi

mkdir -p bench/out
bench/speech.sh
.venv/bin/python bench/peers.py "$@"
bench/.venv-chart/bin/python bench/peers_chart.py >/dev/null
