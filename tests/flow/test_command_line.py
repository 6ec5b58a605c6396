"""The command line: what is accepted and what is refused, word for word. No modem is needed."""
import re
import signal

import pytest

from harness import COMPLETED, FAILED, KESTREL, VERSION, debug_line, json_lines, run
from help_text import HELP

NO_SOURCE = 'choose at least one between <firmware directory>, --meta and --flat\n'
TWO_SOURCES = "<firmware directory>, --meta and --flat can't be used at the same time\n"
SKIP_NEEDS_PORT = '--skip-enter-qdl requires --port\n'
PORT_NEEDS_FORCE = '--port requires --force because the firmware compatibility cannot be checked\n'
NO_BUS = 'error scanning the bus\n'  # the answer of this platform to every run that goes past the arguments
OTP_FAILED = '\nOTP values read failed!\n'


def check(outcome, status, out, err):
    assert (outcome.status, outcome.out, outcome.err) == (status, VERSION + out, err)


@pytest.mark.parametrize('arguments', [['--help'], ['-h'], ['--debug', '--help'], ['--help', '-xy'],
                                       ['some', 'words', '-h'], ['--meta', 'a', '--help', '--nonsense']])
def test_help_prints_the_whole_text_and_ends_with_245(arguments):
    check(run(*arguments), 245, HELP, FAILED)


def test_help_wins_over_options_that_are_matched_later():
    # The arguments are walked for --port first and the walk ends at --help: --otp is not set yet.
    check(run('--otp', '--help'), 245, HELP, FAILED)


@pytest.mark.parametrize('flag', ['-xy', '-', '--', '-port', '-12', '-p=1'])
def test_malformed_flag_is_invalid(flag):
    check(run(flag), 234, HELP, f"flag '{flag}' is invalid\n" + FAILED)


def test_help_is_no_value_of_the_first_option():
    check(run('--port', '--help'), 234, HELP, 'flag --port requires a value\n' + FAILED)


def test_malformed_flag_before_help_is_reported_first():
    check(run('-xy', '--help'), 234, HELP, "flag '-xy' is invalid\n" + FAILED)


def test_malformed_flag_is_reported_before_an_unknown_one():
    check(run('--nonsense', '-xy'), 234, HELP, "flag '-xy' is invalid\n" + FAILED)


@pytest.mark.parametrize('flag', ['--nonsense', '---x', '---', '--Port', '-P', '-x', '--port=/dev/x', '--ot',
                                  '--debugging', '-o', '--"quoted"', '--%s%n'])
def test_unknown_flag_is_named(flag):
    check(run(flag), 234, HELP, f"unknown argument '{flag}'\n" + FAILED)


def test_only_the_first_unknown_flag_is_named():
    check(run('--one', '--two'), 234, HELP, "unknown argument '--one'\n" + FAILED)


@pytest.mark.parametrize('given, name', [('--port', '--port'), ('-p', '--port'), ('--meta', '--meta'),
                                         ('-m', '--meta'), ('--flat', '--flat'), ('-f', '--flat')])
def test_value_is_required_at_the_end(given, name):
    check(run(given), 234, HELP, f'flag {name} requires a value\n' + FAILED)


@pytest.mark.parametrize('given, name', [('--port', '--port'), ('-p', '--port'), ('-m', '--meta'), ('-f', '--flat')])
@pytest.mark.parametrize('following', ['--json', '-d', '--unknown'])
def test_flag_is_no_value(given, name, following):
    check(run(given, following), 234, HELP, f'flag {name} requires a value\n' + FAILED)


def test_malformed_flag_is_no_value():
    check(run('--meta', '-'), 234, HELP, "flag '-' is invalid\n" + FAILED)


def test_malformed_flag_after_the_port_option_lacks_a_value_first():
    check(run('--port', '-'), 234, HELP, 'flag --port requires a value\n' + FAILED)


def test_json_does_not_apply_to_parser_errors():
    check(run('--json', '--nonsense'), 234, HELP, "unknown argument '--nonsense'\n" + FAILED)


def test_otp_applies_to_the_final_line_of_a_parser_error():
    check(run('--otp', '--nonsense'), 234, HELP, "unknown argument '--nonsense'\n" + OTP_FAILED)


@pytest.mark.parametrize('arguments', [[], ['--force'], ['--force', '--pcie', '--enter-qdl'], ['-r', 'words']])
def test_no_package_is_refused_with_help(arguments):
    check(run(*arguments), 1, HELP, NO_SOURCE + FAILED)


def test_no_package_with_otp_ends_with_the_otp_line():
    check(run('--otp'), 1, HELP, NO_SOURCE + OTP_FAILED)


@pytest.mark.parametrize('arguments', [['--meta', ''], ['--flat', ''], ['-m', '', '-f', ''], ['--force', 'DIRECTORY'],
                                       ['--pcie', 'DIRECTORY', '--meta', '']])
def test_empty_value_and_late_directory_are_no_package(arguments, package):
    arguments = [package if argument == 'DIRECTORY' else argument for argument in arguments]
    check(run(*arguments), 1, HELP, NO_SOURCE + FAILED)


def test_first_argument_must_exist():
    check(run('/nowhere/at all'), 1, '', 'first argument must be a directory or a flag: /nowhere/at all\n' + FAILED)


def test_empty_first_argument_is_no_directory():
    check(run('', '--meta', 'x'), 1, '', 'first argument must be a directory or a flag: \n' + FAILED)


def test_first_argument_that_is_a_file_is_refused(package):
    path = package / 'contents.xml'
    check(run(path), 1, '',
          f'opendir() failed: 20\nfirst argument must be a directory or a flag: {path}\n' + FAILED)


def test_first_argument_with_formatting_marks_is_printed_as_it_is():
    check(run('%s%n%d'), 1, '', 'first argument must be a directory or a flag: %s%n%d\n' + FAILED)


@pytest.mark.parametrize('arguments', [['DIRECTORY', '--meta', 'x'], ['DIRECTORY', '--flat', 'x'],
                                       ['--meta', 'x', '--flat', 'y'], ['DIRECTORY', '-m', 'x', '-f', 'y']])
def test_several_packages_are_refused_with_help(arguments, package):
    arguments = [package if argument == 'DIRECTORY' else argument for argument in arguments]
    check(run(*arguments), 1, HELP, TWO_SOURCES + FAILED)


@pytest.mark.parametrize('more', [['--skip-enter-qdl'], ['-s'], ['-s', '--port', ''], ['-s', '--force']])
def test_skipping_the_switch_needs_a_port(more, package):
    check(run(package, *more), 1, HELP, SKIP_NEEDS_PORT + FAILED)


@pytest.mark.parametrize('more', [['--port', '/dev/x'], ['-p', '/dev/x'], ['-p', '/dev/x', '-s'],
                                  ['-p', '/dev/x', '--dry-run']])
def test_a_port_needs_force(more, package):
    check(run(package, *more), 1, HELP, PORT_NEEDS_FORCE + FAILED)


def test_missing_package_is_refused_before_the_port():
    check(run('--port', '/dev/x', '--skip-enter-qdl'), 1, HELP, NO_SOURCE + FAILED)


def test_empty_port_is_no_port(package):
    check(run(package, '--port', '', '--force'), 156, '', NO_BUS + FAILED)


@pytest.mark.parametrize('arguments', [
    ['DIRECTORY'], ['DIRECTORY', 'ignored', 'words'], ['DIRECTORY', '--dry-run', 'ignored'],
    ['DIRECTORY', '-q', '-r', '-e'], ['DIRECTORY', '--enter-qdl', '--dry-run'], ['--meta', 'x', 'ignored'],
    ['--flat', 'x'], ['-f', 'x', '-m', ''], ['DIRECTORY', '--pcie', '--pcie', '--force', '--force'],
])
def test_good_command_line_goes_on_to_the_bus(arguments, package):
    arguments = [package if argument == 'DIRECTORY' else argument for argument in arguments]
    check(run(*arguments), 156, '', NO_BUS + FAILED)


def test_otp_goes_with_flat():
    check(run('--otp', '--flat', 'x'), 156, '', NO_BUS + OTP_FAILED)


def test_the_last_value_wins(package):
    other = package.parent / 'elsewhere'
    outcome = run('--meta', package / 'contents.xml', '-m', other / 'contents.xml', '-p', 'x', '--force', '-r')
    check(outcome, 254, '', f'get_new_pkgver: cannot open the file {other}/information.contents\n'
          'unable to get package version of the firmware to be flashed\n' + FAILED)


def test_a_flag_name_is_a_value_only_behind_its_dashes(package):
    check(run('--meta', package / 'contents.xml', '--port', 'json', '--force', '--dry-run'), 0, COMPLETED,
          'dry-run requested, bailing out\n')


def test_a_value_is_cut_to_255_characters(package):
    path = 'p' * 300
    outcome = run(package, '--port', path, '--force')
    assert (outcome.status, outcome.out) == (154, VERSION)
    cut = 'p' * 255
    assert outcome.err == (f'could not open device {cut}: error 2 No such file or directory\n'
                           f'unable to open device path {cut}\n'
                           'unable to set the modem to firmware update mode\n' + FAILED)


def test_30_arguments_are_parsed(package):
    check(run(package, *['--dry-run'] * 28), 156, '', NO_BUS + FAILED)


@pytest.mark.parametrize('count', [31, 60])
def test_31_arguments_stop_the_program(count, package):
    outcome = run(package, *['--dry-run'] * (count - 2))
    assert outcome.status == -signal.SIGABRT
    assert re.fullmatch(r'\S+: assertion failed: MAX_CLI_ARGS >= argc\n', outcome.err)


def test_debug_echoes_the_arguments_with_prefixes():
    outcome = run('/nowhere', '--debug', '--force', '-m', '')
    assert outcome.status == 1
    expected = [re.escape('version 1.6.1-0')]
    expected += [debug_line('DBG', '../main.c', 'check_args', f'arg[{i}]: {text}')
                 for i, text in enumerate([KESTREL, '/nowhere', '--debug', '--force', '-m', ''])]
    assert re.fullmatch('\n'.join(expected) + '\n', outcome.out)
    refusal = 'first argument must be a directory or a flag: /nowhere'
    failure = [debug_line('ERR', '../main.c', 'check_args', refusal),
               debug_line('ERR', '../main.c', 'main', ''), 'Firmware update failed!']
    assert re.fullmatch('\n'.join(failure) + '\n', outcome.err)


def test_debug_gives_the_refusal_and_the_help_prefixes():
    outcome = run('-d')
    assert outcome.status == 1
    refusal = [debug_line('ERR', '../main.c', 'check_args', NO_SOURCE[:-1]),
               debug_line('ERR', '../main.c', 'main', ''), 'Firmware update failed!']
    assert re.fullmatch('\n'.join(refusal) + '\n', outcome.err)
    assert re.search('^' + debug_line('INF', '../main.c', 'print_help', 'options:') + '$', outcome.out, re.MULTILINE)
    last = debug_line('INF', '../main.c', 'print_help', '0x05c6:0x9008')
    assert re.fullmatch(last, outcome.out.splitlines()[-1])


def test_debug_does_not_apply_to_parser_errors():
    check(run('--debug', '--nonsense'), 234, HELP, "unknown argument '--nonsense'\n" + FAILED)


def json_events(outcome):
    """The lines of both streams: on standard output behind the version line."""
    assert outcome.out.startswith(VERSION)
    return json_lines(outcome.out[len(VERSION):]), json_lines(outcome.err)


def messages(events):
    return [(event['severity'], event['function'], event['msg']) for event in events]


def test_json_refusal_is_json_on_both_streams():
    outcome = run('--json')
    assert outcome.status == 1
    out, err = json_events(outcome)
    assert messages(err) == [('ERR', 'check_args', NO_SOURCE[:-1]), ('ERR', 'main', FAILED[:-1])]
    # One object a message: what was several lines of text is one "msg", without its last line feed.
    text = ''.join(message + '\n' for _, _, message in messages(out))
    assert text == HELP
    assert {(severity, function) for severity, function, _ in messages(out)} == {
        ('INF', 'print_help'), ('INF', 'core_print_ombra_version')}


def test_json_applies_to_the_debug_echo():
    outcome = run('/nowhere', '--json', '--debug')
    out, _ = json_events(outcome)
    words = [KESTREL, '/nowhere', '--json', '--debug']
    assert messages(out) == [('DBG', 'check_args', f'arg[{i}]: {word}') for i, word in enumerate(words)]


def test_json_escapes_what_an_argument_holds():
    name = 'no "such"\\directory\n\t\x01'
    outcome = run(name, '--json')
    out, err = json_events(outcome)
    assert out == []
    assert messages(err) == [('ERR', 'check_args', 'first argument must be a directory or a flag: ' + name),
                             ('ERR', 'main', FAILED[:-1])]


def test_json_replaces_bytes_that_are_no_text():
    outcome = run(b'/no\xff\xc3where', '-j')
    _, err = json_events(outcome)
    assert err[0]['msg'] == 'first argument must be a directory or a flag: /no\ufffd\ufffdwhere'
