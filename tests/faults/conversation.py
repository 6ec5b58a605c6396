"""What is said in a run without faults, message by message and byte for byte.

A walk is a whole run: what the updater is called with, what the simulated modem is, and the messages in their order.
A Say is a message of the updater, a Hear one of the modem.
"""
from dataclasses import dataclass
from itertools import count

from firehose_texts import CONFIGURE, ERASE_REQUEST, NOP, OTP_REQUEST, RESET as POWER
from packages import ERASE, PLATFORM_0, PLATFORM_1, content, program

DIAG = bytes.fromhex('4b650100540f7e')
HELLO_RESPONSE = bytes.fromhex('02000000 30000000 02000000 01000000') + bytes(32)
ENTER_DOWNLOAD = bytes.fromhex('f0000000 08000000')
DONE = bytes.fromhex('05000000 08000000')
RESET = bytes.fromhex('07000000 08000000')
STATE_RESET = bytes.fromhex('13000000 08000000')

PROGRAMMER = content('programmer', 10000)
BLOCK = 4096
BLOCKS = [PROGRAMMER[:4096], PROGRAMMER[4096:8192], PROGRAMMER[8192:]]

# Two images, cut by a payload of 16384 bytes into three and two pieces, the last ones padded to sectors of 4096.
PAYLOAD = 16384
IMAGE_A = content('a', 40000)
IMAGE_B = content('b', 20000)
FLASH_A = IMAGE_A + b'\xff' * 960
FLASH_B = IMAGE_B + b'\xff' * 480
PIECES_A = [FLASH_A[:16384], FLASH_A[16384:32768], FLASH_A[32768:]]
PIECES_B = [FLASH_B[:16384], FLASH_B[16384:]]

LINES = [ERASE, program('a.bin', 'a'), program('b.bin', 'b')]
PROGRAM_A = (b'<?xml version="1.0"?>\n<data>\n<program SECTOR_SIZE_IN_BYTES="4096" label="a" filename="a.bin" '
             b'num_partition_sectors="10" start_sector="0" />\n</data>\n')
PROGRAM_B = (b'<?xml version="1.0"?>\n<data>\n<program SECTOR_SIZE_IN_BYTES="4096" label="b" filename="b.bin" '
             b'num_partition_sectors="5" start_sector="0" />\n</data>\n')

VALUES = ['OTP FUSE 17', 'OTP FUSE 18']


@dataclass(frozen=True)
class Say:
    kind: str  # what the table of faults calls it
    data: bytes
    way: str = ''  # the modem's name for its way there, with its count
    path: str = ''  # the image it belongs to
    piece: int = -1  # data: offset within the data of the stage


@dataclass(frozen=True)
class Hear:
    kind: str
    step: str  # the modem's name of the step ...
    nth: int  # ... and the how-manieth of its kind this is
    wait: int  # how many waits for input after the last Say bring it
    path: str = ''
    block: int = -1  # the block of the programmer that it asks for


@dataclass(frozen=True)
class Walk:
    name: str
    arguments: tuple
    modem: tuple  # options of the simulated modem
    messages: tuple
    begin: str = 'normal'
    platform: int = 1
    serial: bool = False  # the programmer over a serial device, and not by USB transfers
    otp: bool = False
    bits: int = 32

    @property
    def forced(self):
        return '--force' in self.arguments

    def said(self, begin=0, end=None):
        """What is sent from one message on to another."""
        return b''.join(each.data for each in self.messages[begin:end] if isinstance(each, Say))

    def find(self, kind):
        return next(i for i, each in enumerate(self.messages) if each.kind == kind)


class Writer:
    """Writes a walk down."""

    def __init__(self):
        self.messages = []
        self.counts = {}
        self.waits = 0
        self.data = 0

    def next(self, step):
        return next(self.counts.setdefault(step, count(1)))

    def say(self, kind, data, way='', path='', piece=-1):
        self.messages.append(Say(kind, data, f'{way}@{self.next(way)}' if way else '', path, piece))
        self.waits = 0

    def hear(self, kind, step, path='', block=-1):
        self.waits += 1
        self.messages.append(Hear(kind, step, self.next(step), self.waits, path, block))

    def at(self):
        for kind, command in (('echo', 'ATE0'), ('model', 'AT#CGMM'), ('imei', 'AT#CGSN'), ('versions', 'AT#SWPKGV')):
            self.say('at', command.encode() + b'\r', 'host.at')
            self.hear(kind, 'at.' + command)
        self.say('diag', DIAG)
        return self

    def restart(self):
        """A modem whose HELLO has mode 2 is asked to restart into download mode."""
        self.hear('restart hello', 'sahara.hello')
        self.waits += 1
        self.say('enter', ENTER_DOWNLOAD, 'host.qdl')
        self.hear('entered', 'sahara.qdl')
        self.waits = 0
        return self

    def sahara(self):
        self.hear('hello', 'sahara.hello')
        self.waits += 1  # the header and the rest
        self.say('hello response', HELLO_RESPONSE, 'host.hello')
        for i, block in enumerate(BLOCKS):
            self.hear('first read' if i == 0 else 'read', 'sahara.read', block=i)
            self.say('block', block, piece=BLOCK * i)
        self.hear('end', 'sahara.end')
        self.say('done', DONE, 'host.done')
        self.hear('done', 'sahara.done')
        return self

    def answer(self, kind, step, path=''):
        """Every answer of the programmer has a log line before it."""
        self.hear(f'log of {kind}', 'firehose.log', path)
        self.hear(kind, step, path)

    def request(self, kind, text, path=''):
        self.say(kind, text, f'host.{"reset" if kind == "power" else kind}', path)

    def image(self, name, text, pieces):
        self.request('program', text, name)
        self.answer('program', 'firehose.program', name)
        for piece in pieces:
            self.say('data', piece, path=name, piece=self.data)
            self.data += len(piece)
        self.answer('data', 'firehose.data', name)

    def open_session(self):
        self.request('nop', NOP)
        self.answer('nop', 'firehose.nop')
        self.request('configure', CONFIGURE)
        self.answer('configure', 'firehose.configure')

    def close_session(self, platform):
        self.request('power', POWER)
        self.answer('reset', 'firehose.reset')
        if platform != 0:
            self.hear('target', 'firehose.target-reset')

    def firehose(self, platform=1):
        self.open_session()
        self.request('erase', ERASE_REQUEST)
        self.answer('erase', 'firehose.erase')
        self.image('a.bin', PROGRAM_A, PIECES_A)
        self.image('b.bin', PROGRAM_B, PIECES_B)
        self.close_session(platform)
        return self

    def otp(self):
        self.open_session()
        self.request('otp', OTP_REQUEST)
        for i, _ in enumerate(VALUES):
            self.hear(f'value {i + 1}', 'firehose.otp')
        self.answer('otp', 'firehose.otp')
        self.close_session(1)
        return self

    def done(self):
        return tuple(self.messages)


LOADER = ('--programmer-size', '10000', '--read-size', '4096')
# Answers that say nothing but what they must: every one is counted, and a refusal is shown as it came.
OFFERS = ('--plain-answers', '--payload', str(PAYLOAD), '--log-before', '1')
TELLS = tuple(word for value in VALUES for word in ('--otp', value)) + ('--plain-answers', '--log-before', '1')
PLATFORM_0_VERSIONS = (r'AT#SWPKGV=\r\n25.30.002-B002-P0A.000200\r\n25.30.002\r\nP0A.000200\r\nA.00.02\r\n\r\nOK\r\n')
SERIAL = ('--pcie', '--skip-enter-qdl', '--force')

WALKS = {walk.name: walk for walk in (
    Walk('usb', (), LOADER + OFFERS, Writer().at().sahara().firehose().done()),
    Walk('forced', ('--force',), LOADER + OFFERS, Writer().at().sahara().firehose().done()),
    Walk('platform 0', (), ('--platform', '0', '--at', PLATFORM_0_VERSIONS) + LOADER + OFFERS,
         Writer().at().sahara().firehose(platform=0).done(), platform=0),
    Walk('64 bits', (), ('--request-bits', '64') + LOADER + OFFERS, Writer().at().sahara().firehose().done(), bits=64),
    Walk('restart', (), ('--hello-mode', '2') + LOADER + OFFERS, Writer().at().restart().sahara().firehose().done()),
    Walk('usb otp', ('--otp',), LOADER + TELLS, Writer().at().sahara().otp().done(), otp=True),
    Walk('serial', SERIAL, OFFERS, Writer().firehose().done(), begin='firehose', serial=True),
    Walk('serial otp', SERIAL + ('--otp',), TELLS, Writer().otp().done(), begin='firehose', serial=True, otp=True),
)}
VERSIONS = {0: PLATFORM_0, 1: PLATFORM_1}
