"""The built program on a real pseudo-terminal. KESTREL_SIM names the program."""

import json
import os
import select
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

SIM = os.environ["KESTREL_SIM"]
SOURCE = Path(__file__).resolve().parents[2]

HELLO = bytes.fromhex("01000000 30000000 02000000 01000000 00040000 00000000") + bytes(24)
HELLO_RESPONSE = bytes.fromhex("02000000 30000000 02000000 01000000") + bytes(32)
READ_0 = bytes.fromhex("03000000 14000000 0d000000 00000000 00100000")
READ_1 = bytes.fromhex("03000000 14000000 0d000000 00100000 02000000")
END_IMAGE = bytes.fromhex("04000000 10000000 0d000000 00000000")
DONE = bytes.fromhex("05000000 08000000")
DONE_RESPONSE = bytes.fromhex("06000000 0c000000 01000000")
ACK = b'<?xml version="1.0" encoding="UTF-8" ?>\n<data><response value="ACK" /></data>'
PLAIN_ACK = b'<?xml version="1.0" encoding="UTF-8" ?>\n<data>\n<response value="ACK" />\n</data>'
ACK_RAW = ACK.replace(b" />", b' rawmode="true" />')
ACK_END = ACK.replace(b" />", b' rawmode="false" />')
FRAME = b'<?xml version="1.0"?>\n<data>\n%s\n</data>\n'
RESET = FRAME % b'<power value="reset" DelayInSeconds="3"/>'


def log(value):
    return b'<?xml version="1.0" encoding="UTF-8" ?>\n<data><log value="%s" /></data>' % value


class Run:
    """The program and the host's end of its line."""

    def __init__(self, *options):
        self.process = subprocess.Popen(
            [SIM, "--timeout", "8", *options], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
        )
        self.path = self.process.stdout.readline().rstrip("\n")
        self.fd = None

    def __enter__(self):
        self.open()
        return self

    def __exit__(self, *_):
        self.close()
        if self.process.poll() is None:
            self.process.kill()
        self.process.communicate()

    def open(self):
        self.fd = os.open(self.path, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)

    def close(self):
        if self.fd is not None:
            os.close(self.fd)
        self.fd = None

    def say(self, data):
        while data:
            data = data[os.write(self.fd, data):]

    def hear(self, most=1024):
        ready, _, _ = select.select([self.fd], [], [], 3)
        return os.read(self.fd, most) if ready else b"(nothing)"

    def ask(self, data):
        self.say(data)
        return self.hear()

    def hear_nothing(self):
        return select.select([self.fd], [], [], 0.2)[0] == []

    def leave(self):
        self.close()
        _, errors = self.process.communicate(timeout=5)
        return self.process.returncode, errors


def refuse(*options):
    done = subprocess.run([SIM, *options], capture_output=True, text=True, timeout=5, check=False)
    assert done.stdout == ""
    return done.returncode, done.stderr


def test_whole_update(tmp_path):
    flash = tmp_path / "flash"
    transcript = tmp_path / "transcript"
    with Run("--flash", str(flash), "--transcript", str(transcript), "--programmer-size", "4098") as run:
        assert run.ask(b"ATE0\r") == b"ATE0\r\r\nOK\r\n"
        assert run.ask(b"AT#CGMM\r") == b"\r\n#CGMM: KX910C1-WW\r\n\r\nOK\r\n"
        run.say(bytes.fromhex("4b650100540f7e"))
        run.close()
        run.open()
        assert run.hear() == HELLO
        assert run.ask(HELLO_RESPONSE) == READ_0
        assert run.ask(b"p" * 4096) == READ_1
        assert run.ask(b"qr") == END_IMAGE
        assert run.ask(DONE) == DONE_RESPONSE
        run.close()
        run.open()
        assert run.hear() == log(b"INFO: Programmer &quot;KX910&quot; 4.2 (NAND &amp; nothing else)")
        assert [run.hear() for _ in range(3)][-1] == log(b"INFO: End of supported functions")
        assert run.ask(FRAME % b'<nop value="ping"/>') == log(b"INFO: Calling handler for nop")
        assert run.hear() == ACK
        line = b'<program SECTOR_SIZE_IN_BYTES="512" num_partition_sectors="2" label="x"/>'
        assert run.ask(FRAME % line) == log(b"INFO: Calling handler for program")
        assert run.hear() == ACK_RAW
        assert run.ask(b"d" * 1024) == log(b"INFO: Programmed 1024 bytes")
        assert run.hear() == ACK_END
        assert run.ask(RESET) == log(b"INFO: Calling handler for power")
        assert run.hear() == ACK
        assert run.hear() == log(b"INFO: bsp_target_reset() 1")
        assert run.leave() == (0, "")
    assert sorted(p.name for p in flash.iterdir()) == [
        "000-program.bin", "000-program.xml", "001-power.xml", "programmer.bin",
    ]
    assert (flash / "programmer.bin").read_bytes() == b"p" * 4096 + b"qr"
    assert (flash / "000-program.bin").read_bytes() == b"d" * 1024
    assert (flash / "000-program.xml").read_bytes() == FRAME % line
    lines = [json.loads(text) for text in transcript.read_text().splitlines()]
    assert [(it["dir"], it["stage"], it["kind"]) for it in lines if it["dir"] != "event"] == [
        ("rx", "normal", "at"), ("tx", "normal", "at"), ("rx", "normal", "at"), ("tx", "normal", "at"),
        ("rx", "normal", "download_mode"), ("tx", "sahara", "hello"), ("rx", "sahara", "hello_response"),
        ("tx", "sahara", "read_data"), ("rx", "sahara", "data"), ("tx", "sahara", "read_data"),
        ("rx", "sahara", "data"), ("tx", "sahara", "end_image"), ("rx", "sahara", "done"),
        ("tx", "sahara", "done_response"), *[("tx", "firehose", "log")] * 4,
        ("rx", "firehose", "nop"), ("tx", "firehose", "log"), ("tx", "firehose", "ack"),
        ("rx", "firehose", "program"), ("tx", "firehose", "log"), ("tx", "firehose", "ack"),
        ("rx", "firehose", "data"), ("tx", "firehose", "log"), ("tx", "firehose", "ack"),
        ("rx", "firehose", "power"), ("tx", "firehose", "log"), ("tx", "firehose", "ack"), ("tx", "firehose", "log"),
    ]
    assert [it["kind"] for it in lines if it["dir"] == "event"] == ["stage", "stage", "stage", "end"]
    times = [it["t"] for it in lines]
    assert times == sorted(times)


def test_transcript_is_readable_while_the_run_goes_on(tmp_path):
    transcript = tmp_path / "transcript"
    with Run("--transcript", str(transcript)) as run:
        run.ask(b"ATE0\r")
        kinds = [json.loads(text)["kind"] for text in transcript.read_text().splitlines()]
        assert kinds == ["stage", "at", "at"]


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_signal_ends_it_cleanly_and_removes_the_link(tmp_path, number):
    link = tmp_path / "port"
    with Run("--link", str(link)) as run:
        assert os.readlink(link) == run.path
        run.process.send_signal(number)
        assert run.leave() == (0, "")
    assert not link.is_symlink()


def test_link_replaces_an_old_link_but_no_file(tmp_path):
    link = tmp_path / "port"
    link.symlink_to("/nowhere")
    with Run("--link", str(link)) as run:
        assert os.readlink(link) == run.path
    taken = tmp_path / "file"
    taken.write_text("x")
    assert refuse("--link", str(taken)) == (1, f"kestrel-sim: {taken}: File exists\n")


def test_time_out():
    with Run("--timeout", "0.1") as run:
        _, errors = run.process.communicate(timeout=5)
        assert (run.process.returncode, errors) == (3, "kestrel-sim: time-out in stage normal\n")


def test_modem_in_normal_mode_does_not_hear_the_rest():
    with Run() as run:
        run.say(HELLO_RESPONSE)
        assert run.ask(b"AT\r") == b"AT\r\r\nOK\r\n"


def test_boot_loader_that_refused_a_packet_begins_again():
    with Run("--start", "sahara") as run:
        run.hear()
        assert run.ask(DONE) == bytes.fromhex("04000000 10000000 0d000000 01000000")
        assert run.ask(bytes.fromhex("13000000 08000000")) == HELLO
        run.say(bytes.fromhex("07000000 08000000"))
        assert run.leave() == (0, "")


def test_stay_serves_a_second_round():
    with Run("--start", "firehose", "--stay", "--platform", "0", "--plain-answers") as run:
        assert run.ask(RESET) == PLAIN_ACK
        assert run.ask(b"AT\r") == b"AT\r\r\nOK\r\n"


def test_until_sahara_leaves_after_the_done_response():
    with Run("--start", "sahara", "--until", "sahara", "--programmer-size", "0") as run:
        run.hear()
        assert run.ask(HELLO_RESPONSE) == END_IMAGE
        assert run.ask(DONE) == DONE_RESPONSE
        assert run.leave() == (0, "")


def test_mode_2_acknowledgement_and_new_hello_are_two_reads():
    with Run("--start", "sahara", "--hello-mode", "2") as run:
        assert run.hear()[20:24] == bytes([2, 0, 0, 0])
        assert run.ask(bytes.fromhex("f0000000 08000000")) == bytes.fromhex("f1000000 08000000")
        assert run.hear() == HELLO


def test_usage_errors():
    assert refuse("--platform", "9") == (2, "kestrel-sim: --platform 9: bad value (try --help)\n")
    assert refuse("--nonsense") == (2, "kestrel-sim: unknown option --nonsense (try --help)\n")


def test_folder_and_file_that_cannot_be_made(tmp_path):
    taken = tmp_path / "file"
    taken.write_text("x")
    assert refuse("--flash", str(taken)) == (1, f"kestrel-sim: {taken}: Not a directory\n")
    missing = tmp_path / "no" / "transcript"
    assert refuse("--transcript", str(missing)) == (1, f"kestrel-sim: {missing}: No such file or directory\n")


def test_help_and_version():
    done = subprocess.run([SIM, "--help"], capture_output=True, text=True, timeout=5, check=True)
    assert done.stdout.startswith("Usage: kestrel-sim [OPTION]...\n")
    assert "--fault STEP=KIND[:VALUE][@N]" in done.stdout
    done = subprocess.run([SIM, "--version"], capture_output=True, text=True, timeout=5, check=True)
    assert done.stdout == "kestrel-sim 1.6.1-0\n"


PROGRAM = FRAME % b'<program SECTOR_SIZE_IN_BYTES="512" filename="a.bin" num_partition_sectors="2"/>'


def killed_host(path, *words):
    """A host of its own process that says something and is killed with the port open."""
    code = "import os, sys, time\nfd = os.open(sys.argv[1], os.O_RDWR | os.O_NOCTTY)\n" \
           "for word in sys.argv[2:]:\n    os.write(fd, bytes.fromhex(word)); print(os.read(fd, 1024), flush=True)\n" \
           "os.write(fd, b'half'); print('said', flush=True)\ntime.sleep(60)\n"
    with subprocess.Popen([sys.executable, "-c", code, path, *[word.hex() for word in words]],
                          stdout=subprocess.PIPE, text=True) as host:
        heard = [host.stdout.readline() for _ in range(len(words) + 1)]
        host.kill()
    return heard


def test_programmer_in_the_middle_of_data_outlives_the_host_and_takes_the_rest(tmp_path):
    with Run("--start", "firehose", "--plain-answers", "--flash", str(tmp_path)) as run:
        run.close()
        assert killed_host(run.path, PROGRAM)[-1] == "said\n"
        run.open()
        # Whatever comes is data now, also what another host begins with.
        run.say(bytes.fromhex("13000000 08000000") + FRAME % b'<nop value="ping"/>')
        assert run.hear_nothing()
        sent = 4 + 8 + len(FRAME % b'<nop value="ping"/>')
        run.say(b"\xff" * (1023 - sent))
        assert run.hear_nothing()
        assert run.ask(b"\xff") == PLAIN_ACK
        assert run.ask(FRAME % b'<nop value="ping"/>') == PLAIN_ACK
    assert (tmp_path / "000-program.bin").read_bytes()[:12] == b"half" + bytes.fromhex("13000000 08000000")


def test_idle_programmer_outlives_the_host_and_answers_a_ping():
    with Run("--start", "firehose", "--plain-answers") as run:
        run.close()
        assert killed_host(run.path, FRAME % b'<nop value="ping"/>')[-1] == "said\n"
        run.open()
        assert b"NAK" in run.hear()  # what the killed host said last was no request
        assert run.ask(bytes.fromhex("13000000 08000000")).count(b"NAK") == 1
        assert run.ask(FRAME % b'<nop value="ping"/>') == PLAIN_ACK


def test_boot_loader_outlives_the_host_and_says_hello_again(tmp_path):
    record = tmp_path / "record"
    with Run("--start", "sahara", "--record", str(record)) as run:
        run.hear()
        run.close()
        assert killed_host(run.path, HELLO_RESPONSE)[-1] == "said\n"
        end = time.monotonic() + 5
        while not record.read_bytes().endswith(b"half") and time.monotonic() < end:
            time.sleep(0.005)
        run.open()
        assert run.ask(bytes.fromhex("13000000 08000000")) == HELLO


def test_run_begins_with_what_an_earlier_one_left(tmp_path):
    first, second = tmp_path / "first", tmp_path / "second"
    with Run("--start", "firehose", "--plain-answers", "--flash", str(first)) as run:
        assert run.ask(FRAME % b'<erase num_partition_sectors="2"/>') == PLAIN_ACK
        assert run.ask(PROGRAM) == PLAIN_ACK
        run.say(b"x" * 600)
        assert run.hear_nothing()
    for target in (second, first):
        with Run("--start", "firehose", "--plain-answers", "--flash", str(target), "--flash-from", str(first)) as run:
            assert run.ask(PROGRAM) == PLAIN_ACK
            assert run.ask(b"y" * 1024) == PLAIN_ACK
        assert sorted(p.name for p in target.iterdir()) == [
            "000-erase.xml", "001-program.bin", "001-program.xml", "002-program.bin", "002-program.xml"]
        assert (target / "001-program.bin").read_bytes() == b"x" * 600
        assert (target / "002-program.bin").read_bytes() == b"y" * 1024
    missing = tmp_path / "none"
    assert refuse("--flash", str(second), "--flash-from", str(missing)) == (
        1, f"kestrel-sim: {missing}: No such file or directory\n")


def test_comparison_counts_what_was_flashed_last(tmp_path):
    package, flash = tmp_path / "package", tmp_path / "flash"
    package.mkdir()
    (package / "rawprogram.xml").write_text(
        '<program SECTOR_SIZE_IN_BYTES="512" filename="a.bin" num_partition_sectors="9" start_sector="0"/>\n')
    (package / "a.bin").write_bytes(b"y" * 1024)
    options = ("--start", "firehose", "--plain-answers", "--flash", str(flash))
    request = PROGRAM.replace(b"/>", b' start_sector="0"/>')
    for data, more, status in ((b"x", (), 1), (b"y", ("--flash-from", str(flash)), 0)):
        with Run(*options, *more) as run:
            assert run.ask(request) == PLAIN_ACK
            assert run.ask(data * 1024) == PLAIN_ACK
        done = subprocess.run([sys.executable, SOURCE / "examples/compare-flash", package, flash],
                              stdout=subprocess.DEVNULL, check=False)
        assert done.returncode == status


def test_record_holds_all_that_the_host_sends(tmp_path):
    record = tmp_path / "record"
    with Run("--record", str(record), "--start", "firehose", "--platform", "0", "--plain-answers") as run:
        run.ask(FRAME % b'<nop value="ping"/>')
        run.ask(RESET)
        run.leave()
    assert record.read_bytes() == FRAME % b'<nop value="ping"/>' + RESET


def test_record_holds_what_a_stalled_device_left_on_the_line(tmp_path):
    record = tmp_path / "record"
    fault = "firehose.data-in=stall@2"
    line = FRAME % b'<program SECTOR_SIZE_IN_BYTES="8" num_partition_sectors="1"/>'
    with Run("--record", str(record), "--start", "firehose", "--plain-answers", "--fault", fault) as run:
        run.ask(line)
        run.say(b"abcdefgh")
        run.process.send_signal(signal.SIGTERM)
        assert run.leave() == (0, "")
    assert record.read_bytes() == line + b"abcdefgh"


def test_bus_file_shows_the_device_until_it_leaves(tmp_path):
    bus = tmp_path / "bus"
    with Run("--bus", str(bus), "--programmer-size", "0", "--plain-answers") as run:
        assert bus.read_text() == f"fff0:1001 {run.path}\n"
        run.say(bytes.fromhex("4b650100540f7e"))
        assert run.hear() == HELLO
        assert bus.read_text() == f"05c6:9008 {run.path}\n"
        run.ask(HELLO_RESPONSE)
        run.ask(DONE)
        run.ask(RESET)
        run.leave()
    assert not bus.exists()


def test_switch_on_a_bus_loses_what_was_not_read(tmp_path):
    with Run("--bus", str(tmp_path / "bus"), "--programmer-size", "0") as run:
        run.say(b"ATE0\r" + bytes.fromhex("4b650100540f7e"))
        assert run.hear() == HELLO


def test_bus_file_that_cannot_be_written(tmp_path):
    path = tmp_path / "none" / "bus"
    assert refuse("--bus", str(path)) == (1, f"kestrel-sim: {path}: No such file or directory\n")
