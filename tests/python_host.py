"""A host that is itself a Python process: the library must join this
interpreter rather than start a second one, and generate from any thread."""
import ctypes
import sys
import threading

import openvino_genai  # the host already uses the runtime itself

LIBRARY, MODEL = sys.argv[1], sys.argv[2].encode()

Message = ctypes.CFUNCTYPE(None, ctypes.c_char_p)


class HostCallbacks(ctypes.Structure):
    _fields_ = [("log", Message), ("error", Message)]


Slot = ctypes.CFUNCTYPE
InitModel = Slot(ctypes.c_int32, ctypes.c_char_p, ctypes.c_int32, ctypes.c_int32,
                 ctypes.POINTER(ctypes.c_void_p), ctypes.POINTER(HostCallbacks))
DestroyModel = Slot(ctypes.c_int32, ctypes.c_void_p)
QueryModel = Slot(ctypes.c_int32, ctypes.c_void_p, ctypes.c_char_p, ctypes.POINTER(ctypes.c_void_p))
FreeString = Slot(ctypes.c_int32, ctypes.c_void_p)


class LlmApiBase(ctypes.Structure):
    _fields_ = [("InitModel", InitModel), ("DestroyModel", DestroyModel), ("QueryModel", QueryModel),
                ("StreamModel", ctypes.c_void_p), ("FreeQueryResult", FreeString)] + \
               [(f"slot{i}", ctypes.c_void_p) for i in range(5, 18)]


errors = []
callbacks = HostCallbacks(Message(lambda m: None), Message(lambda m: errors.append(m.decode())))
library = ctypes.CDLL(LIBRARY)
library.GetLlmApiBase.restype = ctypes.POINTER(LlmApiBase)
api = library.GetLlmApiBase().contents

handle = ctypes.c_void_p()
assert api.InitModel(MODEL, 0, 8, ctypes.byref(handle), ctypes.byref(callbacks)) == 0, errors


def query(results):
    text = ctypes.c_void_p()
    status = api.QueryModel(handle, b"Hello world", ctypes.byref(text))
    results.append((status, ctypes.string_at(text.value).decode(errors="replace") if status == 0 else errors))
    api.FreeQueryResult(text)


results = []
query(results)
worker = threading.Thread(target=query, args=(results,))
worker.start()
worker.join()
assert api.DestroyModel(handle) == 0
assert [r[0] for r in results] == [0, 0], results
assert results[0][1] == results[1][1] and results[0][1], results
print("python host: ok,", repr(results[0][1]))
