"""The FastAPI application: OpenAI's chat, completion and transcription
endpoints, models, health, Prometheus metrics and the chat page."""
from __future__ import annotations

import asyncio
import hmac
import json
import logging
import os
import re
import tempfile
import time
import uuid
from collections.abc import AsyncIterator, Awaitable, Callable
from contextlib import asynccontextmanager, suppress
from dataclasses import dataclass, field
from importlib import resources
from typing import Any, Literal

import anyio
import numpy as np
from anyio import to_thread
from fastapi import Depends, FastAPI, File, Form, Request, UploadFile
from fastapi.exceptions import RequestValidationError
from fastapi.middleware.cors import CORSMiddleware
from fastapi.responses import HTMLResponse, JSONResponse, PlainTextResponse, Response
from prometheus_client import CONTENT_TYPE_LATEST, CollectorRegistry, generate_latest
from sse_starlette import EventSourceResponse
from starlette.exceptions import HTTPException
from starlette.types import ASGIApp, Message, Receive, Scope, Send

from .. import DEFAULT_DEVICE, LlmModel, TextStream, VelmoraError, WhisperModel, read_audio
from ..config import Value
from ..errors import PropertyError, summary
from ..whisper import Samples, language_token
from .metrics import Metrics
from .pool import Busy, LlmSlot, Pool, Slot
from .schemas import ChatRequest, CompletionRequest, Sampling

log = logging.getLogger("velmora.server")
Task = Literal["transcribe", "translate"]
SpeechFormat = Literal["json", "text", "verbose_json"]


@dataclass
class Options:
    llm: dict[str, str] = field(default_factory=dict)      # model name -> directory
    whisper: dict[str, str] = field(default_factory=dict)
    device: str = DEFAULT_DEVICE
    context: int = 2048          # prompt plus answer, in tokens
    max_tokens: int = 256        # answer length when a request gives none
    parallel: int = 1            # handles per model
    queue: int = 8               # requests waiting per model
    api_key: str | None = None
    max_body_bytes: int = 25 * 2**20
    timeout: float = 600.0       # seconds one generation or transcription may run
    library: str | None = None
    cors_origins: list[str] = field(default_factory=list)  # pages on other origins that may call the API


class ApiError(Exception):
    """Answered as the API's error object."""

    def __init__(self, status: int, message: str, kind: str = "invalid_request_error", param: str | None = None,
                 code: str | None = None, headers: dict[str, str] | None = None):
        super().__init__(message)
        self.status, self.message, self.kind, self.param, self.code = status, message, kind, param, code
        self.headers = headers

    def response(self) -> JSONResponse:
        body = {"error": {"message": self.message, "type": self.kind, "param": self.param, "code": self.code}}
        return JSONResponse(body, status_code=self.status, headers=self.headers)


# The request field behind each setting, so that a refusal names what the caller sent.
_PARAMS = {"max_new_tokens": "max_tokens", "temperature": "temperature", "do_sample": "temperature",
           "top_p": "top_p", "rng_seed": "seed", "frequency_penalty": "frequency_penalty",
           "presence_penalty": "presence_penalty"}


def _busy(what: str) -> ApiError:
    return ApiError(503, f"{what} is busy: every handle is in use and the queue is full; retry shortly",
                    "server_error", code="server_busy", headers={"Retry-After": "1"})


AnyModel = LlmModel | WhisperModel


class _DisconnectWatch:
    """Notices a client that goes away before its answer: `on_gone` then
    stops what the request is doing (its wait for a handle, then its run)."""

    def __init__(self, request: Request):
        self.gone = False
        self.on_gone: Callable[[], None] = lambda: None
        self.task = asyncio.ensure_future(self._watch(request))

    async def _watch(self, request: Request) -> None:
        while (await request.receive())["type"] != "http.disconnect":
            pass
        self.gone = True
        self.on_gone()

    def stop(self) -> None:
        self.task.cancel()


class _Timer:
    """Cancels the work once it has run past the time limit."""

    def __init__(self, seconds: float, cancel: Callable[[], None]):
        self.expired = False

        def expire() -> None:
            self.expired = True
            cancel()

        self._handle = asyncio.get_running_loop().call_later(seconds, expire)

    def stop(self) -> None:
        self._handle.cancel()


class _StopCut:
    """Ends the answer before its first stop string. The runtime ends the
    generation at one, but lets it through when it lies inside a token, so
    what could begin one is held back until it cannot."""

    def __init__(self, stops: list[str]):
        self.stops, self.held, self.hit = stops, "", False

    def feed(self, piece: str) -> str:
        text = self.held + piece
        found = [at for at in (text.find(stop) for stop in self.stops) if at >= 0]
        if found:
            self.hit, self.held = True, ""
            return text[:min(found)]
        longest = max(map(len, self.stops), default=1) - 1
        tail = next((n for n in range(min(len(text), longest), 0, -1)
                     if any(stop.startswith(text[-n:]) for stop in self.stops)), 0)
        self.held = text[len(text) - tail:]
        return text[:len(text) - tail]

    def end(self) -> str:
        rest, self.held = self.held, ""
        return rest


@dataclass
class _Run:
    """One generation on a held handle."""
    slot: LlmSlot
    stream: TextStream
    prompt_tokens: int
    limit: int
    cut: _StopCut
    first: str | None = None
    pieces: list[str] = field(default_factory=list)

    def next(self) -> str | None:
        """The next piece of the answer; None at its end."""
        while not self.cut.hit:
            piece = next(self.stream, None)
            out = self.cut.end() if piece is None else self.cut.feed(piece)
            if out:
                self.pieces.append(out)
                return out
            if piece is None:
                return None
        self.stream.close()  # at a stop string the runtime let through
        return None

    def rest(self) -> None:
        while self.next() is not None:
            pass

    def finish(self) -> tuple[str, dict[str, int], str]:
        """Text, usage and finish reason, with the completion counted by the
        model's tokenizer."""
        text = "".join(self.pieces)
        completion = len(self.slot.model.tokenize(text)) if text else 0
        reason = "length" if max(completion, len(self.pieces)) >= self.limit and not self.cut.hit else "stop"
        usage = {"prompt_tokens": self.prompt_tokens, "completion_tokens": completion,
                 "total_tokens": self.prompt_tokens + completion}
        return text, usage, reason


def create_app(options: Options, on_load_failure: Callable[[], None] = lambda: None) -> FastAPI:
    llm_pools: dict[str, Pool[LlmSlot]] = {}
    whisper_pools: dict[str, Pool[_WhisperSlot]] = {}
    state: dict[str, Any] = {"ready": False, "failure": None}
    started = int(time.time())  # every model's "created"
    registry = CollectorRegistry()
    metrics = Metrics(registry, lambda: {**llm_pools, **whisper_pools})

    def load() -> None:
        for name, directory in options.llm.items():
            llm_pools[name] = Pool([LlmSlot(LlmModel(directory, options.device, options.context,
                                                     library=options.library))
                                    for _ in range(options.parallel)], options.queue)
        for name, directory in options.whisper.items():
            whisper_pools[name] = Pool([_WhisperSlot(directory, options) for _ in range(options.parallel)],
                                       options.queue)

    async def load_in_background() -> None:
        try:
            await to_thread.run_sync(load)
            state["ready"] = True
            log.info("models loaded: %s", ", ".join([*options.llm, *options.whisper]))
        except Exception as error:  # reported by /health, then the server stops
            state["failure"] = str(error)
            log.error("cannot load the models: %s", error)
            on_load_failure()

    @asynccontextmanager
    async def lifespan(app: FastAPI) -> AsyncIterator[None]:
        loading = asyncio.ensure_future(load_in_background())
        yield
        loading.cancel()
        loaded: list[AnyModel] = [slot.model for pool in llm_pools.values() for slot in pool.handles]
        loaded += [slot.model for pool in whisper_pools.values() for slot in pool.handles]
        for model in loaded:
            model.close()

    app = FastAPI(title="velmora", lifespan=lifespan, docs_url=None, redoc_url=None)
    app.add_middleware(_BodyLimit, limit=options.max_body_bytes)
    app.add_middleware(metrics.middleware)
    if options.cors_origins:  # outermost: a browser's preflight carries no API key
        app.add_middleware(CORSMiddleware, allow_origins=options.cors_origins, allow_methods=["GET", "POST"],
                           allow_headers=["Authorization", "Content-Type"])

    @app.exception_handler(ApiError)
    async def api_error(request: Request, error: ApiError) -> JSONResponse:
        return error.response()

    @app.exception_handler(RequestValidationError)
    async def invalid(request: Request, error: RequestValidationError) -> JSONResponse:
        first = error.errors()[0]
        where = [str(part) for part in first.get("loc", ()) if part != "body"]
        if first.get("type") == "json_invalid":
            return ApiError(400, f"the body is not valid JSON: {first.get('ctx', {}).get('error', '')}").response()
        if not where and "json" not in request.headers.get("content-type", ""):  # the framework did not read it
            return ApiError(400, "the body must be a JSON object sent with 'Content-Type: application/json'").response()
        param = ".".join(where) or None
        message = first["msg"].removeprefix("Value error, ")  # the validator's own sentence
        return ApiError(400, f"{param or 'body'}: {message}", param=param, code="invalid_value").response()

    @app.exception_handler(HTTPException)
    async def http_error(request: Request, error: HTTPException) -> JSONResponse:
        kinds = {404: "not_found", 405: "method_not_allowed", 413: "request_too_large"}
        message = f"the request body is larger than {options.max_body_bytes} bytes" \
            if error.status_code == 413 else str(error.detail)
        return ApiError(error.status_code, message, code=kinds.get(error.status_code),
                        headers=getattr(error, "headers", None)).response()

    @app.exception_handler(VelmoraError)
    async def library_failed(request: Request, error: VelmoraError) -> JSONResponse:
        log.error("%s", error)
        return ApiError(500, summary(error.message) or str(error), "server_error").response()

    @app.exception_handler(Exception)
    async def failed(request: Request, error: Exception) -> JSONResponse:
        log.exception("request failed")
        return ApiError(500, f"internal error: {type(error).__name__}", "server_error").response()

    async def authorize(request: Request) -> None:
        if options.api_key is None:
            return
        scheme, _, token = request.headers.get("authorization", "").partition(" ")
        # Compared in constant time, so the key cannot be guessed byte by byte.
        if not (scheme.lower() == "bearer" and hmac.compare_digest(token.encode(), options.api_key.encode())):
            raise ApiError(401, "a valid API key is needed: send the header 'Authorization: Bearer KEY'",
                           "authentication_error", code="invalid_api_key")

    def pool_of(pools: dict[str, Pool[Slot]], name: str, family: str) -> Pool[Slot]:
        if not state["ready"]:
            raise ApiError(503, "the models are still loading", "server_error", code="loading",
                           headers={"Retry-After": "1"})
        if name not in pools:
            served = ", ".join(pools) or "none"
            raise ApiError(404, f"the model '{name}' is not served here ({family} models: {served})",
                           param="model", code="model_not_found")
        return pools[name]

    async def acquire(pool: Pool[Slot], name: str, watch: _DisconnectWatch) -> Slot:
        """A free handle, waited for only while the client is still there;
        the watch ends with a failure."""
        waiting = asyncio.ensure_future(pool.acquire())
        try:
            await asyncio.wait({waiting, watch.task}, return_when=asyncio.FIRST_COMPLETED)
            if not waiting.done():
                raise ApiError(499, "the client closed the request while it waited", code="client_closed")
            try:
                return waiting.result()
            except Busy:
                raise _busy(f"the model '{name}'") from None
        except BaseException:
            watch.stop()
            if not waiting.done():  # its place in the queue goes to the next
                waiting.cancel()
                with suppress(asyncio.CancelledError):
                    pool.release(await waiting)  # it got a handle just as it was given up
            raise

    def start(slot: LlmSlot, body: Sampling, prompt: Callable[[LlmModel], str]) -> _Run:
        model = slot.model
        given = "messages" if isinstance(body, ChatRequest) else "prompt"
        try:
            text = prompt(model)
            prompt_tokens = len(model.tokenize(text))
        except ValueError as refused:  # a NUL, a lone surrogate, a conversation the chat template refuses
            raise ApiError(400, f"{given}: {refused}", param=given, code="invalid_value") from None
        if prompt_tokens >= slot.counted:
            raise ApiError(400, f"{given}: the prompt takes {slot.counted} tokens or more, past what this model's "
                           "tokenizer counts", param=given, code="context_length_exceeded")
        if prompt_tokens == 0:
            raise ApiError(400, f"{given}: the prompt is empty; the model needs at least one token to continue from",
                           param=given, code="invalid_value")
        asked = body.token_limit()
        room = options.context - prompt_tokens
        limit = asked if asked is not None else min(options.max_tokens, room)
        if limit > room or room < 1:
            answer = f"the answer may take {limit}" if room >= 1 else "no room is left for an answer"
            raise ApiError(400, f"this model's context is {options.context} tokens: the prompt takes {prompt_tokens} "
                           f"and {answer}; shorten the prompt or lower max_tokens",
                           param="max_tokens" if asked is not None and room >= 1 else given,
                           code="context_length_exceeded")
        settings: dict[str, Value] = {"max_new_tokens": limit}
        stops = body.stops()
        if body.temperature is not None:
            settings["do_sample"] = body.temperature != 0
            if body.temperature != 0:
                settings["temperature"] = body.temperature
        for name, value in (("top_p", body.top_p), ("rng_seed", body.seed),
                            ("frequency_penalty", body.frequency_penalty),
                            ("presence_penalty", body.presence_penalty)):
            if value is not None:
                settings[name] = value
        try:
            slot.apply(settings, stops)
        except PropertyError as refused:
            named = re.match(r"An error occurred setting property (\w+)", refused.message)
            raise ApiError(400, summary(refused.message), param=_PARAMS.get(named[1]) if named else None,
                           code="invalid_value") from None
        except (TypeError, ValueError) as refused:
            name = str(refused).split()[0]
            raise ApiError(400, str(refused), param=_PARAMS.get(name, "stop"), code="invalid_value") from None
        run = _Run(slot, model.stream(text), prompt_tokens, limit, _StopCut(stops))
        try:
            run.first = run.next()
        except VelmoraError as error:
            # Before any piece, a failure is the runtime refusing this request's
            # settings as a whole (a negative temperature, say): the caller's to fix.
            raise ApiError(400, summary(error.message) or str(error), code="invalid_value") from None
        return run

    async def generate(request: Request, body: Sampling, endpoint: str,
                       prompt: Callable[[LlmModel], str]) -> Response:
        pool = pool_of(llm_pools, body.model, "LLM")
        watch = _DisconnectWatch(request)
        slot = await acquire(pool, body.model, watch)
        begun = time.perf_counter()
        watch.on_gone = slot.model.cancel
        timer = _Timer(options.timeout, slot.model.cancel)
        run: _Run | None = None
        try:
            run = await to_thread.run_sync(start, slot, body, prompt)
            metrics.first_token.labels(body.model).observe(time.perf_counter() - begun)
            if watch.gone:  # left while the prompt was prepared, before a cancel could land
                slot.model.cancel()
            if not body.stream:
                await to_thread.run_sync(run.rest)
                if timer.expired:
                    raise ApiError(504, f"the generation ran past the server's limit of {options.timeout:g} s",
                                   "server_error", code="timeout")
                text, usage, reason = await to_thread.run_sync(run.finish)
                metrics.count_tokens(body.model, usage)
                answer = JSONResponse(_answer(endpoint, body.model, text, usage, reason))
        except BaseException:
            watch.stop()
            timer.stop()
            await _close(pool, slot, run)
            raise
        watch.stop()
        if not body.stream:
            timer.stop()
            pool.release(slot)
            return answer
        return _Events(_events(run, endpoint, body, timer), lambda: _end_stream(pool, run, timer))

    async def _close(pool: Pool[LlmSlot], slot: LlmSlot, run: _Run | None) -> None:
        with anyio.CancelScope(shield=True):
            if run is not None:
                await to_thread.run_sync(run.stream.close)
            pool.release(slot)

    async def _events(run: _Run, endpoint: str, body: Sampling, timer: _Timer) -> AsyncIterator[dict[str, str]]:
        ident, created = _ident(endpoint), int(time.time())
        yield _chunk(endpoint, ident, created, body.model, "", None, first=True)
        piece = run.first
        while piece is not None:
            yield _chunk(endpoint, ident, created, body.model, piece, None)
            try:
                piece = await to_thread.run_sync(run.next)
            except VelmoraError as error:
                # Headers are sent: the failure can only travel as an event.
                yield _event(ApiError(500, summary(error.message) or str(error), "server_error"))
                return
        if timer.expired:  # cut short, not finished: no finish_reason and no [DONE]
            yield _event(ApiError(504, f"the generation ran past the server's limit of {options.timeout:g} s",
                                  "server_error", code="timeout"))
            return
        text, usage, reason = await to_thread.run_sync(run.finish)
        metrics.count_tokens(body.model, usage)
        yield _chunk(endpoint, ident, created, body.model, None, reason)
        if body.stream_options is not None and body.stream_options.include_usage:
            yield {"data": json.dumps({"id": ident, "object": _OBJECTS[endpoint] + ".chunk"
                                       if endpoint == "chat" else _OBJECTS[endpoint], "created": created,
                                       "model": body.model, "choices": [], "usage": usage})}
        yield {"data": "[DONE]"}

    async def _end_stream(pool: Pool[LlmSlot], run: _Run, timer: _Timer) -> None:
        timer.stop()
        await _close(pool, run.slot, run)

    @app.api_route("/", methods=["GET", "HEAD"], response_class=HTMLResponse, include_in_schema=False)
    async def page() -> str:
        return resources.files(__package__).joinpath("page.html").read_text(encoding="utf-8")

    @app.api_route("/health", methods=["GET", "HEAD"])
    async def health() -> JSONResponse:
        if state["ready"]:
            return JSONResponse({"status": "ok"})
        status = f"failed: {state['failure']}" if state["failure"] else "loading"
        return JSONResponse({"status": status}, status_code=503, headers={"Retry-After": "1"})

    @app.get("/metrics", dependencies=[Depends(authorize)])
    async def prometheus() -> Response:
        return Response(generate_latest(registry), media_type=CONTENT_TYPE_LATEST)

    def described(name: str) -> dict[str, Any]:
        # "task" is ours, beside the API's fields: what the page offers each model for.
        return {"id": name, "object": "model", "created": started, "owned_by": "velmora",
                "task": "chat" if name in options.llm else "transcription"}

    @app.get("/v1/models", dependencies=[Depends(authorize)])
    async def models() -> dict[str, Any]:
        return {"object": "list", "data": [described(name) for name in [*options.llm, *options.whisper]]}

    @app.get("/v1/models/{name:path}", dependencies=[Depends(authorize)])
    async def model(name: str) -> dict[str, Any]:
        if name not in options.llm and name not in options.whisper:
            raise ApiError(404, f"the model '{name}' is not served here", param="model", code="model_not_found")
        return described(name)

    @app.post("/v1/chat/completions", dependencies=[Depends(authorize)])
    async def chat(request: Request, body: ChatRequest) -> Response:
        messages = [{"role": m.role, "content": m.text()} for m in body.messages]
        return await generate(request, body, "chat", lambda model: model.chat_prompt(messages))

    @app.post("/v1/completions", dependencies=[Depends(authorize)])
    async def completions(request: Request, body: CompletionRequest) -> Response:
        return await generate(request, body, "completion", lambda model: body.text())

    async def speech(request: Request, file: UploadFile, model: str, language: str | None,
                     response_format: SpeechFormat, task: Task) -> Response:
        pool = pool_of(whisper_pools, model, "Whisper")
        samples = await to_thread.run_sync(_decode, await file.read(), file.filename or "")
        watch = _DisconnectWatch(request)
        slot = await acquire(pool, model, watch)
        # A reset language replaces the slot's model: cancel whichever it holds then.
        watch.on_gone = lambda: slot.model.cancel()
        timer = _Timer(options.timeout, lambda: slot.model.cancel())
        try:
            text = await to_thread.run_sync(slot.transcribe, samples, language, task)
        except ValueError as refused:  # samples the model cannot take (too few, not finite)
            raise ApiError(400, f"file: {refused}", param="file", code="invalid_value") from None
        finally:
            watch.stop()
            timer.stop()
            pool.release(slot)
        if timer.expired:
            raise ApiError(504, f"the transcription ran past the server's limit of {options.timeout:g} s",
                           "server_error", code="timeout")
        if response_format == "text":
            return PlainTextResponse(text + "\n")
        if response_format == "verbose_json":
            return JSONResponse({"task": task, "language": (language or "auto").strip("<|>"),
                                 "duration": len(samples) / 16000, "text": text, "segments": []})
        return JSONResponse({"text": text})

    @app.post("/v1/audio/transcriptions", dependencies=[Depends(authorize)])
    async def transcriptions(request: Request, file: UploadFile = File(...), model: str = Form(...),
                             language: str | None = Form(None),
                             response_format: SpeechFormat = Form("json")) -> Response:
        return await speech(request, file, model, language, response_format, "transcribe")

    # Into English. `language`, the spoken one, is ours: detection can mistake an accent for English.
    @app.post("/v1/audio/translations", dependencies=[Depends(authorize)])
    async def translations(request: Request, file: UploadFile = File(...), model: str = Form(...),
                           language: str | None = Form(None),
                           response_format: SpeechFormat = Form("json")) -> Response:
        return await speech(request, file, model, language, response_format, "translate")

    return app


class _Events(EventSourceResponse):
    """The stream of one generation; whatever ends it (the last piece, a
    client that left, an error), the generation is cancelled and the handle
    goes back to the pool."""

    def __init__(self, events: AsyncIterator[dict[str, str]], cleanup: Callable[[], Awaitable[None]]):
        super().__init__(events, ping=15, sep="\n")
        self._cleanup = cleanup

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        try:
            await super().__call__(scope, receive, send)
        finally:
            await self._cleanup()


class _BodyLimit:
    """Refuses a declared body past the limit before reading it, with the
    API's error object (a body without a length is cut off by the framework)."""

    def __init__(self, app: ASGIApp, limit: int):
        self.app, self.limit = app, limit

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        if scope["type"] != "http":
            await self.app(scope, receive, send)
            return
        length = dict(scope["headers"]).get(b"content-length", b"0")
        if length.isdigit() and int(length) > self.limit:
            error = ApiError(413, f"the request body is larger than {self.limit} bytes", code="request_too_large")
            await error.response()(scope, receive, send)
            return
        seen = 0

        async def counted() -> Message:
            nonlocal seen
            message = await receive()
            seen += len(message.get("body", b""))
            if seen > self.limit:
                raise HTTPException(413)
            return message

        await self.app(scope, counted, send)


class _WhisperSlot:
    """A Whisper handle. A language, once set, can only be cleared by a new
    handle, so a request without one after a request with one gets a fresh
    handle rather than the last caller's language."""

    def __init__(self, directory: str, options: Options):
        self._directory, self._options = directory, options
        self.model = WhisperModel(directory, options.device, library=options.library)
        self._languages = set(self.model.lang_to_id)
        # First use while loading, as for the LLM handles (see LlmSlot).
        self.model.transcribe(np.zeros(1600, np.float32))
        self._language: str | None = None

    def transcribe(self, samples: Samples, language: str | None, task: Task) -> str:
        token = language_token(language) if language else None
        if token is not None and token not in self._languages:
            raise ApiError(400, f"language '{language}' is not one this model knows (ISO 639-1 codes such as 'en')",
                           param="language", code="invalid_value")
        if token is None and self._language is not None:
            self.model.close()
            self.model = WhisperModel(self._directory, self._options.device, library=self._options.library)
        if token is not None:
            self.model.config["language"] = token
        self._language = token
        self.model.config["task"] = task
        return self.model.transcribe(samples).strip()


def _decode(data: bytes, filename: str) -> Samples:
    if not data:
        raise ApiError(400, "the audio file is empty", param="file", code="invalid_value")
    suffix = os.path.splitext(filename)[1]
    suffix = suffix if re.fullmatch(r"\.[A-Za-z0-9]{1,8}", suffix) else ""  # the client's name is no path to trust
    with tempfile.NamedTemporaryFile(suffix=suffix) as spool:
        spool.write(data)
        spool.flush()
        try:
            samples = read_audio(spool.name)
        except ImportError as missing:
            raise ApiError(500, str(missing), "server_error") from None
        except Exception as unreadable:
            raise ApiError(400, f"the audio file cannot be read: {unreadable}", param="file",
                           code="invalid_value") from None
    if not len(samples):
        raise ApiError(400, "the audio file holds no samples", param="file", code="invalid_value")
    return samples


_OBJECTS = {"chat": "chat.completion", "completion": "text_completion"}


def _event(error: ApiError) -> dict[str, str]:
    """An error as a server-sent event, once the headers are sent."""
    return {"data": bytes(error.response().body).decode()}


def _ident(endpoint: str) -> str:
    return ("chatcmpl-" if endpoint == "chat" else "cmpl-") + uuid.uuid4().hex


def _answer(endpoint: str, model: str, text: str, usage: dict[str, int], reason: str) -> dict[str, Any]:
    choice: dict[str, Any] = {"index": 0, "finish_reason": reason, "logprobs": None}
    if endpoint == "chat":
        choice["message"] = {"role": "assistant", "content": text}
    else:
        choice["text"] = text
    return {"id": _ident(endpoint), "object": _OBJECTS[endpoint], "created": int(time.time()), "model": model,
            "choices": [choice], "usage": usage}


def _chunk(endpoint: str, ident: str, created: int, model: str, piece: str | None, reason: str | None,
           first: bool = False) -> dict[str, str]:
    if endpoint == "chat":
        delta: dict[str, Any] = {} if piece is None else {"content": piece}
        if first:
            delta["role"] = "assistant"
        choice: dict[str, Any] = {"index": 0, "delta": delta, "finish_reason": reason, "logprobs": None}
        kind = "chat.completion.chunk"
    else:
        choice = {"index": 0, "text": piece or "", "finish_reason": reason, "logprobs": None}
        kind = "text_completion"
    return {"data": json.dumps({"id": ident, "object": kind, "created": created, "model": model,
                                "choices": [choice]})}
