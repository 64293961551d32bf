import gc
import signal
import subprocess
import sys
import threading
import time

import pytest

import velmora

PROMPT = "Once upon a time"


def stream_threads():
    return [t for t in threading.enumerate() if t.name == "velmora-stream"]


def test_stream_pieces_make_up_the_generated_text_and_every_text_is_released(llm):
    text = llm.generate(PROMPT)
    pieces = list(llm.stream(PROMPT))
    assert len(pieces) > 4 and "".join(pieces) == text
    assert [r[0] for r in llm._api.released] == ["FreeQueryResult"]


def test_a_long_generation_ends_at_ctrl_c_and_when_its_stream_is_left(llm):
    llm.config["ignore_eos"] = True
    llm.config["max_new_tokens"] = 50000  # a minute or more when not cancelled
    start = time.monotonic()
    threading.Timer(0.5, signal.pthread_kill, (threading.main_thread().ident, signal.SIGINT)).start()
    with pytest.raises(KeyboardInterrupt):
        llm.generate(PROMPT)

    for _ in llm.stream(PROMPT):
        break
    gc.collect()
    assert not stream_threads()
    kept = llm.stream(PROMPT)  # still referenced: the next call ends it
    next(kept)
    llm.config["max_new_tokens"] = 50000
    assert not stream_threads() and list(kept) == []
    kept = llm.stream(PROMPT)
    next(kept)
    llm.close()
    assert not stream_threads() and llm.closed
    assert time.monotonic() - start < 20
    with pytest.raises(ValueError):
        llm.generate(PROMPT)


def test_chat_renders_the_model_template(library, models):
    question = [{"role": "user", "content": "What is the capital of France?"}]
    with velmora.LlmModel(models / "smollm2", library=library) as model:
        model.config["max_new_tokens"] = 16
        assert "Paris" in model.chat(question) and "Paris" in model.chat(question, stream=True).text()


def test_failures_carry_the_library_status_and_message(library, models, llm):
    with pytest.raises(velmora.VelmoraError) as failure:
        velmora.LlmModel(models / "missing", library=library)
    assert failure.value.status == 1 and "not a directory" in failure.value.message

    llm.config["num_return_sequences"] = 3  # more than num_beams: stored, refused when generating
    stream = llm.stream(PROMPT)
    with pytest.raises(velmora.VelmoraError, match="^StreamModel failed with status 1: Failed to validate config"):
        next(stream)
    assert not stream_threads()

    # CompileModel reports only through an earlier InitModel's pair, which
    # this process already has: a fresh one shows the package hands it over.
    code = "import sys, velmora; velmora.compile_model(sys.argv[1], 'CPU', 0, library=sys.argv[2])"
    fresh = subprocess.run([sys.executable, "-c", code, models / "tiny-llm", library.path], capture_output=True,
                           text=True, cwd=velmora.__path__[0] + "/..")
    assert "VelmoraError: CompileModel failed with status 1: An exception occurred while compiling" in fresh.stderr
    velmora.compile_model(models / "tiny-llm", "CPU", 8, library=library)


def test_config_takes_only_what_a_setting_can_hold(llm):
    values = dict(temperature=0.5, do_sample=True, top_k=7, eos_token_id=-5, stop_criteria="NEVER", top_p=1)
    llm.config.update(values)
    assert {name: llm.config[name] for name in values} == values and llm.config["do_sample"] is True
    for name, value, error in [("do_sample", 1, TypeError), ("top_k", True, TypeError), ("top_k", 2.0, TypeError),
                               ("temperature", "hot", TypeError), ("stop_criteria", 0, TypeError),
                               ("max_new_tokens", -5, ValueError), ("top_k", 2**31, ValueError),
                               ("eos_token_id", -2**31 - 1, ValueError)]:
        with pytest.raises(error, match=f"^{name} takes "):
            llm.config[name] = value
    assert llm.config["max_new_tokens"] == 16 and llm.config["do_sample"] is True
    with pytest.raises(velmora.PropertyError, match="invalid stoi"):
        llm.config.set_text("top_k", "many")
    assert "seed" not in llm.config and llm.config.get("seed", 5) == 5
    pytest.raises(TypeError, llm.config.__delitem__, "top_k")


def test_stop_lists_and_token_ids_round_trip_and_every_buffer_is_released(llm):
    llm.stop_strings = ["a", "b", "é"]
    assert llm.stop_strings == ["a", "b", "é"]
    llm.stop_token_ids = [-1, 2, 3]
    assert llm.stop_token_ids == [-1, 2, 3]
    llm.stop_strings = []
    assert llm.stop_strings == []
    with pytest.raises(TypeError):
        llm.stop_strings = "abc"
    ids = llm.tokenize("Hello world")
    assert ids and ids == llm.tokenize("Hello world") and llm.tokenize("") == []  # even "" is a buffer
    released = llm._api.released
    assert [r[0] for r in released] == ["FreeStopStrings", "FreeStopTokens"] + ["FreeTokens"] * 3
    assert released[0][2].value == 3 and all(r[1] for r in released)
