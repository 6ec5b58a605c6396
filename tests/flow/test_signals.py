"""SIGINT, SIGTERM and SIGHUP in every stage of a run: what is still finished, what the run ends with, and what it says
of the way on."""
import signal
import time

import pytest

import packages
from harness import COMPLETED, FIREHOSE_FAILED, KESTREL, KESTREL_DISCOVERING, Sim, Session, VERSION, finish, start, stop
from packages import ERASE, content, program

WORKERS = 16
MIB = 1024 * 1024
IMAGES = {'one.bin': content('one', 3 * MIB), 'two.bin': content('two', 10000)}
INTERRUPTED = 131
FORCED = ('--force',)


def wait_for(modem, kind, count=1, limit=15):
    """Until the modem has received so many messages of this kind."""
    end = time.monotonic() + limit
    while sum(event['dir'] == 'rx' and event['kind'] == kind for event in modem.events()) < count:
        assert time.monotonic() < end, f'no {kind} came'
        time.sleep(0.01)


def struck(folder, signals, kind, count=1, sim=(), arguments=('--skip-enter-qdl', '--pcie'), begin='firehose', before=(),
           pause=0.3, until=None):
    """A run that gets these signals once the modem has received that message; the answer to it comes late."""
    package = packages.write(folder / 'package', [ERASE, program('one.bin', 'one'), program('two.bin', 'two')], IMAGES,
                             programmer=content('programmer', 20000))
    with Sim(folder, *sim, begin=begin, until=until) as modem:
        updater = start(*before, KESTREL, package, '--port', modem.port, *FORCED, *arguments)
        wait_for(modem, kind, count)
        for number in signals:
            updater.send_signal(number)
            time.sleep(pause)
        outcome = finish(updater, 40)
        time.sleep(0.2)
        stop(modem.process)
        return Session(outcome, modem.events(), modem.flash, port=modem.port, notes={'package': package})


def late(step, count=1, ms=1500):
    return ['--fault', f'{step}=late:{ms}@{count}']


def way_on(session, options=' --pcie'):
    return (f'interrupted; this completes the modem: kestrel {session.notes["package"]} --port {session.port} '
            f'--skip-enter-qdl{options} --force\n')


CASES = {}
for number in (signal.SIGINT, signal.SIGTERM):
    CASES[f'erase {number.name}'] = lambda f, n=number: struck(f, [n], 'erase', sim=late('firehose.erase'))
    CASES[f'program {number.name}'] = lambda f, n=number: struck(f, [n], 'program', sim=late('firehose.program'))
    CASES[f'data {number.name}'] = lambda f, n=number: struck(f, [n], 'data', sim=late('firehose.data'))
    CASES[f'last {number.name}'] = lambda f, n=number: struck(f, [n], 'program', 2, sim=late('firehose.data', 2))
CASES.update({
    'hangup in the data': lambda f: struck(f, [signal.SIGHUP] * 3, 'program', sim=late('firehose.data')),
    'two in the data': lambda f: struck(f, [signal.SIGTERM, signal.SIGINT], 'data', sim=late('firehose.data', ms=4000)),
    'two in the command': lambda f: struck(f, [signal.SIGINT] * 2, 'program', sim=late('firehose.program', ms=4000)),
    'upload': lambda f: struck(f, [signal.SIGTERM], 'data', 2, sim=late('sahara.read', 3, 400) + ['--programmer-size', '20000'],
                               arguments=('--skip-enter-qdl',), begin='sahara', until='sahara', pause=0.1),
    'two in the upload': lambda f: struck(f, [signal.SIGTERM, signal.SIGINT], 'data', 2,
                                          sim=late('sahara.read', 3, 400) + ['--programmer-size', '20000'],
                                          arguments=('--skip-enter-qdl',), begin='sahara', pause=0.05),
    'ignored from the start': lambda f: struck(f, [signal.SIGTERM, signal.SIGINT, signal.SIGTERM], 'erase',
                                               sim=late('firehose.erase'),
                                               before=['env', '--ignore-signal=INT,TERM']),
})


@pytest.mark.parametrize('number', ['SIGINT', 'SIGTERM'])
@pytest.mark.parametrize('step, images', [('erase', 0), ('program', 1), ('data', 1)])
def test_first_signal_finishes_the_step_in_hand(step, number, images, result_of):
    session = result_of(f'{step} {number}')
    assert session.outcome.status == INTERRUPTED
    assert session.outcome.out.startswith(VERSION)
    assert session.outcome.out.endswith(way_on(session))
    assert session.outcome.err == 'error sending commands -125\n' + FIREHOSE_FAILED
    assert session.received() == ['nop', 'configure', 'erase'] + ['program', 'data'] * images + ['power']
    assert session.images() == [packages_padded('one.bin')] * images
    assert session.outcome.seconds < 6


def packages_padded(name):
    data = IMAGES[name]
    return data + b'\xff' * (-len(data) % 4096)


@pytest.mark.parametrize('number', ['SIGINT', 'SIGTERM'])
def test_signal_in_the_last_image_ends_in_success(number, result_of):
    session = result_of(f'last {number}')
    assert (session.outcome.status, session.outcome.err) == (0, '')
    assert session.outcome.out.endswith(COMPLETED)
    assert session.images() == [packages_padded('one.bin'), packages_padded('two.bin')]


def test_hang_up_is_ignored_once_the_modem_is_touched(result_of):
    session = result_of('hangup in the data')
    assert (session.outcome.status, session.outcome.err) == (0, '')
    assert session.images() == [packages_padded('one.bin'), packages_padded('two.bin')]


@pytest.mark.parametrize('case, received', [('two in the data', ['program', 'data']), ('two in the command', ['program'])])
def test_second_signal_ends_the_step_and_resets_the_modem(case, received, result_of):
    session = result_of(case)
    assert session.outcome.status == INTERRUPTED
    assert session.outcome.out.endswith(way_on(session))
    assert session.outcome.err.endswith(FIREHOSE_FAILED)
    assert session.received()[:3 + len(received)] == ['nop', 'configure', 'erase', *received]
    assert session.outcome.seconds < 6


def test_first_signal_finishes_the_upload(result_of):
    session = result_of('upload')
    assert session.received()[-1] == 'done'
    assert 'Sent 20000 bytes\n' in session.outcome.out
    assert 'interrupted; this completes the modem: ' in session.outcome.out


def test_second_signal_ends_the_upload_and_resets_the_modem(result_of):
    session = result_of('two in the upload')
    assert session.outcome.status == INTERRUPTED
    assert session.received()[-1] == 'reset'
    assert session.received().count('data') < 5


def test_signal_that_was_ignored_from_the_start_stays_ignored(result_of):
    session = result_of('ignored from the start')
    assert (session.outcome.status, session.outcome.err) == (0, '')
    assert session.images() == [packages_padded('one.bin'), packages_padded('two.bin')]


# ---- before the modem is touched

def waiting(folder, number):
    """A signal while the updater waits for a modem to be attached."""
    package = packages.one_image(folder / 'package')
    updater = start(KESTREL_DISCOVERING, package, '--debug')
    time.sleep(1)
    begun = time.monotonic()
    updater.send_signal(number)
    return finish(updater, 10, begun)


@pytest.mark.parametrize('number', [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_waiting_for_a_modem_ends_at_once(number, tmp_path):
    outcome = waiting(tmp_path, number)
    assert outcome.status == INTERRUPTED
    assert outcome.seconds < 1.5
    assert 'this completes the modem' not in outcome.out
