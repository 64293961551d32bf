"""Records, at build time, where the native library of this checkout is, so
an installed package finds it with no argument. The file written is
velmora/_install_location.py inside the built package only."""
from pathlib import Path

from setuptools import setup
from setuptools.command.build_py import build_py

LIBRARY_FILE = "Tarvik.Velmora.Framework.OpenVINOBindings.so"


class BuildPyRecordingLibrary(build_py):
    def run(self):
        super().run()
        built = Path(__file__).resolve().parent.parent / "build" / "src" / LIBRARY_FILE
        location = str(built) if built.is_file() else None
        target = Path(self.build_lib) / "velmora" / "_install_location.py"
        target.write_text(f"LIBRARY = {location!r}\n")


setup(cmdclass={"build_py": BuildPyRecordingLibrary})
