"""Generation settings of a model as a typed mutable mapping.

Each setting has a kind that says which Python values it takes and how its
text from the library reads back: a flag takes only bool; a size an int from
0 to 2147483647; a token id an int from -2147483648 to 2147483647; a real an
int or float; a text a str. A wrong type raises TypeError, a value out of
range ValueError, both before the library is asked. A name or value the
library refuses raises PropertyError, a KeyError, with the library's message.

The raw path keeps the library's own text semantics: `config.text(name)`
reads the text unchanged and `config.set_text(name, text)` sends one as is
(there "-5" for a size is stored as the library converts it).

Settings cannot be deleted, except Whisper's "language" and "task": the
library can only make them present, so `del config["language"]`,
`config["language"] = None` or `config.reset("language")` reloads the model
with every other setting and list carried over (as long as a model load) and
leaves the name as the model's own default, usually absent (detected)."""
from __future__ import annotations

from collections.abc import Callable, Iterator, MutableMapping
from dataclasses import dataclass
from typing import Protocol

from . import _settings

Value = bool | int | float | str


class Owner(Protocol):
    """What a Config needs of its model (a Model is one): the settings as
    the library's text, and the model's own checks and resets."""

    @property
    def _resettable(self) -> tuple[str, ...]: ...

    def _get_property(self, name: str) -> str: ...

    def _set_property(self, name: str, text: str) -> None: ...

    def _check_setting(self, name: str, value: object) -> None: ...

    def _reset_setting(self, name: str) -> None: ...

_INT32_MAX = 2**31 - 1
_FLOAT_MAX = 3.4028234663852886e38  # reals are 32-bit floats in the library


@dataclass(frozen=True)
class Kind:
    accepts: str  # for messages: "a bool", "an int from 0 to 2147483647", ...
    types: tuple[type, ...]
    parse: Callable[[str], Value]
    low: int | None = None
    high: int | None = None
    choices: tuple[str, ...] = ()

    def text(self, name: str, value: object) -> str:
        # bool is an int to Python; only a flag may take one.
        if not isinstance(value, self.types) or (isinstance(value, bool) and bool not in self.types):
            raise TypeError(f"{name} takes {self.accepts}, not {type(value).__name__}")
        if isinstance(value, bool):
            return "true" if value else "false"
        if self.low is not None and not self.low <= value <= self.high:  # type: ignore[operator]
            raise ValueError(f"{name} takes {self.accepts}, not {value}")
        if isinstance(value, (int, float)) and float in self.types and not abs(value) <= _FLOAT_MAX:
            raise ValueError(f"{name} takes a number from -{_FLOAT_MAX:.7g} to {_FLOAT_MAX:.7g} (a 32-bit float), "
                             f"not {value}")
        if self.choices and value not in self.choices:
            raise ValueError(f"{name} takes {self.accepts}, not {value!r}")
        return value if isinstance(value, str) else repr(value)


FLAG = Kind("a bool", (bool,), lambda text: text == "true")
SIZE = Kind(f"an int from 0 to {_INT32_MAX}", (int,), int, 0, _INT32_MAX)
TOKEN_ID = Kind(f"an int from {-_INT32_MAX - 1} to {_INT32_MAX}", (int,), int, -_INT32_MAX - 1, _INT32_MAX)
REAL = Kind("an int or float", (int, float), float)
TEXT = Kind("a str", (str,), lambda text: text)
_CRITERIA = _settings.STOP_CRITERIA
CRITERION = Kind("one of " + ", ".join(map(repr, _CRITERIA)), (str,), lambda text: text, choices=_CRITERIA)

# The names and kinds come from the library's own tables (see _settings).
_KINDS = {"Size": SIZE, "Integer": TOKEN_ID, "Float": REAL, "Bool": FLAG, "StopCriteria": CRITERION, "Text": TEXT}
LLM_SETTINGS: dict[str, Kind] = {name: _KINDS[kind] for name, kind in _settings.LLM.items()}
WHISPER_SETTINGS: dict[str, Kind] = {name: _KINDS[kind] for name, kind in _settings.WHISPER.items()}


class Config(MutableMapping[str, Value]):
    """Iterates over the settings the model currently has (an optional text
    such as Whisper's "language" is left out while it is absent). Sizes the
    runtime leaves unlimited read as 18446744073709551615."""

    def __init__(self, model: Owner, kinds: dict[str, Kind]):
        self._model = model
        self._kinds = kinds

    def text(self, name: str) -> str:
        return self._model._get_property(name)

    def set_text(self, name: str, text: str) -> None:
        self._model._set_property(name, text)

    def __getitem__(self, name: str) -> Value:
        text = self.text(name)
        return self._kinds.get(name, TEXT).parse(text)

    def __setitem__(self, name: str, value: Value | None) -> None:
        if value is None and name in self._model._resettable:
            self.reset(name)
            return
        kind = self._kinds.get(name)
        if kind:
            text = kind.text(name, value)
            self._model._check_setting(name, value)
        else:
            text = str(value)  # an unknown name goes to the library, which refuses it in its own words
        self.set_text(name, text)

    def __delitem__(self, name: str) -> None:
        if name not in self._model._resettable:
            raise TypeError(f"generation settings cannot be removed ({name}); set a value instead")
        if name not in self:
            raise KeyError(name)
        self.reset(name)

    def reset(self, name: str) -> None:
        """Gives `name` back its value from the model's files. Only Whisper's
        "language" and "task" can be reset: the model is loaded anew, as long
        as the first load, with every other setting and list carried over."""
        if name not in self._model._resettable:
            which = " and ".join(self._model._resettable)
            raise TypeError(f"only {which} can be reset, not {name}" if which else
                            f"no setting of this model can be reset (only Whisper's language and task): set {name} "
                            "to a value instead")
        self._model._reset_setting(name)

    def __iter__(self) -> Iterator[str]:
        for name in self._kinds:
            if name in self:
                yield name

    def __len__(self) -> int:
        return sum(1 for _ in self)

    def __repr__(self) -> str:
        return f"{type(self).__name__}({dict(self)!r})"
