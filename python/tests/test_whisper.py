import asyncio
import ctypes

import numpy as np
import pytest

SILENCE = np.zeros(16000, np.float32)


def test_samples_reach_the_library_as_float32(whisper):
    sent, query = [], whisper._api.QueryModel
    whisper._api.QueryModel = lambda handle, samples, count, out: \
        sent.append(ctypes.string_at(samples, 4 * count)) or query(handle, samples, count, out)
    ramp = np.linspace(-1, 1, 16000)
    pcm = (ramp * 32767).astype(np.int16)
    for audio in (SILENCE, ramp.tolist(), pcm):
        assert isinstance(whisper.transcribe(audio), str)
    assert sent == [SILENCE.tobytes(), ramp.astype(np.float32).tobytes(), (pcm / 32768).astype(np.float32).tobytes()]
    assert [r[0] for r in whisper._api.released] == ["FreeQueryResult"] * 3
    with pytest.raises(TypeError, match="int16 PCM, not int32"):
        whisper.transcribe(np.zeros(16000, np.int32))
    for audio, text in [(np.zeros((2, 8000), np.float32), "audio must be one channel"),
                        ([], "audio holds 0 samples"), (np.full(200, 0.1), "audio holds 200 samples"),
                        (np.zeros(100, np.int16), "audio holds 100 samples"),
                        (np.array([0.0] * 300 + [np.nan]), "audio holds NaN or infinite samples .* at index 300"),
                        (np.full(300, np.inf, np.float32), "audio holds NaN or infinite")]:
        with pytest.raises(ValueError, match=f"^{text}"):
            whisper.transcribe(audio)


def test_language_map_and_suppression_lists_round_trip_and_release(whisper):
    languages = whisper.lang_to_id
    keys = [r for r in whisper._api.released if r[0] == "FreeQueryResult"]
    assert languages["<|en|>"] and len(keys) == len(languages) == len({r[1] for r in keys})
    assert whisper._api.released[-1][0] == "FreeLangToId"

    whisper.lang_to_id = [("", 0), ("a", 1), ("é", 2)]
    assert list(whisper.lang_to_id.items()) == [("", 0), ("a", 1), ("é", 2)]
    whisper.suppress_tokens = [5, 5, 3]
    whisper.begin_suppress_tokens = []
    assert whisper.suppress_tokens == [5, 5, 3] and whisper.begin_suppress_tokens == []
    pytest.raises(ValueError, setattr, whisper, "lang_to_id", {"a": 2**64})  # would wrap to 0
    pytest.raises(FileNotFoundError, whisper.transcribe_file, "missing.wav")
    pytest.raises(IsADirectoryError, whisper.transcribe_file, "/")
    assert whisper._api.released[-1][0] == "FreeSuppressTokens"

    for name, value in [("language", "<|en|>"), ("task", "transcribe it")]:  # the runtime would refuse them later
        with pytest.raises(ValueError, match=f"^{name} takes "):
            whisper.config[name] = value
    whisper.config["return_timestamps"] = True  # with fewer than 2 new tokens the runtime would never end
    with pytest.raises(ValueError, match="needs max_new_tokens of 2 or more"):
        whisper.config["max_new_tokens"] = 1
    pytest.raises(ValueError, whisper.config.set_text, "max_new_tokens", " +01x")  # read as 1 all the same
    whisper.config["return_timestamps"] = False
    whisper.config.set_text("language", "<|en|>")  # the raw path still sends it
    assert whisper.config.text("language") == "<|en|>"


def test_language_and_task_go_back_to_detection_with_everything_else_kept(whisper):
    whisper.config.update(language="<|fr|>", task="translate", max_initial_timestamp_index=7)
    whisper.config.set_text("max_length", "-1")  # no limit: more than the library's text takes back
    whisper.suppress_tokens, languages = [7, 7, 1], whisper.lang_to_id
    del whisper.config["language"]
    whisper.config["task"] = None
    assert "language" not in whisper.config and "task" not in whisper.config
    assert whisper.config["max_new_tokens"] == 8 and whisper.config["max_initial_timestamp_index"] == 7
    assert whisper.config["max_length"] == 2**64 - 1
    assert whisper.suppress_tokens == [7, 7, 1] and whisper.lang_to_id == languages
    assert asyncio.run(whisper.atranscribe(SILENCE)) == whisper.transcribe(SILENCE)
    pytest.raises(KeyError, whisper.config.__delitem__, "language")
    pytest.raises(TypeError, whisper.config.__delitem__, "max_length")
