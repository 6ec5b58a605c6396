"""A boot loader that refuses, stays silent, leaves or talks nonsense: what is printed, what the run ends with,
and that the modem is reset after every failure."""
import re
from functools import partial

import pytest

import packages
from harness import FAILED, NO_USB, NO_USB_STATUS, VERSION, run, upload
from packages import PLATFORM_0, PLATFORM_1, content

PROGRAMMER = content('programmer', 20000)
SENDING = VERSION + 'Sending programmer\n'
TWO_BLOCKS = SENDING + '0.00% completed\r20.00% completed\r'
ALL_BLOCKS = TWO_BLOCKS + '40.00% completed\r61.00% completed\r81.00% completed\r'

NOT_SENT = 'unable to send the programmer through SAHARA\n' + FAILED
NOT_UPDATED = 'error in updating the programmer\n'
NO_HANDSHAKE = 'error in hello handshake\n'
GARBAGE = 1520786085  # 0x5AA55AA5
GONE = 'error writing command\nerror -125\n'  # the RESET that cannot be sent any more


def of_programmer(folder, sim=(), version=PLATFORM_1, data=PROGRAMMER, name=packages.PROGRAMMER, sim_leaves=True):
    package = packages.write(folder / 'package', [packages.ERASE], version=version, programmer=data)
    (package / 'contents.xml').write_text(packages.contents_xml(name))
    return upload(folder, package, sim=['--programmer-size', str(len(data)), *sim], sim_leaves=sim_leaves)


def fault(what):
    return ['--fault', f'sahara.{what}']


# options of the modem: exit status, standard output, standard error before the last lines
REFUSED = {
    'end status': (['--end-status', '5'], 154, ALL_BLOCKS, 'image transfer failed 5\n' + NOT_UPDATED),
    'end nak': (fault('end=nak'), 154, ALL_BLOCKS, 'image transfer failed 1\n' + NOT_UPDATED),
    'end garbage': (fault('end=garbage'), 154, ALL_BLOCKS, f'unexpected command {GARBAGE}\n' + NOT_UPDATED),
    'end silence': (fault('end=silence'), 146, ALL_BLOCKS, 'error 4294967186\n' + NOT_UPDATED),
    'done status': (['--done-status', '0'], 154, ALL_BLOCKS, 'modem expecting another image\n' + NOT_UPDATED),
    'done status 2': (['--done-status', '2'], 154, ALL_BLOCKS, 'modem expecting another image\n' + NOT_UPDATED),
    'done garbage': (fault('done=garbage'), 154, ALL_BLOCKS, f'unexpected command {GARBAGE}\n' + NOT_UPDATED),
    'done silence': (fault('done=silence'), 146, ALL_BLOCKS, 'error 4294967186\n' + NOT_UPDATED),
    'first read silence': (fault('read=silence'), 146, SENDING, 'error 4294967186\n' + NOT_UPDATED),
    'third read silence': (fault('read=silence@3'), 146, TWO_BLOCKS, 'error 4294967186\n' + NOT_UPDATED),
    'first read garbage': (fault('read=garbage'), 146, SENDING, 'error 4294967186\n' + NOT_UPDATED),
    'third read garbage': (fault('read=garbage@3'), 154, TWO_BLOCKS,
                           f'unexpected command {GARBAGE}\n' + NOT_UPDATED),
    'late read': (fault('read=late:1500@3'), 146, TWO_BLOCKS, 'error 4294967186\n' + NOT_UPDATED),
    'no hello': (['--no-hello'], 185, VERSION, NO_HANDSHAKE),
    'half a hello': (fault('hello=truncate:24'), 185, VERSION, 'bogus HELLO packet size 16\n' + NO_HANDSHAKE),
    'only the head of a hello': (fault('hello=truncate:8'), 185, VERSION,
                                 'error reading the HELLO packet remainder -110\n' + NO_HANDSHAKE),
    'less than a head': (fault('hello=truncate:4@all'), 185, VERSION,
                         'bogus packet size 4\nbogus packet size 4\n' + NO_HANDSHAKE),
    'mode 2 not acknowledged': (['--hello-mode', '2', *fault('qdl=silence')], 146, VERSION,
                                'error -110\n' + NO_HANDSHAKE),
}
REFUSED_0 = {
    'done status on platform 0': (['--platform', '0', '--done-status', '1'], 154, ALL_BLOCKS,
                                  'error done response status is 1\n' + NOT_UPDATED),
}

# a packet too short ends the upload as if it were done
LENIENT = {
    'first read cut': (fault('read=truncate:4'), SENDING, 'bogus packet size 4\n'),
    'third read cut': (fault('read=truncate:12@3'), TWO_BLOCKS, 'bogus packet size 12\n'),
    'end cut': (fault('end=truncate:15'), ALL_BLOCKS, 'bogus packet size 15\n'),
}

LARGE = ['--read-size', '300000']

CASES = {
    **{name: partial(of_programmer, sim=row[0]) for name, row in REFUSED.items()},
    **{name: partial(of_programmer, sim=row[0], version=PLATFORM_0) for name, row in REFUSED_0.items()},
    **{name: partial(of_programmer, sim=row[0], sim_leaves=False) for name, row in LENIENT.items()},
    'beyond the end': partial(of_programmer, sim=['--programmer-size', '20001', '--read-size', '20001']),
    'read hangup': partial(of_programmer, sim=fault('read=hangup@3')),
    'done hangup': partial(of_programmer, sim=fault('done=hangup')),
    'data hangup': partial(of_programmer, sim=[*LARGE, *fault('data-in=hangup@100000')], data=bytes(300000)),
    'data stall': partial(of_programmer, sim=[*LARGE, *fault('data-in=stall@100000')], data=bytes(300000),
                          sim_leaves=False),
    'hello garbage': partial(of_programmer, sim=fault('hello=garbage')),
    'byte by byte': partial(of_programmer, sim=['--delivery', 'bytes']),
    'empty programmer': partial(of_programmer, data=b'', sim=['--programmer-size', '4096'], sim_leaves=False),
    'no programmer': partial(of_programmer, name='missing/programmer.mbn', sim_leaves=False),
}


def parts(session):
    return session.outcome.status, session.outcome.out, session.outcome.err


@pytest.mark.parametrize('case', [*REFUSED, *REFUSED_0])
def test_failing_step(case, result_of):
    _, status, out, err = {**REFUSED, **REFUSED_0}[case]
    assert parts(result_of(case)) == (status, out, err + NOT_SENT)


@pytest.mark.parametrize('case', [*REFUSED, *REFUSED_0])
def test_modem_is_reset_once_after_a_failing_step(case, result_of):
    received = result_of(case).received()
    assert (received[-1], received.count('reset')) == ('reset', 1)


@pytest.mark.parametrize('case', ['no hello', 'less than a head'])
def test_hello_is_asked_for_again_once(case, result_of):
    assert result_of(case).received() == ['reset_state_machine', 'reset']


def test_missing_hello_is_waited_for_three_seconds_twice(result_of):
    # Half a second to settle, and two flushes of two seconds.
    assert 10.4 <= result_of('no hello').outcome.seconds <= 14


@pytest.mark.parametrize('case', LENIENT)
def test_short_packet_ends_the_upload_as_if_it_were_done(case, result_of):
    _, out, err = LENIENT[case]
    assert parts(result_of(case)) == (NO_USB_STATUS, out, err + NO_USB)


@pytest.mark.parametrize('case', LENIENT)
def test_modem_is_not_reset_after_a_lenient_end(case, result_of):
    received = result_of(case).received()
    assert received[0] == 'hello_response'
    assert 'reset' not in received


def test_bytes_that_the_file_does_not_have_fail_the_upload(result_of):
    session = result_of('beyond the end')
    path = session.flash.parent / 'package' / packages.PROGRAMMER
    assert parts(session) == (234, SENDING + '0.00% completed\r',
                              'error 0 reading 20001 bytes (read 20000 bytes)\n'
                              f'1 bytes that were asked for are not in {path}\n' + NOT_UPDATED + NOT_SENT)
    assert session.received()[-1] == 'reset'


@pytest.mark.parametrize('case, out', [('read hangup', TWO_BLOCKS), ('done hangup', ALL_BLOCKS)])
def test_hang_up_between_packets(case, out, result_of):
    assert parts(result_of(case)) == (131, out, 'error 4294967171\n' + NOT_UPDATED + GONE + NOT_SENT)


def test_hang_up_in_the_data(result_of):
    # The port closes before the next write is waited for, or between the wait and the write.
    end = NOT_UPDATED + GONE + NOT_SENT
    written = 'could not write data to handle: error 5 Input/output error\nerror 4294967291 sending buffer\n'
    session = result_of('data hangup')
    assert (session.outcome.status, session.outcome.err) in [(131, 'error 4294967171 sending buffer\n' + end),
                                                             (251, written + end)]


def test_modem_that_stops_taking_data(result_of):
    session = result_of('data stall')
    assert parts(session) == (146, SENDING + '0.00% completed\r', 'error 4294967186 sending buffer\n' + NOT_UPDATED +
                              'error writing command\n' + NOT_SENT)
    assert session.outcome.seconds >= 12.4  # settling, two writes of five seconds, and the flush


def test_packet_that_is_no_hello_is_dumped_and_another_one_asked_for(result_of):
    session = result_of('hello garbage')
    row = 'A5 5A A5 5A A5 5A A5 5A 00 00 00 00 00 00 00 00 '
    zeros = '00 ' * 16
    dump = (rf'hello from modem expected instead of cmd {GARBAGE}' '\n'
            r'Printing buffer 0x[0-9a-f]+ of 48 bytes' '\n'
            rf'\[0000\] {row}' '\n' rf'\[0016\] {zeros}' '\n' rf'\[0032\] {zeros}' '\n')
    assert re.fullmatch(dump + re.escape(NO_USB), session.outcome.err)
    assert session.outcome.status == NO_USB_STATUS
    assert session.received() == ['reset_state_machine', 'hello_response'] + ['data'] * 5 + ['done']


def test_hello_that_comes_byte_by_byte_is_none(result_of):
    session = result_of('byte by byte')
    assert (session.outcome.status, session.outcome.out) == (185, VERSION)
    assert re.fullmatch(r'(bogus packet size [1-7]\n){2}' + re.escape(NO_HANDSHAKE + NOT_SENT), session.outcome.err)
    assert session.received() == ['reset_state_machine', 'reset']


def test_empty_programmer_is_refused(result_of):
    session = result_of('empty programmer')
    path = session.flash.parent / 'package/programmer.mbn'
    assert parts(session) == (234, VERSION, f'programmer image {path} is empty\n' + FAILED)
    assert session.received() == []


def test_programmer_that_is_not_there(result_of):
    session = result_of('no programmer')
    path = session.flash.parent / 'package/missing/programmer.mbn'
    assert parts(session) == (254, VERSION, f'file is not there: {path}\n' + FAILED)
    assert session.received() == []


def test_port_that_does_not_exist(folder):
    outcome = run(packages.one_image(folder), '--port', '/nowhere/port', '--force', '--skip-enter-qdl')
    assert (outcome.status, outcome.out) == (154, VERSION)
    assert outcome.err == ('could not open device /nowhere/port: error 2 No such file or directory\n'
                           'unable to open device path /nowhere/port\n' + NOT_SENT)
