"""Shared set-up of the binding tests: a recording with known content, and taggers on it."""

import os
import pathlib
import subprocess

import pytest

import zeptick

BUILD = pathlib.Path(os.environ.get("ZEPTICK_BUILD_DIR", "build"))
SOURCE = pathlib.Path(os.environ.get("ZEPTICK_SOURCE_DIR", "."))


@pytest.fixture(scope="session")
def recording(tmp_path_factory):
    """A 300 ms recording: pairs on 1 and 2 (2.5 ns apart), a 10 µs clock on 3."""
    path = tmp_path_factory.mktemp("recording") / "pairs.ztbin"
    subprocess.run([str(BUILD / "tools" / "zeptick-generate-recording"), str(path),
                    "--seed", "7", "--duration-ms", "300", "--pair-rate", "40000",
                    "--period-ps", "10000000"], check=True, capture_output=True)
    return path


@pytest.fixture
def replay():
    with zeptick.createZeptickVirtual() as tagger:
        tagger.setReplaySpeed(-1)
        yield tagger
