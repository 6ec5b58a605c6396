"""Firmware packages, written file by file."""
import hashlib

PROGRAMMER = 'programmer.mbn'
RAWPROGRAM = 'rawprogram_nand_test.xml'
PLATFORM_0 = '25.30.003'
PLATFORM_1 = '49.01.103'

ERASE = '<erase PAGES_PER_BLOCK="64" SECTOR_SIZE_IN_BYTES="4096" num_partition_sectors="64" start_sector="0" />'
POWER_RESET = '<power value="reset" DelayInSeconds="1"/>'


def content(name, size):
    """Bytes without any regularity, the same ones every time."""
    blocks = (hashlib.sha256(f'{name}/{i}'.encode()).digest() for i in range(size // 32 + 1))
    return b''.join(blocks)[:size]


def program(filename, label='image', sector=4096, sectors='640'):
    sector_text = '' if sector is None else f'SECTOR_SIZE_IN_BYTES="{sector}" '
    return (f'<program {sector_text}label="{label}" filename="{filename}" '
            f'num_partition_sectors="{sectors}" start_sector="0" />')


def entry(element, name):
    return f'<{element}>\n<file_name>{name}</file_name>\n</{element}>\n'


def contents_xml(programmer=PROGRAMMER, rawprogram=RAWPROGRAM):
    return ('<?xml version="1.0"?>\n<contents>\n' + entry('device_programmer', programmer) +
            entry('partition_file', rawprogram) + '</contents>\n')


def rawprogram_xml(lines):
    return '<?xml version="1.0" ?>\n<data>\n' + ''.join(line + '\n' for line in lines) + '</data>\n'


def write(folder, lines, images=None, version=PLATFORM_1, programmer=b'programmer', information=None):
    """Writes a whole package: the lines of its rawprogram file and its images (name: bytes)."""
    folder.mkdir(parents=True, exist_ok=True)
    (folder / 'contents.xml').write_text(contents_xml())
    (folder / 'information.contents').write_text(f'PKG VER : {version}\n' if information is None else information)
    (folder / RAWPROGRAM).write_text(rawprogram_xml(lines))
    (folder / PROGRAMMER).write_bytes(programmer)
    for name, data in (images or {}).items():
        (folder / name).write_bytes(data)
    return folder


ONE_IMAGE = content('one', 10000)
ONE_IMAGE_IN_FLASH = ONE_IMAGE + b'\xff' * 2288  # three sectors of 4096 bytes


def one_image(folder, *more_lines, version=PLATFORM_1):
    """An erase line and an image of 10000 bytes."""
    return write(folder, [ERASE, program('one.bin', 'one'), *more_lines], {'one.bin': ONE_IMAGE}, version)
