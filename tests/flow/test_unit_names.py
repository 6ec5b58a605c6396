"""The unit tests of a folder are linked into one program: what they share by name, they share in fact.

Two types of one name would be one type to the linker, which takes the functions of either for both, and two suites of
one name need one fixture. So a name belongs to one file; what stands in an unnamed namespace is nobody else's.
"""
import os
import re
from collections import defaultdict
from pathlib import Path

import pytest

TESTS = Path(os.environ['KESTREL_SOURCE']) / 'tests'
FILES = sorted([*TESTS.glob('unit/*_test.cpp'), *TESTS.glob('support/*_test.cpp'), *TESTS.glob('table/*_test.cpp')])


def shared_types(text):
    """The types that a file defines outside its unnamed namespaces."""
    names, is_unnamed = [], False
    for line in text.splitlines():
        if line.startswith('namespace {'):
            is_unnamed = True
        elif line.startswith('} // namespace'):
            is_unnamed = False
        elif not is_unnamed:
            names += re.findall(r'^(?:struct|class|union|enum(?: class)?) (\w+)\b(?!;)', line)
    return names


def suites(text):
    return set(re.findall(r'^TEST(?:_F|_P)?\((\w+),', text, re.M))


def owners(names_of):
    found = defaultdict(list)
    for file in FILES:
        for name in names_of(file.read_text()):
            found[name].append(file.name)
    return found


def test_the_files_are_there():
    assert len(FILES) > 40


@pytest.mark.parametrize('names_of', [shared_types, suites])
def test_a_name_belongs_to_one_file(names_of):
    assert {name: files for name, files in owners(names_of).items() if len(files) > 1} == {}


def test_a_type_outside_an_unnamed_namespace_is_seen():
    assert shared_types('struct a {\n};\nnamespace {\nclass b {\n};\n} // namespace\nenum class c { d };\nclass e;\n') == \
        ['a', 'c']
