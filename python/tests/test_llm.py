import asyncio
import ctypes
import gc
import os
import random
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
    question = [{"role": "user", "content": "What is the capital of France?"}]
    assert llm.chat(question, stream=True).text() == llm.chat(question) == llm.generate(llm.chat_prompt(question))

    def split(handle, prompt, on_text):  # a character cut between two pieces arrives whole
        on_text(b"c\xc3"), on_text(b"\xa9!")
        return 0

    llm._api.StreamModel = split
    assert list(llm.stream(PROMPT)) == ["c", "é!"]


def test_a_long_stream_ends_when_it_is_left(llm):
    llm.config["ignore_eos"] = True
    llm.config["max_new_tokens"] = 50000  # a minute or more when not cancelled
    start = time.monotonic()
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
    for call in (llm.generate, llm.stream):
        with pytest.raises(ValueError, match="the model is closed"):
            call(PROMPT)


def test_awaited_calls_answer_alike_and_a_cancelled_task_leaves_the_model_idle(llm):
    async def main():
        text = await llm.agenerate(PROMPT)
        assert text == llm.generate(PROMPT) == await llm.astream(PROMPT).text()
        llm.config.update(ignore_eos=True, max_new_tokens=50000)  # a minute or more when not cancelled
        start = time.monotonic()
        async with llm.astream(PROMPT) as stream:
            async for _ in stream:
                break
        assert not stream_threads()
        for work in (llm.agenerate(PROMPT), llm.astream(PROMPT).text()):
            task = asyncio.ensure_future(work)
            await asyncio.sleep(0.3)
            task.cancel()
            with pytest.raises(asyncio.CancelledError):
                await task
            assert not stream_threads()
        llm.config["max_new_tokens"] = 2
        assert await llm.agenerate("Hi") and time.monotonic() - start < 20  # nothing left running
        llm.config["max_new_tokens"] = 2000  # about two seconds
        full = llm.generate(PROMPT)
        running = asyncio.ensure_future(llm.agenerate(PROMPT))
        await asyncio.sleep(0.2)
        waiting = asyncio.ensure_future(llm.agenerate(PROMPT))
        await asyncio.sleep(0.2)
        waiting.cancel()  # its own call only, not the one it waits for
        assert await running == full
        with pytest.raises(asyncio.CancelledError):
            await waiting
    asyncio.run(main())


def test_failures_carry_the_library_status_and_message(library, models, llm, tmp_path):
    for family in (velmora.LlmModel, velmora.WhisperModel):  # one line naming the path, either family
        with pytest.raises(FileNotFoundError, match=f"^cannot load model: '{models}/missing' does not exist$"):
            family(models / "missing", library=library)
        with pytest.raises(velmora.VelmoraError, match=f"^cannot load model '{tmp_path}': [^\n]+$") as failure:
            family(tmp_path, library=library)
        assert failure.value.status is velmora.Status.FAILED and failure.value.message  # the full text is kept

    with pytest.raises(velmora.VelmoraError) as failure:
        llm._run("QueryModel", llm._api.QueryModel, llm.handle, b"", ctypes.byref(ctypes.c_void_p()))
    assert str(failure.value) == "QueryModel failed with status 4: An OpenVINO assertion occurred while querying " \
                                 "the model: Prompt length cannot be 0"
    assert failure.value.status is velmora.Status.QUERY_ASSERTION
    assert "Check 'prompt_len > 0' failed at" in failure.value.message
    for call, error, text in [(lambda: llm.generate(42), TypeError, "prompt takes a str, not int"),
                              (lambda: llm.generate(""), ValueError, "prompt is empty"),
                              (lambda: llm.generate("\ud800"), ValueError, "prompt is not valid text"),
                              (lambda: llm.generate(b"Hi"), TypeError, "prompt takes a str, not bytes"),
                              (lambda: velmora.LlmModel("", library=library), FileNotFoundError, "cannot load model: "),
                              (lambda: velmora.LlmModel(models / "tiny-llm", context_length=2**32, library=library),
                               ValueError, "context_length takes an int from 1 to 2147483647"),
                              (lambda: llm.stream(""), ValueError, "prompt is empty"),
                              (lambda: llm.chat("hello"), TypeError, "messages takes a list of"),
                              (lambda: llm.chat([("user", "hi")]), TypeError, r"messages\[0\] must be a dict"),
                              (lambda: setattr(llm, "stop_strings", ["a", 1]), TypeError, r"stop_strings\[1\] takes a str"),
                              (lambda: setattr(llm, "stop_token_ids", []), ValueError, "stop_token_ids must hold the end-of-text"),
                              (lambda: llm.config.update(eos_token_id=7), ValueError, "eos_token_id 7 is not among stop_token_ids"),
                              (lambda: llm.config.update(stop_criteria="SOON"), ValueError, "stop_criteria takes one of")]:
        with pytest.raises(error, match=f"^{text}"):
            call()
    for strings, text in ((["\udc80"], r"stop_strings\[0\] is not valid"), (["a", ""], r"stop_strings\[1\] is empty")):
        pytest.raises(ValueError, setattr, llm, "stop_strings", strings).match(text)
    llm.stop_token_ids = [llm.config["eos_token_id"], 5]
    llm.config["eos_token_id"] = 5
    llm.chat_prompt([{"role": "user", "content": "Hi"}])  # a template of its own that refuses every conversation:
    llm._tokenizer.set_chat_template("{{ raise_exception('Conversation roles must alternate') }}")
    with pytest.raises(ValueError, match="^the model's chat template refused these messages: Conversation roles"):
        llm.chat([{"role": "assistant", "content": "Hi"}])

    # CompileModel reports only through an earlier InitModel's pair, which
    # this process already has: a fresh one shows the package hands it over.
    code = "import sys, velmora; velmora.compile_model(sys.argv[1], 'CPU', 8, library=sys.argv[2])"
    fresh = subprocess.run([sys.executable, "-c", code, models, library.path], capture_output=True,
                           text=True, cwd=velmora.__path__[0] + "/..")
    assert "VelmoraError: CompileModel failed with status 1: An exception occurred while compiling" in fresh.stderr
    velmora.compile_model(models / "tiny-llm", "CPU", 8, library=library)


def test_config_takes_only_what_a_setting_can_hold(llm):
    values = dict(temperature=0.5, do_sample=True, top_k=7, eos_token_id=-1, stop_criteria="NEVER", top_p=1)
    llm.config.update(values)
    assert {name: llm.config[name] for name in values} == values and llm.config["do_sample"] is True
    for name, value, error in [("do_sample", 1, TypeError), ("top_k", True, TypeError), ("top_k", 2.0, TypeError),
                               ("temperature", "hot", TypeError), ("stop_criteria", 0, TypeError),
                               ("max_new_tokens", -5, ValueError), ("top_k", 2**31, ValueError),
                               ("temperature", float("nan"), ValueError), ("temperature", 1e300, ValueError),
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
    llm.stop_token_ids = [-1, 2, 3]  # 2 is the end-of-text id, which must stay
    assert llm.stop_token_ids == [-1, 2, 3]
    llm.stop_strings = []
    assert llm.stop_strings == []
    with pytest.raises(TypeError):
        llm.stop_strings = "abc"
    ids = llm.tokenize("Hello world")
    assert ids and ids == llm.tokenize("Hello world") and llm.tokenize("") == []  # even "" is a buffer
    released = llm._api.released
    assert [r[0] for r in released] == ["FreeStopStrings", "FreeConfigProperty", "FreeStopTokens"] + ["FreeTokens"] * 3
    assert released[0][2].value == 3 and all(r[1] for r in released)



@pytest.mark.parametrize("run", [lambda m: m.generate(PROMPT), lambda m: list(m.stream(PROMPT))], ids=["generate", "stream"])
def test_ctrl_c_at_any_moment_leaves_the_model_idle(llm, monkeypatch, run):
    start = threading.Thread.start

    def start_then_interrupt(thread):  # Ctrl-C right as the slot's worker starts
        start(thread)
        if thread.name.startswith("velmora"):
            signal.raise_signal(signal.SIGINT)

    rng = random.Random(7)
    for attempt in range(int(os.environ.get("VELMORA_CTRL_C_RUNS", 4))):
        llm.config["ignore_eos"] = True
        llm.config["max_new_tokens"] = 50000
        with monkeypatch.context() as patch:
            if attempt == 0:
                patch.setattr(threading.Thread, "start", start_then_interrupt)
            timer = threading.Timer(rng.uniform(0, 0.05), signal.pthread_kill,
                                    (threading.main_thread().ident, signal.SIGINT))
            with pytest.raises(KeyboardInterrupt):
                if attempt:
                    timer.start()
                run(llm)
            timer.cancel()
        llm.config["max_new_tokens"] = 2
        assert not stream_threads() and llm.generate("Hi")


def test_the_chat_command_goes_on_after_ctrl_c_a_failed_turn_and_a_long_conversation(library, models):
    command = [sys.executable, "-m", "velmora", "chat", "--model", models / "tiny-llm", "--library", library.path]
    long = ["--context", "50000", "--set", "ignore_eos=true"]  # a minute or more when not stopped
    with subprocess.Popen(command + long, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as chat:
        chat.stdin.write(b"Hello\n")
        chat.stdin.flush()
        chat.stdout.read(20)  # answering
        chat.send_signal(signal.SIGINT)
        out, err = chat.communicate(b"/reset\n", timeout=30)
    assert chat.returncode == 0 and b"(stopped)" in err and err.endswith(b"(the conversation starts anew)\n")

    def answers(lines, *args):
        return subprocess.run(command + ["--context", "8", *args], input=lines, capture_output=True, text=True)
    # Past --keep tokens the oldest exchange is left out: the last answer is as if asked first.
    assert answers("Hello\nThere\n", "--keep", "1").stdout.split("\n")[1] == answers("There\n").stdout[:-1]
    failed = answers("Hello\nThere\n", "--set", "num_return_sequences=3")
    assert failed.returncode == 1 and failed.stderr.count("velmora chat: StreamModel failed with status 1") == 2
    failed = answers("a\0b\nThere\n")  # a turn the package refuses
    assert failed.returncode == 1 and "NUL character" in failed.stderr and failed.stdout.count("\n") == 1

    # Nothing runs on when the interpreter goes away under the runtime: that crashed the process.
    leave = ("import sys, threading, time, velmora; d, lib = sys.argv[1:]; m, n = [velmora.LlmModel(d, library=lib) "
             "for _ in 'mn']; [x.config.update(ignore_eos=True, max_new_tokens=50000) for x in (m, n)]; "
             "threading.Thread(target=m.generate, args=('Hi',), daemon=True).start(); next(n.stream('Hi')); "
             "time.sleep(0.3)")
    assert subprocess.run([sys.executable, "-c", leave, models / "tiny-llm", library.path]).returncode == 0
