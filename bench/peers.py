"""Runs the library and its peers side by side and writes bench/PEERS.md and
bench/out/peers.json (for bench/peers_chart.py). Started by bench/peers.sh,
which builds the C host and makes bench/.venv-peers first.

Every engine is one long-lived process that loaded its model once: the library
through the C host build/bench/velmora-turns, each peer through
bench/peer_worker.py in its own venv. A round hands the same job to each
engine of a comparison in turn, the order rotating from round to round, so a
ratio pairs two measurements taken seconds apart.
"""
import argparse
import json
import os
import platform
import re
import statistics
import subprocess
import sys
import time
from datetime import datetime, timezone

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
LIBRARY = os.path.join(ROOT, "build", "src", "Tarvik.Velmora.Framework.OpenVINOBindings.so")
TURNS = os.path.join(ROOT, "build", "bench", "velmora-turns")
PYTHON = os.path.join(ROOT, ".venv", "bin", "python")
PEERS = os.path.join(HERE, ".venv-peers", "bin", "python")
WORKER = os.path.join(HERE, "peer_worker.py")
OUT = os.path.join(HERE, "out")
TEXT = os.path.join(HERE, "perplexity.txt")
PROMPT = "The three primary colors are"
# What bench/speech.sh speaks into each sample, for the word error rate.
SPEECH = os.path.join(OUT, "speech")


class Engine:
    """One engine process answering one JSON line per job line."""

    def __init__(self, name, cmd):
        self.name = name
        self.proc = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, cwd=ROOT)
        if not json.loads(self._line()).get("ready"):
            raise SystemExit(f"{name} did not start")

    def _line(self):
        line = self.proc.stdout.readline()
        if not line:
            raise SystemExit(f"{self.name} exited (status {self.proc.wait()})")
        return line

    def job(self, text):
        self.proc.stdin.write(text + "\n")
        self.proc.stdin.flush()
        return json.loads(self._line())

    def close(self):
        self.proc.stdin.close()
        self.proc.wait()


def library_llm(directory):
    return Engine(f"library ({os.path.relpath(directory, ROOT)})", [TURNS, "--library", LIBRARY, "--llm", directory])


def spread(values):
    values = sorted(values)
    return {"median": statistics.median(values), "low": values[0], "high": values[-1]}


def fmt(s, digits=2):
    return f"{s['median']:.{digits}f} ({s['low']:.{digits}f} – {s['high']:.{digits}f})"


def alternate(engines, job, rounds, label):
    """Runs `job` once on each engine per round, rotating who goes first."""
    results = {e.name: [] for e in engines}
    for r in range(rounds):
        order = engines[r % len(engines):] + engines[:r % len(engines)]
        for engine in order:
            print(f"{label} round {r + 1}/{rounds}: {engine.name}", file=sys.stderr, flush=True)
            results[engine.name].append(engine.job(job))
    return results


def common_prefix_words(a, b):
    n = 0
    for x, y in zip(a.split(), b.split()):
        if x != y:
            break
        n += 1
    return n


def words(text):
    return re.sub(r"[^a-z0-9' ]", " ", text.lower().replace("-", " ")).split()


def wer(reference, hypothesis):
    ref, hyp = words(reference), words(hypothesis)
    row = list(range(len(hyp) + 1))
    for i, r in enumerate(ref, 1):
        prev, row[0] = row[0], i
        for j, h in enumerate(hyp, 1):
            prev, row[j] = row[j], min(row[j] + 1, row[j - 1] + 1, prev + (r != h))
    return row[-1] / len(ref)


def llm_pair(library_dir, gguf, a, label, default=False):
    """Library on an IR against llama.cpp on the GGUF it was made from."""
    lib, peer = library_llm(library_dir), Engine("llama.cpp", [PEERS, WORKER, "llama", gguf])
    try:
        ids_lib, ids_peer = lib.job(f"tokenize {PROMPT}")["ids"], peer.job(f"tokenize {PROMPT}")["ids"]
        for e in (lib, peer):  # warm-up: first runs pay one-off costs on either engine
            e.job(f"generate 8 {PROMPT}")
        runs = alternate([lib, peer], f"generate {a.tokens} {PROMPT}", a.rounds, label)
        short = alternate([lib, peer], f"generate 2 {PROMPT}", a.rounds * 3, label + " first token")
        ppl = peer.job(f"perplexity {TEXT}")
    finally:
        lib.close()
        peer.close()
    L, P = runs[lib.name], runs[peer.name]
    return {
        "label": label, "default": default, "library_model": os.path.relpath(library_dir, ROOT), "gguf": os.path.basename(gguf),
        "same_prompt_ids": ids_lib == ids_peer, "prompt_tokens": len(ids_lib),
        "tps_ratio": spread([p["s"] / l["s"] for l, p in zip(L, P)]),
        "tps_library": spread([a.tokens / l["s"] for l in L]), "tps_peer": spread([a.tokens / p["s"] for p in P]),
        # Time to first token: peer over library, so that more than 1 means the library is ahead.
        "ttft_ratio": spread([p["first_s"] / l["first_s"] for l, p in zip(short[lib.name], short[peer.name])]),
        "ttft_library_ms": spread([l["first_s"] * 1e3 for l in short[lib.name]]),
        "ttft_peer_ms": spread([p["first_s"] * 1e3 for p in short[peer.name]]),
        "text_library": L[0]["text"], "text_peer": P[0]["text"],
        "same_words": common_prefix_words(L[0]["text"], P[0]["text"]),
        "ppl_peer": ppl, "ppl_library": library_perplexity(library_dir),
    }


def library_perplexity(directory):
    done = subprocess.run([PYTHON, os.path.join(HERE, "perplexity.py"), directory, TEXT], capture_output=True,
                          text=True, check=True)
    return json.loads(done.stdout.strip().splitlines()[-1])


def whisper_round(a):
    clips = sorted(f for f in os.listdir(SPEECH) if f.endswith(".f32"))
    references = {c: open(os.path.join(SPEECH, c[:-4] + ".txt"), encoding="utf-8").read() for c in clips}
    engines = [Engine("library", [TURNS, "--library", LIBRARY, "--whisper", a.whisper_model])]
    for extra in a.compare_whisper:
        engines.append(Engine(f"library ({os.path.relpath(os.path.abspath(extra), ROOT)})",
                              [TURNS, "--library", LIBRARY, "--whisper", os.path.abspath(extra)]))
    ct2 = os.path.join(ROOT, "build", "peer-models", "whisper-base-ct2")
    for compute in ("int8", "float32"):
        engines.append(Engine(f"faster-whisper {compute}", [PEERS, WORKER, "faster-whisper", ct2, compute]))
    try:
        for e in engines:
            e.job(f"transcribe {os.path.join(SPEECH, clips[0])}")
        # Speed on the 30 s clip, a full window; accuracy on every clip.
        runs = alternate(engines, f"transcribe {os.path.join(OUT, 'speech.f32')}", a.rounds, "whisper")
        texts = {e.name: {c: e.job(f"transcribe {os.path.join(SPEECH, c)}")["text"] for c in clips} for e in engines}
    finally:
        for e in engines:
            e.close()
    lib = engines[0].name
    out = {"engines": {}}
    for e in engines:
        R = runs[e.name]
        out["engines"][e.name] = {
            "rtf": spread([r["s"] / r["audio_s"] for r in R]),
            "speed_ratio": spread([r["s"] / l["s"] for l, r in zip(runs[lib], R)]),
            "wer": statistics.mean(wer(references[c], texts[e.name][c]) for c in clips),
            "wer_each": {c: wer(references[c], texts[e.name][c]) for c in clips},
            "text_30s": R[0]["text"],
        }
    out["clips"] = clips
    out["library_model"] = os.path.relpath(os.path.abspath(a.whisper_model), ROOT)
    return out


def machine():
    cpu = next((l.split(":", 1)[1].strip() for l in open("/proc/cpuinfo") if l.startswith("model name")), "unknown")
    flags = next((l.split(":", 1)[1].split() for l in open("/proc/cpuinfo") if l.startswith("flags")), [])
    return {"cpu": cpu, "cores": os.cpu_count(), "python": platform.python_version(), "load_start": os.getloadavg(),
            "simd": [f for f in ("avx", "avx2", "fma", "f16c", "avx512f", "avx_vnni", "amx_tile") if f in flags]}


def versions():
    code = ("import importlib.metadata as m\n"
            "for p in ('llama-cpp-python', 'faster-whisper', 'ctranslate2'):\n"
            "    try: print(p, m.version(p))\n"
            "    except m.PackageNotFoundError: pass")
    found = dict(l.split() for l in subprocess.run([PEERS, "-c", code], capture_output=True, text=True).stdout.splitlines())
    found["openvino-genai"] = subprocess.run([PYTHON, "-c", "import importlib.metadata as m; print(m.version('openvino-genai'))"],
                                             capture_output=True, text=True).stdout.strip()
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--tokens", type=int, default=128)
    parser.add_argument("--quick", action="store_true", help="2 rounds of 32 tokens: checks the script, not the figures")
    parser.add_argument("--llm-model", default=os.path.join(ROOT, "models", "smollm2"))
    parser.add_argument("--whisper-model", default=os.path.join(ROOT, "models", "whisper-base"))
    parser.add_argument("--compare", action="append", default=[], metavar="DIR",
                        help="also run the library on this IR of the Q4_1 GGUF against llama.cpp (repeatable)")
    parser.add_argument("--compare-whisper", action="append", default=[], metavar="DIR",
                        help="also run the library on this Whisper IR, in the same rounds (repeatable)")
    parser.add_argument("--only", choices=("llm", "whisper"),
                        help="run one half and keep the other from the last run's bench/out/peers.json")
    a = parser.parse_args()
    if a.quick:
        a.rounds, a.tokens = 2, 32
    started, t0 = datetime.now(timezone.utc), time.perf_counter()
    paths = json.loads(subprocess.run([PYTHON, os.path.join(HERE, "peer_models.py")], capture_output=True, text=True,
                                      check=True).stdout.strip().splitlines()[-1])
    result = {"machine": machine(), "versions": versions(), "started": started.strftime("%Y-%m-%d %H:%M UTC"),
              "rounds": a.rounds, "tokens": a.tokens, "prompt": PROMPT}
    saved = os.path.join(OUT, "peers.json")
    if a.only != "whisper":
        result["llm"] = [llm_pair(a.llm_model, paths["q4_1_gguf"], a, "Q4_1", default=True),
                         llm_pair(paths["q8_0_ir"], paths["q8_0_gguf"], a, "Q8_0"),
                         llm_pair(paths["f16_ir"], paths["f16_gguf"], a, "F16")]
        for extra in a.compare:
            result["llm"].append(llm_pair(os.path.abspath(extra), paths["q4_1_gguf"], a,
                                          f"Q4_1, {os.path.basename(extra)}"))
    if a.only != "llm":
        result["whisper"] = whisper_round(a)
    result["machine"]["load_end"] = os.getloadavg()
    if a.only and os.path.exists(saved):
        last = json.load(open(saved))
        other = "whisper" if a.only == "llm" else "llm"
        if other in last:
            result[other] = last[other]
            result[f"{other}_from"] = last.get(f"{other}_from", last["started"])

    result["minutes"] = (time.perf_counter() - t0) / 60
    os.makedirs(OUT, exist_ok=True)
    with open(saved, "w") as f:
        json.dump(result, f, indent=1)
    import peers_report
    with open(os.path.join(HERE, "PEERS.md"), "w") as f:
        f.write(peers_report.render(result))
    print(json.dumps({p["label"]: p["tps_ratio"]["median"] for p in result.get("llm", [])}))


if __name__ == "__main__":
    main()
