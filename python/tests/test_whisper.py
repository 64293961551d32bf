import ctypes

import numpy as np
import pytest

import velmora

SILENCE = np.zeros(16000, np.float32)


def test_samples_reach_the_library_as_float32(whisper, counting):
    api = counting(whisper)
    sent = []
    query = api.QueryModel
    api.QueryModel = lambda handle, samples, count, out: sent.append(ctypes.string_at(samples, 4 * count)) or \
        query(handle, samples, count, out)
    text = whisper.transcribe(SILENCE)
    assert isinstance(text, str) and text
    ramp = np.linspace(-1, 1, 16000)
    pcm = (ramp * 32767).astype(np.int16)
    whisper.transcribe(ramp.tolist())
    whisper.transcribe(pcm)
    assert sent[1:] == [ramp.astype(np.float32).tobytes(), (pcm / 32768).astype(np.float32).tobytes()]
    assert [r[0] for r in api.released] == ["FreeQueryResult"] * 3

    with pytest.raises(TypeError, match="int16 PCM, not int32"):
        whisper.transcribe(np.zeros(16000, np.int32))
    with pytest.raises(ValueError):
        whisper.transcribe(np.zeros((2, 8000), np.float32))


def test_audio_files_are_mixed_down_and_resampled(whisper, tmp_path):
    soundfile = pytest.importorskip("soundfile")
    pytest.importorskip("soxr")
    rate, seconds = 44100, 1.5
    t = np.arange(int(rate * seconds)) / rate
    tone = 0.5 * np.sin(2 * np.pi * 440 * t)
    soundfile.write(tmp_path / "tone.flac", np.stack([tone, 0.5 * tone], axis=1), rate)  # stereo

    samples = velmora.read_audio(tmp_path / "tone.flac")
    assert samples.dtype == np.float32 and abs(samples.size - seconds * 16000) <= 2
    spectrum = np.abs(np.fft.rfft(samples))
    assert abs(np.argmax(spectrum) * 16000 / samples.size - 440) < 2  # the pitch is kept
    assert abs(np.max(np.abs(samples[1000:-1000])) - 0.375) < 0.01  # the mean of both channels
    assert isinstance(whisper.transcribe_file(tmp_path / "tone.flac"), str)


def test_failures_carry_the_library_message(whisper):
    whisper.config["language"] = "<|en|>"
    whisper.lang_to_id = {}  # "<|en|>" no longer has an id
    with pytest.raises(velmora.VelmoraError, match="^QueryModel failed with status 1: Failed to validate config: "):
        whisper.transcribe(SILENCE)


def test_language_map_and_suppression_lists_round_trip_and_release(whisper, counting):
    api = counting(whisper)
    languages = whisper.lang_to_id
    assert languages["<|en|>"]
    freed = api.released[:]
    keys = [r for r in freed if r[0] == "FreeQueryResult"]
    assert len(keys) == len(languages) and len({r[1] for r in keys}) == len(keys)
    assert freed[-1][0] == "FreeLangToId"

    whisper.lang_to_id = [("", 0), ("a", 1), ("é", 2)]
    assert list(whisper.lang_to_id.items()) == [("", 0), ("a", 1), ("é", 2)]
    whisper.suppress_tokens = [5, 5, 3]
    whisper.begin_suppress_tokens = []
    assert whisper.suppress_tokens == [5, 5, 3] and whisper.begin_suppress_tokens == []
    assert api.released[-1][0] == "FreeSuppressTokens"
