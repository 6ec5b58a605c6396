"""Runs without a port, of the build without a discovery: the bus scan ends every one of them."""
import pytest

from harness import FAILED, VERSION, json_lines, run


@pytest.mark.parametrize('more', [[], ['--force'], ['--dry-run'], ['--enter-qdl'], ['--pcie'], ['--pcie', '--force']])
def test_bus_scan_ends_the_run(more, package):
    outcome = run(package, *more)
    assert (outcome.status, outcome.out) == (156, VERSION)
    assert outcome.err == 'error scanning the bus\n' + FAILED


def test_bus_scan_ends_the_run_before_the_package_is_read():
    outcome = run('--meta', '/nowhere/contents.xml')
    assert (outcome.status, outcome.err) == (156, 'error scanning the bus\n' + FAILED)


def test_bus_scan_ends_at_once(package):
    assert run(package).seconds < 3


def test_bus_scan_in_json(package):
    outcome = run(package, '--json')
    assert (outcome.status, outcome.out) == (156, VERSION)
    assert [(event['severity'], event['function'], event['msg']) for event in json_lines(outcome.err)] == [
        ('ERR', 'update_with_scan', 'error scanning the bus'), ('ERR', 'main', '\nFirmware update failed!')]
