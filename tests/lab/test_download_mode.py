"""Runs on a modem that is in download mode already: Sahara over the kernel's serial driver, Firehose over libusb.

Two runs that do nothing but wait go on beside the others: their modems are plugged into earlier ports, so that the others
find their own first.
"""
import os
import signal
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import harness
import lab
import packages
import pytest

UPLOAD = 'version 1.6.1-0\nSending programmer\n'
TRANSFER_TIMEOUT = 30


class Waiting:
    """A run that meets a silent modem. Its time counts from the moment of the silence."""

    def __init__(self, folder, fault, port):
        self.package = lab.small_package(folder / 'package', size=1048576)
        self.modem = lab.download_modem(folder, *lab.PROGRAMMER_SIZE, '--fault', fault, port=port, limit=300)
        self.modem.__enter__()
        self.process = harness.start(harness.KESTREL, *lab.skip_enter(self.package))
        try:
            lab.wait_for(lambda: self.modem.has_struck() or self.process.poll() is not None, 30, 'the silence')
        except AssertionError:
            self.end()
            raise
        begun = time.monotonic()
        self.end_of_run = ThreadPoolExecutor(1).submit(harness.finish, self.process, 130, begun)

    def outcome(self):
        return self.end_of_run.result()

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
        self.modem.__exit__(None, None, None)


@pytest.fixture(scope='module', autouse=True)
def waiting(tmp_path_factory):
    """The modem that stops reading is first: its run waits longest."""
    runs = {}
    try:
        runs['deaf'] = Waiting(tmp_path_factory.mktemp('deaf'), 'firehose.data-in=stall@500000', 0)
        runs['mute'] = Waiting(tmp_path_factory.mktemp('mute'), 'firehose.data=silence', 1)
        yield runs
    finally:
        for run in runs.values():
            run.end()


def test_payload_of_1_mib_with_empty_packets_exactly_behind_whole_ones(tmp_path):
    package = lab.awkward_package(tmp_path / 'package')
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE) as modem:
        outcome = lab.update(package)
        lab.assert_updated(outcome, modem)
        assert modem.transfers('firehose') == lab.awkward_transfers()
        assert 0 not in modem.transfers('sahara')
        assert sum(modem.transfers('sahara')) == 48 + 20000 + 8  # HELLO response, programmer, DONE
        lab.compare(package, modem)


def test_counter_offer_of_16_kib_after_a_64_bit_upload(tmp_path):
    package = lab.awkward_package(tmp_path / 'package')
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE, '--payload', '16384', '--request-bits', '64',
                            '--read-order', 'shuffle') as modem:
        outcome = lab.update(package)
        lab.assert_updated(outcome, modem)
        assert modem.transfers('firehose') == lab.awkward_transfers(lab.IMAGES_OF_16_KIB)
        assert 0 not in modem.transfers('sahara')
        assert {e['length'] for e in modem.events() if e['kind'] == 'read_data'} == {32}
        lab.compare(package, modem)


def test_platform_0_and_a_hello_of_mode_2(tmp_path):
    package = lab.small_package(tmp_path / 'package', packages.PLATFORM_0)
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE, '--platform', '0', '--hello-mode', '2') as modem:
        outcome = lab.update(package)
        lab.assert_updated(outcome, modem)
        assert modem.kinds('sahara')[:2] == ['transfer', 'enter_download']
        assert [e['mode'] for e in modem.events() if e['kind'] == 'hello'] == [2, 0]
        assert modem.kinds('firehose', 'tx')[-1] == 'ack'  # no target reset is reported, and none was waited for
        lab.compare(package, modem)


def test_a_hello_that_waits_in_the_endpoint(tmp_path):
    """It comes in with the opening of the port, which may echo it then: the modem refuses that and is asked again."""
    package = lab.small_package(tmp_path / 'package')
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE, '--usb-first', '0') as modem:
        outcome = lab.update(package)
        lab.assert_updated(outcome, modem)
        assert modem.kinds('sahara', 'tx')[0] == 'hello'
        lab.compare(package, modem)


def test_a_hello_that_somebody_else_has_echoed(tmp_path):
    """Who opens the port and leaves it as the kernel made it echoes the HELLO, and every refusal after it."""
    package = lab.small_package(tmp_path / 'package')
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE, '--usb-first', '0') as modem:
        port = os.open(lab.DOWNLOAD_PORT, os.O_RDWR | os.O_NOCTTY)
        try:
            lab.wait_for(lambda: 'refused' in modem.kinds('sahara', 'event'), 10, 'the echo')
        finally:
            os.close(port)
        outcome = lab.update(package)
        assert outcome.status == 0, outcome.err + modem.story()
        assert modem.wait() == 0
        assert 'reset_state_machine' in modem.kinds('sahara')
        lab.compare(package, modem)


def test_log_lines_of_the_programmer_do_not_disturb(tmp_path):
    package = lab.small_package(tmp_path / 'package')
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE, '--log-start', '5', '--log-before', '2') as modem:
        outcome = lab.update(package)
        lab.assert_updated(outcome, modem)
        lab.compare(package, modem)


def test_otp(tmp_path):
    package = lab.small_package(tmp_path / 'package')
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE, '--otp', 'OTP 0x11', '--otp', 'OTP 0x22') as modem:
        outcome = lab.update(package, '--otp')
        lab.assert_updated(outcome, modem)
        assert outcome.out.endswith('\nOTP values read successfully\n')
        assert outcome.out.count('OTP 0x11') == outcome.out.count('OTP 0x22') == 1
        assert 'program' not in modem.kinds()


def test_json(tmp_path):
    package = lab.awkward_package(tmp_path / 'package')
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE) as modem:
        outcome = lab.update(package, '--json')
        lab.assert_updated(outcome, modem)
        assert outcome.out.startswith('version 1.6.1-0\n')
        lines = harness.json_lines(outcome.out.split('\n', 1)[1])
        ends = {Path(e['description']).name: e['max'] for e in lines
                if e['type'] == 'PROGRESS' and e['current'] == e['max']}
        sizes = {f'{name}.bin': size for name, size, _, _ in lab.IMAGES}
        assert ends == {packages.PROGRAMMER: 20000, **sizes}
        lab.compare(package, modem)


def test_unplugged_at_a_sahara_read(tmp_path):
    package = lab.small_package(tmp_path / 'package')
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE, '--fault', 'sahara.read=hangup@3') as modem:
        outcome = lab.update(package)
        assert modem.wait() == 0
        assert outcome.status == 131
        assert 'error in updating the programmer\n' in outcome.err
        assert outcome.err.endswith('unable to send the programmer through SAHARA\n' + harness.FAILED)
        assert outcome.seconds < 10


def test_unplugged_in_the_middle_of_an_image(tmp_path):
    package = lab.small_package(tmp_path / 'package', size=3000000)
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE, '--fault', 'firehose.data-in=hangup@1500000') as modem:
        outcome = lab.update(package)
        assert modem.wait() == 0
        # Whether the kernel already knows when the interface is released decides what comes next: it cannot be
        # claimed again (libusb's -4), or ten transfers in a row move nothing.
        sending, _, _ = outcome.err.partition('error in sending binary')
        claims = 'could not claim interface 0: error -4\n' in sending
        assert outcome.status == (252 if claims else 185)
        transfers = sending.count('bulk transfer error -4\n')
        assert transfers < 10 if claims else transfers == 10
        assert f'error in sending binary {package}/one.bin\n' in outcome.err
        assert outcome.err.endswith(harness.FIREHOSE_FAILED)
        assert outcome.seconds < 12


def test_unplugged_while_an_answer_is_awaited(tmp_path):
    package = lab.small_package(tmp_path / 'package')
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE, '--fault', 'firehose.data=hangup') as modem:
        outcome = lab.update(package)
        assert modem.wait() == 0
        assert outcome.status == 154
        assert f'error in sending binary {package}/one.bin\nerror sending commands -102\n' in outcome.err
        assert outcome.err.endswith(harness.FIREHOSE_FAILED)
        assert outcome.seconds < 12


def test_stalled_endpoint_while_data_are_sent(tmp_path):
    package = lab.small_package(tmp_path / 'package', size=3000000)
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE, '--fault', 'firehose.data-in=halt@1500000') as modem:
        outcome = lab.update(package)
        assert outcome.status == 185  # nothing is taken any more
        assert 'bulk transfer error -9\n' in outcome.err
        assert outcome.err.endswith(harness.FIREHOSE_FAILED)
        assert outcome.seconds < 12
        assert modem.process.poll() is None


def test_stalled_endpoint_while_an_answer_is_awaited(tmp_path):
    package = lab.small_package(tmp_path / 'package')
    with lab.download_modem(tmp_path, *lab.PROGRAMMER_SIZE, '--fault', 'firehose.program=halt') as modem:
        outcome = lab.update(package)
        assert outcome.status == 154
        assert 'bulk transfer error -9\n' in outcome.err
        assert outcome.err.endswith(harness.FIREHOSE_FAILED)
        assert 'data' not in modem.kinds('firehose')


def test_a_killed_run_then_others_without_and_with_a_power_cycle(tmp_path):
    package = lab.small_package(tmp_path / 'package', size=24 << 20)
    with lab.download_modem(tmp_path / 'first', *lab.PROGRAMMER_SIZE) as modem:
        process = harness.start(harness.KESTREL, *lab.skip_enter(package))
        lab.wait_for(lambda: modem.transfers('firehose').count(1048576) >= 3, 30, 'the middle of the image')
        process.send_signal(signal.SIGKILL)
        assert harness.finish(process, 5).status == -signal.SIGKILL
        assert 'data' not in modem.kinds('firehose')  # the image is not complete
        # The killed run had taken the device from the serial driver, which does not come back by itself.
        again = lab.update(package)
        if again.status == 240:  # a run with a silent modem has begun on a port of that name, and still lasts
            assert again.err.startswith(f'port {lab.DOWNLOAD_PORT} is in use by kestrel (process ')
        else:
            assert again.status == 154
            assert again.err == (f'could not open device {lab.DOWNLOAD_PORT}: error 2 No such file or directory\n'
                                 f'unable to open device path {lab.DOWNLOAD_PORT}\n'
                                 'unable to send the programmer through SAHARA\n' + harness.FAILED)
        assert again.seconds < 3
        # With its port back, the device still waits for the rest of the image and says nothing.
        modem.bind_serial_driver()
        again = lab.update(package)
        assert again.status == 185
        assert again.err == 'error in hello handshake\nunable to send the programmer through SAHARA\n' + harness.FAILED
        assert again.seconds < 16  # twice 3 s for the HELLO, twice 2 s of flushing
    with lab.download_modem(tmp_path / 'second', *lab.PROGRAMMER_SIZE) as modem:
        outcome = lab.update(package)
        lab.assert_updated(outcome, modem)
        lab.compare(package, modem)


def test_a_programmer_in_the_middle_of_an_image_outlives_its_host(tmp_path):
    """What comes is data until the announced sectors are full, whoever sends it; then it answers again."""
    request = lab.framed(lab.image_line('one', lab.SECTOR, 3)).encode()
    ping = lab.NOP.encode()
    with lab.UsbModem(tmp_path, begin='firehose', port=lab.LAST_PORT) as modem:
        with lab.RawPort(lab.DOWNLOAD_PORT) as host:
            host.say(request)
            host.hear_until(b' rawmode="true" /></data>')
            host.say(b'a' * 5000)
            lab.wait_for(lambda: sum(modem.transfers('firehose')) == len(request) + 5000, 10, 'the data')
        with lab.RawPort(lab.DOWNLOAD_PORT) as host:
            host.say(ping)
            assert host.is_silent()
            host.say(b'b' * (12288 - 5000 - len(ping)))
            host.hear_until(b'<response value="ACK" rawmode="false" /></data>')
            host.say(ping)
            host.hear_until(b'<response value="ACK" /></data>')
        assert (modem.flash / '000-program.bin').read_bytes() == b'a' * 5000 + ping + b'b' * (7288 - len(ping))


def test_a_programmer_that_never_acknowledges(waiting):
    outcome = waiting['mute'].outcome()
    package = waiting['mute'].package
    assert outcome.status == 154
    begin = f'bulk transfer error -7\nerror in sending binary {package}/one.bin\nerror sending commands -102\n'
    assert outcome.err.startswith(begin)
    assert outcome.err.endswith(harness.FIREHOSE_FAILED)
    # It carries out the reset that follows, without a word: as when it is unplugged.
    gone = outcome.err[len(begin):-len(harness.FIREHOSE_FAILED)]
    failed = gone.count('bulk transfer error -4\n')
    end = 'could not claim interface 0: error -4\n' if failed < 10 else 'the programmer sends empty answers only\n'
    assert gone == 'bulk transfer error -4\n' * failed + end
    assert failed <= 10
    assert outcome.out.startswith(UPLOAD)
    assert TRANSFER_TIMEOUT - 1 < outcome.seconds < TRANSFER_TIMEOUT + 10


def test_a_programmer_that_stops_reading(waiting):
    outcome = waiting['deaf'].outcome()
    package = waiting['deaf'].package
    assert outcome.status == 146
    # The data, the empty packet behind them, the reset.
    assert outcome.err == ('bulk transfer error -7\n'
                           'bulk zlp transfer error -7\n'
                           'error 4294967186 sending buffer\n'
                           f'error in sending binary {package}/one.bin\n'
                           'error sending commands -110\n'
                           'bulk transfer error -7\n'
                           'error sending reset 4294967186\n'
                           'error in sending reset\n' + harness.FIREHOSE_FAILED)
    assert 3 * TRANSFER_TIMEOUT - 1 < outcome.seconds < 3 * TRANSFER_TIMEOUT + 15
