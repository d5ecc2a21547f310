import os
import sys

import pytest

sys.dont_write_bytecode = True


@pytest.fixture
def halyard_check():
    """Path of the check program, in the environment variable HALYARD_CHECK."""
    return os.environ["HALYARD_CHECK"]
