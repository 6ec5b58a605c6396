// A library to be preloaded (LD_PRELOAD) into the unmodified program: one of its allocations fails.
//
// FAIL_ALLOCATION is the number of the allocation that fails, counted from 1 at the start of the program;
// none does where it is 0. ALLOCATION_COUNT names the file into which the count is written when the program
// ends.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

unsigned long allocations;
unsigned long failing;

// Runs when main() has returned: what the C library and the counters of coverage do afterwards is not the
// program's.
void end()
{
    char text[32];
    const int length = snprintf(text, sizeof text, "%lu\n", allocations);
    const char *const path = getenv("ALLOCATION_COUNT");
    const int file = path != nullptr ? open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600) : -1;
    if (file < 0 || write(file, text, static_cast<size_t>(length)) != length)
        _exit(99);
    close(file);
    failing = 0;
}

bool fails()
{
    if (++allocations == 1)
        atexit(end);
    if (allocations != failing)
        return false;
    errno = ENOMEM;
    return true;
}

// The C library's function behind the one that is replaced here.
template <typename Function> Function behind(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

__attribute__((constructor)) void begin()
{
    const char *const number = getenv("FAIL_ALLOCATION");
    failing = number != nullptr ? strtoul(number, nullptr, 10) : 0;
    allocations = 0;
}

} // namespace

extern "C" void *malloc(size_t size)
{
    static const auto real = behind<void *(*)(size_t)>("malloc");
    return fails() ? nullptr : real(size);
}

extern "C" void *calloc(size_t count, size_t size)
{
    static const auto real = behind<void *(*)(size_t, size_t)>("calloc");
    return fails() ? nullptr : real(count, size);
}

extern "C" void *realloc(void *block, size_t size)
{
    static const auto real = behind<void *(*)(void *, size_t)>("realloc");
    return fails() ? nullptr : real(block, size);
}
