from pathlib import Path

import pytest

import velmora


def pytest_addoption(parser):
    parser.addoption("--library", help="library file (default: velmora.find_library())")
    parser.addoption("--models", default=str(Path(__file__).resolve().parents[2] / "models"),
                     help="directory holding the model fixtures")


@pytest.fixture(scope="session")
def library(request):
    return velmora.load_library(request.config.getoption("--library"))


@pytest.fixture(scope="session")
def models(request):
    return Path(request.config.getoption("--models"))


class Counting:
    """A model's table noting each release slot called, with its arguments."""

    def __init__(self, api):
        self._api, self.released = api, []

    def __getattr__(self, name):
        slot = getattr(self._api, name)
        if not name.startswith("Free"):
            return slot
        return lambda pointer, *rest: self.released.append((name, getattr(pointer, "value", pointer), *rest)) \
            or slot(pointer, *rest)


@pytest.fixture
def llm(library, models):
    with velmora.LlmModel(models / "tiny-llm", context_length=16, library=library) as model:
        model._api = Counting(model._api)
        yield model


@pytest.fixture
def whisper(library, models):
    with velmora.WhisperModel(models / "tiny-whisper", library=library) as model:
        model._api = Counting(model._api)
        model.config["max_new_tokens"] = 8  # the random model never ends on its own
        yield model
