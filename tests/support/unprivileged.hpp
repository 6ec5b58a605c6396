// Gives up the super-user's rights for as long as it lives: nothing is forbidden to him.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>

class unprivileged {
  public:
    unprivileged() : was_root_(geteuid() == 0)
    {
        if (was_root_) {
            EXPECT_EQ(setresuid(nobody, nobody, 0), 0);
        }
    }
    unprivileged(const unprivileged &) = delete;
    unprivileged &operator=(const unprivileged &) = delete;
    ~unprivileged()
    {
        if (was_root_) {
            EXPECT_EQ(setresuid(0, 0, 0), 0);
            prctl(PR_SET_DUMPABLE, 1); // lost with the rights; the leak check needs it
        }
    }

    // Makes the unprivileged user the owner of what the test made.
    static void give_away(const std::string &path)
    {
        if (geteuid() == 0) {
            EXPECT_EQ(chown(path.c_str(), nobody, static_cast<gid_t>(-1)), 0);
        }
    }

    static constexpr uid_t nobody = 65534;

  private:
    bool was_root_;
};
