"""--json: every line behind the version line is one JSON object, on both streams and whatever happens."""
import os
import re
import time
from functools import partial

import pytest

import packages
from harness import NO_USB_STATUS, VERSION, flash, json_lines, session, upload
from packages import content, program

MIB = 1048576
LOG_KEYS = ['timestamp', 'type', 'severity', 'file', 'function', 'line', 'msg']
PROGRESS_KEYS = ['timestamp', 'type', 'current', 'max', 'percent', 'description']
QUOTED_DIRECTORY = 'a "quoted" \\ directory\n\t\x1f'
UNDECODABLE = b'image \xff\xc3\x28 \xed\xa0\x80.bin'


def one(folder, *arguments, sim=()):
    return flash(folder, packages.one_image(folder / 'package'), '--json', *arguments, sim=sim)


def several_sizes(folder, sim=()):
    images = {f'{size}.bin': content(size, size) for size in (0, 1, 4096, MIB, 3 * MIB + 1)}
    package = packages.write(folder / 'package', [program(name, name) for name in images], images)
    return flash(folder, package, '--json', sim=sim)


def quoted_directory(folder):
    package = packages.one_image(folder / QUOTED_DIRECTORY)
    return flash(folder, package, '--json', '--debug')


def undecodable_name(folder):
    package = packages.write(folder / 'package', [packages.ERASE])
    (package / packages.RAWPROGRAM).write_bytes(
        b'<?xml?>\n<data>\n<program SECTOR_SIZE_IN_BYTES="4096" num_partition_sectors="1" label="l\xe4bel" filename="' +
        UNDECODABLE + b'" />\n</data>\n')
    (package / os.fsdecode(UNDECODABLE)).write_bytes(b'image')
    return flash(folder, package, '--json', '--debug')


def sahara(folder, *sim):
    package = packages.write(folder / 'package', [packages.ERASE], programmer=content('programmer', 20000))
    return upload(folder, package, '--json', sim=['--programmer-size', '20000', *sim])


CASES = {
    'one': one,
    'debug': lambda folder: one(folder, '--debug'),
    'sizes': several_sizes,
    'small payload': partial(several_sizes, sim=['--payload', '65536']),
    'otp': lambda folder: one(folder, '--otp',
                              sim=['--otp', 'plain', '--otp', 'tab\tback\\slash', '--otp', 'caf\u00e9']),
    'otp failure': lambda folder: one(folder, '--otp', sim=['--fault', 'firehose.otp=silence']),
    'refused': lambda folder: one(folder, sim=['--plain-answers', '--fault', 'firehose.erase=nak']),
    'data refused': lambda folder: one(folder, sim=['--fault', 'firehose.data=nak']),
    'logs': lambda folder: one(folder, '--debug', sim=['--log-before', '2', '--log-after', '2']),
    'quoted directory': quoted_directory,
    'undecodable name': undecodable_name,
    'sahara': sahara,
    'sahara backward': lambda folder: sahara(folder, '--read-order', 'backward'),
    'sahara failure': lambda folder: sahara(folder, '--end-status', '3'),
    'dump': lambda folder: sahara(folder, '--fault', 'sahara.hello=garbage'),
    'switch': lambda folder: session(folder, packages.one_image(folder / 'package'), ['--enter-qdl', '--json'], [],
                                     'normal', until='diag'),
}


def events(done):
    """Standard output behind the version line, and standard error."""
    out = done.outcome.out
    assert out.startswith(VERSION)
    return json_lines(out[len(VERSION):]), json_lines(done.outcome.err)


def messages(lines):
    return [event['msg'] for event in lines if event['type'] == 'LOG']


def progress(done):
    """The steps shown, by file name."""
    steps = {}
    for event in events(done)[0]:
        if event['type'] == 'PROGRESS':
            name = os.path.basename(event['description'])
            steps.setdefault(name, []).append((event['current'], event['max'], event['percent']))
    return steps


@pytest.mark.parametrize('case', CASES)
def test_every_line_is_a_log_or_progress_object(case, result_of):
    out, err = events(result_of(case))
    assert out or err
    for event in out + err:
        assert list(event) == {'LOG': LOG_KEYS, 'PROGRESS': PROGRESS_KEYS}[event['type']]


@pytest.mark.parametrize('case', CASES)
def test_stream_goes_by_the_severity(case, result_of):
    out, err = events(result_of(case))
    assert {event.get('severity', 'INF') for event in out} <= {'WRN', 'NOT', 'INF', 'DBG'}
    assert {event['severity'] for event in err} <= {'EMR', 'ALR', 'CRT', 'ERR'}


@pytest.mark.parametrize('case', CASES)
def test_time_stamps_are_of_now_and_do_not_go_back(case, result_of):
    for stream in events(result_of(case)):
        assert all(re.fullmatch(r'\d+\.\d{9}', event['timestamp']) for event in stream)
        stamps = [float(event['timestamp']) for event in stream]
        assert stamps == sorted(stamps)
        assert all(abs(stamp - time.time()) < 600 for stamp in stamps)


def test_whole_run_event_by_event(result_of):
    done = result_of('one')
    path = str(done.flash.parent / 'package/one.bin')
    out, err = events(done)
    seen = [tuple(event[key] for key in list(event)[1:] if key != 'line') for event in out]
    assert (done.outcome.status, err) == (0, [])
    assert seen == [
        ('LOG', 'INF', '../firehose.c', 'send_command_with_binary', 'Updating image one'),
        ('PROGRESS', 0, 10000, 0, path),
        ('LOG', 'INF', '../firehose.c', 'send_binary', 'Sent 10000 bytes'),
        ('PROGRESS', 10000, 10000, 100, path),
        ('LOG', 'INF', '../main.c', 'main', '\nFirmware update completed'),
    ]
    assert all(isinstance(event['line'], int) and event['line'] > 0 for event in out if event['type'] == 'LOG')


def test_progress_of_every_image_ends_at_its_size(result_of):
    assert progress(result_of('sizes')) == {
        '0.bin': [(0, 0, -1)],
        '1.bin': [(0, 1, 0), (1, 1, 100)],
        '4096.bin': [(0, 4096, 0), (4096, 4096, 100)],
        '1048576.bin': [(0, MIB, 0), (MIB, MIB, 100)],
        '3145729.bin': [(0, 3145729, 0), (1048576, 3145729, 33), (2097152, 3145729, 66), (3145728, 3145729, 99),
                        (3145729, 3145729, 100)],
    }


def test_progress_comes_with_every_payload(result_of):
    steps = progress(result_of('small payload'))
    assert [current for current, _, _ in steps['1048576.bin']] == list(range(0, MIB + 1, 65536))
    assert len(steps['3145729.bin']) == 50


def test_progress_stays_below_the_end_when_the_data_are_refused(result_of):
    done = result_of('data refused')
    assert done.outcome.status == 154
    assert progress(done) == {'one.bin': [(0, 10000, 0)]}


def test_progress_is_shown_with_debug_too(result_of):
    done = result_of('debug')
    assert progress(done) == {'one.bin': [(0, 10000, 0), (10000, 10000, 100)]}
    assert 'Sending 10000 bytes at offset 0' in messages(events(done)[0])


def test_programmer_has_progress(result_of):
    done = result_of('sahara')
    assert done.outcome.status == NO_USB_STATUS
    assert progress(done) == {'programmer.mbn': [(0, 20000, 0), (4096, 20000, 20), (8192, 20000, 40),
                                                 (12288, 20000, 61), (16384, 20000, 81), (20000, 20000, 100)]}


def test_programmer_progress_follows_the_requests(result_of):
    steps = progress(result_of('sahara backward'))['programmer.mbn']
    assert [current for current, _, _ in steps] == [16384, 12288, 8192, 4096, 0, 20000]


def test_failed_programmer_has_no_last_step(result_of):
    done = result_of('sahara failure')
    assert progress(done)['programmer.mbn'][-1] == (16384, 20000, 81)
    assert messages(events(done)[1]) == ['image transfer failed 3', 'error in updating the programmer',
                                         'unable to send the programmer through SAHARA', '\nFirmware update failed!']


def test_missing_usb_device(result_of):
    assert messages(events(result_of('sahara'))[1]) == [
        'could not open device 0x05C6:0x9008', 'error in opening the firehose device -19',
        'unable to update the modem through FIREHOSE', '\nFirmware update failed!']


def test_answer_with_quotes_and_line_feeds_is_one_message(result_of):
    done = result_of('refused')
    assert done.outcome.status == 154
    assert messages(events(done)[1])[0] == (
        '<?xml version="1.0" encoding="UTF-8" ?>\n<data>\n<response value="NAK" />\n</data>')


def test_otp_values_are_messages(result_of):
    out, err = events(result_of('otp'))
    assert err == []
    assert messages(out) == ['plain', 'tab\tback\\slash', 'caf\u00e9', '\nOTP values read successfully']


def test_otp_failure(result_of):
    out, err = events(result_of('otp failure'))
    assert out == []
    assert messages(err)[-1] == '\nOTP values read failed!'


def test_requests_are_debug_messages(result_of):
    sent = [message for message in messages(events(result_of('logs'))[0]) if message.startswith('sending request: ')]
    assert sent[0] == 'sending request: <?xml version="1.0"?>\n<data>\n<nop value="ping"/>\n</data>'
    assert len(sent) == 3


def test_path_with_quotes_and_control_characters(result_of):
    done = result_of('quoted directory')
    path = str(done.flash.parent / QUOTED_DIRECTORY / 'one.bin')
    described = {event['description'] for event in events(done)[0] if event['type'] == 'PROGRESS'}
    assert (done.outcome.status, described) == (0, {path})


def test_bytes_that_are_no_text_become_replacement_characters(result_of):
    done = result_of('undecodable name')
    name = 'image \ufffd\ufffd( \ufffd\ufffd\ufffd.bin'
    assert done.outcome.status == 0
    assert progress(done) == {name: [(0, 5, 0), (5, 5, 100)]}
    assert 'Updating image l\ufffdbel' in messages(events(done)[0])
    assert done.images() == [b'image' + b'\xff' * 4091]


def test_dump_has_no_source(result_of):
    rows = [event for event in events(result_of('dump'))[1] if event['msg'].startswith('[00')]
    assert [event['msg'][:6] for event in rows] == ['[0000]', '[0016]', '[0032]']
    assert len({(event['file'], event['function'], event['line']) for event in rows}) == 1


def test_switch_is_told(result_of):
    out, err = events(result_of('switch'))
    assert (messages(out), err) == (['Entered QDL mode, stopping', '\nFirmware update completed'], [])
