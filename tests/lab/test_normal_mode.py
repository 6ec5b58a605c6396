"""Runs that begin with a modem in normal mode: the switch, the way over the bus, and back."""
import re
import subprocess
import time

import harness
import lab
import pytest

SAMPLE_SIZE = ('--programmer-size', '20000')
SAMPLE_PROGRAMMER = ''.join(f'{percent}.00% completed\r' for percent in (0, 20, 40, 61, 81)) + 'Sent 20000 bytes\n'
SAMPLE_IMAGES = (
    'Updating image empty\nSent 0 bytes\n'
    'Updating image flag\n0.00% completed\rSent 1 bytes\n'
    'Updating image sbl\n0.00% completed\rSent 4096 bytes\n'
    'Updating image mibib\n0.00% completed\rSent 4097 bytes\n'
    'Updating image rootfs\n0.00% completed\r99.00% completed\rSent 1053576 bytes\n')

# A device that leaves while the bus is listed; the search goes on.
VANISHED = re.compile(r'fail to fopen /sys/bus/usb/devices/[^ ]*/uevent, errno: 2 \(No such file or directory\)\n')


@pytest.fixture(name='sample', scope='session')
def make_sample(tmp_path_factory):
    folder = tmp_path_factory.mktemp('sample')
    assert lab.example('make-sample-package', folder).returncode == 0
    return folder


def test_the_whole_way_and_back_into_normal_mode(tmp_path, sample):
    with lab.UsbModem(tmp_path, *SAMPLE_SIZE, '--stay') as modem:
        assert modem.identifier() == lab.NORMAL_ID
        assert modem.tty(0) == lab.DOWNLOAD_PORT  # the diagnostic port, whose name is free when it has gone
        outcome = harness.run(sample, '--port', modem.tty(0), '--force')
        assert VANISHED.sub('', outcome.err) == ''
        assert outcome.out == ('version 1.6.1-0\nSending programmer\n' + SAMPLE_PROGRAMMER + SAMPLE_IMAGES +
                               '\nFirmware update completed\n')
        assert outcome.status == 0
        modem.wait_for_ports(3)
        assert modem.identifier() == lab.NORMAL_ID
        assert modem.transfers('normal') == [7]
        events = [(e['stage'], e['kind']) for e in modem.events() if e['kind'] in ('plugged', 'unplugged')]
        assert events == [('normal', 'plugged'), ('sahara', 'unplugged'), ('sahara', 'plugged'),
                          ('normal', 'unplugged'), ('normal', 'plugged')]
        lab.compare(sample, modem)


def test_enter_qdl_leaves_the_modem_in_download_mode(tmp_path, sample):
    with lab.UsbModem(tmp_path) as modem:
        outcome = harness.run(sample, '--port', modem.tty(0), '--force', '--enter-qdl')
        assert (outcome.status, outcome.err) == (0, '')
        assert outcome.out == 'version 1.6.1-0\nEntered QDL mode, stopping\n\nFirmware update completed\n'
        lab.wait_for(lambda: modem.identifier() == lab.DOWNLOAD_ID, 10, 'download mode')
        modem.wait_for_ports(1)
        time.sleep(0.5)  # nobody speaks to it
        assert modem.transfers('sahara') == []


def test_two_readers_do_not_mix(tmp_path):
    with lab.UsbModem(tmp_path) as modem:
        with lab.RawPort(modem.tty(1)) as first, lab.RawPort(modem.tty(2)) as second:
            first.say(b'AT#CG')
            lab.wait_for(lambda: modem.transfers('normal') == [5], 5, 'the first half of a command')
            second.say(b'AT\r')
            assert second.hear_until(b'OK\r\n') == b'AT\r\r\nOK\r\n'
            first.say(b'MM\r')
            assert first.hear_until(b'OK\r\n') == b'AT#CGMM\r\r\n#CGMM: KX910C1-WW\r\n\r\nOK\r\n'


def test_no_download_device_within_20_seconds_and_at_probing_meanwhile(tmp_path, sample):
    with lab.UsbModem(tmp_path / 'mute', '--fault', 'diag=silence') as mute, \
         lab.UsbModem(tmp_path / 'other', port=1) as other:
        begun = time.monotonic()
        process = harness.start(harness.KESTREL, sample, '--port', mute.tty(0), '--force')
        try:
            for interface in (1, 2):
                answer = subprocess.run([lab.HELPERS / 'at-probe', other.tty(interface)], text=True, timeout=15,
                                        capture_output=True, check=True)
                assert answer.stdout == ('handshake 0 KX910C1-WW\nimei 0 004999010640000\n'
                                         'versions 0 49.01.102-B002-P0A.000200;49.01.102;P0A.000200;A.00.02\n')
            assert other.interfaces_used('normal') == {2, 3}
            at = [e['command'] for e in other.events() if e['kind'] == 'at' and e['dir'] == 'rx']
            assert at == ['ATE0', 'AT#CGMM', 'AT#CGSN', 'AT#SWPKGV'] * 2
        finally:
            outcome = harness.finish(process, 40, begun)
        assert mute.transfers('normal') == [7]
    assert outcome.status == 156
    assert outcome.out == 'version 1.6.1-0\n'
    assert outcome.err == 'failed listening on the USB bus\n' + harness.FAILED
    assert 19.5 < outcome.seconds < 25
