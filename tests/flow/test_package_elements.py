"""What a rawprogram file holds by the rules of XML, and what the updater makes of it: expat is the judge. A few thousand
files, made from realistic ones by mutations that the seed decides, each in a dry run of its own.

A run that is accepted has kept just the elements that expat finds, each in a command of its own, with the file that
its attribute names. A file that lost none, and has nothing that is refused on purpose, is accepted.

Where expat refuses a file, so does the updater, with the exceptions that mend() lists: they change neither where an
element begins nor what its attributes say. A file without them must be one that expat takes, and is judged as the
others are.

Sectors are looked at after the elements: a run that is refused for them has passed the elements as an accepted one
has, and is judged like that."""
import os
import random
import re
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path
from xml.parsers import expat

import pytest

import packages
from harness import SANITIZED, SOURCE, run
from packages import RAWPROGRAM

SEED = int(os.environ.get('KESTREL_SEED', '1'))
COUNT = int(os.environ.get('KESTREL_FILES', '600' if SANITIZED else '2000'))
WORKERS = os.cpu_count()
CORPUS = SOURCE / 'tests/fuzz/corpus/rawprogram'
PAYLOAD = 1048576
# What is no whole number of payloads needs a sector size.
IMAGES = {'a.bin': 1, 'b.bin': PAYLOAD, 'a&amp;b.bin': 1, 'sub/b.bin': PAYLOAD, 'empty.bin': 0}


# --- the files

def pair(name, start, label):
    """An erase line and a program line as the makers' tools write them."""
    return [f'  <!-- {label} -->',
            f'  <erase PAGES_PER_BLOCK="64" SECTOR_SIZE_IN_BYTES="4096" num_partition_sectors="640" '
            f'physical_partition_number="0" start_sector="{start}"/>',
            f'  <program PAGES_PER_BLOCK="64" SECTOR_SIZE_IN_BYTES="4096" filename="{name}" label="{label}" '
            f'last_sector="{start + 639}" num_partition_sectors="640" physical_partition_number="0" '
            f'start_sector="{start}"/>']


REALISTIC = [
    ['<?xml version="1.0" ?>', '<data>', *pair('a.bin', 0, 'boot'), *pair('b.bin', 640, 'system'), '</data>', ''],
    ['<?xml version="1.0" encoding="utf-8"?>', '<data>', '<!--NOTE: made by hand-->', '<erase start_sector="0" />',
     '<program label="one" filename="a.bin" SECTOR_SIZE_IN_BYTES="512" />', '<program label="two" filename=""/>',
     '<power value="reset" DelayInSeconds="1"/>', '</data>', ''],
    ['<?xml version="1.0"?>', '<data>', '  <!--', *pair('b.bin', 0, 'unused'), '  -->', *pair('a&amp;b.bin', 0, 'used'),
     '</data>'],
    ['<data>', '<erase label="a"/>', '', '<!-- system', 'and more -->', '<program filename="sub/b.bin"/>',
     "<nop value='1'></nop>", '</data>'],
]

# What is put somewhere.
TOKENS = ['<!--', '-->', '<!-- a -->', '<!-- <program filename="a.bin"/> -->', '--', '<', '>', '/>', '"', "'", '=', ' ',
          '\t', '\r', '\n', '\n\n', '<?do this?>', '<?xml version="1.0"?>', '<![CDATA[', ']]>', '<![CDATA[ a ]]>', '&',
          '&amp;', '&#60;', '&lt;', '<!DOCTYPE data>', '<data>', '</data>', '<data/>', '<erase/>', '</erase>',
          '<program filename="b.bin"/>', '<power/> ', 'text', 'filename="a.bin"', ' filename="b.bin" ', ' label=""',
          '\ufeff', '\f', '\x1a', '\xe9', '<a>', '</a>', '<a></a>']
# What takes the place of something that is there.
OTHERS = [('filename=', 'FILENAME='), ('filename=', 'FileName='), ('filename=', 'file_name='), ('filename=', 'xfilename='),
          ('filename="', 'filename = "'), ('label=', 'filename='), ('="', "='"), ('"', "'"), ('"/>', "'/>"), ('" ', '"\n'),
          ('" ', '"\t'), ('" ', '"'), ('<program ', '<program\t'), ('<program ', '<program\n'), ('<erase ', '<erase\t'),
          ('<program ', '<PROGRAM '), ('<program ', '<x:program '), ('<erase', '<power'), ('/>', '></program>'),
          ('/>', '></erase>'), ('/>', '>'), ('/>', ' / >'), ('<data>', '<data >'), ('<data>', '<data a="1">'),
          ('<data>', '<DATA>'), ('data>', 'patches>'), ('</data>', '</data >'), ('</data>', ''), ('<data>', ''),
          ('-->', '--->'), ('-->', '->'), ('<!--', '<!-->'), ('<!--', '<!---'), ('?>', '>'), ('\n', '\r\n'), ('\n', '\r'),
          ('boot', '>'), ('boot', '-->'), ('boot', '<!--'), ('boot', '<data>'), ('boot', 'filename'), ('a.bin', 'b.bin'),
          ('a.bin', 'c.bin'), ('program', 'partition_file')]
SECTOR_SIZES = ['', 'SECTOR_SIZE_IN_BYTES=""', 'SECTOR_SIZE_IN_BYTES="0"', 'SECTOR_SIZE_IN_BYTES="1048576"',
                'SECTOR_SIZE_IN_BYTES="2097152"', 'sector_size_in_bytes="512"']


def put_somewhere(dice, text):
    at = dice.randrange(len(text) + 1)
    return text[:at] + dice.choice(TOKENS) + text[at:]


def put_beside_a_line(dice, text):
    ends = [match.start() for match in re.finditer(r'^|$', text, re.MULTILINE)]
    at = dice.choice(ends)
    return text[:at] + dice.choice(TOKENS) + text[at:]


def replace_one(dice, text):
    old, new = dice.choice([pair for pair in OTHERS if pair[0] in text] or [('', ' ')])
    at = dice.choice([match.start() for match in re.finditer(re.escape(old), text)])
    return text[:at] + new + text[at + len(old):]


def replace_all(dice, text):
    return text.replace(*dice.choice(OTHERS))


def remove_some(dice, text):
    at = dice.randrange(len(text) + 1)
    return text[:at] + text[at + dice.choice([1, 1, 1, 2, 5, 50]):]


def join_lines(dice, text):
    at = dice.choice([match.start() for match in re.finditer('\n', text)] or [len(text)])
    return text[:at] + dice.choice(['', ' ', '\t']) + text[at + 1:]


def reorder_lines(dice, text):
    lines = text.split('\n')
    line = lines.pop(dice.randrange(len(lines)))
    for _ in range(dice.choice([0, 1, 1, 2])):
        lines.insert(dice.randrange(len(lines) + 1), line)
    return '\n'.join(lines)


def change_sector_sizes(dice, text):
    return re.sub('SECTOR_SIZE_IN_BYTES="[0-9]*"', dice.choice(SECTOR_SIZES), text)


def comment_out(dice, text):
    lines = text.split('\n')
    first = dice.randrange(len(lines))
    last = dice.randrange(first, min(first + 5, len(lines)))
    lines[first] = '<!--' + dice.choice(['', '\n', ' -->', '>']) + lines[first]
    lines[last] += dice.choice(['', '\n']) + '-->'
    return '\n'.join(lines)


def harmless(dice, text):
    """Changes that a maker of packages is free to make."""
    return dice.choice([
        lambda: text.replace('\n', '\r\n'),
        lambda: text.replace('\n', '\n\n'),
        lambda: text.replace('\n  <', '\n\t<').replace('/>', ' />'),
        lambda: text.replace('<data>\n', '<data>\n<!-- a -->\n<!--\n<b/>\n-->\n'),
        lambda: text.replace('/>\n', '/>\t\n'),
    ])()


MUTATIONS = [put_somewhere, put_beside_a_line, put_beside_a_line, replace_one, replace_one, replace_one, replace_all,
             remove_some, join_lines, reorder_lines, change_sector_sizes, comment_out, harmless]


def make_file(number):
    dice = random.Random(f'{SEED}/{number}')
    text = '\n'.join(dice.choice(REALISTIC))
    for _ in range(dice.choice([0, 1, 1, 1, 2, 2, 3, 4])):
        text = dice.choice(MUTATIONS)(dice, text)
    return text.encode('latin-1' if dice.random() < 0.05 else 'utf-8', 'replace')


def all_files():
    # The first byte of an input of the corpus is the fuzz target's.
    return {**{path.name: path.read_bytes()[1:] for path in sorted(CORPUS.iterdir())},
            **{f'seed {SEED}, file {number}': make_file(number) for number in range(COUNT)}}


# --- what the updater makes of one

@dataclass
class Kept:
    command: bytes
    file: bytes  # as the package names it; empty where none was read


@dataclass
class Answer:
    status: int
    err: bytes
    kept: list  # None where reading failed before the list was whole

    def is_accepted(self):
        return self.status == 0

    def is_refused_for_its_elements(self):
        return self.status == 234 and re.search(rb', line \d+: |no command in ', self.err) is not None

    def is_refused_for_its_sectors(self):
        return self.status == 234 and (MISFIT.search(self.err) or NO_END.search(self.err)) is not None


MESSAGE = re.compile(rb'\d+\.\d{9} (\w+) (\S+?):\d+:(\w+)\(\) ')
MISFIT = re.compile(rb'sector size (\d+) does not fit payload size %d for (.*)' % PAYLOAD)
NO_END = re.compile(rb'number of sectors without an end in ')
SECTOR_SIZE = re.compile(rb'\sSECTOR_SIZE_IN_BYTES="0*[1-9]\d*"')
SECTORS = b'num_partition_sectors="'


def take_back(shown):
    """What stands in the log for bytes that would harm a terminal. No file has such a text of its own."""
    return re.sub(rb'\\x([0-9A-F]{2})', lambda match: bytes([int(match[1], 16)]), shown)


def ask(package, text):
    (package / RAWPROGRAM).write_bytes(text)
    outcome = run(package, '--port', '/nowhere', '--force', '--dry-run', '--debug', limit=20)
    pieces = MESSAGE.split(outcome.raw_out)[1:]
    dumped = [message.rstrip(b'\n') for function, message in zip(pieces[2::4], pieces[3::4]) if function == b'dump_image']
    files = [take_back(line[len('\tFilename: '):]) for line in dumped if line.startswith(b'\tFilename: ')]
    commands = [take_back(line[len('\tCommand: '):]) for line in dumped if line.startswith(b'\tCommand: ')]
    base = os.fsencode(package) + b'/'
    kept = [Kept(command, b'' if file == b'<none>' else file.removeprefix(base))
            for command, file in zip(commands, files, strict=True)]
    return Answer(outcome.status, outcome.raw_err.replace(base, b''),
                  None if b'error in building the image list' in outcome.raw_err else kept)


# --- what expat says

class Document:
    """The elements of a text, or why it has none."""

    def __init__(self, text, encoding=None):
        self.root = None
        self.elements = []  # of the root's elements: name and attributes
        self.is_flat = True  # no element holds anything
        self.text = ''  # of the root itself
        self.encoding = encoding
        self.others = set()  # kinds of markup besides
        self.depth = 0
        parser = expat.ParserCreate(encoding)
        parser.buffer_text = True
        parser.StartElementHandler = self.start
        parser.EndElementHandler = self.end
        parser.CharacterDataHandler = self.characters
        parser.XmlDeclHandler = self.declaration
        parser.ProcessingInstructionHandler = lambda *_: self.others.add('instruction')
        parser.StartDoctypeDeclHandler = lambda *_: self.others.add('document type')
        parser.StartCdataSectionHandler = lambda: self.others.add('character data')
        parser.CommentHandler = lambda _: self.others.add('comment') if self.depth > 1 else None
        try:
            parser.Parse(text, True)
            self.error = None
        except (expat.ExpatError, LookupError, ValueError) as error:
            self.error = str(error)

    def declaration(self, _version, encoding, _standalone):
        self.encoding = encoding

    def start(self, name, attributes):
        self.depth += 1
        if self.depth == 1:
            self.root = (name, attributes)
        else:
            self.elements.append((name, attributes))
            self.is_flat = self.is_flat and self.depth == 2

    def end(self, _name):
        self.depth -= 1

    def characters(self, text):
        if self.depth == 1:
            self.text += text
        elif text.strip():
            self.is_flat = False


def plain_characters(text):
    """In place of bytes that may be no text, characters that are; none becomes or loses a mark of XML."""
    table = {**{byte: 0x100 + byte for byte in range(0x80, 0x100)},
             **{byte: 0x2400 + byte for byte in range(0x20) if byte not in b'\t\n\r'}, ord('&'): '&amp;'}
    return text.decode('latin-1').translate(table).encode()


def mend(text):
    """Without what the updater tolerates and XML does not: other words in the declaration, text around the root, two
    hyphens in a comment, ampersands and bytes that stand for no character."""
    text = re.sub(rb'\A[^<]*<\?.*?\?>', b'', text, flags=re.DOTALL)
    text = re.sub(rb'<!--.*?-->', b'', text, flags=re.DOTALL)
    text = re.sub(rb'\A[^<>]*', b'', text)
    text = re.sub(rb'(</data>)[^<>]*\Z', rb'\1', text)
    return plain_characters(text)


def attribute_value(raw, encoding):
    document = Document(b'<a a="' + raw + b'"/>', encoding)
    return document.root[1]['a'] if document.error is None else None


def is_other_spelling(attribute):
    return attribute != 'filename' and re.sub('[^a-z]', '', attribute.lower()) == 'filename'


def find_differences(document, kept):
    """How the kept commands differ from the document's elements."""
    expected = list(document.elements)
    requests = [Document(b'<data>\n' + each.command + b'\n</data>', document.encoding) for each in kept]
    got = [request.elements for request in requests]
    if got != [[element] for element in expected]:
        return f'elements: {expected} became {got}'
    for request, each in zip(requests, kept):
        if request.error is not None or request.text.strip():
            return f'more or less than an element: {each.command!r}: {request.error}'
    for each, (name, attributes) in zip(kept, expected):
        named = attributes.get('filename', '')
        read = attribute_value(each.file, document.encoding)
        if read != named and (each.file or name == 'program'):
            return f'file: {named!r} became {each.file!r}'
        if name == 'program' and any(is_other_spelling(attribute) for attribute in attributes):
            return f'file that is not read: {each.command!r}'
        if (name == 'program' or (name == 'erase' and attributes)) and f'<{name} '.encode() not in each.command:
            return f'sent as if it were no {name} command: {each.command!r}'
    return None


def is_refused_on_purpose(text, document, kept):
    """What expat takes and nothing is lost of, and is refused all the same."""
    return any([
        not document.elements,
        document.root != ('data', {}) or b'<data>' not in text or b'</data>' not in text,
        document.others,
        not document.is_flat,
        '>' in document.text,
        # A command may have been kept in place of one that is written alike.
        any(text.count(each.command.strip()) > 1 for each in kept),
    ])


def find_unfounded(answer):
    """What a refusal for sectors is wrong about."""
    misfit = MISFIT.search(answer.err)
    if misfit is None:
        unended = [each.command for each in answer.kept
                   if SECTORS in each.command and b'"' not in each.command.partition(SECTORS)[2][1:]]
        return None if unended else f'every number ends: {answer.err!r}'
    size, file = int(misfit[1]), take_back(misfit[2])
    is_partial = IMAGES[os.fsdecode(file)] % PAYLOAD != 0
    without_size = [each.command for each in answer.kept
                    if each.file == file and b'<erase ' not in each.command and not SECTOR_SIZE.search(each.command)]
    return None if size > PAYLOAD or (size == 0 and is_partial and without_size) else f'it fits: {answer.err!r}'


def judge(text, answer):
    """The verdict on a run, and what is wrong with it."""
    if answer.kept is not None and answer.is_refused_for_its_sectors():
        _, wrong = judge_elements(text, answer, True)
        return 'refused for its sectors', wrong or find_unfounded(answer)
    return judge_elements(text, answer, answer.is_accepted())


def judge_elements(text, answer, have_passed):
    document = Document(text)
    if not have_passed:
        if answer.kept is None:
            return 'not read', None
        if document.error is not None:
            return 'refused by both', None
        differences = find_differences(document, answer.kept)
        if differences is not None:
            return 'refused for a loss', None if answer.is_refused_for_its_elements() else answer.err
        if is_refused_on_purpose(text, document, answer.kept):
            return 'refused on purpose', None
        return 'refused for nothing', answer.err
    if document.error is None:
        return 'accepted', find_differences(document, answer.kept)
    mended = Document(mend(text))
    kept = [Kept(plain_characters(each.command), plain_characters(each.file)) for each in answer.kept]
    return 'tolerated', mended.error or find_differences(mended, kept)


@pytest.fixture(scope='module')
def verdicts(tmp_path_factory):
    """Of each file, the verdict and what is wrong."""
    files = all_files()
    names = list(files)

    def judge_some(first, folder):
        package = packages.write(folder, [])
        (package / 'sub').mkdir()
        for name, size in IMAGES.items():
            (package / name).touch()
            os.truncate(package / name, size)
        return {name: judge(files[name], ask(package, files[name])) for name in names[first::WORKERS]}

    folders = [tmp_path_factory.mktemp('package') for _ in range(WORKERS)]  # which threads cannot make
    with ThreadPoolExecutor(WORKERS) as pool:
        return {name: verdict for some in pool.map(judge_some, range(WORKERS), folders) for name, verdict in some.items()}


def with_verdict(verdicts, wanted):
    return {name: wrong for name, (verdict, wrong) in verdicts.items() if verdict == wanted}


def wrong_ones(verdicts, wanted):
    print(f'seed {SEED}, {COUNT} files')
    return {name: wrong for name, wrong in with_verdict(verdicts, wanted).items() if wrong is not None}


def test_accepted_run_keeps_the_elements_that_expat_finds(verdicts):
    assert wrong_ones(verdicts, 'accepted') == {}


def test_run_that_would_lose_an_element_is_refused_for_it(verdicts):
    assert wrong_ones(verdicts, 'refused for a loss') == {}


def test_nothing_is_refused_without_a_reason(verdicts):
    assert wrong_ones(verdicts, 'refused for nothing') == {}


def test_accepted_run_of_what_expat_refuses_keeps_the_elements_of_the_mended_file(verdicts):
    assert wrong_ones(verdicts, 'tolerated') == {}


def test_refusal_for_sectors_is_founded_and_loses_no_element(verdicts):
    assert wrong_ones(verdicts, 'refused for its sectors') == {}


@pytest.mark.parametrize('verdict, at_least', [
    ('accepted', 10), ('refused for a loss', 5), ('refused on purpose', 1), ('refused for its sectors', 1),
    ('tolerated', 1), ('refused by both', 10)])
def test_no_verdict_is_rare(verdict, at_least, verdicts):
    """In percent."""
    print(f'seed {SEED}', Counter(found for found, _ in verdicts.values()))
    assert 100 * len(with_verdict(verdicts, verdict)) >= at_least * COUNT


def test_inputs_of_the_fuzz_target_are_judged_as_well(verdicts):
    inputs = {path.name for path in CORPUS.iterdir()}
    assert inputs and inputs <= verdicts.keys()
