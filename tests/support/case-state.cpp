// Linked into every program of unit tests: puts the state of the process back before and after each case, so
// that none depends on those that ran before it, and looks at the end of each for what it left open or
// unused.
#include "core.hpp"
#include "interrupt.hpp"
#include "log-output.hpp"
#include "memory-limit.hpp"
#include "options.hpp"
#include "package.hpp"
#include "restored-state.hpp"
#include "run-lock.hpp"
#include "zepho-json.hpp"
#include "zepho-log.hpp"

#include <array>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <stdio_ext.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define WITH_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define WITH_ADDRESS_SANITIZER
#endif
#endif

// Memory that cannot be had is a null pointer here too, as it is without a sanitizer.
extern "C" const char *__asan_default_options() // NOLINT(bugprone-reserved-identifier): looked up by name
{
    return "allocator_may_return_null=1:max_allocation_size_mb=512";
}

namespace {

struct registered_state {
    std::function<void()> put_back;
    std::function<void()> verify;
};

std::vector<registered_state> &registered()
{
    static auto *const all = new std::vector<registered_state>;
    return *all;
}

// ---- of the code under test

const restored_state log_core([] {
    static char json_buffer[10240];
    core_log_deinit();
    core_log_set_native(false);
    core_log_set_pprint(CORE_LOG_PPRINT_PLAIN);
    core_log_set_level(CORE_LOG_INF);
    core_log_enable_core_messages(true);
    static_cast<void>(core_log_set_json_buffer(json_buffer, sizeof json_buffer));
});

const restored_state program([] {
    sigint_detected = 0;
    keep_running = 1;
    interruptions = 0;
    options = {};
    fw_package_free();
    release_modems();
    std::destroy_at(&package); // in place: it is too large for the stack
    std::construct_at(&package);
});

// ---- of the process

// What is put back as it was when the program started.
class surroundings {
  public:
    void put_back() const
    {
        errno = 0;
        EXPECT_EQ(fchdir(folder_), 0);
        umask(mask_);
        EXPECT_EQ(setrlimit(RLIMIT_AS, &memory_), 0);
        const itimerval no_timer{};
        setitimer(ITIMER_REAL, &no_timer, nullptr);
        for (size_t i = 1; i < actions_.size(); ++i)
            sigaction(static_cast<int>(i), &actions_[i], nullptr);
        buffer_output();
    }

    static surroundings &instance()
    {
        static surroundings only;
        return only;
    }

  private:
    surroundings() : folder_(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), mask_(umask(0))
    {
        umask(mask_);
        getrlimit(RLIMIT_AS, &memory_);
        for (size_t i = 1; i < actions_.size(); ++i)
            sigaction(static_cast<int>(i), nullptr, &actions_[i]);
    }

    // The JSON output makes it unbuffered, which would slow the report down.
    static void buffer_output()
    {
        static char buffer[BUFSIZ];
        if (__fbufsize(stdout) == 1)
            setvbuf(stdout, buffer, isatty(STDOUT_FILENO) != 0 ? _IOLBF : _IOFBF, sizeof buffer);
    }

    int folder_;
    mode_t mask_;
    rlimit memory_{};
    std::array<struct sigaction, 32> actions_{};
};

std::set<std::string> open_descriptors()
{
    std::set<std::string> found;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        found.insert(entry.path().filename());
    return found;
}

class each_case : public testing::EmptyTestEventListener {
  public:
    void OnTestProgramStart(const testing::UnitTest &) override { surroundings::instance(); }
    void OnTestStart(const testing::TestInfo &) override
    {
        put_back();
        descriptors_ = open_descriptors();
    }
    void OnTestEnd(const testing::TestInfo &) override
    {
        const bool passed = !testing::Test::HasFailure() && !testing::Test::IsSkipped();
        for (const registered_state &each : registered()) {
            if (each.verify && passed)
                each.verify();
        }
        put_back();
        EXPECT_EQ(open_descriptors(), descriptors_) << "descriptors before the case and after it";
    }

  private:
    static void put_back()
    {
        for (const registered_state &each : registered())
            each.put_back();
        surroundings::instance().put_back();
    }

    std::set<std::string> descriptors_;
};

// The framework owns its listeners.
__attribute__((constructor)) void listen()
{
    testing::UnitTest::GetInstance()->listeners().Append(new each_case);
}

} // namespace

void limit_memory()
{
#ifndef WITH_ADDRESS_SANITIZER
    rlimit limit{};
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = 512U << 20U;
    EXPECT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
#endif
}

restored_state::restored_state(std::function<void()> put_back, std::function<void()> verify)
{
    registered().push_back({std::move(put_back), std::move(verify)});
}
