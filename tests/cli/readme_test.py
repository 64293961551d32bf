"""Runs every fenced block of the given Markdown files as written, in order, in one scratch directory
per file that shows the checkout's top-level entries: `sh` with bash -e, `python` with PYTHON, `c` compiled
against the public header and run; `text` is skipped, any other or missing info string fails.

    readme_test.py CHECKOUT PYTHON FILE.md..."""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path


def main():
    checkout, python = Path(sys.argv[1]).resolve(), sys.argv[2]
    library = "build/src/Tarvik.Velmora.Framework.OpenVINOBindings.so"
    steps = {"sh": ("block.sh", [["bash", "-e", "block.sh"]]), "python": ("block.py", [[python, "block.py"]]),
             "c": ("block.c", [["cc", "-std=c99", "-Wall", "-Wextra", "-pedantic", "-Werror", "-Iinclude",
                                f'-DVELMORA_LIBRARY="{library}"', "block.c", "-ldl", "-o", "block"], ["./block"]])}
    failures = 0
    for markdown in map(Path, sys.argv[3:]):
        text = markdown.read_text()
        with tempfile.TemporaryDirectory(prefix="readme-") as scratch:
            for entry in (entry for entry in checkout.iterdir() if not entry.name.startswith(".")):
                os.symlink(entry, Path(scratch) / entry.name)
            for block in re.finditer(r"^```([^\n]*)\n(.*?)^```$", text, re.M | re.S):
                language = block.group(1).strip()
                where = f"{markdown.name}:{text.count(chr(10), 0, block.start()) + 1} ({language or 'no language'})"
                if language == "text":
                    continue
                if language not in steps:
                    print(f"FAIL {where}: a block must say sh, python, c or text")
                    failures += 1
                    continue
                name, commands = steps[language]
                (Path(scratch) / name).write_text(block.group(2))
                for command in commands:
                    result = subprocess.run(command, cwd=scratch, capture_output=True, text=True, timeout=600,
                                            env=dict(os.environ, PYTHONPATH=str(checkout / "python")))
                    if result.returncode != 0:
                        print(f"FAIL {where}: exit {result.returncode}\n{result.stdout[-2000:]}{result.stderr[-4000:]}")
                        failures += 1
                        break
                else:
                    print(f"ok   {where}")
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
