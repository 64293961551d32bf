"""Where the time of one generation goes inside the runtime, from its own
performance counters: the model's inference (the compute) against everything
else per token (sampling, detokenization, streaming, scheduling). The library
adds nothing measurable on top (bench/RESULTS.md), so this is the profile of a
library generation too. Runs the runtime directly: it is a measuring tool.

  .venv/bin/python bench/profile.py MODEL_DIR PROMPT TOKENS   -> one JSON line
"""
import json
import sys

import openvino_genai


def main():
    directory, prompt, tokens = sys.argv[1], sys.argv[2], int(sys.argv[3])
    pipe = openvino_genai.LLMPipeline(directory, "CPU")
    config = pipe.get_generation_config()
    config.max_new_tokens, config.ignore_eos, config.do_sample, config.apply_chat_template = tokens, True, False, False
    pipe.generate([prompt], config, streamer=lambda piece: False)  # warm-up
    runs = []
    for _ in range(3):
        m = pipe.generate([prompt], config, streamer=lambda piece: False).perf_metrics
        raw = m.raw_metrics
        infer = [d / 1e3 for d in raw.token_infer_durations]  # per token, ms
        runs.append({
            "generate_ms": m.get_generate_duration().mean, "inference_ms": m.get_inference_duration().mean,
            "ttft_ms": m.get_ttft().mean, "tpot_ms": m.get_tpot().mean,
            "first_infer_ms": infer[0], "decode_infer_ms": sum(infer[1:]) / max(1, len(infer) - 1),
            "sampling_ms": m.get_sampling_duration().mean, "tokenization_ms": m.get_tokenization_duration().mean,
            "detokenization_ms": m.get_detokenization_duration().mean, "tokens": m.get_num_generated_tokens()})
    best = min(runs, key=lambda r: r["generate_ms"])  # the least disturbed by other load
    best["outside_inference_per_token_ms"] = (best["generate_ms"] - best["inference_ms"]) / best["tokens"]
    best["inference_share"] = best["inference_ms"] / best["generate_ms"]
    print(json.dumps(best))


if __name__ == "__main__":
    main()
