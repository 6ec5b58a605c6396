"""The built programs as files: what makes a mistake in them hard to exploit, and which libraries they need."""
import os
import re
import subprocess
from pathlib import Path

import pytest

from harness import KESTREL, KESTREL_SIM, SANITIZED, SOURCE

PROGRAMS = pytest.mark.parametrize('program', [KESTREL, KESTREL_SIM], ids=os.path.basename)
BUILD_TYPE = os.environ.get('KESTREL_BUILD_TYPE')
COMPILER = os.environ.get('KESTREL_COMPILER')


def readelf(what, program):
    done = subprocess.run(['readelf', '--wide', what, program], check=True, capture_output=True, text=True, timeout=20,
                          env={'LC_ALL': 'C'})
    return done.stdout


def segment(program, name):
    """The line of the one segment of this type: offset, addresses, sizes, flags, alignment."""
    lines = re.findall(rf'^ +{name} +(0x.*)$', readelf('--segments', program), re.MULTILINE)
    assert len(lines) == 1, f'{len(lines)} segments of the type {name}'
    return lines[0]


def dynamic(program, tag):
    return re.findall(rf'\({tag}\) +(.*)$', readelf('--dynamic', program), re.MULTILINE)


def called(program):
    """The functions that the program takes from its libraries."""
    return set(re.findall(r' FUNC +(?:GLOBAL|WEAK) +DEFAULT +UND (\w+)', readelf('--dyn-syms', program)))


@PROGRAMS
def test_program_lies_at_another_address_in_each_run(program):
    assert re.search(r'^ +Type: +DYN ', readelf('--file-header', program), re.MULTILINE)
    assert segment(program, 'INTERP')  # without which it were a library
    assert 'PIE' in ' '.join(dynamic(program, 'FLAGS_1')).split()


@PROGRAMS
def test_tables_of_library_functions_are_read_only(program):
    assert segment(program, 'GNU_RELRO')
    assert 'BIND_NOW' in ' '.join(dynamic(program, 'FLAGS')).split()
    assert 'NOW' in ' '.join(dynamic(program, 'FLAGS_1')).split()


@PROGRAMS
def test_stack_is_not_executable(program):
    offset_to_align = segment(program, 'GNU_STACK').split()
    assert offset_to_align[5:-1] == ['RW']


@PROGRAMS
def test_overwritten_return_address_ends_the_program(program):
    assert '__stack_chk_fail' in called(program)


@PROGRAMS
def test_library_checks_the_sizes_of_buffers_where_the_build_optimises(program):
    assert BUILD_TYPE and COMPILER, 'KESTREL_BUILD_TYPE and KESTREL_COMPILER must tell how the program was built'
    if '/ld-musl-' in readelf('--segments', program):
        pytest.skip('this C library has no such checks')
    # clang checks no call with variable arguments, and the simulated modem has no other.
    none_to_check = program == KESTREL_SIM and COMPILER == 'Clang'
    checked = {name for name in called(program) if re.fullmatch(r'__\w+_chk', name)}
    assert bool(checked) == (BUILD_TYPE != 'Debug' and not none_to_check)


def test_updater_needs_libc_and_libusb_only():
    needed = {re.search(r'\[(.+?)\.so', line).group(1) for line in dynamic(KESTREL, 'NEEDED')}
    if SANITIZED:
        needed -= {'libasan', 'libubsan'}
    assert needed == {'libc', 'libusb-1.0'}


def test_updater_does_not_tell_where_it_was_built():
    program = Path(KESTREL).read_bytes()
    assert b'app/package.cpp' in program  # the name that a failed assertion gives
    assert os.fsencode(SOURCE) not in program
