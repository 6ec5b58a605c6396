// The C library below the code under test, where a test puts functions of its own in the place of its.
//
// The linker hands each call of the functions named here (--wrap, tests/CMakeLists.txt) to a wrapper. It asks
// the hook of that name first, then what all tests share (a scripted port, virtual time), and then the C
// library. A hook counts for the thread of the test alone; calls that a replacement itself makes go on to
// what lies below it; and every hook is empty again before the next case.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

namespace libc {

bool is_test_thread();

// Hooks live as long as the process: the C library is called to the very end of it.
class any_hook {
  public:
    any_hook();
    any_hook(const any_hook &) = delete;
    any_hook &operator=(const any_hook &) = delete;
    virtual void reset() = 0;

  protected:
    ~any_hook() = default;
};

template <typename Signature> class hook;
template <typename Result, typename... Arguments> class hook<Result(Arguments...)> final : public any_hook {
  public:
    template <typename Replacement> hook &operator=(Replacement replacement)
    {
        reset();
        replacement_ = new std::function<Result(Arguments...)>(std::move(replacement));
        return *this;
    }
    void reset() override
    {
        delete replacement_;
        replacement_ = nullptr;
    }

    // True where the replacement is to take the call.
    explicit operator bool() const { return replacement_ != nullptr && !is_running_ && is_test_thread(); }
    Result operator()(Arguments... arguments)
    {
        const running guard(&is_running_);
        return (*replacement_)(arguments...);
    }

  private:
    struct running {
        explicit running(bool *flag) : is_running(flag) { *is_running = true; }
        running(const running &) = delete;
        running &operator=(const running &) = delete;
        ~running() { *is_running = false; }
        bool *is_running;
    };

    std::function<Result(Arguments...)> *replacement_ = nullptr;
    bool is_running_ = false;
};

inline hook<int(const char *, int)> access;
inline hook<speed_t(const termios *)> cfgetispeed;
inline hook<speed_t(const termios *)> cfgetospeed;
inline hook<int(termios *, speed_t)> cfsetispeed;
inline hook<int(termios *, speed_t)> cfsetospeed;
inline hook<int(clockid_t, timespec *)> clock_gettime;
inline hook<int(int)> close;
inline hook<int(int, struct stat *)> fstat;
inline hook<int(timeval *)> gettimeofday;
inline hook<int()> inotify_init;
inline hook<int(int, const char *, uint32_t)> inotify_add_watch;
inline hook<int(int, unsigned long, void *)> ioctl;
inline hook<off_t(int, off_t, int)> lseek;
inline hook<int(pollfd *, nfds_t, int)> poll;
inline hook<ssize_t(int, void *, size_t)> read;
inline hook<ssize_t(int, msghdr *, int)> recvmsg;
inline hook<int(FILE *, char *, int, size_t)> setvbuf;
inline hook<char *(const char *)> strdup;
inline hook<int(int, termios *)> tcgetattr;
inline hook<int(int, int, const termios *)> tcsetattr;
inline hook<int(useconds_t)> usleep;
inline hook<void(int, const char *)> vsyslog; // gets the finished text
inline hook<ssize_t(int, const void *, size_t)> write;

// A replacement that fails in every call.
struct failure {
    int number;
    template <typename... Arguments> int operator()(Arguments...) const
    {
        errno = number;
        return -1;
    }
};
inline failure fails(int number)
{
    return {number};
}
// One that fails in the call of this number, counted from 1, and in no other.
template <typename Function> auto fails_in_call(int call, int number, Function otherwise)
{
    return [call, number, otherwise](auto... arguments) mutable -> decltype(otherwise(arguments...)) {
        if (--call != 0)
            return otherwise(arguments...);
        errno = number;
        return -1;
    };
}
// Every read of a regular file fails; ports and pipes go on.
void fail_file_reads(int number);

void reset();

} // namespace libc
