"""Text generation."""
from __future__ import annotations

import codecs
import ctypes
import os
import queue
import re
import threading
from collections.abc import Iterable, Iterator, Mapping
from typing import TYPE_CHECKING, Any, Literal, overload

from . import _abi, _aio, _settings
from ._aio import AsyncTextStream
from ._library import Library, load_library
from ._model import Model, _HeldInterrupt, decode, encode, encode_path, id_array, model_path, take_ids, take_text
from .config import LLM_SETTINGS, Config

if TYPE_CHECKING:
    from typing_extensions import Self  # typing's own from Python 3.11

Messages = Iterable[Mapping[str, str]]

# max_new_tokens of a new model, and on the NPU also its longest prompt: room
# for a chat template's preamble plus a question, and an answer of a paragraph.
# Every host of the project takes the same (from the library's header), so
# that they load each other's NPU blobs.
DEFAULT_CONTEXT_LENGTH = _settings.DEFAULT_CONTEXT_LENGTH


class LlmModel(Model):
    """A text-generation model loaded from a model directory.

    `context_length` becomes the default `max_new_tokens` (and, on the NPU,
    the longest prompt). Use it as a context manager, or call close()."""

    _family = "llm"

    def __init__(self, model_dir: str | os.PathLike[str], device: str | int = _abi.DEFAULT_DEVICE,
                 context_length: int = DEFAULT_CONTEXT_LENGTH, *, library: Library | str | None = None):
        self._model_dir = model_path(model_dir)
        super().__init__(load_library(library))
        self._tokenizer: Any = None
        self._init(self._api.InitModel, encode_path(self._model_dir), _abi.device_type(device),
                   _abi.context_length(context_length))
        self.config = Config(self, LLM_SETTINGS)

    def generate(self, prompt: str) -> str:
        """The generated text for one prompt. A cancel() from another thread,
        or Ctrl-C, ends it early (Ctrl-C then raises KeyboardInterrupt).
        VelmoraError.status tells invalid settings (Status.CONFIG_*) from a
        failed generation (Status.QUERY_*)."""
        data = _prompt(prompt)
        out = ctypes.c_void_p()
        with self._using() as handle:
            self._run("QueryModel", self._api.QueryModel, handle, data, ctypes.byref(out))
        return take_text(out, self._api.FreeQueryResult).decode("utf-8", "replace")

    def stream(self, prompt: str) -> TextStream:
        """Iterates over the pieces of text as they are generated (see
        TextStream). Leaving the loop early cancels the generation."""
        return TextStream(self, prompt)

    async def agenerate(self, prompt: str) -> str:
        """generate() for asyncio, on a worker thread. Cancelling the awaiting
        task cancels the generation; CancelledError comes once it has stopped."""
        return await _aio.run(self.generate, prompt, stop=self._cancel_for)

    def astream(self, prompt: str) -> AsyncTextStream:
        """stream() for `async for`; leaving an `async with` block over it, or
        cancelling the task that awaits a piece, ends the generation."""
        return AsyncTextStream(lambda: self.stream(prompt))

    async def achat(self, messages: Messages) -> str:
        """chat() for asyncio, like agenerate(); to stream the answer, use
        astream(chat_prompt(messages))."""
        return await _aio.run(self.chat, messages, stop=self._cancel_for)

    @overload
    def chat(self, messages: Messages, *, stream: Literal[False] = False) -> str: ...

    @overload
    def chat(self, messages: Messages, *, stream: Literal[True]) -> TextStream: ...

    @overload
    def chat(self, messages: Messages, *, stream: bool) -> str | TextStream: ...

    def chat(self, messages: Messages, *, stream: bool = False) -> str | TextStream:
        """The assistant's answer to a conversation: `messages` is a list of
        {"role": ..., "content": ...} dicts, rendered into a prompt by the
        model's own chat template (through the runtime's tokenizer). With
        stream=True, a TextStream of the answer."""
        prompt = self.chat_prompt(messages)
        return self.stream(prompt) if stream else self.generate(prompt)

    def chat_prompt(self, messages: Messages) -> str:
        """The prompt chat() generates from."""
        if isinstance(messages, (str, bytes, Mapping)) or not isinstance(messages, Iterable):
            raise TypeError(f"messages takes a list of {{'role': ..., 'content': ...}} dicts, "
                            f"not {type(messages).__name__}")
        listed = list(messages)
        for i, message in enumerate(listed):
            if not isinstance(message, Mapping) or not isinstance(message.get("role"), str) \
                    or not isinstance(message.get("content"), str):
                raise TypeError(f"messages[{i}] must be a dict with str 'role' and 'content', not {message!r:.60}")
        if not listed:
            raise ValueError("messages is empty: give at least one {'role': 'user', 'content': ...}")
        if self._tokenizer is None:
            # Importable here: the library has joined this interpreter and
            # made its runtime's environment reachable when the model loaded.
            import openvino_genai

            self._tokenizer = openvino_genai.Tokenizer(self._model_dir)
        try:
            prompt: str = self._tokenizer.apply_chat_template([dict(m) for m in listed], add_generation_prompt=True)
        except RuntimeError as refused:  # a template may refuse roles out of turn or a system message
            reason = re.search(r"Minja's error: (.*?)(?: at row \d|\n|$)", str(refused))
            raise ValueError("the model's chat template refused these messages: "
                             f"{reason[1] if reason else str(refused).strip().splitlines()[-1]}") from refused
        return prompt

    def tokenize(self, text: str) -> list[int]:
        """The token ids of `text` from the model's tokenizer."""
        out, count = ctypes.c_void_p(), ctypes.c_size_t()
        with self._using() as handle:
            self._call("Tokenize", self._api.Tokenize, handle, encode(text, "text"), ctypes.byref(out),
                       ctypes.byref(count))
        return take_ids(out, count, self._api.FreeTokens)

    @property
    def stop_strings(self) -> list[str]:
        """The stop strings in byte order; assign any iterable to replace them."""
        out, count = ctypes.c_void_p(), ctypes.c_size_t()
        with self._using() as handle:
            self._call("GetStopStrings", self._api.GetStopStrings, handle, ctypes.byref(out),
                       ctypes.byref(count))
        if not count.value:
            return []
        try:
            strings = ctypes.cast(out, ctypes.POINTER(ctypes.c_void_p))
            return [decode(ctypes.string_at(strings[i])) for i in range(count.value)]
        finally:
            self._api.FreeStopStrings(out, count)

    @stop_strings.setter
    def stop_strings(self, strings: Iterable[str]) -> None:
        if isinstance(strings, (str, bytes)) or not isinstance(strings, Iterable):
            raise TypeError(f"stop_strings takes a list of str, not {type(strings).__name__}")
        data = [encode(s, f"stop_strings[{i}]") for i, s in enumerate(strings)]
        if b"" in data:
            raise ValueError(f"stop_strings[{data.index(b'')}] is empty: it would end every generation at once")
        array = (ctypes.c_char_p * len(data))(*data)
        with self._using() as handle:
            self._call("SetStopStrings", self._api.SetStopStrings, handle, array, len(data))

    @property
    def stop_token_ids(self) -> list[int]:
        """The stop token ids in ascending order; assign any iterable of ints."""
        return self._get_ids("GetStopTokens", self._api.GetStopTokens, self._api.FreeStopTokens)

    @stop_token_ids.setter
    def stop_token_ids(self, ids: Iterable[int]) -> None:
        values = list(id_array(ids, "stop_token_ids")[0])
        eos = self.config["eos_token_id"]
        # The runtime refuses every later generation without it; say so now.
        if eos != -1 and eos not in values:
            raise ValueError(f"stop_token_ids must hold the end-of-text id {eos} (config['eos_token_id']): "
                             f"assign [{eos}, *ids], or set config['eos_token_id'] = -1 first")
        self._set_ids("SetStopTokens", self._api.SetStopTokens, values, "stop_token_ids")

    def _check_setting(self, name: str, value: object) -> None:
        if name == "eos_token_id" and value != -1:
            stops = self.stop_token_ids
            if value not in stops:
                raise ValueError(f"eos_token_id {value} is not among stop_token_ids {stops}, which the runtime "
                                 f"requires: add it first (model.stop_token_ids = [*model.stop_token_ids, {value}])")


def _prompt(prompt: str) -> bytes:
    data = encode(prompt, "prompt")
    if not data:
        raise ValueError("prompt is empty: the model needs at least one token to continue from")
    return data


class _Failed:
    def __init__(self, error: BaseException):
        self.error = error


_Piece = bytes | _Failed | None  # a piece, or the end: a failure or None


def _stream_worker(model: LlmModel, handle: ctypes.c_void_p, data: bytes, callback: Any,
                   pieces: queue.SimpleQueue[_Piece]) -> None:
    # Refers to nothing of the TextStream, so an abandoned stream is collected
    # (and closed) while this still runs.
    end: _Failed | None = None
    try:
        model._call("StreamModel", model._api.StreamModel, handle, data, callback)
    except BaseException as error:  # handed to the consumer
        end = _Failed(error)
    finally:
        model._hold(None)
        model._lock.release()
    pieces.put(end)


class TextStream(Iterator[str]):
    """The pieces of one streamed generation, as str.

    StreamModel blocks until generation ends and hands each piece to a
    callback, so it runs on a worker thread that passes the pieces through a
    queue. close() stops the generation and joins the worker; it is called by
    `with`, by the model's close(), by any new call on the model, and when a
    stream that was left early is dropped. A `break` or an exception in the
    loop body thus cancels it, as does Ctrl-C while waiting for a piece. A
    failed stream raises VelmoraError from the iteration, after the pieces
    that came before the failure."""

    def __init__(self, model: LlmModel, prompt: str):
        self._finished = True  # until the worker runs: nothing for close() or __del__ to end
        self._failure: BaseException | None = None  # raised after the last piece
        # Pieces are bytes as the runtime cut them, which may be inside a character.
        self._decoder = codecs.getincrementaldecoder("utf-8")("replace")
        self._model = model
        data = _prompt(prompt)
        model.handle  # noqa: B018 - a closed model says so here, not from the worker
        self._pieces: queue.SimpleQueue[_Piece] = queue.SimpleQueue()
        self._stop = stop = threading.Event()
        self._token = object()  # what the model knows the running stream by (not the stream: it is collectable)
        pieces = self._pieces

        def on_text(piece: bytes) -> int:
            pieces.put(piece)
            return 1 if stop.is_set() else 0

        self._callback = _abi.TextCallback(on_text)
        for earlier in list(model._streams):
            earlier.close()
        # From taking the lock to registering the stream a Ctrl-C must not
        # land: the worker would run on with nothing left to stop it.
        with _HeldInterrupt() as held:
            # Held from here until StreamModel returns, released by the worker.
            model._lock.acquire()
            model._hold(self._token)
            try:
                handle = model.handle
                self._worker = threading.Thread(target=_stream_worker, name="velmora-stream", daemon=True,
                                                args=(model, handle, data, self._callback, pieces))
                self._worker.start()
            except BaseException:
                model._hold(None)
                model._lock.release()
                raise
            self._finished = False
            model._streams.add(self)
        if held.raised is not None:
            self.close()
            held.finish()

    def __iter__(self) -> Self:
        return self

    def __next__(self) -> str:
        while not self._finished:
            try:
                piece = self._pieces.get()
            except BaseException:
                self.close()  # Ctrl-C while waiting: the generation has stopped before it goes on
                raise
            if isinstance(piece, bytes):
                text = self._decoder.decode(piece)
            else:
                self._finish()
                self._failure = piece.error if isinstance(piece, _Failed) else None
                text = self._decoder.decode(b"", final=True)  # a character the last piece left cut
            if text:
                return text
        if self._failure is not None:
            failure, self._failure = self._failure, None
            raise failure
        raise StopIteration

    def text(self) -> str:
        """Consumes the rest of the stream and returns it joined."""
        return "".join(self)

    def cancel(self) -> None:
        """Asks the generation to stop, from any thread, without waiting."""
        self._stop.set()
        self._model._cancel_for(self._token)

    def close(self) -> None:
        """Stops the generation if it still runs and waits for the worker."""
        if self._finished:
            return
        with _HeldInterrupt() as held:
            self.cancel()
            self._finish()
        held.finish()

    def _finish(self) -> None:
        self._finished = True
        self._worker.join()
        self._model._streams.discard(self)

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __del__(self) -> None:
        if not getattr(self, "_finished", True):
            self.close()
