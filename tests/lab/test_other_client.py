"""The simulated modem before a client that nobody here wrote: qdl, as Debian has it. What it accepts was not fitted to
what kestrel accepts.

It ends every series of answers with a time-out of its own, five seconds for the first one.
"""
import shutil
import subprocess

import lab
import packages
import pytest

pytestmark = pytest.mark.skipif(shutil.which('qdl') is None, reason='no qdl')

IMAGE = packages.content('one', 10000)
SECTORS = 3
LAYOUT = ('<?xml version="1.0" ?>\n<data>\n'
          '  <erase PAGES_PER_BLOCK="64" SECTOR_SIZE_IN_BYTES="4096" num_partition_sectors="640" '
          'physical_partition_number="0" start_sector="0"/>\n'
          '  <program PAGES_PER_BLOCK="64" SECTOR_SIZE_IN_BYTES="4096" filename="one.bin" label="one" last_sector="639" '
          'num_partition_sectors="640" physical_partition_number="0" start_sector="0"/>\n</data>\n')


def flash(folder, modem):
    """Calls it in a folder of its own; what it printed, and its exit status."""
    (folder / packages.PROGRAMMER).write_bytes(lab.PROGRAMMER)
    (folder / 'one.bin').write_bytes(IMAGE)
    (folder / 'rawprogram.xml').write_text(LAYOUT)
    done = subprocess.run(['qdl', '--debug', '--storage', 'nand', packages.PROGRAMMER, 'rawprogram.xml'], cwd=folder,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=50, check=False)
    return done.returncode, done.stdout + '\n' + modem.story()


def is_flashed(modem):
    """The image, and whatever fills its last sector."""
    data = (modem.flash / '001-program.bin').read_bytes()
    return data[:len(IMAGE)] == IMAGE and len(data) == 4096 * SECTORS


def test_it_flashes_the_modem(tmp_path):
    with lab.download_modem(tmp_path / 'modem', *lab.PROGRAMMER_SIZE) as modem:
        status, text = flash(tmp_path, modem)
        assert status == 0, text
        assert modem.wait() == 0
        assert is_flashed(modem), text
        assert (modem.flash / 'programmer.bin').read_bytes() == lab.PROGRAMMER
        assert modem.kinds('firehose') == ['transfer', 'configure', 'transfer', 'erase', 'transfer', 'program',
                                           *['transfer'] * 24, 'data', 'transfer', 'transfer', 'power']
        # The escaped characters of a log line are what they stand for.
        assert 'LOG: INFO: Programmer "KX910" 4.2 (NAND & nothing else)\n' in text
        assert 'LOG: INFO: Programmed 12288 bytes\n' in text


def test_it_takes_a_counter_offer_after_a_64_bit_upload(tmp_path):
    with lab.download_modem(tmp_path / 'modem', *lab.PROGRAMMER_SIZE, '--payload', '8192', '--request-bits', '64',
                            '--read-order', 'shuffle') as modem:
        status, text = flash(tmp_path, modem)
        assert status == 0, text
        assert modem.wait() == 0
        assert is_flashed(modem), text
        assert 'LOG: ERROR: MaxPayloadSizeToTargetInBytes 1048576 is not supported\n' in text


def test_it_understands_a_refusal(tmp_path):
    with lab.download_modem(tmp_path / 'modem', *lab.PROGRAMMER_SIZE, '--fault', 'firehose.program=nak') as modem:
        status, text = flash(tmp_path, modem)
        assert status == 1, text
        assert 'LOG: INFO: Calling handler for program\nLOG: ERROR: not carried out\n' in text
        assert 'data' not in modem.kinds('firehose')


def test_plain_answers_are_not_enough_for_it(tmp_path):
    """Which is why they are not what the modem gives unless it is asked."""
    with lab.download_modem(tmp_path / 'modem', *lab.PROGRAMMER_SIZE, '--plain-answers') as modem:
        status, text = flash(tmp_path, modem)
        assert status == 1, text
        assert 'program' not in modem.kinds('firehose')
