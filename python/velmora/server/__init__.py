"""An HTTP server speaking the OpenAI API over LlmModel and WhisperModel
(`velmora serve`, `python -m velmora.server`). Needs the "server" extra."""
from .app import Options, create_app

__all__ = ["Options", "create_app"]
