"""What is a port, and whose: a file is left alone, and of two runs on one modem the second is refused before it opens
or writes anything, whenever it comes."""
import fcntl
import os
import select
import signal
import sys
import time
from functools import partial
from pathlib import Path

import pytest

import fake_tree
import packages
from harness import (COMPLETED, FAILED, KESTREL, KESTREL_DISCOVERING, VERSION, Sim, finish, json_lines, run, start,
                     stop)
from packages import ONE_IMAGE_IN_FLASH
from test_diag import FRAME

CONTENT = b'what a file held before\n' * 100
NOT_SET = 'unable to set the modem to firmware update mode\n' + FAILED
# What a run says of a port that is none, by the way that it goes.
ROUTES = {
    'switch': (['--enter-qdl'], 'unable to open device path {}\n' + NOT_SET),
    'whole': ([], 'unable to open device path {}\n' + NOT_SET),
    'upload': (['--skip-enter-qdl'], 'unable to open device path {}\n'
               'unable to send the programmer through SAHARA\n' + FAILED),
    'images': (['--skip-enter-qdl', '--pcie'], 'error in opening the firehose device -22\n'
               'unable to update the modem through FIREHOSE\n' + FAILED),
    'otp': (['--skip-enter-qdl', '--pcie', '--otp'], 'error in opening the firehose device -22\n'
            'unable to update the modem through FIREHOSE\n\nOTP values read failed!\n'),
}
SERIAL = ['--skip-enter-qdl', '--pcie']
UPDATED = VERSION + 'Updating image one\n0.00% completed\rSent 10000 bytes\n' + COMPLETED
ALL_RECEIVED = ['nop', 'configure', 'erase', 'program', 'data', 'power']


def state_of(path):
    """All that a write or an opening for writing could change of a file."""
    status = os.stat(path)
    return status.st_size, status.st_mtime_ns, status.st_ctime_ns, path.read_bytes()


def busy(port, process, name='kestrel'):
    """How a second run ends."""
    return 240, VERSION, f'port {port} is in use by {name} (process {process.pid}): wait until it has ended\n{FAILED}'


def result(outcome):
    return outcome.status, outcome.out, outcome.err


# ---- what is no port

@pytest.mark.parametrize('through', ['itself', 'a link'])
@pytest.mark.parametrize('route', ROUTES)
def test_regular_file_is_no_port_and_stays_as_it_is(route, through, package, folder):
    arguments, err = ROUTES[route]
    file = folder / 'file'
    file.write_bytes(CONTENT)
    (folder / 'link').symlink_to('file')
    before = state_of(file)
    port = file if through == 'itself' else folder / 'link'
    outcome = run(package, '--port', port, '--force', *arguments)
    assert result(outcome) == (234, VERSION, f"'{port}' is not a character device\n" + err.format(port))
    assert state_of(file) == before


def test_refusal_of_a_file_is_one_event_in_json(package, folder):
    (folder / 'file').write_bytes(CONTENT)
    outcome = run(package, '--port', folder / 'file', '--force', '--json')
    events = json_lines(outcome.err)
    assert [(event['file'], event['function'], event['msg']) for event in events[:2]] == [
        ('../port.c', 'open_port', f"'{folder}/file' is not a character device"),
        ('../diag.c', 'switch_QDload_mode', f'unable to open device path {folder}/file')]
    assert outcome.status == 234


@pytest.mark.parametrize('through', ['itself', 'a link'])
def test_folder_is_refused_by_its_opening(through, package, folder):
    (folder / 'folder').mkdir()
    (folder / 'link').symlink_to('folder')
    port = folder / ('folder' if through == 'itself' else 'link')
    outcome = run(package, '--port', port, '--force')
    assert result(outcome) == (154, VERSION, f'could not open device {port}: error 21 Is a directory\n'
                               f'unable to open device path {port}\n' + NOT_SET)
    assert os.listdir(folder / 'folder') == []


@pytest.mark.parametrize('through', ['itself', 'a link'])
def test_fifo_is_a_port_that_harms_nobody(through, package, folder):
    os.mkfifo(folder / 'fifo')
    (folder / 'link').symlink_to('fifo')
    reader = os.open(folder / 'fifo', os.O_RDONLY | os.O_NONBLOCK)
    outcome = run(package, '--port', folder / ('fifo' if through == 'itself' else 'link'), '--force', '--enter-qdl')
    received = os.read(reader, 100)
    os.close(reader)
    assert result(outcome) == (0, VERSION + 'Entered QDL mode, stopping\n' + COMPLETED, '')
    assert received == FRAME


def test_dry_run_looks_at_no_port(package, folder):
    (folder / 'file').write_bytes(CONTENT)
    before = state_of(folder / 'file')
    outcome = run(package, '--port', folder / 'file', '--force', '--dry-run')
    assert result(outcome) == (0, VERSION + COMPLETED, 'dry-run requested, bailing out\n')
    assert state_of(folder / 'file') == before


@pytest.mark.skipif(fake_tree.why_not() != '', reason=f'no mount namespace: {fake_tree.why_not()}')
def test_file_in_the_place_of_an_at_port_is_left_alone(package, folder):
    tree = fake_tree.FakeTree(folder)
    tree.attach_usb('1-2', 'fff0', '1001', {'00': 'ttyUSB0', '01': 'ttyUSB1', '02': 'ttyUSB2'})
    (folder / 'file').write_bytes(CONTENT)
    before = state_of(folder / 'file')
    nodes = {f'ttyUSB{i}': folder / 'file' for i in range(3)}
    outcome = run(package, '--force', '--enter-qdl', before=tree.enter(nodes), program=KESTREL_DISCOVERING)
    refused = "'/dev/ttyUSB{0}' is not a character device\nunable to open device path /dev/ttyUSB{0}\n"
    assert result(outcome) == (234, VERSION, refused.format(1) + 'fail to get AT command answer on port /dev/ttyUSB1\n' +
                               refused.format(0) + NOT_SET)
    assert state_of(folder / 'file') == before


# ---- two runs

def is_in(transcript, kind):
    return transcript.exists() and f'"{kind}"' in transcript.read_text()


def eventually(condition, what, limit=20):
    end = time.monotonic() + limit
    while not condition():
        assert time.monotonic() < end, f'waited in vain: {what}'
        time.sleep(0.01)


def second_after(delay, folder, *arguments):
    """A run whose last acknowledgement takes a second, and another one on the same port so much later."""
    package = packages.one_image(folder / 'package')
    with Sim(folder, '--fault', 'firehose.data=late:1000') as modem:
        first = start(KESTREL, package, '--port', modem.port, '--force', *SERIAL)
        if delay > 0.1:
            eventually(lambda: is_in(modem.transcript, 'nop'), 'the ping of the first')
        time.sleep(delay)
        other = start(KESTREL, package, '--port', modem.port, '--force', *SERIAL, *arguments)
        outcomes = [finish(first, 40), finish(other, 40)]
        assert modem.wait() == 0
        return outcomes, [first, other], modem


def at_once(folder):
    return second_after(0, folder)


def named_otherwise(folder):
    """The port under the name of a link, and of a link to that."""
    package = packages.one_image(folder / 'package')
    with Sim(folder, '--fault', 'firehose.data=late:1000', '--link', folder / 'by-id') as modem:
        (folder / 'link').symlink_to('by-id')
        first = start(KESTREL, package, '--port', folder / 'by-id', '--force', *SERIAL)
        eventually(lambda: is_in(modem.transcript, 'nop'), 'the ping')
        seconds = {name: run(package, '--port', name, '--force', *SERIAL) for name in (modem.port, folder / 'link')}
        outcome = finish(first, 40)
        assert modem.wait() == 0
        return outcome, first, seconds, modem


def switched(folder):
    """Others while a run waits for the download device: the port is there, and it is not open any more."""
    package = packages.one_image(folder / 'package')
    with Sim(folder, begin='normal') as modem:
        first = start(KESTREL, package, '--port', modem.port, '--force')
        eventually(lambda: is_in(modem.transcript, 'download_mode'), 'the switch')
        descriptors = Path(f'/proc/{first.pid}/fd')
        eventually(lambda: modem.port not in (os.readlink(each) for each in descriptors.iterdir()), 'the port is closed')
        look = os.open(modem.port, os.O_RDWR | os.O_NOCTTY)
        exclusive = bytearray(4)
        fcntl.ioctl(look, 0x80045440, exclusive)  # TIOCGEXCL
        fcntl.flock(look, fcntl.LOCK_EX | fcntl.LOCK_NB)
        os.close(look)
        seconds = {route: run(package, '--port', modem.port, '--force', *ROUTES[route][0]) for route in ROUTES}
        dry = run(package, '--port', modem.port, '--force', '--dry-run')
        time.sleep(0.2)
        events = modem.events()
        first.send_signal(signal.SIGINT)
        outcome = finish(first, 40)
        stop(modem.process)
        return outcome, first, seconds, dry, events, bytes(exclusive)


def killed(folder):
    """A run that is killed while it waits for the answer to its ping, and the next one on the same port."""
    package = packages.one_image(folder / 'package')
    with Sim(folder, '--fault', 'host.nop=lost') as modem:
        first = start(KESTREL, package, '--port', modem.port, '--force', *SERIAL)
        eventually(lambda: is_in(modem.transcript, 'nop') or first.poll() is not None, 'the ping')
        held = run(package, '--port', modem.port, '--force', *SERIAL)
        stop(first)
        outcome = run(package, '--port', modem.port, '--force', *SERIAL)
        return first, held, outcome, modem


CASES = {
    'at once': at_once,
    'after 20 ms': partial(second_after, 0.02),
    'after 200 ms': partial(second_after, 0.2),
    'after 500 ms': partial(second_after, 0.5),
    'upload after 200 ms': lambda folder: second_after(0.2, folder, '--json'),
    'named otherwise': named_otherwise,
    'switched': switched,
    'killed': killed,
}


def assert_alone(outcome, modem):
    """A run that ended as if it had been the only one."""
    assert result(outcome) == (0, UPDATED, '')
    assert [event['kind'] for event in modem.events() if event['dir'] == 'rx'] == ALL_RECEIVED
    assert [path.read_bytes() for path in sorted(modem.flash.glob('*-program.bin'))] == [ONE_IMAGE_IN_FLASH]


@pytest.mark.parametrize('case', ['at once', 'after 20 ms'])  # which a busy machine turns round now and then
def test_of_two_runs_that_begin_together_one_is_alone(case, result_of):
    outcomes, processes, modem = result_of(case)
    winner = 0 if outcomes[0].status == 0 else 1
    assert_alone(outcomes[winner], modem)
    other = outcomes[1 - winner]
    assert (other.status, other.out) == (240, VERSION)
    # Its holder may have been too young to have the program's name, or to be asked at all.
    assert other.err.startswith(f'port {modem.port} is in use by ')
    assert other.err.endswith(': wait until it has ended\n' + FAILED)


@pytest.mark.parametrize('case', ['after 200 ms', 'after 500 ms'])
def test_second_run_is_refused_and_the_first_is_alone(case, result_of):
    outcomes, processes, modem = result_of(case)
    assert_alone(outcomes[0], modem)
    assert result(outcomes[1]) == busy(modem.port, processes[0])


def test_refusal_of_a_second_run_is_one_event_in_json(result_of):
    outcomes, processes, modem = result_of('upload after 200 ms')
    assert_alone(outcomes[0], modem)
    events = json_lines(outcomes[1].err)
    assert [(event['function'], event['msg']) for event in events] == [
        ('hold_port', busy(modem.port, processes[0])[2].split('\n')[0]), ('main', FAILED.rstrip('\n'))]
    assert outcomes[1].status == 240


def test_port_is_the_same_under_all_of_its_names(result_of):
    outcome, first, seconds, modem = result_of('named otherwise')
    assert_alone(outcome, modem)
    assert {name: result(second) for name, second in seconds.items()} == {name: busy(name, first) for name in seconds}


@pytest.mark.parametrize('route', ROUTES)
def test_run_that_waits_for_the_download_device_is_not_disturbed(route, result_of):
    _, first, seconds, _, _, _ = result_of('switched')
    expected = busy('', first)
    assert (seconds[route].status, seconds[route].out) == expected[:2]
    assert f'(process {first.pid}): wait until it has ended\n' in seconds[route].err


def test_port_of_the_modem_is_free_while_it_restarts(result_of):
    # Else its number would not be: the download device would come back under another one.
    outcome, _, _, _, events, exclusive = result_of('switched')
    assert exclusive == bytes(4)
    assert [event['kind'] for event in events if event['dir'] == 'rx'] == ['download_mode']
    assert outcome.status == 131


def test_dry_run_beside_a_run_goes_well(result_of):
    assert result(result_of('switched')[3]) == (0, VERSION + COMPLETED, 'dry-run requested, bailing out\n')


@pytest.mark.skipif(os.geteuid() != 0, reason='whoever keeps a terminal open keeps it exclusive after a kill')
def test_run_that_was_killed_leaves_no_lock(result_of):
    first, held, outcome, modem = result_of('killed')
    assert first.returncode == -signal.SIGKILL
    assert result(held) == busy(modem.port, first)
    assert result(outcome) == (0, UPDATED, '')


def test_port_that_another_program_has_locked_is_refused_with_its_name(package):
    master, slave = os.openpty()
    port = os.ttyname(slave)
    locker = start(sys.executable, '-c', 'import fcntl, os, sys, time\n'
                   'port = os.open(sys.argv[1], os.O_RDWR | os.O_NOCTTY)\n'
                   'fcntl.flock(port, fcntl.LOCK_EX)\n'
                   'print("locked", flush=True)\n'
                   'time.sleep(60)', port)
    try:
        assert select.select([locker.stdout], [], [], 20)[0] and locker.stdout.readline() == b'locked\n'
        outcome = run(package, '--port', port, '--force')
        name = Path(f'/proc/{locker.pid}/comm').read_text().rstrip('\n')
        received = select.select([master], [], [], 0)[0]
    finally:
        stop(locker)
        os.close(master)
        os.close(slave)
    assert result(outcome) == (240, VERSION, f'port {port} is in use by {name} (process {locker.pid})\n'
                               f'unable to open device path {port}\n' + NOT_SET)
    assert received == []


# ---- on a bus

IN_A_TREE = pytest.mark.skipif(fake_tree.why_not() != '', reason=f'no mount namespace: {fake_tree.why_not()}')


@IN_A_TREE
def test_modem_is_held_under_all_of_its_ports_and_while_it_has_none(folder):
    """A run waits for the download device; others come by the modem's ports, and one by another modem's."""
    tree = fake_tree.FakeTree(folder)
    tree.attach_usb('1-2.3', 'fff0', '1001', {'00': 'ttyUSB0', '01': 'ttyUSB1'})
    tree.attach_usb('1-4', 'fff0', '1001', {'00': 'ttyUSB5'}, number=6)
    package = packages.one_image(folder / 'package')
    (folder / 'other').mkdir()
    with Sim(folder, begin='normal') as modem, Sim(folder / 'other', begin='normal') as other, \
            Sim(folder / 'other', begin='normal') as second_port:
        nodes = {'ttyUSB0': modem.port, 'ttyUSB1': second_port.port, 'ttyUSB5': other.port}
        first = start(*tree.enter(nodes), KESTREL, package, '--port', '/dev/ttyUSB0', '--force')
        eventually(lambda: is_in(modem.transcript, 'download_mode'), 'the switch')

        def beside(port):
            return result(run(package, '--force', '--enter-qdl', '--port', port, before=fake_tree.enter_that_of(first)))

        by_other_port = beside('/dev/ttyUSB1')
        tree.detach_usb('1-2.3')
        (tree.root / 'dev/ttyUSB0').unlink()
        by_lost_port = beside('/dev/ttyUSB0')
        by_other_modem = beside('/dev/ttyUSB5')
        first.send_signal(signal.SIGINT)
        finish(first, 40)
        received = [event['kind'] for event in modem.events() if event['dir'] == 'rx']
        stop(second_port.process)
    assert by_other_port == busy('/dev/ttyUSB1', first)
    assert by_lost_port == busy('/dev/ttyUSB0', first)
    assert by_other_modem == (0, VERSION + 'Entered QDL mode, stopping\n' + COMPLETED, '')
    assert received == ['download_mode']


@IN_A_TREE
def test_modem_that_is_asked_over_at_is_held(folder):
    """A run that found its modem speaks AT to it; others find the same one, or are given its port."""
    tree = fake_tree.FakeTree(folder)
    ports = {'00': 'ttyUSB0', '01': 'ttyUSB1', '02': 'ttyUSB2'}
    tree.attach_usb('1-2', 'fff0', '1001', ports)
    package = packages.one_image(folder / 'package')
    with Sim(folder, '--at-delay', '400', begin='normal') as modem:
        first = start(*tree.enter({port: modem.port for port in ports.values()}), KESTREL_DISCOVERING, package, '--dry-run')
        eventually(lambda: is_in(modem.transcript, 'at'), 'the first command')
        inside = fake_tree.enter_that_of(first)
        scanning = run(package, '--dry-run', before=inside, program=KESTREL_DISCOVERING)
        given = run(package, '--port', '/dev/ttyUSB0', '--force', before=inside)
        outcome = finish(first, 40)
        received = [event.get('command', event['kind']) for event in modem.events() if event['dir'] == 'rx']
    discovering = Path(KESTREL_DISCOVERING).name[:15]
    held = f'port /dev/ttyUSB1 is in use by {discovering} (process {first.pid}): stop it first\n'  # as the scan says
    assert (scanning.err.removeprefix(held), scanning.status) == (busy('/dev/ttyUSB0', first, discovering)[2], 240)
    assert result(given) == busy('/dev/ttyUSB0', first, discovering)
    assert result(outcome) == (0, VERSION + COMPLETED, 'dry-run requested, bailing out\n')
    assert received == ['ATE0', 'AT#CGMM', 'AT#CGSN', 'AT#SWPKGV']
