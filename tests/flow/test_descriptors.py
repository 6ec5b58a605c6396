"""Which descriptors a run takes: few, and never those of the standard streams."""
import pytest

import packages
from harness import COMPLETED, VERSION, Sim, run
from packages import ONE_IMAGE_IN_FLASH, content, program

IMAGES = 200
# The standard streams, the port and an image are five; some room for what a later version may want.
ENOUGH = 8


def flash(folder, package, script, *arguments):
    """A session of an updater that a shell has prepared by `script`."""
    with Sim(folder) as modem:
        outcome = run(package, '--port', modem.port, '--force', '--pcie', '--skip-enter-qdl', *arguments,
                      before=['sh', '-c', f'{script}; exec "$@"', 'sh'])
        assert outcome.status == 0, outcome
        modem.wait()
    images = [path.read_bytes() for path in sorted(modem.flash.glob('*-program.bin'))]
    return outcome, [event['kind'] for event in modem.events() if event['dir'] == 'rx'], images


def closed(streams):
    def case(folder):
        return flash(folder, packages.one_image(folder / 'package'), f'exec {streams}', '--debug')
    return case


def many_images(folder):
    lines, images = [], {}
    for i in range(IMAGES):
        lines.append(program(f'{i:03}.bin', f'image{i:03}'))
        images[f'{i:03}.bin'] = content(f'image{i:03}', 4096)
    package = packages.write(folder / 'package', lines, images)
    return flash(folder, package, f'ulimit -n {ENOUGH}')


CLOSED = {'standard output': '>&-', 'all': '<&- >&- 2>&-'}
CASES = {**{name: closed(streams) for name, streams in CLOSED.items()}, 'many images': many_images}


@pytest.mark.parametrize('case', CLOSED)
def test_modem_receives_no_log_where_a_stream_is_closed(case, result_of):
    # Its port would be opened as the descriptor that is free.
    _, received, images = result_of(case)
    assert received == ['nop', 'configure', 'erase', 'program', 'data', 'power']
    assert images == [ONE_IMAGE_IN_FLASH]


def test_many_images_need_few_descriptors(result_of):
    outcome, _, images = result_of('many images')
    assert outcome.err == ''
    assert outcome.out.startswith(VERSION) and outcome.out.endswith(COMPLETED)
    assert images == [content(f'image{i:03}', 4096) for i in range(IMAGES)]
