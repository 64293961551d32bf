"""`velmora serve ...` and `python -m velmora.server ...`."""
from __future__ import annotations

import argparse
import logging
import os
import sys

from .. import DEFAULT_CONTEXT_LENGTH, DEFAULT_DEVICE


def _models(values: list[str], parser: argparse.ArgumentParser, option: str) -> dict[str, str]:
    """NAME=DIR pairs; a bare DIR is named after its last component."""
    models: dict[str, str] = {}
    for value in values:
        name, _, directory = value.rpartition("=") if "=" in value else (None, "", value)
        name = name or os.path.basename(os.path.normpath(directory))
        if not os.path.isdir(directory):
            parser.error(f"{option} {value}: '{directory}' is not a model directory")
        if name in models:
            parser.error(f"{option} {value}: the name '{name}' is given twice")
        models[name] = directory
    return models


def parser() -> argparse.ArgumentParser:
    p = argparse.ArgumentParser(prog="velmora serve", description="Serves models over the OpenAI HTTP API.")
    p.add_argument("--llm", action="append", default=[], metavar="[NAME=]DIR",
                   help="an LLM to serve (repeatable); requests pick it by NAME, by default the directory's name")
    p.add_argument("--whisper", action="append", default=[], metavar="[NAME=]DIR",
                   help="a Whisper model to serve (repeatable)")
    p.add_argument("--host", default="127.0.0.1", help="address to listen on (default 127.0.0.1)")
    p.add_argument("--port", type=int, default=8000)
    p.add_argument("--device", default=DEFAULT_DEVICE, help=f"CPU, GPU or NPU (default {DEFAULT_DEVICE})")
    p.add_argument("--context", type=int, default=2048,
                   help="most tokens of prompt plus answer per request (default 2048)")
    p.add_argument("--max-tokens", type=int, default=DEFAULT_CONTEXT_LENGTH,
                   help=f"answer length when a request gives none (default {DEFAULT_CONTEXT_LENGTH})")
    p.add_argument("--parallel", type=int, default=1, help="handles per model, each serving one request (default 1)")
    p.add_argument("--queue", type=int, default=8,
                   help="requests that may wait per model; past it the answer is 503 (default 8)")
    p.add_argument("--api-key", help="bearer token every /v1 and /metrics request must carry")
    p.add_argument("--cors-origin", action="append", default=[], metavar="ORIGIN",
                   help="a web page origin whose scripts may call the API (repeatable; * for any)")
    p.add_argument("--max-body-mb", type=float, default=25, help="largest request body in MiB (default 25)")
    p.add_argument("--timeout", type=float, default=600,
                   help="seconds a generation or transcription may run (default 600)")
    p.add_argument("--library", help="path of the native library (default: found by the package)")
    p.add_argument("--log-level", default="info", choices=["critical", "error", "warning", "info", "debug"])
    return p


def main(argv: list[str] | None = None) -> None:
    p = parser()
    a = p.parse_args(argv)
    for option, value in (("--parallel", a.parallel), ("--context", a.context), ("--max-tokens", a.max_tokens)):
        if value < 1:
            p.error(f"{option} takes a count of 1 or more, not {value}")
    if a.queue < 0:
        p.error(f"--queue takes a count of 0 or more, not {a.queue}")
    if not a.llm and not a.whisper:
        p.error("give at least one --llm or --whisper model")
    try:
        import uvicorn

        from .app import Options, create_app
    except ImportError as missing:
        sys.exit(f"the server needs the server extra: pip install 'velmora[server]' ({missing.name} is missing)")

    logging.basicConfig(level=a.log_level.upper(), format="%(levelname)s %(name)s: %(message)s")
    if a.api_key is None and a.host not in ("127.0.0.1", "localhost", "::1"):
        logging.getLogger("velmora.server").warning("listening on %s without --api-key: anyone who reaches it "
                                                    "can use the models", a.host)
    options = Options(llm=_models(a.llm, p, "--llm"), whisper=_models(a.whisper, p, "--whisper"), device=a.device,
                      context=a.context, max_tokens=a.max_tokens, parallel=a.parallel, queue=a.queue,
                      api_key=a.api_key, max_body_bytes=int(a.max_body_mb * 2**20), timeout=a.timeout,
                      library=a.library, cors_origins=a.cors_origin)
    failed: list[bool] = []

    def stop() -> None:
        failed.append(True)
        server.should_exit = True

    server = uvicorn.Server(uvicorn.Config(create_app(options, stop), host=a.host, port=a.port,
                                           log_level=a.log_level, timeout_graceful_shutdown=5))
    server.run()
    sys.exit(1 if failed else 0)
