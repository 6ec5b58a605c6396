"""What a fault at a step of a run leads to: the table, and the cases that it makes of every walk.

A row is keyed by the kind of a step and the kind of a fault and holds for every instance of that step. It says how the
run ends, what it says last, and all that the modem received: whatever a run sends after its failure, but the reset that
the protocol asks for, is an error.

Some rows look odd and are as they have to be:
 - A chunk of the programmer, and a packet of the boot loader, is examined by itself. One that comes in single bytes is
   none; what is glued to it is lost with it, or taken for the next one.
 - A packet of the boot loader that is too short ends the upload as if it were done. The programmer, which then does not
   run, does not answer, and the run fails there.
 - Firehose has no numbers: an answer that comes twice is read away before the next request, with a warning.
 - Whatever becomes of the power reset, the images are written: the run is a success.
 - A value of the OTP report that gets lost cannot be missed by a program that does not know how many there are.
"""
from dataclasses import dataclass, replace

from conversation import (BLOCKS, DONE, ENTER_DOWNLOAD, HELLO_RESPONSE, POWER, PROGRAMMER, RESET, STATE_RESET, WALKS,
                          Hear, Say)
from firehose_texts import (COMMAND_FAILED, CONFIG_FAILED, ERASE_REQUEST, HUNG_UP, NAK_TEXT, NOP, NOP_FAILED,
                            binary_failed)
from harness import FAILED, FIREHOSE_FAILED
from runner import ms

KILLED = -9
OTP_FAILED = '\nOTP values read failed!\n'
NO_VERSION = 'unable to get the package version of the modem\n' + FAILED
NOT_SENT = 'unable to send the programmer through SAHARA\n' + FAILED
NOT_UPDATED = 'error in updating the programmer\n'
NO_HANDSHAKE = 'error in hello handshake\n'
GONE = 'error writing command\nerror -125\n'  # the RESET that cannot be sent any more
GARBAGE = 1520786085  # 0x5AA55AA5
TIMED_OUT = 'error 4294967186\n'
OFFER_TEXT = ('<?xml version="1.0" encoding="UTF-8" ?>\n<data>\n<response value="NAK" '
              'MaxPayloadSizeToTargetInBytesSupported="16384" />\n</data>\n')
NO_OFFER = 'Failed to retrieve MaxPayloadSizeToTargetInBytesSupported attribute\n'
LAST_DUMP_LINE = '[0032] ' + '00 ' * 16 + '\n'

USB_SILENCE = 'bulk transfer error -7\n'
USB_GONE = 'bulk transfer error -4\n'
USB_RESET_LOST = USB_GONE * 10 + 'error sending reset 4294967225\nerror in sending reset\n'  # -71
ONLY_EMPTY = USB_GONE * 10 + 'the programmer sends empty answers only\n'

# Shipped milliseconds.
WHOLE_RUN = 10000  # a run without faults, and much more than it takes
USB_WAIT = 30000


@dataclass(frozen=True)
class Outcome:
    status: int
    err: str  # the end of standard error; '': nothing at all was written there; None: anything
    sent: bytes  # all that the modem received
    right: bool  # the images, or the OTP values, are as they should be; None: either
    ms: int = 0  # what the fault may cost, shipped milliseconds
    least: int = -1  # how many bytes of `sent` came in any case; -1: all of them


@dataclass(frozen=True)
class Case:
    name: str
    walk: object
    options: tuple  # of the modem
    strike: str
    outcomes: tuple  # any of them


def is_part(message, kind):
    return message.kind.startswith(kind) and (kind == 'value' or isinstance(message, Say))


class Place:
    """A step of a walk, and how the run can go from there."""

    def __init__(self, walk, index):
        self.walk = walk
        self.index = index
        self.message = walk.messages[index]
        self.before = walk.said(0, index)  # without the step itself
        self.after = walk.said(index)
        self.lost = '' if walk.serial else USB_SILENCE
        self.end = FIREHOSE_FAILED.replace(FAILED, OTP_FAILED) if walk.otp else FIREHOSE_FAILED
        self.final = OTP_FAILED if walk.otp else FAILED
        # From here on nothing is missing in the flash, or in what was printed.
        missing = 'value' if walk.otp else 'data'
        self.complete = not any(is_part(each, missing) for each in walk.messages[index:])

    def rest(self, kind):
        """From the first step of a kind on."""
        return self.walk.said(self.walk.find(kind))

    def goes_on(self, err='', *more, right=True, ms=0, rest=None):
        """The fault does no harm, but for what is sent more."""
        sent = self.before + b''.join(more) + (self.after if rest is None else rest)
        return (Outcome(0, err, sent, right, ms),)

    def stops(self, status, err, *more, ms=0):
        err = err and err.replace(FAILED, self.final)
        right = None if status == KILLED else self.complete  # what is under way then may still get there
        return (Outcome(status, err, self.before + b''.join(more), right, ms),)

    def finishes(self, outcomes):
        """What becomes of runs that would go on when SIGINT comes: the step in hand is finished, then the modem is
        reset. A step is the upload, or a request to erase, to program with its data, or to read the OTP values."""
        steps = [index for index, each in enumerate(self.walk.messages) if index > self.index and
                 isinstance(each, Say) and each.kind in ('erase', 'program', 'otp', 'power')]
        if not steps or self.walk.messages[steps[0]].kind == 'power':
            return outcomes  # nothing was left to do
        left_out = self.walk.said(steps[0])
        assert all(each.sent.endswith(left_out) for each in outcomes)
        return tuple(replace(each, status=131, err=self.end, right=False,
                             sent=each.sent[:len(each.sent) - len(left_out)] + POWER) for each in outcomes)

    def heard(self):
        """The place behind this one: the modem got this message."""
        return Place(self.walk, self.index + 1)


# AT

AT_FAILED = {
    'echo': 'unable to turn off echo\nfail to get AT command answer on port {port}\n',
    'model': 'unable to get model name\nfail to get AT command answer on port {port}\n',
    'imei': 'failed command at index 0\n',
    'versions': 'failed command at index 1\n',
}
AT_TEXT = {'echo': b'ATE0\r', 'model': b'AT#CGMM\r', 'imei': b'AT#CGSN\r', 'versions': b'AT#SWPKGV\r'}
NO_FINAL = 'response without final response\n'
AT_OPEN_FAILED = ('could not open device {port}: error 2 No such file or directory\nunable to open device path {port}\n'
                  'unable to set the modem to firmware update mode\n' + FAILED)


def unprobed(place, kind, cause, *more, ms=0):
    """The version stays unknown: without --force nothing is switched, with it the update is made all the same."""
    if place.walk.forced:
        return place.goes_on(cause + AT_FAILED[kind], *more, ms=ms, rest=place.rest('diag'))
    return place.stops(234, cause + AT_FAILED[kind] + NO_VERSION, *more, ms=ms)


def stale(place, kind, *more, ms=0):
    """An answer too many: the port is emptied before each command, but it may come just after that and is taken for
    the next answer then. That cannot pass for a version."""
    outcomes = place.goes_on('', *more, ms=ms)
    kinds = list(AT_TEXT)
    sent = place.before + b''.join(more)
    for later in kinds[kinds.index(kind) + 1:]:
        sent += AT_TEXT[later]
        if place.walk.forced:
            outcomes += (Outcome(0, AT_FAILED[later], sent + place.rest('diag'), True, ms),)
        else:
            outcomes += (Outcome(234, AT_FAILED[later] + NO_VERSION, sent, False, ms),)
    return outcomes


def at_answers(place):
    kind = place.message.kind
    text = AT_TEXT[kind]
    forced = place.walk.forced
    if kind == 'echo':  # is turned off again and again
        again = place.goes_on(NO_FINAL, text, ms=3000)
        rows = {'skip': place.goes_on('', text, ms=3000), 'garbage': again, 'truncate': again, 'truncate:1': again,
                'wrong': again, 'nak': place.goes_on('', text, ms=1000),
                'hangup': place.stops(234, 'write failed\n' + AT_FAILED[kind] + NO_VERSION, ms=6000)}
    else:
        broken = unprobed(place, kind, NO_FINAL, ms=1000)
        rows = {'skip': place.goes_on('', text, ms=1000), 'garbage': broken, 'truncate': broken, 'truncate:1': broken,
                'wrong': broken, 'nak': unprobed(place, kind, ''),
                'hangup': place.stops(234, 'read failed\n' + AT_FAILED[kind] + NO_VERSION),
                'silence': place.stops(234, AT_FAILED[kind] + NO_VERSION, text, text, ms=2000)}
        if kind == 'model':  # is asked for in another way
            rows['nak'] = place.goes_on('', b'AT+GMM\r')
        if forced:
            rows['silence'] = place.stops(185, NO_HANDSHAKE + NOT_SENT, text, text,
                                          place.walk.messages[place.walk.find('diag')].data, STATE_RESET, RESET,
                                          ms=14000)
    if forced:
        rows['hangup'] = place.stops(154, AT_OPEN_FAILED, ms=6000)
    wait = 2000 if kind == 'echo' else 500
    cut = place.stops(131, 'read failed\n' + AT_FAILED[kind] + FAILED)  # the modem has not been touched
    return {**rows, 'split': place.goes_on(), 'twice': place.goes_on(), 'repeat': stale(place, kind),
            **late(wait, place.goes_on(ms=wait), stale(place, kind, text, ms=2 * wait)),
            'WAIT': cut, 'DEAF': place.stops(KILLED, None)}


WRITE_ERRORS = {'EIO': (5, 'Input/output error'), 'ENOSPC': (28, 'No space left on device'),
                'EAGAIN': (11, 'Resource temporarily unavailable')}


def write_error(name):
    number, text = WRITE_ERRORS[name]
    return f'could not write data to handle: error {number} {text}\n'


def unsigned(code):
    return (1 << 32) + code


def at_commands(place):
    kind = {text: kind for kind, text in AT_TEXT.items()}[place.message.data]
    text = AT_TEXT[kind]
    heard = place.heard()
    rows = {'lost': heard.goes_on('', text, ms=3000)}
    rows['garbled'] = at_answers(heard)['nak']
    for name in WRITE_ERRORS:
        cause = write_error(name) + 'write failed\n'
        rows[name] = place.goes_on(cause, ms=1000) if kind == 'echo' else unprobed(place, kind, cause)
    # Everything is asked, nothing is switched.
    rows['INT'] = place.stops(131, FAILED, place.walk.said(place.index, place.walk.find('diag')))
    rows['KILL'] = place.stops(KILLED, None)
    return rows


def diag(place):
    heard = place.heard()
    nothing_came = heard.stops(146, 'failed listening on the USB bus\n' + FAILED, ms=USB_WAIT)
    rows = {f'diag={kind}': nothing_came for kind in ('skip', 'silence', 'hangup')}
    for name, (number, _) in WRITE_ERRORS.items():
        rows[name] = place.stops(256 - number, write_error(name) + 'error in writing the switch command\n'
                                 'unable to set the modem to firmware update mode\n' + FAILED)
    rows['INT'] = heard.stops(131, FAILED)
    rows['KILL'] = place.stops(KILLED, None)
    return rows


# Sahara

def late(wait, inside, outside, before=0):
    """An answer at half of the time that it has, and one that comes as soon as it was given up."""
    return {f'late:{ms(before) + ms(wait) // 2}': inside, 'overdue': outside}


def upload_failed(place, status, cause, *more, ms=2000):
    """The modem is reset."""
    return place.stops(status, cause + NOT_UPDATED + NOT_SENT, *more, RESET, ms=ms)


def upload_hung_up(place):
    return place.stops(131, 'error 4294967171\n' + NOT_UPDATED + GONE + NOT_SENT)


def believed_done(place, cause, *more):
    """The upload ends as if it were done; nobody answers as a programmer then."""
    silence = USB_SILENCE + NOP_FAILED + USB_SILENCE + FIREHOSE_FAILED
    return place.stops(154, cause + silence, *more, NOP, POWER, ms=2 * USB_WAIT + 4000)


def served_again(place, block):
    """One packet is served twice: the boot loader takes the blocks for later ones and refuses the rubbish behind the
    last one. Its refusal is met where the DONE response should be."""
    walk = place.walk
    first = next(i for i, each in enumerate(walk.messages) if isinstance(each, Say) and each.data == BLOCKS[block])
    done = next(i for i, each in enumerate(walk.messages) if isinstance(each, Say) and each.kind == 'done')
    return upload_failed(place, 154, 'unexpected command 4\n', BLOCKS[block], walk.said(first, done + 1))


def hello(place):
    zero = place.walk.platform == 0
    asked = place.goes_on('', STATE_RESET, ms=8000)
    dumped = place.goes_on(LAST_DUMP_LINE, STATE_RESET, ms=8000)
    unasked = place.goes_on('', ms=3000)  # platform 0 is answered also when it says nothing
    half = place.stops(185, 'bogus HELLO packet size 16\n' + NO_HANDSHAKE + NOT_SENT, RESET, ms=4000)
    rows = {
        'skip': unasked if zero else asked,
        'silence': (upload_failed(place, 146, TIMED_OUT, HELLO_RESPONSE, ms=8000) if zero else
                    place.stops(185, NO_HANDSHAKE + NOT_SENT, STATE_RESET, RESET, ms=14000)),
        'garbage': dumped,
        'wrong': dumped,
        'truncate': half,
        'truncate:8': place.stops(185, 'error reading the HELLO packet remainder -110\n' + NO_HANDSHAKE + NOT_SENT,
                                  RESET, ms=9000),
        'truncate:4': place.goes_on('bogus packet size 4\n', STATE_RESET, ms=8000),
        'split': place.goes_on('bogus packet size 1\n', STATE_RESET, ms=8000),
        # Two packets that wait are old ones and thrown away.
        'twice': unasked if zero else asked,
        'repeat': place.goes_on(),
        **late(3000, place.goes_on(ms=3000),
               unasked if zero else asked, before=500),  # a HELLO too many is none of the requests
        # An error of the first read is met by the one state reset as well, but on platform 0.
        'WAIT': (place.stops(252, 'error -4\n' + NO_HANDSHAKE + NOT_SENT, RESET, ms=2000) if zero else
                 place.finishes(place.goes_on('error -4\n', STATE_RESET, ms=2000))),
        'WAIT:2': place.stops(185, 'error reading the HELLO packet remainder -4\n' + NO_HANDSHAKE + NOT_SENT, RESET,
                              ms=2000),
        'DEAF': place.stops(KILLED, None),
        'DEAF:2': place.stops(KILLED, None),
        **{f'length:{value}': place.goes_on() for value in LENGTHS},  # which nobody reads
    }
    gone = 'error -125\n' + NO_HANDSHAKE + GONE + NOT_SENT
    rows[f'diag=late:{ms(2000)} sahara.hello=hangup'] = (place.stops(131, gone) if zero else
                                                         place.stops(185, gone))
    return rows


LENGTHS = (0, 1, 1 << 31, (1 << 32) - 1)
WIDE = (1 << 63,)


def read_request(place):
    """Rows that are the same for every request."""
    block = place.message.block
    length = len(BLOCKS[block])
    offset = 4096 * block
    timed_out = upload_failed(place, 146, TIMED_OUT, ms=3000)
    rows = {
        'skip': timed_out, 'silence': timed_out, 'hangup': upload_hung_up(place),
        'repeat': served_again(place, block),
        **late(500, place.goes_on(), timed_out),
        'WAIT': place.finishes(place.goes_on()), 'DEAF': place.stops(KILLED, None),
        **{f'length:{value}': place.goes_on() for value in LENGTHS},
        'bytes:0': timed_out,
        'bytes:1': upload_failed(place, 146, TIMED_OUT, PROGRAMMER[offset:offset + 1], ms=3000),
        # The modem gets what it asks for; whether that is its programmer, it has to know.
        'offset:0': offset_moved(place, 0), 'offset:1': offset_moved(place, 1),
    }
    wide = WIDE if place.walk.bits == 64 else ()
    left = len(PROGRAMMER) - offset
    for value in LENGTHS[2:] + wide:
        rows[f'bytes:{value}'] = upload_failed(place, 234, not_all(value, left))
    for value in LENGTHS[2:]:
        rows[f'offset:{value}'] = upload_failed(place, 234, not_all(length, 0))
    for value in wide:
        rows[f'offset:{value}'] = upload_failed(place, 154, f'lseek error at {value}\n')
    return rows


def not_all(asked, there):
    return (f'error 0 reading {asked} bytes (read {there} bytes)\n'
            f'{asked - there} bytes that were asked for are not in {{folder}}/programmer.mbn\n')


def offset_moved(place, offset):
    length = len(BLOCKS[place.message.block])
    sent = PROGRAMMER[offset:offset + length]
    behind = place.walk.said(place.index + 2)
    return (Outcome(0, '', place.before + sent + behind, sent == BLOCKS[place.message.block]),)


def first_read(place):
    wide = place.walk.bits == 64
    timed_out = upload_failed(place, 146, TIMED_OUT, ms=3000)
    return {
        **read_request(place),
        'garbage': timed_out, 'wrong': timed_out,
        'truncate': timed_out,  # a request for nothing
        'truncate:4': believed_done(place, 'bogus packet size 4\n'),
        'split': believed_done(place, 'bogus packet size 1\n'),
        # A read that does not know the size of the requests yet takes a part of the second packet too.
        'twice': served_again(place, 0) if wide else believed_done(place, 'bogus packet size 8\n', BLOCKS[0]),
    }


def other_read(place):
    wide = place.walk.bits == 64
    return {
        **read_request(place),
        'garbage': upload_failed(place, 154, f'unexpected command {GARBAGE}\n'),
        'wrong': upload_failed(place, 154, 'unexpected command 99\n'),
        'truncate': (upload_failed(place, 146, TIMED_OUT, ms=3000) if wide else  # a request for nothing
                     believed_done(place, 'bogus packet size 10\n')),
        'truncate:12': believed_done(place, 'bogus packet size 12\n'),
        'split': believed_done(place, 'bogus packet size 1\n'),
        'twice': served_again(place, place.message.block),
    }


def end_of_image(place):
    timed_out = upload_failed(place, 146, TIMED_OUT, ms=3000)
    wide = place.walk.bits == 64
    return {
        'skip': timed_out, 'silence': timed_out, 'hangup': upload_hung_up(place),
        'garbage': upload_failed(place, 154, f'unexpected command {GARBAGE}\n'),
        'wrong': upload_failed(place, 154, 'unexpected command 99\n'),
        'nak': upload_failed(place, 154, 'image transfer failed 1\n'),
        'truncate': believed_done(place, 'bogus packet size 8\n'),
        'truncate:15': believed_done(place, 'bogus packet size 15\n'),
        'split': believed_done(place, 'bogus packet size 1\n'),
        # What is read for the answer to DONE is the rest of the second packet, or all of it.
        'twice': place.goes_on() if wide else upload_failed(place, 154, 'unexpected command 16\n', DONE),
        'repeat': upload_failed(place, 154, 'unexpected command 4\n', DONE),
        **late(500, place.goes_on(), timed_out),
        'WAIT': place.finishes(place.goes_on()), 'DEAF': place.stops(KILLED, None),
        **{f'length:{value}': place.goes_on() for value in LENGTHS},
    }


def done_response(place):
    zero = place.walk.platform == 0
    timed_out = upload_failed(place, 146, TIMED_OUT, ms=8000)
    refused = upload_failed(place, 154, 'modem expecting another image\n')
    return {
        'skip': timed_out, 'silence': timed_out, 'hangup': upload_hung_up(place),
        'garbage': upload_failed(place, 154, f'unexpected command {GARBAGE}\n'),
        'wrong': upload_failed(place, 154, 'unexpected command 99\n'),
        'nak': upload_failed(place, 154, 'error done response status is 1\n') if zero else refused,
        # A status that did not come is 0, which is the good one of platform 0.
        'truncate': believed_done(place, '') if zero else refused,
        'truncate:1': believed_done(place, '') if zero else refused,
        'split': place.goes_on() if zero else refused,
        'twice': place.goes_on(), 'repeat': place.goes_on(),  # the rest is thrown away
        **late(5000, place.goes_on(ms=5000), timed_out),
        'WAIT': place.finishes(place.goes_on()), 'DEAF': place.stops(KILLED, None),
        'WAIT:2': place.finishes(place.goes_on('error -4\n')), 'DEAF:2': place.stops(KILLED, None),  # while the port is emptied
        **{f'length:{value}': place.goes_on() for value in LENGTHS},
    }


def sahara_write(place, failed):
    """Writes that fail; failed(code) is what is said then."""
    rows = {'EAGAIN': place.goes_on(write_error('EAGAIN'), ms=1000),
            'INT': place.finishes(place.goes_on()),
            'KILL': place.stops(KILLED, None)}
    for name in ('EIO', 'ENOSPC'):
        number = WRITE_ERRORS[name][0]
        rows[name] = place.stops(256 - number, write_error(name) + failed(-number) + NOT_SENT, RESET, ms=2000)
    return rows


def restarted(place, said):
    """A write that was put off too often: the whole upload begins again, with the modem as it is."""
    walk = place.walk
    again = walk.said(walk.find('hello'))
    if walk.platform == 0:
        return upload_failed(place, 146, TIMED_OUT, HELLO_RESPONSE, ms=14000)
    return place.goes_on(said, STATE_RESET, ms=20000, rest=again)


def restart_hello(place):
    """The rows of every HELLO; but a run that was interrupted does not begin the upload anew."""
    return {**hello(place), 'WAIT': place.stops(131, 'error -4\n' + FAILED, STATE_RESET, ENTER_DOWNLOAD, ms=4000)}


def no_restart(place, status, cause):
    return place.stops(status, cause + NO_HANDSHAKE + NOT_SENT, RESET, ms=5000)


def enter(place):
    heard = place.heard()
    lost = no_restart(heard, 146, 'error -110\n')
    return {**sahara_write(place, lambda code: f'error sending hdr {code}\n' + NO_HANDSHAKE),
            'lost': lost, 'garbled': lost, 'INT': heard.stops(131, FAILED),
            'EAGAIN:5': place.goes_on('error sending hdr -11\n', STATE_RESET, ms=20000)}


def entered(place):
    lost = no_restart(place, 146, 'error -110\n')
    return {
        'skip': lost, 'silence': lost, 'garbage': lost, 'wrong': lost,
        'hangup': place.stops(131, 'error -125\n' + NO_HANDSHAKE + GONE + NOT_SENT),
        'truncate': place.goes_on(), 'truncate:1': place.goes_on(), 'twice': place.goes_on(),  # 241 is enough
        'repeat': place.goes_on(LAST_DUMP_LINE, STATE_RESET, ms=8000),  # found where the next HELLO should be
        **late(1000, place.goes_on(ms=1000), lost),
        'WAIT': no_restart(place, 252, 'error -4\n'), 'DEAF': place.stops(KILLED, None),
        **{f'length:{value}': place.goes_on() for value in LENGTHS},
    }


def hello_response(place):
    heard = place.heard()
    not_sent = 'error sending hello_rsp {}\n'.format
    again = not_sent(-11)
    return {'lost': upload_failed(heard, 146, TIMED_OUT), 'garbled': upload_failed(heard, 146, TIMED_OUT, ms=3000),
            **sahara_write(place, lambda code: not_sent(code) + NO_HANDSHAKE),
            'EAGAIN:5': (place.goes_on(again, ms=14000) if place.walk.platform == 0 else
                         place.goes_on(again, STATE_RESET, ms=20000))}


def block_cut(place, at):
    block = place.message.data
    timed_out = upload_failed(place, 146, TIMED_OUT, block, ms=3000)
    lost = NOT_UPDATED + GONE + NOT_SENT
    step = 'sahara.data-in={}@' + str(place.message.piece + at)
    return {
        # The port closes before the next wait, in it, or while the block is still being written.
        step.format('hangup'): (place.stops(131, 'error 4294967171\n' + lost, block[:at]) +
                                place.stops(131, 'error 4294967171 sending buffer\n' + lost, block[:at]) +
                                place.stops(251, write_error('EIO') + 'error 4294967291 sending buffer\n' + lost,
                                            block[:at])),
        step.format('stall'): timed_out,
        step.format('lost'): timed_out,
    }


def block_rows(place, _=0):
    rows = sahara_write(place, lambda code: f'error {unsigned(code)} sending buffer\n' + NOT_UPDATED)
    return {**rows, 'EAGAIN:5': restarted(place, 'error 4294967285 sending buffer\n' + NOT_UPDATED)}


def done_rows(place):
    heard = place.heard()
    rows = sahara_write(place, lambda code: f'error {unsigned(code)} sending done\n' + NOT_UPDATED)
    return {**rows, 'lost': upload_failed(heard, 146, TIMED_OUT, ms=8000),
            'garbled': upload_failed(heard, 154, 'unexpected command 4\n'),
            'EAGAIN:5': restarted(place, 'error 4294967285 sending done\n' + NOT_UPDATED)}


# Firehose

def request_failed(place, kind, code=-102):
    """What is said of a request that was sent and not answered well."""
    path = '{folder}/' + place.message.path
    if kind in ('otp', 'value 1', 'value 2'):
        return f'error reading otp values {unsigned(code)}\nerror sending commands {code}\n'
    return {'nop': NOP_FAILED, 'configure': CONFIG_FAILED, 'erase': COMMAND_FAILED, 'program': COMMAND_FAILED,
            'data': binary_failed(path)}[kind]


class Session:
    """How a request can end, over USB or over a serial device."""

    def __init__(self, place):
        self.place = place
        self.kind = place.message.kind.removeprefix('log of ')
        self.is_otp = self.kind in ('otp', 'value 1', 'value 2')
        self.serial = place.walk.serial
        short = self.kind in ('configure', 'otp', 'value 1', 'value 2')
        self.wait = USB_WAIT if not self.serial else 500 if short else 5000

    def fails(self, cause='', reset='', code=-102, status=154):
        text = cause + request_failed(self.place, self.kind, code) + reset + FIREHOSE_FAILED
        return self.place.stops(status, text, POWER, ms=2 * self.wait + 5000)

    def unanswered(self, cause='', reset_answered=True):
        """The time-out; the power reset is answered, unless the modem takes it for data or is dead."""
        code, status = (-110, 146) if self.is_otp else (-102, 154)
        return self.fails(cause + self.place.lost, '' if reset_answered else self.place.lost, code, status)

    def dead(self):
        return self.unanswered(reset_answered=False)

    def gone(self):
        code, status, cause = -102, 154, '' if self.serial else USB_GONE
        if self.is_otp:
            code, status, cause = (-125, 131, '') if self.serial else (-71, 185, ONLY_EMPTY)
        text = cause + request_failed(self.place, self.kind, code)
        return self.place.stops(status, text + (HUNG_UP if self.serial else USB_RESET_LOST) + FIREHOSE_FAILED)

    def interrupted(self):
        """A USB transfer is not cut."""
        in_step = self.kind in ('erase', 'program', 'data')
        if in_step or not self.serial:
            return self.place.finishes(self.place.goes_on())
        return self.fails('', '', *((-4, 252) if self.is_otp else (-102, 154)))


def has_offer(walk):
    return '--payload' in walk.modem


def offer_comes_late(session):
    """The counter-offer is a NAK, which is told where it is met: here, among the answers to the reset."""
    place = session.place
    if not has_offer(place.walk):
        return {}
    rows = late(session.wait, place.goes_on(ms=session.wait), session.fails(place.lost, OFFER_TEXT))
    return {**rows, 'WAIT': session.fails('', OFFER_TEXT)} if session.serial else rows


def offers(place, session):
    """What cannot be a payload, and one that no sector fits in."""
    unusable = 'the programmer supports a payload of {} bytes, which cannot be used\n' + CONFIG_FAILED
    small = 'sector size 4096 does not fit payload size 1 for {folder}/a.bin\nerror sending commands -22\n'
    rows = {f'offer:{value}': place.stops(185, unusable.replace('{}', str(value)) + FIREHOSE_FAILED, POWER)
            for value in (0, 1 << 31, (1 << 32) - 1)}
    rows['offer:1'] = place.stops(234, small + FIREHOSE_FAILED, ERASE_REQUEST, POWER)
    rows[f'offer:{1 << 63}'] = session.fails(NO_OFFER)
    return rows


def answers(place):
    """The answer to a request, in a chunk of its own."""
    session = Session(place)
    kind = session.kind
    offered = has_offer(place.walk)
    unanswered = session.unanswered()
    rows = {
        'skip': unanswered, 'garbage': unanswered, 'truncate': unanswered, 'truncate:1': unanswered,
        'wrong': unanswered, 'split': unanswered,
        'silence': session.dead(), 'hangup': session.gone(),
        'nak': session.fails(NAK_TEXT), 'twice': place.goes_on(), 'repeat': place.goes_on(),
        **late(session.wait, place.goes_on(ms=session.wait), unanswered),
        'WAIT': session.interrupted(), 'DEAF': place.stops(KILLED, None),
    }
    if kind == 'program':  # the modem waits for data and takes the reset for them
        rows['split'] = session.dead()
        rows.update(late(session.wait, place.goes_on(ms=session.wait), session.dead()))
    if kind == 'configure' and offered:
        rows.update(offers(place, session))
    if kind == 'configure':
        rows['nak'] = session.fails(NO_OFFER)
        rows.update(offer_comes_late(session))
    if kind == 'configure' and offered:  # the offer once more is a refusal that nobody awaits
        at = place.walk.find('erase')
        rows['repeat'] = (Outcome(154, OFFER_TEXT + 'error for command\nerror sending commands -102\n' + FIREHOSE_FAILED,
                                  place.walk.said(0, at) + POWER, False, 2000),)
    return rows


def otp_answer(place):
    session = Session(place)
    unexpected = session.unanswered('unexpected response\n')
    return {**answers(place),
            'garbage': unexpected, 'truncate': unexpected, 'truncate:1': unexpected, 'split': unexpected,
            'nak': session.unanswered(),  # one more value
            'twice': place.goes_on(), 'repeat': place.goes_on()}


def otp_value(place):
    session = Session(place)
    lost = place.goes_on(right=False)
    odd = place.goes_on('unexpected response\n', right=False)
    cut = '<?xml version="1.0" encoding="UTF-8" ?>\n<data>\n<log value="O'
    return {
        'skip': lost, 'nak': lost, 'wrong': lost, 'garbage': odd, 'truncate': odd, 'truncate:1': odd, 'split': odd,
        'truncate:60': place.goes_on(f'xml value attribute not ended: {cut}\n', right=False),
        'glue': lost if place.message.kind == 'value 1' else place.goes_on(),  # the first one of a chunk counts
        'twice': place.goes_on(), 'repeat': place.goes_on(),
        'silence': session.dead(), 'hangup': session.gone(),
        **late(session.wait, place.goes_on(ms=session.wait), session.unanswered()),
        'WAIT': session.interrupted(), 'DEAF': place.stops(KILLED, None),
    }


def logs(place):
    """A line of the programmer's log; only what comes behind it counts."""
    session = Session(place)
    fine = place.goes_on()
    odd = place.goes_on('unexpected response\n') if session.is_otp else fine
    eaten = session.kind == 'program'
    rows = {
        'skip': fine, 'twice': fine, 'repeat': fine, 'glue': fine,
        'garbage': odd, 'truncate': odd, 'truncate:1': odd, 'split': odd,
        'silence': session.dead(), 'hangup': session.gone(),
        **late(session.wait, place.goes_on(ms=session.wait),
               session.dead() if eaten else session.unanswered()),
        'WAIT': session.interrupted(), 'DEAF': place.stops(KILLED, None),
    }
    return {**rows, **(offer_comes_late(session) if session.kind == 'configure' else {})}


def reset_answers(place):
    """The images are written: whatever happens here, the run is a success."""
    serial = place.walk.serial
    is_log = place.message.kind.startswith('log of')
    last = USB_WAIT + 5000
    fine = place.goes_on(ms=last)
    unanswered = fine if is_log else place.goes_on(place.lost, ms=last)
    silent = place.goes_on(place.lost, ms=last)
    wait = 500 if serial else USB_WAIT
    rows = {
        'skip': unanswered, 'garbage': unanswered, 'truncate': unanswered, 'truncate:1': unanswered,
        'split': place.goes_on(unanswered[0].err, ms=100000),  # with a pause after every byte
        'silence': silent, 'twice': fine, 'repeat': fine,
        'hangup': place.goes_on('' if serial else ONLY_EMPTY, ms=5000),
        **late(wait, fine, place.goes_on(place.lost, ms=2 * last)),
        'WAIT': place.goes_on(), 'DEAF': place.stops(KILLED, None),
    }
    if not is_log:
        rows['wrong'] = unanswered
        rows['nak'] = place.goes_on(NAK_TEXT, ms=last)
    if place.message.kind != 'target' and (is_log or place.walk.platform != 0):
        rows['glue'] = fine
    return rows


def session_writes(place, said, eaten=False, within=0):
    """Writes that fail; said(code) is what is said then. After a failure in the data the modem takes the reset for
    data."""
    walk = place.walk
    reset = () if place.message.kind == 'power' else (POWER,)
    silence = place.lost if eaten else ''
    rows = {'INT': place.finishes(place.goes_on()), 'KILL': place.stops(KILLED, None)}

    def stops(status, cause, code):
        return place.stops(status, cause + said(code) + silence + FIREHOSE_FAILED, *reset,
                           ms=USB_WAIT + 10000)

    if walk.serial:
        rows['EAGAIN'] = place.goes_on(write_error('EAGAIN'), ms=1000)
        for name, times in (('EIO', 1), ('ENOSPC', 1), ('EAGAIN', 5)):
            number = WRITE_ERRORS[name][0]
            rows[f'{name}:{times}'] = stops(256 - number, write_error(name) * times, -number)
        return rows
    rows['EIO'] = place.goes_on('bulk transfer error -1\n')
    times = 11 if within else 10  # ten transfers in a row that move nothing
    rows[f'EIO:{times}'] = stops(185, 'bulk transfer error -1\n' * times, -71)
    rows[f'ENODEV:{times}'] = stops(185, USB_GONE * times, -71)
    rows['ETIMEDOUT'] = stops(146, USB_SILENCE, -110)
    return rows


def requests(place):
    kind = place.message.kind
    text = place.message.data.decode()

    def said(code):
        not_sent = f'error {unsigned(code)} sending request:\n{text}'
        return {'nop': not_sent + 'error in nop handshake\n',
                'configure': f'error sending config {unsigned(code)}\nerror in config\n',
                'erase': not_sent + f'error for command\nerror sending commands {code}\n',
                'program': not_sent + f'error for command\nerror sending commands {code}\n',
                'otp': f'error sending otp request {unsigned(code)}\nerror sending commands {code}\n',
                'power': f'error sending reset {unsigned(code)}\nerror in sending reset\n'}[kind]

    rows = session_writes(place, said)
    heard = place.heard()
    if kind == 'power':
        return {**rows, 'lost': heard.goes_on(place.lost, ms=USB_WAIT + 5000), 'garbled': heard.goes_on(NAK_TEXT)}
    session = Session(heard)
    session.kind = kind  # the place is that of the log line, or of the first value
    garbled = session.fails(NAK_TEXT)
    if kind == 'configure':
        garbled = session.fails(NO_OFFER)
    if kind == 'otp':
        garbled = session.unanswered()  # the NAK is a value
    return {**rows, 'lost': session.unanswered(), 'garbled': garbled}


def data_failed(place, code):
    return f'error {unsigned(code)} sending buffer\n' + binary_failed('{folder}/' + place.message.path, code)


def data_piece(place, within=0):
    return session_writes(place, lambda code: data_failed(place, code), eaten=True, within=within)


def data_cut(place, at):
    """In the end the modem waits for data and takes the reset for them, or its beginning and refuses the rest, or does
    not listen any more."""
    walk, data = place.walk, place.message.data
    path = '{folder}/' + place.message.path
    answer = next(i for i in range(place.index, len(walk.messages)) if walk.messages[i].kind == 'log of data')
    at_answer = Place(walk, answer)
    waits = Session(at_answer).dead()
    refuses = unfinished(Session(at_answer).fails(place.lost, NAK_TEXT))
    hung_up = (HUNG_UP if walk.serial else USB_RESET_LOST) + FIREHOSE_FAILED
    while_waiting = ('' if walk.serial else USB_GONE) + binary_failed(path) + hung_up
    closed = place.stops(154, while_waiting, data[:at])
    if walk.serial:
        closed += place.stops(131, data_failed(place, -125) + hung_up, data[:at])
        closed += place.stops(251, write_error('EIO') + data_failed(place, -5) + hung_up, data[:at])
    else:
        closed += place.stops(185, USB_GONE * 9 + data_failed(place, -71) + hung_up, data[:at])
    # How much a stalled port takes before it is full is up to the kernel.
    no_reset = f'{place.lost}error sending reset 4294967186\nerror in sending reset\n' + FIREHOSE_FAILED
    full = Outcome(146, data_failed(place, -110) + no_reset, at_answer.before, False, 2 * USB_WAIT + 10000,
                   len(place.before) + at)
    full_at_reset = Outcome(154, place.lost + binary_failed(path) + no_reset, at_answer.before + POWER, False,
                            2 * USB_WAIT + 10000, len(at_answer.before))
    waits = unfinished(waits)
    step = 'firehose.data-in={}@' + str(place.message.piece + at)
    return {step.format('hangup'): closed, step.format('stall'): (*waits, full, full_at_reset),
            step.format('lost'): refuses, step.format('lost:200'): waits}


def unfinished(outcomes):
    """The same, but the last image is not whole."""
    return tuple(replace(outcome, right=False) for outcome in outcomes)


OF_KIND = {
    'echo': at_answers, 'model': at_answers, 'imei': at_answers, 'versions': at_answers,
    'restart hello': restart_hello, 'entered': entered,
    'hello': hello, 'first read': first_read, 'read': other_read, 'end': end_of_image, 'done': done_response,
    'nop': answers, 'configure': answers, 'erase': answers, 'program': answers, 'data': answers,
    'otp': otp_answer, 'value 1': otp_value, 'value 2': otp_value,
    'log of nop': logs, 'log of configure': logs, 'log of erase': logs, 'log of program': logs, 'log of data': logs,
    'log of otp': logs, 'log of reset': reset_answers, 'reset': reset_answers, 'target': reset_answers,
}
SAID_OF_KIND = {
    'at': at_commands, 'diag': diag, 'enter': enter, 'hello response': hello_response, 'block': block_rows,
    'done': done_rows,
    'nop': requests, 'configure': requests, 'erase': requests, 'program': requests, 'otp': requests,
    'power': requests, 'data': data_piece,
}

WITHIN = {'block': block_cut, 'data': data_cut}

STRIKES = ('EIO', 'ENOSPC', 'EAGAIN', 'ENODEV', 'ETIMEDOUT', 'INT', 'WAIT', 'KILL', 'DEAF')


def make_case(place, fault, outcomes, within=''):
    """What is to be done for a fault of the table: options of the modem, or a strike at the program."""
    message, walk = place.message, place.walk
    name, _, times = fault.partition(':')
    options, strike = (), ''
    if name in ('WAIT', 'DEAF'):
        strike = f'{len(place.before)}:{name}:{times or message.wait}'
    elif name in STRIKES:
        strike = f'{len(place.before)}:{name}:{times or 1}'
    elif name == 'offer':
        options = ('--payload', times)
    elif '=' in fault:
        options = tuple(word for each in fault.split() for word in ('--fault', each))
    elif isinstance(message, Hear):
        options = ('--fault', f'{message.step}={fault}@{message.nth}')
    else:
        way, _, nth = message.way.partition('@')
        options = ('--fault', f'{way}={fault}@{nth}')
    return Case(f'{walk.name}/{place.index}/{message.kind}/{fault}{within}', walk, options, strike, outcomes)


# Which part of a walk is new in it: the rest has been struck in another one.
def is_at(message):
    return message.kind in ('at', 'echo', 'model', 'imei', 'versions')


def is_sahara(message):
    sahara = ('hello', 'hello response', 'first read', 'read', 'block', 'end')
    return message.kind in sahara or message.kind == 'done'


def is_read(message):
    return message.kind in ('first read', 'read', 'end')


def is_session(message):
    return not (is_at(message) or is_sahara(message) or message.kind == 'diag')


STRUCK = {
    'usb': lambda message: True,
    'forced': is_at,
    'platform 0': lambda message: is_sahara(message) or message.kind in ('log of reset', 'reset'),
    '64 bits': is_read,
    'restart': lambda message: message.kind in ('restart hello', 'enter', 'entered'),
    'usb otp': is_session,
    'serial': lambda message: True,
    'serial otp': lambda message: True,
}


def cases():
    for walk in WALKS.values():
        for index, message in enumerate(walk.messages):
            if not STRUCK[walk.name](message):
                continue
            place = Place(walk, index)
            rows = (OF_KIND if isinstance(message, Hear) else SAID_OF_KIND)[message.kind](place)
            for fault, outcomes in rows.items():
                yield make_case(place, fault, outcomes)
            if message.kind in WITHIN and isinstance(message, Say):
                yield from cases_within(walk, index)


def cases_within(walk, index):
    """Faults inside a block: of the modem as its bytes come, and of a write that has taken a part of it."""
    place = Place(walk, index)
    data = place.message.data
    for at in (1, len(data) // 2, len(data) - 1):
        for fault, outcomes in WITHIN[place.message.kind](place, at).items():
            yield make_case(place, fault, outcomes)
    middle = len(data) // 2
    part = Place(walk, index)
    part.before += data[:middle]
    part.after = part.after[middle:]
    for fault, outcomes in SAID_OF_KIND[place.message.kind](part, middle).items():
        yield make_case(part, fault, outcomes, ' within')
