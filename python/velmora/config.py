"""Generation settings of a model as a mutable mapping.

Reads go through GetConfigProperty and are converted from the library's text
by the kind of the setting (bool, int, float, str); `config.text(name)` gives
the library's text unchanged. Writes accept Python values and send their text
form to SetConfigProperty (bools as "true"/"false", numbers with str()).
A refused name or value raises PropertyError, a KeyError, with the library's
message. Settings cannot be deleted."""
from collections.abc import MutableMapping

_PARSE = {
    bool: lambda text: text == "true",
    int: int,
    float: float,
    str: lambda text: text,
}

LLM_SETTINGS = {
    "diversity_penalty": float, "do_sample": bool, "eos_token_id": int, "frequency_penalty": float,
    "ignore_eos": bool, "include_stop_str_in_output": bool, "length_penalty": float, "max_length": int,
    "max_new_tokens": int, "min_new_tokens": int, "no_repeat_ngram_size": int, "num_beams": int,
    "num_beam_groups": int, "num_return_sequences": int, "presence_penalty": float,
    "repetition_penalty": float, "rng_seed": int, "stop_criteria": str, "temperature": float,
    "top_k": int, "top_p": float,
}

WHISPER_SETTINGS = {
    "max_length": int, "max_new_tokens": int, "decoder_start_token_id": int, "eos_token_id": int,
    "pad_token_id": int, "translate_token_id": int, "transcribe_token_id": int,
    "no_timestamps_token_id": int, "max_initial_timestamp_index": int, "is_multilingual": bool,
    "language": str, "task": str, "return_timestamps": bool,
}


def value_text(value):
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, (int, float)):
        return str(value)
    if isinstance(value, str):
        return value
    raise TypeError(f"a setting takes a bool, int, float or str, not {type(value).__name__}")


class Config(MutableMapping):
    """Iterates over the settings the model currently has (an optional text
    such as Whisper's "language" is left out while it is absent)."""

    def __init__(self, model, kinds):
        self._model = model
        self._kinds = kinds

    def text(self, name):
        return self._model._get_property(name)

    def __getitem__(self, name):
        text = self.text(name)
        return _PARSE[self._kinds.get(name, str)](text)

    def __setitem__(self, name, value):
        self._model._set_property(name, value_text(value))

    def __delitem__(self, name):
        raise TypeError("generation settings cannot be removed")

    def __iter__(self):
        for name in self._kinds:
            if name in self:
                yield name

    def __len__(self):
        return sum(1 for _ in self)

    def __repr__(self):
        return f"{type(self).__name__}({dict(self)!r})"
