"""`velmora` (also `python -m velmora`): chat with an LLM or transcribe audio
files from a terminal, or serve the models over HTTP.

    velmora chat --model DIR [--system TEXT] [--set NAME=VALUE]...
    velmora transcribe --model DIR [--language LANG] [--translate] AUDIO...
    velmora serve [OPTIONS]
"""
from __future__ import annotations

import argparse
import os
import sys
from collections.abc import Callable

from . import DEFAULT_CONTEXT_LENGTH, DEFAULT_DEVICE, LlmModel, VelmoraError, WhisperModel
from .config import FLAG, LLM_SETTINGS, WHISPER_SETTINGS, Kind, Value
from .llm import Messages
from .whisper import language_token

_USAGE = "usage: velmora {chat,transcribe,serve} [OPTIONS]  (velmora COMMAND --help for more)"


def _setting(kinds: dict[str, Kind], family: str) -> Callable[[str], tuple[str, Value]]:
    """NAME=VALUE, parsed and checked as the setting takes it before any model loads."""
    def parse(text: str) -> tuple[str, Value]:
        name, equals, raw = text.partition("=")
        kind = kinds.get(name)
        if not equals or kind is None:
            raise argparse.ArgumentTypeError(f"{text}: no such {family} setting (known: {', '.join(kinds)})")
        try:
            if kind is FLAG and raw not in ("true", "false"):
                raise ValueError
            value: Value = raw == "true" if kind is FLAG else (
                int(raw) if kind.types == (int,) else float(raw) if float in kind.types else raw)
        except ValueError:
            accepts = "true or false" if kind is FLAG else kind.accepts
            raise argparse.ArgumentTypeError(f"{name} takes {accepts}, not {raw!r}") from None
        try:
            kind.text(name, value)
        except (TypeError, ValueError) as refused:
            raise argparse.ArgumentTypeError(str(refused)) from None
        return name, value
    return parse


def _parser(command: str, kinds: dict[str, Kind], family: str, description: str) -> argparse.ArgumentParser:
    p = argparse.ArgumentParser(prog=f"velmora {command}", description=description)
    p.add_argument("--model", required=True, metavar="DIR", help="the model directory")
    p.add_argument("--device", default=DEFAULT_DEVICE, help=f"CPU, GPU or NPU (default {DEFAULT_DEVICE})")
    p.add_argument("--set", action="append", default=[], type=_setting(kinds, family), metavar="NAME=VALUE",
                   help="a generation setting, before the first request (repeatable)")
    p.add_argument("--library", help="path of the native library (default: found by the package)")
    return p


def chat(argv: list[str]) -> int:
    p = _parser("chat", LLM_SETTINGS, "LLM", "Chats with an LLM through its own chat template: each line read "
                "is a turn, answered as it is generated. Ctrl-C stops an answer, /reset forgets the "
                "conversation, end of input (Ctrl-D) ends.")
    p.add_argument("--system", help="the system message that starts every conversation")
    p.add_argument("--context", type=int, default=DEFAULT_CONTEXT_LENGTH,
                   help=f"most tokens of an answer (default {DEFAULT_CONTEXT_LENGTH})")
    p.add_argument("--keep", type=int, default=2048, metavar="TOKENS",
                   help="most tokens of conversation sent with a turn; older turns are left out (default 2048)")
    args = p.parse_args(argv)
    start: list[dict[str, str]] = [{"role": "system", "content": args.system}] if args.system else []
    interactive = sys.stdin.isatty()
    if interactive:
        import readline  # noqa: F401  (line editing and recall for input())
    with LlmModel(args.model, args.device, args.context, library=args.library) as model:
        for name, value in args.set:
            model.config[name] = value
        failed = _converse(model, start, args.keep, interactive)
    if interactive:
        print()
    return 1 if failed else 0


def _converse(model: LlmModel, start: list[dict[str, str]], keep: int, interactive: bool) -> int:
    """Answers each line read until the input ends; returns how many turns failed."""
    history, failed = list(start), 0
    while True:
        try:
            line = input("> " if interactive else "").strip()
        except (EOFError, KeyboardInterrupt):
            return failed
        if line == "/reset":
            history = list(start)
            print("(the conversation starts anew)", file=sys.stderr)
        elif line:
            history.append({"role": "user", "content": line})
            try:
                # The oldest exchanges go first; the system message and this turn stay.
                while len(history) > len(start) + 1 and len(model.tokenize(model.chat_prompt(history))) > keep:
                    del history[len(start):len(start) + 2]
                history.append({"role": "assistant", "content": _answer(model, history)})
            except (VelmoraError, ValueError) as refused:  # this turn only: the conversation goes on
                print(f"velmora chat: {refused}", file=sys.stderr)
                history.pop()
                failed += 1


def _answer(model: LlmModel, history: Messages) -> str:
    """Prints the answer as it comes and returns it, cut short at Ctrl-C."""
    pieces: list[str] = []
    try:
        for piece in model.chat(history, stream=True):
            pieces.append(piece)
            print(piece, end="", flush=True)
    except KeyboardInterrupt:  # the generation has stopped: the model is idle
        print(" (stopped)", end="", file=sys.stderr)
    except VelmoraError:
        if pieces:
            print()
        raise
    print()
    return "".join(pieces)


def transcribe(argv: list[str]) -> int:
    p = _parser("transcribe", WHISPER_SETTINGS, "Whisper", "Prints the text of each audio file (any format "
                "libsndfile reads, any rate and channel count; needs the audio extra).")
    p.add_argument("--language", help="the language spoken, as en or <|en|> (default: detected)")
    p.add_argument("--translate", action="store_true", help="into English")
    p.add_argument("audio", nargs="+", metavar="AUDIO")
    args = p.parse_args(argv)
    for path in args.audio:  # before the model loads; a pipe is fine
        if os.path.isdir(path) or not os.path.exists(path):
            p.error(f"'{path}' is {'a directory' if os.path.isdir(path) else 'no file'}: give audio files")
    with WhisperModel(args.model, args.device, library=args.library) as model:
        for name, value in args.set:
            model.config[name] = value
        if args.language:
            model.config["language"] = language_token(args.language)
        if args.translate:
            model.config["task"] = "translate"
        for path in args.audio:
            try:
                text = model.transcribe_file(path).strip()
            except (OSError, RuntimeError, ValueError) as unreadable:  # soundfile's errors are RuntimeErrors
                print(f"velmora transcribe: cannot transcribe '{path}': {unreadable}", file=sys.stderr)
                return 1
            print(f"{path}: {text}" if len(args.audio) > 1 else text, flush=True)
    return 0


def main(argv: list[str] | None = None) -> None:
    args = list(sys.argv[1:] if argv is None else argv)
    command = args[0] if args else ""
    if command in ("-h", "--help"):
        print(_USAGE)
        return
    if command == "serve":
        from .server.cli import main as serve
        serve(args[1:])
        return
    if command not in ("chat", "transcribe"):
        sys.exit(f"{_USAGE}\n  chat        chat with an LLM\n  transcribe  print the text of audio files\n"
                 "  serve       the OpenAI-compatible HTTP server")
    try:
        sys.exit((chat if command == "chat" else transcribe)(args[1:]))
    except (VelmoraError, OSError, ValueError, TypeError) as failed:  # the model, or a setting it refused
        sys.exit(f"velmora {command}: {failed}")
    except KeyboardInterrupt:  # while a model loads or a file is read: the work has stopped
        print("velmora: interrupted", file=sys.stderr)
        sys.exit(130)
