#include "core-reading.hpp"

#include "file-identity.hpp"
#include "libc-hooks.hpp"
#include "log_capture.hpp"
#include "temp_dir.hpp"
#include "unprivileged.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using texts = std::vector<std::string>;

// The package is the folder pkg; what lies outside of it, lies beside it.
class Reading : public testing::Test {
  protected:
    Reading() : folder(dir.at("pkg"))
    {
        std::filesystem::create_directory(folder);
        errno = EBADF; // what an opening leaves there, it has put there
    }

    std::string make_link(const std::string &target, const std::string &name) const
    {
        EXPECT_EQ(symlink(target.c_str(), dir.at(name).c_str()), 0);
        return dir.at(name);
    }
    int open_to_read(const std::string &path) { return core_file_open_to_read(path.c_str(), file.receive()); }
    int open_beneath(const std::string &path) { return open_beneath(folder, path); }
    int open_beneath(const std::string &outer, const std::string &path)
    {
        return core_file_open_beneath(outer.c_str(), path.c_str(), file.receive());
    }
    std::string content() const
    {
        char text[32] = {};
        return read(file.get(), text, sizeof text - 1) < 0 ? "(unreadable)" : text;
    }
    texts errors() const { return log.texts(CORE_LOG_ERR); }

    temp_dir dir;
    const std::string folder;
    owned_file file;
    log_capture log;
};

class OpenToRead : public Reading {};
class OpenBeneath : public Reading {
  protected:
    // Of the file pkg/file, or of what the path leads to.
    void expect_inside(const std::string &outer, const std::string &path)
    {
        dir.write("pkg/file", "inside");
        EXPECT_EQ(open_beneath(outer, path), 0);
        EXPECT_EQ(content(), "inside");
        EXPECT_TRUE(log.messages().empty());
    }
    void expect_outside(const std::string &outer, const std::string &path)
    {
        EXPECT_EQ(open_beneath(outer, path), -22);
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(file.get(), -1);
        ASSERT_EQ(errors(), texts{"file name leads out of the package: " + path});
        EXPECT_EQ(log.messages().back().file, "core-file.c");
        EXPECT_EQ(log.messages().back().function, "core_file_open");
    }
    void expect_outside(const std::string &path) { expect_outside(folder, path); }
};

} // namespace

// ---- what is opened

TEST_F(OpenToRead, OpensARegularFile)
{
    EXPECT_EQ(open_to_read(dir.write("file", "content")), 0);
    EXPECT_EQ(content(), "content");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(OpenToRead, OpensThroughALink)
{
    dir.write("file", "content");
    EXPECT_EQ(open_to_read(make_link("file", "link")), 0);
    EXPECT_EQ(content(), "content");
}

TEST_F(OpenToRead, OpensThroughTwoLinks)
{
    dir.write("file", "content");
    make_link("file", "first");
    EXPECT_EQ(open_to_read(make_link(dir.at("first"), "second")), 0);
    EXPECT_EQ(content(), "content");
}

TEST_F(OpenToRead, OpensAnEmptyFile)
{
    EXPECT_EQ(open_to_read(dir.write("file", "")), 0);
    EXPECT_EQ(content(), "");
}

TEST_F(OpenToRead, OpensForReadingOnly)
{
    const std::string path = dir.write("file", "content");
    EXPECT_EQ(open_to_read(path), 0);
    EXPECT_EQ(fcntl(file.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(write(file.get(), "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(read_file(path), "content");
}

TEST_F(OpenToRead, GivesADescriptorThatNeitherWaitsNorIsInherited)
{
    EXPECT_EQ(open_to_read(dir.write("file", "content")), 0);
    EXPECT_NE(fcntl(file.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(OpenToRead, ReadsFromTheBegin)
{
    const std::string path = dir.write("file", "content");
    EXPECT_EQ(open_to_read(path), 0);
    EXPECT_EQ(content(), "content");
    EXPECT_EQ(open_to_read(path), 0);
    EXPECT_EQ(content(), "content");
}

TEST_F(OpenToRead, OpensAFileThatNobodyMayWrite)
{
    const std::string path = dir.write("file", "content");
    chmod(path.c_str(), 0444);
    chmod(dir.path().c_str(), 0555);
    unprivileged::give_away(path);
    unprivileged::give_away(dir.path());
    {
        const unprivileged user;
        EXPECT_EQ(open_to_read(path), 0);
        EXPECT_EQ(content(), "content");
    }
    chmod(dir.path().c_str(), 0755);
}

// ---- what is refused

TEST_F(OpenToRead, ReportsAMissingFileAndCreatesNone)
{
    EXPECT_EQ(open_to_read(dir.at("file")), -2);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(file.get(), -1);
    EXPECT_TRUE(log.messages().empty()); // the caller may log it
    EXPECT_FALSE(std::filesystem::exists(dir.at("file")));
}

TEST_F(OpenToRead, ReportsAFileBelowAFile)
{
    EXPECT_EQ(open_to_read(dir.write("file", "content") + "/below"), -102);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(OpenToRead, ReportsAnEmptyName)
{
    EXPECT_EQ(open_to_read(""), -2);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(OpenToRead, RefusesALinkToNothingAndCreatesNothing)
{
    const std::string path = make_link("nothing", "link");
    EXPECT_EQ(open_to_read(path), -2);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(file.get(), -1);
    ASSERT_EQ(errors(), texts{"'" + path + "' is a link to a file that is not there"});
    EXPECT_EQ(log.messages().back().file, "core-file.c");
    EXPECT_EQ(log.messages().back().function, "core_file_open");
    EXPECT_FALSE(std::filesystem::exists(dir.at("nothing")));
}

TEST_F(OpenToRead, ReportsALinkToItself)
{
    EXPECT_EQ(open_to_read(make_link("link", "link")), -102);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(OpenToRead, ReportsTwoLinksToEachOther)
{
    make_link("second", "first");
    EXPECT_EQ(open_to_read(make_link("first", "second")), -102);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(OpenToRead, ReportsAFileThatMayNotBeRead)
{
    const std::string path = dir.write("file", "content");
    chmod(path.c_str(), 0200);
    unprivileged::give_away(path);
    unprivileged::give_away(dir.path());
    int result = 0;
    int number = 0;
    {
        const unprivileged user;
        result = open_to_read(path);
        number = errno;
    }
    EXPECT_EQ(result, -13);
    EXPECT_EQ(number, EACCES);
    EXPECT_EQ(file.get(), -1);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(OpenToRead, ReportsAFileThatCannotBeLookedAt)
{
    const std::string path = dir.write("file", "content");
    libc::fstat = libc::fails(EIO);
    EXPECT_EQ(open_to_read(path), -5);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(file.get(), -1);
    EXPECT_TRUE(log.messages().empty()); // and not for no regular file
}

namespace {

// What stands in a file's place.
struct no_file {
    const char *name;
    void (*make)(const std::string &path); // null for what the system has at this path
    const char *path;
};

void make_folder(const std::string &path)
{
    EXPECT_EQ(mkdir(path.c_str(), 0755), 0);
}

void make_fifo(const std::string &path)
{
    EXPECT_EQ(mkfifo(path.c_str(), 0666), 0);
}

void make_socket(const std::string &path)
{
    const owned_handle<close> made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof address.sun_path);
    std::copy(path.begin(), path.end(), address.sun_path);
    EXPECT_EQ(bind(made.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
}

class NoFile : public Reading, public testing::WithParamInterface<no_file> {
  protected:
    NoFile() : path_(GetParam().make != nullptr ? dir.at("pkg/file") : GetParam().path)
    {
        if (GetParam().make != nullptr)
            GetParam().make(path_);
    }
    void expect_refusal(int result, const std::string &path) const
    {
        EXPECT_EQ(result, -22);
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(file.get(), -1);
        ASSERT_EQ(errors(), texts{"'" + path + "' is not a regular file"});
        EXPECT_EQ(log.messages().back().file, "core-file.c");
        EXPECT_EQ(log.messages().back().function, "core_file_open");
    }

    const std::string path_;
};

} // namespace

// That the case ends at all shows that a FIFO is not waited for.
TEST_P(NoFile, IsRefused)
{
    expect_refusal(open_to_read(path_), path_);
}

TEST_P(NoFile, IsRefusedBehindALink)
{
    const std::string link = make_link(path_, "link");
    expect_refusal(open_to_read(link), link);
}

TEST_P(NoFile, IsRefusedInAFolderAsWhatItIs)
{
    expect_refusal(open_beneath(path_), path_);
}

TEST_P(NoFile, IsRefusedBehindALinkInAFolder)
{
    const std::string link = make_link(path_, "pkg/link");
    expect_refusal(open_beneath(link), link);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, NoFile,
    testing::Values(no_file{"Folder", make_folder, nullptr}, no_file{"Fifo", make_fifo, nullptr},
                    no_file{"Socket", make_socket, nullptr}, no_file{"Device", nullptr, "/dev/null"}),
    [](const testing::TestParamInfo<no_file> &kind) { return std::string(kind.param.name); });

// ---- what lies beneath a folder

TEST_F(OpenBeneath, OpensAFileOfTheFolder)
{
    expect_inside(folder, folder + "/file");
}

TEST_F(OpenBeneath, OpensAFileOfAFolderInside)
{
    dir.write("pkg/a/b/file", "inside");
    EXPECT_EQ(open_beneath(folder + "/a/b/file"), 0);
    EXPECT_EQ(content(), "inside");
}

TEST_F(OpenBeneath, OpensForReadingOnly)
{
    expect_inside(folder, folder + "/file");
    EXPECT_EQ(write(file.get(), "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(OpenBeneath, FollowsARelativeLinkInside)
{
    make_link("file", "pkg/link");
    expect_inside(folder, folder + "/link");
}

TEST_F(OpenBeneath, FollowsAnAbsoluteLinkInside)
{
    make_link(folder + "/file", "pkg/link");
    expect_inside(folder, folder + "/link");
}

TEST_F(OpenBeneath, FollowsALinkOutOfTheFolderAndBackIntoIt)
{
    make_link("../pkg/file", "pkg/link");
    expect_inside(folder, folder + "/link");
}

TEST_F(OpenBeneath, FollowsALinkFromOutsideIntoTheFolder)
{
    make_link("pkg/file", "link");
    expect_inside(folder, dir.at("link"));
}

TEST_F(OpenBeneath, RefusesARelativeLinkOutOfTheFolder)
{
    dir.write("file", "outside");
    make_link("../file", "pkg/link");
    expect_outside(folder + "/link");
}

TEST_F(OpenBeneath, RefusesAnAbsoluteLinkOutOfTheFolder)
{
    dir.write("file", "outside");
    make_link(dir.at("file"), "pkg/link");
    expect_outside(folder + "/link");
}

TEST_F(OpenBeneath, RefusesALinkedFolderThatLiesOutside)
{
    dir.write("other/file", "outside");
    make_link("../other", "pkg/sub");
    expect_outside(folder + "/sub/file");
}

TEST_F(OpenBeneath, RefusesALinkToNothingAsWhatItIs)
{
    const std::string path = make_link("../nothing", "pkg/link");
    EXPECT_EQ(open_beneath(path), -2);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(errors(), texts{"'" + path + "' is a link to a file that is not there"});
    EXPECT_FALSE(std::filesystem::exists(dir.at("nothing")));
}

TEST_F(OpenBeneath, ReportsALinkToItself)
{
    EXPECT_EQ(open_beneath(make_link("link", "pkg/link")), -102);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(OpenBeneath, ReportsAMissingFileAndCreatesNone)
{
    EXPECT_EQ(open_beneath(folder + "/file"), -2);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(log.messages().empty());
    EXPECT_FALSE(std::filesystem::exists(folder + "/file"));
}

TEST_F(OpenBeneath, RefusesTheParentsFile)
{
    dir.write("file", "outside");
    expect_outside(folder + "/../file");
}

TEST_F(OpenBeneath, FollowsTwoDotsThatStayInside)
{
    std::filesystem::create_directory(folder + "/sub");
    expect_inside(folder, folder + "/sub/../file");
}

TEST_F(OpenBeneath, FollowsTwoDotsOutAndBack)
{
    expect_inside(folder, folder + "/../pkg/file");
}

TEST_F(OpenBeneath, RefusesAFileOfAFolderWhoseNameBeginsAlike)
{
    expect_outside(dir.write("pkg2/file", "outside"));
}

TEST_F(OpenBeneath, RefusesAFileWhoseNameBeginsLikeTheFolders)
{
    expect_outside(dir.write("pkg.bin", "outside"));
}

TEST_F(OpenBeneath, RefusesAFileOfTheShorterName)
{
    std::filesystem::create_directory(dir.at("pkg2"));
    expect_outside(dir.at("pkg2"), dir.write("pkg/file", "outside"));
}

// ---- how the folder is named

TEST_F(OpenBeneath, TakesAFolderWithATrailingSlash)
{
    expect_inside(folder + "/", folder + "/file");
}

TEST_F(OpenBeneath, RefusesAFileOfAFolderThatBeginsAlikeAlsoWithATrailingSlash)
{
    expect_outside(folder + "/", dir.write("pkg2/file", "outside"));
}

TEST_F(OpenBeneath, TakesALinkForItsFolder)
{
    const std::string link = make_link("pkg", "link");
    expect_inside(link, link + "/file");
}

TEST_F(OpenBeneath, RefusesAFileBesideALinkedFolder)
{
    std::filesystem::create_directory(dir.at("links"));
    make_link("../pkg", "links/pkg");
    expect_outside(dir.at("links/pkg"), dir.write("links/file", "outside"));
}

TEST_F(OpenBeneath, TakesTheFolderOfTheProcess)
{
    std::filesystem::current_path(folder);
    expect_inside(".", "./file");
}

TEST_F(OpenBeneath, RefusesAFileBesideTheFolderOfTheProcess)
{
    dir.write("file", "outside");
    std::filesystem::current_path(folder);
    expect_outside(".", "../file");
}

TEST_F(OpenBeneath, TakesTheRootForAllThereIs)
{
    expect_inside("/", folder + "/file");
}

TEST_F(OpenBeneath, RefusesEverythingBeneathAFolderThatIsMissing)
{
    dir.write("pkg/file", "inside");
    expect_outside(dir.at("missing"), folder + "/file");
}

TEST_F(OpenBeneath, RefusesEverythingBeneathAFile)
{
    dir.write("pkg/file", "inside");
    expect_outside(folder + "/file", folder + "/file");
}

TEST_F(OpenBeneath, ReportsAFileThatCannotBeLookedAt)
{
    const std::string path = dir.write("pkg/file", "inside");
    libc::fstat = libc::fails(EACCES);
    EXPECT_EQ(open_beneath(path), -13);
    EXPECT_EQ(errno, EACCES);
    EXPECT_TRUE(log.messages().empty());
}

// ---- the identity

namespace {

class Identity : public Reading {
  protected:
    Identity() : path(dir.write("file", "0123")) {}

    void set_modified(timespec time) const
    {
        const timespec times[] = {time, time};
        EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }

    const std::string path;
};

// The record that fstat(2) tells of; every field has a number of its own.
struct stat made_up_record()
{
    struct stat record {};
    record.st_dev = 1;
    record.st_ino = 2;
    record.st_size = 3;
    record.st_mtim = {4, 5};
    record.st_ctim = {6, 7};
    return record;
}

void report(const struct stat &record)
{
    libc::fstat = [record](int, struct stat *status) {
        *status = record;
        return 0;
    };
}

} // namespace

TEST_F(Identity, HoldsTheFieldsOfTheRecord)
{
    report(made_up_record());
    const core_file_identity identity = identity_of(path);
    EXPECT_EQ(identity.device, 1U);
    EXPECT_EQ(identity.inode, 2U);
    EXPECT_EQ(identity.size, 3);
    EXPECT_EQ(identity.modified_s, 4);
    EXPECT_EQ(identity.modified_ns, 5);
    EXPECT_EQ(identity.changed_s, 6);
    EXPECT_EQ(identity.changed_ns, 7);
}

TEST_F(Identity, HoldsSizesAndTimesOfMoreThan32Bits)
{
    struct stat record = made_up_record();
    record.st_size = 5368709120;
    record.st_mtim.tv_sec = 5000000000;
    record.st_ctim.tv_sec = -1;
    report(record);
    const core_file_identity identity = identity_of(path);
    EXPECT_EQ(identity.size, 5368709120);
    EXPECT_EQ(identity.modified_s, 5000000000);
    EXPECT_EQ(identity.changed_s, -1);
}

TEST_F(Identity, TellsEveryFieldFromAnother)
{
    report(made_up_record());
    const core_file_identity before = identity_of(path);
    const struct {
        const char *field;
        void (*change)(struct stat *record);
    } rows[] = {
        {"device", [](struct stat *record) { record->st_dev = 8; }},
        {"inode", [](struct stat *record) { record->st_ino = 8; }},
        {"size", [](struct stat *record) { record->st_size = 8; }},
        {"second of the modification", [](struct stat *record) { record->st_mtim.tv_sec = 8; }},
        {"nanosecond of the modification", [](struct stat *record) { record->st_mtim.tv_nsec = 8; }},
        {"second of the change", [](struct stat *record) { record->st_ctim.tv_sec = 8; }},
        {"nanosecond of the change", [](struct stat *record) { record->st_ctim.tv_nsec = 8; }},
    };
    for (const auto &row : rows) {
        struct stat record = made_up_record();
        row.change(&record);
        report(record);
        EXPECT_FALSE(identity_of(path) == before) << row.field;
    }
    report(made_up_record());
    EXPECT_TRUE(identity_of(path) == before);
}

TEST_F(Identity, LeavesOutWhatReadingChanges)
{
    report(made_up_record());
    const core_file_identity before = identity_of(path);
    struct stat record = made_up_record();
    record.st_atim = {8, 9};
    record.st_nlink = 8;
    report(record);
    EXPECT_TRUE(identity_of(path) == before);
}

TEST_F(Identity, OfTheSameFileIsTheSame)
{
    make_link("file", "link");
    const core_file_identity before = identity_of(path);
    EXPECT_TRUE(identity_of(path) == before);
    EXPECT_TRUE(identity_of(dir.at("link")) == before);
    EXPECT_EQ(before.size, 4);
}

TEST_F(Identity, SurvivesReading)
{
    const core_file_identity before = identity_of(path);
    EXPECT_EQ(open_to_read(path), 0);
    EXPECT_EQ(content(), "0123");
    EXPECT_TRUE(identity_of(path) == before);
}

TEST_F(Identity, OfACopyIsAnother)
{
    const core_file_identity before = identity_of(path);
    dir.write("copy", "0123");
    EXPECT_NE(identity_of(dir.at("copy")).inode, before.inode);
    EXPECT_FALSE(identity_of(dir.at("copy")) == before);
}

TEST_F(Identity, OfALongerFileIsAnother)
{
    const core_file_identity before = identity_of(path);
    std::filesystem::resize_file(path, 5);
    EXPECT_EQ(identity_of(path).size, 5);
    EXPECT_FALSE(identity_of(path) == before);
}

TEST_F(Identity, OfAnotherTimeOfModificationIsAnother)
{
    set_modified({1000000000, 1});
    const core_file_identity before = identity_of(path);
    EXPECT_EQ(before.modified_s, 1000000000);
    EXPECT_EQ(before.modified_ns, 1);
    set_modified({1000000000, 2});
    EXPECT_FALSE(identity_of(path) == before);
}

// Whoever sets the time of modification back changes the record.
TEST_F(Identity, OfAChangedRecordIsAnother)
{
    set_modified({1000000000, 1});
    const core_file_identity before = identity_of(path);
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // longer than the kernel's clock ticks
    chmod(path.c_str(), 0600);
    const core_file_identity after = identity_of(path);
    EXPECT_EQ(after.modified_s, 1000000000);
    EXPECT_EQ(after.modified_ns, 1);
    EXPECT_EQ(after.size, 4);
    EXPECT_FALSE(after == before);
}

TEST_F(Identity, OfAFileOfAnotherFileSystemIsAnother)
{
    const owned_handle<close> other(memfd_create("file", MFD_CLOEXEC));
    ASSERT_EQ(write(other.get(), "0123", 4), 4);
    core_file_identity identity{};
    EXPECT_EQ(core_file_identify(other.get(), &identity), 0);
    EXPECT_NE(identity.device, identity_of(path).device);
    EXPECT_EQ(identity.size, 4);
}

TEST_F(Identity, OfADescriptorThatIsNotOpenIsReported)
{
    core_file_identity identity{1, 2, 3, 4, 5, 6, 7};
    EXPECT_EQ(core_file_identify(-1, &identity), -102);
    ASSERT_EQ(errors(), texts{"could not get file status: error 9 Bad file descriptor\n"});
    EXPECT_EQ(log.messages().back().file, "core-file.c");
    EXPECT_EQ(log.messages().back().function, "core_file_identify");
    EXPECT_TRUE((identity == core_file_identity{1, 2, 3, 4, 5, 6, 7}));
}

TEST_F(Identity, ThatCannotBeAskedIsReported)
{
    libc::fstat = libc::fails(EIO);
    core_file_identity identity{};
    EXPECT_EQ(core_file_identify(0, &identity), -5);
    EXPECT_EQ(errors(), texts{"could not get file status: error 5 Input/output error\n"});
}
