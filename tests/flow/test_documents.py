"""What the documents for developers name is there: functions, constants, options of the build, files."""
import re

import pytest

from harness import SOURCE

FOLDERS = ['app', 'core', 'sim', 'tests', 'scripts', 'cmake']
# Whose names a document may name, besides those of files.
DOCUMENTS = {'docs/architecture.md': ['app', 'core', 'sim'], 'CONTRIBUTING.md': FOLDERS}
# A name of the program's, the build's or a test's own: words with underscores between them. CMake has names of its own.
NAME = re.compile(r'\b(?!CMAKE_)[A-Za-z]\w*_\w+')
SUFFIXES = ['', '.cpp', '.hpp', '.def', '.py', '.txt', '.cmake', '.json']
PLACEHOLDERS = {'in_NAME', 'test_NAME', 'ROOM_test'}
# A path. What is built is not there before; what begins with ../ is a name in the log.
PATH = re.compile(r'(?!build/|\.\./)[\w.-]+/[\w./-]*')


def quoted(document):
    """Everything between single back-quotes."""
    text = (SOURCE / document).read_text(encoding='utf-8')
    return re.findall(r'`([^`\n]+)`', re.sub(r'^```.*?^```', '', text, flags=re.MULTILINE | re.DOTALL))


def missing_names(texts, known):
    names = {name for text in texts if not PATH.fullmatch(text) for name in NAME.findall(text)}
    return sorted(names - known - PLACEHOLDERS)


def missing_files(texts):
    paths = {text for text in texts if PATH.fullmatch(text) and not any(name in text for name in PLACEHOLDERS)}
    return sorted(path for path in paths if not (SOURCE / path).exists())


def words_of(folders):
    """Every word of the sources in some folders, and of the names of all files."""
    paths = [path for folder in FOLDERS for path in (SOURCE / folder).rglob('*')]
    words = {word for path in paths for word in re.findall(r'\w+', path.name)}
    for path in [*paths, *SOURCE.glob('CMake*')]:
        if path.is_file() and path.suffix in SUFFIXES and path.relative_to(SOURCE).parts[0] in [*folders, path.name]:
            words.update(re.findall(r'\w+', path.read_text(encoding='utf-8', errors='replace')))
    return words


@pytest.mark.parametrize('document', DOCUMENTS)
def test_every_name_is_one_of_the_sources(document):
    assert missing_names(quoted(document), words_of(DOCUMENTS[document])) == []


@pytest.mark.parametrize('document', DOCUMENTS)
def test_every_file_is_there(document):
    assert missing_files(quoted(document)) == []


def test_a_name_that_is_gone_is_found():
    assert missing_names(['send_config', 'send_config_no_more(x)'], words_of(['app'])) == ['send_config_no_more']


def test_a_file_that_is_gone_is_found():
    assert missing_files(['app/main.cpp', 'app/no-such.cpp', 'tests/unit/ROOM_test.cpp']) == ['app/no-such.cpp']
