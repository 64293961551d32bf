import subprocess
import sys
from pathlib import Path

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
