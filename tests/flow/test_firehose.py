"""Whole runs of the programmer over the serial port, as they should be: what is written, what is printed."""
import re
import subprocess
import sys
from functools import partial

import pytest

import packages
from firehose_texts import (ACK, CONFIGURE, ERASE_REQUEST, NAK, NOP, ONE_IMAGE_SENT, PROGRAM_REQUEST, RESET,
                            TARGET_RESET)
from harness import COMPLETED, SOURCE, VERSION, debug_line, flash, run
from packages import ERASE, ONE_IMAGE, ONE_IMAGE_IN_FLASH, PLATFORM_0, POWER_RESET, content, program
from scripted_modem import ScriptedModem

MIB = 1048576

ONE_IMAGE_TEXT = VERSION + 'Updating image one\n0.00% completed\rSent 10000 bytes\n' + COMPLETED

# size of an image: its sectors of 4096 bytes, its progress lines in payloads of 1 MiB
SIZES = {
    0: (0, ''),
    1: (1, '0.00% completed\r'),
    4095: (1, '0.00% completed\r'),
    4096: (1, '0.00% completed\r'),
    4097: (2, '0.00% completed\r'),
    10000: (3, '0.00% completed\r'),
    MIB - 1: (256, '0.00% completed\r'),
    MIB: (256, '0.00% completed\r'),
    MIB + 1: (257, '0.00% completed\r99.00% completed\r'),
    2 * MIB: (512, '0.00% completed\r50.00% completed\r'),
    3 * MIB + 4097: (770, '0.00% completed\r33.00% completed\r66.00% completed\r99.00% completed\r'),
}


def one(folder, debug=(), more=(), version=packages.PLATFORM_1, sim=()):
    package = packages.one_image(folder / 'package', *more, version=version)
    return flash(folder, package, *debug, sim=sim)


def of_images(folder, images, sim=(), sector=4096):
    lines = [program(name, name, sector) for name in images]
    return flash(folder, packages.write(folder / 'package', lines, images), sim=sim)


def of_lines(folder, lines):
    return flash(folder, packages.write(folder / 'package', lines, {'one.bin': ONE_IMAGE}))


def sample(folder):
    subprocess.run([sys.executable, SOURCE / 'examples/make-sample-package', folder / 'package'], check=True,
                   stdout=subprocess.DEVNULL)
    return flash(folder, folder / 'package')


def scripted(folder, steps):
    """A run against a script, and all that the modem received."""
    package = packages.one_image(folder / 'package')
    with ScriptedModem(steps) as modem:
        outcome = run(package, '--port', modem.port, '--force', '--pcie', '--skip-enter-qdl')
    return outcome, modem.received


def every_byte(folder):
    return scripted(folder, [(len(NOP), [ACK]), (len(CONFIGURE), [ACK]), (len(ERASE_REQUEST), [ACK]),
                             (len(PROGRAM_REQUEST), [ACK]), (12288, [ACK]), (len(RESET), [ACK, TARGET_RESET])])


def glued_to_logs(folder):
    log = b'<data><log value="line"/></data>'
    return scripted(folder, [(len(NOP), [log, log + ACK + log]), (len(CONFIGURE), [log, ACK + log]),
                             (len(ERASE_REQUEST), [ACK]), (len(PROGRAM_REQUEST), [log + log + ACK]),
                             (12288, [ACK + log]), (len(RESET), [TARGET_RESET + ACK])])


def ack_and_nak_together(folder):
    return scripted(folder, [(len(NOP), [NAK + ACK]), (len(CONFIGURE), [ACK + NAK]),
                             (len(ERASE_REQUEST), [NAK + ACK]), (len(PROGRAM_REQUEST), [ACK]), (12288, [ACK]),
                             (len(RESET), [ACK, TARGET_RESET])])


CASES = {
    'one': one,
    'debug': partial(one, debug=['--debug']),
    'sample': sample,
    'every byte': every_byte,
    'glued to logs': glued_to_logs,
    'ack and nak': ack_and_nak_together,
    'sizes': partial(of_images, images={f'{size}.bin': content(size, size) for size in SIZES}),
    '200 images': partial(of_images, images={f'{i}.bin': content(i, 10 + i) for i in range(200)}),
    'sector 512': partial(of_images, images={'a.bin': content('a', 600)}, sector=512),
    'counter-offer': partial(of_images, images={'a.bin': content('a', 40000), 'b.bin': content('b', 16384)},
                             sim=['--payload', '16384']),
    'odd counter-offer': partial(of_images, images={'a.bin': content('a', 600)}, sector=512,
                                 sim=['--payload', '2000']),
    'offer of one byte': partial(of_images, images={'a.bin': content('a', 30)}, sector=1, sim=['--payload', '1']),
    'platform 0': partial(one, version=PLATFORM_0, sim=['--platform', '0']),
    'platform 0 debug': partial(one, version=PLATFORM_0, sim=['--platform', '0'], debug=['--debug']),
    'logs': partial(one, sim=['--log-start', '2', '--log-before', '3', '--log-after', '2']),
    'glued logs': partial(one, sim=['--log-before', '3', '--log-after', '2', '--delivery', 'glued']),
    'late nop': partial(one, sim=['--fault', 'firehose.nop=late:2500']),
    'late data': partial(one, sim=['--fault', 'firehose.data=late:2500']),
    'own reset': partial(one, more=[POWER_RESET]),
    'only a reset': partial(of_lines, lines=[POWER_RESET]),
    'other lines': partial(of_lines, lines=['<patch value="0"/>', program('', 'skipped'), '<erase label="all"/>',
                                            ERASE[:-2] + 'filename="one.bin" />', '<!-- ' + ERASE + ' -->',
                                            '<zeroout/>', program('one.bin', ''), '<!--', program('one.bin'), '-->']),
}


def good(session, sim_status=0):
    """A run that came to its good end; what it printed."""
    assert (session.outcome.status, session.outcome.err, session.sim_status) == (0, '', sim_status)
    return session.outcome.out


def padded(data, size):
    return data + b'\xff' * (size - len(data))


def test_run_prints_the_image_the_progress_and_the_end(result_of):
    assert good(result_of('one')) == ONE_IMAGE_TEXT


def test_run_writes_the_image_padded_to_sectors(result_of):
    assert result_of('one').images() == [ONE_IMAGE_IN_FLASH]


def test_requests_come_in_the_order_of_the_package(result_of):
    session = result_of('one')
    assert session.received() == ['nop', 'configure', 'erase', 'program', 'data', 'power']
    assert [kind for kind in session.sent() if kind != 'log'] == ['ack'] * 6
    assert session.sent()[-1] == 'log'  # the target reset


def test_debug_tells_each_chunk_instead_of_the_progress(result_of):
    session = result_of('debug')
    assert session.outcome.status == 0
    path = session.flash.parent / 'package/one.bin'
    lines = [debug_line('INF', '../firehose.c', 'send_command_with_binary', 'Updating image one'),
             debug_line('DBG', '../firehose.c', 'send_command_with_binary', f'sending binary {path}'),
             debug_line('DBG', '../firehose.c', 'send_binary', 'Sending 10000 bytes at offset 0'),
             debug_line('DBG', '../firehose.c', 'send_binary', 'Actually sending max_payload_size_to_target_in_bytes '
                        '12288 bytes at offset 0 due to padding'),
             debug_line('INF', '../firehose.c', 'send_binary', 'Sent 10000 bytes')]
    assert re.search('^' + '\n'.join(lines) + '$', session.outcome.out, re.MULTILINE)
    assert '% completed' not in session.outcome.out


def test_debug_tells_that_the_reset_was_answered(result_of):
    answered = debug_line('DBG', '../firehose.c', 'wait_reset_response',
                          'successfully received ack and bsp_target_reset about the reset command')
    assert re.search(f'^{answered}$', result_of('debug').outcome.out, re.MULTILINE)


def test_every_byte_that_is_sent(result_of):
    outcome, received = result_of('every byte')
    assert (outcome.status, outcome.out, outcome.err) == (0, ONE_IMAGE_TEXT, '')
    assert received == ONE_IMAGE_SENT


@pytest.mark.parametrize('case', ['glued to logs', 'ack and nak'])
def test_ack_counts_wherever_it_stands_in_what_arrives(case, result_of):
    outcome, received = result_of(case)
    assert (outcome.status, outcome.out, outcome.err) == (0, ONE_IMAGE_TEXT, '')
    assert received == ONE_IMAGE_SENT


def test_sample_package_is_in_flash_afterwards(result_of):
    session = result_of('sample')
    good(session)
    compare = [sys.executable, SOURCE / 'examples/compare-flash', session.flash.parent / 'package', session.flash]
    report = subprocess.run(compare, capture_output=True, check=False, text=True)
    assert report.returncode == 0, report.stdout
    assert report.stdout.endswith('All 5 images in the simulated flash equal their files.\n')


def test_comparison_with_the_flash_notices_a_wrong_byte(result_of):
    session = result_of('sample')
    copy = session.flash.parent / 'damaged'
    copy.mkdir()
    for path in session.flash.iterdir():
        data = bytearray(path.read_bytes())
        if path.name == '009-program.bin':
            data[MIB] ^= 1
        (copy / path.name).write_bytes(data)
    compare = [sys.executable, SOURCE / 'examples/compare-flash', session.flash.parent / 'package', copy]
    assert subprocess.run(compare, stdout=subprocess.DEVNULL, check=False).returncode == 1


@pytest.mark.parametrize('index, size', enumerate(SIZES))
def test_image_of_awkward_size(index, size, result_of):
    session = result_of('sizes')
    sectors, progress = SIZES[size]
    assert session.images()[index] == padded(content(size, size), sectors * 4096)
    assert f' num_partition_sectors="{sectors}" ' in session.requests('program')[index]
    assert f'Updating image {size}.bin\n{progress}Sent {size} bytes\n' in good(session)


def test_200_images_are_all_written_in_order(result_of):
    session = result_of('200 images')
    text = ''.join(f'Updating image {i}.bin\n0.00% completed\rSent {10 + i} bytes\n' for i in range(200))
    assert good(session) == VERSION + text + COMPLETED
    assert session.images() == [padded(content(i, 10 + i), 4096) for i in range(200)]


def test_image_is_padded_to_its_own_sector_size(result_of):
    session = result_of('sector 512')
    good(session)
    assert session.images() == [padded(content('a', 600), 1024)]
    assert ' num_partition_sectors="2" ' in session.requests('program')[0]


def test_counter_offer_sets_the_payload_and_is_not_asked_for_again(result_of):
    session = result_of('counter-offer')
    assert good(session) == (VERSION + 'Updating image a.bin\n0.00% completed\r40.00% completed\r81.00% completed\r'
                             'Sent 40000 bytes\nUpdating image b.bin\n0.00% completed\rSent 16384 bytes\n' +
                             COMPLETED)
    assert session.images() == [padded(content('a', 40000), 40960), content('b', 16384)]
    assert [text.encode() for text in session.requests('configure')] == [CONFIGURE]


def test_counter_offer_that_is_no_multiple_of_the_sector_size(result_of):
    session = result_of('odd counter-offer')
    assert good(session) == (VERSION + 'Updating image a.bin\n0.00% completed\r'
                             'remainder for max_payload_size_to_target_in_bytes = 464\nSent 600 bytes\n' + COMPLETED)
    assert session.images() == [padded(content('a', 600), 1024)]


def test_payload_of_one_byte_is_used(result_of):
    session = result_of('offer of one byte')
    good(session)
    assert session.images() == [content('a', 30)]


def test_platform_0_needs_no_target_reset(result_of):
    session = result_of('platform 0')
    assert good(session) == ONE_IMAGE_TEXT
    assert [kind for kind in session.sent() if kind != 'log'] == ['ack'] * 6
    assert session.sent()[-1] == 'ack'


def test_platform_0_does_not_wait_for_the_target_reset(result_of):
    answered = debug_line('DBG', '../firehose.c', 'wait_reset_response',
                          'successfully received ack about the reset command')
    assert re.search(f'^{answered}$', result_of('platform 0 debug').outcome.out, re.MULTILINE)


@pytest.mark.parametrize('case', ['logs', 'glued logs', 'late nop', 'late data'])
def test_log_lines_and_late_answers_change_nothing(case, result_of):
    session = result_of(case)
    assert good(session) == ONE_IMAGE_TEXT
    assert session.images() == [ONE_IMAGE_IN_FLASH]


def test_own_reset_of_the_package_is_the_only_one(result_of):
    session = result_of('own reset')
    assert good(session) == ONE_IMAGE_TEXT
    assert session.requests('power') == [
        '<?xml version="1.0"?>\n<data>\n<power value="reset" DelayInSeconds="1"/>\n</data>\n']


def test_package_of_a_reset_alone_sends_one_reset(result_of):
    session = result_of('only a reset')
    assert good(session) == VERSION + COMPLETED
    assert session.received() == ['nop', 'configure', 'power']


def test_other_lines_are_requests_without_data(result_of):
    session = result_of('other lines')
    elements = [event['element'] for event in session.events if event['dir'] == 'rx' and 'element' in event]
    assert elements == ['nop', 'configure', 'patch', 'erase', 'erase', 'zeroout', 'program', 'power']
    assert session.images() == [ONE_IMAGE_IN_FLASH]


def test_erase_line_with_a_file_is_sent_as_it_is(result_of):
    assert result_of('other lines').requests('erase')[1] == (
        '<?xml version="1.0"?>\n<data>\n<erase PAGES_PER_BLOCK="64" SECTOR_SIZE_IN_BYTES="4096" '
        'num_partition_sectors="64" start_sector="0" filename="one.bin" />\n</data>\n')


def test_image_without_a_label_has_no_headline(result_of):
    assert good(result_of('other lines')) == VERSION + '0.00% completed\rSent 10000 bytes\n' + COMPLETED
