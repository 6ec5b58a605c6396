"""Output that nobody takes, or not in time: the modem is written all the same, the exit status is the run's own, the
run is longer by a second at most, and what is read is whole lines and a count of those that are missing.

Every run writes IMAGES images to a modem that acknowledges each of them late: 2 seconds, and about 2 for the rest.
"""
import fcntl
import os
import re
import socket
import subprocess
import termios
import time
import tty
from contextlib import ExitStack
from dataclasses import dataclass
from functools import partial

import pytest

import packages
from harness import COMPLETED, KESTREL, VERSION, Sim, json_lines, start
from packages import content, program

WORKERS = 8
IMAGES = 100
BACK_AT = 80  # images
LONG_LABEL = 'image' * 50  # so that text fills a pipe, too
IMAGE = content('image', 4096)
PATIENCE = 1  # seconds that output may cost
ROOM = 1.5  # for a busy machine, which makes a run
SLOWER = 1.5  # times as long as another one at about the same time
LIMIT = 40  # for a run that hangs
SMALL_PIPE = 16384
DROPPED = re.compile(r'lines dropped here, as the output took none: (\d+)')


@dataclass
class Taken:
    """A run, and what was read of its two streams."""
    status: int
    seconds: float
    out: str
    err: str
    images: list


# What a stream of the run may be: the end to read from, and the one that the run gets.

def pipe():
    reader, writer = os.pipe()
    fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, SMALL_PIPE)
    return reader, writer


def non_blocking_pipe():
    reader, writer = pipe()
    os.set_blocking(writer, False)
    return reader, writer


def stream_socket():
    reader, writer = socket.socketpair()
    writer.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1)  # the smallest that there is
    return reader.detach(), writer.detach()


def terminal():
    reader, writer = os.openpty()
    tty.setraw(writer)
    return reader, writer


def stopped_terminal():
    reader, writer = terminal()
    termios.tcflow(writer, termios.TCOOFF)  # what Ctrl-S does
    return reader, writer


@dataclass
class Running:
    """A run under way, and the ends of what its output is; whoever reads closes both."""
    process: subprocess.Popen
    modem: Sim
    reader: int
    writer: int

    def wait_for_images(self, count):
        end = time.monotonic() + LIMIT
        while len(list(self.modem.flash.glob('*-program.bin'))) < count:
            assert time.monotonic() < end, f'still fewer than {count} images'
            time.sleep(0.01)

    def read_rest(self):
        os.close(self.writer)
        data = b''
        while block := self.read_some():
            data += block
        os.close(self.reader)
        return data

    def read_some(self, size=65536):
        try:
            return os.read(self.reader, size)
        except OSError:  # a terminal without another side
            return b''


# What is done with the output meanwhile; the result is what was read.

def at_once(running):
    return running.read_rest()


def never(running):
    """What is read behind the run is what it had written."""
    flags = fcntl.fcntl(running.writer, fcntl.F_GETFL)
    running.process.wait(LIMIT)
    assert fcntl.fcntl(running.writer, fcntl.F_GETFL) == flags  # the description is not the run's alone
    return running.read_rest()


def coming_back(running):
    """When the second is over, whatever the output can hold: it is full before that."""
    running.wait_for_images(BACK_AT)
    return running.read_rest()


def going_on(running):
    running.wait_for_images(BACK_AT)
    termios.tcflow(running.writer, termios.TCOON)  # what Ctrl-Q does
    return running.read_rest()


def with_pauses(running):
    """Three pauses that cost nearly the second."""
    data = b''
    for _ in range(3):
        time.sleep(0.25)
        data += running.read_some()
    return data + running.read_rest()


def byte_by_byte(running):
    data = b''
    while running.process.poll() is None:
        data += running.read_some(1)
        time.sleep(0.01)
    return data + running.read_rest()


def leaving(running):
    os.close(running.writer)
    data = running.read_some(2000)
    os.close(running.reader)
    running.process.wait(LIMIT)
    return data


def run(folder, arguments, ends=pipe, read=at_once, streams=('out',), before=(), faults=(), files=None):
    """A run of which `streams` are what `ends` makes, and the rest are files."""
    paths = {name: folder / name for name in ('out', 'err')} | (files or {})
    faults = [word for fault in ('firehose.data=late:20@all', *faults) for word in ('--fault', fault)]
    names = [f'{i:03}.bin' for i in range(IMAGES)]
    package = packages.write(folder / 'package', [program(name, LONG_LABEL) for name in names],
                             {name: IMAGE for name in names})
    with ExitStack() as stack:
        modem = stack.enter_context(Sim(folder, '--plain-answers', *faults))
        targets = {name: stack.enter_context(open(path, 'wb')) for name, path in paths.items()}
        if streams:
            reader, writer = ends()
            targets |= {name: writer for name in streams}
        begun = time.monotonic()
        process = start(*before, KESTREL, package, '--port', modem.port, '--force', '--skip-enter-qdl', '--pcie',
                        *arguments, stdout=targets['out'], stderr=targets['err'])
        stack.callback(process.wait)
        stack.callback(process.kill)
        data = read(Running(process, modem, reader, writer)) if streams else b''
        status = process.wait(LIMIT)
        seconds = time.monotonic() - begun
        modem.wait()
    kept = {name: b'' if name in (files or {}) else path.read_bytes() for name, path in paths.items()}
    kept |= {name: data for name in streams}
    return Taken(status, seconds, kept['out'].decode(), kept['err'].decode(),
                 [path.read_bytes() for path in sorted(modem.flash.glob('*-program.bin'))])


FULL = {'out': '/dev/full', 'err': '/dev/full'}
BOTH = ('out', 'err')
REFUSED = ['firehose.program=nak@81']

# The name of a case ends in the form of its log.
FORMS = {'text': [], 'json': ['--json'], 'debug': ['--debug'], 'events': ['--json', '--debug']}
# How many messages a run has: the version and the end, and of each image three in text, four in JSON.
MESSAGES = {'text': 3 * IMAGES + 2, 'json': 4 * IMAGES + 2, 'debug': 1817, 'events': 2018}

READ = {
    'normal text': {},
    'normal json': {},
    'normal debug': {},
    'normal events': {},
    'with pauses json': {'read': with_pauses},
    'non-blocking events': {'ends': non_blocking_pipe},
}
UNREAD = {
    'unread text': {'read': never},
    'unread json': {'read': never},
    'unread debug': {'read': never},
    'unread events': {'read': never},
    'both unread events': {'read': never, 'streams': BOTH},
    'unread socket events': {'read': never, 'ends': stream_socket},
    'byte by byte json': {'read': byte_by_byte},
    'unread terminal debug': {'read': never, 'ends': terminal},
}
BACK = {
    'back text': {'read': coming_back},
    'back json': {'read': coming_back},
    'back debug': {'read': coming_back},
    'both back events': {'read': coming_back, 'streams': BOTH},
    'back socket events': {'read': coming_back, 'ends': stream_socket},
    'back terminal debug': {'read': coming_back, 'ends': terminal},
    'terminal going on text': {'read': going_on, 'ends': stopped_terminal},
}
REFUSING = {
    'stopped terminal text': {'read': never, 'ends': stopped_terminal},
    'leaving text': {'read': leaving},
    'leaving json': {'read': leaving},
    'full disk text': {'streams': (), 'files': FULL},
    'full disk events': {'streams': (), 'files': FULL},
    'file size limit text': {'streams': (), 'before': ['prlimit', '--fsize=1000', '--']},
    'file size limit events': {'streams': (), 'before': ['prlimit', '--fsize=1000', '--']},
}
FAILING = {
    'failing json': {'faults': REFUSED},
    'failing unread json': {'faults': REFUSED, 'read': never, 'streams': BOTH},
}
# The cases run in this order, some at a time. Beside each group is a normal run, to compare with what the machine took
# just then.
BESIDE = [{f'normal beside {name} json': {}} for name in ('unread', 'back', 'refusing')]
SUCCEEDING = READ | BESIDE[0] | UNREAD | BESIDE[1] | BACK | BESIDE[2] | REFUSING
NORMAL = [case for case in SUCCEEDING if case.startswith('normal ')]


def form(case):
    return case.split()[-1]


CASES = {case: partial(run, arguments=FORMS[form(case)], **options) for case, options in (SUCCEEDING | FAILING).items()}


PREFIX = re.compile(r'^\d+\.\d{9} [A-Z]{3} ', re.MULTILINE)


def messages(case, text):
    """The messages read, all of which must be whole."""
    assert text.endswith('\n')
    first = [VERSION] if text.startswith(VERSION) else []  # it is text in JSON as well
    text = text.removeprefix(VERSION)
    if '--json' in FORMS[form(case)]:
        return first + [event.get('msg', '') for event in json_lines(text)]
    if '--debug' in FORMS[form(case)]:
        return first + PREFIX.split(text)[1:]
    return first + text.replace(COMPLETED, COMPLETED[1:]).replace('\r', '\n').split('\n')[:-1]


def counted(case, text):
    """How many messages were read, and the numbers of those that are said to be missing."""
    texts = messages(case, text)
    numbers = [int(found[1]) for found in map(DROPPED.search, texts) if found]
    return len(texts) - len(numbers), numbers


@pytest.mark.parametrize('case', SUCCEEDING)
def test_modem_is_written_and_the_run_succeeds(case, result_of):
    done = result_of(case)
    assert (done.status, done.images) == (0, [IMAGE] * IMAGES)


@pytest.mark.parametrize('case', FAILING)
def test_failure_is_told_by_the_exit_status(case, result_of):
    done = result_of(case)
    assert (done.status, done.images) == (154, [IMAGE] * 80)


@pytest.mark.parametrize('case', [*UNREAD, *BACK, *REFUSING, 'failing unread json'])
def test_run_is_no_longer_than_its_patience_explains(case, result_of):
    """A program that waited a second for each message, or each image, would take minutes."""
    slowest = max(result_of(normal).seconds for normal in NORMAL)
    assert result_of(case).seconds < SLOWER * slowest + PATIENCE + ROOM


@pytest.mark.parametrize('case', READ)
def test_nothing_is_missing_where_somebody_reads(case, result_of):
    done = result_of(case)
    assert (counted(case, done.out), done.err) == ((MESSAGES[form(case)], []), '')


@pytest.mark.parametrize('case', BACK)
def test_lines_read_and_lines_missing_add_up(case, result_of):
    done = result_of(case)
    read, missing = counted(case, done.out)
    assert len(missing) >= 1
    assert read + sum(missing) == MESSAGES[form(case)]


@pytest.mark.parametrize('case', BACK)
def test_last_line_is_there_where_the_reader_came_back(case, result_of):
    assert messages(case, result_of(case).out)[-1].rstrip('\n').endswith('Firmware update completed')


@pytest.mark.parametrize('case', ['back json', 'both back events', 'back socket events'])
def test_lines_missing_are_a_warning_in_json(case, result_of):
    found = [event for event in json_lines(result_of(case).out[len(VERSION):]) if DROPPED.match(event.get('msg', ''))]
    assert {(event['type'], event['severity'], event['file']) for event in found} == {('LOG', 'WRN', 'zepho-log.c')}


@pytest.mark.parametrize('case', UNREAD)
def test_what_was_written_before_nobody_read_is_whole(case, result_of):
    read, missing = counted(case, result_of(case).out)
    assert 0 < read < MESSAGES[form(case)]
    assert missing == []


def test_terminal_that_is_stopped_shows_nothing(result_of):
    assert result_of('stopped terminal text').out == ''


@pytest.mark.parametrize('case', ['file size limit text', 'file size limit events'])
def test_file_at_its_limit_holds_what_fits(case, result_of):
    text = result_of(case).out
    assert len(text) == 1000
    assert text.startswith(VERSION)
    assert result_of(case).err == ''
