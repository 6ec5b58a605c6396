"""The virtual machine's side of the lab: simulated modems on the kernel's USB bus, and what a run did to them."""
import glob
import os
import select
import subprocess
import sys
import time
import tty
from pathlib import Path

import harness
import packages

SOURCE = Path(__file__).resolve().parents[2]
HELPERS = Path(os.environ.get('KESTREL_LAB_HELPERS', ''))
HOST_CONTROLLER = '/sys/devices/platform/vhci_hcd.0'
DOWNLOAD_PORT = Path('/dev/ttyUSB0')
NORMAL_ID = 'fff0 1001'
DOWNLOAD_ID = '05c6 9008'
SECTOR = 4096

# The programmer's texts, byte for byte: the length of each request as one USB transfer.
NOP = '<?xml version="1.0"?>\n<data>\n<nop value="ping"/>\n</data>\n'
CONFIGURE = ('<?xml version="1.0"?>\n<data>\n<configure MaxPayloadSizeToTargetInBytes="1048576" MemoryName="nand" />\n'
             '</data>\n')
RESET = '<?xml version="1.0"?>\n<data>\n<power value="reset" DelayInSeconds="3"/>\n</data>\n'


def load_modules():
    """The kernel's own drivers; `option` is told the simulated modem's identifier."""
    for module in ('vhci-hcd', 'qcserial', 'option'):
        subprocess.run(['modprobe', module], check=True)
    try:
        Path('/sys/bus/usb-serial/drivers/option1/new_id').write_text(NORMAL_ID)
    except FileExistsError:
        pass


def wait_for(condition, limit, what):
    """The first true answer of `condition`."""
    end = time.monotonic() + limit
    while True:
        answer = condition()
        if answer:
            return answer
        if time.monotonic() > end:
            raise AssertionError(f'{what}: not within {limit} s')
        time.sleep(0.02)


def high_speed_bus():
    for root in glob.glob(HOST_CONTROLLER + '/usb[0-9]*'):
        if Path(root, 'speed').read_text().strip() == '480':
            return Path(root)
    raise AssertionError('no high-speed bus')


# A port that was just opened echoes what comes in until it is raw. A modem that waits that long never hears itself, so
# that every transfer of a run can be told in advance.
UNHURRIED = ('--usb-first', '100')


class UsbModem(harness.Sim):
    """A simulated modem on the bus, inside a with statement. It leaves the bus with the statement."""

    def __init__(self, folder, *options, begin='normal', port=0, ports=None, limit=150):
        Path(folder).mkdir(parents=True, exist_ok=True)
        super().__init__(folder, '--usb', '--usb-port', str(port), *UNHURRIED, *options, begin=begin, limit=limit)
        bus = high_speed_bus()
        self.name = f'{bus.name[3:]}-{port + 1}'
        self.place = bus / self.name
        self.begin = begin
        self.ports = (3 if begin == 'normal' else 1) if ports is None else ports

    def __enter__(self):
        super().__enter__()
        try:
            wait_for(self.identifier, 10, f'{self.name} on the bus')
            self.wait_for_ports(self.ports)
            assert self.begin == 'normal' or self.tty(0) == DOWNLOAD_PORT
        except AssertionError:
            self.__exit__(None, None, None)
            raise
        return self

    def __exit__(self, *what):
        super().__exit__(*what)
        wait_for(lambda: not self.place.exists(), 10, 'the modem left the bus')

    def identifier(self):
        """Vendor and product, as the kernel sees them; empty: not on the bus."""
        try:
            return ' '.join((self.place / name).read_text().strip() for name in ('idVendor', 'idProduct'))
        except OSError:
            return ''

    def tty(self, interface):
        """The device node that a serial driver made of an interface; None: there is none."""
        found = glob.glob(f'{self.place}/{self.name}:1.{interface}/ttyUSB*')
        node = Path('/dev') / Path(found[0]).name if found else None
        return node if node is not None and node.exists() else None

    def wait_for_ports(self, count, limit=15):
        wait_for(lambda: all(self.tty(i) for i in range(count)), limit, f'{count} serial ports of {self.name}')

    def bind_serial_driver(self):
        """Gives the download device back to the kernel's driver, from which libusb had taken it."""
        Path('/sys/bus/usb/drivers/qcserial/bind').write_text(f'{self.name}:1.0')
        self.wait_for_ports(1)

    def story(self):
        """What became of the modem, for the message of a failed assertion."""
        lines = [f'{e["t"]:9.3f} {e["dir"]:5} {e["stage"]:8} {e["kind"]}' for e in self.events()[-20:]]
        status = self.process.poll()
        ended = '' if status is None else f'\nit ended with {status}: {self.process.stderr.read().decode()}'
        return 'the modem last saw\n' + '\n'.join(lines) + ended

    def kinds(self, stage=None, direction='rx'):
        return [e['kind'] for e in self.events() if e['dir'] == direction and stage in (None, e['stage'])]

    def has_struck(self):
        """True once the planned fault has struck."""
        return 'fault' in self.kinds(direction='event')

    def transfers(self, stage):
        """The sizes of the transfers that the modem received in a stage."""
        return [e['length'] for e in self.events() if e['kind'] == 'transfer' and e['stage'] == stage]

    def interfaces_used(self, stage):
        return {e['endpoint'] for e in self.events() if e['kind'] == 'transfer' and e['stage'] == stage}


class RawPort:
    """A serial port, raw, open inside a with statement."""

    def __init__(self, node):
        self.node = node
        self.fd = -1

    def __enter__(self):
        self.fd = os.open(self.node, os.O_RDWR | os.O_NOCTTY)
        tty.setraw(self.fd)
        return self

    def __exit__(self, *_):
        os.close(self.fd)

    def say(self, data):
        while data:
            data = data[os.write(self.fd, data):]

    def is_silent(self, seconds=0.5):
        return select.select([self.fd], [], [], seconds)[0] == []

    def hear_until(self, end):
        text = b''
        while not text.endswith(end):
            assert not self.is_silent(5), text
            text += os.read(self.fd, 1024)
        return text


# A run takes the first download device of libusb's list, which begins with the last port.
LAST_PORT = 7


def download_modem(folder, *options, port=LAST_PORT, **more):
    return UsbModem(folder, *options, begin='sahara', port=port, **more)


def skip_enter(package, *options):
    """The command line for a modem that is in download mode already."""
    return [package, '--port', DOWNLOAD_PORT, '--skip-enter-qdl', '--force', *options]


def update(package, *options, limit=60):
    return harness.run(*skip_enter(package, *options), limit=limit)


def example(name, *arguments):
    return subprocess.run([sys.executable, SOURCE / 'examples' / name, *arguments], text=True, capture_output=True,
                          check=False)


def assert_updated(outcome, modem):
    """The run went well, and the modem saw its end."""
    assert outcome.err == '', modem.story()
    assert outcome.status == 0
    assert modem.wait() == 0


def compare(package, modem):
    """Every byte of every image, and of the programmer as far as it was asked for."""
    result = example('compare-flash', package, modem.flash)
    assert result.returncode == 0, result.stdout + result.stderr
    size = int(modem.command[modem.command.index('--programmer-size') + 1])
    programmer = next(path for path in Path(package).iterdir() if path.name.startswith('prog'))
    assert (modem.flash / 'programmer.bin').read_bytes() == programmer.read_bytes()[:size]


PROGRAMMER = packages.content('programmer', 20000)
PROGRAMMER_SIZE = ('--programmer-size', '20000')

# name, size, sector size, the transfers of its data with payloads of 1 MiB: a transfer of a multiple of 512 bytes has
# an empty one behind it, another has none.
IMAGES = [
    ('empty', 0, 4096, []),
    ('sector', 512, 512, [512, 0]),
    ('odd', 700, 700, [700]),
    ('odds', 2500, 1000, [3000]),
    ('pages', 10000, 4096, [12288, 0]),
    ('two', 2 * 1048576, 4096, [1048576, 0, 1048576, 0]),
    ('more', 1048576 + 1, 4096, [1048576, 0, 4096, 0]),
    ('last', 1048576 + 2700, 256, [1048576, 0, 2816]),
]
IMAGES_OF_16_KIB = {
    'two': [16384, 0] * 128,
    'more': [16384, 0] * 64 + [4096, 0],
    'last': [16384, 0] * 64 + [2816],
}


def image_line(name, sector, sectors=640):
    return packages.program(f'{name}.bin', name, sector, str(sectors))


def awkward_package(folder, version=packages.PLATFORM_1):
    """Images of every kind of size, with an erase line between two of them."""
    lines = [image_line(name, sector) for name, _, sector, _ in IMAGES]
    lines.insert(4, packages.ERASE)
    images = {f'{name}.bin': packages.content(name, size) for name, size, _, _ in IMAGES}
    return packages.write(folder, lines, images, version, PROGRAMMER)


def small_package(folder, version=packages.PLATFORM_1, size=10000):
    """One image. A large one repeats itself, at a length that fits no block, so that a block out of place shows."""
    data = (packages.content('one', 65521) * (size // 65521 + 1))[:size]
    return packages.write(folder, [image_line('one', SECTOR)], {'one.bin': data}, version, PROGRAMMER)


def framed(line):
    return f'<?xml version="1.0"?>\n<data>\n{line}\n</data>\n'


def awkward_transfers(replaced=None):
    """Every transfer of a programming session of awkward_package(), in order."""
    out = [len(NOP), len(CONFIGURE)]
    for index, (name, size, sector, data) in enumerate(IMAGES):
        if index == 4:
            out.append(len(framed(packages.ERASE)))
        out.append(len(framed(image_line(name, sector, -(-size // sector)))))
        out += (replaced or {}).get(name, data)
    return out + [len(RESET)]
