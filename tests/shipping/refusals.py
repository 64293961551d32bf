"""InitModel of both families, twice each, through ctypes as a Python host calls
them: the statuses, the handles written and the messages each call reported."""
import ctypes

Message = ctypes.CFUNCTYPE(None, ctypes.c_char_p)
Handle = ctypes.POINTER(ctypes.c_void_p)
# Slot 0 of each table: the LLM's takes a context length, Whisper's does not.
InitModels = {"GetLlmApiBase": ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_char_p, ctypes.c_int32, ctypes.c_int32,
                                                Handle, ctypes.c_void_p),
              "GetWhisperApiBase": ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_char_p, ctypes.c_int32, Handle,
                                                    ctypes.c_void_p)}


class HostCallbacks(ctypes.Structure):
    _fields_ = [("log", Message), ("error", Message)]


def init_twice(library, model):
    """Yields (table, status, handle, errors) for two InitModels of each family:
    a refusal must leave nothing behind that a retry trips over."""
    errors = []
    callbacks = HostCallbacks(Message(lambda m: None), Message(lambda m: errors.append(m.decode())))
    dll = ctypes.CDLL(library)
    for table, InitModel in InitModels.items():
        getattr(dll, table).restype = ctypes.POINTER(InitModel)
        init = getattr(dll, table)()[0]
        extra = (8,) if table == "GetLlmApiBase" else ()
        for _ in range(2):
            errors.clear()
            handle = ctypes.c_void_p()
            status = init(model, 0, *extra, ctypes.byref(handle), ctypes.addressof(callbacks))
            yield table, status, handle.value, list(errors)
