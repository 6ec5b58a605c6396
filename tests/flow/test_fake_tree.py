"""Complete runs from the command line to the reset: the download device is found in a fake /sys and spoken to on a
fake /dev/ttyUSB0, in a mount namespace of each run's own."""
import subprocess
import sys
import time
from functools import partial
from threading import Timer

import pytest

import fake_tree
import packages
from harness import COMPLETED, FAILED, NO_USB, NO_USB_STATUS, SOURCE, VERSION, Session, Sim, run, stop
from packages import ONE_IMAGE_IN_FLASH, content

pytestmark = pytest.mark.skipif(fake_tree.why_not() != '', reason=f'no mount namespace: {fake_tree.why_not()}')

ONE_IMAGE_TEXT = VERSION + 'Updating image one\n0.00% completed\rSent 10000 bytes\n' + COMPLETED
NOT_SET = 'unable to set the modem to firmware update mode\n' + FAILED


def in_tree(tree, folder, package, port, *arguments, sim=(), begin='firehose', until=None, leaves=True):
    """A run inside the tree; `port` None is the simulated modem's own path."""
    with Sim(folder, *sim, begin=begin, until=until) as modem:
        outcome = run(package, '--port', port or modem.port, '--force', *arguments, before=tree.enter(modem.port))
        status = modem.wait() if leaves else None
        if not leaves:
            stop(modem.process)
        return Session(outcome, modem.events(), modem.flash, status, modem.port, {'tree': tree})


def pcie(folder, port='/dev/wwan0at0', *arguments, mhi=True, leaves=True):
    tree = fake_tree.FakeTree(folder, mhi=mhi)
    tree.attach()
    package = packages.one_image(folder / 'package')
    return in_tree(tree, folder, package, port, '--pcie', *arguments, leaves=leaves)


def pcie_sample(folder):
    tree = fake_tree.FakeTree(folder)
    tree.attach()
    subprocess.run([sys.executable, SOURCE / 'examples/make-sample-package', folder / 'package'], check=True,
                   stdout=subprocess.DEVNULL)
    return in_tree(tree, folder, folder / 'package', '/dev/wwan0at0', '--pcie')


def other_index(folder):
    """The index of the port's name leads to a device of its own."""
    tree = fake_tree.FakeTree(folder)
    tree.attach()
    other = tree.trigger.parent.parent / 'mhi3/trigger_edl'
    other.parent.mkdir()
    other.write_text('')
    done = in_tree(tree, folder, packages.one_image(folder / 'package'), '/dev/wwan3at1', '--pcie')
    done.notes['other'] = other
    return done


def usb(folder):
    """The switch on the diagnostic port, then the boot loader on the port of the download device."""
    tree = fake_tree.FakeTree(folder)
    tree.attach()
    package = packages.write(folder / 'package', [packages.ERASE], programmer=content('programmer', 20000))
    return in_tree(tree, folder, package, None, sim=['--programmer-size', '20000'], begin='normal', until='sahara')


def late_device(folder):
    """The download device appears after two seconds, among others that are no such device."""
    tree = fake_tree.FakeTree(folder)
    tree.attach('1-2', '1d6b/2/515')
    tree.attach('1-2:1.0', '5c6/9008/0', 'usb_interface')
    (tree.devices / '2-1').mkdir()
    (tree.devices / '2-1/uevent').write_text('DEVTYPE=usb_device\n')
    timer = Timer(2, tree.attach)
    timer.start()
    begun = time.monotonic()
    try:
        done = in_tree(tree, folder, packages.one_image(folder / 'package'), '/dev/wwan0at0', '--pcie')
    finally:
        timer.cancel()
        timer.join()
    done.notes['seconds'] = time.monotonic() - begun
    return done


CASES = {
    'pcie': pcie,
    'sample': pcie_sample,
    'no index': partial(pcie, port='/dev/ttyAT0'),
    'short index': partial(pcie, port='/dev/wwan0'),
    'other index': other_index,
    'no trigger': partial(pcie, mhi=False, leaves=False),
    'enter qdl': lambda folder: pcie(folder, '/dev/wwan0at0', '--enter-qdl', leaves=False),
    'otp': lambda folder: pcie(folder, '/dev/wwan0at0', '--otp'),
    'usb': usb,
    'late device': late_device,
}


def tree_of(done):
    return done.notes['tree']


@pytest.mark.parametrize('case', ['pcie', 'other index', 'late device'])
def test_complete_run_over_pcie(case, result_of):
    done = result_of(case)
    assert (done.outcome.status, done.outcome.out, done.outcome.err) == (0, ONE_IMAGE_TEXT, '')
    assert done.received() == ['nop', 'configure', 'erase', 'program', 'data', 'power']
    assert done.images() == [ONE_IMAGE_IN_FLASH]
    assert done.sim_status == 0


def test_trigger_file_receives_a_one(result_of):
    assert tree_of(result_of('pcie')).trigger.read_bytes() == b'1'


def test_index_of_the_port_selects_the_device(result_of):
    done = result_of('other index')
    assert done.notes['other'].read_bytes() == b'1'
    assert tree_of(done).trigger.read_bytes() == b''


def test_sample_package_is_in_flash_afterwards(result_of):
    done = result_of('sample')
    assert (done.outcome.status, done.outcome.err, done.sim_status) == (0, '', 0)
    compare = [sys.executable, SOURCE / 'examples/compare-flash', done.flash.parent / 'package', done.flash]
    report = subprocess.run(compare, capture_output=True, check=False, text=True)
    assert (report.returncode, report.stdout.splitlines()[-1]) == (
        0, 'All 5 images in the simulated flash equal their files.')


@pytest.mark.parametrize('case', ['no index', 'short index'])
def test_port_without_an_index_is_told_and_the_run_goes_on(case, result_of):
    # A name that ends right behind its index is too short as well.
    done = result_of(case)
    assert (done.outcome.status, done.outcome.out) == (0, ONE_IMAGE_TEXT)
    assert done.outcome.err == 'not able to detect mhi index\n'
    assert done.images() == [ONE_IMAGE_IN_FLASH]
    assert tree_of(done).trigger.read_bytes() == b''


def test_missing_trigger_file(result_of):
    done = result_of('no trigger')
    path = '/sys/bus/mhi/devices/mhi0/trigger_edl'
    assert (done.outcome.status, done.outcome.out) == (255, VERSION)
    assert done.outcome.err == (f'unable to open {path}, No such file or directory\n'
                                f'unable to write trigger_edl file (mhi path {path})\n' + NOT_SET)
    assert done.received() == []


def test_stop_in_download_mode_touches_nothing_else(result_of):
    done = result_of('enter qdl')
    assert (done.outcome.status, done.outcome.err) == (0, '')
    assert done.outcome.out == VERSION + 'Entered QDL mode, stopping\n' + COMPLETED
    assert tree_of(done).trigger.read_bytes() == b'1'
    assert done.received() == []


def test_otp_run(result_of):
    done = result_of('otp')
    assert (done.outcome.status, done.outcome.err) == (0, '')
    assert done.outcome.out == VERSION + '\nOTP values read successfully\n'
    assert done.received() == ['nop', 'configure', 'getstorageinfo', 'power']


def test_run_over_usb_up_to_the_programmer(result_of):
    # The programmer would then be found on the USB bus, which this machine has not.
    done = result_of('usb')
    progress = ''.join(f'{percent}.00% completed\r' for percent in (0, 20, 40, 61, 81))
    assert done.outcome.out == VERSION + 'Sending programmer\n' + progress + 'Sent 20000 bytes\n'
    assert (done.outcome.status, done.outcome.err) == (NO_USB_STATUS, NO_USB)
    assert done.received() == ['download_mode', 'hello_response'] + ['data'] * 5 + ['done']
    assert (done.flash / 'programmer.bin').read_bytes() == content('programmer', 20000)


def test_device_that_comes_after_two_seconds_is_waited_for(result_of):
    assert 3.4 <= result_of('late device').notes['seconds'] <= 9  # and a second and a half for the reset
