import os
import sys

import pytest

# pytest is imported already; what comes from here leaves no compiled files in the repository.
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(__file__))

from panel import Panel  # noqa: E402


def pytest_configure(config):
    # Temporary files vanish with the sandbox.
    if not config.option.basetemp:
        config.option.basetemp = "/run/mysqld/pytest"


@pytest.fixture(scope="session")
def _panel():
    assert os.path.exists("/etc/kiv/kiv.conf"), "run me through script/sandbox --empty"
    return Panel()


@pytest.fixture
def panel(_panel):
    _panel.begin()
    yield _panel
    _panel.end()
