"""Turns what bench/peers.py measured into bench/PEERS.md. Only the figures
come from the run; the notes that need judgement are in bench/PEERS-notes.md,
appended as they stand."""
import math
import os

HERE = os.path.dirname(os.path.abspath(__file__))
LLM_TARGET, WHISPER_TARGET = 1.15, 2.0


def fmt(s, digits=2):
    return f"{s['median']:.{digits}f} ({s['low']:.{digits}f} – {s['high']:.{digits}f})"


def verdict(value, target):
    return "met" if value >= target else "**missed**"


def render(r):
    m = r["machine"]
    v = r["versions"]
    lines = [
        "# The library against its peers",
        "",
        f"Command: `bench/peers.sh` — {r['rounds']} rounds, run {r['started']} in {r['minutes']:.1f} min. "
        f"Machine: {m['cpu']}, {m['cores']} cores ({', '.join(m['simd'])}); load average {m['load_start'][0]:.1f} "
        f"at start and {m['load_end'][0]:.1f} at the end: the machine is shared with other engineers' builds and "
        "tests, so single figures move; ratios are paired within a round and given as median (min – max).",
        "",
        f"Engines: the library (OpenVINO GenAI {v.get('openvino-genai', '?')}) through its C host "
        "`build/bench/velmora-turns`; llama.cpp through llama-cpp-python "
        f"{v.get('llama-cpp-python', '?')}, built from source for this CPU; faster-whisper {v.get('faster-whisper', '?')} "
        f"(CTranslate2 {v.get('ctranslate2', '?')}). Every engine uses 2 threads and is one process that loaded its model once; a round gives each the same "
        "job in turn, rotating who goes first.",
        "",
    ]
    if "llm" in r:
        lines += llm(r)
    if "whisper" in r:
        lines += whisper(r)
    notes = os.path.join(HERE, "PEERS-notes.md")
    if os.path.exists(notes):
        lines += ["", open(notes, encoding="utf-8").read().rstrip()]
    lines += ["", "![ratios](peers.png)", ""]
    return "\n".join(lines)


def measured_in(r, part):
    return f" (measured in the run of {r[part + '_from']})" if part + "_from" in r else ""


def llm(r):
    lines = [
        "## LLM: tokens per second against llama.cpp on the same GGUF" + measured_in(r, "llm"),
        "",
        f"SmolLM2-135M-Instruct, prompt \"{r['prompt']}\", greedy, {r['tokens']} new tokens, end of sequence "
        "ignored. The library runs the IR the runtime converted from the GGUF; llama.cpp runs the GGUF itself. "
        "Ratios are library ÷ llama.cpp for tokens/s and llama.cpp ÷ library for time to first token (short "
        "generations of 2 tokens), so more than 1 means the library is ahead.",
        "",
        "| Weights | Library IR | Tokens/s ratio | Target | Library tok/s | llama.cpp tok/s | First-token ratio | "
        "First token, library / llama.cpp (ms) |",
        "|---|---|---|---|---|---|---|---|",
    ]
    for p in r["llm"]:
        target = LLM_TARGET if p["default"] else None
        lines.append(
            f"| {p['label']} (`{p['gguf']}`) | `{p['library_model']}` | {fmt(p['tps_ratio'], 3)} | "
            + (f"≥ {target} {verdict(p['tps_ratio']['median'], target)}" if target else "–")
            + f" | {fmt(p['tps_library'], 1)} | {fmt(p['tps_peer'], 1)} | {fmt(p['ttft_ratio'], 3)} | "
            f"{p['ttft_library_ms']['median']:.1f} / {p['ttft_peer_ms']['median']:.1f} |")
    lines += ["", "Accuracy of the same runs: perplexity on the fixed text `bench/perplexity.txt` (each engine "
              "teacher-forced one token at a time, reading its own KV cache) and the greedy texts.", "",
              "| Weights | Library IR | Perplexity, library | Perplexity, llama.cpp | Same prompt tokens | "
              "Same first words of the greedy text |", "|---|---|---|---|---|---|"]
    for p in r["llm"]:
        words = len(p["text_library"].split())
        lines.append(
            f"| {p['label']} | `{p['library_model']}` | {math.exp(p['ppl_library']['nll']):.2f} "
            f"(KV cache {p['ppl_library']['kv_cache_precision'].split(chr(39))[1]}) | {math.exp(p['ppl_peer']['nll']):.2f} | "
            f"{'yes' if p['same_prompt_ids'] else '**no**'} ({p['prompt_tokens']}) | {p['same_words']} of {words} |")
    first = r["llm"][0]
    lines += ["", f"Greedy text, library on `{first['library_model']}`:", "", "> " + first["text_library"].replace("\n", " "),
              "", "llama.cpp on the same GGUF:", "", "> " + first["text_peer"].replace("\n", " "), ""]
    return lines


def whisper(r):
    w = r["whisper"]
    lines = ["## Whisper base: real-time factor against faster-whisper" + measured_in(r, "whisper"),
              "",
              "Speed on 30 s of synthetic speech (`bench/speech.sh`, espeak-ng), greedy, English, no timestamps. "
              f"The library runs `{w.get('library_model', 'models/whisper-base')}` (the IR `tools/make_whisper_base.py` "
              "writes); faster-whisper "
              "runs the same weights in the CTranslate2 layout they ship in, loaded as int8 or float32. "
              "Speed ratio: the engine's time ÷ the library's, so 2 means the library takes half the time. "
              f"Word error rate: mean over the {len(w['clips'])} clips of `bench/out/speech/` ({', '.join(w['clips'])}).",
              "", "| Engine | Real-time factor | Library's speed ratio against it | Target | Word error rate |",
              "|---|---|---|---|---|"]
    for name, e in w["engines"].items():
        target = WHISPER_TARGET if name == "faster-whisper int8" else None
        lines.append(f"| {name} | {fmt(e['rtf'], 3)} | " + ("–" if name == "library" else fmt(e["speed_ratio"], 2))
                     + " | " + (f"≥ {target} {verdict(e['speed_ratio']['median'], target)}" if target else "–")
                     + f" | {e['wer'] * 100:.1f} % |")
    return lines
