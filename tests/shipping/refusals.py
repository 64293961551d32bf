"""InitModel of both families, twice each, through ctypes, in a Python host the library must refuse: each
call returns 1 with one message naming both versions and leaves no handle, nor anything a retry trips over.
    python3.X refusals.py foreign LIBRARY MODEL_DIR EMBEDDED_VERSION   another Python than the one it embeds
    python refusals.py older LIBRARY MODEL_DIR     another release of the runtime imported first; none of
                                                   the library's own runtime libraries may join the host's"""
import ctypes
import sys

mode, library, model = sys.argv[1], sys.argv[2], sys.argv[3].encode()
if mode == "older":
    import openvino_genai

Message = ctypes.CFUNCTYPE(None, ctypes.c_char_p)
Handle = ctypes.POINTER(ctypes.c_void_p)
# Slot 0 of each table: the LLM's takes a context length, Whisper's does not.
InitModels = {"GetLlmApiBase": ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_char_p, ctypes.c_int32, ctypes.c_int32,
                                                Handle, ctypes.c_void_p),
              "GetWhisperApiBase": ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_char_p, ctypes.c_int32, Handle,
                                                    ctypes.c_void_p)}


class HostCallbacks(ctypes.Structure):
    _fields_ = [("log", Message), ("error", Message)]


def loaded(name):
    with open("/proc/self/maps") as maps:
        return {line.split()[-1] for line in maps if name in line.split()[-1]}


if mode == "older":
    hosts_genai = loaded("libopenvino_genai")
    theirs = ".".join(openvino_genai.__version__.split(".")[:3])
    start = "OpenVINO runtime could not start: this library runs OpenVINO 2"
    end = f", but this process has already imported OpenVINO {theirs}"
else:
    running = f"{sys.version_info.major}.{sys.version_info.minor}"
    start, end = "", f"this library embeds Python {sys.argv[4]}, but this process runs Python {running}"
errors = []
callbacks = HostCallbacks(Message(lambda m: None), Message(lambda m: errors.append(m.decode())))
dll = ctypes.CDLL(library)
for table, InitModel in InitModels.items():
    getattr(dll, table).restype = ctypes.POINTER(InitModel)
    init = getattr(dll, table)()[0]
    for _ in range(2):
        errors.clear()
        handle = ctypes.c_void_p()
        status = init(model, 0, *((8,) if table == "GetLlmApiBase" else ()), ctypes.byref(handle),
                      ctypes.addressof(callbacks))
        assert status == 1 and handle.value is None, (table, status)
        assert len(errors) == 1 and errors[0].startswith(start) and errors[0].endswith(end), (table, errors)
if mode == "older":
    assert loaded("libopenvino_genai") == hosts_genai, loaded("libopenvino_genai") - hosts_genai
    # The host's own runtime still works after the refusals.
    assert openvino_genai.GenerationConfig(max_new_tokens=3).max_new_tokens == 3
print(f"refused with '{errors[0]}'")
