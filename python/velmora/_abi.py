"""ctypes mirror of the public header: the statuses, the devices, the two
tables, the callback pair and the language-map record. Field order is the slot
order and must not change."""
from __future__ import annotations

from ctypes import CFUNCTYPE, POINTER, Structure, c_char_p, c_float, c_int, c_int32, c_int64, c_size_t, c_void_p
from enum import IntEnum

from ._settings import DEVICES


class Status(IntEnum):
    """What a slot returns. Only QueryModel of an LLM tells why it failed."""

    OK = 0
    FAILED = 1
    CONFIG_ASSERTION = 2  # the settings failed validation: a runtime assertion
    CONFIG_ERROR = 3      # the settings failed validation: any other error
    QUERY_ASSERTION = 4   # generation failed: a runtime assertion
    QUERY_ERROR = 5       # generation failed: any other error


c_status = c_int32
Handle = c_void_p

# Messages and pieces arrive as library-owned char*; c_char_p copies them into
# bytes during the call, which is all the host may rely on.
MessageFunction = CFUNCTYPE(None, c_char_p)
TextCallback = CFUNCTYPE(c_int, c_char_p)


class HostCallbacks(Structure):
    _fields_ = [("log", MessageFunction), ("error", MessageFunction)]


class LangIdPair(Structure):
    # `language` stays a raw pointer: on the way out it is a buffer we must free.
    _fields_ = [("language", c_void_p), ("id", c_int64)]


_out = POINTER(c_void_p)  # char**, int64_t**, char***, LangIdPair**: freed by address
_count = POINTER(c_size_t)
_ids = POINTER(c_int64)
_release = CFUNCTYPE(c_status, c_void_p)


class LlmApiBase(Structure):
    _fields_ = [
        ("InitModel", CFUNCTYPE(c_status, c_char_p, c_int32, c_int32, POINTER(Handle), POINTER(HostCallbacks))),
        ("DestroyModel", CFUNCTYPE(c_status, Handle)),
        ("QueryModel", CFUNCTYPE(c_status, Handle, c_char_p, _out)),
        ("StreamModel", CFUNCTYPE(c_status, Handle, c_char_p, TextCallback)),
        ("FreeQueryResult", _release),
        ("SetConfigProperty", CFUNCTYPE(c_status, Handle, c_char_p, c_char_p)),
        ("GetConfigProperty", CFUNCTYPE(c_status, Handle, c_char_p, _out)),
        ("FreeConfigProperty", _release),
        ("SetStopStrings", CFUNCTYPE(c_status, Handle, POINTER(c_char_p), c_size_t)),
        ("GetStopStrings", CFUNCTYPE(c_status, Handle, _out, _count)),
        ("FreeStopStrings", CFUNCTYPE(c_status, c_void_p, c_size_t)),
        ("SetStopTokens", CFUNCTYPE(c_status, Handle, _ids, c_size_t)),
        ("GetStopTokens", CFUNCTYPE(c_status, Handle, _out, _count)),
        ("FreeStopTokens", _release),
        ("Tokenize", CFUNCTYPE(c_status, Handle, c_char_p, _out, _count)),
        ("FreeTokens", _release),
        ("CancelModel", CFUNCTYPE(c_status, Handle)),
        ("CompileModel", CFUNCTYPE(c_status, c_char_p, c_int32, c_int32)),
    ]


class WhisperApiBase(Structure):
    _fields_ = [
        ("InitModel", CFUNCTYPE(c_status, c_char_p, c_int32, POINTER(Handle), POINTER(HostCallbacks))),
        ("DestroyModel", CFUNCTYPE(c_status, Handle)),
        ("QueryModel", CFUNCTYPE(c_status, Handle, POINTER(c_float), c_int32, _out)),
        ("FreeQueryResult", _release),
        ("SetConfigProperty", CFUNCTYPE(c_status, Handle, c_char_p, c_char_p)),
        ("GetConfigProperty", CFUNCTYPE(c_status, Handle, c_char_p, _out)),
        ("FreeConfigProperty", _release),
        ("GetLangToId", CFUNCTYPE(c_status, Handle, _out, _count)),
        ("SetLangToId", CFUNCTYPE(c_status, Handle, POINTER(LangIdPair), c_size_t)),
        ("FreeLangToId", _release),
        ("GetBeginSuppressTokens", CFUNCTYPE(c_status, Handle, _out, _count)),
        ("SetBeginSuppressTokens", CFUNCTYPE(c_status, Handle, _ids, c_size_t)),
        ("FreeBeginSuppressTokens", _release),
        ("GetSuppressTokens", CFUNCTYPE(c_status, Handle, _out, _count)),
        ("SetSuppressTokens", CFUNCTYPE(c_status, Handle, _ids, c_size_t)),
        ("FreeSuppressTokens", _release),
        ("CancelModel", CFUNCTYPE(c_status, Handle)),
    ]


# What every model, compile_model and the server run on when not told.
DEFAULT_DEVICE = "CPU"


def device_type(device: str | int) -> int:
    """A device name (any case) or the raw selector; unknown integers go to the
    library unchanged so that its own message reaches the caller."""
    if isinstance(device, str):
        try:
            return DEVICES[device.upper()]
        except KeyError:
            raise ValueError(f"unknown device {device!r}; expected one of {', '.join(DEVICES)}") from None
    return int(device)


def context_length(length: int) -> int:
    """Checked here: the slot takes 32 bits, and a larger value would wrap."""
    if isinstance(length, bool) or not isinstance(length, int):
        raise TypeError(f"context_length takes an int, not {type(length).__name__}")
    if not 1 <= length < 2**31:
        raise ValueError(f"context_length takes an int from 1 to {2**31 - 1}, not {length}")
    return length
