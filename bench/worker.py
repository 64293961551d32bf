"""Python-side measurements, one mode per process, one JSON object on stdout.

  direct  the runtime's own Python API, as a user would call it
  ctypes  the library loaded by a Python host through ctypes
  pieces  both in one process, alternated, to isolate the per-piece cost

The driver (run.py) decides the order of processes; nothing here is compared.
"""
import argparse
import ctypes
import json
import sys
import time

clock = time.perf_counter


def rss_bytes():
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) * 1024
    return -1


# --- the library through ctypes -------------------------------------------

Message = ctypes.CFUNCTYPE(None, ctypes.c_char_p)
TextCallback = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_char_p)


class HostCallbacks(ctypes.Structure):
    _fields_ = [("log", Message), ("error", Message)]


S = ctypes.CFUNCTYPE
_p, _i32, _cp = ctypes.c_void_p, ctypes.c_int32, ctypes.c_char_p


class LlmApiBase(ctypes.Structure):
    _fields_ = [
        ("InitModel", S(_i32, _cp, _i32, _i32, ctypes.POINTER(_p), ctypes.POINTER(HostCallbacks))),
        ("DestroyModel", S(_i32, _p)),
        ("QueryModel", S(_i32, _p, _cp, ctypes.POINTER(_p))),
        ("StreamModel", S(_i32, _p, _cp, _p)),
        ("FreeQueryResult", S(_i32, _p)),
        ("SetConfigProperty", S(_i32, _p, _cp, _cp)),
    ] + [(f"slot{i}", _p) for i in range(6, 18)]


class WhisperApiBase(ctypes.Structure):
    _fields_ = [
        ("InitModel", S(_i32, _cp, _i32, ctypes.POINTER(_p), ctypes.POINTER(HostCallbacks))),
        ("DestroyModel", S(_i32, _p)),
        ("QueryModel", S(_i32, _p, ctypes.POINTER(ctypes.c_float), _i32, ctypes.POINTER(_p))),
        ("FreeQueryResult", S(_i32, _p)),
    ] + [(f"slot{i}", _p) for i in range(4, 17)]


class Library:
    def __init__(self, path):
        self.errors = []
        self.callbacks = HostCallbacks(Message(lambda m: None), Message(lambda m: self.errors.append(m.decode())))
        self.lib = ctypes.CDLL(path)
        self.lib.GetLlmApiBase.restype = ctypes.POINTER(LlmApiBase)
        self.lib.GetWhisperApiBase.restype = ctypes.POINTER(WhisperApiBase)
        self.llm = self.lib.GetLlmApiBase().contents
        self.whisper = self.lib.GetWhisperApiBase().contents

    def check(self, status, what):
        if status != 0:
            raise RuntimeError(f"{what} returned {status}: {self.errors}")

    def init_llm(self, model, tokens):
        handle = ctypes.c_void_p()
        self.check(self.llm.InitModel(model.encode(), 0, tokens, ctypes.byref(handle), ctypes.byref(self.callbacks)),
                   "InitModel")
        return handle

    def set(self, handle, name, value):
        self.check(self.llm.SetConfigProperty(handle, name.encode(), str(value).encode()), "SetConfigProperty")

    def stream(self, handle, prompt, callback):
        self.check(self.llm.StreamModel(handle, prompt.encode(), ctypes.cast(callback, ctypes.c_void_p)),
                   "StreamModel")

    def query(self, handle, prompt):
        text = ctypes.c_void_p()
        self.check(self.llm.QueryModel(handle, prompt.encode(), ctypes.byref(text)), "QueryModel")
        result = ctypes.string_at(text.value).decode(errors="replace")
        self.llm.FreeQueryResult(text)
        return result


class PieceClock:
    """The do-nothing streamer of a Python host: counts and stamps the first piece."""

    def __init__(self):
        self.count, self.first = 0, 0.0

    def __call__(self, piece):
        self.count += 1
        if self.count == 1:
            self.first = clock()


def direct_config(pipeline, tokens):
    config = pipeline.get_generation_config()
    config.max_new_tokens = tokens
    config.ignore_eos = True
    config.do_sample = False
    config.apply_chat_template = False  # the library sends prompts unchanged too
    return config


def per_call_us(batches, per_batch, call):
    out = []
    for _ in range(batches):
        start = clock()
        for _ in range(per_batch):
            call()
        out.append((clock() - start) * 1e6 / per_batch)
    return out


def read_audio(path):
    import numpy
    return numpy.fromfile(path, dtype=numpy.float32)


# --- modes ------------------------------------------------------------------

def run_direct(a):
    out = {"path": "direct", "rss_start": rss_bytes()}
    start = clock()
    import openvino_genai
    out["import_s"] = clock() - start
    start = clock()
    pipeline = openvino_genai.LLMPipeline(a.model, "CPU")
    out["init_s"] = clock() - start
    out["rss_after_init"] = rss_bytes()
    pipeline.generate(a.prompt, direct_config(pipeline, 8), streamer=PieceClock())  # warm-up
    config = direct_config(pipeline, a.tokens)
    out.update(stream_s=[], first_piece_s=[], plain_s=[])
    for _ in range(a.reps):
        streamer = PieceClock()
        start = clock()
        result = pipeline.generate(a.prompt, config, streamer=streamer)
        out["stream_s"].append(clock() - start)
        out["first_piece_s"].append(streamer.first - start)
        out["stream_pieces"] = streamer.count
        start = clock()
        text = pipeline.generate(a.prompt, config)
        out["plain_s"].append(clock() - start)
        out["text"] = text
    tokenizer = pipeline.get_tokenizer()
    out["tokens_generated"] = len(tokenizer.encode(out["text"], add_special_tokens=False).input_ids.data[0])
    out["tokenize_us"] = per_call_us(20, max(1, int(50 * a.micro_scale)), lambda: tokenizer.encode("Hello world"))
    # What setting one value costs a Python user of the runtime, for scale.
    out["set_us"] = per_call_us(50, max(1, int(2000 * a.micro_scale)), lambda: setattr(config, "temperature", 0.5))
    del pipeline
    if a.whisper_model:
        samples = read_audio(a.audio)
        out["audio_s"] = len(samples) / 16000.0
        start = clock()
        whisper = openvino_genai.WhisperPipeline(a.whisper_model, "CPU")
        out["whisper_init_s"] = clock() - start
        whisper.generate(samples[:32000])  # warm-up on two seconds
        out.update(whisper_s=[], whisper_stream_s=[])
        for _ in range(a.reps):
            start = clock()
            result = whisper.generate(samples)
            out["whisper_s"].append(clock() - start)
            if a.whisper_streamer:
                start = clock()
                whisper.generate(samples, streamer=PieceClock())
                out["whisper_stream_s"].append(clock() - start)
        out["whisper_text"] = result.texts[0]
    return out


def run_ctypes(a):
    out = {"path": "ctypes", "rss_start": rss_bytes()}
    lib = Library(a.library)
    start = clock()
    handle = lib.init_llm(a.model, a.tokens)  # joins this interpreter and imports the runtime
    out["init_s"] = clock() - start
    out["rss_after_init"] = rss_bytes()
    lib.set(handle, "ignore_eos", "true")
    lib.set(handle, "do_sample", "false")
    streamer = PieceClock()
    callback = TextCallback(lambda piece: streamer(piece) or 0)
    lib.set(handle, "max_new_tokens", 8)
    lib.stream(handle, a.prompt, callback)  # warm-up
    lib.set(handle, "max_new_tokens", a.tokens)
    out.update(stream_s=[], first_piece_s=[], query_s=[])
    for _ in range(a.reps):
        streamer.__init__()
        start = clock()
        lib.stream(handle, a.prompt, callback)
        out["stream_s"].append(clock() - start)
        out["first_piece_s"].append(streamer.first - start)
        out["stream_pieces"] = streamer.count
        start = clock()
        out["text"] = lib.query(handle, a.prompt)
        out["query_s"].append(clock() - start)
    lib.llm.DestroyModel(handle)
    return out


def run_pieces(a):
    """Library (no-op C host function) and runtime (no-op Python streamer, and
    no streamer) on one model in one process, alternated round by round."""
    import openvino_genai
    lib = Library(a.library)
    noop = ctypes.CDLL(a.noop)
    noop_fn = ctypes.cast(noop.velmora_bench_noop_piece, ctypes.c_void_p)
    handle = lib.init_llm(a.model, a.tokens)
    lib.set(handle, "ignore_eos", "true")
    lib.set(handle, "do_sample", "false")
    pipeline = openvino_genai.LLMPipeline(a.model, "CPU")
    config = direct_config(pipeline, a.tokens)

    def library_stream():
        noop.velmora_bench_reset_count()
        lib.stream(handle, a.prompt, noop_fn)
        return noop.velmora_bench_piece_count()

    def direct_stream():
        streamer = PieceClock()
        pipeline.generate(a.prompt, config, streamer=streamer)
        return streamer.count

    def direct_plain():
        pipeline.generate(a.prompt, config)
        return 0

    runs = {"library_stream": library_stream, "direct_stream": direct_stream, "direct_plain": direct_plain}
    for run in runs.values():
        run()  # warm-up
    out = {"path": "pieces", **{name: [] for name in runs}}
    for round_ in range(a.reps):
        order = list(runs.items())
        order = order[round_ % 3:] + order[:round_ % 3]  # rotate so no path always runs first
        for name, run in order:
            start = clock()
            count = run()
            out[name].append(clock() - start)
            if count:
                out[name + "_pieces"] = count
    lib.llm.DestroyModel(handle)
    return out


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("mode", choices=["direct", "ctypes", "pieces"])
    parser.add_argument("--library")
    parser.add_argument("--noop")
    parser.add_argument("--model", required=True)
    parser.add_argument("--prompt", default="The three primary colors are")
    parser.add_argument("--tokens", type=int, default=128)
    parser.add_argument("--reps", type=int, default=2)
    parser.add_argument("--micro-scale", type=float, default=1.0)
    parser.add_argument("--whisper-model")
    parser.add_argument("--whisper-streamer", action="store_true")
    parser.add_argument("--audio")
    a = parser.parse_args()
    out = {"direct": run_direct, "ctypes": run_ctypes, "pieces": run_pieces}[a.mode](a)
    json.dump(out, sys.stdout)
    sys.stdout.write("\n")


if __name__ == "__main__":
    main()
