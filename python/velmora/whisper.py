"""Speech transcription."""
from __future__ import annotations

import ctypes
import os
import re
from collections.abc import Iterable, Mapping

import numpy as np
import numpy.typing as npt

from . import _abi, _aio
from ._library import Library, load_library
from ._model import Model, _HeldInterrupt, decode, encode, encode_path, id_array, model_path, take_text
from .config import SIZE, WHISPER_SETTINGS, Config

SAMPLE_RATE = 16000
# The runtime's feature extractor pads by reflection and needs more than this.
_FEWEST_SAMPLES = 201
TASKS = ("transcribe", "translate")


Samples = npt.NDArray[np.float32]


def _samples(audio: npt.ArrayLike) -> Samples:
    """A contiguous float32 block: float samples as they are (float32 without
    a copy), 16-bit PCM scaled to [-1, 1); any other kind of sample is refused
    rather than guessed at."""
    if isinstance(audio, (str, bytes, os.PathLike)):
        raise TypeError(f"audio takes samples (a 1-D array), not {type(audio).__name__}; "
                        "for a file use transcribe_file(path)")
    block = np.asarray(audio)
    if block.dtype == object:
        raise TypeError("audio takes numbers: floats in [-1, 1] or int16 PCM")
    if block.ndim != 1:
        raise ValueError("audio must be one channel: a 1-D array of samples")
    if block.dtype == np.int16:
        block = block.astype(np.float32) / np.float32(32768)
    elif block.dtype.kind != "f" and block.size:
        raise TypeError(f"audio samples must be floats in [-1, 1] or int16 PCM, not {block.dtype}")
    samples: Samples = np.ascontiguousarray(block, dtype=np.float32)
    if samples.size < _FEWEST_SAMPLES:
        raise ValueError(f"audio holds {samples.size} samples; the model needs at least {_FEWEST_SAMPLES} "
                         f"({_FEWEST_SAMPLES / SAMPLE_RATE * 1000:.1f} ms at 16 kHz)")
    finite = np.isfinite(samples)
    if not finite.all():
        raise ValueError(f"audio holds NaN or infinite samples (the first at index {int(np.argmin(finite))})")
    return samples


def language_token(language: str) -> str:
    """The language map's key for a language given as "en" or "<|en|>"."""
    return language if language.startswith("<|") else f"<|{language}|>"


def read_audio(path: str | os.PathLike[str]) -> Samples:
    """The samples of an audio file in any format libsndfile reads, mixed
    down to mono and resampled to 16 kHz, as transcribe() takes them.
    Needs the "audio" extra (soundfile and soxr)."""
    if os.path.isdir(path):
        raise IsADirectoryError(f"audio file {os.fspath(path)!r} is a directory")
    if not os.path.exists(path):  # a pipe is fine
        raise FileNotFoundError(f"no such audio file: {os.fspath(path)!r}")
    try:
        import soundfile
        import soxr
    except ImportError as missing:
        raise ImportError(f"reading audio files needs the audio extra: pip install 'velmora[audio]' "
                          f"({missing.name} is missing)") from missing
    data, rate = soundfile.read(os.fspath(path), dtype="float32", always_2d=True)
    mono = data.mean(axis=1, dtype=np.float32)
    samples: Samples = soxr.resample(mono, rate, SAMPLE_RATE).astype(np.float32, copy=False)
    return samples


class WhisperModel(Model):
    """A Whisper model loaded from a model directory. Use it as a context
    manager, or call close()."""

    _family = "whisper"

    def __init__(self, model_dir: str | os.PathLike[str], device: str | int = _abi.DEFAULT_DEVICE, *,
                 library: Library | str | None = None):
        self._model_dir = model_path(model_dir)
        self._device = _abi.device_type(device)
        super().__init__(load_library(library))
        self._init(self._api.InitModel, encode_path(self._model_dir), self._device)
        self.config = Config(self, WHISPER_SETTINGS)

    def transcribe(self, audio: npt.ArrayLike) -> str:
        """The text of 16 kHz mono samples: floats in [-1, 1] (a NumPy array
        of any float dtype, float32 passed without a copy, or a sequence) or
        int16 PCM. A cancel() from another thread, or Ctrl-C, ends it early
        (Ctrl-C then raises KeyboardInterrupt), taking effect when the runtime
        next reports text: in audio without speech, only at the end."""
        block = _samples(audio)
        if block.size >= 2**31:
            raise ValueError("at most 2**31 - 1 samples per call")
        pointer = block.ctypes.data_as(ctypes.POINTER(ctypes.c_float)) if block.size else None
        out = ctypes.c_void_p()
        with self._using() as handle:
            self._run("QueryModel", self._api.QueryModel, handle, pointer, block.size, ctypes.byref(out))
        return take_text(out, self._api.FreeQueryResult).decode("utf-8", "replace")

    async def atranscribe(self, audio: npt.ArrayLike) -> str:
        """transcribe() for asyncio, on a worker thread. Cancelling the
        awaiting task cancels the transcription; CancelledError comes once it
        has stopped."""
        return await _aio.run(self.transcribe, audio, stop=self._cancel_for)

    async def atranscribe_file(self, path: str | os.PathLike[str]) -> str:
        """transcribe_file() for asyncio, like atranscribe()."""
        return await _aio.run(self.transcribe_file, path, stop=self._cancel_for)

    def transcribe_file(self, path: str | os.PathLike[str]) -> str:
        """The text of an audio file in any common format, rate and channel
        count (see read_audio; needs the "audio" extra)."""
        return self.transcribe(read_audio(path))

    @property
    def lang_to_id(self) -> dict[str, int]:
        """The language map as a dict in key order; assign a mapping or an
        iterable of (language, id) pairs to replace it (a repeated language
        keeps its first id)."""
        with self._using() as handle:
            return self._read_lang_to_id(handle)

    @lang_to_id.setter
    def lang_to_id(self, pairs: Mapping[str, int] | Iterable[tuple[str, int]]) -> None:
        items = list(pairs.items() if isinstance(pairs, Mapping) else pairs)
        with self._using() as handle:
            self._write_lang_to_id(handle, items)

    def _read_lang_to_id(self, handle: ctypes.c_void_p) -> dict[str, int]:
        out, count = ctypes.c_void_p(), ctypes.c_size_t()
        self._call("GetLangToId", self._api.GetLangToId, handle, ctypes.byref(out), ctypes.byref(count))
        if not count.value:
            return {}
        pairs = ctypes.cast(out, ctypes.POINTER(_abi.LangIdPair))
        result: dict[str, int] = {}
        try:
            # Each key is a Text of its own, released before the array.
            for i in range(count.value):
                key = pairs[i].language
                try:
                    result[decode(ctypes.string_at(key))] = pairs[i].id
                finally:
                    self._api.FreeQueryResult(key)
        finally:
            self._api.FreeLangToId(out)
        return result

    def _write_lang_to_id(self, handle: ctypes.c_void_p, items: list[tuple[str, int]]) -> None:
        keys = [encode(language, "lang_to_id key") for language, _ in items]
        ids, _ = id_array((token for _, token in items), "lang_to_id ids")
        records = (_abi.LangIdPair * len(items))()
        for record, key, token in zip(records, keys, ids, strict=True):
            record.language = ctypes.cast(ctypes.c_char_p(key), ctypes.c_void_p)
            record.id = token
        self._call("SetLangToId", self._api.SetLangToId, handle, records, len(items))
        del keys  # the records point into these bytes

    @property
    def begin_suppress_tokens(self) -> list[int]:
        """Token ids suppressed at the start, in order, duplicates kept."""
        return self._get_ids("GetBeginSuppressTokens", self._api.GetBeginSuppressTokens,
                             self._api.FreeBeginSuppressTokens)

    @begin_suppress_tokens.setter
    def begin_suppress_tokens(self, ids: Iterable[int]) -> None:
        self._set_ids("SetBeginSuppressTokens", self._api.SetBeginSuppressTokens, ids, "begin_suppress_tokens")

    @property
    def suppress_tokens(self) -> list[int]:
        """Token ids suppressed throughout, in order, duplicates kept."""
        return self._get_ids("GetSuppressTokens", self._api.GetSuppressTokens, self._api.FreeSuppressTokens)

    @suppress_tokens.setter
    def suppress_tokens(self, ids: Iterable[int]) -> None:
        self._set_ids("SetSuppressTokens", self._api.SetSuppressTokens, ids, "suppress_tokens")

    # The runtime checks these two only when transcribing; refused here they
    # name the assignment that was wrong.
    _resettable = ("language", "task")

    def _check_setting(self, name: str, value: object) -> None:
        if name == "language":
            known = self.lang_to_id
            if value not in known:
                sample = ", ".join(list(known)[:4])
                raise ValueError(f"language takes a token of the model's language map (lang_to_id), such as "
                                 f"{sample or 'none: the map is empty'}; not {value!r}")
        elif name == "task" and value not in TASKS:
            raise ValueError(f"task takes 'transcribe' or 'translate', not {value!r}")
        elif name in ("return_timestamps", "max_new_tokens"):
            # With fewer than two new tokens the runtime decodes the window again and again without reporting
            # text: the transcription would never end, and no cancel reaches it.
            few = name == "max_new_tokens" and isinstance(value, int) and value < 2
            if (few and self.config["return_timestamps"]) or (
                    name == "return_timestamps" and value and self.config["max_new_tokens"] in (0, 1)):
                raise ValueError("return_timestamps=True needs max_new_tokens of 2 or more: with fewer the runtime "
                                 "never ends the transcription")

    def _check_text(self, name: str, text: str) -> None:
        # The library reads a size as strtol does (" 01", "+1x" are 1) and a flag as "true" in any case.
        if name == "max_new_tokens":
            number = re.match(r"\s*([-+]?\d+)", text)
            if number and int(number[1]) in (0, 1):
                self._check_setting(name, int(number[1]))
        elif name == "return_timestamps":
            self._check_setting(name, text.lower() == "true")

    def _reset_setting(self, name: str) -> None:
        """The library never makes "language" or "task" absent again, so the
        model is loaded anew and everything else is carried over to it."""
        lists = [("GetBeginSuppressTokens", "SetBeginSuppressTokens", "FreeBeginSuppressTokens"),
                 ("GetSuppressTokens", "SetSuppressTokens", "FreeSuppressTokens")]
        with _HeldInterrupt() as held, self._using() as old:
            texts = {}
            for other in WHISPER_SETTINGS:
                out = ctypes.c_void_p()
                # An absent optional setting fails to read: it stays absent.
                if other != name and self._api.GetConfigProperty(old, encode(other), ctypes.byref(out)) == 0:
                    texts[other] = take_text(out, self._api.FreeConfigProperty)
                    if WHISPER_SETTINGS[other] is SIZE and int(texts[other]) >= 2**63:
                        # Written as the negative 32-bit text it came from: stoi takes no more.
                        texts[other] = str(int(texts[other]) - 2**64).encode()
            languages = list(self._read_lang_to_id(old).items())
            ids = [self._read_ids(old, get, getattr(self._api, get), getattr(self._api, free))
                   for get, _, free in lists]
            new = self._new_handle(self._api.InitModel, encode_path(self._model_dir), self._device)
            try:
                for other, text in texts.items():
                    self._call("SetConfigProperty", self._api.SetConfigProperty, new, encode(other), text)
                self._write_lang_to_id(new, languages)
                for (_, put, _), values in zip(lists, ids, strict=True):
                    array = (ctypes.c_int64 * len(values))(*values)
                    self._call(put, getattr(self._api, put), new, array, len(values))
            except BaseException:
                self._api.DestroyModel(new)
                raise
            self._handle = new
            self._api.DestroyModel(old)
        held.finish()
