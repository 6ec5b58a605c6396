"""Packages that must not be trusted: each bad one ends in a clear error and the right exit status, and nothing is
sent to the modem that should not be."""
import os
import shutil
import socket
import tempfile
import time
from functools import partial
from pathlib import Path

import pytest

import fake_tree
import packages
from firehose_texts import ACK, CONFIGURE, NAK, NOP, RESET, TARGET_RESET
from harness import (COMPLETED, FAILED, FIREHOSE_FAILED, KESTREL, NO_USB, NO_USB_STATUS, VERSION, Session, Sim, finish,
                     flash, json_lines, run, start, stop)
from packages import ERASE, ONE_IMAGE_IN_FLASH, PROGRAMMER, RAWPROGRAM, content, program
from scripted_modem import ScriptedModem

MIB = 1048576

NO_VERSION = 'unable to get package version of the firmware to be flashed\n' + FAILED
NO_LIST = 'error in building the image list\n' + FAILED
IMAGE_MISSING = 'file does not exist for image\nimage list validation failure\n' + NO_LIST
BAILED_OUT = 'dry-run requested, bailing out\n'


def started(folder, package, *arguments, before=()):
    """A run that would switch the modem; it must end before."""
    with Sim(folder, begin='normal') as modem:
        outcome = run(package, '--port', modem.port, '--force', *arguments, before=before, limit=15)
        time.sleep(0.05)  # the modem notes what came in a moment; nothing tells that nothing came
        return outcome, [event['kind'] for event in modem.events() if event['dir'] == 'rx']


def check_refused(folder, package, status, err, *arguments, before=()):
    outcome, received = started(folder, package, *arguments, before=before)
    assert (outcome.status, outcome.out, outcome.err) == (status, VERSION, err)
    assert received == []
    assert outcome.seconds < 10


def check_dry_run(package, err=''):
    outcome = run(package, '--port', '/nowhere', '--force', '--dry-run')
    assert (outcome.status, outcome.out, outcome.err) == (0, VERSION + COMPLETED, err + BAILED_OUT)


# --- other things in place of the package's files

FILES = ['contents.xml', 'information.contents', RAWPROGRAM, PROGRAMMER, 'one.bin']


def path_of(package, name):
    return f'{package}//{name}' if name == 'contents.xml' else f'{package}/{name}'


def refusal(package, name, why, code):
    """Exit status and messages of a file that is not opened, for the reason and with the result given."""
    path = path_of(package, name)
    unsigned = code + 2 ** 32
    why = why.replace('<path>', path)
    return {
        'contents.xml': (234, f'{why}unable to open xml file {path}, error = {unsigned}\n'
                         f'unable to parse content xml file {path}, err = 4294967274\n' + NO_LIST),
        'information.contents': (254, f'{why}get_new_pkgver: cannot open the file {path}\n' + NO_VERSION),
        RAWPROGRAM: (256 + code, f'{why}unable to open partition file {path}, err = {unsigned}\n' + NO_LIST),
        PROGRAMMER: (256 + code, why + FAILED),
        'one.bin': (234, f'{why}unable to open file err = {unsigned}, for image\nimage list validation failure\n'
                    + NO_LIST),
    }[name]


def make_socket(path):
    here = os.open(path.parent, os.O_RDONLY)  # the address of a socket must be short
    try:
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(f'/proc/self/fd/{here}/{path.name}')
    finally:
        os.close(here)


OTHERS = {
    'fifo': os.mkfifo,
    'zeros': lambda path: path.symlink_to('/dev/zero'),
    'null': lambda path: path.symlink_to('/dev/null'),
    'socket': make_socket,
    'directory': Path.mkdir,
}


@pytest.mark.parametrize('name', FILES)
@pytest.mark.parametrize('kind', OTHERS)
def test_what_is_no_regular_file_is_not_opened(kind, name, folder):
    package = packages.one_image(folder / 'package')
    (package / name).unlink()
    OTHERS[kind](package / name)
    status, err = refusal(package, name, "'<path>' is not a regular file\n", -22)
    check_refused(folder, package, status, err)


@pytest.mark.parametrize('absolute', [False, True], ids=['relative', 'absolute'])
@pytest.mark.parametrize('name', FILES)
def test_link_to_a_file_of_the_package_is_the_file(name, absolute, folder):
    package = packages.one_image(folder / 'package')
    (package / 'in').mkdir()
    (package / name).rename(package / 'in/target')
    (package / name).symlink_to(package / 'in/target' if absolute else 'in/../in/target')
    check_dry_run(package)


def test_link_to_the_package_leads_to_its_files(folder):
    packages.one_image(folder / 'package')
    (folder / 'link').symlink_to('package')
    check_dry_run(folder / 'link')


def leads_out(package, name):
    """Exit status and messages of a file that lies outside of its package."""
    path = path_of(package, name)
    why = f'file name leads out of the package: {path}\n'
    return {
        'contents.xml': (234, f'{why}unable to open xml file {path}, error = 4294967274\n'
                         f'unable to parse content xml file {path}, err = 4294967274\n' + NO_LIST),
        'information.contents': (254, f'{why}get_new_pkgver: cannot open the file {path}\n' + NO_VERSION),
        RAWPROGRAM: (234, f'{why}unable to open partition file {path}, err = 4294967274\n' + NO_LIST),
        PROGRAMMER: (234, why + FAILED),
        'one.bin': (234, f'{why}unable to open file err = 4294967274, for image\nimage list validation failure\n'
                    + NO_LIST),
    }[name]


@pytest.mark.parametrize('absolute', [False, True], ids=['relative', 'absolute'])
@pytest.mark.parametrize('name', FILES)
def test_link_out_of_the_package_is_refused(name, absolute, folder):
    package = packages.one_image(folder / 'package')
    (package / name).rename(folder / 'target')
    (package / name).symlink_to(folder / 'target' if absolute else '../target')
    check_refused(folder, package, *leads_out(package, name))


def test_folder_of_like_name_beside_the_package_is_outside_of_it(folder):
    package = packages.one_image(folder / 'package')
    (folder / 'package2').mkdir()
    (package / 'one.bin').rename(folder / 'package2/one.bin')
    (package / 'one.bin').symlink_to('../package2/one.bin')
    check_refused(folder, package, *leads_out(package, 'one.bin'))


def missing(package, name):
    """Exit status and messages of a file that is not there."""
    path = path_of(package, name)
    return {
        'contents.xml': (254, f'firmware not supported: {package}\n' + FAILED),
        'information.contents': (254, f'get_new_pkgver: cannot open the file {path}\n' + NO_VERSION),
        RAWPROGRAM: (254, f"error 2 No such file or directory opening file '{path}'\n"
                     f'unable to open partition file {path}, err = 4294967294\n' + NO_LIST),
        PROGRAMMER: (254, f'file is not there: {path}\n' + FAILED),
        'one.bin': (234, IMAGE_MISSING),
    }[name]


@pytest.mark.parametrize('name', FILES)
def test_missing_file_is_refused_and_not_created(name, folder):
    package = packages.one_image(folder / 'package')
    (package / name).unlink()
    check_refused(folder, package, *missing(package, name))
    assert not (package / name).exists()


@pytest.mark.parametrize('name', FILES)
def test_link_to_nothing_is_refused_and_nothing_is_created(name, folder):
    package = packages.one_image(folder / 'package')
    (package / name).unlink()
    (package / name).symlink_to(folder / 'target')
    status, err = missing(package, name)
    if name == 'information.contents':
        err = f"'{package}/{name}' is a link to a file that is not there\n" + err
    check_refused(folder, package, status, err)
    assert not (folder / 'target').exists()


@pytest.mark.parametrize('name', FILES)
def test_link_to_itself_is_refused(name, folder):
    package = packages.one_image(folder / 'package')
    (package / name).unlink()
    (package / name).symlink_to(name)
    check_refused(folder, package, *missing(package, name))


def test_no_file_is_created_through_a_link_that_the_user_names(folder):
    packages.one_image(folder / 'package')
    link = folder / 'package/link.xml'
    link.symlink_to(folder / 'target')
    outcome = run('--meta', link, '--port', '/nowhere', '--force')
    assert (outcome.status, outcome.out) == (234, VERSION)
    assert outcome.err == (f"'{link}' is a link to a file that is not there\n"
                           f'unable to open xml file {link}, error = 4294967294\n'
                           f'unable to parse content xml file {link}, err = 4294967274\n' + NO_LIST)
    assert not (folder / 'target').exists()


# --- empty files, and a package without commands

@pytest.mark.parametrize('name, status, err', [
    ('contents.xml', 254, 'programmer_path not found\nunable to parse content xml file <package>//contents.xml, '
     'err = 4294967294\n' + NO_LIST),
    ('information.contents', 254, 'search_pkgv: no PKG VER found in the information.contents file\n' + NO_VERSION),
    (RAWPROGRAM, 234, f'no command in <package>/{RAWPROGRAM}\n' + FAILED),
    (PROGRAMMER, 234, f'programmer image <package>/{PROGRAMMER} is empty\n' + FAILED),
])
def test_empty_file_is_refused(name, status, err, folder):
    package = packages.one_image(folder / 'package')
    (package / name).write_bytes(b'')
    check_refused(folder, package, status, err.replace('<package>', str(package)))


def test_empty_image_is_written(folder):
    done = flash(folder, packages.write(folder / 'package', [program('empty')], {'empty': b''}))
    assert (done.outcome.status, done.outcome.err) == (0, '')
    assert done.images() == [b'']


@pytest.mark.parametrize('text', [ERASE + '\n', ERASE + ERASE, f'<?xml?>\n<!--\n{ERASE}\n-->\n',
                                  f'<?xml?>\n<!-- never closed\n{ERASE}\n', '<?xml?>\n<data>\n</data>\n', '\n\n\n'])
def test_rawprogram_file_without_a_command_is_refused(text, folder):
    package = packages.one_image(folder / 'package')
    (package / RAWPROGRAM).write_text(text)
    check_refused(folder, package, 234, f'no command in {package}/{RAWPROGRAM}\n' + FAILED)


# --- commands that the image list has not, or has otherwise than they are written

PROGRAM = '<program filename="one.bin"/>'
ALONE = 'command without a line of its own'
NOT_READ = 'command that is not read'
NO_ELEMENT = 'line that is no element'
FILE_NAME = 'file name cannot be read'
NO_BLANK = 'command without a blank behind its name'
TWICE = 'attribute given twice'
UNREADABLE = 'element that cannot be read'
FILLED = 'element that is not empty'
OUTSIDE = 'element outside of <data>'
MARKUP = 'markup that is no element'
NO_BEGIN = 'end of an element that has not begun'
NO_BRACKET = 'bracket that closes nothing'

# Lines behind an erase line, which is the third line of the file; what is found; in which line, and what it holds.
LINES = {
    'comment behind': (f'{PROGRAM} <!-- boot -->', ALONE, 4, f'{PROGRAM} <!-- boot -->'),
    'comment in front': (f'<!-- boot --> {PROGRAM}', ALONE, 4, f'<!-- boot --> {PROGRAM}'),
    'behind the end of a comment': (f'<!--\nboot\n--> {PROGRAM}', ALONE, 6, f'--> {PROGRAM}'),
    'before the begin of a comment': (f'{PROGRAM} <!--\nboot -->', ALONE, 4, f'{PROGRAM} <!--'),
    'between comments': (f'<!-- a\n--> {PROGRAM} <!--\n-->', ALONE, 5, f'--> {PROGRAM} <!--'),
    'shared by others': ('<power/><patch/>', ALONE, 4, '<power/><patch/>'),
    'shared': (program('one.bin') + ERASE, ALONE, 4, program('one.bin')[:60]),
    'frame': ('</data><data>\n' + PROGRAM, OUTSIDE, 4, '</data><data>'),
    'end of the frame': (f'{PROGRAM}</data>\n<data>', ALONE, 4, f'{PROGRAM}</data>'),
    'several lines': ('<program filename="one.bin"\n  label="one"/>', ALONE, 4, '<program filename="one.bin"'),
    'several lines of others': ('<power\n  value="reset"/>', ALONE, 4, '<power'),
    'end in the next line': ('<power value="reset">\n</power>', ALONE, 4, '<power value="reset">'),
    'text in front': (f'sparse {PROGRAM}', ALONE, 4, f'sparse {PROGRAM}'),
    'text behind': (f'\t{PROGRAM};\r', ALONE, 4, f'{PROGRAM};'),
    'comment mark in a value': ('<program label="-->" filename="one.bin"/>', NOT_READ, 4,
                                '<program label="-->" filename="one.bin"/>'),
    'behind the end of a comment, and one more': (f'<!--\n--> <!-- a -->\n{PROGRAM}', NOT_READ, 6, PROGRAM),
    'comment in a comment': (f'<!--\n<!-- a -->\n{PROGRAM}\n-->', NOT_READ, 6, PROGRAM),
    'description': ('<partition_file filename="one.bin"/>', NOT_READ, 4, '<partition_file filename="one.bin"/>'),
    'comment behind a comment': (f'<!-- a --> <!--\n{PROGRAM}\n-->', NO_ELEMENT, 5, PROGRAM),
    'comment of a mark and a half': (f'<!-->\n{PROGRAM}\n-->', NO_ELEMENT, 5, PROGRAM),
    'the wrong one of two': (f'<!-- a --> <!--\n<power/>\n-->\n{PROGRAM}', NO_ELEMENT, 5, '<power/>'),
    'capitals': ('<program FILENAME="one.bin"/>', FILE_NAME, 4, '<program FILENAME="one.bin"/>'),
    'some capitals': ('<program fileName="one.bin"/>', FILE_NAME, 4, '<program fileName="one.bin"/>'),
    'underscore': ('<program file_name="one.bin"/>', FILE_NAME, 4, '<program file_name="one.bin"/>'),
    'capitals beside': ('<program FILENAME="" filename="one.bin"/>', FILE_NAME, 4,
                        '<program FILENAME="" filename="one.bin"/>'),
    'single quotes': ("<program filename='one.bin'/>", FILE_NAME, 4, "<program filename='one.bin'/>"),
    'blank before the sign': ('<program filename ="one.bin"/>', FILE_NAME, 4, '<program filename ="one.bin"/>'),
    'name in a value': ('<program label="filename" filename="one.bin"/>', FILE_NAME, 4,
                        '<program label="filename" filename="one.bin"/>'),
    'name in a name': ('<program sparse_filename="one.bin" filename=""/>', FILE_NAME, 4,
                       '<program sparse_filename="one.bin" filename=""/>'),
    'name in a name of others': ('<patch sparse_filename="one.bin"/>', FILE_NAME, 4,
                                 '<patch sparse_filename="one.bin"/>'),
    'file name twice': ('<program filename="" filename="one.bin"/>', TWICE, 4,
                        '<program filename="" filename="one.bin"/>'),
    'attribute twice': ('<erase start_sector="0" label="a" start_sector="1"/>', TWICE, 4,
                        '<erase start_sector="0" label="a" start_sector="1"/>'),
    'tab': ('<program\tfilename="one.bin"/>', NO_BLANK, 4, '<program\tfilename="one.bin"/>'),
    'tab, no file': ('<program\tlabel="one"/>', NO_BLANK, 4, '<program\tlabel="one"/>'),
    'nothing': ('<program/>', NO_BLANK, 4, '<program/>'),
    'tab in an erase command': ('<erase\tfilename="one.bin"/>', NO_BLANK, 4, '<erase\tfilename="one.bin"/>'),
    'no quotes': ('<program filename=one.bin />', UNREADABLE, 4, '<program filename=one.bin />'),
    'no end of a value': ('<program filename="one.bin />', UNREADABLE, 4, '<program filename="one.bin />'),
    'no end': ('<program filename="one.bin">', FILLED, 4, '<program filename="one.bin">'),
    'elements in elements': ('<set>\n' + PROGRAM + '\n</set>', FILLED, 4, '<set>'),
    'end of nothing': ('</program>', NO_BEGIN, 4, '</program>'),
    'end with a blank': ('</data >', NO_BEGIN, 4, '</data >'),
    'frame in the frame': ('<data>\n' + PROGRAM + '\n</data>', FILLED, 4, '<data>'),
    'second frame': ('</data>\n\n<data>\n' + PROGRAM, OUTSIDE, 6, '<data>'),
    'second declaration': ('<?xml version="1.0"?>', MARKUP, 4, '<?xml version="1.0"?>'),
    'instruction': ('<?flash now?>', MARKUP, 4, '<?flash now?>'),
    'character data': (f'<![CDATA[ {PROGRAM} ]]>', MARKUP, 4, f'<![CDATA[ {PROGRAM} ]]>'),
    'text with brackets': ('1 < 2 > 0', MARKUP, 4, '1 < 2 > 0'),
    'no begin': ('program filename="one.bin"/>', NO_BRACKET, 4, 'program filename="one.bin"/>'),
    'end of a comment': ('-->', NO_BRACKET, 4, '-->'),
    'empty lines before': (f'\n\r\n\n{PROGRAM} <!-- -->', ALONE, 7, f'{PROGRAM} <!-- -->'),
    'comment without an end': (f'{PROGRAM}\n  <!-- boot\n{PROGRAM}', 'comment without an end', 5, '<!-- boot'),
}


def refused_line(package, what, number, found):
    return f'{what} in {package}/{RAWPROGRAM}, line {number}: {found}\n' + FAILED


def with_lines(folder, lines):
    return packages.write(folder / 'package', [ERASE, lines], {'one.bin': b'1'})


# What reading them complains of besides.
COMPLAINTS = {
    'single quotes': "unable to find '\"', instead found '\n",
    'blank before the sign': "unable to find '=', instead found  \n",
    'name in a value': "unable to find '=', instead found \"\n",
    'no quotes': "unable to find '\"', instead found o\n",
    'no end of a value': "unable to find final '\"'\n",
}


@pytest.mark.parametrize('arguments', [(), ('--dry-run',)], ids=['run', 'dry run'])
@pytest.mark.parametrize('case', LINES)
def test_command_that_would_be_lost_or_misread_is_refused(case, arguments, folder):
    lines, *reported = LINES[case]
    package = with_lines(folder, lines)
    err = COMPLAINTS.get(case, '') + refused_line(package, *reported)
    check_refused(folder, package, 234, err, *arguments)


@pytest.mark.parametrize('case', ['comment behind', 'capitals', 'several lines of others'])
def test_command_that_would_be_lost_is_refused_before_the_programmer_hears_of_it(case, folder):
    package = with_lines(folder, LINES[case][0])
    done = flash(folder, package, sim_leaves=False)
    assert (done.outcome.status, done.outcome.out) == (234, VERSION)
    assert done.outcome.err == refused_line(package, *LINES[case][1:])
    assert done.received() == []


FRAMES = {
    'declaration with the frame': (f'<?xml version="1.0"?><data>{PROGRAM}\n{ERASE}\n</data>\n', ALONE, 1,
                                   f'<?xml version="1.0"?><data>{PROGRAM}'[:60]),
    'frame with a command': (f'<?xml version="1.0"?>\n<data><power/>\n{ERASE}\n</data>\n', ALONE, 2, '<data><power/>'),
    'no frame': (f'<?xml version="1.0"?>\n{PROGRAM}\n{PROGRAM}\n', OUTSIDE, 2, PROGRAM),
    'a command as the frame': (f'<?xml version="1.0"?>\n{PROGRAM}\n', OUTSIDE, 2, PROGRAM),
    'other frame': (f'<?xml version="1.0"?>\n<patches>\n{PROGRAM}\n</patches>\n', OUTSIDE, 2, '<patches>'),
    'frame with attributes': (f'<?xml version="1.0"?>\n<data v="1">\n{PROGRAM}\n</data>\n', OUTSIDE, 2,
                              '<data v="1">'),
    'no end': (f'<?xml version="1.0"?>\n<data>\n{PROGRAM}\n', '<data> without an end', 2, '<data>'),
    'document type': (f'<?xml version="1.0"?>\n<!DOCTYPE data>\n<data>\n{PROGRAM}\n</data>\n', MARKUP, 2,
                      '<!DOCTYPE data>'),
    'behind the frame': (f'<?xml version="1.0"?>\n<data>\n{PROGRAM}\n</data>\n<power/>\n', OUTSIDE, 5, '<power/>'),
    'comment from the first line on': (f'<?xml version="1.0"?> <!--\n{PROGRAM}\n-->\n<data>\n</data>\n', NO_ELEMENT,
                                       2, PROGRAM),
    'empty first line': (f'\n<?xml version="1.0"?>\n<data>\n{PROGRAM} <!-- -->\n{ERASE}\n</data>\n', ALONE, 4,
                         f'{PROGRAM} <!-- -->'),
}


@pytest.mark.parametrize('case', FRAMES)
def test_file_without_its_frame_is_refused(case, folder):
    package = packages.one_image(folder / 'package')
    text, *reported = FRAMES[case]
    (package / RAWPROGRAM).write_text(text)
    check_refused(folder, package, 234, refused_line(package, *reported))


# Odd, and yet nothing is lost: what the modem receives.
KEPT = {
    'comments': (f'<!-- {PROGRAM} -->\n<!--\n{PROGRAM}\n-->\n<!-- -- <!-- --->', []),
    'comment with brackets': ('<!--\n<flash>\n-->', []),
    'comment as a part of a comment': (f'<!-- a\n--> <!-- b\n{PROGRAM}\n-->', []),
    'text': ('filename="one.bin"', []),
    'no file': ('<program label="one" filename=""/>', []),
    'no attribute': ('<program />', []),
    'empty name in single quotes': ("<program filename=''/>", []),
    'entity': ('<power value="a&amp;b"/>', ['<power value="a&amp;b"/>']),
    'bracket in a value': ('<power value="a>b"/>', ['<power value="a>b"/>']),
    'end tag': ('<power value="a"></power>', ['<power value="a"></power>']),
    'other elements': ('<nop value="a" value2=\'b\'/>', ['<nop value="a" value2=\'b\'/>']),
    'blanks around': ('\t <power value="a"/> \t\r', ['\t <power value="a"/> \t\r']),
}


@pytest.mark.parametrize('case', KEPT)
def test_what_loses_nothing_is_kept_as_it_is(case, folder):
    lines, commands = KEPT[case]
    outcome = run(with_lines(folder, lines), '--port', '/nowhere', '--force', '--dry-run', '--debug', '--json')
    dumped = [line['msg'][len('\tCommand: '):] for line in json_lines(outcome.out.split('\n', 1)[1])
              if line['type'] == 'LOG' and line['msg'].startswith('\tCommand: ')]
    assert outcome.status == 0
    assert [line for line in dumped if '<program ' not in line] == [ERASE, *commands]


def test_otp_values_are_read_without_any_command(folder):
    done = flash(folder, packages.write(folder / 'package', []), '--otp')
    assert (done.outcome.status, done.outcome.out, done.outcome.err) == (
        0, VERSION + '\nOTP values read successfully\n', '')
    assert done.received() == ['nop', 'configure', 'getstorageinfo', 'power']


def test_programmer_is_not_needed_over_pcie(folder):
    package = packages.one_image(folder / 'package')
    (package / PROGRAMMER).unlink()
    done = flash(folder, package)
    assert (done.outcome.status, done.outcome.err, done.images()) == (0, '', [ONE_IMAGE_IN_FLASH])
    assert not (package / PROGRAMMER).exists()


def test_programmer_is_not_needed_to_stop_in_download_mode(folder):
    package = packages.one_image(folder / 'package')
    (package / PROGRAMMER).unlink()
    outcome, received = started(folder, package, '--enter-qdl')
    assert (outcome.status, outcome.err, received) == (0, '', ['download_mode'])


# --- NUL bytes, line ends, byte-order marks, long lines

@pytest.mark.parametrize('name', ['contents.xml', 'information.contents', RAWPROGRAM])
def test_nul_byte_is_refused(name, folder):
    package = packages.one_image(folder / 'package')
    with open(package / name, 'ab') as file:
        file.write(b'\0\n')
    check_refused(folder, package, 234, f'NUL byte in {path_of(package, name)}\n' + FAILED)


def test_commands_behind_a_nul_byte_are_not_dropped_in_silence(folder):
    package = packages.one_image(folder / 'package')
    text = packages.rawprogram_xml([ERASE, '\0', program('one.bin', 'one')])
    (package / RAWPROGRAM).write_text(text)
    check_refused(folder, package, 234, f'NUL byte in {package}/{RAWPROGRAM}\n' + FAILED)


@pytest.mark.parametrize('name, status, err', [
    ('contents.xml', 254, 'programmer_path not found\nunable to parse content xml file <package>//contents.xml, '
     'err = 4294967294\n' + NO_LIST),
    ('information.contents', 254, 'search_pkgv: no PKG VER found in the information.contents file\n' + NO_VERSION),
    (RAWPROGRAM, 234, f'NUL byte in <package>/{RAWPROGRAM}\n' + FAILED),
])
def test_file_of_nul_bytes_is_refused(name, status, err, folder):
    package = packages.one_image(folder / 'package')
    (package / name).write_bytes(bytes(100000))
    check_refused(folder, package, status, err.replace('<package>', str(package)))


def with_line_ends(folder, *names):
    package = packages.one_image(folder / 'package')
    for name in names:
        text = (package / name).read_bytes()
        (package / name).write_bytes(text.replace(b'\n', b'\r\n'))
    return package


def test_carriage_returns_in_the_xml_files_are_sent_with_the_commands(folder):
    done = flash(folder, with_line_ends(folder, 'contents.xml', RAWPROGRAM))
    assert (done.outcome.status, done.outcome.err) == (0, '')
    assert done.images() == [ONE_IMAGE_IN_FLASH]
    assert done.requests('erase') == ['<?xml version="1.0"?>\n<data>\n' + ERASE + '\r\n</data>\n']


@pytest.mark.parametrize('behind', ['\r', ' ', '\t', ' \t\r \r'])
def test_white_space_behind_the_version_is_no_part_of_it(behind, folder):
    package = packages.write(folder / 'package', [ERASE], information=f'PKG VER : 49.01.103{behind}\n')
    check_dry_run(package)


@pytest.mark.parametrize('names', [['contents.xml'], [RAWPROGRAM], ['contents.xml', RAWPROGRAM]])
def test_byte_order_mark_changes_nothing(names, folder):
    package = packages.one_image(folder / 'package')
    for name in names:
        (package / name).write_bytes(b'\xef\xbb\xbf' + (package / name).read_bytes())
    done = flash(folder, package)
    assert (done.outcome.status, done.outcome.err, done.images()) == (0, '', [ONE_IMAGE_IN_FLASH])


TEN_MB = 10000000
XML = '<?xml version="1.0"?>\n'


@pytest.mark.parametrize('name, text, status, err', [
    ('contents.xml', XML.strip() + '<x/>' * (TEN_MB // 4), 254,
     'programmer_path not found\nunable to parse content xml file <package>//contents.xml, err = 4294967294\n'
     + NO_LIST),
    ('contents.xml', XML + '<device_programmer>' * (TEN_MB // 19), 254,
     'null line\nprogrammer_path not found\nunable to parse content xml file <package>//contents.xml, '
     'err = 4294967294\n' + NO_LIST),
    (RAWPROGRAM, '<erase />' * (TEN_MB // 9), 234, f'no command in <package>/{RAWPROGRAM}\n' + FAILED),
    (RAWPROGRAM, 'x' * TEN_MB, 234,
     'invalid xml:\n' + 'x' * 1024 + f'\nfile <package>/{RAWPROGRAM}\n' + NO_LIST),
    (RAWPROGRAM, XML + '<erase ' + 'x' * TEN_MB + '/>\n', 234,
     f'command of more than 1023 characters in <package>/{RAWPROGRAM}: <erase ' + 'x' * 53 + '...\n' + FAILED),
    (RAWPROGRAM, XML + '<program filename="' + 'x' * TEN_MB + '"/>\n', 234,
     'attribute size 10000000 > max_dest_size\n'
     f'command of more than 1023 characters in <package>/{RAWPROGRAM}: <program filename="' + 'x' * 41 + '...\n'
     + FAILED),
    ('information.contents', 'x' * TEN_MB, 254,
     'search_pkgv: no PKG VER found in the information.contents file\n' + NO_VERSION),
], ids=['description', 'element of the description', 'first line of commands', 'no markup', 'command', 'file name',
        'information'])
def test_line_of_10_mb_is_refused_quickly_and_in_few_words(name, text, status, err, folder):
    package = packages.one_image(folder / 'package')
    (package / name).write_text(text)
    outcome, received = started(folder, package, '--debug')
    assert (outcome.status, received) == (status, [])
    assert outcome.seconds < 5
    assert len(outcome.raw_out) + len(outcome.raw_err) < 20000
    check_refused(folder, package, status, err.replace('<package>', str(package)))


@pytest.mark.parametrize('name, status, err', [
    ('contents.xml', 244, 'out of memory\nunable to parse content xml file <path>, err = 4294967284\n' + NO_LIST),
    ('information.contents', 254, 'get_new_pkgver: too large: <path>\n' + NO_VERSION),
    (RAWPROGRAM, 244, 'out of memory\n' + NO_LIST),
])
def test_text_of_a_tebibyte_of_holes_is_refused_quickly(name, status, err, folder):
    package = packages.one_image(folder / 'package')
    os.truncate(package / name, 1024 * 1024 * MIB)
    check_refused(folder, package, status, err.replace('<path>', path_of(package, name)))


# --- file names

@pytest.mark.parametrize('name', ['../one.bin', './/../one.bin', 'in/../../one.bin'])
def test_image_outside_of_the_package_is_refused(name, folder):
    package = packages.write(folder / 'package', [ERASE, program(name)], {'one.bin': b'1'})
    (package / 'in').mkdir()
    (folder / 'one.bin').write_bytes(b'2')
    status, err = leads_out(package, 'one.bin')
    check_refused(folder, package, status, err.replace(f'{package}/one.bin', f'{package}/{name}'))


@pytest.mark.parametrize('name', ['in/../one.bin', './one.bin', 'in//../../package/one.bin'])
def test_image_may_be_reached_by_a_detour(name, folder):
    package = packages.write(folder / 'package', [ERASE, program(name)], {'one.bin': b'1'})
    (package / 'in').mkdir()
    check_dry_run(package)


@pytest.mark.parametrize('programmer, rawprogram, named', [
    (f'../{PROGRAMMER}', RAWPROGRAM, PROGRAMMER),
    (PROGRAMMER, f'../{RAWPROGRAM}', RAWPROGRAM),
])
def test_programmer_and_rawprogram_file_outside_of_the_package_are_refused(programmer, rawprogram, named, folder):
    package = packages.one_image(folder / 'package')
    for name in (PROGRAMMER, RAWPROGRAM):
        shutil.copy(package / name, folder / name)
    (package / 'contents.xml').write_text(packages.contents_xml(programmer, rawprogram))
    status, err = leads_out(package, named)
    check_refused(folder, package, status, err.replace(f'{package}/{named}', f'{package}/../{named}'))


def test_package_itself_may_lie_behind_two_dots(folder, monkeypatch):
    packages.one_image(folder / 'package')
    (folder / 'here').mkdir()
    monkeypatch.chdir(folder / 'here')
    check_dry_run('../package')


def test_absolute_name_is_looked_for_in_the_package(folder):
    package = packages.write(folder / 'package', [program('/in/one.bin')])
    (package / 'in').mkdir()
    (package / 'in/one.bin').write_bytes(b'1')
    check_dry_run(package)


def test_absolute_name_of_a_file_elsewhere_is_not_found(folder):
    (folder / 'one.bin').write_bytes(b'1')
    check_refused(folder, packages.write(folder / 'package', [program(folder / 'one.bin')]), 234, IMAGE_MISSING)


def deep_package(folder, length):
    """A package whose image has a path of so many characters, and that path."""
    parent = folder / 'package'
    while len(str(parent)) < 600:
        parent /= 'd' * 200
    package = packages.write(parent, [])
    name = 'in/' * 60
    name += 'x' * (length - len(f'{package}/{name}'))
    (package / name).parent.mkdir(parents=True)
    (package / name).write_bytes(b'1')
    (package / RAWPROGRAM).write_text(packages.rawprogram_xml([program(name)]))
    return package, f'{package}/{name}'


def test_path_of_1023_characters_is_taken(folder):
    package, path = deep_package(folder, 1023)
    assert len(path) == 1023
    check_dry_run(package)


def test_path_of_1024_characters_is_refused(folder):
    package, path = deep_package(folder, 1024)
    message = f'path of more than 1023 characters: {path}'[:1024]
    check_refused(folder, package, 234, message + '\nimage list validation failure\n' + NO_LIST)


def directory_of(package, length):
    """The folder, named by so many characters."""
    room = length - len(str(package))
    return str(package) + '/' * (room % 2) + '/.' * (room // 2)


def test_directory_that_leaves_just_enough_room_for_its_files(folder):
    # The longest name is that of the rawprogram file: 24 characters and a slash.
    check_dry_run(directory_of(packages.one_image(folder / 'package'), 998))


def test_directory_that_leaves_no_room_for_the_rawprogram_file_is_refused(folder):
    directory = directory_of(packages.one_image(folder / 'package'), 999)
    message = f'path of more than 1023 characters: {directory}/{RAWPROGRAM}'[:1024]
    check_refused(folder, directory, 234, message + '\n' + NO_LIST)


def test_directory_that_leaves_no_room_for_the_description_is_refused(folder):
    directory = directory_of(packages.one_image(folder / 'package'), 1010)
    message = f'path of more than 1023 characters: {directory}//contents.xml'[:1024]
    check_refused(folder, directory, 234, message + '\n' + FAILED)


@pytest.mark.parametrize('length, complaint', [(1023, ''), (1024, 'attribute size 1024 > max_dest_size\n')])
def test_name_that_fills_the_line_is_refused(length, complaint, folder):
    package = packages.write(folder / 'package', [f'<program filename="{"x" * length}"/>'])
    err = (complaint + f'command of more than 1023 characters in {package}/{RAWPROGRAM}: <program filename="'
           + 'x' * 41 + '...\n' + FAILED)
    check_refused(folder, package, 234, err if complaint else IMAGE_MISSING)


# --- sizes

def of_size(folder, size, sector):
    package = packages.write(folder / 'package', [program('huge.bin', sector=sector)], {'huge.bin': b''})
    os.truncate(package / 'huge.bin', size)
    return package


def test_more_sectors_than_can_be_announced_are_refused(folder):
    package = of_size(folder, 2 ** 31, 1)
    check_refused(folder, package, 234, f'too many sectors of 1 bytes: {package}/huge.bin\n' + FAILED)


def test_sectors_of_five_gibibytes_are_announced(folder):
    package = of_size(folder, 5 * 1024 * MIB, 4096)
    request = (b'<?xml version="1.0"?>\n<data>\n<program SECTOR_SIZE_IN_BYTES="4096" label="image" '
               b'filename="huge.bin" num_partition_sectors="1310720" start_sector="0" />\n</data>\n')
    with ScriptedModem([(len(NOP), [ACK]), (len(CONFIGURE), [ACK]), (len(request), [NAK]),
                        (len(RESET), [ACK, TARGET_RESET])]) as modem:
        outcome = run(package, '--port', modem.port, '--force', '--pcie', '--skip-enter-qdl')
    assert outcome.status == 154
    assert modem.received == NOP + CONFIGURE + request + RESET


# --- rights and full disks

def copied_for_everybody():
    """A folder that every user may enter, with the updater and a package."""
    folder = Path(tempfile.mkdtemp(prefix='kestrel-test-'))
    folder.chmod(0o755)
    shutil.copy(KESTREL, folder / 'kestrel')
    return folder, packages.one_image(folder / 'package')


@pytest.fixture
def everybodys():
    folder, package = copied_for_everybody()
    for path in [package, *package.iterdir()]:
        path.chmod(0o777 if path.is_dir() else 0o666)
    counters = folder / 'counters'
    counters.mkdir()
    counters.chmod(0o777)
    yield package
    shutil.rmtree(folder)


NOBODY = ['setpriv', '--reuid=65534', '--regid=65534', '--clear-groups', '--']
as_root = pytest.mark.skipif(os.geteuid() != 0 or shutil.which('setpriv') is None,
                             reason='only root can become another user, with setpriv')


def run_as_nobody(package, *source):
    """The port does not exist: touching it would be an error of its own."""
    # An updater that counts coverage could not write its counters into the build folder, and would say so.
    counters = f'GCOV_PREFIX={package.parent}/counters'
    process = start(*NOBODY, 'env', counters, package.parent / 'kestrel', *(source or [package]), '--port', '/nowhere', '--force')
    return finish(process, 15)


def check_nobody(package, status, err, *source):
    outcome = run_as_nobody(package, *source)
    assert (outcome.status, outcome.out, outcome.err) == (status, VERSION, err)


@as_root
def test_package_that_another_user_may_read_and_write_gets_as_far_as_the_port(everybodys):
    check_nobody(everybodys, 154, 'could not open device /nowhere: error 2 No such file or directory\n'
                 'unable to open device path /nowhere\nunable to set the modem to firmware update mode\n' + FAILED)


@as_root
@pytest.mark.parametrize('mode', [0o700, 0o711])
def test_folder_that_may_not_be_read_is_no_argument(mode, everybodys):
    everybodys.chmod(mode)
    check_nobody(everybodys, 1,
                 f'opendir() failed: 13\nfirst argument must be a directory or a flag: {everybodys}\n' + FAILED)


@as_root
def test_folder_that_may_be_read_but_not_entered_holds_no_package(everybodys):
    everybodys.chmod(0o744)
    check_nobody(everybodys, 254, f'firmware not supported: {everybodys}\n' + FAILED)


@as_root
def test_description_in_a_folder_that_may_not_be_entered_is_refused(everybodys):
    everybodys.chmod(0o700)
    check_nobody(everybodys, 254,
                 f'get_new_pkgver: cannot open the file {everybodys}/information.contents\n' + NO_VERSION,
                 '--meta', everybodys / 'contents.xml')


@as_root
def test_programmer_in_a_folder_that_may_not_be_listed_is_refused(everybodys):
    everybodys.chmod(0o711)
    check_nobody(everybodys, 254, f'failed to open fw directory {everybodys}, errno: 13 (Permission denied)\n'
                 + NO_LIST, '--flat', everybodys / PROGRAMMER)


@as_root
def test_package_of_somebody_else_that_may_only_be_read_gets_as_far_as_the_port(everybodys):
    for path in everybodys.iterdir():
        path.chmod(0o444)
    everybodys.chmod(0o555)
    assert run_as_nobody(everybodys).err.startswith('could not open device /nowhere')


@as_root
@pytest.mark.parametrize('name', ['contents.xml', RAWPROGRAM, PROGRAMMER, 'one.bin'])
def test_file_that_may_not_be_read_is_refused(name, everybodys):
    (everybodys / name).chmod(0o200)
    check_nobody(everybodys, *refusal(everybodys, name, "error 13 Permission denied opening file '<path>'\n", -13))


@as_root
def test_version_in_a_file_that_may_not_be_read_is_refused(everybodys):
    (everybodys / 'information.contents').chmod(0o600)
    check_nobody(everybodys, 254,
                 f'get_new_pkgver: cannot open the file {everybodys}/information.contents\n' + NO_VERSION)


@pytest.mark.skipif(fake_tree.why_not() != '', reason=f'no mount namespace: {fake_tree.why_not()}')
def test_package_on_a_read_only_file_system_is_flashed(folder):
    package = packages.one_image(folder / 'package')
    mount = [*fake_tree.UNSHARE, 'sh', '-e', '-c',
             'mount --bind "$1" "$1"; mount -o remount,bind,ro "$1"; shift; exec "$@"', 'sh', package]
    outcome = finish(start(*mount, KESTREL, package, '--port', '/nowhere', '--force', '--dry-run'), 15)
    assert (outcome.status, outcome.err) == (0, BAILED_OUT)


def test_log_on_a_full_disk_does_not_stop_the_run(folder):
    package = packages.one_image(folder / 'package')
    with Sim(folder) as modem:
        outcome = run(package, '--port', modem.port, '--force', '--skip-enter-qdl', '--pcie',
                      before=['sh', '-c', 'exec "$@" > /dev/full', 'sh'])
        modem.wait()
        done = Session(outcome, modem.events(), modem.flash)
    assert (outcome.status, outcome.err, done.images()) == (0, '', [ONE_IMAGE_IN_FLASH])


# --- files that change during the run

def wait_for(modem, kind, count=1):
    """Waits until the modem has received so many messages of a kind."""
    end = time.monotonic() + 20
    while modem.transcript.read_text().count(f'"kind":"{kind}"') < count and time.monotonic() < end:
        time.sleep(0.01)


def changed_behind(folder, kind, sim, change, arguments=('--skip-enter-qdl', '--pcie'), begin='firehose', count=1,
                   programmer=b'programmer'):
    """The package is changed once the modem has received a message of this kind; its answer comes late."""
    package = packages.one_image(folder / 'package')
    (package / PROGRAMMER).write_bytes(programmer)
    with Sim(folder, *sim, begin=begin) as modem:
        updater = start(KESTREL, package, '--port', modem.port, '--force', *arguments)
        wait_for(modem, kind, count)
        change(package)
        outcome = finish(updater, 40)
        stop(modem.process)
        return Session(outcome, modem.events(), modem.flash)


def shrink(package):
    os.truncate(package / 'one.bin', 5000)


def grow(package):
    os.truncate(package / 'one.bin', 10001)


def remove(package):
    (package / 'one.bin').unlink()


def rewrite(package, name='one.bin'):
    """Other bytes, as many as before."""
    path = package / name
    path.write_bytes(bytes(len(path.read_bytes())))


def replace_by_its_like(package):
    shutil.copy(package / 'one.bin', package / 'other')
    (package / 'other').rename(package / 'one.bin')


def replace_by_a_fifo(package):
    remove(package)
    os.mkfifo(package / 'one.bin')


# what happens to the image: exit status, its message, the result in the message behind it
CHANGES = {
    'shrinks': (shrink, 234, 'file of 10000 bytes has changed to 5000: <path>\n', -22),
    'grows': (grow, 234, 'file of 10000 bytes has changed to 10001: <path>\n', -22),
    'vanishes': (remove, 254, 'file is not there: <path>\n', -2),
    'becomes a fifo': (replace_by_a_fifo, 234, "'<path>' is not a regular file\n", -22),
    'is written anew': (rewrite, 234, 'file has changed: <path>\n', -22),
    'is another': (replace_by_its_like, 234, 'file has changed: <path>\n', -22),
}
# Behind the announcement the file is open: another of its name is none of its business, but that it was taken away is.
OPENED = {'vanishes': (234, 'file has changed: <path>\n', -22), 'becomes a fifo': (234, 'file has changed: <path>\n', -22)}


class ChangingModem(ScriptedModem):
    """Says bytes, and calls what can be called."""

    def say(self, message):
        if callable(message):
            message()
        else:
            super().say(message)


def changed_in_the_data(folder, size_then, sent, last):
    """An image of 3 MiB gets another size while its second MiB is on its way; `sent` bytes of data come then, and
    `last` is what the modem receives and says behind them."""
    package = packages.write(folder / 'package', [program('large.bin', 'large')], {'large.bin': bytes(3 * MIB)})
    request = (b'<?xml version="1.0"?>\n<data>\n<program SECTOR_SIZE_IN_BYTES="4096" label="large" '
               b'filename="large.bin" num_partition_sectors="768" start_sector="0" />\n</data>\n')
    steps = [(len(NOP), [ACK]), (len(CONFIGURE), [ACK]), (len(request), [ACK]),
             (MIB + 1000, [partial(os.truncate, package / 'large.bin', size_then)]),
             (sent - MIB - 1000, last), (len(RESET), [ACK, TARGET_RESET])]
    with ChangingModem(steps) as modem:
        outcome = run(package, '--port', modem.port, '--force', '--pcie', '--skip-enter-qdl')
    begin = len(NOP) + len(CONFIGURE) + len(request)
    return outcome, modem.received[begin:], package


CASES = {
    **{f'{name} before the command': partial(changed_behind, kind='erase', sim=['--fault', 'firehose.erase=late:1500'],
                                             change=row[0]) for name, row in CHANGES.items()},
    **{f'{name} behind the command': partial(changed_behind, kind='program',
                                             sim=['--fault', 'firehose.program=late:1500'], change=row[0])
       for name, row in CHANGES.items()},
    'shrinks in the data': partial(changed_in_the_data, size_then=2 * MIB, sent=2 * MIB, last=[]),
    'grows in the data': partial(changed_in_the_data, size_then=4 * MIB, sent=3 * MIB, last=[ACK]),
    'programmer vanishes': partial(changed_behind, kind='hello_response', sim=['--fault', 'sahara.read=late:400'],
                                   change=lambda package: (package / PROGRAMMER).unlink(),
                                   arguments=('--skip-enter-qdl',), begin='sahara'),
    'programmer rewritten': partial(changed_behind, kind='data', count=2,
                                    sim=['--fault', 'sahara.read=late:400@3', '--programmer-size', '20000'],
                                    change=lambda package: rewrite(package, PROGRAMMER),
                                    arguments=('--skip-enter-qdl',), begin='sahara',
                                    programmer=content('programmer', 20000)),
    'programmer shrinks': partial(changed_behind, kind='data', count=2,
                                  sim=['--fault', 'sahara.read=late:400@3', '--programmer-size', '20000'],
                                  change=lambda package: os.truncate(package / PROGRAMMER, 8292),
                                  arguments=('--skip-enter-qdl',), begin='sahara',
                                  programmer=content('programmer', 20000)),
}


@pytest.mark.parametrize('name', CHANGES)
def test_image_that_has_changed_is_not_even_announced(name, result_of):
    done = result_of(f'{name} before the command')
    _, status, why, code = CHANGES[name]
    why = why.replace('<path>', f'{done.flash.parent}/package/one.bin')
    assert (done.outcome.status, done.outcome.out) == (status, VERSION)
    assert done.outcome.err == f'{why}error sending commands {code}\n' + FIREHOSE_FAILED
    assert done.received() == ['nop', 'configure', 'erase', 'power']


@pytest.mark.parametrize('name', CHANGES)
def test_image_that_has_changed_since_its_announcement_is_not_sent(name, result_of):
    done = result_of(f'{name} behind the command')
    status, why, code = OPENED.get(name, CHANGES[name][1:])
    why = why.replace('<path>', f'{done.flash.parent}/package/one.bin')
    assert (done.outcome.status, done.outcome.out) == (status, VERSION)
    assert done.outcome.err == f'{why}error sending commands {code}\n' + FIREHOSE_FAILED
    assert done.received() == ['nop', 'configure', 'erase', 'program']  # and the reset, which it takes for data


def test_image_that_shrinks_while_it_is_sent_fails_the_run(result_of):
    outcome, data, package = result_of('shrinks in the data')
    assert outcome.status == 234
    assert outcome.out == VERSION + 'Updating image large\n0.00% completed\r33.00% completed\r66.00% completed\r'
    assert outcome.err == ('error 0 reading 1048576 bytes (read 0 bytes)\n'
                           f'file of 3145728 bytes has changed to 2097152: {package}/large.bin\n'
                           'error sending commands -22\n' + FIREHOSE_FAILED)
    assert data == bytes(2 * MIB) + RESET


def test_image_that_grows_while_it_is_sent_fails_the_run(result_of):
    outcome, data, package = result_of('grows in the data')
    assert outcome.status == 234
    assert outcome.out == (VERSION + 'Updating image large\n0.00% completed\r33.00% completed\r66.00% completed\r'
                           'Sent 3145728 bytes\n')
    assert outcome.err == (f'file of 3145728 bytes has changed to 4194304: {package}/large.bin\n'
                           'error sending commands -22\n' + FIREHOSE_FAILED)
    assert data == bytes(3 * MIB) + RESET


def test_programmer_that_vanishes_before_its_upload_fails_the_run(result_of):
    done = result_of('programmer vanishes')
    path = done.flash.parent / 'package' / PROGRAMMER
    assert (done.outcome.status, done.outcome.out) == (254, VERSION + 'Sending programmer\n')
    assert done.outcome.err == (f'file is not there: {path}\nunable to open programmer image 4294967294\n'
                                'error in updating the programmer\n'
                                'unable to send the programmer through SAHARA\n' + FAILED)
    assert done.received() == ['hello_response', 'reset']
    assert not path.exists()


def test_programmer_that_shrinks_during_its_upload_fails_the_run(result_of):
    done = result_of('programmer shrinks')
    path = done.flash.parent / 'package' / PROGRAMMER
    assert done.outcome.status == 234
    assert done.outcome.out == VERSION + 'Sending programmer\n0.00% completed\r20.00% completed\r40.00% completed\r'
    assert done.outcome.err == ('error 0 reading 4096 bytes (read 100 bytes)\n'
                                f'3996 bytes that were asked for are not in {path}\n'
                                'error in updating the programmer\n'
                                'unable to send the programmer through SAHARA\n' + FAILED)
    assert done.received() == ['hello_response', 'data', 'data', 'reset']


def test_programmer_that_is_written_anew_during_its_upload_fails_the_run(result_of):
    done = result_of('programmer rewritten')
    path = done.flash.parent / 'package' / PROGRAMMER
    assert done.outcome.status == 234
    assert done.outcome.err == (f'file has changed: {path}\nerror in updating the programmer\n'
                                'unable to send the programmer through SAHARA\n' + FAILED)
    assert done.received() == ['hello_response'] + ['data'] * 5 + ['reset']
