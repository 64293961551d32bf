"""Instruction counts of the library against the runtime used directly, under
valgrind's callgrind: `bench/worker.py instructions` brackets each piece of
work, callgrind dumps its instructions (all threads) under the path's name.
Unlike seconds, these counts do not move with the load of a shared machine, so
a ratio of 0.99 can be told apart from noise.

  bench/instructions.py [--quick]        run, then write bench/INSTRUCTIONS.md
  bench/instructions.py --report DIR...  write the report from earlier dumps

Pinned to one core: the runtime then runs one inference thread, and no thread
spins waiting for another while being counted.
"""
import argparse
import glob
import os
import re
import shlex
import subprocess
import sys
from datetime import datetime, timezone

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
BUILD = os.path.join(ROOT, "build")
PYTHON = os.path.join(ROOT, ".venv", "bin", "python")

# (library path, direct path, what is compared); ratio = direct / library, so
# 1 means equal and more is better, as in RESULTS.md.
PAIRS = [
    ("library_stream", "direct_stream", "`StreamModel` (no-op C function) vs `generate` with a no-op streamer"),
    ("library_query", "direct_stream", "`QueryModel` vs `generate` with a no-op streamer (like for like: the "
                                       "library always passes its cancel streamer)"),
    ("library_query", "direct_plain", "`QueryModel` vs `generate` without streamer"),
    ("library_tokenize", "direct_tokenize_same", "`Tokenize` vs the same runtime calls (fresh tokenizer, list of one)"),
    ("library_tokenize", "direct_tokenize_reused", "`Tokenize` vs `encode` on a kept tokenizer"),
    ("whisper_library", "whisper_direct_streamer", "Whisper `QueryModel` vs `generate` with a no-op streamer "
                                                   "(like for like)"),
    ("whisper_library", "whisper_direct", "Whisper `QueryModel` vs `generate` without streamer"),
]


def run(out_dir, model, tokens, whisper_model, reps):
    os.makedirs(out_dir, exist_ok=True)
    for old in glob.glob(os.path.join(out_dir, "cg.*")):
        os.remove(old)
    cmd = ["taskset", "-c", "0", "valgrind", "--tool=callgrind", "--instr-atstart=no",
           f"--callgrind-out-file={out_dir}/cg.%p",
           PYTHON, os.path.join(HERE, "worker.py"), "instructions",
           "--library", os.path.join(BUILD, "src", "Tarvik.Velmora.Framework.OpenVINOBindings.so"),
           "--noop", os.path.join(BUILD, "bench", "velmora_bench_noop.so"),
           "--marks", os.path.join(BUILD, "bench", "velmora_bench_marks.so"),
           "--model", model, "--tokens", str(tokens), "--reps", str(reps),
           "--whisper-model", whisper_model, "--audio", os.path.join(HERE, "out", "speech.f32")]
    print("running (this takes long under valgrind):", " ".join(cmd), file=sys.stderr)
    with open(os.path.join(out_dir, "valgrind.log"), "w") as log:
        subprocess.run(cmd, check=True, stdout=subprocess.DEVNULL, stderr=log)


def read_dumps(directory):
    """{path name: [instructions per dump]} and the worker's options, from one run's dumps."""
    counts, options = {}, {}
    for path in sorted(glob.glob(os.path.join(directory, "cg.*.*"))):
        name = total = None
        with open(path) as dump:
            for line in dump:
                if line.startswith("cmd:"):
                    words = shlex.split(line[4:])
                    options = {w[2:]: v for w, v in zip(words, words[1:]) if w.startswith("--")}
                elif line.startswith("desc: Trigger: Client Request: "):
                    name = line.split("Client Request: ", 1)[1].strip()
                elif line.startswith("totals:"):  # every thread's cost since the bracket began
                    total = int(line.split()[1])
        if name and total is not None:
            counts.setdefault(name, []).append(total)
    return counts, options


def report(directories, path):
    lines = ["# Instruction counts", "",
             f"Written {datetime.now(timezone.utc).strftime('%Y-%m-%d %H:%M UTC')} by `bench/instructions.py` from "
             "callgrind dumps. Each figure is the instructions of all threads between the bracket's start and stop, "
             "counted in one process that holds the library (through ctypes) and the runtime side by side, pinned "
             "to one core. Ratio = direct ÷ library, so 1 means equal and the target is ≥ 0.99. Repeated "
             "brackets of the same work agree to about 0.05 %.", ""]
    for directory in directories:
        counts, options = read_dumps(directory)
        model = os.path.basename(options.get("model", "?"))
        lines += [f"## `models/{model}`, {options.get('tokens', '?')} new tokens, greedy, `ignore_eos`"
                  + (f"; Whisper `models/{os.path.basename(options['whisper-model'])}` on 30 s of speech"
                     if "whisper-model" in options and any(k.startswith("whisper") for k in counts) else ""), "",
                  "| Compared | library (M instr.) | direct (M instr.) | ratio |", "|---|---|---|---|"]
        calls = int(options.get("tokenize-calls", 20))
        for library, direct, label in PAIRS:
            if library not in counts or direct not in counts:
                continue
            lib, dir_ = min(counts[library]), min(counts[direct])
            scale = calls if "tokenize" in library else 1
            unit = " per call" if scale > 1 else ""
            lines.append(f"| {label} | {lib / scale / 1e6:.3f}{unit} | {dir_ / scale / 1e6:.3f}{unit} | "
                         f"{dir_ / lib:.4f} |")
        lines.append("")
    with open(path, "w") as out:
        out.write("\n".join(lines))
    print("\n".join(lines))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true", help="the small fixture models: minutes, not an hour")
    parser.add_argument("--report", nargs="+", metavar="DIR", help="only write the report from these dump folders")
    a = parser.parse_args()
    directories = a.report
    if not directories:
        out_dir = os.path.join(HERE, "out", "callgrind")
        models = os.path.join(ROOT, "models")
        llm, tokens = ("tiny-llm", 16) if a.quick else ("smollm2", 32)
        run(out_dir, os.path.join(models, llm), tokens, os.path.join(models, "tiny-whisper"), 1)
        directories = [out_dir]
    report(directories, os.path.join(HERE, "INSTRUCTIONS.md"))


if __name__ == "__main__":
    main()
