// What a file is known by, for fixtures that describe an image or a programmer as validation would.
#pragma once

#include "core-reading.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

inline core_file_identity identity_of(const std::string &path)
{
    const owned_handle<close> opened(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    core_file_identity identity{};
    EXPECT_EQ(core_file_identify(opened.get(), &identity), 0);
    return identity;
}
