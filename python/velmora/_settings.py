"""The settings each family takes by name, in the library's table order, with
the kind of each, the stop criteria's names, the device codes and the hosts'
default context length. Written by the build tool velmora-settings-table
from the library's own tables and header: the build fails while this file
differs from what it writes."""

LLM: dict[str, str] = {
    "max_new_tokens": "Size",
    "max_length": "Size",
    "ignore_eos": "Bool",
    "min_new_tokens": "Size",
    "include_stop_str_in_output": "Bool",
    "no_repeat_ngram_size": "Size",
    "num_beam_groups": "Size",
    "num_beams": "Size",
    "diversity_penalty": "Float",
    "length_penalty": "Float",
    "num_return_sequences": "Size",
    "stop_criteria": "StopCriteria",
    "temperature": "Float",
    "top_p": "Float",
    "top_k": "Size",
    "do_sample": "Bool",
    "repetition_penalty": "Float",
    "presence_penalty": "Float",
    "frequency_penalty": "Float",
    "rng_seed": "Size",
    "eos_token_id": "Integer",
}

WHISPER: dict[str, str] = {
    "max_length": "Size",
    "max_new_tokens": "Size",
    "decoder_start_token_id": "Integer",
    "eos_token_id": "Integer",
    "pad_token_id": "Integer",
    "translate_token_id": "Integer",
    "transcribe_token_id": "Integer",
    "no_timestamps_token_id": "Integer",
    "max_initial_timestamp_index": "Size",
    "is_multilingual": "Bool",
    "language": "Text",
    "task": "Text",
    "return_timestamps": "Bool",
}

STOP_CRITERIA: tuple[str, ...] = ("EARLY", "HEURISTIC", "NEVER")

DEVICES: dict[str, int] = {"CPU": 0, "GPU": 1, "NPU": 2}

DEFAULT_CONTEXT_LENGTH: int = 256
