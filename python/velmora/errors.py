"""Exceptions carrying what the library reported: its message (from the
family's `error` callback) and the status the slot returned."""


class VelmoraError(Exception):
    """A slot failed. `status` is the slot's return value (1 for most slots;
    LLM generate() tells 2/3 invalid settings from 4/5 generation failures),
    `message` the library's text ("" when the slot reports none), `operation`
    the slot that failed."""

    def __init__(self, operation: str, status: int, message: str):
        super().__init__(operation, status, message)
        self.operation = operation
        self.status = status
        self.message = message

    def __str__(self) -> str:
        text = self.message or "the library gave no message"
        return f"{self.operation} failed with status {self.status}: {text}"


class PropertyError(VelmoraError, KeyError):
    """A setting the library refused to read or write: an unknown name, an
    absent optional value, or a value text it could not convert. It is a
    KeyError so that `in`, `.get()` and the other mapping helpers work."""

    __str__ = VelmoraError.__str__
