"""A machine that the unmodified updater takes for its own: a mount namespace in which /sys is a plain folder and
/dev holds little more than the simulated modem's port as /dev/ttyUSB0. The folders can be changed from outside
while the updater runs."""
import subprocess
from pathlib import Path

# The arguments: the tree, the port, and the command to execute.
ENTER = '''
tree=$1 port=$2
shift 2
for node in null zero random urandom; do
    : > "$tree/dev/$node"
    mount --bind "/dev/$node" "$tree/dev/$node"
done
mkdir "$tree/dev/pts"
mount --bind /dev/pts "$tree/dev/pts"
: > "$tree/dev/ttyUSB0"
mount --bind "$port" "$tree/dev/ttyUSB0"
mount --bind "$tree/sys" /sys
mount --rbind "$tree/dev" /dev
exec "$@"
'''
UNSHARE = ['unshare', '--mount', '--propagation', 'private']


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

    def enter(self, port):
        """The command that executes another one inside the tree."""
        return [*UNSHARE, 'sh', '-e', '-c', ENTER, 'sh', self.root, port]
