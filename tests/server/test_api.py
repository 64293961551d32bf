"""The server through the OpenAI client, curl and raw HTTP."""
import concurrent.futures
import io
import json
import subprocess
import threading
import time
import wave

import httpx2 as httpx
import openai
import pytest

import velmora

CHAT = [{"role": "user", "content": "What is the capital of France?"}]


@pytest.fixture(scope="module")
def server(serve, models):
    with serve("--llm", models / "tiny-llm", "--whisper", f"speech={models / 'whisper-base'}", "--context", 64,
               "--max-body-mb", 1, "--api-key", "sesame", "--cors-origin", "http://app.test") as (url, _):
        yield url


@pytest.fixture(scope="module")
def client(server):
    return openai.OpenAI(base_url=server + "/v1", api_key="sesame", max_retries=0)


@pytest.fixture(scope="module")
def direct(request, models):
    """The same model driven by the package in this process: what the server must give."""
    with velmora.LlmModel(models / "tiny-llm", library=request.config.getoption("--library")) as model:
        yield model


def test_answers_match_the_package(client, direct):
    assert [m.id for m in client.models.list()] == ["tiny-llm", "speech"]
    assert client.models.retrieve("speech").id == "speech"
    direct.config["max_new_tokens"] = 6
    expected = direct.generate(direct.chat_prompt(CHAT))
    chat = client.chat.completions.create(model="tiny-llm", messages=CHAT, max_tokens=6)
    assert chat.choices[0].message.content == expected
    assert chat.usage.prompt_tokens == len(direct.tokenize(direct.chat_prompt(CHAT)))
    assert chat.usage.completion_tokens == len(direct.tokenize(expected))
    pieces = list(client.chat.completions.create(model="tiny-llm", messages=CHAT, max_tokens=6, stream=True,
                                                 stream_options={"include_usage": True}))
    assert "".join(c.choices[0].delta.content or "" for c in pieces if c.choices) == expected
    assert pieces[-2].choices[0].finish_reason == chat.choices[0].finish_reason and pieces[-1].usage == chat.usage

    completion = client.completions.create(model="tiny-llm", prompt="Once upon a time", max_tokens=5)
    direct.config["max_new_tokens"] = 5
    assert completion.choices[0].text == direct.generate("Once upon a time")
    assert completion.usage.prompt_tokens == len(direct.tokenize("Once upon a time"))
    assert completion.choices[0].finish_reason == "length"  # the random model does not end by itself


def test_pages_of_the_given_origin_may_call_it(server):
    asked = {"Origin": "http://app.test", "Access-Control-Request-Method": "POST",
             "Access-Control-Request-Headers": "authorization,content-type"}
    preflight = httpx.options(server + "/v1/chat/completions", headers=asked)
    assert preflight.status_code == 200 and preflight.headers["access-control-allow-origin"] == "http://app.test"
    assert httpx.head(server + "/health").status_code == 200
    elsewhere = httpx.options(server + "/v1/chat/completions", headers={**asked, "Origin": "http://other.test"})
    assert elsewhere.status_code == 400 and "access-control-allow-origin" not in elsewhere.headers


def test_raw_event_stream(server):
    out = subprocess.run(["curl", "-sN", "-i", server + "/v1/completions", "-H", "Authorization: Bearer sesame",
                          "-H", "Content-Type: application/json",
                          "-d", json.dumps({"model": "tiny-llm", "prompt": "Hello", "max_tokens": 3, "stream": True})],
                         capture_output=True, text=True, timeout=60, check=True).stdout
    head, _, body = out.partition("\n\n")  # text mode made each CRLF a LF
    assert "content-type: text/event-stream" in head.lower()
    events = body.strip().split("\n\n")
    assert all(e.startswith("data: ") for e in events) and events[-1] == "data: [DONE]"
    assert json.loads(events[-2][6:])["choices"][0]["finish_reason"] in ("stop", "length")


def test_transcription(client, tmp_path):
    subprocess.run(["espeak-ng", "-w", tmp_path / "fox.wav", "The quick brown fox jumps over the lazy dog."],
                   check=True)
    subprocess.run(["sox", "-R", tmp_path / "fox.wav", "-r", "44100", "-c", "2", tmp_path / "fox.flac"], check=True)
    with open(tmp_path / "fox.flac", "rb") as audio:
        text = client.audio.transcriptions.create(model="speech", file=audio, language="en").text
    assert {"fox", "lazy", "dog"} <= set(text.lower().replace(".", "").split())
    subprocess.run(["espeak-ng", "-v", "de", "-w", tmp_path / "de.wav", "Ich trinke jeden Morgen eine Tasse Kaffee."],
                   check=True)
    with open(tmp_path / "de.wav", "rb") as audio:  # the accent would be taken for English
        assert "coffee" in client.audio.translations.create(model="speech", file=audio,
                                                            extra_body={"language": "de"}).text.lower()
    with open(tmp_path / "fox.wav", "rb") as audio:
        german = client.audio.transcriptions.create(model="speech", file=audio, language="de").text
        audio.seek(0)
        verbose = client.audio.transcriptions.create(model="speech", file=audio, response_format="verbose_json")
    # Neither the language nor the task of the requests before stays on the handle.
    assert german != verbose.text and "dog" in verbose.text
    assert verbose.duration == pytest.approx(2.7, abs=0.5)


def test_bad_input_gets_the_error_object(client, server, tmp_path):
    def refused(error, **request):
        with pytest.raises(error) as caught:
            client.chat.completions.create(**{"model": "tiny-llm", "messages": CHAT, "max_tokens": 4, **request})
        return caught.value

    assert refused(openai.NotFoundError, model="gpt-4").code == "model_not_found"
    with pytest.raises(openai.NotFoundError):
        client.models.retrieve("gpt-4")
    assert refused(openai.BadRequestError, messages=[]).param == "messages"
    assert "n: only n=1 is supported" in refused(openai.BadRequestError, n=2).message
    # Ignored, these would change what the answer means.
    assert refused(openai.BadRequestError, tools=[{"type": "function", "function": {"name": "f"}}]).param == "tools"
    assert refused(openai.BadRequestError, response_format={"type": "json_object"}).param == "response_format.type"
    assert refused(openai.BadRequestError, max_tokens=-1).param == "max_tokens"
    assert refused(openai.BadRequestError, max_tokens=10**12).code == "context_length_exceeded"
    long = [{"role": "user", "content": "word " * 200}]
    assert refused(openai.BadRequestError, messages=long).param == "messages"
    assert refused(openai.BadRequestError, messages=[{"role": "user", "content": "a\0b"}]).param == "messages"
    picture = [{"role": "user", "content": [{"type": "image_url", "image_url": {"url": "data:,"}}]}]
    assert refused(openai.BadRequestError, messages=picture).param == "messages.0.content"
    with pytest.raises(openai.BadRequestError, match="the prompt is empty"):
        client.completions.create(model="tiny-llm", prompt="", max_tokens=2)
    assert refused(openai.BadRequestError, seed=-1).message.endswith("rng_seed takes an int from 0 to 2147483647, not -1")
    # The runtime's own words for a value it refuses.
    assert "temperature must be a strictly positive float" in refused(openai.BadRequestError, temperature=-1).message
    with pytest.raises(openai.AuthenticationError):
        openai.OpenAI(base_url=server + "/v1", api_key="guess", max_retries=0).models.list()
    short = io.BytesIO()
    with wave.open(short, "wb") as audio:  # 200 samples: the model takes one more
        audio.setparams((1, 2, 16000, 0, "NONE", "")), audio.writeframes(bytes(400))
    for name, content in (("a.wav", b""), ("a.wav", b"not audio at all"), ("a." + "x" * 300, short.getvalue())):
        with pytest.raises(openai.BadRequestError) as caught:
            client.audio.transcriptions.create(model="speech", file=(name, content))
        assert caught.value.param == "file"

    auth = {"Authorization": "Bearer sesame"}
    for body, status in ((b"{not json", 400), (b"x" * (2 * 2**20), 413)):
        answer = httpx.post(server + "/v1/chat/completions", content=body, headers=auth, timeout=30)
        assert answer.status_code == status and set(answer.json()["error"]) == {"message", "type", "param", "code"}
    form = {**auth, "Content-Type": "application/x-www-form-urlencoded"}  # what curl -d sends
    answer = httpx.post(server + "/v1/completions", content=json.dumps({"model": "tiny-llm", "prompt": "Hi"}), headers=form)
    assert "Content-Type: application/json" in answer.json()["error"]["message"]
    # Still serving, and every refusal counted.
    assert client.chat.completions.create(model="tiny-llm", messages=CHAT, max_tokens=2).choices[0].message.content
    metrics = httpx.get(server + "/metrics", headers=auth).text
    assert 'velmora_requests_total{endpoint="/v1/chat/completions",status="400"} 12.0' in metrics
    assert 'velmora_queue_depth{model="tiny-llm"} 0.0' in metrics


def test_settings_do_not_leak(client):
    def ask(**settings):
        return client.completions.create(model="tiny-llm", prompt="Once upon a time", max_tokens=12,
                                         **settings).choices[0].text

    greedy = ask()
    inside = greedy[2:4]  # within a token, which the runtime would let through
    assert ask(stop=["zzzz", inside], n=None) == greedy[:greedy.index(inside)]
    seeded = ask(temperature=1.5, seed=7)
    # Two callers taking turns on the one handle: each gets its own answer back.
    assert [ask(), ask(temperature=1.5, seed=7), ask(), ask(temperature=1.5, seed=8)][:3] == [greedy, seeded, greedy]
    assert seeded != greedy


@pytest.fixture(scope="module")
def pair(serve, models):
    with serve("--llm", models / "tiny-llm", "--parallel", 2, "--queue", 4, "--context", 100000) as (url, _):
        yield url


def test_queue_answers_or_refuses_at_once(pair):
    start = threading.Barrier(8)

    def ask(_):
        start.wait()
        begun = time.monotonic()
        answer = httpx.post(pair + "/v1/completions", timeout=300, json={"model": "tiny-llm", "prompt": "Once",
                                                                         "max_tokens": 300})
        return answer, begun, time.monotonic()

    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        results = list(pool.map(ask, range(8)))
    long = httpx.post(pair + "/v1/completions", json={"model": "tiny-llm", "prompt": "hi " * 9000}, timeout=30)
    assert long.json()["error"]["code"] == "context_length_exceeded"  # past what the tokenizer counts
    done = [end for answer, _, end in results if answer.status_code == 200]
    refused = [(answer, end) for answer, _, end in results if answer.status_code == 503]
    assert len(done) == 6 and len(refused) == 2
    for answer, end in refused:
        assert answer.headers["retry-after"] == "1" and answer.json()["error"]["code"] == "server_busy"
        assert end < min(done)  # refused while the first answers were still being generated


@pytest.mark.parametrize("stream", [True, False])
def test_disconnect_frees_the_handle(serve, models, stream):
    with serve("--llm", models / "tiny-llm", "--context", 1000000) as (url, _):
        body = {"model": "tiny-llm", "prompt": "Once", "max_tokens": 500000, "stream": stream}
        if stream:
            with httpx.stream("POST", url + "/v1/completions", json=body, timeout=30) as answer:
                next(answer.iter_lines())
        else:
            with pytest.raises(httpx.ReadTimeout):
                httpx.post(url + "/v1/completions", json=body, timeout=1)
        left = time.monotonic()
        answer = httpx.post(url + "/v1/completions", json={**body, "max_tokens": 1, "stream": False}, timeout=60)
        waited = time.monotonic() - left
        assert answer.status_code == 200 and waited < 3  # the abandoned generation would run for minutes


def test_the_time_limit_and_leaving_clients_stop_the_work_they_meant(serve, models, tmp_path):
    subprocess.run(["espeak-ng", "-w", tmp_path / "fox.wav", "The quick brown fox jumps over the lazy dog."], check=True)
    subprocess.run(["sox", tmp_path / "fox.wav", tmp_path / "long.wav", "repeat", "63"], check=True)  # three minutes
    with serve("--llm", models / "tiny-llm", "--whisper", f"speech={models / 'whisper-base'}", "--context", 1000000,
               "--timeout", 4, "--queue", 1) as (url, _):
        body = {"model": "tiny-llm", "prompt": "Once", "max_tokens": 500000, "stream": True}
        with httpx.stream("POST", url + "/v1/completions", json=body, timeout=30) as answer:
            with pytest.raises(httpx.ReadTimeout):  # gives up while queued: its place is free again
                httpx.post(url + "/v1/completions", json={**body, "stream": False}, timeout=0.5)
            for _ in range(20):  # within 2 s, while the first still runs
                if 'velmora_queue_depth{model="tiny-llm"} 0.0' in httpx.get(url + "/metrics").text:
                    break
                time.sleep(0.1)
            else:
                pytest.fail("the queue kept the place of a client that left")
            last = [line for line in answer.iter_lines() if line][-1]
        assert json.loads(last.removeprefix("data: "))["error"]["code"] == "timeout"  # not a finished answer
        # A request without a language after one with it runs on a new handle, which the time limit stops.
        speech = {"model": "speech", "language": "en"}
        httpx.post(url + "/v1/audio/transcriptions", data=speech, files={"file": (tmp_path / "fox.wav").read_bytes()})
        begun = time.monotonic()
        answer = httpx.post(url + "/v1/audio/transcriptions", data={"model": "speech"}, timeout=60,
                            files={"file": (tmp_path / "long.wav").read_bytes()})
        assert answer.status_code == 504 and time.monotonic() - begun < 8
