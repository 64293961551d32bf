"""Makes the weights each engine reads for the peer comparison, all from the
same sources as the project's models, into build/peer-models/:

  smollm2-q8_0.gguf   the packaged Q4_1 GGUF re-encoded as Q8_0 (every
                      quantized tensor dequantized and quantized again), and
  smollm2-q8_0/       its IR, converted by the runtime as tools/make_llm_fixtures.py
                      converts the Q4_1 one, with the same runtime options;
  smollm2-f16.gguf, smollm2-f16/   the same, dequantized to float16;
  whisper-base-ct2/   the Whisper base weights in the layout faster-whisper
                      loads: the packages ship them as its converter wrote them.

  .venv/bin/python bench/peer_models.py  -> prints a JSON map of the paths
"""
import json
import shutil
import subprocess
import sys
from pathlib import Path

import gguf
import numpy as np
from gguf.quants import dequantize, quantize

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tools"))
import make_llm_fixtures as fixtures  # noqa: E402

OUT = ROOT / "build" / "peer-models"
Q = gguf.GGMLQuantizationType
HEADER_KEYS = ("GGUF.version", "GGUF.tensor_count", "GGUF.kv_count", "general.architecture", "general.file_type")


FILE_TYPES = {Q.Q8_0: gguf.LlamaFileType.MOSTLY_Q8_0, Q.F16: gguf.LlamaFileType.MOSTLY_F16}


def requantize(source: Path, target: Path, kind=Q.Q8_0) -> None:
    reader = gguf.GGUFReader(source)
    writer = gguf.GGUFWriter(target, reader.fields["general.architecture"].contents())
    for key, field in reader.fields.items():
        if key in HEADER_KEYS:
            continue
        vtype = field.types[0]
        writer.add_key_value(key, field.contents(), vtype, field.types[1] if vtype == gguf.GGUFValueType.ARRAY else None)
    writer.add_file_type(FILE_TYPES[kind])
    for tensor in reader.tensors:
        if tensor.tensor_type in (Q.F32, Q.F16):  # norms stay as they are
            writer.add_tensor(tensor.name, np.asarray(tensor.data), raw_dtype=tensor.tensor_type)
            continue
        values = dequantize(tensor.data, tensor.tensor_type)
        writer.add_tensor(tensor.name, quantize(values, kind), raw_dtype=kind)
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()


def whisper_ct2(target: Path) -> None:
    # The weight packages are installed in the export environment; ask it where.
    code = ("import sys; sys.path.insert(0, 'tools'); import make_whisper_base as w; "
            "print('\\n'.join(str(w.package_data(p)) for p in w.PARTS))")
    parts = subprocess.run([str(ROOT / ".venv-export" / "bin" / "python"), "-c", code], cwd=ROOT, check=True,
                           capture_output=True, text=True).stdout.split()
    scratch = target.with_name(target.name + ".partial")
    shutil.rmtree(scratch, ignore_errors=True)
    scratch.mkdir(parents=True)
    with open(scratch / "model.bin", "wb") as out:
        for i, part in enumerate(parts):
            with open(Path(part) / f"model.bin.part{i + 1}", "rb") as chunk:
                shutil.copyfileobj(chunk, out)
    for name in ("config.json", "tokenizer.json", "vocabulary.txt"):
        shutil.copyfile(Path(parts[0]) / name, scratch / name)
    scratch.rename(target)


def main() -> int:
    OUT.mkdir(parents=True, exist_ok=True)
    q4 = fixtures.smollm2_gguf()
    q8 = OUT / "smollm2-q8_0.gguf"
    if not q8.is_file():
        requantize(q4, q8.with_suffix(".partial"))
        q8.with_suffix(".partial").rename(q8)
    q8_ir = OUT / "smollm2-q8_0"
    if fixtures.missing_files(q8_ir):
        fixtures.build(q8_ir, lambda path: shutil.copyfile(q8, path), fixtures.SMOLLM2_OPTIONS)
    # The same values unquantized: tells the conversion's arithmetic from the engines' own.
    f16 = OUT / "smollm2-f16.gguf"
    if not f16.is_file():
        requantize(q4, f16.with_suffix(".partial"), Q.F16)
        f16.with_suffix(".partial").rename(f16)
    f16_ir = OUT / "smollm2-f16"
    if fixtures.missing_files(f16_ir):
        fixtures.build(f16_ir, lambda path: shutil.copyfile(f16, path), fixtures.SMOLLM2_OPTIONS)
    ct2 = OUT / "whisper-base-ct2"
    if not (ct2 / "model.bin").is_file():
        whisper_ct2(ct2)
    print(json.dumps({"q4_1_gguf": str(q4), "q8_0_gguf": str(q8), "q8_0_ir": str(q8_ir),
                      "f16_gguf": str(f16), "f16_ir": str(f16_ir), "whisper_ct2": str(ct2)}))
    return 0


if __name__ == "__main__":
    sys.exit(main())
