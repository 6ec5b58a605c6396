"""The lab's cases run inside the virtual machine that `run` starts; elsewhere they are not collected."""
import os
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / 'flow'))  # its processes and packages serve here too

if not os.environ.get('KESTREL_LAB_HELPERS'):
    collect_ignore_glob = ['test_*.py']


@pytest.fixture(scope='session', autouse=True)
def kernel():
    import lab  # only where the cases can run
    lab.load_modules()
