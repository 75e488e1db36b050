"""The build folder, for the tests of scripts that look at it."""

import pathlib

import pytest


@pytest.fixture(scope="session")
def build(request):
    return pathlib.Path(request.config.getoption("--build")).resolve()
