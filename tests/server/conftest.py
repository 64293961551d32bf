import contextlib
import os
import socket
import subprocess
import sys
import time
from pathlib import Path

import httpx2 as httpx
import pytest

CHECKOUT = Path(__file__).resolve().parents[2]


def pytest_addoption(parser):
    parser.addoption("--library", required=True, help="the native library file")
    parser.addoption("--models", default=str(CHECKOUT / "models"))
    parser.addoption("--artifacts", default=".", help="where the browser's screenshot is kept")


@pytest.fixture(scope="session")
def models(request):
    return Path(request.config.getoption("--models"))


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_healthy(url, process):
    """Waits until `url` answers /health, failing if `process` ends first."""
    deadline = time.monotonic() + 120
    while True:
        assert process.poll() is None, f"{process.args[0]} stopped while starting"
        with contextlib.suppress(httpx.HTTPError):
            if httpx.get(url + "/health").status_code == 200:
                return
        assert time.monotonic() < deadline, f"{url} did not get ready"
        time.sleep(0.2)


@pytest.fixture(scope="session")
def serve(request):
    """`python -m velmora.server ARGS` on a free loopback port, from loaded to the end of the block."""
    library = request.config.getoption("--library")

    @contextlib.contextmanager
    def run(*args, port=None):
        port = port or free_port()
        process = subprocess.Popen([sys.executable, "-m", "velmora.server", "--port", str(port), "--library", library,
                                    "--log-level", "warning", *map(str, args)],
                                   env=dict(os.environ, PYTHONPATH=str(CHECKOUT / "python")))
        url = f"http://127.0.0.1:{port}"
        try:
            wait_healthy(url, process)
            yield url, process
        finally:
            process.terminate()
            try:
                process.wait(10)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()

    return run
