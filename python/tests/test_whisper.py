import shutil
import subprocess
import threading

import numpy as np
import pytest

import velmora

SILENCE = np.zeros(16000, np.float32)


def test_transcribes_an_array_or_a_list_into_text(whisper, counting):
    api = counting(whisper)
    text = whisper.transcribe(SILENCE)
    assert isinstance(text, str) and text
    assert whisper.transcribe(SILENCE.tolist()) == text
    assert whisper.transcribe(SILENCE.astype(np.float64)) == text
    assert [r[0] for r in api.released] == ["FreeQueryResult"] * 3
    with pytest.raises(ValueError):
        whisper.transcribe(np.zeros((2, 8000), np.float32))


@pytest.mark.skipif(not (shutil.which("espeak-ng") and shutil.which("sox")), reason="needs espeak-ng and sox")
def test_real_speech_is_transcribed(library, models, tmp_path):
    wav, raw = tmp_path / "s.wav", tmp_path / "s.f32"
    subprocess.run(["espeak-ng", "-w", wav, "Good morning, how are you today?"], check=True)
    subprocess.run(["sox", wav, "-r", "16000", "-c", "1", "-b", "32", "-e", "float", "-t", "raw", raw], check=True)
    with velmora.WhisperModel(models / "whisper-base", library=library) as model:
        text = model.transcribe(np.fromfile(raw, np.float32))
    assert "good morning" in text.lower(), text


def test_cancel_ends_a_transcription_early(whisper):
    whisper.config["max_new_tokens"] = 400
    full = whisper.transcribe(SILENCE)
    # A cancel landing before the run starts is forgotten by it: only repeating
    # makes one land inside the run without timing guesses.
    result = []
    worker = threading.Thread(target=lambda: result.append(whisper.transcribe(SILENCE)))
    worker.start()
    while worker.is_alive():
        whisper.cancel()
        worker.join(0.02)
    assert len(result[0]) < len(full)


def test_failures_carry_the_library_message(whisper):
    assert "language" not in whisper.config
    whisper.config["language"] = "<|en|>"
    assert whisper.config["language"] == "<|en|>" and whisper.config["is_multilingual"] is True
    whisper.lang_to_id = {}  # "<|en|>" no longer has an id
    with pytest.raises(velmora.VelmoraError, match="^QueryModel failed with status 1: Failed to validate config: "):
        whisper.transcribe(SILENCE)


def test_language_map_and_suppression_lists_round_trip_and_release(whisper, counting):
    api = counting(whisper)
    languages = whisper.lang_to_id
    assert languages["<|en|>"] and list(languages) == sorted(languages)
    freed = api.released[:]
    keys = [r for r in freed if r[0] == "FreeQueryResult"]
    assert len(keys) == len(languages) and len({r[1] for r in keys}) == len(keys)
    assert freed[-1][0] == "FreeLangToId"

    whisper.lang_to_id = [("b", 2), ("a", 1), ("a", 9), ("", 0)]
    assert list(whisper.lang_to_id.items()) == [("", 0), ("a", 1), ("b", 2)]
    whisper.suppress_tokens = [5, 5, 3]
    whisper.begin_suppress_tokens = []
    assert whisper.suppress_tokens == [5, 5, 3] and whisper.begin_suppress_tokens == []
    assert api.released[-1][0] == "FreeSuppressTokens"
