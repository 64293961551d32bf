"""Runs every fenced code block of the given Markdown files, exactly as written,
so that no example can drift from what the code does.

    readme_test.py CHECKOUT PYTHON FILE.md...

A block runs by its info string: `sh` with bash -e, `python` with PYTHON and
the checkout's package importable, `c` compiled against the public header
with VELMORA_LIBRARY naming the built library, then run. `text` blocks
(transcripts, outputs) are skipped; any other or missing info string fails.
The blocks of one file run in order in one scratch directory that shows the
checkout's top-level entries (build/, models/, ...), so a block may use what
an earlier one made."""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

FENCE = re.compile(r"^```([^\n]*)\n(.*?)^```$", re.M | re.S)
LIBRARY = "build/src/Tarvik.Velmora.Framework.OpenVINOBindings.so"


def blocks(markdown):
    for match in FENCE.finditer(markdown):
        line = markdown.count("\n", 0, match.start()) + 1
        yield line, match.group(1).strip(), match.group(2)


def commands(language, source, python):
    if language == "sh":
        return [["bash", "-e", source]]
    if language == "python":
        return [[python, source]]
    if language == "c":
        return [["cc", "-std=c99", "-Wall", "-Werror", "-Iinclude", f'-DVELMORA_LIBRARY="{LIBRARY}"', source,
                 "-ldl", "-o", "block"], ["./block"]]
    return None


def run_file(checkout, python, markdown_path):
    failures = 0
    with tempfile.TemporaryDirectory(prefix="readme-") as scratch:
        for entry in checkout.iterdir():
            if not entry.name.startswith("."):
                os.symlink(entry, Path(scratch) / entry.name)
        environment = dict(os.environ, PYTHONPATH=str(checkout / "python"))
        for line, language, code in blocks(markdown_path.read_text()):
            where = f"{markdown_path.name}:{line} ({language or 'no language'})"
            if language == "text":
                continue
            source = Path(scratch) / {"sh": "block.sh", "python": "block.py", "c": "block.c"}.get(language, "block")
            steps = commands(language, source, python)
            if steps is None:
                print(f"FAIL {where}: a block must say sh, python, c or text")
                failures += 1
                continue
            source.write_text(code)
            for step in steps:
                result = subprocess.run(step, cwd=scratch, env=environment, capture_output=True, text=True,
                                        timeout=600)
                if result.returncode != 0:
                    print(f"FAIL {where}: exit {result.returncode}\n{result.stdout[-2000:]}{result.stderr[-4000:]}")
                    failures += 1
                    break
            else:
                print(f"ok   {where}")
    return failures


def main():
    checkout, python = Path(sys.argv[1]).resolve(), sys.argv[2]
    failures = sum(run_file(checkout, python, Path(name)) for name in sys.argv[3:])
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
