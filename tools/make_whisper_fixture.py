#!/usr/bin/env python3
"""Makes tiny-whisper, the speech model directory the project tests against.

  .venv-export/bin/python tools/make_whisper_fixture.py [OUTPUT_ROOT] [--force]

OUTPUT_ROOT defaults to models/ at the top of the repository; the model goes to
OUTPUT_ROOT/tiny-whisper. It is a two-layer Whisper with random weights from a
fixed seed and the real multilingual vocabulary, language and task tokens, so
language maps, task tokens and suppression lists are the real ones while
loading and decoding take a fraction of a second. Its output head never picks
a special token, so decoding ends only at the length bound: long, repeatable
token streams for the cancellation tests.

The vocabulary comes from the multilingual.tiktoken file that openai-whisper
ships (it ships no weights); its merges are recovered here. Nothing is
downloaded. The model is exported to the runtime's IR (encoder, stateful
decoder, tokenizer, detokenizer) in a fresh interpreter, inside a scratch
directory renamed into place only when complete: a directory that exists is
complete and is skipped unless --force is given.
"""

import argparse
import ast
import base64
import importlib.util
import json
import shutil
import subprocess
import sys
import warnings
from pathlib import Path

REPO_ROOT = Path(__file__).resolve().parent.parent
NAME = "tiny-whisper"
SEED = 20240611
SHAPE = dict(d_model=64, encoder_layers=2, decoder_layers=2, encoder_attention_heads=4,
             decoder_attention_heads=4, encoder_ffn_dim=256, decoder_ffn_dim=256)
# The real models' geometry: 80 mel bins, 30 s windows of 1500 frames, 448 positions.
MEL_BINS, SOURCE_POSITIONS, TARGET_POSITIONS = 80, 1500, 448
LANGUAGE_COUNT = 99  # every multilingual model before large-v3
TIMESTAMP_COUNT = 1501  # 0.00 .. 30.00 in steps of 0.02
MODEL_FILES = (
    "openvino_encoder_model.xml", "openvino_encoder_model.bin",
    "openvino_decoder_model.xml", "openvino_decoder_model.bin",
    "openvino_tokenizer.xml", "openvino_tokenizer.bin",
    "openvino_detokenizer.xml", "openvino_detokenizer.bin",
    "config.json", "generation_config.json", "preprocessor_config.json",
)


def whisper_package() -> Path:
    # Found without importing it: its package imports numba and torch at load.
    spec = importlib.util.find_spec("whisper")
    if spec is None or not spec.submodule_search_locations:
        raise FileNotFoundError("openai-whisper is not installed")
    return Path(spec.submodule_search_locations[0])


def read_ranks(path: Path) -> dict[bytes, int]:
    ranks = {}
    for line in path.read_text().splitlines():
        if line:
            token, rank = line.split()
            ranks[base64.b64decode(token)] = int(rank)
    return ranks


def read_languages(package: Path) -> list[str]:
    """The language codes in token order, read from the LANGUAGES literal."""
    tree = ast.parse((package / "tokenizer.py").read_text())
    for node in tree.body:
        if isinstance(node, ast.Assign) and any(
                isinstance(t, ast.Name) and t.id == "LANGUAGES" for t in node.targets):
            return list(ast.literal_eval(node.value))[:LANGUAGE_COUNT]
    raise ValueError("no LANGUAGES table in openai-whisper's tokenizer.py")


def split_by_lower_ranks(token: bytes, ranks: dict[bytes, int]) -> list[bytes]:
    """Byte-pair encodes token using only merges ranked below it."""
    parts = [bytes([b]) for b in token]
    limit = ranks[token]
    while True:
        best = min(((ranks[a + b], i) for i, (a, b) in enumerate(zip(parts, parts[1:]))
                    if ranks.get(a + b, limit) < limit), default=None)
        if best is None:
            return parts
        i = best[1]
        parts[i:i + 2] = [parts[i] + parts[i + 1]]


def recover_merges(ranks: dict[bytes, int]) -> list[tuple[bytes, bytes]]:
    """tiktoken keeps only ranks: each multi-byte token is the merge of the two
    pieces that encoding it with lower-ranked merges leaves."""
    merges = []
    for token in sorted(ranks, key=ranks.get):
        if len(token) < 2:
            continue  # single bytes, and an empty entry the file carries
        parts = split_by_lower_ranks(token, ranks)
        if len(parts) != 2:
            raise ValueError(f"token {token!r} is not a merge of two lower-ranked tokens")
        merges.append((parts[0], parts[1]))
    return merges


def byte_level_alphabet() -> dict[int, str]:
    """The printable stand-in for each byte that byte-level BPE vocabularies use."""
    printable = [*range(ord("!"), ord("~") + 1), *range(ord("¡"), ord("¬") + 1),
                 *range(ord("®"), ord("ÿ") + 1)]
    others = [b for b in range(256) if b not in printable]
    return {b: chr(b) for b in printable} | {b: chr(256 + i) for i, b in enumerate(others)}


def control_tokens(languages: list[str]) -> list[str]:
    return ["<|endoftext|>", "<|startoftranscript|>", *[f"<|{code}|>" for code in languages],
            "<|translate|>", "<|transcribe|>", "<|startoflm|>", "<|startofprev|>",
            "<|nospeech|>", "<|notimestamps|>"]


def timestamp_tokens() -> list[str]:
    return [f"<|{i * 0.02:.2f}|>" for i in range(TIMESTAMP_COUNT)]


def build_tokenizer(package: Path, languages: list[str], directory: Path):
    """Writes the vocabulary and merges to directory and loads them with the special
    tokens appended in the order that gives them their real ids."""
    from transformers import WhisperTokenizerFast

    ranks = read_ranks(package / "assets" / "multilingual.tiktoken")
    alphabet = byte_level_alphabet()
    text = lambda token: "".join(alphabet[b] for b in token)
    vocab = {text(token): rank for token, rank in ranks.items()}
    directory.mkdir(parents=True, exist_ok=True)
    (directory / "vocab.json").write_text(json.dumps(vocab, ensure_ascii=False))
    (directory / "merges.txt").write_text(
        "#version: 0.2\n" + "".join(f"{text(a)} {text(b)}\n" for a, b in recover_merges(ranks)))

    # Control tokens are special (dropped when decoding); timestamps are not, as in
    # the real tokenizers: decoders turn them into times by id.
    controls, timestamps = control_tokens(languages), timestamp_tokens()
    tokenizer = WhisperTokenizerFast(vocab_file=str(directory / "vocab.json"),
                                     merges_file=str(directory / "merges.txt"),
                                     additional_special_tokens=controls)
    tokenizer.add_tokens(timestamps)
    ids = tokenizer.convert_tokens_to_ids(controls + timestamps)
    if ids != list(range(len(vocab), len(vocab) + len(ids))):
        raise ValueError("added tokens did not get consecutive ids after the vocabulary")
    return tokenizer


def non_speech_tokens(tokenizer) -> list[int]:
    """Speaker tags, music notes and brackets: what real models never transcribe.
    Hyphens and quotes stay allowed inside words, only not at a word start."""
    symbols = [*'"#()*+/:;<=>@[\\]^_`{|}~「」『』',
               *"<< >> <<< >>> -- --- -( -[ (' (\" (( )) ((( ))) [[ ]] {{ }} ♪♪ ♪♪♪".split()]
    notes = list("♩♪♫♬♭♮♯")  # may span tokens; their first token is safe to suppress
    encode = lambda s: tokenizer.encode(s, add_special_tokens=False)
    result = {encode(" -")[0], encode(" '")[0]}
    for symbol in symbols + notes:
        for ids in (encode(symbol), encode(" " + symbol)):
            if len(ids) == 1 or symbol in notes:
                result.add(ids[0])
    return sorted(result)


def generation_settings(tokenizer, languages: list[str]) -> dict:
    token = tokenizer.convert_tokens_to_ids
    control = ["<|startoftranscript|>", "<|translate|>", "<|transcribe|>",
               "<|startoflm|>", "<|startofprev|>", "<|nospeech|>"]
    return dict(
        bos_token_id=token("<|endoftext|>"), eos_token_id=token("<|endoftext|>"),
        pad_token_id=token("<|endoftext|>"),
        decoder_start_token_id=token("<|startoftranscript|>"),
        no_timestamps_token_id=token("<|notimestamps|>"),
        prev_sot_token_id=token("<|startofprev|>"),
        is_multilingual=True,
        lang_to_id={f"<|{code}|>": token(f"<|{code}|>") for code in languages},
        task_to_id={"transcribe": token("<|transcribe|>"), "translate": token("<|translate|>")},
        # No output starts with a space or ends before it starts.
        begin_suppress_tokens=[token("Ġ"), token("<|endoftext|>")],
        suppress_tokens=sorted(set(non_speech_tokens(tokenizer)) | set(token(control))),
        max_initial_timestamp_index=50,
        max_length=TARGET_POSITIONS,
        return_timestamps=False,
    )


def build_model(tokenizer, settings: dict):
    import torch
    from transformers import GenerationConfig, WhisperConfig, WhisperForConditionalGeneration

    torch.manual_seed(SEED)
    config = WhisperConfig(
        vocab_size=len(tokenizer), num_mel_bins=MEL_BINS,
        max_source_positions=SOURCE_POSITIONS, max_target_positions=TARGET_POSITIONS,
        **SHAPE, **{k: settings[k] for k in ("bos_token_id", "eos_token_id", "pad_token_id",
                                              "decoder_start_token_id")})
    model = WhisperForConditionalGeneration(config).eval()
    # The output head shares the token embeddings. Zero rows for every special
    # token (end of text, languages, tasks, timestamps): their logit is then 0
    # while some text token's is positive, so greedy decoding never stops early
    # and emits only text.
    with torch.no_grad():
        model.get_output_embeddings().weight[tokenizer.convert_tokens_to_ids("<|endoftext|>"):] = 0
    # Cross-attention heads that word timings follow: all of the last layer's.
    heads = [[SHAPE["decoder_layers"] - 1, h] for h in range(SHAPE["decoder_attention_heads"])]
    model.generation_config = GenerationConfig(**settings, alignment_heads=heads)
    return model


def write_hf_model(directory: Path) -> None:
    from transformers import WhisperFeatureExtractor

    package = whisper_package()
    languages = read_languages(package)
    tokenizer = build_tokenizer(package, languages, directory)
    settings = generation_settings(tokenizer, languages)
    build_model(tokenizer, settings).save_pretrained(directory)
    tokenizer.save_pretrained(directory)
    WhisperFeatureExtractor(feature_size=MEL_BINS).save_pretrained(directory)


def export_here(hf_dir: str, out_dir: str, dtype: str) -> None:
    """Exports the model in hf_dir to IR in out_dir, in a repeatable node order."""
    import optimum.exporters.openvino.stateful as stateful
    from optimum.exporters.openvino import main_export
    from optimum.intel import OVConfig
    from torch.jit import TracerWarning

    # Tracing fixes Whisper's shape checks as constants, as intended: 30 s windows.
    warnings.simplefilter("ignore", TracerWarning)

    # The decoder caches each cross-attention key and value in a state whose
    # initialiser the exporter finds as a set of nodes; iterated unsorted, they
    # land in the file in a different order from run to run.
    find_unordered = stateful.find_output_nodes_of_dependent_subgraph

    def find_in_name_order(model, sources):
        return sorted(find_unordered(model, sources), key=lambda node: node.get_friendly_name())

    stateful.find_output_nodes_of_dependent_subgraph = find_in_name_order
    main_export(hf_dir, out_dir, task="automatic-speech-recognition-with-past",
                convert_tokenizer=True, local_files_only=True, ov_config=OVConfig(dtype=dtype))


def export(hf_dir: Path, out_dir: Path, dtype: str = "fp32") -> None:
    """Exports in a fresh interpreter: the runtime numbers the graph nodes it creates
    with a per-process counter, so a second export in one process would differ."""
    code = ("import sys\n"
            "sys.path.insert(0, sys.argv[1])\n"
            "from make_whisper_fixture import export_here\n"
            "export_here(*sys.argv[2:])\n")
    subprocess.run([sys.executable, "-c", code, str(Path(__file__).resolve().parent),
                    str(hf_dir), str(out_dir), dtype], check=True)


def missing_files(directory: Path) -> list[str]:
    return [name for name in MODEL_FILES if not (directory / name).is_file()]


def keep_only_model_files(directory: Path) -> None:
    """Drops the exporter's copies of the source tokenizer: the runtime reads the IR."""
    if missing := missing_files(directory):
        raise RuntimeError(f"export did not write {', '.join(missing)}")
    for path in directory.iterdir():
        if path.name not in MODEL_FILES:
            path.unlink()


def build(target: Path, write_hf=None, dtype: str = "fp32") -> None:
    """Writes the transformers model, exports it, and renames it into place."""
    scratch = target.with_name(f".{target.name}.partial")
    shutil.rmtree(scratch, ignore_errors=True)
    (write_hf or write_hf_model)(scratch / "hf")
    export(scratch / "hf", scratch / "ov", dtype)
    keep_only_model_files(scratch / "ov")
    shutil.rmtree(target, ignore_errors=True)
    (scratch / "ov").rename(target)
    shutil.rmtree(scratch)


def report(target: Path) -> None:
    for path in sorted(target.iterdir()):
        print(f"  {path.name:28} {path.stat().st_size:>10} bytes")
    print(f"{target}: done")


def main(name: str = NAME, description: str = __doc__, write_hf=None, dtype: str = "fp32") -> int:
    parser = argparse.ArgumentParser(description=description.splitlines()[0])
    parser.add_argument("root", nargs="?", default=REPO_ROOT / "models", type=Path,
                        help="output root (default: models/ in the repository)")
    parser.add_argument("--force", action="store_true", help="rebuild even if complete")
    args = parser.parse_args()

    target = args.root.resolve() / name
    if not missing_files(target) and not args.force:
        print(f"{target}: complete, skipped")
        return 0
    print(f"{target}: building")
    build(target, write_hf, dtype)
    report(target)
    return 0


if __name__ == "__main__":
    sys.exit(main())
