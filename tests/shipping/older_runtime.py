"""A Python host that imported another release of the runtime before loading the
library: InitModel of either family must refuse with one message naming both
releases (status 1, each time asked), and no native library of the library's
own runtime may join the host's in the process.
    python older_runtime.py LIBRARY MODEL_DIR"""
import sys

import openvino_genai

from refusals import init_twice

library, model = sys.argv[1], sys.argv[2].encode()


def loaded(name):
    with open("/proc/self/maps") as maps:
        return {line.split()[-1] for line in maps if name in line.split()[-1]}


hosts_genai = loaded("libopenvino_genai")
theirs = ".".join(openvino_genai.__version__.split(".")[:3])
for table, status, handle, errors in init_twice(library, model):
    assert status == 1 and handle is None, (table, status)
    assert len(errors) == 1, errors
    assert errors[0].startswith("OpenVINO runtime could not start: this library runs OpenVINO 2"), errors
    assert errors[0].endswith(f", but this process has already imported OpenVINO {theirs}"), errors
assert loaded("libopenvino_genai") == hosts_genai, loaded("libopenvino_genai") - hosts_genai
# The host's own runtime still works after the refusals.
assert openvino_genai.GenerationConfig(max_new_tokens=3).max_new_tokens == 3
print(f"{theirs}: refused with '{errors[0]}'")
