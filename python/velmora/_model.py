"""What both model classes share: the handle's lifetime, the per-handle lock,
settings by name, and copying buffers out before giving them back."""
import ctypes
import threading

from .errors import PropertyError


def encode(text):
    data = text.encode("utf-8", "surrogateescape") if isinstance(text, str) else bytes(text)
    if b"\0" in data:
        # The library reads NUL-terminated strings: the rest would be dropped silently.
        raise ValueError("embedded null byte")
    return data


def decode(data):
    # surrogateescape so that a list read from the model and written back is
    # the same bytes even where it is not UTF-8.
    return data.decode("utf-8", "surrogateescape")


def take_text(pointer, release):
    """Copies a Text buffer and gives it back."""
    try:
        return ctypes.string_at(pointer.value)
    finally:
        release(pointer)


def take_ids(pointer, count, release):
    """Copies a TokenArray and gives it back; an empty list is never
    allocated, so it is released only when a pointer was written."""
    if not pointer.value:
        return []
    try:
        return list(ctypes.cast(pointer, ctypes.POINTER(ctypes.c_int64))[: count.value])
    finally:
        release(pointer)


def id_array(ids):
    ids = [int(i) for i in ids]
    return (ctypes.c_int64 * len(ids))(*ids), len(ids)


class Model:
    _family = None  # "llm" or "whisper"

    def __init__(self, library):
        self._lib = library
        self._api = getattr(library, self._family)
        self._handle = None
        # Slots of one handle must not overlap (CancelModel aside): calls from
        # several threads on one model are serialized here. Not re-entrant:
        # a stream's worker releases what its consumer took.
        self._lock = threading.Lock()

    def _init(self, slot, *args):
        handle = ctypes.c_void_p()
        with self._lock:
            self._call("InitModel", slot, *args, ctypes.byref(handle), self._lib.callbacks(self._family))
        self._handle = handle

    def _call(self, operation, slot, *args, error=None):
        kwargs = {"error": error} if error else {}
        return self._lib.call(self._family, operation, slot, *args, **kwargs)

    @property
    def handle(self):
        if self._handle is None:
            raise ValueError("the model is closed")
        return self._handle

    @property
    def closed(self):
        return self._handle is None

    def close(self):
        """Destroys the handle; buffers already copied out stay valid. Safe to
        call twice."""
        with self._lock:
            if self._handle is not None:
                handle, self._handle = self._handle, None
                self._api.DestroyModel(handle)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        if getattr(self, "_handle", None) is not None:
            self.close()

    def cancel(self):
        """Asks a running generation or transcription of this model to stop,
        from any thread; returns at once. A cancel while nothing runs is
        forgotten by the next run."""
        handle = self._handle  # no lock: the one slot that may overlap a run
        if handle is not None:
            self._call("CancelModel", self._api.CancelModel, handle)

    def _get_property(self, name):
        out = ctypes.c_void_p()
        with self._lock:
            self._call("GetConfigProperty", self._api.GetConfigProperty, self.handle, encode(name),
                       ctypes.byref(out), error=PropertyError)
        return decode(take_text(out, self._api.FreeConfigProperty))

    def _set_property(self, name, text):
        with self._lock:
            self._call("SetConfigProperty", self._api.SetConfigProperty, self.handle, encode(name),
                       encode(text), error=PropertyError)

    def _get_ids(self, operation, getter, release):
        out, count = ctypes.c_void_p(), ctypes.c_size_t()
        with self._lock:
            self._call(operation, getter, self.handle, ctypes.byref(out), ctypes.byref(count))
        return take_ids(out, count, release)

    def _set_ids(self, operation, setter, ids):
        array, count = id_array(ids)
        with self._lock:
            self._call(operation, setter, self.handle, array, count)
