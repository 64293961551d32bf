"""Lays out the private runtime folder that sits beside the library:

    velmora-runtime/lib/libpython3.X.so.1.0
    velmora-runtime/lib/python3.X/                 the standard library
    velmora-runtime/lib/python3.X/site-packages/   the runtime packages

It is the layout of an interpreter's own prefix, so the library starts the
embedded interpreter with this folder as its home and nothing else.

    python runtime_folder.py link DEST   build tree: links into this interpreter
    python runtime_folder.py copy DEST   install: a copy that stands alone

Run it with the interpreter of the environment that holds the runtime."""
import importlib.metadata
import os
import re
import shutil
import sys
import sysconfig
from pathlib import Path

# The distributions the embedded runtime imports; their requirements follow.
ROOTS = ["openvino-genai", "numpy"]

# Parts of the standard library the runtime never imports.
STDLIB_LEFT_OUT = {"site-packages", "test", "idlelib", "tkinter", "turtledemo", "ensurepip", "lib2to3",
                   "unittest", "pydoc_data", "__phello__"}
DYNLOAD_LEFT_OUT = re.compile(r"^(_test|_ctypes_test|_xxtestfuzz|xxlimited|_tkinter|_curses|readline|nis|spwd|ossaudiodev)")


def version_dir():
    return f"python{sys.version_info.major}.{sys.version_info.minor}"


def libpython():
    return Path(sysconfig.get_config_var("LIBDIR")) / sysconfig.get_config_var("INSTSONAME")


def stdlib():
    return Path(sysconfig.get_paths()["stdlib"])


def stdlib_entries():
    for entry in sorted(stdlib().iterdir()):
        if entry.name in STDLIB_LEFT_OUT or entry.name.startswith("config-"):
            continue
        yield entry


def distributions():
    """The runtime's distributions and everything they require, found by name."""
    seen, todo = {}, list(ROOTS)
    while todo:
        name = re.split(r"[\s;<>=!~\[(]", todo.pop(), maxsplit=1)[0].lower().replace("_", "-")
        if name in seen:
            continue
        dist = importlib.metadata.distribution(name)
        seen[name] = dist
        todo += [r for r in (dist.requires or []) if "extra ==" not in r]
    return seen.values()


def fresh(dest):
    if dest.is_symlink() or dest.is_file():
        dest.unlink()
    elif dest.exists():
        shutil.rmtree(dest)
    dest.mkdir(parents=True)


def link(dest):
    fresh(dest)
    lib = dest / "lib"
    lib.mkdir()
    (lib / libpython().name).symlink_to(libpython().resolve())
    python = lib / version_dir()
    python.mkdir()
    for entry in stdlib_entries():
        (python / entry.name).symlink_to(entry)
    (python / "site-packages").symlink_to(Path(sysconfig.get_paths()["purelib"]).resolve())


def copy_file(source, target):
    target.parent.mkdir(parents=True, exist_ok=True)
    if source.is_symlink():
        target.symlink_to(os.readlink(source))
    else:
        shutil.copy2(source, target)  # keeps mtimes, so the shipped bytecode stays valid


def copy(dest):
    fresh(dest)
    lib = dest / "lib"
    copy_file(libpython().resolve(), lib / libpython().name)
    python = lib / version_dir()
    for entry in stdlib_entries():
        if entry.is_dir():
            shutil.copytree(entry, python / entry.name, symlinks=True,
                            ignore=lambda _, names: [n for n in names if DYNLOAD_LEFT_OUT.match(n)])
        else:
            copy_file(entry, python / entry.name)
    site = python / "site-packages"
    for dist in distributions():
        for file in dist.files or []:
            source = Path(dist.locate_file(file))
            # Scripts installed outside site-packages are not the runtime's.
            if file.parts[0] != ".." and (source.is_file() or source.is_symlink()):
                copy_file(source, site / file)


def main():
    if len(sys.argv) != 3 or sys.argv[1] not in ("link", "copy"):
        sys.exit(__doc__)
    {"link": link, "copy": copy}[sys.argv[1]](Path(sys.argv[2]))


if __name__ == "__main__":
    main()
