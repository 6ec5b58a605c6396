"""A fault at every message boundary and inside every block of a whole run, and a rescue after each."""
import os
import tempfile
from concurrent.futures import Future, ThreadPoolExecutor
from pathlib import Path

import pytest

import table
from conversation import POWER, WALKS
from harness import COMPLETED
from runner import OTP_READ, interrupt, run, write_package

WORKERS = int(os.environ.get('KESTREL_FAULT_WORKERS', '64'))
SLACK = 6  # seconds that a busy machine may add to a run

CASES = {case.name: case for case in table.cases()}
REPEATED = []  # cases that were run a second time


@pytest.fixture(scope='module')
def memory():
    """A folder in memory: no disk lengthens what the modem does."""
    with tempfile.TemporaryDirectory(dir='/dev/shm' if os.access('/dev/shm', os.W_OK) else None) as folder:
        yield Path(folder)


@pytest.fixture(scope='module')
def packages_of(memory):
    return {platform: write_package(memory / f'package-{platform}', platform) for platform in (0, 1)}


@pytest.fixture(scope='module')
def one(packages_of, memory):
    """Runs a case in a folder of its own."""

    def run_it(folder, case):
        (memory / folder).mkdir()
        return run(case.walk, memory / folder, packages_of[case.walk.platform], case.options, case.strike)

    return run_it


@pytest.fixture(scope='module')
def results(one):
    """Every case, running; those that take long begin first."""
    order = sorted(CASES.values(), key=lambda case: -max(outcome.ms for outcome in case.outcomes))
    with ThreadPoolExecutor(WORKERS) as pool:
        yield {case.name: pool.submit(one, str(number), case) for number, case in enumerate(order)}


def differences(case, result, expected):
    """In words, what is not as an outcome of the table says."""
    outcome = result.outcome
    err = expected.err and expected.err.format(port=result.port, folder=result.package)
    good = OTP_READ if case.walk.otp else COMPLETED
    wrong = []
    if outcome.status != expected.status:
        wrong.append(f'status {outcome.status} instead of {expected.status}')
    if err is not None and not (outcome.err.endswith(err) if err else outcome.err == ''):
        wrong.append(f'wrote {outcome.err[-600:]!r} instead of {err!r}')
    if outcome.out.endswith(good) != (expected.status == 0):
        wrong.append(f'printed {outcome.out[-100:]!r}')
    if not is_sent(result.received, expected):
        wrong.append(f'sent {shown(result.received, expected.sent)}')
    if expected.right is not None and result.was_right != expected.right:
        wrong.append(f'flash {"right" if result.was_right else "wrong"}')
    if outcome.seconds > bound(expected):
        wrong.append(f'took {outcome.seconds:.1f} s, more than {bound(expected):.1f} s')
    return wrong


def is_sent(received, expected):
    if expected.least < 0:
        return received == expected.sent
    return expected.sent.startswith(received) and len(received) >= expected.least


def bound(expected):
    return (table.WHOLE_RUN + expected.ms) / 1000 / 2 + SLACK


def shown(received, expected):
    same = len(os.path.commonprefix([received, expected]))
    return (f'{len(received)} bytes instead of {len(expected)}, from {same} on {received[same:same + 90]!r} '
            f'instead of {expected[same:same + 90]!r}')


def judge(case, result):
    return [differences(case, result, expected) for expected in case.outcomes]


@pytest.mark.parametrize('name', CASES)
def test_fault(name, results, one):
    """A busy kernel now and then passes nothing on for half a second, which is as long as some waits are here: what
    came of that does not come a second time."""
    case, result = CASES[name], results[name].result(timeout=600)
    if [] not in judge(case, result):
        REPEATED.append(name)
        result = one(f'again-{len(REPEATED)}', case)
        results[name] = Future()
        results[name].set_result(result)
    found = judge(case, result)
    assert [] in found, '\n'.join([str(found), *result.transcript])
    assert 'Sanitizer' not in result.outcome.err and 'runtime error' not in result.outcome.err


@pytest.mark.parametrize('name', CASES)
def test_rescue(name, results):
    result = results[name].result(timeout=600)
    assert result.rescue is None or result.rescued, '\n'.join(
        [str((result.rescue.status, result.rescue.out, result.rescue.err)), *result.rescue_transcript])


@pytest.mark.parametrize('walk', WALKS)
def test_walk_without_fault(walk, packages_of, tmp_path):
    walk = WALKS[walk]
    result = run(walk, tmp_path, packages_of[walk.platform])
    assert (result.outcome.status, result.outcome.err, result.was_right) == (0, '', True)
    assert result.received == walk.said()


# walk, what makes the modem silent, the mark of the wait in its transcript: exit status, what the modem received last
WAITS = {
    'a mute modem': ('forced', 'at.ATE0=silence', '"fault":"silence"', 131, b'ATE0\r'),
    'no download device': ('usb', 'diag=skip', '"step":"diag"', 131, bytes.fromhex('4b650100540f7e')),
    'a silent programmer': ('serial', 'firehose.nop=silence', '"fault":"silence"', 154, POWER),
}


@pytest.mark.parametrize('name', WAITS)
def test_interrupt_ends_the_wait_for(name, packages_of, tmp_path):
    walk, fault, mark, status, last = WAITS[name]
    outcome, received = interrupt(WALKS[walk], tmp_path, packages_of[1], fault, mark)
    assert outcome.status == status
    assert received.endswith(last)
    assert outcome.seconds < SLACK


def test_figures(results, capsys):
    done = [each.result(timeout=600) for each in results.values()]
    needed = [result for result in done if result.rescue is not None]
    longest = max(done, key=lambda result: result.outcome.seconds)
    with capsys.disabled():
        print(f'\n{len(done)} faults put in; {len(done) - len(needed)} runs did their work all the same; '
              f'survived {sum(result.rescued for result in needed)} of {len(needed)}; '
              f'longest run {longest.outcome.seconds:.1f} s; run a second time: {", ".join(REPEATED) or "none"}')
    assert len(done) > 1000
    assert len(REPEATED) <= len(done) / 100  # else it is not the kernel
