"""Text generation."""
import ctypes
import queue
import threading
import weakref

from . import _abi
from ._library import load_library
from ._model import Model, decode, encode, id_array, take_ids, take_text
from .config import LLM_SETTINGS, Config


class LlmModel(Model):
    """A text-generation model loaded from a model directory.

    `context_length` becomes the default `max_new_tokens` (and, on the NPU,
    the longest prompt). Use it as a context manager, or call close()."""

    _family = "llm"

    def __init__(self, model_dir, device="CPU", context_length=256, *, library=None):
        super().__init__(load_library(library))
        self._streams = weakref.WeakSet()
        self._init(self._api.InitModel, encode(str(model_dir)), _abi.device_type(device), int(context_length))
        self.config = Config(self, LLM_SETTINGS)

    def close(self):
        for stream in list(self._streams):
            stream.close()
        super().close()

    def generate(self, prompt):
        """The generated text for one prompt. A cancel() from another thread
        ends it early with the text so far. VelmoraError.status tells invalid
        settings (2, 3) from a failed generation (4, 5)."""
        out = ctypes.c_void_p()
        with self._lock:
            self._call("QueryModel", self._api.QueryModel, self.handle, encode(prompt), ctypes.byref(out))
        return take_text(out, self._api.FreeQueryResult).decode("utf-8", "replace")

    def stream(self, prompt):
        """Iterates over the pieces of text as they are generated (see
        TextStream). Leaving the loop early cancels the generation."""
        return TextStream(self, prompt)

    def tokenize(self, text):
        """The token ids of `text` from the model's tokenizer."""
        out, count = ctypes.c_void_p(), ctypes.c_size_t()
        with self._lock:
            self._call("Tokenize", self._api.Tokenize, self.handle, encode(text), ctypes.byref(out),
                       ctypes.byref(count))
        return take_ids(out, count, self._api.FreeTokens)

    @property
    def stop_strings(self):
        """The stop strings in byte order; assign any iterable to replace them."""
        out, count = ctypes.c_void_p(), ctypes.c_size_t()
        with self._lock:
            self._call("GetStopStrings", self._api.GetStopStrings, self.handle, ctypes.byref(out),
                       ctypes.byref(count))
        if not count.value:
            return []
        try:
            strings = ctypes.cast(out, ctypes.POINTER(ctypes.c_void_p))
            return [decode(ctypes.string_at(strings[i])) for i in range(count.value)]
        finally:
            self._api.FreeStopStrings(out, count)

    @stop_strings.setter
    def stop_strings(self, strings):
        if isinstance(strings, (str, bytes)):
            raise TypeError("stop_strings takes a list of strings, not one string")
        data = [encode(s) for s in strings]
        array = (ctypes.c_char_p * len(data))(*data)
        with self._lock:
            self._call("SetStopStrings", self._api.SetStopStrings, self.handle, array, len(data))

    @property
    def stop_token_ids(self):
        """The stop token ids in ascending order; assign any iterable of ints."""
        return self._get_ids("GetStopTokens", self._api.GetStopTokens, self._api.FreeStopTokens)

    @stop_token_ids.setter
    def stop_token_ids(self, ids):
        self._set_ids("SetStopTokens", self._api.SetStopTokens, ids)


class _Failed:
    def __init__(self, error):
        self.error = error


def _stream_worker(model, handle, data, callback, pieces):
    # Refers to nothing of the TextStream, so an abandoned stream is collected
    # (and closed) while this still runs.
    try:
        model._call("StreamModel", model._api.StreamModel, handle, data, callback)
        end = None
    except BaseException as error:  # handed to the consumer
        end = _Failed(error)
    finally:
        model._lock.release()
    pieces.put(end)


class TextStream:
    """The pieces of one streamed generation, as str.

    StreamModel blocks until generation ends and hands each piece to a
    callback, so it runs on a worker thread that passes the pieces through a
    queue. close() stops the generation and joins the worker; it is called by
    `with`, by the model's close(), and when a stream that was left early
    (a `break` out of the loop) is dropped. A failed stream raises
    VelmoraError from the iteration, after the pieces that came before the
    failure. While it runs, other calls on the model wait for it to end."""

    def __init__(self, model, prompt):
        self._model = model
        self._pieces = queue.SimpleQueue()
        self._stop = stop = threading.Event()
        self._finished = False
        pieces = self._pieces

        def on_text(piece):
            pieces.put(piece)
            return 1 if stop.is_set() else 0

        self._callback = _abi.TextCallback(on_text)
        data = encode(prompt)
        # Held from here until StreamModel returns, released by the worker.
        model._lock.acquire()
        try:
            handle = model.handle
            self._worker = threading.Thread(target=_stream_worker, name="velmora-stream", daemon=True,
                                            args=(model, handle, data, self._callback, pieces))
            self._worker.start()
        except BaseException:
            model._lock.release()
            raise
        model._streams.add(self)

    def __iter__(self):
        return self

    def __next__(self):
        if self._finished:
            raise StopIteration
        piece = self._pieces.get()
        if isinstance(piece, bytes):
            return piece.decode("utf-8", "replace")
        self._finish()
        if isinstance(piece, _Failed):
            raise piece.error
        raise StopIteration

    def text(self):
        """Consumes the rest of the stream and returns it joined."""
        return "".join(self)

    def close(self):
        """Stops the generation if it still runs and waits for the worker."""
        if self._finished:
            return
        self._stop.set()
        if self._worker.is_alive():
            self._model.cancel()
        self._finish()

    def _finish(self):
        self._finished = True
        self._worker.join()
        self._model._streams.discard(self)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        if not getattr(self, "_finished", True):
            self.close()
