#!/usr/bin/env bash
# Runs refusals.py older in a venv holding another release of the runtime, made
# once and kept under the build folder.
#   older_runtime.sh VENV PYTHON LIBRARY MODEL_DIR
set -euo pipefail
venv=$1 python=$2
shift 2
if ! "$venv/bin/python" -c "import openvino_genai" 2>/dev/null; then
  rm -rf "$venv"
  "$python" -m venv "$venv"
  "$venv/bin/pip" install -q --disable-pip-version-check "openvino-genai==2025.3.0.0"
fi
exec "$venv/bin/python" "$(dirname "$0")/refusals.py" older "$@"
