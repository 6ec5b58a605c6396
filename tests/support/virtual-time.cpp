#include "virtual-time.hpp"

#include "restored-state.hpp"

#include <algorithm>
#include <cerrno>

namespace {

const restored_state restored([] { virtual_time::instance().reset(); });

} // namespace

virtual_time &virtual_time::instance()
{
    static auto *const only = new virtual_time; // the C library is called to the very end of the process
    return *only;
}

void virtual_time::reset()
{
    *this = {};
}

void virtual_time::after(int64_t ms, std::function<void()> what, const void *owner)
{
    plans_.emplace(now_us_ + ms * 1000, plan{std::move(what), owner});
}

void virtual_time::forget(const void *owner)
{
    std::erase_if(plans_, [owner](const auto &planned) { return planned.second.owner == owner; });
}

int virtual_time::read(timespec *now)
{
    if (is_broken) {
        errno = EINVAL;
        return -1;
    }
    constexpr int64_t at_start_us = INT64_C(1000000000000); // a machine that has been up for a while
    now_us_ += per_read_ms * 1000;
    const int64_t us = at_start_us + now_us_;
    now->tv_sec = static_cast<time_t>(us / 1000000);
    now->tv_nsec = static_cast<long>(us % 1000000) * 1000;
    return 0;
}

void virtual_time::sleep(unsigned us)
{
    slept.push_back(us / 1000);
    pass(us);
    if (when_slept)
        when_slept();
}

bool virtual_time::pass(int64_t us, const std::function<bool()> &is_over)
{
    const int64_t end = now_us_ + us;
    for (;;) {
        if (is_over && is_over())
            return true;
        const auto next = plans_.begin();
        if (next == plans_.end() || next->first > end)
            break;
        now_us_ = std::max(now_us_, next->first);
        const std::function<void()> what = std::move(next->second.what);
        plans_.erase(next);
        what();
    }
    now_us_ = end;
    return false;
}
