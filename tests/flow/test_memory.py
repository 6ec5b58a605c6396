"""Runs of the real program under valgrind: no block is lost, no memory is misused, and every descriptor that the
program opened is closed, however a run ends. Most of the runs are those of the other files; what comes of them is
tested there."""
import re
import shutil
from functools import partial

import pytest

import fake_tree
import packages
import test_bad_packages
import test_diag
import test_discovery
import test_fake_tree
import test_firehose
import test_firehose_failures
import test_json
import test_otp
import test_sahara
import test_sahara_failures
from harness import SANITIZED, WATCHED, run

WHY_NOT = ('valgrind is not installed' if shutil.which('valgrind') is None else
           'a sanitizer watches this build' if SANITIZED else '')
pytestmark = pytest.mark.skipif(WHY_NOT != '', reason=WHY_NOT)

WORKERS = 16
VALGRIND = ['valgrind', '--leak-check=full', '--show-leak-kinds=all',
            '--errors-for-leak-kinds=definite,indirect,possible', '--track-fds=yes', '--error-exitcode=99']


def arguments(*given):
    return lambda folder: run(*given)


def dry_run(change):
    """A run with a package that `change` has damaged."""
    def case(folder):
        package = packages.one_image(folder / 'package')
        change(package)
        return run(package, '--port', '/nowhere', '--force', '--dry-run')
    return case


def lines(*text):
    """Makes these the lines of the rawprogram file."""
    return lambda package: (package / packages.RAWPROGRAM).write_text(packages.rawprogram_xml(text))


def gone(name):
    return lambda package: (package / name).unlink()


OWN = {
    'help': arguments('--help'),
    'no argument': arguments(),
    'unknown option': arguments('--nonsense'),
    'option without its value': arguments('--port'),
    'no such directory': arguments('/nowhere', '--port', '/nowhere', '--force'),
    'port without force': arguments('--meta', '/nowhere', '--port', '/nowhere'),
    'no discovery': lambda folder: run(packages.one_image(folder / 'package'), '--force'),
    'no port': lambda folder: run(packages.one_image(folder / 'package'), '--port', '/nowhere', '--force'),
    'good package': dry_run(lambda package: None),
    **{f'no {name}': dry_run(gone(name))
       for name in ('contents.xml', 'information.contents', packages.RAWPROGRAM, packages.PROGRAMMER, 'one.bin')},
    'no version': dry_run(lambda package: (package / 'information.contents').write_text('none\n')),
    'empty description': dry_run(lambda package: (package / 'contents.xml').write_text('')),
    'description without an end': dry_run(lambda package: (package / 'contents.xml').write_text('<?xml\n<contents>')),
    'rawprogram that is no xml': dry_run(lambda package: (package / packages.RAWPROGRAM).write_text('<data>\n')),
    'attribute without an end': dry_run(lines('<program filename="one.bin')),
    'long attribute': dry_run(lines(packages.program('x' * 1024))),
    'bad number': dry_run(lines(packages.program('one.bin', sector='-1'))),
    'too many images': dry_run(lines(*[packages.program('one.bin')] * 201)),
}

# Of each file the cases that differ in the way that the program takes; None: all of them.
OTHERS = [
    (test_firehose, ['sample', 'glued to logs', 'sizes', '200 images', 'counter-offer', 'platform 0', 'own reset']),
    (test_firehose_failures, [
        'nop=nak', 'nop=silence', 'nop=garbage', 'nop=hangup', 'configure=nak', 'configure=silence',
        'configure=garbage', 'configure=hangup', 'erase=nak', 'erase=silence', 'erase=hangup', 'program=hangup',
        'data=nak', 'data=silence', 'data=garbage', 'data=hangup', 'reset=nak', 'reset=silence', 'reset=hangup',
        'target-reset=skip', 'hangup in data', 'stall', 'offer of nothing', 'interrupted']),
    (test_otp, ['values', 'none', 'nak', 'silence', 'hangup', 'unclosed', 'cut value']),
    (test_sahara, ['forward', '64 bit', 'twice', 'platform 0', 'debug']),
    (test_sahara_failures, [
        'end status', 'end nak', 'end garbage', 'end silence', 'done status', 'done silence', 'third read silence',
        'first read garbage', 'no hello', 'half a hello', 'mode 2 not acknowledged', 'beyond the end', 'read hangup',
        'data hangup', 'data stall', 'hello garbage', 'empty programmer', 'no programmer']),
    (test_diag, ['no device', 'switch', 'full port', 'interrupted']),
    (test_json, ['sizes', 'otp failure', 'undecodable name', 'dump']),
    (test_bad_packages, None),
] + ([] if fake_tree.why_not() else [
    (test_fake_tree, ['sample', 'no index', 'no trigger', 'enter qdl', 'usb']),
    (test_discovery, ['whole', 'downgrade', 'arriving, json', 'two', 'interrupted', 'pcie, whole', 'held']),
])


def watched(case, folder):
    """What valgrind said of the updaters that a case started."""
    WATCHED.by = [*VALGRIND, f'--log-file={folder}/valgrind-%p.log']
    try:
        case(folder)
    finally:
        WATCHED.by = ()
    return [path.read_text(errors='replace') for path in sorted(folder.glob('valgrind-*.log'))]


CASES = {name: partial(watched, case) for name, case in [
    *OWN.items(),
    *((f'{module.__name__[5:]}: {name}', module.CASES[name])
      for module, names in OTHERS for name in names or module.CASES)]}


@pytest.mark.parametrize('case', ['all'] if WHY_NOT else CASES)
def test_nothing_is_lost_and_nothing_left_open(case, result_of):
    reports = result_of(case)
    assert reports, 'no updater ran'
    for report in reports:
        assert 'ERROR SUMMARY: 0 errors from 0 contexts' in report, report
        assert 'in use at exit: 0 bytes in 0 blocks' in report, report
        opened = re.findall(r'Open file descriptor (.*)\n==\d+==    (.*)\n', report)
        assert re.search(r'FILE DESCRIPTORS: \d+ open \(3 std\) at exit', report), report
        assert [each for each, where in opened if where != '<inherited from parent>'] == [], report
