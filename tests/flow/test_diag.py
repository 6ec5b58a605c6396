"""The switch into download mode over the diagnostic port, and the wait for the download device that follows."""
import errno
import re
import os
import pty
import signal
import time
import tty

import pytest

import packages
from harness import COMPLETED, FAILED, KESTREL, VERSION, Sim, finish, run, session, start
from scripted_modem import ScriptedModem

FRAME = bytes([0x4B, 0x65, 0x01, 0x00, 0x54, 0x0F, 0x7E])
ENTERED = VERSION + 'Entered QDL mode, stopping\n' + COMPLETED
NOT_SET = 'unable to set the modem to firmware update mode\n' + FAILED


def switch(folder, *more):
    return session(folder, packages.one_image(folder / 'package'), ['--enter-qdl', *more], [], 'normal', until='diag')


def frame_bytes(folder):
    package = packages.one_image(folder / 'package')
    with ScriptedModem([]) as modem:
        outcome = run(package, '--port', modem.port, '--force', '--enter-qdl')
    return outcome, modem.received


def fill(descriptor):
    """Writes until nothing is taken any more."""
    taken = True
    while taken:
        taken = False
        try:
            while True:
                os.write(descriptor, b'x')
                taken = True
        except BlockingIOError:
            time.sleep(0.1)  # the kernel may still move what it holds, which makes room


def full_port(folder):
    """A port that takes nothing: its buffers are full and nobody reads them."""
    package = packages.one_image(folder / 'package')
    master, slave = pty.openpty()
    try:
        tty.setraw(slave)
        os.set_blocking(slave, False)
        fill(slave)
        return run(package, '--port', os.ttyname(slave), '--force', '--enter-qdl')
    finally:
        os.close(master)
        os.close(slave)


def no_device(folder):
    return session(folder, packages.one_image(folder / 'package'), [], [], 'normal', until='diag')


def interrupted(folder):
    """SIGINT during the wait for the download device."""
    package = packages.one_image(folder / 'package')
    with Sim(folder, begin='normal', until='diag') as modem:
        updater = start(KESTREL, package, '--port', modem.port, '--force')
        modem.wait()  # it leaves when the updater has closed the port
        time.sleep(1.5)
        assert updater.poll() is None
        begun = time.monotonic()
        updater.send_signal(signal.SIGINT)
        return finish(updater, 30, begun)


CASES = {
    'no device': no_device,
    'switch': switch,
    'switch with otp': lambda folder: switch(folder, '--otp'),
    'frame bytes': frame_bytes,
    'full port': full_port,
    'interrupted': interrupted,
}


def test_modem_is_switched_and_the_run_stops(result_of):
    done = result_of('switch')
    assert (done.outcome.status, done.outcome.out, done.outcome.err) == (0, ENTERED, '')


def test_modem_received_the_frame_and_nothing_else(result_of):
    done = result_of('switch')
    assert [(event['kind'], event['length']) for event in done.events if event['dir'] == 'rx'] == [
        ('download_mode', 7)]
    assert done.sim_status == 0


def test_bytes_of_the_frame(result_of):
    outcome, received = result_of('frame bytes')
    assert (outcome.status, received) == (0, FRAME)


def test_otp_with_the_stop_ends_with_the_otp_line(result_of):
    done = result_of('switch with otp')
    assert (done.outcome.status, done.outcome.err) == (0, '')
    assert done.outcome.out == VERSION + 'Entered QDL mode, stopping\n\nOTP values read successfully\n'


@pytest.mark.parametrize('port, error', [('/nowhere/port', errno.ENOENT), ('/', errno.EISDIR)])
def test_port_that_cannot_be_opened(port, error, package):
    text = {errno.ENOENT: 'error 2 No such file or directory', errno.EISDIR: 'error 21 Is a directory'}[error]
    outcome = run(package, '--port', port, '--force', '--enter-qdl')
    assert (outcome.status, outcome.out) == (154, VERSION)
    assert outcome.err == f'could not open device {port}: {text}\nunable to open device path {port}\n' + NOT_SET


def test_port_that_takes_nothing(result_of):
    outcome = result_of('full port')
    assert (outcome.status, outcome.out) == (146, VERSION)
    assert outcome.err == 'error in writing the switch command\n' + NOT_SET
    assert 4.9 <= outcome.seconds <= 9


def test_bad_package_leaves_the_port_alone(folder):
    (folder / 'port').write_bytes(b'')
    (folder / 'package').mkdir()
    outcome = run(folder / 'package', '--port', folder / 'port', '--force', '--enter-qdl')
    assert (outcome.status, (folder / 'port').read_bytes()) == (254, b'')


def test_device_that_never_comes_is_waited_for_20_seconds(result_of):
    # No device 05C6:9008 is attached to this machine: sysfs is asked twenty times.
    done = result_of('no device')
    assert (done.outcome.status, done.outcome.out) == (156, VERSION)
    assert done.outcome.err == 'failed listening on the USB bus\n' + FAILED
    assert 19 <= done.outcome.seconds <= 25


def test_interrupt_ends_the_wait_at_once(result_of):
    outcome = result_of('interrupted')
    assert (outcome.status, outcome.err) == (131, FAILED)
    assert re.fullmatch(re.escape(VERSION) + 'interrupted; this completes the modem: kestrel .*/package '
                        '--port /dev/ttyUSB0 --skip-enter-qdl --force\n', outcome.out)
    assert outcome.seconds < 3
