"""Request bodies as the OpenAI API defines them. Strict: a string where a
number belongs is refused rather than converted. Fields the server does not
use are ignored, as clients send many, except those whose request, ignored,
would change what the answer means (tool calls, a JSON answer, log
probabilities, token biases): these are refused."""
from __future__ import annotations

from typing import Any, Literal

from pydantic import BaseModel, ConfigDict, Field, ValidationInfo, field_validator


class _Body(BaseModel):
    model_config = ConfigDict(strict=True, extra="ignore", allow_inf_nan=False)


class TextPart(_Body):
    type: Literal["text"]
    text: str


class Message(_Body):
    role: Literal["system", "developer", "user", "assistant", "tool"]
    content: str | list[TextPart] | None = None

    @field_validator("content", mode="before")
    @classmethod
    def _text_only(cls, content: object) -> object:
        for part in content if isinstance(content, list) else ():
            if isinstance(part, dict) and part.get("type") != "text":
                raise ValueError(f"only text parts are supported, not {part.get('type')!r}")
        return content

    def text(self) -> str:
        if isinstance(self.content, list):
            return "".join(part.text for part in self.content)
        return self.content or ""


class StreamOptions(_Body):
    include_usage: bool | None = False


class Sampling(_Body):
    model: str
    max_tokens: int | None = Field(None, ge=1)
    temperature: float | None = None
    top_p: float | None = None
    seed: int | None = None
    stop: str | list[str] | None = Field(None)
    frequency_penalty: float | None = None
    presence_penalty: float | None = None
    n: int | None = 1
    stream: bool | None = False
    stream_options: StreamOptions | None = None
    logprobs: bool | int | None = None
    logit_bias: dict[str, float] | None = None

    @field_validator("logprobs", "logit_bias")
    @classmethod
    def _not_offered(cls, value: object, info: ValidationInfo) -> object:
        if value:  # None, false, 0 and {} ask for nothing
            raise ValueError(f"{info.field_name} is not supported: the answer is text alone")
        return value

    @field_validator("n")
    @classmethod
    def _one_choice(cls, n: int | None) -> int | None:
        if n not in (1, None):
            raise ValueError("only n=1 is supported: each request gives one choice")
        return n

    @field_validator("stop")
    @classmethod
    def _four_stops(cls, stop: str | list[str] | None) -> str | list[str] | None:
        if isinstance(stop, list) and len(stop) > 4:
            raise ValueError("at most 4 stop sequences")
        return stop

    def stops(self) -> list[str]:
        """The stop strings; an empty one asks for nothing."""
        return [stop for stop in ([self.stop] if isinstance(self.stop, str) else self.stop or []) if stop]

    def token_limit(self) -> int | None:
        return self.max_tokens


class ResponseFormat(_Body):
    type: Literal["text"]


class ChatRequest(Sampling):
    messages: list[Message] = Field(min_length=1)
    max_completion_tokens: int | None = Field(None, ge=1)
    response_format: ResponseFormat | None = None
    tool_choice: str | dict[str, Any] | None = None
    tools: list[dict[str, Any]] | None = None

    @field_validator("tool_choice")
    @classmethod
    def _no_forced_call(cls, choice: str | dict[str, Any] | None) -> object:
        if isinstance(choice, dict) or choice == "required":
            raise ValueError("tool calls are not supported: the models answer in text alone")
        return choice

    @field_validator("tools")
    @classmethod
    def _no_tools(cls, tools: list[dict[str, Any]] | None, info: ValidationInfo) -> object:
        if tools and info.data.get("tool_choice") != "none":  # tools the model may not call ask for nothing
            raise ValueError("tool calls are not supported: the models answer in text alone (or send tool_choice "
                             "\"none\")")
        return tools

    def token_limit(self) -> int | None:
        return self.max_completion_tokens if self.max_completion_tokens is not None else self.max_tokens


class CompletionRequest(Sampling):
    prompt: str | list[str]
    echo: Literal[False] | None = False
    suffix: None = None
    best_of: Literal[1] | None = 1

    @field_validator("prompt", mode="before")
    @classmethod
    def _text_prompt(cls, prompt: object) -> object:
        if isinstance(prompt, list) and prompt and not isinstance(prompt[0], str):
            raise ValueError("give the prompt as text: token ids are not taken")
        return prompt

    @field_validator("prompt")
    @classmethod
    def _one_prompt(cls, prompt: str | list[str]) -> str | list[str]:
        if isinstance(prompt, list) and len(prompt) != 1:
            raise ValueError("give one prompt: a string or a list of one string")
        return prompt

    def text(self) -> str:
        return self.prompt if isinstance(self.prompt, str) else self.prompt[0]
