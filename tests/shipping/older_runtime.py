"""A Python host that imported another release of the runtime before loading the
library: InitModel of either family must refuse with one message naming both
releases (status 1, each time asked), and no native library of the library's
own runtime may join the host's in the process.
    python older_runtime.py LIBRARY MODEL_DIR"""
import ctypes
import sys

import openvino_genai

library, model = sys.argv[1], sys.argv[2].encode()
Message = ctypes.CFUNCTYPE(None, ctypes.c_char_p)
Handle = ctypes.POINTER(ctypes.c_void_p)
InitModels = {"GetLlmApiBase": ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_char_p, ctypes.c_int32, ctypes.c_int32,
                                                Handle, ctypes.c_void_p),
              "GetWhisperApiBase": ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_char_p, ctypes.c_int32, Handle,
                                                    ctypes.c_void_p)}


class HostCallbacks(ctypes.Structure):
    _fields_ = [("log", Message), ("error", Message)]


def loaded(name):
    with open("/proc/self/maps") as maps:
        return {line.split()[-1] for line in maps if name in line.split()[-1]}


errors = []
callbacks = HostCallbacks(Message(lambda m: None), Message(lambda m: errors.append(m.decode())))
hosts_genai = loaded("libopenvino_genai")
dll = ctypes.CDLL(library)
theirs = ".".join(openvino_genai.__version__.split(".")[:3])
for table, InitModel in InitModels.items():
    getattr(dll, table).restype = ctypes.POINTER(InitModel)
    init = getattr(dll, table)()[0]
    extra = (8,) if table == "GetLlmApiBase" else ()
    for attempt in range(2):
        errors.clear()
        handle = ctypes.c_void_p()
        status = init(model, 0, *extra, ctypes.byref(handle), ctypes.addressof(callbacks))
        assert status == 1 and handle.value is None, (table, status)
        assert len(errors) == 1, errors
        assert errors[0].startswith("OpenVINO runtime could not start: this library runs OpenVINO 2"), errors
        assert errors[0].endswith(f", but this process has already imported OpenVINO {theirs}"), errors
assert loaded("libopenvino_genai") == hosts_genai, loaded("libopenvino_genai") - hosts_genai
# The host's own runtime still works after the refusals.
assert openvino_genai.GenerationConfig(max_new_tokens=3).max_new_tokens == 3
print(f"{theirs}: refused with '{errors[0]}'")
