"""One run with a fault, and the rescue after it."""
import os
import signal
import time
from dataclasses import dataclass, field
from pathlib import Path

import packages
from conversation import FLASH_A, FLASH_B, IMAGE_A, IMAGE_B, LINES, PROGRAMMER, VALUES, VERSIONS
from harness import COMPLETED, KESTREL_SIM, finish, read_port, start

HASTY = os.environ.get('KESTREL_HASTY', '')
ENVIRONMENT = dict(os.environ)  # which pytest changes all the time
LIMIT = 60  # seconds after which a run counts as hanging, far above every bound of the table

OTP_READ = '\nOTP values read successfully\n'


def ms(shipped):
    """A wait of the shipped program as kestrel-hasty waits it (haste.hpp)."""
    return shipped // (2 if shipped <= 1000 else 8 if shipped < 30000 else 25 if shipped == 30000 else 4)


class Modem:
    """The simulated modem on its pseudo-terminal and its bus, inside a with statement."""

    def __init__(self, folder, flash, begin, options):
        self.folder = folder
        self.bus = folder / 'bus'
        self.command = [KESTREL_SIM, '--start', begin, '--flash', flash, '--record', folder / 'record',
                        '--bus', self.bus, '--transcript', folder / 'transcript', '--timeout', '120',
                        '--linger', '60000', *options]
        self.process = None
        self.port = ''
        self.hold = -1

    def __enter__(self):
        self.process = start(*self.command)
        self.port = read_port(self.process)
        # While it is held, the number of the terminal is not given to the modem of another run.
        self.hold = os.open(self.port, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
        return self

    def __exit__(self, *_):
        self.leave()

    def leave(self):
        """Ends it; what it had not read any more is in its record then."""
        if self.process.poll() is None:
            self.process.terminate()
        self.process.communicate(timeout=20)
        if self.hold >= 0:
            os.close(self.hold)
            self.hold = -1

    def received(self):
        return (self.folder / 'record').read_bytes()


@dataclass
class Result:
    outcome: object
    port: str
    received: bytes
    flash: Path
    package: Path
    was_right: bool  # after the run with the fault
    rescue: object = None  # the outcome of the recovery command, where the run failed or left something out
    rescued: bool = False
    transcript: list = field(default_factory=list)
    rescue_transcript: list = field(default_factory=list)


def write_package(folder, platform):
    return packages.write(folder, LINES, {'a.bin': IMAGE_A, 'b.bin': IMAGE_B}, VERSIONS[platform], PROGRAMMER)


def images_are_right(flash):
    files = {path.name: path.read_bytes() for path in flash.glob('*.bin')}
    return (files.get('001-program.bin'), files.get('002-program.bin')) == (FLASH_A, FLASH_B)


def programmer_is_right(flash):
    path = flash / 'programmer.bin'
    return path.exists() and path.read_bytes() == PROGRAMMER


def is_touched(flash):
    """Whether the modem has begun to change its flash: without a good image it comes up in download mode only."""
    return any(flash.glob('*-erase.xml')) or any(flash.glob('*-program.xml'))


def call(package, modem, arguments, strike=''):
    begun = time.monotonic()
    env = {**ENVIRONMENT, 'KESTREL_BUS': os.fspath(modem.bus)}
    if strike:
        env['KESTREL_STRIKE'] = strike
    return finish(start(HASTY, package, *arguments, env=env), LIMIT, begun)


def arguments_of(walk, port):
    return (*walk.arguments, '--port', port) if walk.serial else walk.arguments


def is_right(walk, outcome, flash):
    """Whether what the run is for is there: the values told, or the images in the flash."""
    if walk.otp:
        return all(f'\n{value}\n' in outcome.out for value in VALUES)
    return images_are_right(flash) and (walk.serial or programmer_is_right(flash))


def recover(walk, folder, flash, package):
    """Power-cycles the modem, which comes up as its flash lets it, and runs the documented recovery command."""
    begin = walk.begin
    if begin == 'normal' and is_touched(flash) and not images_are_right(flash):
        begin = 'sahara'
    with Modem(folder, flash, begin, walk.modem) as modem:
        arguments = arguments_of(walk, modem.port)
        if begin == 'sahara':
            arguments = ('--skip-enter-qdl', '--port', modem.port, '--force')
        outcome = call(package, modem, arguments)
    good = OTP_READ if walk.otp else COMPLETED
    return outcome, outcome.status == 0 and outcome.out.endswith(good) and is_right(walk, outcome, flash)


def interrupt(walk, folder, package, fault, event):
    """A run whose modem says nothing any more, and a SIGINT from outside once the run waits for it."""
    with Modem(folder, folder / 'flash', walk.begin, [*walk.modem, '--fault', fault]) as modem:
        env = {**ENVIRONMENT, 'KESTREL_BUS': os.fspath(modem.bus)}
        updater = start(HASTY, package, *arguments_of(walk, modem.port), env=env)
        end = time.monotonic() + 20
        while time.monotonic() < end and not (event in (folder / 'transcript').read_text() and is_asleep(updater.pid)):
            time.sleep(0.002)
        updater.send_signal(signal.SIGINT)
        outcome = finish(updater, LIMIT)
        modem.leave()
        return outcome, modem.received()


def is_asleep(pid):
    return Path(f'/proc/{pid}/stat').read_text().rpartition(')')[2].split()[0] == 'S'


def transcript(folder):
    return [line[:200] for line in (folder / 'transcript').read_text().splitlines()]


def run(walk, folder, package, options=(), strike=''):
    """A run with options that make the modem fail and a strike at the program, and a rescue unless it did its work."""
    flash = folder / 'flash'
    with Modem(folder, flash, walk.begin, [*walk.modem, *options]) as modem:
        outcome = call(package, modem, arguments_of(walk, modem.port), strike)
        modem.leave()
        right = is_right(walk, outcome, flash)
        result = Result(outcome, modem.port, modem.received(), flash, package, right)
    result.transcript = transcript(folder)
    if outcome.status != 0 or not right:
        rescue_folder = folder / 'rescue'
        rescue_folder.mkdir()
        result.rescue, result.rescued = recover(walk, rescue_folder, flash, package)
        result.rescue_transcript = transcript(rescue_folder)
    return result
