import inspect
import subprocess
import sys
from pathlib import Path

import pytest

import velmora

PACKAGE_DIR = Path(__file__).resolve().parents[1]


def test_an_installed_package_records_the_library_of_its_checkout(tmp_path):
    # The build step pip runs when it installs the package.
    subprocess.run([sys.executable, "setup.py", "-q", "build_py", "--build-lib", tmp_path], cwd=PACKAGE_DIR,
                   check=True)
    recorded = {}
    exec((tmp_path / "velmora" / "_install_location.py").read_text(), recorded)
    built = PACKAGE_DIR.parent / "build" / "src" / velmora.LIBRARY_FILE
    assert recorded["LIBRARY"] == (str(built) if built.is_file() else None)
    assert not (PACKAGE_DIR / "velmora" / "_install_location.py").exists()


def test_typed_tables_match_the_library(llm, whisper):
    # Each typed name is one the library reads, and takes back through its
    # kind; each family has as many as the library documents.
    for model, table, count in ((llm, velmora.config.LLM_SETTINGS, 21),
                                (whisper, velmora.config.WHISPER_SETTINGS, 13)):
        assert len(table) == count
        whisper.config["language"], whisper.config["task"] = "<|en|>", "transcribe"  # absent until set
        for name in table:
            value = model.config[name]
            model.config[name] = min(value, 2**31 - 1) if type(value) is int else value
        with pytest.raises(velmora.PropertyError):
            model.config.text("top_k_")


def test_one_default_context_length():
    for function in (velmora.LlmModel.__init__, velmora.compile_model):
        assert inspect.signature(function).parameters["context_length"].default == velmora.DEFAULT_CONTEXT_LENGTH
