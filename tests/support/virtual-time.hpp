// The time that the code under test lives in. It stands still until that code sleeps or waits, and then goes
// on by just as much, at once: silence costs nothing, and every wait can be asserted to the millisecond.
//
// Sleeps, waits for descriptors (poll(2)) and the monotonic clock go by it; other threads than the test's
// live in real time, and so does a test that says so (real_time), since only there something may come from
// outside.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <vector>

class virtual_time {
  public:
    static virtual_time &instance();
    void reset();

    // What the code under test slept, call by call, in milliseconds.
    std::vector<unsigned> slept;
    std::function<void()> when_slept; // run at the end of each sleep, may be empty
    int64_t per_read_ms = 0;          // how far each reading of the clock puts it forward
    bool is_broken = false;           // the clock cannot be read
    bool is_real = false;

    // Since the start of the case, in milliseconds.
    int64_t now_ms() const { return now_us_ / 1000; }
    int64_t now_us() const { return now_us_; }
    // Lets something happen so many milliseconds from now, while the code under test sleeps or waits.
    void after(int64_t ms, std::function<void()> what, const void *owner = nullptr);
    // What the owner has planned will not happen.
    void forget(const void *owner);

    // clock_gettime(2) and usleep(3) in virtual time.
    int read(timespec *now);
    void sleep(unsigned us);
    // Lets time pass until `is_over` says so, for `us` microseconds at most. False when it never did.
    bool pass(int64_t us, const std::function<bool()> &is_over = nullptr);

  private:
    struct plan {
        std::function<void()> what;
        const void *owner;
    };
    std::multimap<int64_t, plan> plans_; // by their time in microseconds
    int64_t now_us_ = 0;
};

// As long as one lives, sleeps and waits last as long as they say.
class real_time {
  public:
    real_time() { virtual_time::instance().is_real = true; }
    real_time(const real_time &) = delete;
    real_time &operator=(const real_time &) = delete;
    ~real_time() { virtual_time::instance().is_real = false; }
};

// How long the call waits, in milliseconds of virtual time.
template <typename Call> int64_t duration_of(Call call)
{
    const int64_t begun = virtual_time::instance().now_ms();
    call();
    return virtual_time::instance().now_ms() - begun;
}
