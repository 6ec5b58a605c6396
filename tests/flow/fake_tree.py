"""A machine that the unmodified updater takes for its own: a mount namespace in which /sys is a plain folder and
/dev holds little more than the simulated modem's port, as /dev/ttyUSB0 or under other names. The folders can be
changed from outside while the updater runs. The locks of places on the bus, whose names are those of a network, are
the machine's own as well."""
import os
import shutil
import subprocess
from pathlib import Path

# The arguments: the tree, the nodes (NAME=PORT, separated by blanks), and the command to execute.
ENTER = '''
tree=$1 nodes=$2
shift 2
for node in null zero random urandom; do
    : > "$tree/dev/$node"
    mount --bind "/dev/$node" "$tree/dev/$node"
done
mkdir "$tree/dev/pts"
mount --bind /dev/pts "$tree/dev/pts"
for node in $nodes; do
    : > "$tree/dev/${node%%=*}"
    mount --bind "${node#*=}" "$tree/dev/${node%%=*}"
done
mount --bind "$tree/sys" /sys
mount --rbind "$tree/dev" /dev
exec "$@"
'''
UNSHARE = ['unshare', '--mount', '--net', '--propagation', 'private']


def why_not():
    """Why this machine cannot make such a tree; empty when it can."""
    try:
        trial = subprocess.run([*UNSHARE, 'sh', '-e', '-c', 'mount -t tmpfs none /sys; mount --bind /dev /mnt'],
                               stdin=subprocess.DEVNULL, capture_output=True, check=False, timeout=20, text=True)
    except (OSError, subprocess.TimeoutExpired) as trouble:
        return str(trouble)
    return '' if trial.returncode == 0 else trial.stderr.strip() or 'no mount namespace'


class FakeTree:
    def __init__(self, folder, devices=True, mhi=True):
        self.root = Path(folder) / 'tree'
        self.devices = self.root / 'sys/bus/usb/devices'
        self.ttys = self.root / 'sys/class/tty'
        self.trigger = self.root / 'sys/bus/mhi/devices/mhi0/trigger_edl'
        (self.root / 'dev').mkdir(parents=True)
        (self.root / 'sys').mkdir()
        if devices:
            self.devices.mkdir(parents=True)
        if mhi:
            self.trigger.parent.mkdir(parents=True)
            self.trigger.write_text('')

    def attach(self, name='1-1', product='5c6/9008/0', device_type='usb_device'):
        """A device appears on the bus: its folder with its uevent file at once, as in sysfs."""
        new = self.root / name
        new.mkdir()
        (new / 'uevent').write_text(f'MAJOR=189\nMINOR=4\nDEVNAME=bus/usb/001/005\nDEVTYPE={device_type}\n'
                                    f'DRIVER=usb\nPRODUCT={product}\nTYPE=0/0/0\n')
        new.rename(self.devices / name)

    def attach_usb(self, name, vid, pid, ports, number=5):
        """A USB device with a serial converter's port on each interface (interface number: port), as the kernel
        shows it: the link on the bus is what comes last."""
        folder = self.root / 'sys/devices/pci0000:00/usb1' / name
        for attribute, text in {'idVendor': vid, 'idProduct': pid, 'busnum': '1', 'devnum': number,
                                'serial': '0123ABC', 'bNumInterfaces': f' {len(ports)}'}.items():
            folder.mkdir(parents=True, exist_ok=True)
            (folder / attribute).write_text(f'{text}\n')
        for interface, port in ports.items():
            self.add_port(name, interface, port)
        (self.devices / name).symlink_to(os.path.relpath(folder, self.devices))

    def add_port(self, name, interface, port):
        folder = self.root / f'sys/devices/pci0000:00/usb1/{name}/{name}:1.{int(interface, 16)}'
        tty = folder / port / 'tty' / port
        tty.mkdir(parents=True)
        (tty / 'device').symlink_to(f'../../../{port}')
        (folder / 'bInterfaceNumber').write_text(f'{interface}\n')
        self.ttys.mkdir(parents=True, exist_ok=True)
        (self.ttys / port).symlink_to(os.path.relpath(tty, self.ttys))

    def detach_usb(self, name):
        (self.devices / name).unlink()
        for tty in self.ttys.iterdir():
            if f'/{name}/' in os.readlink(tty):
                tty.unlink()
        shutil.rmtree(self.root / 'sys/devices/pci0000:00/usb1' / name)

    def attach_pcie(self, *ports):
        """A PCIe modem behind mhi0 with wwan ports."""
        pci = self.root / 'sys/devices/pci0000:00/0000:01:00.0'
        pci.mkdir(parents=True)
        (pci / 'vendor').write_text('0x17cb\n')
        (pci / 'device').write_text('0x0309\n')
        controller = self.trigger.parent
        controller.rename(pci / 'mhi0')
        controller.symlink_to(os.path.relpath(pci / 'mhi0', controller.parent))
        self.add_wwan(*ports)

    def add_wwan(self, *ports):
        folder = self.root / 'sys/devices/pci0000:00/0000:01:00.0/mhi0/wwan/wwan0'
        links = self.root / 'sys/class/wwan'
        links.mkdir(parents=True, exist_ok=True)
        for port in ports:
            (folder / port).mkdir(parents=True)
            (links / port).symlink_to(os.path.relpath(folder / port, links))

    def remove_wwan(self, *ports):
        for port in ports:
            (self.root / 'sys/class/wwan' / port).unlink()
        shutil.rmtree(self.root / 'sys/devices/pci0000:00/0000:01:00.0/mhi0/wwan')

    def enter(self, port):
        """The command that executes another one inside the tree; `port` is that of /dev/ttyUSB0, or a mapping
        of names below /dev to ports."""
        nodes = port if isinstance(port, dict) else {'ttyUSB0': port}
        return [*UNSHARE, 'sh', '-e', '-c', ENTER, 'sh', self.root,
                ' '.join(f'{node}={target}' for node, target in nodes.items())]


def enter_that_of(process):
    """The command that executes another one inside the tree of an updater that runs in one."""
    return ['nsenter', '--target', str(process.pid), '--mount', '--net']
