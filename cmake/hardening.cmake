# harden(TARGET...): makes a mistake hard to exploit in programs that read what modems and packages say. Each flag is
# taken where compiler and linker know it, so that other processors and C libraries build as well;
# tests/flow/test_binary.py looks at the programs that came out.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckLinkerFlag)

# The program lies at another address in each run. -fPIE instead of CMake's property, which would compile the
# libraries by -fPIC as if they were to be shared.
check_cxx_compiler_flag(-fPIE HAS_COMPILE_PIE)
check_linker_flag(CXX -pie HAS_LINK_PIE)
if(HAS_COMPILE_PIE AND HAS_LINK_PIE)
  list(APPEND hardening_compile -fPIE)
  list(APPEND hardening_link -pie)
endif()

# A function that holds an array finds out when its return address was overwritten.
check_cxx_compiler_flag(-fstack-protector-strong HAS_STACK_PROTECTOR)
if(HAS_STACK_PROTECTOR)
  list(APPEND hardening_compile -fstack-protector-strong)
endif()

# The C library checks the sizes of buffers. It can do so in optimised builds alone and would warn in others; and a
# compiler or a distribution that has set a level of its own keeps it.
set(CMAKE_REQUIRED_FLAGS -O2)
check_cxx_source_compiles("
#ifndef _FORTIFY_SOURCE
#error not set
#endif
int main() {}" HAS_OWN_FORTIFY_LEVEL)
unset(CMAKE_REQUIRED_FLAGS)
if(NOT HAS_OWN_FORTIFY_LEVEL)
  set(hardening_definitions $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()

# The tables through which the C library's functions are called are filled at the start and then read-only (relro,
# now); nothing on the stack is ever executed.
foreach(property relro now noexecstack)
  check_linker_flag(CXX -Wl,-z,${property} HAS_LINK_${property})
  if(HAS_LINK_${property})
    list(APPEND hardening_link -Wl,-z,${property})
  endif()
endforeach()

function(harden)
  foreach(target ${ARGN})
    target_compile_options(${target} PRIVATE ${hardening_compile})
    target_compile_definitions(${target} PRIVATE ${hardening_definitions})
    target_link_options(${target} PRIVATE ${hardening_link})
  endforeach()
endfunction()
