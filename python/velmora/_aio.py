"""The models from asyncio: each call runs on a worker thread, so the event
loop never waits for the library, and cancelling the awaiting task cancels the
work and waits for it to stop: the model is idle when CancelledError arrives."""
from __future__ import annotations

import asyncio
import threading
from collections.abc import AsyncIterator, Callable
from typing import TYPE_CHECKING, Any, TypeVar

if TYPE_CHECKING:
    from typing_extensions import Self  # typing's own from Python 3.11

    from .llm import TextStream

T = TypeVar("T")
_END = object()


async def run(call: Callable[..., T], *args: Any, stop: Callable[[int], None],
              undo: Callable[[T], object] | None = None) -> T:
    """`call(*args)` on a worker thread. Cancelled, it calls `stop` with the
    worker's thread id until the call has returned (a cancel that lands before
    the work starts is forgotten by it) and hands what the call made to `undo`."""
    worker: list[int] = []

    def work() -> T:
        worker.append(threading.get_ident())
        return call(*args)

    done = asyncio.get_running_loop().run_in_executor(None, work)
    try:
        return await asyncio.shield(done)
    except asyncio.CancelledError:
        while not done.done():
            if worker:
                stop(worker[0])
            try:
                await asyncio.wait({done}, timeout=0.02)
            except asyncio.CancelledError:  # cancelled again: still wait for the work
                pass
        if done.exception() is None and undo is not None:
            await asyncio.get_running_loop().run_in_executor(None, undo, done.result())
        raise


class AsyncTextStream(AsyncIterator[str]):
    """A TextStream for `async for`. Leaving an `async with` block, aclose(),
    or cancelling the task that awaits a piece ends the generation."""

    def __init__(self, start: Callable[[], TextStream]):
        self._start = start
        self._stream: TextStream | None = None

    def __aiter__(self) -> Self:
        return self

    async def __anext__(self) -> str:
        if self._stream is None:
            self._stream = await run(self._start, stop=lambda worker: None, undo=lambda stream: stream.close())
        stream = self._stream
        try:
            piece: str | object = await run(next, stream, _END, stop=lambda worker: stream.cancel())
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
