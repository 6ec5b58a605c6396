"""A flash programmer that refuses, stays silent, leaves or talks nonsense: what is printed, what the run ends
with, and that the modem is always reset once."""
import re
import signal
import time
from functools import partial

import pytest

import packages
from firehose_texts import (ACK, COMMAND_FAILED, CONFIG_FAILED, CONFIGURE, ERASE_REQUEST, HUNG_UP, NAK, NAK_TEXT,
                            NO_ACK, NOP, NOP_FAILED, ONE_IMAGE_SENT, PROGRAM_REQUEST, RESET, TARGET_RESET,
                            binary_failed)
from harness import COMPLETED, FIREHOSE_FAILED, KESTREL, VERSION, Sim, finish, flash, run, start
from packages import ERASE, ONE_IMAGE_IN_FLASH, POWER_RESET, content, program
from scripted_modem import ScriptedModem

HEADLINE = 'Updating image one\n'
DATA_SENT = HEADLINE + '0.00% completed\rSent 10000 bytes\n'
UP_TO_DATA = ['nop', 'configure', 'erase', 'program', 'data']
TOO_MANY = 'an answer too many: '
IMAGE_PATH = '<path>'  # stands for the path of the image


def faulty(folder, *faults, more=(), options=()):
    package = packages.one_image(folder / 'package', *more)
    faults = [word for fault in faults for word in ('--fault', f'firehose.{fault}')]
    # A modem that has refused its reset goes on; every other one leaves by itself.
    return flash(folder, package, sim=['--plain-answers', *faults, *options],
                 sim_leaves='firehose.reset=nak' not in faults)


# faults: exit status, standard output, standard error before the last lines, what the modem received
FAULTS = {
    'nop=nak': (154, '', NAK_TEXT + NOP_FAILED, ['nop', 'power']),
    'nop=silence': (154, '', NOP_FAILED, ['nop', 'power']),
    'nop=skip': (154, '', NOP_FAILED, ['nop', 'power']),
    'nop=garbage': (154, '', NOP_FAILED, ['nop', 'power']),
    'nop=truncate': (154, '', NOP_FAILED, ['nop', 'power']),
    'nop=hangup': (154, '', NOP_FAILED + HUNG_UP, ['nop']),
    'configure=nak': (154, '',
                      'Failed to retrieve MaxPayloadSizeToTargetInBytesSupported attribute\n' + CONFIG_FAILED,
                      ['nop', 'configure', 'power']),
    'configure=silence': (154, '', CONFIG_FAILED, ['nop', 'configure', 'power']),
    'configure=late:900': (154, '', CONFIG_FAILED, ['nop', 'configure', 'power']),
    'configure=garbage': (154, '', CONFIG_FAILED, ['nop', 'configure', 'power']),
    'configure=hangup': (154, '', CONFIG_FAILED + HUNG_UP, ['nop', 'configure']),
    'erase=nak': (154, '', NAK_TEXT + COMMAND_FAILED, ['nop', 'configure', 'erase', 'power']),
    'erase=silence': (154, '', COMMAND_FAILED, ['nop', 'configure', 'erase', 'power']),
    'erase=hangup': (154, '', COMMAND_FAILED + HUNG_UP, ['nop', 'configure', 'erase']),
    'program=hangup': (154, '', COMMAND_FAILED + HUNG_UP, ['nop', 'configure', 'erase', 'program']),
    'data=nak': (154, DATA_SENT, NAK_TEXT + binary_failed(IMAGE_PATH), UP_TO_DATA + ['power']),
    'data=silence': (154, DATA_SENT, binary_failed(IMAGE_PATH), UP_TO_DATA + ['power']),
    'data=garbage': (154, DATA_SENT, binary_failed(IMAGE_PATH), UP_TO_DATA + ['power']),
    'data=hangup': (154, DATA_SENT, binary_failed(IMAGE_PATH) + HUNG_UP, UP_TO_DATA),
}

# faults that a run survives: what it prints on standard error
HARMLESS = {
    'reset=nak': NAK_TEXT,
    'reset=silence': '',
    'reset=hangup': '',
    'reset=garbage': '',
    'target-reset=skip': '',
    'target-reset=hangup': '',
    'target-reset=garbage': '',
    'nop=repeat': '',
    'data=repeat': '',
    'erase=late:2000': '',
}


def stop_in_data(folder, fault):
    """The modem takes 200000 bytes of a large image and then no more."""
    image = content('large', 1000000)
    package = packages.write(folder / 'package', [program('large.bin', 'large')], {'large.bin': image})
    return flash(folder, package, sim=['--fault', f'firehose.data-in={fault}@200000'], sim_leaves=fault != 'stall')


def scripted(folder, steps, more=()):
    package = packages.one_image(folder / 'package', *more)
    with ScriptedModem(steps) as modem:
        outcome = run(package, '--port', modem.port, '--force', '--pcie', '--skip-enter-qdl')
    return outcome, modem.received


def refused_in_full(folder):
    """A refusal as programmers word it: a log line with the reason before it."""
    return flash(folder, packages.one_image(folder / 'package'), sim=['--fault', 'firehose.program=nak'])


def program_refused(folder):
    return scripted(folder, [(len(NOP), [ACK]), (len(CONFIGURE), [ACK]), (len(ERASE_REQUEST), [ACK]),
                             (len(PROGRAM_REQUEST), [NAK]), (len(RESET), [ACK, TARGET_RESET])])


def ack_byte_by_byte(folder):
    return scripted(folder, [(len(NOP), [bytes([byte]) for byte in ACK]), (len(RESET), [ACK, TARGET_RESET])])


def ack_cut(folder, behind):
    at = ACK.index(behind) + len(behind)
    return scripted(folder, [(len(NOP), [ACK[:at], ACK[at:]]), (len(CONFIGURE), [ACK]), (len(ERASE_REQUEST), [ACK]),
                             (len(PROGRAM_REQUEST), [ACK]), (12288, [ACK]), (len(RESET), [ACK, TARGET_RESET])])


def ack_behind_a_long_log(folder):
    log = b'<log value="' + b'x' * 3000 + b'"/>'
    return scripted(folder, [(len(NOP), [log, ACK]), (len(CONFIGURE), [ACK]), (len(ERASE_REQUEST), [ACK]),
                             (len(PROGRAM_REQUEST), [log[:1024], ACK]), (12288, [ACK]),
                             (len(RESET), [ACK, TARGET_RESET])])


def bad_sector_size(folder, sector, sim=()):
    package = packages.write(folder / 'package', [ERASE, program('one.bin', 'one', sector)], {'one.bin': b'12345'})
    return flash(folder, package, sim=sim)


def interrupted(folder):
    """SIGINT while the updater waits for the answer to its first request."""
    package = packages.one_image(folder / 'package')
    with Sim(folder, '--fault', 'firehose.nop=silence') as modem:
        updater = start(KESTREL, package, '--port', modem.port, '--force', '--pcie', '--skip-enter-qdl')
        end = time.monotonic() + 20
        while '"kind":"nop"' not in modem.transcript.read_text() and time.monotonic() < end:
            time.sleep(0.02)
        time.sleep(0.3)  # it goes to wait right after it has sent the request
        begun = time.monotonic()
        updater.send_signal(signal.SIGINT)
        outcome = finish(updater, 20, begun)
        modem.wait()
        return outcome, [event['kind'] for event in modem.events() if event['dir'] == 'rx']


CASES = {
    **{fault: lambda folder, fault=fault: faulty(folder, fault) for fault in [*FAULTS, *HARMLESS]},
    'hangup in data': partial(stop_in_data, fault='hangup'),
    'stall': partial(stop_in_data, fault='stall'),
    'program refused': program_refused,
    'refused in full': refused_in_full,
    'byte by byte': ack_byte_by_byte,
    'cut in the mark': partial(ack_cut, behind=b'value="A'),
    'cut behind the mark': partial(ack_cut, behind=b'value="ACK"'),
    'long log': ack_behind_a_long_log,
    'offer of nothing': lambda folder: faulty(folder, options=['--payload', '0']),
    'small payload': partial(bad_sector_size, sector=4096, sim=['--payload', '2048']),
    'own reset refused': lambda folder: faulty(folder, 'reset=nak', more=[POWER_RESET]),
    'interrupted': interrupted,
}


@pytest.mark.parametrize('fault', FAULTS)
def test_failing_step(fault, result_of):
    session = result_of(fault)
    status, out, err, _ = FAULTS[fault]
    path = session.flash.parent / 'package/one.bin'
    expected = (status, VERSION + out, err.replace(IMAGE_PATH, str(path)) + FIREHOSE_FAILED)
    assert (session.outcome.status, session.outcome.out, session.outcome.err) == expected


@pytest.mark.parametrize('fault', FAULTS)
def test_modem_is_reset_once_after_a_failing_step(fault, result_of):
    # It cannot be where it has hung up.
    session = result_of(fault)
    assert session.received() == FAULTS[fault][3]
    assert session.sim_status == 0


@pytest.mark.parametrize('fault, seconds', [('nop=silence', 5), ('data=silence', 5), ('configure=silence', 0.5),
                                            ('reset=silence', 0.5)])
def test_silence_is_waited_for_its_time(fault, seconds, result_of):
    # Besides that: half a second of a silent reset answer and the second after the reset.
    extra = 1.0 if fault == 'reset=silence' else 1.5
    assert seconds + extra - 0.1 <= result_of(fault).outcome.seconds <= seconds + extra + 4


def without_warnings(out):
    return re.sub(re.escape(TOO_MANY) + r'(?:.*\n){4}', '', out)


@pytest.mark.parametrize('fault', HARMLESS)
def test_survived_fault(fault, result_of):
    session = result_of(fault)
    assert (session.outcome.status, session.outcome.err) == (0, HARMLESS[fault])
    assert without_warnings(session.outcome.out) == VERSION + DATA_SENT + COMPLETED


@pytest.mark.parametrize('fault', ['nop=repeat', 'data=repeat'])
def test_answer_too_many_is_told(fault, result_of):
    assert result_of(fault).outcome.out.count(TOO_MANY) == 1


@pytest.mark.parametrize('fault', HARMLESS)
def test_image_is_whole_after_a_survived_fault(fault, result_of):
    session = result_of(fault)
    assert session.images() == [ONE_IMAGE_IN_FLASH]
    assert session.received().count('power') == 1


def test_hang_up_in_the_data(result_of):
    # The port closes before the next write is waited for, or between the wait and the write.
    session = result_of('hangup in data')
    path = session.flash.parent / 'package/large.bin'
    waited = 'error 4294967171 sending buffer\n' + binary_failed(path, -125)
    written = ('could not write data to handle: error 5 Input/output error\nerror 4294967291 sending buffer\n' +
               binary_failed(path, -5))
    assert (session.outcome.status, session.outcome.err) in [(131, waited + HUNG_UP + FIREHOSE_FAILED),
                                                             (251, written + HUNG_UP + FIREHOSE_FAILED)]
    assert session.outcome.out == VERSION + 'Updating image large\n0.00% completed\r'


def test_modem_that_stops_taking_data(result_of):
    session = result_of('stall')
    path = session.flash.parent / 'package/large.bin'
    assert session.outcome.err == ('error 4294967186 sending buffer\n' + binary_failed(path, -110) +
                                   'error sending reset 4294967186\nerror in sending reset\n' + FIREHOSE_FAILED)
    assert session.outcome.status == 146
    # Five seconds for the data and five for the reset; the kernel may take some more data after the first five.
    assert 9.9 <= session.outcome.seconds <= 25


def test_refused_program_line_sends_no_data(result_of):
    outcome, received = result_of('program refused')
    assert (outcome.status, outcome.out) == (154, VERSION)
    assert outcome.err == NAK_TEXT + COMMAND_FAILED + FIREHOSE_FAILED
    assert received == NOP + CONFIGURE + ERASE_REQUEST + PROGRAM_REQUEST + RESET


def test_refusal_with_its_reason_before(result_of):
    session = result_of('refused in full')
    text = '<?xml version="1.0" encoding="UTF-8" ?>\n<data><response value="NAK" rawmode="false" /></data>\n'
    assert (session.outcome.status, session.outcome.out) == (154, VERSION)
    assert session.outcome.err == text + COMMAND_FAILED + FIREHOSE_FAILED
    assert session.received() == ['nop', 'configure', 'erase', 'program', 'power']


def test_ack_that_comes_byte_by_byte_is_none(result_of):
    outcome, received = result_of('byte by byte')
    assert (outcome.status, outcome.out, outcome.err) == (154, VERSION, NOP_FAILED + FIREHOSE_FAILED)
    assert received == NOP + RESET


def test_ack_cut_in_its_mark_is_none(result_of):
    outcome, received = result_of('cut in the mark')
    assert (outcome.status, outcome.err) == (154, NOP_FAILED + FIREHOSE_FAILED)
    assert received == NOP + RESET


@pytest.mark.parametrize('case', ['cut behind the mark', 'long log'])
def test_ack_whose_mark_arrives_whole_counts(case, result_of):
    outcome, received = result_of(case)
    assert (outcome.status, outcome.out, outcome.err) == (0, VERSION + DATA_SENT + COMPLETED, '')
    assert received == ONE_IMAGE_SENT


def test_counter_offer_of_nothing_is_a_protocol_error(result_of):
    session = result_of('offer of nothing')
    assert session.outcome.status == 185
    assert session.outcome.err == ('the programmer supports a payload of 0 bytes, which cannot be used\n' + CONFIG_FAILED +
                                   FIREHOSE_FAILED)
    assert session.received() == ['nop', 'configure', 'power']


def test_image_that_the_smaller_payload_cannot_hold_is_not_begun(result_of):
    session = result_of('small payload')
    path = session.flash.parent / 'package/one.bin'
    assert session.outcome.err == (f'sector size 4096 does not fit payload size 2048 for {path}\n'
                                   'error sending commands -22\n' + FIREHOSE_FAILED)
    assert session.outcome.status == 234
    assert session.received() == ['nop', 'configure', 'erase', 'power']


def test_refused_own_reset_is_not_repeated(result_of):
    session = result_of('own reset refused')
    assert (session.outcome.status, session.outcome.out) == (154, VERSION + DATA_SENT)
    assert session.outcome.err == NAK_TEXT + COMMAND_FAILED + FIREHOSE_FAILED
    assert session.received() == UP_TO_DATA + ['power']


def test_interrupt_ends_a_wait_and_resets_the_modem(result_of):
    outcome, received = result_of('interrupted')
    assert (outcome.status, outcome.err) == (154, NO_ACK + 'error in nop handshake\n' + FIREHOSE_FAILED)
    assert received == ['nop', 'power']
    assert outcome.seconds < 4


def test_port_that_does_not_exist(package):
    outcome = run(package, '--port', '/nowhere/port', '--force', '--pcie', '--skip-enter-qdl')
    assert (outcome.status, outcome.out) == (254, VERSION)
    assert outcome.err == ('could not open device /nowhere/port: error 2 No such file or directory\n'
                           'error in opening the firehose device -2\n' + FIREHOSE_FAILED)


# ---- an answer too many must not hide a refusal

TWO_IMAGES = {'one.bin': content('one', 10000), 'two.bin': content('two', 5000)}


def two_images(folder, *faults, options=()):
    package = packages.write(folder / 'package',
                             [program('one.bin', 'one'), program('two.bin', 'two')], TWO_IMAGES)
    faults = [word for fault in faults for word in ('--fault', f'firehose.{fault}')]
    return flash(folder, package, sim=[*faults, *options], limit=20)


def check_refused(outcome):
    assert outcome.status == 154
    assert outcome.out.startswith(VERSION)
    assert 'completed\n' not in outcome.out
    assert 'value="NAK"' in outcome.err
    assert outcome.err.endswith(FIREHOSE_FAILED)
    assert outcome.seconds < 8


@pytest.mark.parametrize('options', [(), ('--plain-answers',)], ids=['attributes', 'plain'])
@pytest.mark.parametrize('faults', [
    ('program=repeat@2', 'data=nak@2'),
    ('program=repeat', 'data=nak@2'),
    ('data=repeat', 'data=nak@2'),
    ('nop=repeat', 'data=nak@2'),
    ('configure=repeat', 'data=nak@2'),
    ('program=repeat@all', 'data=nak@2'),
], ids=' '.join)
def test_refusal_behind_an_answer_too_many_is_seen(tmp_path, faults, options):
    check_refused(two_images(tmp_path, *faults, options=options).outcome)


@pytest.mark.parametrize('step', ['nop', 'configure', 'program', 'data'])
def test_answer_too_many_alone_is_a_warning_only(tmp_path, step):
    session = two_images(tmp_path, f'{step}=repeat', options=['--plain-answers'])
    assert (session.outcome.status, session.outcome.err) == (0, '')
    assert session.outcome.out.count(TOO_MANY) == 1
    assert [image.rstrip(b'\xff') for image in session.images()] == list(TWO_IMAGES.values())


def test_answer_of_the_other_kind_is_none(tmp_path):
    """The acknowledgement of a program element, once more where that of the data is awaited."""
    session = two_images(tmp_path, 'program=repeat', options=['--gap', '300'])
    assert (session.outcome.status, session.outcome.err) == (0, '')
    assert [image.rstrip(b'\xff') for image in session.images()] == list(TWO_IMAGES.values())


def test_good_run_warns_of_nothing(tmp_path):
    session = two_images(tmp_path)
    assert (session.outcome.status, session.outcome.err) == (0, '')
    assert TOO_MANY not in session.outcome.out
