"""Runs every fenced block of the given Markdown files as written, in order, in one scratch directory
per file that shows the checkout's top-level entries: `sh` with bash -e, `python` with PYTHON, `c` compiled
against the public header and run. A `text` block right after one of those is what it prints (stdout and
stderr together), timings and counts aside; a line "..." stands for any lines, a line ending in " ..." for
any continuation of it. Any other `text` block is skipped, any other or missing info string fails.

    readme_test.py CHECKOUT PYTHON FILE.md..."""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path


def shows(printed, shown):
    """Whether `printed` is what the block `shown` says, up to timings, counts and elisions."""
    def lines(text):
        return [re.sub(r"(?:(?<=in )|(?<=after ))\d+(\.\d+)?|\d+(\.\d+)?(?= tokens\b|x real time)", "#", line.rstrip())
                for line in text.rstrip("\n").split("\n")]

    def pattern(line):
        if line == "...":
            return r"(?:[^\n]*\n)*?"
        return re.escape(line[:-4]) + r"[\s\S]*?\n" if line.endswith(" ...") else re.escape(line) + "\n"
    return re.fullmatch("".join(map(pattern, lines(shown))), "\n".join(lines(printed)) + "\n") is not None


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
            printed, end = None, 0
            for block in re.finditer(r"^```([^\n]*)\n(.*?)^```$", text, re.M | re.S):
                language = block.group(1).strip()
                where = f"{markdown.name}:{text.count(chr(10), 0, block.start()) + 1} ({language or 'no language'})"
                if language == "text":
                    if printed is not None and not text[end:block.start()].strip() and not shows(printed, block.group(2)):
                        print(f"FAIL {where}: the block before printed\n{printed}")
                        failures += 1
                    printed = None
                    continue
                printed, end = None, block.end()
                if language not in steps:
                    print(f"FAIL {where}: a block must say sh, python, c or text")
                    failures += 1
                    continue
                name, commands = steps[language]
                (Path(scratch) / name).write_text(block.group(2))
                for command in commands:
                    result = subprocess.run(command, cwd=scratch, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                            text=True, timeout=600,
                                            env=dict(os.environ, PYTHONPATH=str(checkout / "python")))
                    if result.returncode != 0:
                        print(f"FAIL {where}: exit {result.returncode}\n{result.stdout[-6000:]}")
                        failures += 1
                        break
                else:
                    print(f"ok   {where}")
                printed = result.stdout if result.returncode == 0 else None
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
