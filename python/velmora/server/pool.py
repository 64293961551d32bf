"""Model handles shared between requests: one request per handle at a time,
a bounded wait for a free one, and the settings a request may change put
back to the model's own before every use."""
from __future__ import annotations

import asyncio
import random
from dataclasses import dataclass, field
from typing import Generic, TypeVar

from .. import LlmModel
from ..config import Value

Slot = TypeVar("Slot")


class Busy(Exception):
    """Every handle is in use and the wait is full: answered 503 at once."""


class Pool(Generic[Slot]):
    def __init__(self, handles: list[Slot], queue_limit: int):
        self._free: asyncio.Queue[Slot] = asyncio.Queue()
        for handle in handles:
            self._free.put_nowait(handle)
        self.handles = handles
        self.queue_limit = queue_limit
        self.waiting = 0

    async def acquire(self) -> Slot:
        if self._free.empty() and self.waiting >= self.queue_limit:
            raise Busy
        self.waiting += 1
        try:
            # A waiter cancelled here (its client left) hands its turn on.
            return await self._free.get()
        finally:
            self.waiting -= 1

    def release(self, handle: Slot) -> None:
        self._free.put_nowait(handle)


# The settings a request can change; every request sets each of them, to its
# own value or back to the model's, so nothing carries over to the next one.
REQUEST_SETTINGS = ("max_new_tokens", "do_sample", "temperature", "top_p", "rng_seed", "frequency_penalty",
                    "presence_penalty")


@dataclass
class LlmSlot:
    model: LlmModel
    defaults: dict[str, str] = field(default_factory=dict)
    default_stops: list[str] = field(default_factory=list)
    # The most tokens the tokenizer counts: it cuts longer texts there, the model does not.
    counted: int = 0

    def __post_init__(self) -> None:
        # The runtime's binding sets up its array support on first use, and
        # two threads doing that at once deadlock (seen with two handles
        # tokenizing together): the first use happens here, while loading, and
        # measures the most tokens the tokenizer counts.
        self.counted = len(self.model.tokenize("a " * 100_000))
        self.defaults = {name: self.model.config.text(name) for name in REQUEST_SETTINGS}
        self.default_stops = self.model.stop_strings

    def apply(self, settings: dict[str, Value], stops: list[str]) -> None:
        """Sets every request setting: `settings` by typed value (checked by
        the package, then by the library), the rest to the model's defaults.
        An unseeded sampling request gets a fresh seed, as callers expect."""
        config = self.model.config
        if settings.get("do_sample") and "rng_seed" not in settings:
            settings["rng_seed"] = random.randrange(2**31)
        for name in REQUEST_SETTINGS:
            if name in settings:
                config[name] = settings[name]
            else:
                config.set_text(name, self.defaults[name])
        self.model.stop_strings = stops or self.default_stops
