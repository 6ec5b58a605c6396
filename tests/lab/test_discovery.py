"""The build that finds the modem by itself: no port is given, the kernel tells what is on the bus."""
import json
import os
import re
import signal
import subprocess
import time

import harness
import lab
import pytest

VERSION = 'version 1.6.1-0\n'
COMPLETED = '\nFirmware update completed\n'
FAILED = '\nFirmware update failed!\n'
DRY_RUN = 'dry-run requested, bailing out\n'
WAITING = 'Waiting for the modem to attach\n'
AT_DIALOGUE = ['ATE0', 'AT#CGMM', 'AT#CGSN', 'AT#SWPKGV']
MODEM_VERSIONS = '49.01.102-B002-P0A.000200;49.01.102;P0A.000200;A.00.02'
UPLOAD = 'Sending programmer\n' + ''.join(f'{p}.00% completed\r' for p in (0, 20, 40, 61, 81)) + 'Sent 20000 bytes\n'
ONE_IMAGE = 'Updating image one\n0.00% completed\rSent 10000 bytes\n'
# A device that leaves while the bus is listed; the search goes on.
VANISHED = re.compile(r'fail to fopen /sys/bus/usb/devices/[^ ]*/uevent, errno: 2 \(No such file or directory\)\n')


def start(*arguments):
    return harness.start(os.environ['KESTREL_DISCOVERING'], *arguments)


def find(*arguments, limit=60):
    return harness.finish(start(*arguments), limit)


def result(outcome):
    return outcome.status, VANISHED.sub('', outcome.err), outcome.out


def at_commands(modem):
    return [e['command'] for e in modem.events() if e['kind'] == 'at' and e['dir'] == 'rx']


def description(modem):
    """The JSON description of a simulated modem that was asked over AT."""
    return {'probing_mode': 'usb', 'vid': '0xFFF0', 'pid': '0x1001', 'dev_path': os.path.realpath(modem.place),
            'usb_serial': '0123456789', 'model_name': 'KX910C1-WW', 'imei': '004999010640000', 'cfun': None,
            'versions': MODEM_VERSIONS,
            'modem_port': [{'port_type': kind, 'port_name': str(modem.tty(i))}
                           for i, kind in enumerate(('diagnostic', 'AT', 'AT'))],
            'modem_port_size': 3}


def described(outcome):
    """The modem descriptions among the JSON lines of a run, without their times."""
    events = [json.loads(line) for line in outcome.out[len(VERSION):].splitlines()]
    return [{key: value for key, value in event.items() if key != 'timestamp'}
            for event in events if event['type'] not in ('LOG', 'PROGRESS')]


@pytest.fixture(name='package')
def make_package(tmp_path):
    return lab.small_package(tmp_path / 'package', '49.01.103')


def test_the_whole_update_without_a_port(tmp_path, package):
    with lab.UsbModem(tmp_path, *lab.PROGRAMMER_SIZE, '--stay') as modem:
        outcome = find(package)
        assert result(outcome) == (0, '', VERSION + UPLOAD + ONE_IMAGE + COMPLETED), modem.story()
        assert at_commands(modem) == AT_DIALOGUE
        modem.wait_for_ports(3)
        assert modem.identifier() == lab.NORMAL_ID
        lab.compare(package, modem)


def test_a_modem_that_is_plugged_in_while_the_run_waits(tmp_path, package):
    process = start(package)
    assert process.stdout.readline() + process.stdout.readline() == (VERSION + WAITING).encode()
    time.sleep(0.5)  # nothing is there, and nothing is done
    assert process.poll() is None
    with lab.UsbModem(tmp_path, *lab.PROGRAMMER_SIZE) as modem:
        outcome = harness.finish(process, 90)
        assert result(outcome) == (0, '', UPLOAD + ONE_IMAGE + COMPLETED), modem.story()
        assert at_commands(modem) == AT_DIALOGUE
        lab.compare(package, modem)


def test_sigint_ends_the_waiting(package):
    process = start(package)
    assert process.stdout.readline() + process.stdout.readline() == (VERSION + WAITING).encode()
    process.send_signal(signal.SIGINT)
    outcome = harness.finish(process, 5)
    assert result(outcome) == (131, FAILED, 'Firmware update interrupted\n')


def test_waits_for_a_modem_whatever_else_is_plugged_in(tmp_path, package):
    process = start(package, '--dry-run', '--debug')
    try:
        lab.wait_for(lambda: b'Waiting for' in os.read(process.stdout.fileno(), 65536), 10, 'the waiting')
        with lab.UsbModem(tmp_path / 'other', '--usb-id', 'fff0:7777', ports=0):
            time.sleep(1)  # it is not in the table
            assert process.poll() is None
        with lab.UsbModem(tmp_path) as modem:
            outcome = harness.finish(process, 60)
            assert outcome.status == 0
            assert outcome.out.count(f'device FFF0:1001, type add, path {os.path.realpath(modem.place)}') == 1
            assert 'FFF0:7777' not in outcome.out
    finally:
        harness.stop(process)


def test_two_modems_are_refused_and_described(tmp_path, package):
    with lab.UsbModem(tmp_path / 'a') as first, lab.UsbModem(tmp_path / 'b', port=1) as second:
        outcome = find(package, '--debug')
        assert outcome.status == 234
        assert 'multiple modems not supported, please keep a single modem attached:' in outcome.err
        paths = re.findall(r'USB dev path: (.*)', outcome.out)
        assert paths == [os.path.realpath(first.place), os.path.realpath(second.place)]
        assert first.kinds() == second.kinds() == []  # neither was spoken to


def test_a_modem_in_download_mode_is_left_alone_without_force(tmp_path, package):
    with lab.download_modem(tmp_path) as modem:
        outcome = find(package)
        assert result(outcome) == (
            0, 'cannot check firmware compatibility in QDL mode, --force option is mandatory\n', VERSION + COMPLETED)
        assert modem.transfers('sahara') == []


def test_a_modem_in_download_mode_is_flashed_with_force(tmp_path, package):
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE) as modem:
        outcome = find(package, '--force')
        assert result(outcome) == (0, '', VERSION + UPLOAD + ONE_IMAGE + COMPLETED), modem.story()
        lab.compare(package, modem)


def test_a_modem_that_leaves_while_it_is_asked(tmp_path, package):
    with lab.UsbModem(tmp_path, '--fault', 'at.AT#CGSN=silence') as modem:
        process = start(package)
        lab.wait_for(modem.has_struck, 20, 'the silence')
    outcome = harness.finish(process, 60)
    assert outcome.status == 234
    assert outcome.err.endswith('unable to get the package version of the modem\n' + FAILED)
    assert modem.kinds('sahara') == []


def test_follows_the_port_when_its_old_number_is_taken(tmp_path, package):
    """A program that still holds the old port keeps its number: the download device gets another one."""
    with lab.UsbModem(tmp_path, *lab.PROGRAMMER_SIZE) as modem:
        old = modem.tty(0)
        descriptor = os.open(old, os.O_RDWR | os.O_NONBLOCK | os.O_NOCTTY)
        try:
            process = start(package)
            lab.wait_for(lambda: modem.identifier() == lab.DOWNLOAD_ID and modem.tty(0), 30, 'download mode')
            assert modem.tty(0) != old
            outcome = harness.finish(process, 60)
            assert outcome.status == 0, outcome.err + modem.story()
            lab.compare(package, modem)
        finally:
            os.close(descriptor)


@pytest.fixture(name='modem_at_rest', scope='module')
def make_modem_at_rest(tmp_path_factory):
    """One modem for the cases that only ask it. Those come last: it stays on the bus."""
    with lab.UsbModem(tmp_path_factory.mktemp('rest'), limit=300) as modem:
        yield modem


@pytest.mark.parametrize('version, options, expected', [
    ('49.01.103', [], (0, DRY_RUN, VERSION + COMPLETED)),
    ('49.01.101', [], (255, 'downgrade may not be safe, --force option is mandatory\n' + FAILED, VERSION)),
    ('49.01.101', ['--force'], (0, DRY_RUN, VERSION + 'performing a downgrade\n' + COMPLETED)),
    ('49.01.203', ['--force'], (255, 'not compatible\n' + FAILED, VERSION)),
    ('25.30.003', ['--force'], (255, 'not compatible\n' + FAILED, VERSION)),
], ids=['upgrade', 'downgrade', 'forced downgrade', 'other class', 'other platform'])
def test_decides_by_the_versions_that_the_modem_tells(tmp_path, modem_at_rest, version, options, expected):
    package = lab.small_package(tmp_path / 'package', version)
    assert result(find(package, '--dry-run', *options)) == expected
    assert modem_at_rest.transfers('normal').count(7) == 0  # never switched


def test_describes_the_modem_in_json(modem_at_rest, package):
    outcome = find(package, '--dry-run', '--json')
    assert outcome.status == 0
    assert described(outcome) == [{'type': 'ADD', 'modem': [description(modem_at_rest)], 'modem_size': 1}]


def test_names_the_program_that_holds_a_port(modem_at_rest, package):
    port = modem_at_rest.tty(1)
    holder = subprocess.Popen(['sleep', '60'], stdin=open(port, 'r+b', buffering=0))
    try:
        outcome = find(package, '--dry-run')
        assert outcome.err.startswith(f'port {port} is in use by sleep (process {holder.pid}): stop it first\n'), outcome.err
        assert outcome.status == 0
    finally:
        holder.kill()
        holder.wait()
