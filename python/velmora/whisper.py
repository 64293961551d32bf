"""Speech transcription."""
import array
import ctypes

from . import _abi
from ._library import load_library
from ._model import Model, decode, encode, take_text
from .config import WHISPER_SETTINGS, Config


def _samples(audio):
    """A contiguous float32 block and its length, without copying a NumPy
    float32 array that already is one."""
    try:
        import numpy
    except ImportError:
        numpy = None
    if numpy is not None and isinstance(audio, numpy.ndarray):
        if audio.ndim != 1:
            raise ValueError("audio must be one channel: a 1-D array of samples")
        block = numpy.ascontiguousarray(audio, dtype=numpy.float32)
        return block, block.ctypes.data_as(ctypes.POINTER(ctypes.c_float)), block.size
    block = array.array("f", audio)
    if not block:
        return block, None, 0
    address, length = block.buffer_info()
    return block, ctypes.cast(address, ctypes.POINTER(ctypes.c_float)), length


class WhisperModel(Model):
    """A Whisper model loaded from a model directory. Use it as a context
    manager, or call close()."""

    _family = "whisper"

    def __init__(self, model_dir, device="CPU", *, library=None):
        super().__init__(load_library(library))
        self._init(self._api.InitModel, encode(str(model_dir)), _abi.device_type(device))
        self.config = Config(self, WHISPER_SETTINGS)

    def transcribe(self, audio):
        """The text of 16 kHz mono samples in [-1, 1]: a NumPy array (any
        float dtype; float32 is passed without a copy) or a sequence of
        numbers. A cancel() from another thread ends it early with the text
        so far."""
        block, pointer, length = _samples(audio)
        if length >= 2**31:
            raise ValueError("at most 2**31 - 1 samples per call")
        out = ctypes.c_void_p()
        with self._lock:
            self._call("QueryModel", self._api.QueryModel, self.handle, pointer, length, ctypes.byref(out))
        del block  # kept alive until the library has copied it
        return take_text(out, self._api.FreeQueryResult).decode("utf-8", "replace")

    @property
    def lang_to_id(self):
        """The language map as a dict in key order; assign a mapping or an
        iterable of (language, id) pairs to replace it (a repeated language
        keeps its first id)."""
        out, count = ctypes.c_void_p(), ctypes.c_size_t()
        with self._lock:
            self._call("GetLangToId", self._api.GetLangToId, self.handle, ctypes.byref(out),
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
    def lang_to_id(self, pairs):
        items = list(pairs.items() if hasattr(pairs, "items") else pairs)
        keys = [encode(language) for language, _ in items]
        records = (_abi.LangIdPair * len(items))()
        for record, key, (_, token) in zip(records, keys, items):
            record.language = ctypes.cast(ctypes.c_char_p(key), ctypes.c_void_p)
            record.id = int(token)
        with self._lock:
            self._call("SetLangToId", self._api.SetLangToId, self.handle, records, len(items))
        del keys  # the records point into these bytes

    @property
    def begin_suppress_tokens(self):
        """Token ids suppressed at the start, in order, duplicates kept."""
        return self._get_ids("GetBeginSuppressTokens", self._api.GetBeginSuppressTokens,
                             self._api.FreeBeginSuppressTokens)

    @begin_suppress_tokens.setter
    def begin_suppress_tokens(self, ids):
        self._set_ids("SetBeginSuppressTokens", self._api.SetBeginSuppressTokens, ids)

    @property
    def suppress_tokens(self):
        """Token ids suppressed throughout, in order, duplicates kept."""
        return self._get_ids("GetSuppressTokens", self._api.GetSuppressTokens, self._api.FreeSuppressTokens)

    @suppress_tokens.setter
    def suppress_tokens(self, ids):
        self._set_ids("SetSuppressTokens", self._api.SetSuppressTokens, ids)
