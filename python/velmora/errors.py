"""Exceptions carrying what the library reported: its message (from the
family's `error` callback) and the status the slot returned."""
from __future__ import annotations

import re

from ._abi import Status

# Where the runtime says which file and check failed: useful to its own
# developers, noise to ours. Kept on .message, left out of str().
_RUNTIME_PLACE = re.compile(r"(?:Check '.*?' failed at |Exception from )[^\n]*?:\d+:\s*", re.S)


def summary(message: str) -> str:
    """The library's text in one line: its own prefix, then the runtime's
    sentences without the source places of its checks."""
    return " ".join(line.strip() for line in _RUNTIME_PLACE.sub("", message).splitlines() if line.strip())


def _named(status: int) -> int:
    try:
        return Status(status)
    except ValueError:  # one the header does not name stays a plain int
        return status


class VelmoraError(Exception):
    """A slot failed. `status` is the slot's return value, a Status where the
    header names it (FAILED for most slots; LLM generate() tells invalid
    settings, CONFIG_*, from failed generations, QUERY_*),
    `message` the library's full text ("" when the slot reports none),
    `operation` the slot that failed. str() shows the text in one line, the
    runtime's own sentence without its source places."""

    context = ""  # what was asked, when it says more than the slot's name

    def __init__(self, operation: str, status: int, message: str):
        super().__init__(operation, status, message)
        self.operation = operation
        self.status = _named(status)
        self.message = message

    def __str__(self) -> str:
        text = summary(self.message) or "the library gave no message"
        if self.context:
            return f"{self.context}: {text}"
        return f"{self.operation} failed with status {int(self.status)}: {text}"


class PropertyError(VelmoraError, KeyError):
    """A setting the library refused to read or write: an unknown name, an
    absent optional value, or a value text it could not convert. It is a
    KeyError so that `in`, `.get()` and the other mapping helpers work."""

    __str__ = VelmoraError.__str__
