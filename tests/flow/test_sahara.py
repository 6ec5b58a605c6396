"""The upload of the programmer to the boot loader, as it should be. The programmer is then looked for on the USB
bus, where this machine has no such device."""
from functools import partial

import pytest

import packages
from harness import NO_USB, NO_USB_STATUS, VERSION, upload
from packages import PLATFORM_0, PLATFORM_1, content

PROGRAMMER = content('programmer', 20000)


def of_programmer(folder, sim=(), version=PLATFORM_1, arguments=()):
    package = packages.write(folder / 'package', [packages.ERASE], version=version, programmer=PROGRAMMER)
    return upload(folder, package, *arguments, sim=['--programmer-size', '20000', *sim])


# options of the modem: percents shown, one for each request
SERVED = {
    'forward': ([], [0, 20, 40, 61, 81]),
    'backward': (['--read-order', 'backward'], [81, 61, 40, 20, 0]),
    'twice': (['--read-order', 'twice'], [0, 0, 20, 20, 40, 40, 61, 61, 81, 81]),
    '64 bit': (['--request-bits', '64'], [0, 20, 40, 61, 81]),
    '64 bit backward': (['--request-bits', '64', '--read-order', 'backward'], [81, 61, 40, 20, 0]),
    'one request': (['--read-size', '20000'], [0]),
    'odd blocks': (['--read-size', '7777'], [0, 38, 77]),
    'small blocks': (['--read-size', '1000'], list(range(0, 100, 5))),
    'other versions': (['--hello-version', '3', '--hello-compatible', '2'], [0, 20, 40, 61, 81]),
    'other mode': (['--hello-mode', '1'], [0, 20, 40, 61, 81]),
    'other image': (['--image-id', '21'], [0, 20, 40, 61, 81]),
    'glued': (['--delivery', 'glued'], [0, 20, 40, 61, 81]),
    'late request': (['--fault', 'sahara.read=late:250@3'], [0, 20, 40, 61, 81]),
    'late done': (['--fault', 'sahara.done=late:2500'], [0, 20, 40, 61, 81]),
    'late hello': (['--fault', 'sahara.hello=late:2500'], [0, 20, 40, 61, 81]),
    'second hello later': (['--fault', 'sahara.hello=repeat'], [0, 20, 40, 61, 81]),
    'platform 2': (['--platform', '2'], [0, 20, 40, 61, 81]),
}
# the same on a platform that is content without a HELLO
SERVED_0 = {
    'platform 0': (['--platform', '0'], [0, 20, 40, 61, 81]),
    'no hello on platform 0': (['--platform', '0', '--no-hello'], [0, 20, 40, 61, 81]),
}

CASES = {
    **{name: partial(of_programmer, sim=row[0]) for name, row in SERVED.items()},
    **{name: partial(of_programmer, sim=row[0], version=PLATFORM_0) for name, row in SERVED_0.items()},
    'debug': partial(of_programmer, arguments=['--debug']),
    'shuffle': partial(of_programmer, sim=['--read-size', '1000', '--read-order', 'shuffle']),
    'a part': partial(of_programmer, sim=['--programmer-size', '5000']),
    'hello skipped': partial(of_programmer, sim=['--fault', 'sahara.hello=skip']),
    'stale hellos': partial(of_programmer, sim=['--fault', 'sahara.hello=repeat', '--delivery', 'glued']),
    'mode 2': partial(of_programmer, sim=['--hello-mode', '2']),
}


def progress(percents):
    return ''.join(f'{percent}.00% completed\r' for percent in percents)


def check(session, percents, err=NO_USB):
    assert (session.outcome.status, session.outcome.err, session.sim_status) == (NO_USB_STATUS, err, 0)
    assert session.outcome.out == VERSION + 'Sending programmer\n' + progress(percents) + 'Sent 20000 bytes\n'


def programmer(session):
    return (session.flash / 'programmer.bin').read_bytes()


@pytest.mark.parametrize('case', [*SERVED, *SERVED_0])
def test_programmer_is_sent_with_its_progress(case, result_of):
    check(result_of(case), {**SERVED, **SERVED_0}[case][1])


@pytest.mark.parametrize('case', [*SERVED, *SERVED_0])
def test_programmer_arrives_whole(case, result_of):
    assert programmer(result_of(case)) == PROGRAMMER


def test_requests_in_any_order_are_served(result_of):
    session = result_of('shuffle')
    assert (session.outcome.status, session.outcome.err) == (NO_USB_STATUS, NO_USB)
    begin, end = VERSION + 'Sending programmer\n', 'Sent 20000 bytes\n'
    assert session.outcome.out.startswith(begin) and session.outcome.out.endswith(end)
    lines = session.outcome.out[len(begin):-len(end)].split('\r')
    offsets = [event['offset'] for event in session.events if event['kind'] == 'read_data']
    assert offsets != sorted(offsets)  # or this is the test of another order
    assert lines == [f'{offset * 100 // 20000}.00% completed' for offset in offsets] + ['']
    assert programmer(session) == PROGRAMMER


def test_exchange_in_its_order(result_of):
    kinds = [(event['dir'], event['kind']) for event in result_of('one request').events if event['dir'] != 'event']
    assert kinds == [('tx', 'hello'), ('rx', 'hello_response'), ('tx', 'read_data'), ('rx', 'data'),
                     ('tx', 'end_image'), ('rx', 'done'), ('tx', 'done_response')]


@pytest.mark.parametrize('case, version, compatible', [('forward', 2, 1), ('other versions', 3, 2)])
def test_hello_response_echoes_the_versions(case, version, compatible, result_of):
    answer = [event for event in result_of(case).events if event['kind'] == 'hello_response']
    assert [(event['version'], event['compatible'], event['status'], event['mode'], event['length'])
            for event in answer] == [(version, compatible, 0, 0, 48)]


def test_missing_hello_is_answered_on_platform_0(result_of):
    session = result_of('no hello on platform 0')
    answer = [event for event in session.events if event['kind'] == 'hello_response']
    assert [(event['version'], event['compatible']) for event in answer] == [(2, 1)]
    assert session.received() == ['hello_response'] + ['data'] * 5 + ['done']
    assert session.outcome.seconds >= 3 + 2  # the HELLO's time, and the flush after the upload


def test_modem_may_ask_for_a_part_only(result_of):
    session = result_of('a part')
    check(session, [0, 20])  # the size told at the end is that of the file
    assert programmer(session) == PROGRAMMER[:5000]


def test_missing_hello_is_asked_for_again_once(result_of):
    session = result_of('hello skipped')
    check(session, [0, 20, 40, 61, 81])
    assert session.received() == ['reset_state_machine', 'hello_response'] + ['data'] * 5 + ['done']
    assert programmer(session) == PROGRAMMER


def test_stale_packets_are_thrown_away(result_of):
    # Two HELLOs wait when the port is opened: both go, and a third one is asked for.
    session = result_of('stale hellos')
    check(session, [0, 20, 40, 61, 81])
    assert session.received() == ['reset_state_machine', 'hello_response'] + ['data'] * 5 + ['done']


def test_modem_in_mode_2_is_restarted_into_download_mode(result_of):
    session = result_of('mode 2')
    check(session, [0, 20, 40, 61, 81])
    kinds = [(event['dir'], event['kind']) for event in session.events if event['dir'] != 'event']
    assert kinds[:5] == [('tx', 'hello'), ('rx', 'enter_download'), ('tx', 'download_acknowledged'), ('tx', 'hello'),
                         ('rx', 'hello_response')]
    assert [event['mode'] for event in session.events if event['kind'] == 'hello'] == [2, 0]
    assert programmer(session) == PROGRAMMER


def test_debug_tells_each_block_instead_of_the_progress(result_of):
    out = result_of('debug').outcome.out
    mark = 'send_programmer() '
    blocks = [line.split(mark)[1] for line in out.splitlines() if mark + 'Sending ' in line]
    assert blocks == ['Sending programmer', 'Sending 4096 bytes at offset 0', 'Sending 4096 bytes at offset 4096',
                      'Sending 4096 bytes at offset 8192', 'Sending 4096 bytes at offset 12288',
                      'Sending 3616 bytes at offset 16384']
    assert '% completed' not in out
