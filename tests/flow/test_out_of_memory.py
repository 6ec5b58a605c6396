"""Whole runs in which one allocation fails: the first, the second, and so on until each has failed once."""
import os
from concurrent.futures import ThreadPoolExecutor

import pytest

import packages
from conftest import WORKERS
from harness import COMPLETED, FAILED, SANITIZED, Sim, run, stop

pytestmark = pytest.mark.skipif(SANITIZED, reason='the sanitizer has the allocations to itself')

LIBRARY = os.environ.get('KESTREL_FAILING_ALLOCATION', '')


def run_without(folder, number, package, begin, *arguments):
    """A run whose allocation of this number fails: outcome, what the modem received, images, allocations."""
    folder.mkdir()
    count = folder / 'count'
    before = ['env', f'LD_PRELOAD={LIBRARY}', f'FAIL_ALLOCATION={number}', f'ALLOCATION_COUNT={count}']
    with Sim(folder, '--programmer-size', '20000', begin=begin, until='sahara' if begin == 'sahara' else None) as modem:
        outcome = run(package, '--port', modem.port, '--force', '--skip-enter-qdl', *arguments, before=before)
        stop(modem.process)
        received = [event['kind'] for event in modem.events() if event['dir'] == 'rx']
    images = [path.read_bytes() for path in sorted(modem.flash.glob('*-program.bin'))]
    return outcome, received, images, int(count.read_text())


def each_allocation_once(folder, begin, *arguments):
    """The run in which none fails, and then the others."""
    package = packages.write(folder / 'package', [packages.ERASE, packages.program('one.bin', 'one')],
                             {'one.bin': packages.ONE_IMAGE}, programmer=packages.content('programmer', 20000))
    whole = run_without(folder / '0', 0, package, begin, *arguments)
    with ThreadPoolExecutor(WORKERS) as pool:
        return whole, list(pool.map(lambda number: run_without(folder / str(number), number, package, begin, *arguments),
                                    range(1, whole[3] + 1)))


@pytest.fixture(scope='module')
def flashed(tmp_path_factory):
    return each_allocation_once(tmp_path_factory.mktemp('flash'), 'firehose', '--pcie')


@pytest.fixture(scope='module')
def uploaded(tmp_path_factory):
    return each_allocation_once(tmp_path_factory.mktemp('upload'), 'sahara')


def failed(runs):
    return [(outcome, received) for outcome, received, _, _ in runs if outcome.status != 0]


def first_lines(runs):
    return {outcome.err.split('\n')[0] for outcome, _ in failed(runs)}


def test_run_succeeds_with_all_of_its_memory(flashed):
    (outcome, received, images, count), runs = flashed
    assert (outcome.status, outcome.err, images) == (0, '', [packages.ONE_IMAGE_IN_FLASH])
    assert received == ['nop', 'configure', 'erase', 'program', 'data', 'power']
    assert count == len(runs) and count >= 20


def test_run_either_succeeds_completely_or_fails(flashed):
    # The C library does without the buffer of a stream.
    for outcome, received, images, _ in flashed[1]:
        if outcome.status == 0:
            assert outcome.err == '' and outcome.out.endswith(COMPLETED)
            assert (images, received[-1]) == ([packages.ONE_IMAGE_IN_FLASH], 'power')
        else:
            assert outcome.status in (1, 234, 244, 254)
            assert outcome.err.endswith(FAILED) and COMPLETED not in outcome.out
            assert packages.ONE_IMAGE_IN_FLASH not in images


def test_each_place_that_lacks_memory_tells_of_it(flashed):
    assert first_lines(flashed[1]) >= {
        'opendir() failed: 12', 'string join error: Cannot allocate memory', 'out of memory', 'memory failure',
        'get_new_pkgver: error in generating path for information.contents file', 'memory error',
        'error in get_config_xml', 'not enough memory', 'error in get_command_xml'}


def test_modem_that_was_spoken_to_is_reset(flashed):
    # A modem that waits for an image's data takes the reset for these.
    for outcome, received in failed(flashed[1]):
        assert received == [] or received[-1] in ('power', 'program'), outcome.err


def test_nothing_is_programmed_before_the_package_is_read(flashed):
    early = [received for outcome, received in failed(flashed[1]) if 'through FIREHOSE' not in outcome.err]
    assert early and all(received == [] for received in early)


def test_no_upload_crashes_or_is_silent(uploaded):
    (outcome, received, _, count), runs = uploaded
    assert (received, count) == (['hello_response'] + ['data'] * 5 + ['done'], len(runs)), outcome.err
    for each, _ in failed(runs):
        assert each.status > 0 and each.err.endswith(FAILED)
    assert len(failed(runs)) == count


def test_upload_without_memory_ends_with_the_reset(uploaded):
    ends = [received for outcome, received in failed(uploaded[1])
            if outcome.err.startswith('memory failure\nerror in updating the programmer\n')]
    assert ends == [['hello_response'] + ['data'] * blocks + ['reset'] for blocks in range(5)]
