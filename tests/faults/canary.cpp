#include "canary.hpp"

#include <cstdlib>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

canary::canary() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
{
    char name[64];
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 ||
        ptsname_r(master_, name, sizeof name) != 0)
        abort();
    slave_ = open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    termios attributes{};
    if (slave_ < 0 || tcgetattr(slave_, &attributes) != 0)
        abort();
    cfmakeraw(&attributes);
    if (tcsetattr(slave_, TCSANOW, &attributes) != 0)
        abort();
}

canary::~canary()
{
    close(slave_);
    close(master_);
}

extern "C" ssize_t __real_write(int file, const void *data, size_t size); // what goes here is not the modem's

void canary::send()
{
    if (!under_way_)
        under_way_ = __real_write(master_, "", 1) == 1;
}

bool canary::has_arrived()
{
    char byte = 0;
    if (under_way_ && read(slave_, &byte, 1) == 1)
        under_way_ = false;
    return !under_way_;
}
