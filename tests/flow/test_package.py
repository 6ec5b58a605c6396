"""Firmware packages, good and bad. No device is ever touched: every run asks for a dry run."""
import re

import pytest

import packages
from harness import COMPLETED, FAILED, VERSION, debug_line, run
from opened_files import counted_opens
from packages import ERASE, PLATFORM_1, PROGRAMMER, RAWPROGRAM, program

BAILED_OUT = 'dry-run requested, bailing out\n'
NO_VERSION = 'unable to get package version of the firmware to be flashed\n' + FAILED
NO_LIST = 'error in building the image list\n' + FAILED


def dry_run(*source):
    return run(*source, '--port', '/nowhere', '--force', '--dry-run')


def check_good(outcome, err=''):
    assert (outcome.status, outcome.out, outcome.err) == (0, VERSION + COMPLETED, err + BAILED_OUT)


def check_bad(outcome, status, err):
    assert (outcome.status, outcome.out, outcome.err) == (status, VERSION, err)


def bad_description(folder, path, why, code='4294967294'):
    return f'{why}unable to parse content xml file {path}, err = {code}\n' + NO_LIST


def test_good_package_completes_with_the_dry_run_line(package):
    check_good(dry_run(package))


def test_each_text_of_a_package_is_opened_once(folder):
    packages.one_image(folder)
    with counted_opens(folder) as opens:
        check_good(dry_run(folder))
    assert opens == {'contents.xml': 1, 'information.contents': 1, RAWPROGRAM: 1, PROGRAMMER: 1, 'one.bin': 1}


def test_meta_names_the_description(package):
    check_good(dry_run('--meta', package / 'contents.xml'))


def test_description_may_have_any_name(package, folder):
    packages.one_image(folder)
    (folder / 'contents.xml').rename(folder / 'other.name')
    check_good(dry_run('--meta', folder / 'other.name'))


def test_flat_finds_the_rawprogram_file_beside_the_programmer(package):
    check_good(dry_run('--flat', package / PROGRAMMER))


def test_flat_does_not_read_the_description(folder):
    packages.one_image(folder)
    (folder / 'contents.xml').write_text('nothing of use')
    check_good(dry_run('--flat', folder / PROGRAMMER))


def test_flat_without_a_rawprogram_file_is_refused(folder):
    packages.one_image(folder)
    (folder / RAWPROGRAM).rename(folder / 'rawprogram_other.xml')
    check_bad(dry_run('--flat', folder / PROGRAMMER), 234, 'unable to find partition_file_path\n' + NO_LIST)


def test_flat_takes_a_name_that_holds_the_two_parts_anywhere(folder):
    packages.one_image(folder)
    (folder / RAWPROGRAM).rename(folder / 'my.xml_of_rawprogram_nand.old')
    check_good(dry_run('--flat', folder / PROGRAMMER))


def test_flat_in_the_working_directory_needs_no_path(package, monkeypatch):
    monkeypatch.chdir(package)
    check_good(dry_run('--flat', PROGRAMMER))


def test_directory_of_a_programmer_alone_is_taken_as_flat(folder):
    packages.one_image(folder)
    (folder / 'contents.xml').unlink()
    (folder / PROGRAMMER).rename(folder / 'prog_nand_firehose_9x06.mbn')
    check_good(dry_run(folder))


def test_description_is_preferred_to_a_programmer_alone(folder):
    packages.one_image(folder)
    (folder / 'prog_nand_firehose_9x06.mbn').write_bytes(b'other')
    (folder / 'contents.xml').write_text('<?xml version="1.0"?>\n<contents>\n</contents>\n')
    check_bad(dry_run(folder), 254, bad_description(folder, f'{folder}//contents.xml', 'programmer_path not found\n'))


def test_directory_with_neither_file_is_not_supported(folder):
    check_bad(dry_run(folder), 254, f'firmware not supported: {folder}\n' + FAILED)


def test_directory_is_named_as_it_was_given(folder):
    check_bad(dry_run(f'{folder}/./'), 254, f'firmware not supported: {folder}/./\n' + FAILED)


def test_information_file_is_needed(folder):
    packages.one_image(folder)
    (folder / 'information.contents').unlink()
    check_bad(dry_run(folder), 254,
              f'get_new_pkgver: cannot open the file {folder}/information.contents\n' + NO_VERSION)


@pytest.mark.parametrize('text', ['', 'pkg ver : 49.01.103\n', 'PKG VER: 49.01.103\n', ' PKG VER : 49.01.103\n',
                                  'PKG VER :49.01.103\n', '\n\nPKG VERSION : 49.01.103\n', '\0PKG VER : 49.01.103\n'])
def test_information_file_without_a_version_line_is_refused(text, folder):
    packages.write(folder, [ERASE], information=text)
    check_bad(dry_run(folder), 254, 'search_pkgv: no PKG VER found in the information.contents file\n' + NO_VERSION)


def test_version_line_that_ends_the_file_in_its_prefix_is_refused(folder):
    packages.write(folder, [ERASE], information='PKG VER : ')
    check_bad(dry_run(folder), 254, 'search_pkgv: empty PKG VER in the information.contents file\n' + NO_VERSION)


@pytest.mark.parametrize('version, complaint', [
    ('', 'invalid length of version: '),
    ('nonsense', 'invalid length of version: nonsense'),
    ('49.01.10x', 'invalid characters in version: 49.01.10x'),
    ('49.01.103-B004xy', 'author suffix not supported for this platform: 1'),
    ('50.01.103-B004x', 'author suffix not supported for this platform: 2'),
])
def test_malformed_version_is_logged_and_tolerated(version, complaint, folder):
    packages.one_image(folder, version=version)
    check_good(dry_run(folder), f'{complaint}\nunsupported platform: {version}; reason: -22\n')


@pytest.mark.parametrize('version', ['48.01.103', '25.31.103'])
def test_unknown_platform_is_logged_and_tolerated(version, folder):
    packages.one_image(folder, version=version)
    check_good(dry_run(folder), f'unsupported platform: {version}\nunsupported platform: {version}; reason: -102\n')


@pytest.mark.parametrize('version', ['25.30.123', '49.01.103', '49.01.103-B001', '50.99.999', '25.30.123-B001xyz'])
def test_known_version_is_accepted_silently(version, folder):
    packages.one_image(folder, version=version)
    check_good(dry_run(folder))


def test_version_line_may_stand_behind_others_and_the_first_one_counts(folder):
    packages.write(folder, [ERASE], information=f'one\r\n\nPKG VER : {PLATFORM_1}\nPKG VER : nonsense\n')
    check_good(dry_run(folder))


def test_version_line_without_a_line_feed_loses_its_last_character(folder):
    packages.write(folder, [ERASE], information='PKG VER : 49.01.103X')
    outcome = run(folder, '--port', '/nowhere', '--force', '--dry-run', '--debug')
    line = debug_line('DBG', '../main.c', 'search_pkgv', 'PKG VER to be flashed: 49.01.103')
    assert outcome.status == 0
    assert re.search(f'^{line}$', outcome.out, re.MULTILINE)


def test_missing_description_of_meta_is_refused_and_not_created(folder):
    packages.one_image(folder)
    path = folder / 'contents.xml'
    path.unlink()
    why = (f"error 2 No such file or directory opening file '{path}'\n"
           f'unable to open xml file {path}, error = 4294967294\n')
    check_bad(dry_run('--meta', path), 234, bad_description(folder, path, why, '4294967274'))
    assert not path.exists()


def test_description_that_is_a_directory_is_refused(folder):
    packages.one_image(folder)
    (folder / 'contents.xml').unlink()
    (folder / 'contents.xml').mkdir()
    path = f'{folder}//contents.xml'
    why = f"'{path}' is not a regular file\nunable to open xml file {path}, error = 4294967274\n"
    check_bad(dry_run(folder), 234, bad_description(folder, path, why, '4294967274'))


@pytest.mark.parametrize('text, why', [
    ('', 'programmer_path not found\n'),
    ('<?xml?>\n' + packages.entry('device_programmer', 'p'), 'partition_file_path not found\n'),
    ('<?xml?>\n' + packages.entry('partition_file', 'r'), 'programmer_path not found\n'),
    (packages.entry('device_programmer', 'p') + packages.entry('partition_file', 'r'), 'programmer_path not found\n'),
    ('<?xml?>\n<device_programmer>\n<other>\n<file_name>p</file_name>\n', 'programmer_path not found\n'),
    ('<?xml?>\n<device_programmer>\n<file_name>p\n',
     'bogus line:\n<file_name>p\nprogrammer_path file_name not found\n'),
    ('<?xml?>\n<partition_file>\n<file_name></file_name>\n',
     'bogus line:\n<file_name></file_name>\npartition_file_path file_name not found\n'),
])
def test_incomplete_description_is_refused(text, why, folder):
    packages.one_image(folder)
    (folder / 'contents.xml').write_text(text)
    check_bad(dry_run(folder), 254, bad_description(folder, f'{folder}//contents.xml', why))


def test_rawprogram_file_in_a_missing_folder_is_refused(folder):
    packages.one_image(folder)
    (folder / 'contents.xml').write_text(packages.contents_xml(rawprogram='missing/raw.xml'))
    path = f'{folder}/missing/raw.xml'
    check_bad(dry_run(folder), 254, f"error 2 No such file or directory opening file '{path}'\n"
              f'unable to open partition file {path}, err = 4294967294\n' + NO_LIST)


def test_rawprogram_file_must_begin_as_xml(folder):
    packages.one_image(folder)
    (folder / RAWPROGRAM).write_text(f'no markup\n{ERASE}\n')
    check_bad(dry_run(folder), 234, f'invalid xml:\nno markup\nfile {folder}/{RAWPROGRAM}\n' + NO_LIST)


def test_first_missing_image_is_refused(folder):
    packages.write(folder, [program('here'), program('gone'), program('gone too')], {'here': b'1'})
    check_bad(dry_run(folder), 234,
              'file does not exist for image\nimage list validation failure\n' + NO_LIST)


def test_missing_image_of_an_erase_line_is_refused_as_well(folder):
    packages.write(folder, ['<erase label="x" filename="gone"/>'])
    check_bad(dry_run(folder), 234,
              'file does not exist for image\nimage list validation failure\n' + NO_LIST)


def test_missing_image_is_dumped_with_debug(folder):
    packages.write(folder, [program('gone', 'boot')])
    outcome = run(folder, '--port', '/nowhere', '--force', '--dry-run', '--debug')
    dump = ['Label: boot', '\tFilename: gone', '\tCommand: ' + program('gone', 'boot'),
            '\tsector_size_in_bytes: 4096']
    expected = '\n'.join(debug_line('DBG', '../xml.c', 'dump_image', line) for line in dump)
    assert outcome.status == 234
    assert re.search(f'^{expected}$', outcome.out, re.MULTILINE)


@pytest.mark.parametrize('line', ['<!-- ' + program('gone') + ' -->', program('', ''),
                                  'filename="gone"',
                                  '<!--\n' + program('gone') + '\n-->'])
def test_line_that_is_no_image_needs_no_file(line, folder):
    packages.write(folder, [ERASE, line])
    check_good(dry_run(folder))


def test_200_images_are_accepted(folder):
    packages.write(folder, [program('one.bin')] * 200, {'one.bin': b'1'})
    check_good(dry_run(folder))


def test_201_images_are_refused(folder):
    packages.write(folder, [program('one.bin')] * 201, {'one.bin': b'1'})
    check_bad(dry_run(folder), 244, 'Images > MAX_IMAGE_NUMBER, increase the define\n' + NO_LIST)


def test_attribute_of_1024_characters_is_complained_about_and_its_line_refused(folder):
    packages.write(folder, [f'<program label="{"x" * 1024}" filename=""/>'])
    check_bad(dry_run(folder), 234, 'attribute size 1024 > max_dest_size\n'
              f'command of more than 1023 characters in {folder}/{RAWPROGRAM}: <program label="{"x" * 44}...\n' + FAILED)


@pytest.mark.parametrize('line, why', [
    ('<program SECTOR_SIZE_IN_BYTES="512KB" />', 'invalid conversion\n'),
    ('<program SECTOR_SIZE_IN_BYTES="99999999999999999999" />', 'unable to perform conversion\n'),
    ("<program SECTOR_SIZE_IN_BYTES='512' />", "unable to find '\"', instead found '\n"),
    ('<program label ="x" />', "unable to find '=', instead found  \n"),
])
def test_malformed_attribute_is_complained_about_and_tolerated(line, why, folder):
    packages.write(folder, [line])
    check_good(dry_run(folder), why)


def test_enter_qdl_does_not_prevent_the_dry_run(package):
    check_good(run(package, '--port', '/nowhere', '--force', '--dry-run', '--enter-qdl'))


def test_dry_run_of_a_modem_in_download_mode(package):
    check_good(run(package, '--port', '/nowhere', '--force', '--dry-run', '--skip-enter-qdl', '--pcie'))


def test_dry_run_with_otp_ends_with_the_otp_line(package):
    outcome = run(package, '--port', '/nowhere', '--force', '--dry-run', '--otp')
    assert (outcome.status, outcome.out) == (0, VERSION + '\nOTP values read successfully\n')
    assert outcome.err == BAILED_OUT


def test_dry_run_writes_nothing_into_the_package(folder):
    packages.one_image(folder)
    before = {path.name: path.read_bytes() for path in folder.iterdir()}
    check_good(dry_run(folder))
    assert {path.name: path.read_bytes() for path in folder.iterdir()} == before
