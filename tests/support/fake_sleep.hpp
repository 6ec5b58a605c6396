// A stand-in for usleep(3), linked in its place by the one test file that includes this: sleeps take no time
// and are recorded, so that long pauses can be tested to the millisecond.
#pragma once

#include <functional>
#include <unistd.h>
#include <vector>

struct fake_sleep {
    std::vector<unsigned> slept;      // milliseconds, call by call
    std::function<void()> when_slept; // run at each sleep, may be empty

    static fake_sleep &instance()
    {
        static fake_sleep only;
        return only;
    }
    void reset() { *this = {}; }
};

extern "C" int usleep(useconds_t microseconds)
{
    fake_sleep &fake = fake_sleep::instance();
    fake.slept.push_back(microseconds / 1000);
    if (fake.when_slept)
        fake.when_slept();
    return 0;
}
