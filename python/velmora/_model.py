"""What both model classes share: the handle's lifetime, the per-handle lock,
settings by name, and copying buffers out before giving them back."""
from __future__ import annotations

import atexit
import ctypes
import os
import signal
import threading
import weakref
from collections.abc import Callable, Iterable, Iterator
from contextlib import contextmanager
from typing import TYPE_CHECKING, Any, Protocol

from ._library import Library
from .errors import PropertyError, VelmoraError

if TYPE_CHECKING:
    from typing_extensions import Self  # typing's own from Python 3.11


class _Stream(Protocol):
    """What a model needs of an unfinished stream: a way to end it."""

    def close(self) -> None: ...


def encode(text: str, what: str = "text") -> bytes:
    """`text` as the library's NUL-terminated UTF-8; `what` names the argument
    in the message when it is not a string, not valid text or holds a NUL."""
    if not isinstance(text, str):
        raise TypeError(f"{what} takes a str, not {type(text).__name__}")
    try:
        data = text.encode("utf-8")
    except UnicodeEncodeError as bad:  # a lone surrogate, which the runtime cannot decode either
        raise ValueError(f"{what} is not valid text: {bad.reason} at {bad.start}") from None
    return _whole(data, what)


def encode_path(path: str) -> bytes:
    """A path as the file system's bytes, which need not be UTF-8."""
    return _whole(os.fsencode(path), "the path")


def _whole(data: bytes, what: str) -> bytes:
    if b"\0" in data:
        # The library reads NUL-terminated strings: the rest would be dropped silently.
        raise ValueError(f"{what} holds a NUL character at {data.index(0)}; the library would drop what follows")
    return data


def model_path(model_dir: str | os.PathLike[str]) -> str:
    """The model directory as given, refused before the library sees it when
    it is not a directory: both families then fail the same way, in one line."""
    if not isinstance(model_dir, (str, os.PathLike)):
        raise TypeError(f"model_dir takes a str or path, not {type(model_dir).__name__}")
    path = os.fspath(model_dir)
    if not path:
        raise FileNotFoundError("cannot load model: model_dir is empty; give the model's directory")
    if not os.path.isdir(path):
        problem = "is not a directory" if os.path.exists(path) else "does not exist"
        raise FileNotFoundError(f"cannot load model: {os.path.abspath(path)!r} {problem}")
    return path


class _HeldInterrupt:
    """Ctrl-C held back on the main thread while a slot may be running: the
    handler in force still runs at once, but what it raises (KeyboardInterrupt)
    is kept and raised by finish() once the slot has returned. A Ctrl-C landing
    between starting the slot and waiting for it would otherwise leave the slot
    running with the model's lock released, and the next call fails with the
    runtime's "already in running state"."""

    def __init__(self) -> None:
        self.raised: BaseException | None = None
        self._previous: Any = None
        self._installed = False

    def __enter__(self) -> Self:
        if threading.current_thread() is not threading.main_thread():
            return self  # no Ctrl-C is raised on other threads
        try:
            previous = signal.getsignal(signal.SIGINT)
            if not callable(previous):
                return self  # ignored, default or foreign: nothing is raised in Python
            self._previous = previous
            signal.signal(signal.SIGINT, self._on_signal)
            self._installed = True
        except ValueError:  # not the main interpreter
            pass
        return self

    def _on_signal(self, signum: int, frame: Any) -> None:
        try:
            self._previous(signum, frame)
        except BaseException as error:  # kept for finish()
            if self.raised is None:
                self.raised = error

    def __exit__(self, *exc: object) -> None:
        if self._installed:
            signal.signal(signal.SIGINT, self._previous)
            self._installed = False

    def finish(self) -> None:
        """Raises what Ctrl-C raised, if it did."""
        if self.raised is not None:
            error, self.raised = self.raised, None
            raise error


def decode(data: bytes) -> str:
    # surrogateescape so that a list read from the model and written back is
    # the same bytes even where it is not UTF-8.
    return data.decode("utf-8", "surrogateescape")


def take_text(pointer: ctypes.c_void_p, release: Callable[..., int]) -> bytes:
    """Copies a Text buffer and gives it back."""
    try:
        return ctypes.string_at(pointer)
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


def id_array(ids: Iterable[int], what: str = "ids") -> tuple[ctypes.Array[ctypes.c_int64], int]:
    if isinstance(ids, (str, bytes)) or not isinstance(ids, Iterable):
        raise TypeError(f"{what} takes a list of ints, not {type(ids).__name__}")
    values = list(ids)
    for i, value in enumerate(values):
        if isinstance(value, bool) or not isinstance(value, int):
            raise TypeError(f"{what} takes a list of ints, not {type(value).__name__} (item {i})")
        if not -2**63 <= value < 2**63:
            raise ValueError(f"{what} takes 64-bit ints, not {value} (item {i})")
    return (ctypes.c_int64 * len(values))(*values), len(values)


class Model:
    _family = ""  # "llm" or "whisper"
    _resettable: tuple[str, ...] = ()  # settings Config.reset can give back their model default

    def _check_setting(self, name: str, value: object) -> None:
        """Refuses a typed value the runtime is known to refuse at the next
        generation, while the caller still knows which assignment it was."""

    def _reset_setting(self, name: str) -> None:
        raise TypeError(f"{name} cannot be reset")

    def __init__(self, library: Library):
        _live.add(self)
        self._lib = library
        self._api: Any = getattr(library, self._family)
        self._handle: ctypes.c_void_p | None = None
        # Slots of one handle must not overlap (CancelModel aside): calls from
        # several threads on one model are serialized here. Not re-entrant:
        # a stream's worker releases what its consumer took.
        self._lock = threading.Lock()
        # Who holds the handle for a run (a calling thread's id, or a stream's
        # token), so that an abandoned awaited call cancels its own work only.
        self._holder: object = None
        self._holder_lock = threading.Lock()
        # Unfinished streams; every new call ends them first, so that one left
        # early (and still referenced) never makes the model wait for it.
        self._streams: weakref.WeakSet[_Stream] = weakref.WeakSet()

    def _init(self, slot: Callable[..., int], *args: Any) -> None:
        # Ctrl-C during the load would land in the runtime's own Python code: held until it is done.
        with _HeldInterrupt() as held, self._lock:
            self._handle = self._new_handle(slot, *args)
        held.finish()

    def _new_handle(self, slot: Callable[..., int], path: bytes, *args: Any) -> ctypes.c_void_p:
        handle = ctypes.c_void_p()
        try:
            self._call("InitModel", slot, path, *args, ctypes.byref(handle), self._lib.callbacks(self._family))
        except VelmoraError as error:
            error.context = f"cannot load model {decode(path)!r}"
            raise
        return handle

    def _call(self, operation: str, slot: Callable[..., int], *args: Any,
              error: type[VelmoraError] = VelmoraError) -> int:
        return self._lib.call(self._family, operation, slot, *args, error=error)

    @contextmanager
    def _using(self) -> Iterator[ctypes.c_void_p]:
        """The handle, held for one call: earlier streams are ended first."""
        for stream in list(self._streams):
            stream.close()
        with self._lock:
            self._hold(threading.get_ident())
            try:
                yield self.handle
            finally:
                self._hold(None)

    def _hold(self, holder: object) -> None:
        with self._holder_lock:
            self._holder = holder

    def _cancel_for(self, holder: object) -> None:
        """cancel(), if `holder` holds the handle: never another caller's run."""
        with self._holder_lock:
            if holder is not None and self._holder == holder:
                self.cancel()

    def _run(self, operation: str, slot: Callable[..., int], *args: Any) -> None:
        """One long slot call (a generation, a transcription). On the main
        thread it runs on a worker so that Ctrl-C is seen at once: it cancels
        the work, waits for the slot to return and only then raises."""
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

        with _HeldInterrupt() as held:
            threading.Thread(target=work, name="velmora-call", daemon=True).start()
            # Polled: a cancel that lands before the run starts is forgotten by
            # it, so it is repeated until the slot returns.
            while not done.wait(0.02 if held.raised else 0.1):
                if held.raised:
                    self.cancel()
        held.finish()
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
        self._end(stop_run=False)

    def _end(self, stop_run: bool) -> None:
        """close(); with `stop_run`, a run on another thread is cancelled instead of waited for."""
        for stream in list(self._streams):
            stream.close()
        while not self._lock.acquire(timeout=0.05 if stop_run else -1):
            self.cancel()  # repeated: one that lands before the run starts is forgotten
        try:
            if self._handle is not None:
                handle, self._handle = self._handle, None
                self._api.DestroyModel(handle)
        finally:
            self._lock.release()

    def __enter__(self) -> Self:
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
            self._call("GetConfigProperty", self._api.GetConfigProperty, handle, encode(name, "name"),
                       ctypes.byref(out), error=PropertyError)
        return decode(take_text(out, self._api.FreeConfigProperty))

    def _check_text(self, name: str, text: str) -> None:
        """_check_setting for a text, as the library will read it."""

    def _set_property(self, name: str, text: str) -> None:
        self._check_text(name, text)
        with self._using() as handle:
            self._call("SetConfigProperty", self._api.SetConfigProperty, handle, encode(name, "name"),
                       encode(text, name), error=PropertyError)

    def _get_ids(self, operation: str, getter: Callable[..., int], release: Callable[..., int]) -> list[int]:
        with self._using() as handle:
            return self._read_ids(handle, operation, getter, release)

    def _read_ids(self, handle: ctypes.c_void_p, operation: str, getter: Callable[..., int],
                  release: Callable[..., int]) -> list[int]:
        out, count = ctypes.c_void_p(), ctypes.c_size_t()
        self._call(operation, getter, handle, ctypes.byref(out), ctypes.byref(count))
        return take_ids(out, count, release)

    def _set_ids(self, operation: str, setter: Callable[..., int], ids: Iterable[int], what: str) -> None:
        array, count = id_array(ids, what)
        with self._using() as handle:
            self._call(operation, setter, handle, array, count)


# The runtime runs on this interpreter: a run still going on another thread
# when it shuts down would crash the process, so every model ends first.
_live: weakref.WeakSet[Model] = weakref.WeakSet()


@atexit.register
def _end_all() -> None:
    for model in list(_live):
        model._end(stop_run=True)
