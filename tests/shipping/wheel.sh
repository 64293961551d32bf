#!/usr/bin/env bash
# The wheel for one CPython: a manylinux tag, no path of the build machine, a
# library that links no libpython and refuses another version. Installed into
# a fresh venv, it generates, streams, chats and transcribes with the checkout
# hidden (a mount namespace; root).
#   wheel.sh PACKAGES_DIR SOURCE_DIR MODELS_DIR PYTHON3.X OTHER_PYTHON3.Y
set -euo pipefail
packages=$1 source=$(realpath "$2") models=$(realpath "$3") python=$4 other=$5
work=$(mktemp -d /tmp/velmora-wheel.XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }
library=Tarvik.Velmora.Framework.OpenVINOBindings.so

tag=$("$python" -c 'import sys; print(f"cp3{sys.version_info.minor}")')
# Repaired: tagged for the manylinux systems it runs on, not for this machine alone.
wheels=("$packages"/velmora-*-"$tag-$tag"-manylinux_2_*_x86_64.whl)
[[ ${#wheels[@]} -eq 1 && -f ${wheels[0]} ]] || fail "expected one manylinux $tag wheel in $packages: $(ls "$packages")"
wheel=${wheels[0]}
mkdir "$work/unpacked" && (cd "$work/unpacked" && unzip -q "$wheel")
[[ -f $work/unpacked/velmora/$library ]] || fail "the wheel has no library"
! readelf -d "$work/unpacked/velmora/$library" | grep -q 'NEEDED.*libpython' || fail "the wheel's library links libpython"
! ls -d "$work/unpacked"/velmora.libs 2>/dev/null || fail "auditwheel grafted libraries: $(ls "$work/unpacked/velmora.libs")"
# pip builds in a temporary directory, the build-time packages in another.
! grep -rlE -e "$source" -e "$(dirname "$(dirname "$(realpath "$python")")")" -e '/tmp/(pip-|tmp)' "$work/unpacked" ||
  fail "the wheel records a path of the build machine"

"$python" -m venv "$work/venv"
"$work/venv/bin/pip" install -q --disable-pip-version-check "$wheel"
"$other" "$source/tests/shipping/refusals.py" foreign "$("$work/venv/bin/python" -c 'import velmora; print(velmora.find_library())')" \
  "$models/tiny-llm" "${tag:2:1}.${tag:3}" || fail "the $tag library did not refuse $other cleanly"
espeak-ng --stdout "The quick brown fox jumps over the lazy dog." |
  sox -t wav - -r 16000 -c 1 -e float -b 32 -t raw "$work/speech.f32"

mkdir "$work/models"
cd /
unshare -m "$work/venv/bin/python" - "$source" "$models" "$work/models" "$work/speech.f32" <<'PY'
import subprocess, sys
source, models, seen, speech = sys.argv[1:]
# The models stay reachable through a bind mount; the checkout they may lie in is hidden.
subprocess.run(["mount", "--bind", models, seen], check=True)
subprocess.run(["mount", "-t", "tmpfs", "none", source], check=True)
import numpy as np
import velmora
assert velmora.find_library().startswith(sys.prefix), velmora.find_library()
with velmora.LlmModel(f"{seen}/tiny-llm", context_length=16) as model:
    text = model.generate("Once upon a time")
    pieces = list(model.stream("Once upon a time"))
assert len(text) >= 10 and len(pieces) > 1 and "".join(pieces) == text, (text, pieces)
with velmora.LlmModel(f"{seen}/smollm2", context_length=64) as model:
    answer = model.chat([{"role": "system", "content": "Answer in one word."},
                         {"role": "user", "content": "What is the capital of France?"}])
assert "Paris" in answer, answer
with velmora.WhisperModel(f"{seen}/whisper-base") as model:
    heard = model.transcribe(np.fromfile(speech, dtype=np.float32))
assert "fox" in heard.lower(), heard
print(f"velmora {velmora.__version__} on Python {sys.version.split()[0]}: {text!r}, {answer!r}, {heard!r}")
PY
echo "wheel $(basename "$wheel"): passed ($(du -h "$wheel" | cut -f1))"
