"""The rooms of the house and their arrows: what includes what is read from the sources, and held against the tables of
docs/architecture.md, which list the rooms from the top of the stairs to the bottom."""
import os
import re

import pytest

SOURCE = os.environ['KESTREL_SOURCE']
INCLUDE = re.compile(r'^#include "([^"]+)\.hpp"', re.MULTILINE)
TABLE_ROW = re.compile(r'^\| `([^`]+)` \|', re.MULTILINE)


def read(path):
    with open(os.path.join(SOURCE, path), encoding='utf-8') as file:
        return file.read()


def rooms_of(folder):
    """Each room of a folder (a header with its source) with the names that it includes."""
    rooms = {}
    for name in os.listdir(os.path.join(SOURCE, folder)):
        stem, suffix = os.path.splitext(name)
        if suffix in ('.cpp', '.hpp'):
            rooms.setdefault(stem, set()).update(INCLUDE.findall(read(f'{folder}/{name}')))
    return {room: included - {room} for room, included in rooms.items()}


def listed_rooms(folder):
    """The rooms of a folder in the order of its table."""
    text = read('docs/architecture.md')
    section = re.search(rf'^## [^\n]*`{folder}/`\n(.*?)(?=^## )', text, re.MULTILINE | re.DOTALL)
    return TABLE_ROW.findall(section.group(1))


def arrows_up(rooms, order):
    """The arrows that do not lead from a room to one that is listed below it."""
    below = {room: place for place, room in enumerate(order)}
    return sorted(f'{room} -> {other}' for room, included in rooms.items() for other in included
                  if other in below and below[other] <= below[room])


def circle(rooms):
    """Takes away the rooms that include no other room, again and again; what is left goes in circles."""
    rest = {room: included & rooms.keys() for room, included in rooms.items()}
    while free := [room for room, included in rest.items() if not included & rest.keys()]:
        for room in free:
            del rest[room]
    return sorted(rest)


@pytest.mark.parametrize('folder', ['app', 'core'])
def test_every_room_is_listed_once(folder):
    assert sorted(listed_rooms(folder)) == sorted(rooms_of(folder))


@pytest.mark.parametrize('folder', ['app', 'core'])
def test_no_arrow_leads_up_the_listed_order(folder):
    assert arrows_up(rooms_of(folder), listed_rooms(folder)) == []


@pytest.mark.parametrize('folder', ['app', 'core', 'sim'])
def test_no_circle(folder):
    assert circle(rooms_of(folder)) == []


@pytest.mark.parametrize('lower, upper', [('core', 'app'), ('core', 'sim'), ('sim', 'app'), ('sim', 'core'), ('app', 'sim')])
def test_no_arrow_from_folder_to_folder(lower, upper):
    # A name that both folders have is the folder's own.
    foreign = rooms_of(upper).keys() - rooms_of(lower).keys()
    assert {room: included & foreign for room, included in rooms_of(lower).items() if included & foreign} == {}


def test_an_arrow_up_is_found():
    rooms = {'top': {'middle'}, 'middle': {'bottom', 'top'}, 'bottom': set()}
    assert arrows_up(rooms, ['top', 'middle', 'bottom']) == ['middle -> top']
    assert circle(rooms) == ['middle', 'top']
