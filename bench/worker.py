"""Python-side measurements, one mode per process, one JSON object on stdout.

  direct  the runtime's own Python API, as a user would call it
  ctypes  the library loaded by a Python host through ctypes
  pieces  both in one process, alternated, to isolate the per-piece cost
  instructions  both in one process under callgrind: instructions per generation

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
    ] + [(f"slot{i}", _p) for i in range(6, 14)] + [
        ("Tokenize", S(_i32, _p, _cp, ctypes.POINTER(ctypes.POINTER(ctypes.c_int64)), ctypes.POINTER(ctypes.c_size_t))),
        ("FreeTokens", S(_i32, ctypes.POINTER(ctypes.c_int64))),
    ] + [(f"slot{i}", _p) for i in range(16, 18)]


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

    def init_whisper(self, model):
        handle = ctypes.c_void_p()
        self.check(self.whisper.InitModel(model.encode(), 0, ctypes.byref(handle), ctypes.byref(self.callbacks)),
                   "Whisper InitModel")
        return handle

    def transcribe(self, handle, buffer, count):
        text = ctypes.c_void_p()
        self.check(self.whisper.QueryModel(handle, buffer, count, ctypes.byref(text)), "Whisper QueryModel")
        self.whisper.FreeQueryResult(text)


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
    short_config = direct_config(pipeline, 2)
    out["short_first_piece_s"] = []
    for _ in range(a.short_reps):
        streamer = PieceClock()
        start = clock()
        pipeline.generate(a.prompt, short_config, streamer=streamer)
        out["short_first_piece_s"].append(streamer.first - start)
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
    lib.llm.DestroyModel(handle)
    return out


class CapturingPipeline:
    """Stands in for the runtime's pipeline class while the library builds its
    pipeline, so that the streamer the library hands to `generate` can be
    called afterwards exactly as the runtime calls it (with one str), and so
    that the time spent inside the runtime's `generate` is known: the rest of
    a slot's time is the library's own."""

    captured = []
    inner_s = 0.0

    __wrapped__ = None  # the runtime's class, set before use

    def __init__(self, *args, **kwargs):
        self._pipeline = CapturingPipeline.__wrapped__(*args, **kwargs)

    def generate(self, inputs, config=None, streamer=None, **kwargs):
        if streamer is not None:
            CapturingPipeline.captured.append(streamer)
        start = clock()
        try:
            return self._pipeline.generate(inputs, config, streamer=streamer, **kwargs)
        finally:
            CapturingPipeline.inner_s = clock() - start

    def __getattr__(self, name):
        return getattr(self._pipeline, name)


def with_capture(module, class_name, init):
    """Runs `init` (a library InitModel) with the runtime's class replaced by CapturingPipeline."""
    runtime_class = getattr(module, class_name)
    CapturingPipeline.__wrapped__ = runtime_class
    setattr(module, class_name, CapturingPipeline)  # looked up by the library at InitModel
    try:
        return init()
    finally:
        setattr(module, class_name, runtime_class)


def alternate(runs, reps, out, after=None):
    """Runs each path once per rep, rotating the order so no path always runs
    first, and appends each run's seconds to out[name]; after(name, result)
    sees what the run returned."""
    for rep in range(reps):
        order = list(runs.items())
        order = order[rep % len(order):] + order[:rep % len(order)]
        for name, run in order:
            start = clock()
            result = run()
            out[name].append(clock() - start)
            if after:
                after(name, result)


def streamer_call_us(streamer, batches=30, per_batch=20000):
    """Per-call cost of calling `streamer` with a typical piece."""
    piece = " colors"
    return per_call_us(batches, per_batch, lambda: streamer(piece))


def run_pieces(a):
    """Library (no-op C host function) and runtime (no-op Python streamer, and
    no streamer) on one model in one process, alternated round by round."""
    import openvino_genai
    lib = Library(a.library)
    noop = ctypes.CDLL(a.noop)
    noop.velmora_bench_piece_count.restype = ctypes.c_int64
    noop.velmora_bench_first_piece_ns.restype = ctypes.c_int64
    noop_fn = ctypes.cast(noop.velmora_bench_noop_piece, ctypes.c_void_p)
    handle = with_capture(openvino_genai, "LLMPipeline", lambda: lib.init_llm(a.model, a.tokens))
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
    # The library's path from the runtime's call to the host function, called
    # as the runtime calls it, against a do-nothing Python streamer called the same way.
    library_streamer = CapturingPipeline.captured[-1]
    noop.velmora_bench_reset_count()
    out["path_library_us"] = streamer_call_us(library_streamer)
    out["path_calls_reached_host"] = noop.velmora_bench_piece_count()
    out["path_python_noop_us"] = streamer_call_us(PieceClock())
    def keep_count(name, count):
        if count:
            out[name + "_pieces"] = count
    alternate(runs, a.reps, out, keep_count)
    lib.llm.DestroyModel(handle)
    del pipeline
    if a.llm_model:
        out.update(llm_alternation(a, lib, openvino_genai, noop))
    if a.whisper_model:
        out.update(whisper_alternation(a, lib, openvino_genai))
    return out


def llm_alternation(a, lib, openvino_genai, noop):
    """The benchmark LLM through the library (ctypes, no-op C host function)
    and directly, in one process, alternated in rotating order."""
    noop_fn = ctypes.cast(noop.velmora_bench_noop_piece, ctypes.c_void_p)
    handle = with_capture(openvino_genai, "LLMPipeline", lambda: lib.init_llm(a.llm_model, a.llm_tokens))
    lib.set(handle, "ignore_eos", "true")
    lib.set(handle, "do_sample", "false")
    pipeline = openvino_genai.LLMPipeline(a.llm_model, "CPU")
    out = {"llm_library_first_piece_s": [], "llm_direct_first_piece_s": []}

    def library_stream():
        noop.velmora_bench_reset_count()
        start = clock()
        lib.stream(handle, a.prompt, noop_fn)
        out["llm_library_first_piece_s"].append(noop.velmora_bench_first_piece_ns() / 1e9 - start)
        out["llm_library_pieces"] = noop.velmora_bench_piece_count()

    def direct_stream():
        streamer = PieceClock()
        start = clock()
        pipeline.generate(a.prompt, config, streamer=streamer)
        out["llm_direct_first_piece_s"].append(streamer.first - start)
        out["llm_direct_pieces"] = streamer.count

    def library_query():
        out["llm_library_text"] = lib.query(handle, a.prompt)

    def direct_plain():
        out["llm_direct_text"] = pipeline.generate(a.prompt, config)

    lib.set(handle, "max_new_tokens", 8)
    config = direct_config(pipeline, 8)
    library_stream()  # warm-up, both paths
    direct_stream()
    lib.set(handle, "max_new_tokens", a.llm_tokens)
    config = direct_config(pipeline, a.llm_tokens)
    for key in list(out):
        out[key] = []
    runs = {"llm_library_stream": library_stream, "llm_direct_stream": direct_stream,
            "llm_library_query": library_query, "llm_direct_plain": direct_plain}
    package_model = None
    if a.package:
        velmora = import_package(a.package)
        package_model = velmora.LlmModel(a.llm_model, "CPU", a.llm_tokens, library=a.library)
        package_model.config["ignore_eos"] = True
        package_model.config["do_sample"] = False
        out["llm_package_first_piece_s"] = []

        def package_stream():
            start, count = clock(), 0
            for _ in package_model.stream(a.prompt):
                count += 1
                if count == 1:
                    out["llm_package_first_piece_s"].append(clock() - start)
            out["llm_package_pieces"] = count

        def package_query():
            out["llm_package_text"] = package_model.generate(a.prompt)

        package_stream()  # warm-up
        out["llm_package_first_piece_s"].clear()
        runs.update(llm_package_stream=package_stream, llm_package_query=package_query)
    out.update({name: [] for name in runs})
    out.update(llm_library_stream_outside_s=[], llm_library_query_outside_s=[])
    def outside(name, _):
        if name.startswith("llm_library"):
            out[name + "_outside_s"].append(out[name][-1] - CapturingPipeline.inner_s)
    alternate(runs, a.llm_reps, out, outside)
    for key in ("llm_library_pieces", "llm_direct_pieces", "llm_package_pieces"):
        if key in out:  # the short runs below overwrite the counts
            out[key.replace("_pieces", "_stream_pieces")] = out[key]
    # Time to first piece again, on many short generations: one long run gives one noisy sample.
    lib.set(handle, "max_new_tokens", 2)
    config = direct_config(pipeline, 2)
    short = {"llm_library_first_piece_s": library_stream, "llm_direct_first_piece_s": direct_stream}
    if package_model is not None:
        package_model.config["max_new_tokens"] = 2
        short["llm_package_first_piece_s"] = package_stream
    for key in short:
        out[key.replace("first_piece", "short_first_piece")] = out[key]  # keep the long-run samples
        out[key] = []
    for rep in range(a.short_reps):
        order = list(short.values())
        for run in order[rep % len(order):] + order[:rep % len(order)]:
            run()
    for key in short:
        out[key], out[key.replace("first_piece", "short_first_piece")] = \
            out[key.replace("first_piece", "short_first_piece")], out[key]
    lib.llm.DestroyModel(handle)
    if package_model is not None:
        package_model.close()
    return out


def import_package(directory):
    """The library's Python package, from its source directory (not installed
    into the shared runtime environment)."""
    sys.path.insert(0, directory)
    import velmora
    return velmora


def whisper_alternation(a, lib, openvino_genai):
    """Whisper through the library (ctypes QueryModel) and directly, in one process, alternated."""
    samples = read_audio(a.audio)
    buffer = samples.ctypes.data_as(ctypes.POINTER(ctypes.c_float))
    handle = with_capture(openvino_genai, "WhisperPipeline", lambda: lib.init_whisper(a.whisper_model))
    pipeline = openvino_genai.WhisperPipeline(a.whisper_model, "CPU")

    def library(count=len(samples)):
        lib.transcribe(handle, buffer, count)

    runs = {"whisper_library": library, "whisper_direct": lambda: pipeline.generate(samples),
            "whisper_direct_streamer": lambda: pipeline.generate(samples, streamer=PieceClock())}
    package_model = None
    if a.package:
        package_model = import_package(a.package).WhisperModel(a.whisper_model, "CPU", library=a.library)
        package_model.transcribe(samples[:32000])  # warm-up
        runs["whisper_package"] = lambda: package_model.transcribe(samples)
    library(32000)  # warm-up on two seconds, both paths
    pipeline.generate(samples[:32000])
    out = {name: [] for name in runs}
    def outside(name, _):
        if name == "whisper_library":
            out.setdefault("whisper_library_outside_s", []).append(out[name][-1] - CapturingPipeline.inner_s)
    alternate(runs, a.whisper_reps, out, outside)
    out["whisper_audio_s"] = len(samples) / 16000.0
    lib.whisper.DestroyModel(handle)
    if package_model is not None:
        package_model.close()
    return out


def run_instructions(a):
    """The same work through the library and directly, in one process run
    under callgrind: each piece of work is bracketed by the marks library, so
    its instructions (all threads) are dumped under the path's name. Counts,
    unlike seconds, do not move with the load of a shared machine."""
    import openvino_genai
    lib = Library(a.library)
    noop, marks = ctypes.CDLL(a.noop), ctypes.CDLL(a.marks)
    noop_fn = ctypes.cast(noop.velmora_bench_noop_piece, ctypes.c_void_p)

    def counted(name, run):
        def bracketed():
            marks.velmora_bench_count_start()
            run()
            marks.velmora_bench_count_stop(name.encode())
        return bracketed

    def repeated(run, times):
        return lambda: [run() for _ in range(times)]

    def measure(runs, out):
        for run in runs.values():
            run()  # warm-up, uninstrumented
        out.update({name: [] for name in runs})
        alternate({name: counted(name, run) for name, run in runs.items()}, a.reps, out)

    out = {"path": "instructions", "tokens": a.tokens, "tokenize_calls": a.tokenize_calls}
    handle = lib.init_llm(a.model, a.tokens)
    lib.set(handle, "ignore_eos", "true")
    lib.set(handle, "do_sample", "false")
    pipeline = openvino_genai.LLMPipeline(a.model, "CPU")
    config = direct_config(pipeline, a.tokens)
    tokenizer = pipeline.get_tokenizer()
    ids, count = ctypes.POINTER(ctypes.c_int64)(), ctypes.c_size_t()

    def library_tokenize():
        lib.check(lib.llm.Tokenize(handle, b"Hello world", ctypes.byref(ids), ctypes.byref(count)), "Tokenize")
        lib.llm.FreeTokens(ids)

    n = a.tokenize_calls
    measure({"library_stream": lambda: lib.stream(handle, a.prompt, noop_fn),
             "direct_stream": lambda: pipeline.generate(a.prompt, config, streamer=PieceClock()),
             "library_query": lambda: lib.query(handle, a.prompt),
             "direct_plain": lambda: pipeline.generate(a.prompt, config),
             # What the library's Tokenize asks of the runtime (a fresh tokenizer,
             # a list of one text), and the cheapest direct call, for scale.
             "library_tokenize": repeated(library_tokenize, n),
             "direct_tokenize_same": repeated(lambda: pipeline.get_tokenizer().encode(["Hello world"]), n),
             "direct_tokenize_reused": repeated(lambda: tokenizer.encode("Hello world"), n)}, out)
    lib.llm.DestroyModel(handle)
    del pipeline
    if a.whisper_model:
        samples = read_audio(a.audio)
        buffer = samples.ctypes.data_as(ctypes.POINTER(ctypes.c_float))
        whisper_handle = lib.init_whisper(a.whisper_model)
        whisper = openvino_genai.WhisperPipeline(a.whisper_model, "CPU")
        measure({"whisper_library": lambda: lib.transcribe(whisper_handle, buffer, len(samples)),
                 "whisper_direct": lambda: whisper.generate(samples),
                 "whisper_direct_streamer": lambda: whisper.generate(samples, streamer=PieceClock())}, out)
        lib.whisper.DestroyModel(whisper_handle)
    return out


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("mode", choices=["direct", "ctypes", "pieces", "instructions"])
    parser.add_argument("--library")
    parser.add_argument("--noop")
    parser.add_argument("--marks", help="instructions mode: the callgrind marks library")
    parser.add_argument("--tokenize-calls", type=int, default=20, help="instructions mode: calls per count")
    parser.add_argument("--model", required=True)
    parser.add_argument("--prompt", default="The three primary colors are")
    parser.add_argument("--tokens", type=int, default=128)
    parser.add_argument("--reps", type=int, default=2)
    parser.add_argument("--micro-scale", type=float, default=1.0)
    parser.add_argument("--whisper-model")
    parser.add_argument("--whisper-streamer", action="store_true")
    parser.add_argument("--whisper-reps", type=int, default=1)
    parser.add_argument("--llm-model", help="pieces mode: also alternate this model's generations")
    parser.add_argument("--llm-reps", type=int, default=1)
    parser.add_argument("--llm-tokens", type=int, default=128)
    parser.add_argument("--short-reps", type=int, default=10, help="short generations timed for the first piece")
    parser.add_argument("--package", help="pieces mode: directory holding the library's Python package")
    parser.add_argument("--audio")
    a = parser.parse_args()
    out = {"direct": run_direct, "ctypes": run_ctypes, "pieces": run_pieces, "instructions": run_instructions}[a.mode](a)
    json.dump(out, sys.stdout)
    sys.stdout.write("\n")


if __name__ == "__main__":
    main()
