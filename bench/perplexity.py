"""Perplexity of an LLM directory's IR on a fixed text, as the runtime computes
it with the runtime options the IR carries: teacher-forced one token at a time,
so that every step reads its past from the KV cache as generation does.

  .venv/bin/python bench/perplexity.py MODEL_DIR TEXT_FILE   -> one JSON line
"""
import json
import math
import sys

import numpy as np
import openvino as ov
import openvino_genai


def main():
    directory, text_path = sys.argv[1], sys.argv[2]
    ids = openvino_genai.Tokenizer(directory).encode(open(text_path, encoding="utf-8").read()).input_ids.data[0]
    compiled = ov.Core().compile_model(f"{directory}/openvino_model.xml", "CPU")
    request = compiled.create_infer_request()
    request.reset_state()
    nll = 0.0
    for i in range(len(ids) - 1):
        request.infer({"input_ids": np.array([[ids[i]]], np.int64),
                       "attention_mask": np.ones((1, i + 1), np.int64),
                       "position_ids": np.array([[i]], np.int64), "beam_idx": np.zeros(1, np.int32)})
        logits = request.get_tensor("logits").data[0, -1].astype(np.float64)
        top = logits.max()
        nll += top + math.log(np.exp(logits - top).sum()) - logits[ids[i + 1]]
    print(json.dumps({"tokens": int(len(ids)), "nll": nll / (len(ids) - 1),
                      "kv_cache_precision": str(compiled.get_property("KV_CACHE_PRECISION"))}))


if __name__ == "__main__":
    main()
