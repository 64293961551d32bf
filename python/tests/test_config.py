import pytest

import velmora


def test_typed_tables_match_the_library(llm, whisper):
    # Each typed name is one the library reads, and takes back through its
    # kind; each family has as many as the library documents.
    for model, table, count in ((llm, velmora.config.LLM_SETTINGS, 21),
                                (whisper, velmora.config.WHISPER_SETTINGS, 13)):
        assert len(table) == count
        whisper.config["language"], whisper.config["task"] = "<|en|>", "transcribe"  # absent until set
        for name in table:
            value = model.config[name]
            model.config[name] = min(value, 2**31 - 1) if type(value) is int else value
        with pytest.raises(velmora.PropertyError):
            model.config.text("top_k_")
