from pathlib import Path

import pytest

import velmora

MODELS = Path(__file__).resolve().parents[2] / "models"


def pytest_addoption(parser):
    parser.addoption("--library", help="library file (default: velmora.find_library())")
    parser.addoption("--models", default=str(MODELS), help="directory holding the model fixtures")


@pytest.fixture(scope="session")
def library(request):
    return velmora.load_library(request.config.getoption("--library"))


@pytest.fixture(scope="session")
def models(request):
    return Path(request.config.getoption("--models"))


@pytest.fixture
def llm(library, models):
    with velmora.LlmModel(models / "tiny-llm", context_length=16, library=library) as model:
        yield model


@pytest.fixture
def whisper(library, models):
    with velmora.WhisperModel(models / "tiny-whisper", library=library) as model:
        model.config["max_new_tokens"] = 8  # the random model never ends on its own
        yield model


class CountingApi:
    """Forwards to a table and counts the release slots called, with their
    first argument, so a test sees each buffer given back exactly once."""

    def __init__(self, api):
        self._api = api
        self.released = []

    def __getattr__(self, name):
        slot = getattr(self._api, name)
        if not name.startswith("Free"):
            return slot

        def release(pointer, *rest):
            self.released.append((name, getattr(pointer, "value", pointer), *rest))
            return slot(pointer, *rest)

        return release


@pytest.fixture
def counting():
    def install(model):
        model._api = CountingApi(model._api)
        return model._api
    return install

