"""A peer engine's side of the comparison, run from bench/.venv-peers: loads one
model and answers the same line jobs as build/bench/velmora-turns, with the
same settings (2 threads, greedy, exactly N new tokens, English, no timestamps).

  peer_worker.py llama GGUF            jobs: "generate N PROMPT", "tokenize TEXT",
                                             "perplexity FILE" (mean NLL of a text)
  peer_worker.py faster-whisper DIR COMPUTE_TYPE   jobs: "transcribe FILE.f32"
"""
import json
import math
import sys
import time

import numpy as np

THREADS = 2


def llama(path):
    from llama_cpp import Llama

    model = Llama(model_path=path, n_threads=THREADS, n_threads_batch=THREADS, n_ctx=1024, n_batch=512,
                  logits_all=False, verbose=False)

    def generate(rest):
        count, prompt = rest.split(" ", 1)
        count = int(count)
        model.reset()  # no prefix reuse from the last job: the library starts from an empty cache too
        start = time.perf_counter()
        first, out = None, []
        for token in model.generate(model.tokenize(prompt.encode()), top_k=1, top_p=1.0, min_p=0.0, temp=0.0,
                                    repeat_penalty=1.0):
            first = first or time.perf_counter()
            out.append(token)
            if len(out) == count:  # end of sequence is not a stop, as ignore_eos on the library's side
                break
        end = time.perf_counter()
        return {"s": end - start, "first_s": first - start,
                "text": model.detokenize(out).decode(errors="replace")}

    def tokenize(text):
        return {"ids": model.tokenize(text.encode())}

    def perplexity(path):
        # Teacher-forced one token at a time, as generation reads its cache.
        ids = model.tokenize(open(path, encoding="utf-8").read().encode())
        vocab = model.n_vocab()
        model.reset()
        nll = 0.0
        for i in range(len(ids) - 1):
            model.eval([ids[i]])
            # Straight from the context: without logits_all, eval keeps no rows in model.scores.
            logits = np.ctypeslib.as_array(model._ctx.get_logits_ith(-1), shape=(vocab,)).astype(np.float64)
            top = logits.max()
            nll += top + math.log(np.exp(logits - top).sum()) - logits[ids[i + 1]]
        return {"tokens": len(ids), "nll": nll / (len(ids) - 1)}

    return {"generate": generate, "tokenize": tokenize, "perplexity": perplexity}


def read_audio(path):
    return np.fromfile(path, dtype=np.float32)


def faster_whisper(path, compute_type):
    from faster_whisper import WhisperModel

    model = WhisperModel(path, device="cpu", compute_type=compute_type, cpu_threads=THREADS, num_workers=1)

    def transcribe(audio_path):
        audio = read_audio(audio_path)
        start = time.perf_counter()
        segments, _ = model.transcribe(audio, language="en", beam_size=1, best_of=1, temperature=0.0,
                                       without_timestamps=True, vad_filter=False, condition_on_previous_text=False)
        text = "".join(s.text for s in segments)  # the work happens as the segments are read
        return {"s": time.perf_counter() - start, "audio_s": len(audio) / 16000, "text": text}

    return {"transcribe": transcribe}


def main():
    engine, args = sys.argv[1], sys.argv[2:]
    jobs = {"llama": llama, "faster-whisper": faster_whisper}[engine](*args)
    print(json.dumps({"ready": True}), flush=True)
    for line in sys.stdin:
        verb, _, rest = line.rstrip("\n").partition(" ")
        print(json.dumps(jobs[verb](rest)), flush=True)


if __name__ == "__main__":
    main()
