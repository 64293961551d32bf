"""Local text generation and speech transcription.

    from velmora import LlmModel
    with LlmModel("models/tiny-llm", context_length=32) as model:
        model.config["temperature"] = 0.7
        for piece in model.stream("Once upon a time"):
            print(piece, end="", flush=True)

Every model takes `library=`: the path of the native library (or a loaded
Library). Without it the library is looked for inside this package (where the
wheel puts it), then in the `build/src` directory of the checkout the package
runs from (see find_library).
The library's informational messages go to the "velmora" logger.
"""
from __future__ import annotations

import os

from . import _abi
from ._abi import DEFAULT_DEVICE, Status
from ._aio import AsyncTextStream
from ._library import LIBRARY_FILE, Library, find_library, load_library
from ._model import encode_path
from ._settings import DEVICES
from ._version import __version__
from .config import Config
from .errors import PropertyError, VelmoraError
from .llm import DEFAULT_CONTEXT_LENGTH, LlmModel, TextStream
from .whisper import SAMPLE_RATE, WhisperModel, read_audio

__all__ = ["__version__", "DEFAULT_CONTEXT_LENGTH", "DEFAULT_DEVICE", "DEVICES", "LIBRARY_FILE", "SAMPLE_RATE",
           "AsyncTextStream", "Config", "Library", "LlmModel", "PropertyError", "Status", "TextStream", "VelmoraError",
           "WhisperModel", "compile_model", "find_library", "load_library", "read_audio"]


def compile_model(model_dir: str | os.PathLike[str], device: str | int = DEFAULT_DEVICE,
                  context_length: int = DEFAULT_CONTEXT_LENGTH, *, library: Library | str | None = None) -> None:
    """Compiles an LLM ahead of time: for the NPU it writes the ".blob" that
    LlmModel needs beside the model files (the directory must hold none yet);
    for CPU and GPU it only checks that a pipeline can be built. Give it the
    context_length the model will be loaded with."""
    lib = load_library(library)
    lib.ensure_llm_reporting()
    lib.call("llm", "CompileModel", lib.llm.CompileModel, encode_path(os.fspath(model_dir)), _abi.device_type(device),
             _abi.context_length(context_length))
