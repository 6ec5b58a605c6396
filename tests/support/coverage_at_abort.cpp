// Part of each test program of a build that counts coverage: a process that ends by abort(), as the ones do
// in which an assertion is to fail, writes its counters first.
#include <csignal>

extern "C" void __gcov_dump(); // NOLINT(bugprone-reserved-identifier)

namespace {

void write_counters(int)
{
    __gcov_dump(); // abort() ends the process when this returns
}

__attribute__((constructor)) void install()
{
    signal(SIGABRT, write_counters);
}

} // namespace
