"""A second run at every step of a whole one, over USB and over a serial device: it is refused, it has sent nothing, and
the first goes on as if it were alone. The first is stopped meanwhile, so that the others find it where they should."""
import json
import os
import signal
import time

import pytest

from conversation import WALKS
from harness import COMPLETED, FAILED, finish, start
from runner import ENVIRONMENT, HASTY, LIMIT, Modem, arguments_of, images_are_right, write_package

BUSY = 240
WALK_OF = {'usb': 'forced', 'serial': 'serial'}
# Where the run is: what the modem has received so far, as the kind of the message and its how-manieth it is.
STAGES = [('usb', kind, nth) for kind, nth in (
    ('at', 1), ('at', 3), ('download_mode', 1), ('hello_response', 1), ('data', 1), ('data', 3), ('done', 1), ('nop', 1),
    ('configure', 1), ('erase', 1), ('program', 1), ('program', 2), ('power', 1))]
STAGES += [('serial', kind, nth) for kind, nth in (('nop', 1), ('erase', 1), ('program', 2), ('power', 1))]


def received(modem, kind):
    path = modem.folder / 'transcript'
    lines = path.read_text().split('\n')[:-1] if path.exists() else []
    return sum(event['dir'] == 'rx' and event['kind'] == kind for event in map(json.loads, lines))


def stop_at(process, modem, kind, nth):
    end = time.monotonic() + 20
    while received(modem, kind) < nth:
        assert process.poll() is None and time.monotonic() < end, f'no {kind} came'
    process.send_signal(signal.SIGSTOP)


@pytest.mark.parametrize('way, kind, nth', STAGES)
def test_second_run(way, kind, nth, tmp_path):
    walk = WALKS[WALK_OF[way]]
    package = write_package(tmp_path / 'package', walk.platform)
    with Modem(tmp_path, tmp_path / 'flash', walk.begin, walk.modem) as modem:
        env = {**ENVIRONMENT, 'KESTREL_BUS': os.fspath(modem.bus)}
        first = start(HASTY, package, *arguments_of(walk, modem.port), env=env)
        stop_at(first, modem, kind, nth)
        others = {}
        for pause in (0, 0.02, 0.2):
            time.sleep(pause)
            for options in ((), ('--skip-enter-qdl',), ('--skip-enter-qdl', '--pcie'), ('--enter-qdl',)):
                others[pause, options] = start(HASTY, package, '--port', modem.port, '--force', *options, env=env)
        if modem.bus.exists():
            others['found on the bus'] = start(HASTY, package, '--force', env=env)
        outcomes = {name: finish(process, LIMIT) for name, process in others.items()}
        first.send_signal(signal.SIGCONT)
        outcome = finish(first, LIMIT)
        modem.leave()
        sent = modem.received()
    refusal = f'port {modem.port} is in use by {os.path.basename(HASTY)[:15]} (process {first.pid}): wait until it has ended'
    for name, other in outcomes.items():
        assert (other.status, other.err) == (BUSY, f'{refusal}\n{FAILED}'), name
    assert (outcome.status, outcome.err) == (0, '')
    assert outcome.out.endswith(COMPLETED)
    assert sent == walk.said()
    assert images_are_right(tmp_path / 'flash')
