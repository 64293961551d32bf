"""What both model classes share: the handle's lifetime, the per-handle lock,
settings by name, and copying buffers out before giving them back."""
from __future__ import annotations

import ctypes
import threading
import weakref
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from typing import TYPE_CHECKING, Any, Callable

from .errors import PropertyError

if TYPE_CHECKING:
    from ._library import Library
    from .llm import TextStream


def encode(text: str | bytes) -> bytes:
    data = text.encode("utf-8", "surrogateescape") if isinstance(text, str) else bytes(text)
    if b"\0" in data:
        # The library reads NUL-terminated strings: the rest would be dropped silently.
        raise ValueError("embedded null byte")
    return data


def decode(data: bytes) -> str:
    # surrogateescape so that a list read from the model and written back is
    # the same bytes even where it is not UTF-8.
    return data.decode("utf-8", "surrogateescape")


def take_text(pointer: ctypes.c_void_p, release: Callable[..., int]) -> bytes:
    """Copies a Text buffer and gives it back."""
    try:
        return ctypes.string_at(pointer.value)
    finally:
        release(pointer)


def take_ids(pointer: ctypes.c_void_p, count: ctypes.c_size_t, release: Callable[..., int]) -> list[int]:
    """Copies a TokenArray and gives it back; an empty list is never
    allocated, so it is released only when a pointer was written."""
    if not pointer.value:
        return []
    try:
        return list(ctypes.cast(pointer, ctypes.POINTER(ctypes.c_int64))[: count.value])
    finally:
        release(pointer)


def id_array(ids: Iterable[int]) -> tuple[ctypes.Array, int]:
    values = [int(i) for i in ids]
    return (ctypes.c_int64 * len(values))(*values), len(values)


class Model:
    _family = ""  # "llm" or "whisper"

    def __init__(self, library: Library):
        self._lib = library
        self._api: Any = getattr(library, self._family)
        self._handle: ctypes.c_void_p | None = None
        # Slots of one handle must not overlap (CancelModel aside): calls from
        # several threads on one model are serialized here. Not re-entrant:
        # a stream's worker releases what its consumer took.
        self._lock = threading.Lock()
        # Unfinished streams; every new call ends them first, so that one left
        # early (and still referenced) never makes the model wait for it.
        self._streams: weakref.WeakSet[TextStream] = weakref.WeakSet()

    def _init(self, slot: Callable[..., int], *args: Any) -> None:
        handle = ctypes.c_void_p()
        with self._lock:
            self._call("InitModel", slot, *args, ctypes.byref(handle), self._lib.callbacks(self._family))
        self._handle = handle

    def _call(self, operation: str, slot: Callable[..., int], *args: Any, error: type | None = None) -> int:
        kwargs = {"error": error} if error else {}
        return self._lib.call(self._family, operation, slot, *args, **kwargs)

    @contextmanager
    def _using(self) -> Iterator[ctypes.c_void_p]:
        """The handle, held for one call: earlier streams are ended first."""
        for stream in list(self._streams):
            stream.close()
        with self._lock:
            yield self.handle

    def _run(self, operation: str, slot: Callable[..., int], *args: Any) -> None:
        """One long slot call (a generation, a transcription). On the main
        thread it runs on a worker so that Ctrl-C reaches Python at once: the
        KeyboardInterrupt cancels the work, waits for the slot to return and
        is raised again."""
        if threading.current_thread() is not threading.main_thread():
            self._call(operation, slot, *args)
            return
        failure: list[BaseException] = []
        done = threading.Event()

        def work() -> None:
            try:
                self._call(operation, slot, *args)
            except BaseException as error:  # handed to the caller
                failure.append(error)
            finally:
                done.set()

        # Waited for through an Event: an interrupted Thread.join() leaves the
        # thread looking finished while it still runs.
        threading.Thread(target=work, name="velmora-call", daemon=True).start()
        try:
            done.wait()
        except KeyboardInterrupt:
            # A cancel that lands before the run starts is forgotten by it.
            while not done.wait(0.02):
                self.cancel()
            raise
        if failure:
            raise failure[0]

    @property
    def handle(self) -> ctypes.c_void_p:
        if self._handle is None:
            raise ValueError("the model is closed")
        return self._handle

    @property
    def closed(self) -> bool:
        return self._handle is None

    def close(self) -> None:
        """Ends any stream, destroys the handle; buffers already copied out
        stay valid. Safe to call twice."""
        for stream in list(self._streams):
            stream.close()
        with self._lock:
            if self._handle is not None:
                handle, self._handle = self._handle, None
                self._api.DestroyModel(handle)

    def __enter__(self) -> Model:
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_handle", None) is not None:
            self.close()

    def cancel(self) -> None:
        """Asks a running generation or transcription of this model to stop,
        from any thread; returns at once. A cancel while nothing runs is
        forgotten by the next run."""
        handle = self._handle  # no lock: the one slot that may overlap a run
        if handle is not None:
            self._call("CancelModel", self._api.CancelModel, handle)

    def _get_property(self, name: str) -> str:
        out = ctypes.c_void_p()
        with self._using() as handle:
            self._call("GetConfigProperty", self._api.GetConfigProperty, handle, encode(name),
                       ctypes.byref(out), error=PropertyError)
        return decode(take_text(out, self._api.FreeConfigProperty))

    def _set_property(self, name: str, text: str) -> None:
        with self._using() as handle:
            self._call("SetConfigProperty", self._api.SetConfigProperty, handle, encode(name),
                       encode(text), error=PropertyError)

    def _get_ids(self, operation: str, getter: Callable[..., int], release: Callable[..., int]) -> list[int]:
        out, count = ctypes.c_void_p(), ctypes.c_size_t()
        with self._using() as handle:
            self._call(operation, getter, handle, ctypes.byref(out), ctypes.byref(count))
        return take_ids(out, count, release)

    def _set_ids(self, operation: str, setter: Callable[..., int], ids: Iterable[int]) -> None:
        array, count = id_array(ids)
        with self._using() as handle:
            self._call(operation, setter, handle, array, count)
