"""Finding, loading and calling the library.

The library reports failures through one process-wide `error` function per
model family, set by that family's InitModel. Every model made here passes a
pair that files each message in a thread-local slot: the library calls
`error` on the thread running the slot, so concurrent calls on distinct
handles each see their own message. Code in the same process that calls
InitModel with a pair of its own takes the messages away from this package."""
from __future__ import annotations

import ctypes
import logging
import os
import threading
from collections.abc import Callable
from pathlib import Path
from typing import Any

from . import _abi
from .errors import VelmoraError

LIBRARY_FILE = "Tarvik.Velmora.Framework.OpenVINOBindings.so"

_log = logging.getLogger("velmora")

# Module-wide, not per Library: the library keeps one pair per family for
# the whole process, so a message may arrive through any Library's pair.
_local = threading.local()


def _messages() -> dict[str, str]:
    messages: dict[str, str] | None = getattr(_local, "messages", None)
    if messages is None:
        messages = _local.messages = {}
    return messages


def candidate_paths() -> list[Path]:
    """Where a library is looked for when no path is given, first match wins:
    the copy inside the package (an installed wheel), then the build tree of
    the checkout the package runs from."""
    package = Path(__file__).resolve().parent
    return [package / LIBRARY_FILE, package.parent.parent / "build" / "src" / LIBRARY_FILE]


def find_library() -> str:
    places = candidate_paths()
    for place in places:
        if place.is_file():
            return str(place)
    tried = "\n  ".join(str(p) for p in places)
    raise FileNotFoundError(f"{LIBRARY_FILE} not found; pass its path as library=..., tried:\n  {tried}")


class Library:
    """One loaded copy of the library with its two tables."""

    def __init__(self, path: str | os.PathLike[str]):
        self.path = os.path.abspath(path)
        self._dll = ctypes.CDLL(self.path)
        self._dll.GetLlmApiBase.restype = ctypes.POINTER(_abi.LlmApiBase)
        self._dll.GetWhisperApiBase.restype = ctypes.POINTER(_abi.WhisperApiBase)
        self.llm = self._dll.GetLlmApiBase().contents
        self.whisper = self._dll.GetWhisperApiBase().contents
        self._initialised: set[str] = set()
        # Kept alive as long as the library may call them, i.e. for good.
        self._callbacks = {family: self._make_callbacks(family) for family in ("llm", "whisper")}

    def _make_callbacks(self, family: str) -> _abi.HostCallbacks:
        def on_log(message: bytes) -> None:
            _log.info("%s", message.decode("utf-8", "replace"))

        def on_error(message: bytes) -> None:
            _messages()[family] = message.decode("utf-8", "replace")

        return _abi.HostCallbacks(_abi.MessageFunction(on_log), _abi.MessageFunction(on_error))

    def callbacks(self, family: str) -> object:
        """The pair to give InitModel; from then on the family reports here."""
        self._initialised.add(family)
        return ctypes.byref(self._callbacks[family])

    def ensure_llm_reporting(self) -> None:
        """CompileModel needs no handle and reports through the pair of the
        last LLM InitModel, staying silent before the first one. An InitModel
        refused at once (context length 0) stores the pair and loads nothing."""
        if "llm" in self._initialised:
            return
        handle = ctypes.c_void_p()
        try:
            self.call("llm", "InitModel", self.llm.InitModel, b"", 0, 0, ctypes.byref(handle),
                      self.callbacks("llm"))
        except VelmoraError:
            pass
        else:  # pragma: no cover - only a broken library accepts that init
            self.llm.DestroyModel(handle)

    def call(self, family: str, operation: str, slot: Callable[..., int], *args: Any,
             error: type[VelmoraError] = VelmoraError) -> int:
        """Runs one slot; a non-zero status raises `error` with the message
        that the slot reported during this very call."""
        messages = _messages()
        messages.pop(family, None)
        status = slot(*args)
        if status != _abi.Status.OK:
            raise error(operation, status, messages.pop(family, ""))
        return status


_loaded: dict[str, Library] = {}
_loaded_lock = threading.Lock()


def load_library(library: Library | str | os.PathLike[str] | None = None) -> Library:
    """A Library from a Library, a path, or None for the default location.
    A path is loaded once per process."""
    if isinstance(library, Library):
        return library
    path = os.path.realpath(os.fspath(library) if library is not None else find_library())
    with _loaded_lock:
        if path not in _loaded:
            _loaded[path] = Library(path)
        return _loaded[path]
