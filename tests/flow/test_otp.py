"""Reading the OTP values: what is printed and how a run ends. No image is written."""
from functools import partial

import pytest

import packages
from firehose_texts import ACK, CONFIGURE, HUNG_UP, NOP, OTP_REQUEST, RESET, TARGET_RESET
from harness import VERSION, flash, run
from scripted_modem import ScriptedModem

READ = '\nOTP values read successfully\n'
READ_FAILED = 'unable to update the modem through FIREHOSE\n\nOTP values read failed!\n'
SILENT = 'error reading otp values 4294967186\nerror sending commands -110\n' + READ_FAILED

VALUES = ['OTP row 0: 0x00000001', 'serial   4711', 'a < b', '']


def read_otp(folder, *sim):
    package = packages.one_image(folder / 'package')
    return flash(folder, package, '--otp', sim=sim)


def with_values(folder, *more):
    return read_otp(folder, *[word for value in VALUES for word in ('--otp', value)], *more)


def scripted(folder, answers):
    package = packages.one_image(folder / 'package')
    steps = [(len(NOP), [ACK]), (len(CONFIGURE), [ACK]), (len(OTP_REQUEST), answers),
             (len(RESET), [ACK, TARGET_RESET])]
    with ScriptedModem(steps) as modem:
        outcome = run(package, '--port', modem.port, '--force', '--pcie', '--skip-enter-qdl', '--otp')
    return outcome, modem.received


# what the modem says to the OTP request: exit status, standard output, standard error
ANSWERS = {
    'unclosed': ([b'<log value="one"/>', b'<log value="tw'], 0, 'one\n' + READ,
                 'xml value attribute not ended: <log value="tw\n'),
    'no value': ([b'<log text="none"/>', b'<log value="one"/>', ACK], 0, 'one\n' + READ, 'unexpected response\n'),
    'two in one': ([b'<log value="one"/><log value="two"/>', ACK], 0, 'one\n' + READ, ''),
    'value and ack in one': ([b'<log value="one"/>' + ACK], 0, READ, ''),
    'ack alone': ([ACK], 0, READ, ''),
    'formatting marks': ([b'<log value="%s%n%d"/>', ACK], 0, '%s%n%d\n' + READ, ''),
    'cut value': ([b'<log value="', ACK], 0, READ, 'xml value attribute not ended: <log value="\n'),
}

CASES = {
    'values': with_values,
    'none': read_otp,
    'nak': lambda folder: read_otp(folder, '--plain-answers', '--fault', 'firehose.otp=nak'),
    'nak with reason': lambda folder: read_otp(folder, '--fault', 'firehose.otp=nak'),
    'silence': lambda folder: read_otp(folder, '--fault', 'firehose.otp=silence'),
    'silence in between': lambda folder: with_values(folder, '--fault', 'firehose.otp=silence@3'),
    'late': lambda folder: with_values(folder, '--fault', 'firehose.otp=late:300@2'),
    'hangup': lambda folder: read_otp(folder, '--fault', 'firehose.otp=hangup'),
    'nop nak': lambda folder: read_otp(folder, '--fault', 'firehose.nop=nak'),
    **{name: partial(scripted, answers=row[0]) for name, row in ANSWERS.items()},
}


def parts(session):
    return session.outcome.status, session.outcome.out, session.outcome.err


@pytest.mark.parametrize('case', ['values', 'late'])
def test_every_value_is_printed_on_a_line(case, result_of):
    # A value may be empty; it is a line all the same.
    text = 'OTP row 0: 0x00000001\nserial   4711\na < b\n\n'
    assert parts(result_of(case)) == (0, VERSION + text + READ, '')


def test_nothing_is_written_and_the_modem_is_reset(result_of):
    session = result_of('values')
    assert session.received() == ['nop', 'configure', 'getstorageinfo', 'power']
    assert session.images() == []
    assert session.sim_status == 0


def test_no_value_at_all_is_a_success(result_of):
    assert parts(result_of('none')) == (0, VERSION + READ, '')


def test_refusal_is_printed_as_a_value_and_waited_on(result_of):
    assert parts(result_of('nak')) == (146, VERSION + 'NAK\n', SILENT)


def test_reason_of_a_refusal_is_printed_as_a_value_too(result_of):
    assert parts(result_of('nak with reason')) == (146, VERSION + 'ERROR: not carried out\nNAK\n', SILENT)


def test_silence_ends_the_read(result_of):
    assert parts(result_of('silence')) == (146, VERSION, SILENT)


def test_silence_between_the_values_ends_the_read(result_of):
    assert parts(result_of('silence in between')) == (146, VERSION + VALUES[0] + '\n' + VALUES[1] + '\n', SILENT)


@pytest.mark.parametrize('case', ['nak', 'silence', 'silence in between'])
def test_modem_is_reset_after_a_failed_read(case, result_of):
    assert result_of(case).received() == ['nop', 'configure', 'getstorageinfo', 'power']


def test_hang_up_ends_the_read(result_of):
    assert parts(result_of('hangup')) == (
        131, VERSION, 'error reading otp values 4294967171\nerror sending commands -125\n' + HUNG_UP + READ_FAILED)


def test_failure_before_the_request_ends_with_the_otp_line(result_of):
    session = result_of('nop nak')
    assert session.outcome.status == 154
    assert session.outcome.err.endswith('error in nop handshake\n' + READ_FAILED)
    assert session.received() == ['nop', 'power']


@pytest.mark.parametrize('case', ANSWERS)
def test_answer(case, result_of):
    outcome, received = result_of(case)
    _, status, out, err = ANSWERS[case]
    assert (outcome.status, outcome.out, outcome.err) == (status, VERSION + out, err)
    assert received == NOP + CONFIGURE + OTP_REQUEST + RESET
