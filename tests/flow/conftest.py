import os
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

import packages

WORKERS = 8  # the cases mostly wait; a module may have a number of its own


def pytest_configure():
    for name in ('KESTREL', 'KESTREL_DISCOVERING', 'KESTREL_SIM'):
        if not os.access(os.environ.get(name, ''), os.X_OK):
            pytest.exit(f'{name} must name the built program', 2)


@pytest.fixture(scope='session', autouse=True)
def no_process_is_left():
    """Whatever the tests started has ended when they have."""
    yield
    tasks = Path('/proc/self/task').glob('*/children')
    assert ''.join(task.read_text() for task in tasks).split() == []


@pytest.fixture(scope='module')
def result_of(request, tmp_path_factory):
    """Runs all cases of the module's table CASES (name: function of a folder) at the same time, and tells the
    result of one. A case that raises fails the tests that ask for its result."""
    with ThreadPoolExecutor(getattr(request.module, 'WORKERS', WORKERS)) as pool:
        running = {name: pool.submit(case, tmp_path_factory.mktemp(name))
                   for name, case in request.module.CASES.items()}
        yield lambda name: running[name].result(timeout=180)


@pytest.fixture(scope='module')
def package(tmp_path_factory):
    """A package with one image."""
    return packages.one_image(tmp_path_factory.mktemp('package'))


@pytest.fixture
def folder(tmp_path):
    return tmp_path
