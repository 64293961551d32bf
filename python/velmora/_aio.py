"""The models from asyncio: each call runs on a worker thread, so the event
loop never waits for the library, and cancelling the awaiting task cancels the
work and waits for it to stop: the model is idle when CancelledError arrives."""
from __future__ import annotations

import asyncio
import functools
from collections.abc import AsyncIterator, Callable
from typing import TYPE_CHECKING, Any, TypeVar

if TYPE_CHECKING:
    from typing_extensions import Self  # typing's own from Python 3.11

    from ._model import Model
    from .llm import TextStream

T = TypeVar("T")
_END = object()


async def run(model: Model, call: Callable[..., T], *args: Any,
              undo: Callable[[T], object] | None = None) -> T:
    """`call(*args)` on a worker thread. Cancelled, it cancels the model until
    the call has returned (one that lands before the work starts is forgotten
    by it) and hands what the call made to `undo`."""
    work = asyncio.get_running_loop().run_in_executor(None, functools.partial(call, *args))
    try:
        return await asyncio.shield(work)
    except asyncio.CancelledError:
        while not work.done():
            model.cancel()
            try:
                await asyncio.wait({work}, timeout=0.02)
            except asyncio.CancelledError:  # cancelled again: still wait for the work
                pass
        if work.exception() is None and undo is not None:
            await asyncio.get_running_loop().run_in_executor(None, undo, work.result())
        raise


class AsyncTextStream(AsyncIterator[str]):
    """A TextStream for `async for`. Leaving an `async with` block, aclose(),
    or cancelling the task that awaits a piece ends the generation."""

    def __init__(self, model: Model, start: Callable[[], TextStream]):
        self._model, self._start = model, start
        self._stream: TextStream | None = None

    def __aiter__(self) -> Self:
        return self

    async def __anext__(self) -> str:
        if self._stream is None:
            self._stream = await run(self._model, self._start, undo=lambda stream: stream.close())
        try:
            piece: str | object = await run(self._model, next, self._stream, _END)
        except asyncio.CancelledError:
            await self.aclose()
            raise
        if piece is _END:
            raise StopAsyncIteration
        assert isinstance(piece, str)
        return piece

    async def text(self) -> str:
        """The rest of the stream, joined."""
        return "".join([piece async for piece in self])

    async def aclose(self) -> None:
        """Stops the generation if it still runs and waits for it to end."""
        if self._stream is not None:
            await asyncio.shield(asyncio.get_running_loop().run_in_executor(None, self._stream.close))

    async def __aenter__(self) -> Self:
        return self

    async def __aexit__(self, *exc: object) -> None:
        await self.aclose()
