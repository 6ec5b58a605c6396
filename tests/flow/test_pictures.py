"""The pictures of docs/: what is committed is what docs/draw-pictures draws, and it draws what the sources say."""
import re
import shutil
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest

from harness import SOURCE

PICTURES = ['rooms.svg', 'rooms.txt', 'modem-life.svg', 'modem-life.txt']
SVG = '{http://www.w3.org/2000/svg}'

# A house of four rooms over two, with a simulated modem beside.
HOUSE = {
    'docs/architecture.md': '## The updater, `app/`\n\n| `top` | |\n| `left` | |\n| `right` | |\n| `bottom` | |\n\n'
                            '## The platform, `core/`\n\n| `high` | |\n| `low` | |\n\n'
                            '## A modem, `sim/`\n\n## The end\n',
    'app/top.cpp': '#include "left.hpp"\n#include "right.hpp"\n#include "bottom.hpp"\n#include "high.hpp"\n',
    'app/left.hpp': '',
    'app/left.cpp': '#include "left.hpp"\n#include "bottom.hpp"\n',
    'app/right.hpp': '',
    'app/bottom.hpp': '',
    'core/high.hpp': '#include "low.hpp"\n#include <libusb.h>\n',
    'core/low.hpp': '',
    'sim/engine.hpp': '#include "wire.hpp"\n',
    'sim/wire.hpp': '',
}
STAIRS = ('app/  the updater: 4 rooms, 3 of 4 arrows drawn\n\n'
          '   top─●─●\n'
          '    left─│─●\n'
          '     right │\n'
          '      bottom\n\n')
STAIRS_WITHOUT_AN_ARROW = ('app/  the updater: 4 rooms, 3 of 3 arrows drawn\n\n'
                           '   top─●─●─●\n'
                           '    left │ │\n'
                           '     right │\n'
                           '      bottom\n\n')


def draw(picture, house=SOURCE):
    done = subprocess.run([house / 'docs' / 'draw-pictures', picture], capture_output=True, text=True, timeout=60,
                          encoding='utf-8', check=False)
    assert (done.returncode, done.stderr) == (0, '')
    return done.stdout


def committed(picture):
    return (SOURCE / 'docs' / picture).read_text(encoding='utf-8')


def texts(svg, kind):
    """The texts of a style, in their order."""
    return [element.text for element in ElementTree.fromstring(svg).iter(f'{SVG}text') if element.get('class') == kind]


@pytest.fixture
def house(tmp_path):
    for path, text in HOUSE.items():
        (tmp_path / path).parent.mkdir(exist_ok=True)
        (tmp_path / path).write_text(text)
    shutil.copy(SOURCE / 'docs' / 'draw-pictures', tmp_path / 'docs')
    return tmp_path


@pytest.mark.parametrize('picture', PICTURES)
def test_committed_picture_is_the_drawn_one(picture):
    assert committed(picture) == draw(picture), f'out of date: docs/draw-pictures draws {picture} anew'


@pytest.mark.parametrize('picture', ['rooms.txt', 'modem-life.txt'])
def test_text_fits_a_terminal(picture):
    assert max(map(len, committed(picture).splitlines())) <= 110


def test_stairs_leave_out_what_a_longer_way_implies(house):
    drawn = draw('rooms.txt', house)
    assert STAIRS in drawn
    assert 'core/  the platform: 2 rooms, 1 of 1 arrows drawn\n\nhigh─●\n   low\n\n' in drawn
    assert 'libusb-1.0, for high alone\n' in drawn
    assert '\n    engine\n    wire\n' in drawn


def test_arrow_that_goes_changes_the_stairs(house):
    (house / 'app' / 'left.cpp').write_text('#include "left.hpp"\n')
    assert STAIRS_WITHOUT_AN_ARROW in draw('rooms.txt', house)


def test_drawing_holds_each_room_and_each_arrow(house):
    svg = draw('rooms.svg', house)
    assert texts(svg, 'name') == ['top', 'left', 'right', 'bottom', 'high', 'low', 'engine', 'wire']
    dots = {(dot.get('cx'), dot.get('cy')) for dot in ElementTree.fromstring(svg).iter(f'{SVG}circle')}
    assert len(dots) == 4


def test_command_of_the_rescue_is_that_of_the_readme():
    command = ' '.join(texts(committed('modem-life.svg'), 'name'))
    assert command.startswith('kestrel ')
    assert f'| `{command}` |' in (SOURCE / 'README.md').read_text(encoding='utf-8')


def test_packets_in_the_life_of_a_modem_are_those_of_the_boot_loader():
    names = set(re.findall(r'[A-Z]+_[A-Z_]+|HELLO|RESET|DONE', committed('modem-life.txt')))
    packets = re.findall(r'^    ([A-Z_]+) = \d+,$', (SOURCE / 'app' / 'sahara-packet.hpp').read_text(), re.MULTILINE)
    assert len(names) > 4
    assert names <= set(packets)
