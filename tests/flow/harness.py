"""The programs as processes: the updater, the simulated modem, and what came of a session of the two.

Every process is bounded in time and dies with the process that started it.
"""
import json
import os
import re
import select
import shutil
import signal
import subprocess
import threading
import time
from dataclasses import dataclass, field
from pathlib import Path

KESTREL = os.environ.get('KESTREL', '')
KESTREL_DISCOVERING = os.environ.get('KESTREL_DISCOVERING', '')  # with the discovery of Linux
KESTREL_SIM = os.environ.get('KESTREL_SIM', '')
SANITIZED = '-fsanitize' in os.environ.get('KESTREL_CXX_FLAGS', '')
SOURCE = Path(os.environ.get('KESTREL_SOURCE') or Path(__file__).resolve().parents[2])

VERSION = 'version 1.6.1-0\n'
COMPLETED = '\nFirmware update completed\n'
FAILED = '\nFirmware update failed!\n'
FIREHOSE_FAILED = 'unable to update the modem through FIREHOSE\n' + FAILED
# The end of a run that looks for the programmer on a USB bus without such a device: -19 of libusb's open.
NO_USB = 'could not open device 0x05C6:0x9008\nerror in opening the firehose device -19\n' + FIREHOSE_FAILED
NO_USB_STATUS = 237

DIE_WITH_US = ['setpriv', '--pdeathsig', 'KILL', '--'] if shutil.which('setpriv') else []


@dataclass
class Outcome:
    """What a run of the updater left behind."""
    status: int  # exit status; negative: the signal that ended it
    raw_out: bytes
    raw_err: bytes
    seconds: float

    @property
    def out(self):
        return self.raw_out.decode()

    @property
    def err(self):
        return self.raw_err.decode()


class Watched(threading.local):
    """A command that is to execute every updater that this thread starts."""
    by = ()


WATCHED = Watched()


def start(*command, env=None, stdout=subprocess.PIPE, stderr=subprocess.PIPE):
    parts = [os.fspath(part) for part in command]
    for program in filter(None, (KESTREL, KESTREL_DISCOVERING)):
        if program in parts:
            at = parts.index(program)
            parts[at:at] = WATCHED.by
    return subprocess.Popen(DIE_WITH_US + parts, stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr, env=env)


def stop(process):
    """Ends a process and takes what it wrote."""
    if process.poll() is None:
        process.send_signal(signal.SIGKILL)
    return process.communicate()


def finish(process, limit, begun=None):
    """Waits for a process of start() and tells what came of it."""
    begun = time.monotonic() if begun is None else begun
    try:
        out, err = process.communicate(timeout=limit)
    except subprocess.TimeoutExpired:
        out, err = stop(process)
        raise AssertionError(f'still running after {limit} s; wrote {out!r} and {err!r}') from None
    return Outcome(process.returncode, out, err, time.monotonic() - begun)


def run(*arguments, limit=40, before=(), program=None):
    """Runs the updater to its end; `before` is a command that is to execute it."""
    begun = time.monotonic()
    return finish(start(*before, program or KESTREL, *arguments), limit, begun)


def read_port(process):
    """The port that a simulated modem of start() tells of once it is ready."""
    ready, _, _ = select.select([process.stdout], [], [], 20)
    port = process.stdout.readline().decode().rstrip('\n') if ready else ''
    if not port:
        _, err = stop(process)
        raise AssertionError(f'the simulated modem did not start: {err!r}')
    return port


class Sim:
    """The simulated modem, running inside a with statement."""

    def __init__(self, folder, *options, begin='firehose', until=None, limit=60):
        self.flash = Path(folder) / 'flash'
        self.transcript = Path(folder) / 'transcript'
        self.command = [KESTREL_SIM, '--start', begin, '--flash', self.flash, '--transcript', self.transcript,
                        '--timeout', str(limit), *options]
        if until is not None:
            self.command += ['--until', until]
        self.process = None
        self.port = ''

    def __enter__(self):
        self.process = start(*self.command)
        self.port = read_port(self.process)
        return self

    def __exit__(self, *_):
        stop(self.process)

    def wait(self, limit=15):
        """Its exit status, once it has left by itself."""
        try:
            return self.process.wait(limit)
        except subprocess.TimeoutExpired:
            raise AssertionError('the simulated modem did not leave') from None

    def events(self):
        with open(self.transcript, encoding='utf-8') as file:
            return [json.loads(line) for line in file.read().splitlines()]


@dataclass
class Session:
    """One run of the updater against the simulated modem."""
    outcome: Outcome
    events: list
    flash: Path
    sim_status: int = None  # None: it was still there and was ended
    port: str = ''
    notes: dict = field(default_factory=dict)

    def received(self):
        """The kinds of what the modem received, in order."""
        return [event['kind'] for event in self.events if event['dir'] == 'rx']

    def sent(self):
        return [event['kind'] for event in self.events if event['dir'] == 'tx']

    def requests(self, kind):
        """The texts of all requests of a kind."""
        return [event['text'] for event in self.events if event['dir'] == 'rx' and event['kind'] == kind]

    def images(self):
        """The bytes of every programmed image, in order."""
        return [path.read_bytes() for path in sorted(self.flash.glob('*-program.bin'))]


def session(folder, package, arguments, sim, begin, until=None, limit=40, sim_leaves=True):
    """Runs the updater with --port against a simulated modem."""
    with Sim(folder, *sim, begin=begin, until=until) as modem:
        outcome = run(package, '--port', modem.port, '--force', *arguments, limit=limit)
        status = modem.wait() if sim_leaves else None
        if not sim_leaves:
            stop(modem.process)
        return Session(outcome, modem.events(), modem.flash, status, modem.port)


def flash(folder, package, *arguments, sim=(), **options):
    """A session of the programmer alone, over the serial port."""
    return session(folder, package, ['--skip-enter-qdl', '--pcie', *arguments], sim, 'firehose', **options)


def upload(folder, package, *arguments, sim=(), until='sahara', **options):
    """A session of the boot loader alone; the programmer is then looked for on the USB bus."""
    return session(folder, package, ['--skip-enter-qdl', *arguments], sim, 'sahara', until=until, **options)


PREFIX = r'\d+\.\d{9} %s %s:\d{3,}:%s\(\) '


def debug_line(level, file, function, message):
    """A pattern for one whole line of the debug log."""
    return PREFIX % (level, re.escape(file), function) + re.escape(message)


def json_lines(text):
    """Every line of a stream as the strict JSON object it must be."""
    def refuse(constant):
        raise ValueError(f'{constant} is not JSON')

    def unique(pairs):
        names = [name for name, _ in pairs]
        if len(set(names)) != len(names):
            raise ValueError(f'a key twice in {names}')
        return dict(pairs)

    if text and not text.endswith('\n'):
        raise ValueError('the last line has no end')
    lines = [json.loads(line, parse_constant=refuse, object_pairs_hook=unique) for line in text.split('\n')[:-1]]
    for line in lines:
        if not isinstance(line, dict):
            raise ValueError(f'no object: {line!r}')
    return lines
