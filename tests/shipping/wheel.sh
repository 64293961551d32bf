#!/usr/bin/env bash
# Builds the platform wheel from python/, installs it into a fresh virtual
# environment outside the checkout, and generates from there with the
# checkout hidden (a private mount namespace; needs root). The wheel must
# record no path of the build machine.
#   wheel.sh SOURCE_DIR MODELS_DIR PYTHON3.11
set -euo pipefail
source=$(realpath "$1") models=$2 python=$3
work=$(mktemp -d /tmp/velmora-wheel.XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

"$python" -m venv "$work/venv"
"$work/venv/bin/pip" wheel -q --disable-pip-version-check --no-deps "$source/python" -w "$work/dist"
wheel=$(echo "$work"/dist/velmora-*-cp311-cp311-linux_*.whl)
[[ -f $wheel ]] || fail "no platform wheel in $(ls "$work/dist")"
mkdir "$work/unpacked" && (cd "$work/unpacked" && unzip -q "$wheel")
[[ -f $work/unpacked/velmora/Tarvik.Velmora.Framework.OpenVINOBindings.so ]] || fail "the wheel has no library"
! grep -rlF -e "$source" -e "$(dirname "$(dirname "$(realpath "$python")")")" "$work/unpacked" ||
  fail "the wheel records a path of the build machine"
"$work/venv/bin/pip" install -q --disable-pip-version-check "$wheel"
cp -r "$models/tiny-llm" "$work/"

cd /
unshare -m "$work/venv/bin/python" - "$source" "$work/tiny-llm" <<'PY'
import subprocess, sys
subprocess.run(["mount", "-t", "tmpfs", "none", sys.argv[1]], check=True)
import velmora
assert velmora.find_library().startswith(sys.prefix), velmora.find_library()
with velmora.LlmModel(sys.argv[2], context_length=16) as model:
    text = model.generate("Once upon a time")
assert len(text) >= 10, text
print(f"velmora {velmora.__version__} from the wheel generated: {text}")
PY
echo "wheel: passed ($(du -h "$wheel" | cut -f1))"
