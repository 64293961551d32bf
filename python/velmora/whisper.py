"""Speech transcription."""
from __future__ import annotations

import ctypes
import os
from collections.abc import Iterable, Mapping
from typing import Any

import numpy as np

from . import _abi
from ._library import Library, load_library
from ._model import Model, decode, encode, take_text
from .config import WHISPER_SETTINGS, Config

SAMPLE_RATE = 16000


def _samples(audio: Any) -> np.ndarray:
    """A contiguous float32 block: float samples as they are (float32 without
    a copy), 16-bit PCM scaled to [-1, 1); any other kind of sample is refused
    rather than guessed at."""
    block = np.asarray(audio)
    if block.ndim != 1:
        raise ValueError("audio must be one channel: a 1-D array of samples")
    if block.dtype == np.int16:
        return block.astype(np.float32) / np.float32(32768)
    if block.dtype.kind != "f" and block.size:
        raise TypeError(f"audio samples must be floats in [-1, 1] or int16 PCM, not {block.dtype}")
    return np.ascontiguousarray(block, dtype=np.float32)


def read_audio(path: str | os.PathLike[str]) -> np.ndarray:
    """The samples of an audio file in any format libsndfile reads, mixed
    down to mono and resampled to 16 kHz, as transcribe() takes them.
    Needs the "audio" extra (soundfile and soxr)."""
    try:
        import soundfile
        import soxr
    except ImportError as missing:
        raise ImportError(f"reading audio files needs the audio extra: pip install 'velmora[audio]' "
                          f"({missing.name} is missing)") from missing
    data, rate = soundfile.read(os.fspath(path), dtype="float32", always_2d=True)
    mono = data.mean(axis=1, dtype=np.float32)
    return soxr.resample(mono, rate, SAMPLE_RATE).astype(np.float32, copy=False)


class WhisperModel(Model):
    """A Whisper model loaded from a model directory. Use it as a context
    manager, or call close()."""

    _family = "whisper"

    def __init__(self, model_dir: str | os.PathLike[str], device: str | int = "CPU", *,
                 library: Library | str | None = None):
        super().__init__(load_library(library))
        self._init(self._api.InitModel, encode(os.fspath(model_dir)), _abi.device_type(device))
        self.config = Config(self, WHISPER_SETTINGS)

    def transcribe(self, audio: Any) -> str:
        """The text of 16 kHz mono samples: floats in [-1, 1] (a NumPy array
        of any float dtype, float32 passed without a copy, or a sequence) or
        int16 PCM. A cancel() from another thread, or Ctrl-C, ends it early
        (Ctrl-C then raises KeyboardInterrupt)."""
        block = _samples(audio)
        if block.size >= 2**31:
            raise ValueError("at most 2**31 - 1 samples per call")
        pointer = block.ctypes.data_as(ctypes.POINTER(ctypes.c_float)) if block.size else None
        out = ctypes.c_void_p()
        with self._using() as handle:
            self._run("QueryModel", self._api.QueryModel, handle, pointer, block.size, ctypes.byref(out))
        return take_text(out, self._api.FreeQueryResult).decode("utf-8", "replace")

    def transcribe_file(self, path: str | os.PathLike[str]) -> str:
        """The text of an audio file in any common format, rate and channel
        count (see read_audio; needs the "audio" extra)."""
        return self.transcribe(read_audio(path))

    @property
    def lang_to_id(self) -> dict[str, int]:
        """The language map as a dict in key order; assign a mapping or an
        iterable of (language, id) pairs to replace it (a repeated language
        keeps its first id)."""
        out, count = ctypes.c_void_p(), ctypes.c_size_t()
        with self._using() as handle:
            self._call("GetLangToId", self._api.GetLangToId, handle, ctypes.byref(out),
                       ctypes.byref(count))
        if not count.value:
            return {}
        pairs = ctypes.cast(out, ctypes.POINTER(_abi.LangIdPair))
        result = {}
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

    @lang_to_id.setter
    def lang_to_id(self, pairs: Mapping[str, int] | Iterable[tuple[str, int]]) -> None:
        items = list(pairs.items() if isinstance(pairs, Mapping) else pairs)
        keys = [encode(language) for language, _ in items]
        records = (_abi.LangIdPair * len(items))()
        for record, key, (_, token) in zip(records, keys, items):
            record.language = ctypes.cast(ctypes.c_char_p(key), ctypes.c_void_p)
            record.id = int(token)
        with self._using() as handle:
            self._call("SetLangToId", self._api.SetLangToId, handle, records, len(items))
        del keys  # the records point into these bytes

    @property
    def begin_suppress_tokens(self) -> list[int]:
        """Token ids suppressed at the start, in order, duplicates kept."""
        return self._get_ids("GetBeginSuppressTokens", self._api.GetBeginSuppressTokens,
                             self._api.FreeBeginSuppressTokens)

    @begin_suppress_tokens.setter
    def begin_suppress_tokens(self, ids: Iterable[int]) -> None:
        self._set_ids("SetBeginSuppressTokens", self._api.SetBeginSuppressTokens, ids)

    @property
    def suppress_tokens(self) -> list[int]:
        """Token ids suppressed throughout, in order, duplicates kept."""
        return self._get_ids("GetSuppressTokens", self._api.GetSuppressTokens, self._api.FreeSuppressTokens)

    @suppress_tokens.setter
    def suppress_tokens(self, ids: Iterable[int]) -> None:
        self._set_ids("SetSuppressTokens", self._api.SetSuppressTokens, ids)
