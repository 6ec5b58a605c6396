// A /sys and a /dev of the test's own, for code that goes to fixed paths: the process moves into a private
// mount namespace, where an empty file system hides the machine's. What is in there has the same names in
// every such process: locks of names, which are those of a network, do not meet either. Tests skip where that
// is not permitted.
#pragma once

#include "restored-state.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>
#include <vector>

namespace private_mounts {

inline bool write_text(const std::string &path, const std::string &text)
{
    std::ofstream stream(path);
    stream << text;
    stream.close();
    return stream.good();
}

// Moves the process into the namespace, once. False, with the reason, where that is not permitted.
inline bool enter(std::string *reason)
{
    static bool entered = false;
    if (entered)
        return true;
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET) != 0) {
            *reason = std::string("no private namespaces: ") + strerror(errno);
            return false;
        }
        write_text("/proc/self/setgroups", "deny");
        if (!write_text("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") ||
            !write_text("/proc/self/gid_map", "0 " + std::to_string(group) + " 1")) {
            *reason = "the user namespace takes no identifier maps";
            return false;
        }
    }
    // Without this the mounts would reach the machine's own namespace.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        *reason = std::string("mounts cannot be made private: ") + strerror(errno);
        return false;
    }
    entered = true;
    return true;
}

// What hides the machine's folders, taken away again at the end of the case.
inline std::vector<const char *> hidden;
inline const restored_state shown_again([] {
    for (const char *const folder : hidden)
        umount2(folder, MNT_DETACH);
    hidden.clear();
});

// An empty /sys in place of the machine's, until the end of the case.
inline bool empty_sys(std::string *reason)
{
    if (!enter(reason))
        return false;
    if (mount("tmpfs", "/sys", "tmpfs", 0, nullptr) != 0) {
        *reason = std::string("no private /sys: ") + strerror(errno);
        return false;
    }
    hidden.push_back("/sys");
    return true;
}

// A /dev that holds the terminals and the usual memory devices only, until the end of the case. A
// pseudo-terminal has to be opened before.
inline bool empty_dev(std::string *reason)
{
    if (!enter(reason))
        return false;
    const auto fail = [reason](const char *what) {
        *reason = std::string(what) + ": " + strerror(errno);
        return false;
    };
    char place[] = "/tmp/kestrel-dev-XXXXXX";
    if (mkdtemp(place) == nullptr || mount("tmpfs", place, "tmpfs", 0, nullptr) != 0)
        return fail("no private /dev");
    const std::string base = place;
    std::filesystem::create_directory(base + "/pts");
    if (mount("/dev/pts", (base + "/pts").c_str(), nullptr, MS_BIND, nullptr) != 0)
        return fail("no terminals in the private /dev");
    for (const char *name : {"null", "zero", "full", "random", "urandom"}) {
        const std::string target = base + "/" + name;
        write_text(target, "");
        if (mount((std::string("/dev/") + name).c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
            return fail("no memory devices in the private /dev");
    }
    if (mount(place, "/dev", nullptr, MS_BIND | MS_REC, nullptr) != 0)
        return fail("no private /dev");
    hidden.push_back("/dev");
    umount2(place, MNT_DETACH);
    rmdir(place);
    return true;
}

// Writes a file below one of the two, its folders included.
inline void write(const std::string &path, const std::string &text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    write_text(path, text);
}

} // namespace private_mounts
