"""A host already running another Python than the one the library embeds:
InitModel of either family must refuse with one message naming both versions
(status 1), and the process must go on and exit normally.
    python3.X foreign_python.py LIBRARY MODEL_DIR EMBEDDED_VERSION"""
import ctypes
import sys

library, model, embedded = sys.argv[1], sys.argv[2].encode(), sys.argv[3]
Message = ctypes.CFUNCTYPE(None, ctypes.c_char_p)
Handle = ctypes.POINTER(ctypes.c_void_p)
# Slot 0 of each table: the LLM's takes a context length, Whisper's does not.
InitModels = {"GetLlmApiBase": ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_char_p, ctypes.c_int32, ctypes.c_int32,
                                                Handle, ctypes.c_void_p),
              "GetWhisperApiBase": ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_char_p, ctypes.c_int32, Handle,
                                                    ctypes.c_void_p)}


class HostCallbacks(ctypes.Structure):
    _fields_ = [("log", Message), ("error", Message)]


errors = []
callbacks = HostCallbacks(Message(lambda m: None), Message(lambda m: errors.append(m.decode())))
dll = ctypes.CDLL(library)
running = f"{sys.version_info.major}.{sys.version_info.minor}"
expected = f"this library embeds Python {embedded}, but this process runs Python {running}"
for table, InitModel in InitModels.items():
    getattr(dll, table).restype = ctypes.POINTER(InitModel)
    init = getattr(dll, table)()[0]
    extra = (8,) if table == "GetLlmApiBase" else ()
    for attempt in range(2):  # a refusal leaves nothing behind that a retry trips over
        errors.clear()
        handle = ctypes.c_void_p()
        status = init(model, 0, *extra, ctypes.byref(handle), ctypes.addressof(callbacks))
        assert status == 1 and handle.value is None, (table, status)
        assert len(errors) == 1 and errors[0].endswith(expected), (table, errors)
print(f"{running}: refused with '{errors[0]}'")
