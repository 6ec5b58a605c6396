"""Runs of the updater that finds the modem by itself: the bus is a fake /sys in a mount namespace of each run's own,
changed while the run goes on. No message of the kernel tells of that; the updater looks by itself."""
import json
import select
import signal
import time
from functools import partial
from threading import Thread

import pytest

import fake_tree
import packages
from harness import (COMPLETED, FAILED, KESTREL_DISCOVERING, NO_USB, NO_USB_STATUS, VERSION, Session, Sim, finish,
                     json_lines, run, start, stop)
from packages import ONE_IMAGE_IN_FLASH, content

pytestmark = pytest.mark.skipif(fake_tree.why_not() != '', reason=f'no mount namespace: {fake_tree.why_not()}')

PORTS = {'00': 'ttyUSB0', '01': 'ttyUSB1', '02': 'ttyUSB2'}
BAILING_OUT = 'dry-run requested, bailing out\n'
NO_FORCE = 'cannot check firmware compatibility in QDL mode, --force option is mandatory\n'
SEVERAL = 'multiple modems not supported, please keep a single modem attached:\n'
INCOMPLETE = 'Unable to gather serial ports for FFF0:1001'
ONE_IMAGE_TEXT = VERSION + 'Updating image one\n0.00% completed\rSent 10000 bytes\n' + COMPLETED
DEV_PATH = '/sys/devices/pci0000:00/usb1/1-2'
MHI_PATH = '/sys/devices/pci0000:00/0000:01:00.0/mhi0'
LIMIT = 60


def eventually(condition, what, limit=20):
    """Waits for what another process does to a file."""
    end = time.monotonic() + limit
    while not condition():
        assert time.monotonic() < end, f'waited in vain: {what}'
        time.sleep(0.02)


def discover(folder, package, tree, nodes, *arguments, before=()):
    return run(package, *arguments, before=[*tree.enter(nodes), *before], program=KESTREL_DISCOVERING, limit=LIMIT)


def with_modem(folder, tree, *arguments, begin='normal', until=None, leaves=False, meanwhile=None, before=(),
               version=None):
    """A run with the simulated modem behind every port; `meanwhile` (of the modem) changes the tree."""
    package = packages.write(folder / 'package', [packages.ERASE, packages.program('one.bin', 'one')],
                             {'one.bin': packages.ONE_IMAGE}, version or packages.PLATFORM_1,
                             programmer=content('programmer', 20000))
    with Sim(folder, '--programmer-size', '20000', begin=begin, until=until) as modem:
        nodes = {port: modem.port for port in [*PORTS.values(), 'wwan0at0', 'wwan0firehose0']}
        failures = []

        def change():
            try:
                meanwhile(modem)
            except Exception as trouble:  # pylint: disable=broad-except
                failures.append(trouble)

        thread = Thread(target=change if meanwhile else lambda: None)
        thread.start()
        try:
            outcome = discover(folder, package, tree, nodes, *arguments, before=before)
        finally:
            thread.join()
        assert failures == []
        status = modem.wait() if leaves else None
        stop(modem.process)
        return Session(outcome, modem.events(), modem.flash, status, modem.port, {'tree': tree})


def one_modem(folder, *arguments, **options):
    tree = fake_tree.FakeTree(folder)
    tree.attach_usb('1-2', 'fff0', '1001', PORTS)
    return with_modem(folder, tree, *arguments, **options)


def seen(modem, kind):
    """True once the modem has received a message of that kind."""
    if not modem.transcript.exists():
        return False
    lines = modem.transcript.read_text(encoding='utf-8').split('\n')[:-1]
    return any(json.loads(line)['kind'] == kind for line in lines)


def overheard(folder, run_it, text, times, change):
    """A run of `run_it` whose standard output goes through a file, so that `change` can wait until `text` was
    written that many times."""
    heard = folder / 'heard'

    def listen(_):
        eventually(lambda: heard.exists() and heard.read_text().count(text) >= times, text)
        change()

    done = run_it(meanwhile=listen, before=['sh', '-c', f'exec "$@" > "{heard}"', 'sh'])
    done.outcome.raw_out = heard.read_bytes()
    return done


def late_port(folder):
    """The third port comes when the scan has missed it twice."""
    tree = fake_tree.FakeTree(folder)
    tree.attach_usb('1-2', 'fff0', '1001', {number: PORTS[number] for number in ('00', '01')})
    return overheard(folder, partial(with_modem, folder, tree, '--dry-run', '--debug'), INCOMPLETE, 2,
                     lambda: tree.add_port('1-2', '02', 'ttyUSB2'))


def whole(folder):
    """The switch takes the modem off the bus; the download device comes in its place, on its port."""
    tree = fake_tree.FakeTree(folder)
    tree.attach_usb('1-2', 'fff0', '1001', PORTS)

    def restart(modem):
        eventually(lambda: seen(modem, 'download_mode'), 'the switch')
        tree.detach_usb('1-2')
        time.sleep(0.3)
        tree.attach_usb('1-2', '05c6', '9008', {'00': 'ttyUSB0'}, number=6)

    return with_modem(folder, tree, meanwhile=restart, until='sahara')


def given_port(folder):
    """The port is given by hand, the download device is found."""
    tree = fake_tree.FakeTree(folder)
    tree.attach_usb('1-2', 'fff0', '1001', PORTS)

    def restart(modem):
        eventually(lambda: seen(modem, 'download_mode'), 'the switch')
        tree.detach_usb('1-2')
        tree.attach_usb('1-2', '05c6', '9008', {'00': 'ttyUSB1'}, number=6)

    return with_modem(folder, tree, '--port', '/dev/ttyUSB0', '--force', meanwhile=restart, until='sahara')


def given_port_beside_another(folder):
    """The port is given by hand, and another modem waits for a programmer."""
    tree = fake_tree.FakeTree(folder)
    tree.attach_usb('1-2', 'fff0', '1001', PORTS)
    tree.attach_usb('1-7', '05c6', '9008', {'00': 'ttyUSB7'}, number=7)
    return with_modem(folder, tree, '--port', '/dev/ttyUSB0', '--force')


def download_mode(folder, *arguments, **options):
    tree = fake_tree.FakeTree(folder)
    tree.attach_usb('1-2', '05c6', '9008', {'00': 'ttyUSB2'})
    return with_modem(folder, tree, *arguments, begin='sahara', until='sahara', **options)


def arriving(folder, *arguments):
    """Nothing is attached until the run waits for it."""
    tree = fake_tree.FakeTree(folder)
    return overheard(folder, partial(with_modem, folder, tree, '--dry-run', *arguments),
                     'Waiting for the modem to attach', 1, lambda: tree.attach_usb('1-2', 'fff0', '1001', PORTS))


def two_modems(folder, *arguments):
    tree = fake_tree.FakeTree(folder)
    tree.attach_usb('1-2', 'fff0', '1001', PORTS)
    tree.attach_usb('1-10', '05c6', '9008', {'00': 'ttyUSB3'}, number=6)
    nodes = {f'ttyUSB{i}': '/dev/null' for i in range(4)}
    package = packages.one_image(folder / 'package')
    return Session(discover(folder, package, tree, nodes, *arguments), [], None)


def interrupted(folder, *arguments, ports=None, after=b'Waiting'):
    """No modem, or one with these ports, and SIGINT once the updater has written that text."""
    tree = fake_tree.FakeTree(folder)
    if ports:
        tree.attach_usb('1-2', 'fff0', '1001', ports)
    nodes = {port: '/dev/null' for port in PORTS.values()}
    process = start(*tree.enter(nodes), KESTREL_DISCOVERING, packages.one_image(folder / 'package'), *arguments)
    text = b''
    while after not in text:
        ready, _, _ = select.select([process.stdout], [], [], 20)
        more = process.stdout.read1(4096) if ready else b''
        if not more:
            break
        text += more
    begun = time.monotonic()
    process.send_signal(signal.SIGINT)
    outcome = finish(process, 20)
    outcome.raw_out = text + outcome.raw_out
    return Session(outcome, [], None, notes={'seconds': time.monotonic() - begun})


def held(folder, name):
    """Another program has a port open."""
    hold = f'echo {name} > /proc/$$/comm; exec 9<>/dev/ttyUSB2; "$@" 9>&-'
    return one_modem(folder, '--dry-run', before=['sh', '-c', hold, 'sh'])


def pcie_probing(folder, *arguments):
    tree = fake_tree.FakeTree(folder)
    tree.attach_pcie('wwan0at0', 'wwan0qcdm0')
    return with_modem(folder, tree, *arguments)


def pcie_whole(folder, *arguments):
    """The trigger takes the ports away; the modem comes back with the programmer's, which another device plays."""
    tree = fake_tree.FakeTree(folder)
    tree.attach_pcie('wwan0at0', 'wwan0qcdm0')
    package = packages.one_image(folder / 'package')
    (folder / 'at').mkdir()

    def restart():
        eventually(lambda: tree.trigger.read_text() == '1', 'the trigger')
        tree.remove_wwan('wwan0at0', 'wwan0qcdm0')
        time.sleep(0.3)
        tree.add_wwan('wwan0firehose0')

    with Sim(folder / 'at', begin='normal') as modem, Sim(folder, begin='firehose') as programmer:
        thread = Thread(target=restart)
        thread.start()
        try:
            outcome = discover(folder, package, tree, {'wwan0at0': modem.port, 'wwan0qcdm0': '/dev/null',
                                                       'wwan0firehose0': programmer.port}, *arguments)
        finally:
            thread.join()
        status = programmer.wait()
        stop(modem.process)
        return Session(outcome, programmer.events(), programmer.flash, status, programmer.port,
                       {'tree': tree, 'at': modem.events()})


def pcie_download_mode(folder, *arguments):
    tree = fake_tree.FakeTree(folder)
    tree.attach_pcie('wwan0firehose0')
    return with_modem(folder, tree, *arguments, begin='firehose')


CASES = {
    'one': lambda folder: one_modem(folder, '--dry-run', '--debug'),
    'one, quiet': lambda folder: one_modem(folder, '--dry-run'),
    'one, pcie option': lambda folder: one_modem(folder, '--dry-run', '--pcie'),
    'one, json': lambda folder: one_modem(folder, '--dry-run', '--json'),
    'enter qdl': lambda folder: one_modem(folder, '--enter-qdl', until='diag', leaves=True),
    'downgrade': lambda folder: one_modem(folder, version='49.01.101'),
    'late port': late_port,
    'whole': whole,
    'given port': given_port,
    'given port, two': given_port_beside_another,
    'download': download_mode,
    'download, forced': lambda folder: download_mode(folder, '--force'),
    'arriving': arriving,
    'arriving, json': lambda folder: arriving(folder, '--json'),
    'two': lambda folder: two_modems(folder, '--debug'),
    'two, json': lambda folder: two_modems(folder, '--json'),
    'interrupted': interrupted,
    'interrupted scan': lambda folder: interrupted(folder, '--debug', ports={'00': 'ttyUSB0'},
                                                   after=b'Unable to gather serial ports'),
    'held': partial(held, name='some-daemon'),
    'held by ModemManager': partial(held, name='ModemManager'),
    'pcie': lambda folder: pcie_probing(folder, '--dry-run', '--json'),
    'pcie, enter qdl': lambda folder: pcie_probing(folder, '--enter-qdl'),
    'pcie, whole': pcie_whole,
    'pcie, given port': lambda folder: pcie_whole(folder, '--port', '/dev/wwan0at0', '--pcie', '--force'),
    'pcie, download': lambda folder: pcie_download_mode(folder, '--force'),
    'pcie, download, no force': pcie_download_mode,
}

AT_COMMANDS = ['ATE0', 'AT#CGMM', 'AT#CGSN', 'AT#SWPKGV']


def commands(events):
    return [event['command'] for event in events if event['kind'] == 'at' and event['dir'] == 'rx']


@pytest.mark.parametrize('case', ['one, quiet', 'one, pcie option', 'arriving'])
def test_modem_is_found_asked_and_accepted(case, result_of):
    done = result_of(case)
    waiting = 'Waiting for the modem to attach\n' if case == 'arriving' else ''
    assert done.outcome.out == VERSION + waiting + COMPLETED
    assert (done.outcome.status, done.outcome.err) == (0, BAILING_OUT)
    assert commands(done.events) == AT_COMMANDS


@pytest.mark.parametrize('case', ['one', 'late port'])
def test_modem_is_described_with_its_ports(case, result_of):
    done = result_of(case)
    for line in ['Probing mode: usb', 'VID: 0xFFF0', 'PID: 0x1001', f'USB dev path: {DEV_PATH}', 'USB serial: 0123ABC',
                 'Port: /dev/ttyUSB0, type: diagnostic', 'Port: /dev/ttyUSB1, type: AT',
                 'Port: /dev/ttyUSB2, type: AT', 'Model name: KX910C1-WW', 'IMEI: 004999010640000',
                 'Versions: 49.01.102-B002-P0A.000200;49.01.102;P0A.000200;A.00.02']:
        assert done.outcome.out.count(f'print_modem() {line}\n') == 1
    assert done.outcome.status == 0


def test_port_that_comes_later_is_waited_for(result_of):
    out = result_of('late port').outcome.out
    assert 2 <= out.count(INCOMPLETE) <= 15


@pytest.mark.parametrize('case', ['one, json', 'arriving, json'])
def test_modem_is_described_as_added_in_json(case, result_of):
    done = result_of(case)
    events = json_lines(done.outcome.out.removeprefix(VERSION))
    added = [event for event in events if event['type'] == 'ADD']
    assert len(added) == 1
    del added[0]['timestamp']
    assert added[0] == {
        'type': 'ADD', 'modem_size': 1, 'modem': [{
            'probing_mode': 'usb', 'vid': '0xFFF0', 'pid': '0x1001', 'dev_path': DEV_PATH, 'usb_serial': '0123ABC',
            'model_name': 'KX910C1-WW', 'imei': '004999010640000', 'cfun': None,
            'versions': '49.01.102-B002-P0A.000200;49.01.102;P0A.000200;A.00.02', 'modem_port_size': 3,
            'modem_port': [{'port_type': 'diagnostic', 'port_name': '/dev/ttyUSB0'},
                           {'port_type': 'AT', 'port_name': '/dev/ttyUSB1'},
                           {'port_type': 'AT', 'port_name': '/dev/ttyUSB2'}]}]}


def test_downgrade_is_refused_without_the_switch(result_of):
    done = result_of('downgrade')
    assert (done.outcome.status, done.outcome.err) == (
        255, 'downgrade may not be safe, --force option is mandatory\n' + FAILED)
    assert 'download_mode' not in done.received()


def test_modem_is_switched_and_left(result_of):
    done = result_of('enter qdl')
    assert (done.outcome.status, done.outcome.err) == (0, '')
    assert done.outcome.out == VERSION + 'Entered QDL mode, stopping\n' + COMPLETED
    assert done.received() == ['at'] * 4 + ['download_mode']


@pytest.mark.parametrize('case', ['whole', 'given port', 'download, forced'])
def test_download_device_is_found_and_gets_the_programmer(case, result_of):
    # The programmer would then be found on the USB bus, which this machine has not.
    done = result_of(case)
    progress = ''.join(f'{percent}.00% completed\r' for percent in (0, 20, 40, 61, 81))
    assert done.outcome.out == VERSION + 'Sending programmer\n' + progress + 'Sent 20000 bytes\n'
    assert (done.outcome.status, done.outcome.err) == (NO_USB_STATUS, NO_USB)
    before = {'whole': ['at'] * 4 + ['download_mode'], 'given port': ['download_mode'], 'download, forced': []}[case]
    assert done.received() == before + ['hello_response'] + ['data'] * 5 + ['done']
    assert (done.flash / 'programmer.bin').read_bytes() == content('programmer', 20000)


def test_download_device_is_left_alone_without_force(result_of):
    done = result_of('download')
    assert (done.outcome.status, done.outcome.out, done.outcome.err) == (0, VERSION + COMPLETED, NO_FORCE)
    assert done.received() == []


def test_modem_in_download_mode_does_not_get_the_programmer_of_another(result_of):
    done = result_of('given port, two')
    assert (done.outcome.status, done.outcome.out) == (234, VERSION)
    assert done.outcome.err == (DEV_PATH.replace('1-2', '1-7') + ' is in download mode already: use --skip-enter-qdl, '
                                'or keep a single modem attached\n' + FAILED)
    assert done.received() == []


def test_two_modems_are_refused_and_described(result_of):
    outcome = result_of('two').outcome
    assert outcome.status == 234
    assert SEVERAL in outcome.err
    descriptions = [line.split('print_modem() ')[1] for line in outcome.out.splitlines() if 'print_modem() ' in line]
    assert [line for line in descriptions if line.startswith(('PID', 'USB dev', 'Port'))] == [
        'PID: 0x1001', f'USB dev path: {DEV_PATH}', 'Port: /dev/ttyUSB0, type: diagnostic',
        'Port: /dev/ttyUSB1, type: AT', 'Port: /dev/ttyUSB2, type: AT',
        'PID: 0x9008', f'USB dev path: {DEV_PATH}'.replace('1-2', '1-10'), 'Port: /dev/ttyUSB3, type: firmware update']


def test_two_modems_in_json(result_of):
    # Modems whose model is not known yet are left out of the description.
    outcome = result_of('two, json').outcome
    assert outcome.status == 234
    described = [event['modem'] for event in json_lines(outcome.out.removeprefix(VERSION)) if 'modem' in event]
    assert [[modem['pid'] for modem in modems] for modems in described] == [['0x9008']]
    assert [event['msg'] for event in json_lines(outcome.err)] == [SEVERAL.rstrip('\n'), FAILED.rstrip('\n')]


def test_wait_for_a_modem_is_ended_by_sigint(result_of):
    done = result_of('interrupted')
    assert done.outcome.out == VERSION + 'Waiting for the modem to attach\nFirmware update interrupted\n'
    assert (done.outcome.status, done.outcome.err) == (131, FAILED)
    assert done.notes['seconds'] < 2


def test_scan_for_ports_that_do_not_come_is_ended_by_sigint(result_of):
    done = result_of('interrupted scan')
    assert done.outcome.status == 131
    assert done.outcome.err.endswith('main() ' + FAILED)
    assert 'failed port enumeration' not in done.outcome.err
    assert done.notes['seconds'] < 1


@pytest.mark.parametrize('case, advice', [('held', ''),
                                          ('held by ModemManager', ', for example: systemctl stop ModemManager')])
def test_port_in_use_is_reported_once_and_the_run_goes_on(case, advice, result_of):
    done = result_of(case)
    name = {'held': 'some-daemon', 'held by ModemManager': 'ModemManager'}[case]
    lines = done.outcome.err.splitlines()
    assert len(lines) == 2
    assert lines[0].startswith(f'port /dev/ttyUSB2 is in use by {name} (process ')
    assert lines[0].endswith('): stop it first' + advice)
    assert (lines[1] + '\n', done.outcome.status) == (BAILING_OUT, 0)


def test_pcie_modem_is_described_with_its_ports(result_of):
    done = result_of('pcie')
    assert done.outcome.status == 0
    added = [event for event in json_lines(done.outcome.out.removeprefix(VERSION)) if event['type'] == 'ADD']
    assert len(added) == 1
    [modem] = added[0]['modem']
    assert [modem[field] for field in ('vid', 'pid', 'dev_path', 'usb_serial', 'model_name')] == [
        '0x17CB', '0x0309', MHI_PATH, 'unknown', 'KX910C1-WW']
    assert modem['modem_port'] == [{'port_type': 'AT', 'port_name': '/dev/wwan0at0'},
                                   {'port_type': 'unknown', 'port_name': '/dev/wwan0qcdm0'}]


def test_pcie_modem_is_switched_by_its_trigger(result_of):
    done = result_of('pcie, enter qdl')
    assert (done.outcome.status, done.outcome.err) == (0, '')
    assert done.notes['tree'].trigger.read_bytes() == b'1'
    assert done.received() == ['at'] * 4


@pytest.mark.parametrize('case', ['pcie, whole', 'pcie, given port', 'pcie, download'])
def test_complete_run_over_pcie(case, result_of):
    done = result_of(case)
    assert (done.outcome.status, done.outcome.out, done.outcome.err) == (0, ONE_IMAGE_TEXT, '')
    assert done.received() == ['nop', 'configure', 'erase', 'program', 'data', 'power']
    assert done.images() == [ONE_IMAGE_IN_FLASH]


def test_pcie_modem_is_asked_before_it_is_switched(result_of):
    assert commands(result_of('pcie, whole').notes['at']) == AT_COMMANDS
    assert commands(result_of('pcie, given port').notes['at']) == []


def test_pcie_modem_in_download_mode_is_left_alone_without_force(result_of):
    done = result_of('pcie, download, no force')
    assert (done.outcome.status, done.outcome.out, done.outcome.err) == (0, VERSION + COMPLETED, NO_FORCE)
    assert done.received() == []
