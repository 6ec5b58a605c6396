import os

import pytest


def pytest_configure():
    for name in ('KESTREL_HASTY', 'KESTREL_SIM'):
        if not os.access(os.environ.get(name, ''), os.X_OK):
            pytest.exit(f'{name} must name the built program', 2)
