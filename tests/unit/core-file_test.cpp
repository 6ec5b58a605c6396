#include "core-file.hpp"

#include "core-owners.hpp"
#include "libc-hooks.hpp"
#include "log_capture.hpp"
#include "temp_dir.hpp"
#include "unprivileged.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

using strings = std::vector<std::string>;

namespace {

class Files : public testing::Test {
  protected:
    Files() { umask(0); }

    static void give_away(const std::string &path) { unprivileged::give_away(path); }

    std::string make_directory(const std::string &name) const
    {
        const std::string path = dir.at(name);
        EXPECT_EQ(mkdir(path.c_str(), 0755), 0);
        return path;
    }

    std::string make_link(const std::string &target, const std::string &name) const
    {
        const std::string path = dir.at(name);
        EXPECT_EQ(symlink(target.c_str(), path.c_str()), 0);
        return path;
    }

    // A directory inside the test's own whose path has exactly `length` characters.
    std::string make_deep_directory(size_t length) const
    {
        std::string path = dir.path();
        while (path.size() < length) {
            const size_t left = length - path.size() - 1;
            // No name longer than 200, and never just a slash left over.
            const size_t name = left <= 200 ? left : std::min<size_t>(200, left - 2);
            path += "/" + std::string(name, 'd');
            EXPECT_EQ(mkdir(path.c_str(), 0755), 0) << path.size();
        }
        return path;
    }

    static mode_t mode_of(const std::string &path)
    {
        struct stat status {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        return status.st_mode & 07777;
    }

    static bool exists(const std::string &path)
    {
        struct stat status {};
        return lstat(path.c_str(), &status) == 0;
    }

    temp_dir dir;
    log_capture log;
};

class FileExists : public Files {};
class FileOpen : public Files {};
class FileSize : public Files {};
class FileSeek : public Files {};
class CreateDirectory : public Files {};
class DirectoryExists : public Files {};
class DeleteDirectory : public Files {};

// An open file that is closed at the end of the test.
class open_file {
  public:
    explicit open_file(const std::string &path) { EXPECT_EQ(core_file_open(path.c_str(), &handle), 0); }
    open_file(const open_file &) = delete;
    open_file &operator=(const open_file &) = delete;
    ~open_file() { close(handle); }

    int handle = -1;
};

// A descriptor that is open no more.
int closed_handle()
{
    const int handle = open("/dev/null", O_RDONLY);
    close(handle);
    return handle;
}

} // namespace

TEST_F(FileExists, FindsAFile)
{
    EXPECT_EQ(core_file_exists(dir.write("f", "").c_str()), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(FileExists, FindsADirectory)
{
    EXPECT_EQ(core_file_exists(dir.path().c_str()), 0);
}

TEST_F(FileExists, RefusesANullPathSilently)
{
    EXPECT_EQ(core_file_exists(nullptr), -22);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(FileExists, MissesAFileThatIsNotThere)
{
    EXPECT_EQ(core_file_exists("/nonexistent"), -2);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[0].text,
              "access to '/nonexistent' returned -1, errno (2) No such file or directory\n");
    EXPECT_EQ(log.messages()[0].file, "core-file.c");
    EXPECT_EQ(log.messages()[0].function, "core_file_exists");
}

TEST_F(FileExists, GivesTheSameResultForAnyReason)
{
    const std::string path = dir.write("f", "") + "/g";
    EXPECT_EQ(core_file_exists(path.c_str()), -2);
    EXPECT_EQ(log.texts(CORE_LOG_DBG),
              strings{"access to '" + path + "' returned -1, errno (20) Not a directory\n"});
}

TEST_F(FileExists, MissesAFileInAnUnreadableDirectory)
{
    const std::string path = dir.write("f", "");
    give_away(dir.path());
    chmod(dir.path().c_str(), 0);
    int result = 0;
    {
        const unprivileged user;
        result = core_file_exists(path.c_str());
    }
    chmod(dir.path().c_str(), 0755);
    EXPECT_EQ(result, -2);
    EXPECT_EQ(log.texts(CORE_LOG_DBG),
              strings{"access to '" + path + "' returned -1, errno (13) Permission denied\n"});
}

TEST_F(FileExists, MissesTheTargetOfADanglingLink)
{
    EXPECT_EQ(core_file_exists(make_link("/nonexistent", "link").c_str()), -2);
}

TEST_F(FileOpen, CreatesAMissingFileEmpty)
{
    const open_file file(dir.at("new"));
    EXPECT_GE(file.handle, 0);
    struct stat status {};
    ASSERT_EQ(stat(dir.at("new").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 0);
}

TEST_F(FileOpen, CreatesAFileWithMode644)
{
    const open_file file(dir.at("new"));
    EXPECT_EQ(mode_of(dir.at("new")), 0644U);
}

TEST_F(FileOpen, RespectsTheMaskOfTheProcess)
{
    umask(077);
    const open_file file(dir.at("new"));
    EXPECT_EQ(mode_of(dir.at("new")), 0600U);
}

TEST_F(FileOpen, DoesNotTruncateAnExistingFile)
{
    const std::string path = dir.write("f", "content");
    const open_file file(path);
    EXPECT_EQ(read_file(path), "content");
}

TEST_F(FileOpen, LeavesTheModeOfAnExistingFile)
{
    const std::string path = dir.write("f", "content");
    chmod(path.c_str(), 0640);
    const open_file file(path);
    EXPECT_EQ(mode_of(path), 0640U);
}

TEST_F(FileOpen, OpensForReadingAndWritingWithoutBlocking)
{
    const open_file file(dir.at("new"));
    const int flags = fcntl(file.handle, F_GETFL);
    EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
    EXPECT_NE(flags & O_NONBLOCK, 0);
}

TEST_F(FileOpen, ReportsAMissingDirectory)
{
    int handle = 77;
    EXPECT_EQ(core_file_open("/nonexistent/f", &handle), -2);
    EXPECT_EQ(handle, -1);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "error 2 No such file or directory opening file '/nonexistent/f'\n");
    EXPECT_EQ(log.messages()[0].file, "core-file.c");
    EXPECT_EQ(log.messages()[0].function, "core_file_open");
}

TEST_F(FileOpen, RefusesADirectory)
{
    int handle = 77;
    EXPECT_EQ(core_file_open(dir.path().c_str(), &handle), -22);
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"'" + dir.path() + "' is not a regular file"});
    EXPECT_EQ(log.messages().back().function, "core_file_check_regular");
}

TEST_F(FileOpen, RefusesAFifo)
{
    const std::string path = dir.at("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    int handle = 77;
    EXPECT_EQ(core_file_open(path.c_str(), &handle), -22);
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"'" + path + "' is not a regular file"});
}

TEST_F(FileOpen, DoesNotOpenAFifoThatItRefuses)
{
    const std::string path = dir.at("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    int handle = 77;
    static_cast<void>(core_file_open(path.c_str(), &handle));
    EXPECT_EQ(open(path.c_str(), O_WRONLY | O_NONBLOCK), -1); // as it is while nobody has the other end
    EXPECT_EQ(errno, ENXIO);
}

TEST_F(FileOpen, RefusesADevice)
{
    int handle = 77;
    EXPECT_EQ(core_file_open("/dev/null", &handle), -22);
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"'/dev/null' is not a regular file"});
}

TEST_F(FileOpen, RefusesASocket)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    dir.at("socket").copy(address.sun_path, sizeof address.sun_path - 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    int handle = 77;
    EXPECT_EQ(core_file_open(address.sun_path, &handle), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"'" + dir.at("socket") + "' is not a regular file"});
    close(listener);
}

TEST_F(FileOpen, FollowsALinkToAFile)
{
    make_link(dir.write("f", "content"), "link");
    const open_file file(dir.at("link"));
    EXPECT_GE(file.handle, 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(FileOpen, CreatesNoFileThroughALink)
{
    const std::string path = make_link(dir.at("target"), "link");
    int handle = 77;
    EXPECT_EQ(core_file_open(path.c_str(), &handle), -2);
    EXPECT_EQ(handle, -1);
    EXPECT_FALSE(exists(dir.at("target")));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"'" + path + "' is a link to a file that is not there"});
}

TEST_F(Files, AreOpenedAsStreamsForReading)
{
    const std::string path = dir.write("f", "content");
    chmod(path.c_str(), 0444);
    const owned_stream stream(core_file_open_stream(path.c_str()));
    ASSERT_NE(stream, nullptr);
    char text[16] = {};
    EXPECT_EQ(fread(text, 1, sizeof text, stream.get()), 7U);
    EXPECT_STREQ(text, "content");
    EXPECT_EQ(fcntl(fileno(stream.get()), F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDONLY | O_NONBLOCK);
}

TEST_F(Files, AreNotCreatedAsStreams)
{
    errno = 0;
    EXPECT_EQ(core_file_open_stream(dir.at("none").c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(exists(dir.at("none")));
}

TEST_F(Files, AreNoStreamsWhenTheyAreNotRegular)
{
    errno = 0;
    EXPECT_EQ(core_file_open_stream(dir.path().c_str()), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"'" + dir.path() + "' is not a regular file"});
}

TEST_F(Files, ThatAreRegularOrNotThereMayBeOpened)
{
    EXPECT_EQ(core_file_check_regular(dir.write("f", "").c_str()), 0);
    EXPECT_EQ(core_file_check_regular(dir.at("none").c_str()), 0);
    EXPECT_FALSE(exists(dir.at("none")));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(FileOpen, ReportsAFileThatMayNotBeWritten)
{
    const std::string path = dir.write("f", "");
    chmod(path.c_str(), 0444);
    give_away(dir.path());
    give_away(path);
    int handle = 77;
    int result = 0;
    {
        const unprivileged user;
        result = core_file_open(path.c_str(), &handle);
    }
    EXPECT_EQ(result, -13);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"error 13 Permission denied opening file '" + path + "'\n"});
}

TEST_F(FileOpen, ReportsALinkToItself)
{
    const std::string path = dir.at("loop");
    make_link(path, "loop");
    int handle = 77;
    EXPECT_EQ(core_file_open(path.c_str(), &handle), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              strings{"error 40 Too many levels of symbolic links opening file '" + path + "'\n"});
}

TEST_F(Files, AreClosed)
{
    int handle = -1;
    static_cast<void>(core_file_open(dir.at("f").c_str(), &handle));
    EXPECT_EQ(core_file_close(handle), 0);
    EXPECT_EQ(fcntl(handle, F_GETFL), -1);
}

TEST_F(Files, ReportAHandleThatIsNotOpen)
{
    EXPECT_EQ(core_file_close(closed_handle()), -102);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), strings{"could not close handle: error 9 Bad file descriptor\n"});
}

TEST_F(Files, AreWritten)
{
    const open_file file(dir.at("f"));
    size_t written = 77;
    EXPECT_EQ(core_file_write(file.handle, "some bytes", 10, &written), 0);
    EXPECT_EQ(written, 10U);
    EXPECT_EQ(read_file(dir.at("f")), "some bytes");
}

TEST_F(Files, AreReadUpToTheirEnd)
{
    const open_file file(dir.write("f", "some bytes"));
    char buffer[32] = {};
    size_t count = 77;
    EXPECT_EQ(core_file_read(file.handle, buffer, sizeof buffer, &count), 0);
    EXPECT_EQ(std::string(buffer, count), "some bytes");
}

TEST_F(Files, GiveNoBytesAtTheirEnd)
{
    const open_file file(dir.write("f", ""));
    char byte = 'z';
    size_t count = 77;
    EXPECT_EQ(core_file_read(file.handle, &byte, 1, &count), 0);
    EXPECT_EQ(count, 0U);
}

TEST_F(FileSize, IsGivenInBytes)
{
    const open_file file(dir.write("f", "some bytes"));
    int64_t size = 77;
    EXPECT_EQ(core_file_get_size(file.handle, &size), 0);
    EXPECT_EQ(size, 10);
}

TEST_F(FileSize, MayBeZero)
{
    const open_file file(dir.write("f", ""));
    int64_t size = 77;
    EXPECT_EQ(core_file_get_size(file.handle, &size), 0);
    EXPECT_EQ(size, 0);
}

TEST_F(FileSize, MayBeMoreThan4GiB)
{
    const std::string path = dir.write("f", "");
    ASSERT_EQ(truncate(path.c_str(), 5368709121), 0);
    const open_file file(path);
    int64_t size = 77;
    EXPECT_EQ(core_file_get_size(file.handle, &size), 0);
    EXPECT_EQ(size, 5368709121);
}

TEST_F(FileSize, ReportsAHandleThatIsNotOpen)
{
    int64_t size = 77;
    EXPECT_EQ(core_file_get_size(closed_handle(), &size), -102);
    EXPECT_EQ(size, 77);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "could not get file size: error 9 Bad file descriptor\n");
    EXPECT_EQ(log.messages()[0].function, "core_file_get_size");
}

TEST_F(FileSeek, MovesTheOffset)
{
    const open_file file(dir.write("f", "0123456789"));
    EXPECT_EQ(core_file_seek(file.handle, 4), 0);
    char byte = 'z';
    EXPECT_EQ(read(file.handle, &byte, 1), 1);
    EXPECT_EQ(byte, '4');
}

TEST_F(FileSeek, MayPassTheEnd)
{
    const open_file file(dir.write("f", "0123456789"));
    EXPECT_EQ(core_file_lseek(file.handle, 100, SEEK_SET), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(FileSeek, GoesBeyond4GiB)
{
    const open_file file(dir.write("f", ""));
    EXPECT_EQ(core_file_seek(file.handle, 5368709121), 0);
    EXPECT_EQ(lseek(file.handle, 0, SEEK_CUR), 5368709121);
}

TEST_F(FileSeek, RefusesAnOffsetThatIsNotTheResult)
{
    const open_file file(dir.write("f", "0123456789"));
    lseek(file.handle, 3, SEEK_SET);
    EXPECT_EQ(core_file_lseek(file.handle, 4, SEEK_CUR), -1);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "lseek returned offset different than expected\n");
    EXPECT_EQ(log.messages()[0].function, "core_file_lseek");
}

TEST_F(FileSeek, AcceptsAnOffsetThatIsTheResultByChance)
{
    const open_file file(dir.write("f", "0123456789"));
    EXPECT_EQ(core_file_lseek(file.handle, 4, SEEK_CUR), 0);
}

TEST_F(FileSeek, ReportsAPipe)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(core_file_lseek(ends[0], 0, SEEK_SET), -1);
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"lseek error: 29\n"});
}

TEST_F(FileSeek, IsAGenericFailureWhenTheOffsetIsNegative)
{
    const open_file file(dir.write("f", "0123456789"));
    EXPECT_EQ(core_file_seek(file.handle, -1), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"lseek error: 22\n"});
}

TEST_F(CreateDirectory, CreatesItWithMode755)
{
    EXPECT_EQ(core_create_directory(dir.at("d").c_str()), 0);
    EXPECT_EQ(mode_of(dir.at("d")), 0755U);
}

TEST_F(CreateDirectory, FailsSilentlyWhenItExists)
{
    EXPECT_EQ(core_create_directory(dir.path().c_str()), -1);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(CreateDirectory, CreatesNoParents)
{
    EXPECT_EQ(core_create_directory(dir.at("a/b").c_str()), -1);
    EXPECT_FALSE(exists(dir.at("a")));
}

TEST_F(DirectoryExists, FindsADirectory)
{
    EXPECT_EQ(core_directory_exists(dir.path().c_str()), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DirectoryExists, RefusesANullPathSilently)
{
    EXPECT_EQ(core_directory_exists(nullptr), -22);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DirectoryExists, MissesADirectorySilently)
{
    EXPECT_EQ(core_directory_exists("/nonexistent"), -2);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DirectoryExists, RefusesARegularFile)
{
    EXPECT_EQ(core_directory_exists(dir.write("f", "").c_str()), -22);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "opendir() failed: 20\n");
    EXPECT_EQ(log.messages()[0].file, "core-file.c");
    EXPECT_EQ(log.messages()[0].function, "core_directory_exists");
}

TEST_F(DirectoryExists, RefusesAnUnreadableDirectory)
{
    const std::string path = make_directory("d");
    give_away(dir.path());
    give_away(path);
    chmod(path.c_str(), 0);
    int result = 0;
    {
        const unprivileged user;
        result = core_directory_exists(path.c_str());
    }
    EXPECT_EQ(result, -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"opendir() failed: 13\n"});
}

namespace {

// The list of the function under test, freed at the end.
class ListFiles : public Files {
  protected:
    ~ListFiles() override
    {
        for (size_t i = 0; i < count; ++i)
            free(list[i]);
        free(list);
    }

    strings sorted() const
    {
        strings all(list, list + count);
        std::sort(all.begin(), all.end());
        return all;
    }

    char **list = nullptr;
    size_t count = 0;
};

} // namespace

TEST_F(ListFiles, GivesRegularFilesOnly)
{
    const std::string file = dir.write("f", "");
    make_directory("d");
    ASSERT_EQ(mkfifo(dir.at("fifo").c_str(), 0600), 0);
    EXPECT_EQ(core_directory_list_files(dir.path().c_str(), &list, &count), 0);
    EXPECT_EQ(sorted(), strings{file});
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ListFiles, DoesNotLookIntoSubdirectories)
{
    dir.write("d/f", "");
    EXPECT_EQ(core_directory_list_files(dir.path().c_str(), &list, &count), 0);
    EXPECT_EQ(count, 0U);
}

TEST_F(ListFiles, GivesHiddenFiles)
{
    const std::string file = dir.write(".hidden", "");
    EXPECT_EQ(core_directory_list_files(dir.path().c_str(), &list, &count), 0);
    EXPECT_EQ(sorted(), strings{file});
}

TEST_F(ListFiles, CountsLinksByTheirTarget)
{
    const std::string file = dir.write("f", "");
    const std::string link = make_link(file, "link");
    make_link("/nonexistent", "dangling");
    make_link(make_directory("d"), "link-to-directory");
    EXPECT_EQ(core_directory_list_files(dir.path().c_str(), &list, &count), 0);
    EXPECT_EQ(sorted(), (strings{file, link}));
}

TEST_F(ListFiles, LeavesANullArrayForAnEmptyDirectory)
{
    EXPECT_EQ(core_directory_list_files(dir.path().c_str(), &list, &count), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(count, 0U);
}

TEST_F(ListFiles, AppendsToAList)
{
    const std::string a = dir.write("a/1", "");
    const std::string b = dir.write("b/2", "");
    EXPECT_EQ(core_directory_list_files(dir.at("a").c_str(), &list, &count), 0);
    EXPECT_EQ(core_directory_list_files(dir.at("b").c_str(), &list, &count), 0);
    ASSERT_EQ(count, 2U);
    EXPECT_EQ(list[0], a);
    EXPECT_EQ(list[1], b);
}

TEST_F(ListFiles, GivesManyFiles)
{
    strings expected;
    for (int i = 100; i < 300; ++i)
        expected.push_back(dir.write("f" + std::to_string(i), ""));
    EXPECT_EQ(core_directory_list_files(dir.path().c_str(), &list, &count), 0);
    EXPECT_EQ(sorted(), expected);
}

TEST_F(ListFiles, MissesADirectorySilently)
{
    EXPECT_EQ(core_directory_list_files("/nonexistent", &list, &count), -2);
    EXPECT_EQ(count, 0U);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ListFiles, MissesADirectoryWhereAFileIs)
{
    EXPECT_EQ(core_directory_list_files(dir.write("f", "").c_str(), &list, &count), -2);
}

TEST_F(ListFiles, LeavesOutPathsThatDoNotFit)
{
    const std::string deep = make_deep_directory(1020);
    dir.write(deep.substr(dir.path().size() + 1) + "/file", "");
    EXPECT_EQ(core_directory_list_files(deep.c_str(), &list, &count), 0);
    EXPECT_EQ(count, 0U);
}

TEST_F(ListFiles, GivesTheLongestPathThatFits)
{
    const std::string deep = make_deep_directory(1018);
    const std::string file = dir.write(deep.substr(dir.path().size() + 1) + "/file", "");
    ASSERT_EQ(file.size(), 1023U);
    EXPECT_EQ(core_directory_list_files(deep.c_str(), &list, &count), 0);
    EXPECT_EQ(sorted(), strings{file});
}

TEST_F(ListFiles, ReportsAnArrayThatCannotGrow)
{
    dir.write("f", "");
    size_t huge = size_t{1} << 57;
    char **none = nullptr;
    EXPECT_EQ(core_directory_list_files(dir.path().c_str(), &none, &huge), -12);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(huge, size_t{1} << 57);
}

TEST_F(ListFiles, ReportsAPathThatCannotBeCopied)
{
    dir.write("f", "");
    libc::strdup = [](const char *) -> char * { return nullptr; };
    EXPECT_EQ(core_directory_list_files(dir.path().c_str(), &list, &count), -12);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0], nullptr);
    EXPECT_EQ(count, 0U);
}

TEST_F(DeleteDirectory, RefusesANullPathSilently)
{
    EXPECT_EQ(core_delete_directory(nullptr), -22);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DeleteDirectory, ReportsAMissingDirectory)
{
    EXPECT_EQ(core_delete_directory("/nonexistent"), -2);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "opendir() failed: error 2: No such file or directory\n");
    EXPECT_EQ(log.messages()[0].function, "core_delete_directory");
}

TEST_F(DeleteDirectory, LeavesAFileThatIsNoDirectory)
{
    const std::string path = dir.write("f", "");
    EXPECT_EQ(core_delete_directory(path.c_str()), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"opendir() failed: error 20: Not a directory\n"});
    EXPECT_TRUE(exists(path));
}

TEST_F(DeleteDirectory, DeletesAnEmptyDirectory)
{
    const std::string path = make_directory("d");
    EXPECT_EQ(core_delete_directory(path.c_str()), 0);
    EXPECT_FALSE(exists(path));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DeleteDirectory, DeletesATree)
{
    dir.write("d/f", "1");
    dir.write("d/.hidden", "2");
    dir.write("d/e/f/g", "3");
    make_directory("d/empty");
    EXPECT_EQ(core_delete_directory(dir.at("d").c_str()), 0);
    EXPECT_FALSE(exists(dir.at("d")));
}

TEST_F(DeleteDirectory, LeavesTheTargetOfALinkToAFile)
{
    const std::string file = dir.write("outside", "kept");
    make_directory("d");
    make_link(file, "d/link");
    EXPECT_EQ(core_delete_directory(dir.at("d").c_str()), 0);
    EXPECT_EQ(read_file(file), "kept");
}

// A link to a directory is followed: what is in the target goes, the link cannot be removed as a directory.
TEST_F(DeleteDirectory, EmptiesTheTargetOfALinkToADirectoryAndStops)
{
    const std::string file = dir.write("outside/f", "");
    make_directory("d");
    const std::string link = make_link(dir.at("outside"), "d/link");
    EXPECT_EQ(core_delete_directory(dir.at("d").c_str()), -5);
    EXPECT_FALSE(exists(file));
    EXPECT_TRUE(exists(dir.at("outside")));
    EXPECT_TRUE(exists(link));
}

TEST_F(DeleteDirectory, StopsSilentlyAtADanglingLink)
{
    make_directory("d");
    const std::string link = make_link("/nonexistent", "d/link");
    EXPECT_EQ(core_delete_directory(dir.at("d").c_str()), -5);
    EXPECT_TRUE(exists(link));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DeleteDirectory, StopsSilentlyAtAReadOnlySubdirectory)
{
    const std::string file = dir.write("d/e/f", "");
    for (const char *const name : {"", "/d", "/d/e", "/d/e/f"})
        give_away(dir.path() + name);
    chmod(dir.at("d/e").c_str(), 0555);
    int result = 0;
    {
        const unprivileged user;
        result = core_delete_directory(dir.at("d").c_str());
    }
    EXPECT_EQ(result, -5);
    EXPECT_TRUE(exists(file));
    EXPECT_TRUE(log.messages().empty());
    chmod(dir.at("d/e").c_str(), 0755);
}

TEST_F(DeleteDirectory, ReportsASubdirectoryThatCannotBeOpened)
{
    make_directory("d");
    make_directory("d/e");
    for (const char *const name : {"", "/d", "/d/e"})
        give_away(dir.path() + name);
    chmod(dir.at("d/e").c_str(), 0);
    int result = 0;
    {
        const unprivileged user;
        result = core_delete_directory(dir.at("d").c_str());
    }
    EXPECT_EQ(result, -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"opendir() failed: error 13: Permission denied\n"});
}

TEST_F(DeleteDirectory, ReportsAnEmptiedDirectoryThatCannotBeRemoved)
{
    const std::string file = dir.write("d/f", "");
    for (const char *const name : {"", "/d", "/d/f"})
        give_away(dir.path() + name);
    chmod(dir.path().c_str(), 0555);
    int result = 0;
    {
        const unprivileged user;
        result = core_delete_directory(dir.at("d").c_str());
    }
    chmod(dir.path().c_str(), 0755);
    EXPECT_EQ(result, -5);
    EXPECT_FALSE(exists(file));
    EXPECT_TRUE(exists(dir.at("d")));
}

// With this length the path of an entry, cut, would be the directory's own.
TEST_F(DeleteDirectory, StopsAtAnEntryWhosePathDoesNotFit)
{
    const std::string deep = make_deep_directory(1023);
    const std::string file = dir.write(deep.substr(dir.path().size() + 1) + "/f", "");
    EXPECT_EQ(core_delete_directory(deep.c_str()), -5);
    EXPECT_TRUE(exists(file));
}

// Here it would be the parent's.
TEST_F(DeleteDirectory, NeverClimbsToTheParent)
{
    const std::string parent = make_deep_directory(1023);
    const std::string inside = parent.substr(dir.path().size() + 1);
    dir.write(inside + "/d/f", "");
    const std::string neighbour = dir.write(inside + "/neighbour", "");
    EXPECT_EQ(core_delete_directory((parent + "/d").c_str()), -5);
    EXPECT_TRUE(exists(neighbour));
}
