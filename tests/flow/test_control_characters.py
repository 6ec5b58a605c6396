"""Control characters that a modem or a package brings along: none of them reaches a text log raw, in JSON they are the
text's own again."""
import re

import pytest

import fake_tree
import packages
from firehose_texts import ACK, COMMAND_FAILED, CONFIGURE, ERASE_REQUEST, NOP, OTP_REQUEST, RESET, TARGET_RESET
from harness import COMPLETED, KESTREL_DISCOVERING, VERSION, Sim, flash, json_lines, run
from packages import ERASE, content, program
from scripted_modem import ScriptedModem

# Clears the screen; sets the title; C1's way to say ESC [, raw and as UTF-8; the end of a line that was overwritten.
CLEAR = '\x1b[2J'
TITLE = '\x1b]0;title\x07'
C1 = b'\x9b31m\xc2\x9b32m'
AGAIN = '\rFirmware update completed'
# Whatever else a text may hold: a carriage return only behind a percentage.
RAW = re.compile(rb'[\x00-\x08\x0b-\x0c\x0e-\x1f\x7f]|(?<!% completed)\r|\xc2[\x80-\x9f]')

FAKE_TREE = pytest.mark.skipif(fake_tree.why_not() != '', reason=f'no mount namespace: {fake_tree.why_not()}')
PORTS = {'00': 'ttyUSB0', '01': 'ttyUSB1', '02': 'ttyUSB2'}


def label(folder, *arguments):
    lines = [program('one.bin', f'{CLEAR}label{AGAIN}')]
    package = packages.write(folder / 'package', lines, {'one.bin': content('one', 10)})
    return flash(folder, package, *arguments).outcome


def file_name(folder, *arguments):
    name = f'{TITLE}one.bin'
    package = packages.write(folder / 'package', [program(name, 'one')], {name: content('one', 10)})
    return flash(folder, package, *arguments, sim=['--plain-answers', '--fault', 'firehose.data=nak']).outcome


def version(folder, *arguments):
    package = packages.one_image(folder / 'package', version=f'{CLEAR}1')
    return run(package, '--port', '/dev/null', '--force', '--dry-run', *arguments)


def scripted(folder, steps, *arguments):
    with ScriptedModem(steps) as modem:
        return run(packages.one_image(folder / 'package'), '--port', modem.port, '--force', '--pcie',
                   '--skip-enter-qdl', *arguments)


def otp(folder, *arguments):
    values = [f'<log value="{CLEAR}one{AGAIN}"/>'.encode(), b'<log value="' + C1 + b'two \xe2\x82\xac"/>', ACK]
    steps = [(len(NOP), [ACK]), (len(CONFIGURE), [ACK]), (len(OTP_REQUEST), values), (len(RESET), [ACK, TARGET_RESET])]
    return scripted(folder, steps, '--otp', *arguments)


def nak(folder, *arguments):
    refusal = f'<data>\r\n<response value="NAK" why="{CLEAR}"/></data>'.encode()
    steps = [(len(NOP), [ACK]), (len(CONFIGURE), [ACK]), (len(ERASE_REQUEST), [refusal]),
             (len(RESET), [ACK, TARGET_RESET])]
    return scripted(folder, steps, *arguments)


def modem_texts(folder, *arguments):
    tree = fake_tree.FakeTree(folder)
    tree.attach_usb('1-2', 'fff0', '1001', PORTS)
    serial = tree.root / 'sys/devices/pci0000:00/usb1/1-2/serial'
    serial.write_text(f'{TITLE}0123\n')
    answers = ['--at', r'AT#CGMM=\r\n#CGMM: KX\x1B[1m\r\n\r\nOK\r\n',
               '--at', r'AT#SWPKGV=\r\n49.01.102-B002-P0A.000200\x1B[2J\r\n49.01.102\r\nP0A.000200\r\nA.00.02\r\n\r\n'
                       r'OK\r\n']
    with Sim(folder, *answers, begin='normal') as modem:
        return run(packages.one_image(folder / 'package'), '--dry-run', '--force', *arguments,
                   program=KESTREL_DISCOVERING, before=tree.enter({port: modem.port for port in PORTS.values()}))


SOURCES = {'label': label, 'file name': file_name, 'version': version, 'otp': otp, 'nak': nak}
CASES = {}
for source, case in SOURCES.items():
    for option in ([], ['--debug'], ['--json']):
        CASES[' '.join([source, *option])] = lambda folder, case=case, option=tuple(option): case(folder, *option)
if not fake_tree.why_not():
    CASES['modem --debug'] = lambda folder: modem_texts(folder, '--debug')
    CASES['modem --json'] = lambda folder: modem_texts(folder, '--json')


def events(outcome):
    """The JSON events of both streams."""
    return json_lines(outcome.out.removeprefix(VERSION)) + json_lines(outcome.err)


def messages(outcome):
    return [event['msg'] for event in events(outcome) if event['type'] == 'LOG']


@pytest.mark.parametrize('name', CASES)
def test_nothing_raw_is_written(name, result_of):
    outcome = result_of(name)
    assert RAW.findall(outcome.raw_out + outcome.raw_err) == []


@pytest.mark.parametrize('name', [f'{source} --debug' for source in SOURCES])
def test_text_is_told_with_the_numbers_of_its_control_characters(name, result_of):
    outcome = result_of(name)
    escape = r'\x1B]0;title\x07one.bin' if name.startswith('file name') else r'\x1B[2J'
    assert escape in outcome.out + outcome.err


def test_label(result_of):
    outcome = result_of('label')
    assert (outcome.status, outcome.err) == (0, '')
    assert outcome.out == (VERSION + 'Updating image \\x1B[2Jlabel\\x0DFirmware update completed\n0.00% completed\r'
                           'Sent 10 bytes\n' + COMPLETED)
    assert f'Updating image {CLEAR}label{AGAIN}' in messages(result_of('label --json'))


def test_file_name(result_of):
    outcome = result_of('file name')
    assert outcome.status == 154
    assert '/package/\\x1B]0;title\\x07one.bin\n' in outcome.err
    described = [event['description'] for event in events(result_of('file name --json')) if event['type'] == 'PROGRESS']
    assert len(described) == 1
    assert described[0].endswith(f'/package/{TITLE}one.bin')


def test_version(result_of):
    assert result_of('version').err == ('invalid length of version: \\x1B[2J1\nunsupported platform: \\x1B[2J1; '
                                        'reason: -22\ndry-run requested, bailing out\n')
    assert f'invalid length of version: {CLEAR}1' in messages(result_of('version --json'))


def test_otp_values(result_of):
    outcome = result_of('otp')
    assert (outcome.status, outcome.err) == (0, '')
    assert outcome.out == (VERSION + '\\x1B[2Jone\\x0DFirmware update completed\n\\x9B31m\\xC2\\x9B32mtwo \u20ac\n'
                           '\nOTP values read successfully\n')
    assert messages(result_of('otp --json'))[:2] == [f'{CLEAR}one{AGAIN}', '\ufffd31m\x9b32mtwo \u20ac']


def test_refusal(result_of):
    outcome = result_of('nak')
    assert outcome.status == 154
    assert outcome.err.startswith('<data>\\x0D\n<response value="NAK" why="\\x1B[2J"/></data>\n' + COMMAND_FAILED)
    assert f'<data>\r\n<response value="NAK" why="{CLEAR}"/></data>' in messages(result_of('nak --json'))


@FAKE_TREE
def test_modem(result_of):
    lines = result_of('modem --debug').out.split('\n')
    for text in ['USB serial: \\x1B]0;title\\x070123', 'Model name: KX\\x1B[1m',
                 'Versions: 49.01.102-B002-P0A.000200\\x1B[2J;49.01.102;P0A.000200;A.00.02']:
        assert len([line for line in lines if line.endswith(f'print_modem() {text}')]) == 1
    added = [event['modem'][0] for event in events(result_of('modem --json')) if event['type'] == 'ADD']
    assert [(modem['usb_serial'], modem['model_name']) for modem in added] == [(f'{TITLE}0123', 'KX\x1b[1m')]
