#include "xml.hpp"

#include "core.hpp"
#include "image-list.hpp"
#include "libc-hooks.hpp"
#include "log_capture.hpp"
#include "temp_dir.hpp"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// How the C library's functions misbehave; they are themselves where nothing is set.
struct misbehaviour {
    size_t read_limit = SIZE_MAX; // most bytes that one read brings
    int failing_read = 0;         // the number of the read that fails, from 1
    bool end_of_file = false;     // that read brings nothing instead
    int failing_stat = 0;
    int64_t reported_size = -1; // what stat says instead of the truth
    int failing_close = 0;
};

bool strikes(int *countdown)
{
    return *countdown > 0 && --*countdown == 0;
}

void misbehave(misbehaviour wanted)
{
    libc::read = [wanted](int handle, void *buffer, size_t size) mutable -> ssize_t {
        if (strikes(&wanted.failing_read)) {
            errno = EIO;
            return wanted.end_of_file ? 0 : -1;
        }
        return read(handle, buffer, std::min(size, wanted.read_limit));
    };
    libc::fstat = [wanted](int handle, struct stat *status) mutable {
        if (strikes(&wanted.failing_stat)) {
            errno = EIO;
            return -1;
        }
        const int result = fstat(handle, status);
        if (wanted.reported_size >= 0)
            status->st_size = wanted.reported_size;
        return result;
    };
    libc::close = [wanted](int handle) mutable {
        const int result = close(handle);
        if (!strikes(&wanted.failing_close))
            return result;
        errno = EIO;
        return -1;
    };
}

} // namespace

namespace {

using texts = std::vector<std::string>;

constexpr char content[] = "<?xml version=\"1.0\" ?>\n"
                           "<contents>\n"
                           "  <partition_file fastboot=\"false\">\n"
                           "    <file_name>rawprogram_nand.xml</file_name>\n"
                           "  </partition_file>\n"
                           "  <device_programmer>\n"
                           "    <file_name>prog.mbn</file_name>\n"
                           "  </device_programmer>\n"
                           "</contents>\n";

// A description of the given lines, read on its own.
class description {
  public:
    explicit description(const std::string &text) : path(dir.write("contents.xml", text)) {}

    int parse() { return parse_content_xml(path.c_str(), list.get()); }

    temp_dir dir;
    std::string path;
    std::unique_ptr<image_list> list = std::make_unique<image_list>();
};

// A firmware directory with a description and a rawprogram file of the given text.
class package_directory {
  public:
    explicit package_directory(const std::string &partition_text)
    {
        const std::string path = dir.write("contents.xml", content);
        dir.write("rawprogram_nand.xml", partition_text);
        strlcpy(list->content_xml_path, path.c_str(), sizeof list->content_xml_path);
        list->image_count = 200;
    }

    int build() { return build_image_array_from_xml(list.get()); }
    const image &at(size_t index) const { return list->images[index]; }
    // The commands of the used slots, which come first.
    texts commands() const
    {
        texts found;
        for (const image &img : list->images) {
            if (img.command[0] == '\0')
                break;
            found.emplace_back(img.command);
        }
        return found;
    }

    temp_dir dir;
    std::unique_ptr<image_list> list = std::make_unique<image_list>();
};

// A rawprogram file with the given lines between its frame.
std::string frame(const std::string &lines)
{
    return "<?xml version=\"1.0\" ?>\n<data>\n" + lines + "</data>\n";
}

// A firmware directory with a programmer alone.
class flat_directory {
  public:
    flat_directory()
    {
        const std::string path = dir.write("prog.mbn", "programmer");
        strlcpy(list->programmer_path, path.c_str(), sizeof list->programmer_path);
        list->image_count = 200;
    }

    int build() { return build_image_array_from_xml(list.get()); }

    temp_dir dir;
    std::unique_ptr<image_list> list = std::make_unique<image_list>();
};

} // namespace

// ---- the package description

TEST(ParseContentXml, FindsProgrammerAndPartitionFile)
{
    description xml(content);
    EXPECT_EQ(xml.parse(), 0);
    EXPECT_STREQ(xml.list->programmer_path, "prog.mbn");
    EXPECT_STREQ(xml.list->partition_file_path, "rawprogram_nand.xml");
}

TEST(ParseContentXml, TakesThePairsInEitherOrder)
{
    description xml("<?xml?>\n<device_programmer>\n<file_name>p.mbn</file_name>\n"
                    "<partition_file>\n<file_name>r.xml</file_name>\n");
    EXPECT_EQ(xml.parse(), 0);
    EXPECT_STREQ(xml.list->programmer_path, "p.mbn");
    EXPECT_STREQ(xml.list->partition_file_path, "r.xml");
}

TEST(ParseContentXml, ReadsLinesThatEndInCarriageReturnAndLineFeed)
{
    description xml("<?xml?>\r\n<device_programmer>\r\n<file_name>p.mbn</file_name>\r\n"
                    "<partition_file>\r\n<file_name>r.xml</file_name>\r\n");
    EXPECT_EQ(xml.parse(), 0);
    EXPECT_STREQ(xml.list->programmer_path, "p.mbn");
    EXPECT_STREQ(xml.list->partition_file_path, "r.xml");
}

TEST(ParseContentXml, ReadsALastLineWithoutLineFeed)
{
    description xml("<?xml?>\n<device_programmer>\n<file_name>p.mbn</file_name>\n"
                    "<partition_file>\n<file_name>r.xml</file_name>");
    EXPECT_EQ(xml.parse(), 0);
    EXPECT_STREQ(xml.list->partition_file_path, "r.xml");
}

TEST(ParseContentXml, SkipsEmptyLinesInsideAPair)
{
    description xml("<?xml?>\n<device_programmer>\n\n\n<file_name>p.mbn</file_name>\n"
                    "<partition_file>\n<file_name>r.xml</file_name>\n");
    EXPECT_EQ(xml.parse(), 0);
    EXPECT_STREQ(xml.list->programmer_path, "p.mbn");
}

TEST(ParseContentXml, ThrowsTheFirstLineAway)
{
    log_capture log;
    description xml("<device_programmer>\n<file_name>p.mbn</file_name>\n"
                    "<partition_file>\n<file_name>r.xml</file_name>\n");
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"programmer_path not found"});
}

TEST(ParseContentXml, DoesNotExamineTheFirstLine)
{
    description xml("no declaration\n<device_programmer>\n<file_name>p.mbn</file_name>\n"
                    "<partition_file>\n<file_name>r.xml</file_name>\n");
    EXPECT_EQ(xml.parse(), 0);
}

TEST(ParseContentXml, KeepsTheLastOfTwoPairs)
{
    description xml(std::string(content) + "<device_programmer>\n<file_name>other.mbn</file_name>\n");
    EXPECT_EQ(xml.parse(), 0);
    EXPECT_STREQ(xml.list->programmer_path, "other.mbn");
}

TEST(ParseContentXml, DoesNotTrackComments)
{
    description xml("<?xml?>\n<!-- <old>\n<device_programmer>\n<file_name>p.mbn</file_name>\n</old> -->\n"
                    "<partition_file>\n<file_name>r.xml</file_name>\n");
    EXPECT_EQ(xml.parse(), 0);
    EXPECT_STREQ(xml.list->programmer_path, "p.mbn");
}

TEST(ParseContentXml, IgnoresAnEntryInACommentOfOneLine)
{
    log_capture log;
    description xml("<?xml?>\n<!-- <device_programmer> -->\n<file_name>p.mbn</file_name>\n"
                    "<partition_file>\n<file_name>r.xml</file_name>\n");
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"programmer_path not found"});
}

TEST(ParseContentXml, IgnoresAFileNameOutsideAPair)
{
    description xml(std::string(content) + "<download_file>\n<file_name>boot.img</file_name>\n");
    EXPECT_EQ(xml.parse(), 0);
    EXPECT_STREQ(xml.list->programmer_path, "prog.mbn");
    EXPECT_STREQ(xml.list->partition_file_path, "rawprogram_nand.xml");
}

TEST(ParseContentXml, ConsumesALineOfAnotherTypeBehindTheElement)
{
    log_capture log;
    description xml("<?xml?>\n<device_programmer>\n<file_path>.</file_path>\n<file_name>p.mbn</file_name>\n"
                    "<partition_file>\n<file_name>r.xml</file_name>\n");
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"programmer_path not found"});
}

TEST(ParseContentXml, ConsumesAnotherElementBehindTheElement)
{
    log_capture log;
    description xml("<?xml?>\n<device_programmer>\n<partition_file>\n<file_name>r.xml</file_name>\n");
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_STREQ(xml.list->partition_file_path, "");
}

TEST(ParseContentXml, TakesNoFileNameFromTheElementsOwnLine)
{
    log_capture log;
    description xml("<?xml?>\n<device_programmer><file_name>p.mbn</file_name>\n"
                    "<partition_file>\n<file_name>r.xml</file_name>\n");
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_STREQ(xml.list->programmer_path, "");
}

TEST(ParseContentXml, ReportsAMissingLineBehindTheElement)
{
    log_capture log;
    description xml("<?xml?>\n<device_programmer>\n<file_name>p.mbn</file_name>\n<partition_file>\n");
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"null line", "partition_file_path not found"}));
}

TEST(ParseContentXml, RefusesABogusProgrammerName)
{
    log_capture log;
    description xml("<?xml?>\n<device_programmer>\n<file_name>prog_nand_firehose.mbn>\n");
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"bogus line:", "<file_name>prog_nand_firehose.mbn>",
                                              "programmer_path file_name not found"}));
    EXPECT_EQ(log.messages().back().file, "../xml.c");
    EXPECT_EQ(log.messages().back().function, "parse_content_xml");
}

TEST(ParseContentXml, RefusesABogusPartitionName)
{
    log_capture log;
    description xml("<?xml?>\n<partition_file>\n<file_name></file_name>\n");
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"bogus line:", "<file_name></file_name>", "partition_file_path file_name not found"}));
}

TEST(ParseContentXml, CutsANameToItsField)
{
    description xml("<?xml?>\n<device_programmer>\n<file_name>" + std::string(1500, 'p') +
                    "</file_name>\n<partition_file>\n<file_name>r.xml</file_name>\n");
    EXPECT_EQ(xml.parse(), 0);
    EXPECT_EQ(xml.list->programmer_path, std::string(1023, 'p'));
}

TEST(ParseContentXml, NamesTheMissingProgrammerFirst)
{
    log_capture log;
    description xml("<?xml?>\n<contents>\n</contents>\n");
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"programmer_path not found"});
}

TEST(ParseContentXml, NamesAMissingPartitionFile)
{
    log_capture log;
    description xml("<?xml?>\n<device_programmer>\n<file_name>p.mbn</file_name>\n");
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"partition_file_path not found"});
}

TEST(ParseContentXml, TakesAnEmptyNameForAMissingOne)
{
    log_capture log;
    description xml("<?xml?>\n<device_programmer>\n <file_name></file_name>\n"
                    "<partition_file>\n<file_name>r.xml</file_name>\n");
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"programmer_path not found"});
}

TEST(ParseContentXml, FindsNothingInAnEmptyFile)
{
    log_capture log;
    description xml("");
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"programmer_path not found"});
}

TEST(ParseContentXml, FindsNothingInAFileOfLineFeeds)
{
    description xml("\n\n\n");
    EXPECT_EQ(xml.parse(), -2);
}

TEST(ParseContentXml, StopsAtAZeroByte)
{
    std::string text = content;
    text.insert(text.find("<device_programmer>"), 1, '\0');
    description xml(text);
    EXPECT_EQ(xml.parse(), -2);
    EXPECT_STREQ(xml.list->partition_file_path, "rawprogram_nand.xml");
}

TEST(ParseContentXml, RefusesANullPath)
{
    log_capture log;
    const auto list = std::make_unique<image_list>();
    EXPECT_EQ(parse_content_xml(nullptr, list.get()), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid args"});
}

TEST(ParseContentXml, RefusesANullList)
{
    log_capture log;
    EXPECT_EQ(parse_content_xml("/nonexistent/contents.xml", nullptr), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid args"});
}

TEST(ParseContentXml, ReportsAFileThatCannotBeOpened)
{
    log_capture log;
    const auto list = std::make_unique<image_list>();
    EXPECT_EQ(parse_content_xml("/nonexistent/contents.xml", list.get()), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(),
              "unable to open xml file /nonexistent/contents.xml, error = 4294967294");
}

TEST(ParseContentXml, ReportsADirectoryInPlaceOfTheFile)
{
    log_capture log;
    const temp_dir dir;
    const auto list = std::make_unique<image_list>();
    EXPECT_EQ(parse_content_xml(dir.path().c_str(), list.get()), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"'" + dir.path() + "' is not a regular file",
                     "unable to open xml file " + dir.path() + ", error = 4294967274"}));
}

TEST(ParseContentXml, ReportsAFileThatCannotBeLookedAt)
{
    log_capture log;
    description xml(content);
    misbehave({.failing_stat = 1});
    EXPECT_EQ(xml.parse(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"error 5 Input/output error opening file '" + xml.path + "'\n",
                     "unable to open xml file " + xml.path + ", error = 4294967291"}));
    EXPECT_EQ(log.messages().back().function, "parse_content_xml");
}

TEST(ParseContentXml, ReportsAnUnknownSize)
{
    log_capture log;
    description xml(content);
    misbehave({.failing_stat = 2});
    EXPECT_EQ(xml.parse(), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "unable to get bin file size 4294967291");
}

TEST(ParseContentXml, ReportsMissingMemory)
{
    log_capture log;
    description xml(content);
    misbehave({.reported_size = INT64_C(1) << 62});
    EXPECT_EQ(xml.parse(), -12);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"out of memory"});
}

TEST(ParseContentXml, GivesNoMemoryToMoreThan64Mebibytes)
{
    log_capture log;
    description xml(content);
    std::filesystem::resize_file(xml.path, 64 * 1024 * 1024 + 1);
    EXPECT_EQ(xml.parse(), -12);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"out of memory"});
}

TEST(ParseContentXml, Reads64Mebibytes)
{
    description xml(content);
    std::filesystem::resize_file(xml.path, 64 * 1024 * 1024);
    EXPECT_EQ(xml.parse(), 0);
}

TEST(ParseContentXml, ReportsAFailedRead)
{
    log_capture log;
    description xml("<?xml?>\n<a>\n");
    misbehave({.read_limit = 5, .failing_read = 2});
    EXPECT_EQ(xml.parse(), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error 4294967291 reading 12 bytes (read 0 bytes)");
}

TEST(ParseContentXml, ReportsAFileThatHasShrunk)
{
    log_capture log;
    description xml("<?xml?>\n<a>\n");
    misbehave({.failing_read = 1, .end_of_file = true});
    EXPECT_EQ(xml.parse(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error 4294967274 reading 12 bytes (read 0 bytes)"});
}

TEST(ParseContentXml, ReadsAFileThatComesByteByByte)
{
    description xml(content);
    misbehave({.read_limit = 1});
    EXPECT_EQ(xml.parse(), 0);
    EXPECT_STREQ(xml.list->programmer_path, "prog.mbn");
}

// ---- the image table of a package with a description

TEST(BuildImages, PutsTheBaseDirectoryInFrontOfBothPaths)
{
    package_directory package(frame("<power value=\"reset\"/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.list->partition_file_path, package.dir.path() + "/rawprogram_nand.xml");
    EXPECT_EQ(package.list->programmer_path, package.dir.path() + "/prog.mbn");
}

TEST(BuildImages, TakesThePresentDirectoryForADescriptionWithoutOne)
{
    package_directory package(frame("<power value=\"reset\"/>\n"));
    ASSERT_EQ(chdir(package.dir.path().c_str()), 0);
    strlcpy(package.list->content_xml_path, "contents.xml", sizeof package.list->content_xml_path);
    EXPECT_EQ(package.build(), 0);
    EXPECT_STREQ(package.list->partition_file_path, "./rawprogram_nand.xml");
    EXPECT_STREQ(package.list->programmer_path, "./prog.mbn");
    EXPECT_EQ(chdir("/"), 0);
}

TEST(BuildImages, StoresTheAttributesOfALine)
{
    package_directory package(
        frame("<program SECTOR_SIZE_IN_BYTES=\"4096\" filename=\"boot.img\" label=\"boot\"/>\n"));
    package.dir.write("boot.img", "0123456789");
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.at(0).sector_size_in_bytes, 4096U);
    EXPECT_STREQ(package.at(0).label, "boot");
    EXPECT_EQ(package.at(0).filename, package.dir.path() + "/boot.img");
    EXPECT_EQ(package.at(0).file_size, 10U);
}

TEST(BuildImages, StoresTheLineAsItIs)
{
    package_directory package(frame("  <erase start_sector=\"0\" />\t\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_STREQ(package.at(0).command, "  <erase start_sector=\"0\" />\t");
}

TEST(BuildImages, KeepsTheOrderOfTheFile)
{
    package_directory package(frame("<erase/>\n<program/>\n<patch/>\n<power/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), (texts{"<erase/>", "<program/>", "<patch/>", "<power/>"}));
}

TEST(BuildImages, TakesMissingAttributesForNoError)
{
    log_capture log;
    package_directory package(frame("<power value=\"reset\"/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.at(0).sector_size_in_bytes, 0U);
    EXPECT_STREQ(package.at(0).label, "");
    EXPECT_STREQ(package.at(0).filename, "");
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST(BuildImages, KeepsALineWithoutAFileAsItIs)
{
    package_directory package(frame("<erase SECTOR_SIZE_IN_BYTES=\"4096\" filename=\"\"/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_STREQ(package.at(0).filename, "");
    EXPECT_EQ(package.at(0).file_size, 0U);
    EXPECT_EQ(package.at(0).sector_size_in_bytes, 4096U);
}

TEST(BuildImages, CutsALongLineButReadsItsAttributes)
{
    const std::string line = "<program " + std::string(1100, ' ') + "label=\"boot\"/>";
    package_directory package(frame(line + "\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.at(0).command, "<program " + std::string(1014, ' '));
    EXPECT_STREQ(package.at(0).label, "boot");
}

TEST(BuildImages, StoresALabelOf1023Characters)
{
    package_directory package(frame("<program label=\"" + std::string(1023, 'x') + "\"/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.at(0).label, std::string(1023, 'x'));
}

TEST(BuildImages, LeavesALabelOf1024CharactersOutButStoresTheLine)
{
    log_capture log;
    package_directory package(frame("<program label=\"" + std::string(1024, 'x') + "\"/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_STREQ(package.at(0).label, "");
    EXPECT_EQ(std::string(package.at(0).command).substr(0, 16), "<program label=\"");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"attribute size 1024 > max_dest_size"});
}

TEST(BuildImages, LeavesABadSectorSizeOutButStoresTheLine)
{
    log_capture log;
    package_directory package(frame("<program SECTOR_SIZE_IN_BYTES=\"4096B\"/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.at(0).sector_size_in_bytes, 0U);
    EXPECT_STREQ(package.at(0).command, "<program SECTOR_SIZE_IN_BYTES=\"4096B\"/>");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid conversion"});
}

TEST(BuildImages, NeverTakesTheFirstLineAsACommand)
{
    package_directory package("<program/>\n<erase/>\n");
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), texts{"<erase/>"});
}

TEST(BuildImages, RefusesAFirstLineThatIsNoXml)
{
    log_capture log;
    package_directory package("binary\n<erase/>\n");
    EXPECT_EQ(package.build(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"invalid xml:", "binary", "file " + package.dir.path() + "/rawprogram_nand.xml"}));
    EXPECT_EQ(log.messages().back().function, "build_image_array_from_xml");
}

TEST(BuildImages, SkipsTheFrameBlankLinesAndText)
{
    package_directory package("<?xml version=\"1.0\" ?>\n\n<data>\n  \ntext\n<erase/>\n1 < 2\n</data>\n\n");
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), texts{"<erase/>"});
}

TEST(BuildImages, ReadsLinesThatEndInCarriageReturnAndLineFeed)
{
    package_directory package(
        "<?xml?>\r\n<data>\r\n\r\n<program filename=\"boot.img\" label=\"b\"/>\r\n</data>\r\n");
    package.dir.write("boot.img", "0");
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), texts{"<program filename=\"boot.img\" label=\"b\"/>\r"});
    EXPECT_EQ(package.at(0).filename, package.dir.path() + "/boot.img");
}

TEST(BuildImages, ReadsALastLineWithoutLineFeed)
{
    package_directory package("<?xml?>\n<erase/>\n<power/>");
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), (texts{"<erase/>", "<power/>"}));
}

TEST(BuildImages, StopsAtAZeroByte)
{
    package_directory package(std::string("<?xml?>\n<erase/>\n\0<power/>\n", 26));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), texts{"<erase/>"});
}

TEST(BuildImages, ReadsAFileThatComesByteByByte)
{
    package_directory package(frame("<erase/>\n<power/>\n"));
    misbehave({.read_limit = 1});
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), (texts{"<erase/>", "<power/>"}));
}

// ---- comments

TEST(BuildImages, SkipsCommandsBetweenMarksOnLinesOfTheirOwn)
{
    package_directory package(frame("<erase/>\n<!--\n<program/>\n<patch/>\n-->\n<power/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), (texts{"<erase/>", "<power/>"}));
}

TEST(BuildImages, SkipsCommandsOnTheLinesOfTheMarks)
{
    package_directory package(frame("<!-- <erase/>\n<program/>\n<patch/> -->\n<power/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), texts{"<power/>"});
}

TEST(BuildImages, SkipsACommandInACommentOfOneLine)
{
    package_directory package(frame("<!-- <erase/> -->\n<power/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), texts{"<power/>"});
}

TEST(BuildImages, StaysOutsideAfterACommentOfOneLine)
{
    package_directory package(frame("<erase/>\n<!-- note -->\n<power/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), (texts{"<erase/>", "<power/>"}));
}

TEST(BuildImages, StaysInsideAfterACommentOfOneLine)
{
    package_directory package(frame("<!--\n<erase/>\n<!-- note -->\n<program/>\n-->\n<power/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), texts{"<power/>"});
}

TEST(BuildImages, TakesACommandWithAClosingMarkForACommentEnd)
{
    package_directory package(frame("<erase/> -->\n<power/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), texts{"<power/>"});
}

TEST(BuildImages, SkipsEverythingBehindACommentThatNeverEnds)
{
    package_directory package(frame("<erase/>\n<!--\n<program/>\n<power/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.commands(), texts{"<erase/>"});
}

TEST(BuildImages, DoesNotLookForFilesOfCommandsInComments)
{
    package_directory package(frame("<!--\n<program filename=\"absent.img\"/>\n-->\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_TRUE(package.commands().empty());
}

// ---- the table's size

namespace {

std::string numbered_lines(int count)
{
    std::string lines;
    for (int i = 1; i <= count; ++i)
        lines += "<erase number=\"" + std::to_string(i) + "\"/>\n";
    return lines;
}

} // namespace

TEST(BuildImages, TakesExactly200Commands)
{
    package_directory package(frame(numbered_lines(200)));
    EXPECT_EQ(package.build(), 0);
    EXPECT_STREQ(package.at(0).command, "<erase number=\"1\"/>");
    EXPECT_STREQ(package.at(199).command, "<erase number=\"200\"/>");
}

TEST(BuildImages, Refuses201Commands)
{
    log_capture log;
    package_directory package(frame(numbered_lines(201)));
    EXPECT_EQ(package.build(), -12);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"Images > MAX_IMAGE_NUMBER, increase the define"});
    EXPECT_EQ(log.messages().back().function, "build_image_array_from_xml");
}

TEST(BuildImages, KeepsTheFirst200Of201Commands)
{
    package_directory package(frame(numbered_lines(201)));
    package.build();
    EXPECT_STREQ(package.at(199).command, "<erase number=\"200\"/>");
}

TEST(BuildImages, GoesByTheCountOfTheList)
{
    package_directory package(frame(numbered_lines(3)));
    package.list->image_count = 2;
    EXPECT_EQ(package.build(), -12);
    EXPECT_EQ(package.commands().size(), 2U);
}

TEST(BuildImages, TakesAnEmptyPartitionFileForAPackageWithoutImages)
{
    package_directory package("");
    EXPECT_EQ(package.build(), 0);
    EXPECT_TRUE(package.commands().empty());
}

TEST(BuildImages, RefusesAnAbsentPartitionFileAndDoesNotMakeOne)
{
    log_capture log;
    package_directory package("");
    const std::string path = package.dir.at("rawprogram_nand.xml");
    std::filesystem::remove(path);
    EXPECT_EQ(package.build(), -2);
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "unable to open partition file " + path + ", err = 4294967294"));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(BuildImages, TakesAPartitionFileOfADeclarationForAPackageWithoutImages)
{
    package_directory package("<?xml version=\"1.0\" ?>\n<data>\n</data>\n");
    EXPECT_EQ(package.build(), 0);
    EXPECT_TRUE(package.commands().empty());
}

// ---- files that are not as they should be

TEST(BuildImages, ReportsADescriptionThatCannotBeParsed)
{
    log_capture log;
    package_directory package(frame(""));
    package.dir.write("contents.xml", "<?xml?>\n");
    EXPECT_EQ(package.build(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(),
              "unable to parse content xml file " + package.dir.path() + "/contents.xml, err = 4294967294");
}

TEST(BuildImages, ReportsADescriptionThatCannotBeOpened)
{
    log_capture log;
    const auto list = std::make_unique<image_list>();
    strlcpy(list->content_xml_path, "/nonexistent/contents.xml", sizeof list->content_xml_path);
    list->image_count = 200;
    EXPECT_EQ(build_image_array_from_xml(list.get()), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(),
              "unable to parse content xml file /nonexistent/contents.xml, err = 4294967274");
}

TEST(BuildImages, ReportsAPartitionFileThatCannotBeOpened)
{
    log_capture log;
    package_directory package(frame(""));
    package.dir.write("contents.xml", "<?xml?>\n<device_programmer>\n<file_name>p.mbn</file_name>\n"
                                      "<partition_file>\n<file_name>absent/r.xml</file_name>\n");
    EXPECT_EQ(package.build(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(),
              "unable to open partition file " + package.dir.path() + "/absent/r.xml, err = 4294967294");
    EXPECT_EQ(log.messages().back().function, "build_image_array_from_xml");
}

TEST(BuildImages, ReportsADirectoryInPlaceOfThePartitionFile)
{
    log_capture log;
    package_directory package(frame(""));
    std::filesystem::remove(package.dir.at("rawprogram_nand.xml"));
    std::filesystem::create_directory(package.dir.at("rawprogram_nand.xml"));
    EXPECT_EQ(package.build(), -22);
    const std::string path = package.dir.at("rawprogram_nand.xml");
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"'" + path + "' is not a regular file",
                     "unable to open partition file " + path + ", err = 4294967274"}));
}

TEST(BuildImages, ReportsAPartitionFileThatCannotBeLookedAt)
{
    log_capture log;
    package_directory package(frame(""));
    misbehave({.failing_stat = 3}); // behind two of the description
    EXPECT_EQ(package.build(), -5);
    const std::string path = package.dir.at("rawprogram_nand.xml");
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"error 5 Input/output error opening file '" + path + "'\n",
                     "unable to open partition file " + path + ", err = 4294967291"}));
}

TEST(BuildImages, ReportsAnUnknownSizeOfThePartitionFile)
{
    log_capture log;
    package_directory package(frame(""));
    misbehave({.failing_stat = 4});
    EXPECT_EQ(package.build(), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "unable to get bin file size 4294967291");
    EXPECT_EQ(log.messages().back().function, "build_image_array_from_xml");
}

TEST(BuildImages, ReportsAFailedReadOfThePartitionFile)
{
    log_capture log;
    package_directory package("<?xml?>\n<erase/>\n");
    misbehave({.failing_read = 2});
    EXPECT_EQ(package.build(), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error 4294967291 reading 17 bytes (read 0 bytes)");
    EXPECT_EQ(log.messages().back().function, "build_image_array_from_xml");
}

TEST(BuildImages, KeepsThePathsOfAFailedBuild)
{
    package_directory package("binary\n");
    EXPECT_EQ(package.build(), -22);
    EXPECT_EQ(package.list->programmer_path, package.dir.path() + "/prog.mbn");
}

TEST(BuildImages, DoesNotLookForTheProgrammer)
{
    package_directory package(frame("<erase/>\n"));
    EXPECT_FALSE(std::filesystem::exists(package.dir.at("prog.mbn")));
    EXPECT_EQ(package.build(), 0);
}

TEST(BuildImages, DumpsEveryImageOfAGoodPackage)
{
    log_capture log;
    package_directory package(frame("<program label=\"boot\" filename=\"boot.img\"/>\n<power/>\n"));
    package.dir.write("boot.img", "0123");
    EXPECT_EQ(package.build(), 0);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "Label: boot"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "\tFilename: " + package.dir.path() + "/boot.img"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "\tFilesize: 4"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "\tCommand: <power/>"));
}

TEST(BuildImages, LeavesNoFileOpen)
{
    const auto open_files = [] {
        const std::filesystem::directory_iterator entries("/proc/self/fd");
        return std::distance(begin(entries), end(entries));
    };
    package_directory package(
        frame("<program filename=\"boot.img\"/>\n<program filename=\"absent.img\"/>\n"));
    package.dir.write("boot.img", "0123");
    const auto before = open_files();
    EXPECT_EQ(package.build(), -22);
    EXPECT_EQ(open_files(), before);
}

// ---- validation

TEST(ValidateImages, ReportsAMissingFileAndDumpsItsImage)
{
    log_capture log;
    package_directory package(frame("<program label=\"boot\" filename=\"absent.img\"/>\n"));
    EXPECT_EQ(package.build(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"file does not exist for image", "image list validation failure"}));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "Label: boot"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "\tFilename: absent.img"));
}

TEST(ValidateImages, LogsUnderItsOwnName)
{
    log_capture log;
    const temp_dir dir;
    const auto images = std::make_unique<image[]>(1);
    strlcpy(images[0].filename, "absent.img", sizeof images[0].filename);
    EXPECT_FALSE(validate_image_list(dir.path().c_str(), images.get(), 1));
    for (const logged_message &message : log.messages()) {
        if (message.level == CORE_LOG_ERR) {
            EXPECT_EQ(message.file + " " + message.function, "../xml.c validate_image_list");
        }
    }
    EXPECT_EQ(log.texts(CORE_LOG_ERR).size(), 1U);
}

TEST(ValidateImages, DoesNotCreateAMissingFile)
{
    log_capture log;
    package_directory package(frame("<program filename=\"absent.img\"/>\n"));
    package.build();
    EXPECT_FALSE(std::filesystem::exists(package.dir.at("absent.img")));
}

TEST(ValidateImages, DoesNotExamineAnImageBehindABadOne)
{
    log_capture log;
    package_directory package(
        frame("<program filename=\"absent.img\"/>\n<program filename=\"boot.img\"/>\n"));
    package.dir.write("boot.img", "0123");
    EXPECT_EQ(package.build(), -22);
    EXPECT_STREQ(package.at(1).filename, "boot.img");
    EXPECT_EQ(package.at(1).file_size, 0U);
}

TEST(ValidateImages, KeepsWhatItDidBeforeABadOne)
{
    package_directory package(
        frame("<program filename=\"boot.img\"/>\n<program filename=\"absent.img\"/>\n"));
    package.dir.write("boot.img", "0123");
    EXPECT_EQ(package.build(), -22);
    EXPECT_EQ(package.at(0).filename, package.dir.path() + "/boot.img");
    EXPECT_EQ(package.at(0).file_size, 4U);
}

TEST(ValidateImages, ReportsADirectoryInPlaceOfAFile)
{
    log_capture log;
    package_directory package(frame("<program filename=\"boot.img\"/>\n"));
    std::filesystem::create_directory(package.dir.at("boot.img"));
    EXPECT_EQ(package.build(), -22);
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "unable to open file err = 4294967274, for image"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "\tFilename: boot.img"));
}

TEST(ValidateImages, ReportsAFileThatCannotBeLookedAt)
{
    log_capture log;
    package_directory package(frame("<program filename=\"boot.img\"/>\n"));
    package.dir.write("boot.img", "0123");
    misbehave({.failing_stat = 5}); // behind two of each text
    EXPECT_EQ(package.build(), -22);
    EXPECT_TRUE(log.has(CORE_LOG_ERR,
                        "error 5 Input/output error opening file '" + package.dir.at("boot.img") + "'\n"));
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "unable to open file err = 4294967291, for image"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "\tFilename: boot.img"));
}

TEST(ValidateImages, ReportsAnUnknownSize)
{
    log_capture log;
    package_directory package(frame("<program filename=\"boot.img\"/>\n"));
    package.dir.write("boot.img", "0123");
    misbehave({.failing_stat = 6});
    EXPECT_EQ(package.build(), -22);
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "could not get file status: error 5 Input/output error\n"));
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "unable to get file size err = 4294967291, for image"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "\tFilename: boot.img"));
}

TEST(ValidateImages, ReportsAFailedClose)
{
    log_capture log;
    const temp_dir dir;
    dir.write("boot.img", "0123");
    const auto images = std::make_unique<image[]>(1);
    strlcpy(images[0].filename, "boot.img", sizeof images[0].filename);
    misbehave({.failing_close = 3}); // behind those of the folder and of what was only looked at
    EXPECT_FALSE(validate_image_list(dir.path().c_str(), images.get(), 1));
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "unable to close file err = 4294967291, for image"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "\tFilename: boot.img"));
}

TEST(ValidateImages, KnowsEachImageByItsFile)
{
    package_directory package(frame("<program filename=\"boot.img\"/>\n<program filename=\"root.img\"/>\n"
                                    "<erase/>\n"));
    package.dir.write("boot.img", "0123");
    package.dir.write("root.img", "012345");
    EXPECT_EQ(package.build(), 0);
    struct stat status {};
    ASSERT_EQ(stat(package.dir.at("root.img").c_str(), &status), 0);
    EXPECT_EQ(package.at(1).identity.device, status.st_dev);
    EXPECT_EQ(package.at(1).identity.inode, status.st_ino);
    EXPECT_EQ(package.at(1).identity.size, 6);
    EXPECT_EQ(package.at(1).identity.changed_ns, status.st_ctim.tv_nsec);
    EXPECT_EQ(package.at(0).identity.size, 4);
    EXPECT_FALSE(package.at(0).identity == package.at(1).identity);
    EXPECT_TRUE(package.at(2).identity == core_file_identity{});
}

TEST(ValidateImages, TakesAnEmptyFile)
{
    package_directory package(frame("<program filename=\"empty.img\"/>\n"));
    package.dir.write("empty.img", "");
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.at(0).filename, package.dir.path() + "/empty.img");
    EXPECT_EQ(package.at(0).file_size, 0U);
}

TEST(ValidateImages, TakesAFileInASubdirectory)
{
    package_directory package(frame("<program filename=\"images/boot.img\"/>\n"));
    package.dir.write("images/boot.img", "0123");
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.at(0).filename, package.dir.path() + "/images/boot.img");
}

TEST(ValidateImages, TakesOneFileTwice)
{
    package_directory package(frame("<program filename=\"boot.img\"/>\n<program filename=\"boot.img\"/>\n"));
    package.dir.write("boot.img", "0123");
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.at(0).file_size, 4U);
    EXPECT_EQ(package.at(1).file_size, 4U);
}

TEST(ValidateImages, KnowsSizesOfMoreThan32Bits)
{
    const temp_dir dir;
    dir.write("huge.img", "");
    const auto images = std::make_unique<image[]>(1);
    strlcpy(images[0].filename, "huge.img", sizeof images[0].filename);
    misbehave({.reported_size = INT64_C(6000000000)});
    EXPECT_TRUE(validate_image_list(dir.path().c_str(), images.get(), 1));
    EXPECT_EQ(images[0].file_size, 6000000000U);
}

namespace {

// A name of boot.img that makes its full path this long.
std::string name_for_path(const std::string &directory, size_t length)
{
    const size_t size = length - directory.size() - 1;
    std::string name = size % 2 == 0 ? "boot.img" : ".//boot.img";
    while (name.size() < size)
        name.insert(0, "./");
    return name;
}

} // namespace

TEST(ValidateImages, TakesAPathOf1023Characters)
{
    package_directory package("");
    const std::string name = name_for_path(package.dir.path(), 1023);
    package.dir.write("rawprogram_nand.xml", frame("<program filename=\"" + name + "\"/>\n"));
    package.dir.write("boot.img", "0123");
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.at(0).filename, package.dir.path() + "/" + name);
    EXPECT_EQ(strlen(package.at(0).filename), 1023U);
}

TEST(ValidateImages, RefusesAPathOf1024Characters)
{
    log_capture log;
    package_directory package("");
    const std::string name = name_for_path(package.dir.path(), 1024);
    package.dir.write("rawprogram_nand.xml", frame("<program filename=\"" + name + "\"/>\n"));
    package.dir.write("boot.img", "0123");
    EXPECT_EQ(package.build(), -22);
    const std::string path = package.dir.path() + "/" + name;
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{("path of more than 1023 characters: " + path).substr(0, 1024),
                                              "image list validation failure"}));
}

TEST(BuildImages, RefusesAPathOfTheRawprogramFileThatDoesNotFit)
{
    log_capture log;
    package_directory package("");
    package.dir.write("contents.xml", "<?xml?>\n<device_programmer>\n<file_name>p.mbn</file_name>\n"
                                      "<partition_file>\n<file_name>" +
                                          std::string(1023, 'r') + "</file_name>\n");
    EXPECT_EQ(package.build(), -22);
    const std::string path = package.dir.path() + "/" + std::string(1023, 'r');
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{("path of more than 1023 characters: " + path).substr(0, 1024)});
}

TEST(BuildImages, RefusesAPathOfTheProgrammerThatDoesNotFit)
{
    log_capture log;
    package_directory package("");
    package.dir.write("contents.xml", "<?xml?>\n<device_programmer>\n<file_name>" + std::string(1023, 'p') +
                                          "</file_name>\n<partition_file>\n"
                                          "<file_name>rawprogram_nand.xml</file_name>\n");
    EXPECT_EQ(package.build(), -22);
    const std::string path = package.dir.path() + "/" + std::string(1023, 'p');
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{("path of more than 1023 characters: " + path).substr(0, 1024)});
}

TEST(ValidateImages, SkipsFreeSlots)
{
    const temp_dir dir;
    dir.write("boot.img", "0123");
    const auto images = std::make_unique<image[]>(3);
    strlcpy(images[2].filename, "boot.img", sizeof images[2].filename);
    EXPECT_TRUE(validate_image_list(dir.path().c_str(), images.get(), 3));
    EXPECT_EQ(images[2].file_size, 4U);
    EXPECT_TRUE(is_empty_image(&images[0]));
}

TEST(ValidateImages, StopsAtTheCount)
{
    const temp_dir dir;
    const auto images = std::make_unique<image[]>(2);
    strlcpy(images[1].filename, "absent.img", sizeof images[1].filename);
    EXPECT_TRUE(validate_image_list(dir.path().c_str(), images.get(), 1));
    EXPECT_STREQ(images[1].filename, "absent.img");
}

// ---- the image table of a programmer alone

TEST(BuildFlatImages, FindsTheRawprogramFileBesideTheProgrammer)
{
    flat_directory package;
    package.dir.write("rawprogram_nand_p4K_b256K.xml", frame("<program filename=\"boot.img\"/>\n"));
    package.dir.write("boot.img", "0123");
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.list->partition_file_path, package.dir.path() + "/rawprogram_nand_p4K_b256K.xml");
    EXPECT_EQ(package.list->images[0].filename, package.dir.path() + "/boot.img");
}

TEST(BuildFlatImages, KeepsTheProgrammersPath)
{
    flat_directory package;
    package.dir.write("rawprogram_nand.xml", frame("<erase/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.list->programmer_path, package.dir.path() + "/prog.mbn");
}

TEST(BuildFlatImages, MatchesBothPartsAnywhereInTheName)
{
    flat_directory package;
    package.dir.write("my.xml.old_rawprogram_nand~", frame("<erase/>\n"));
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.list->partition_file_path, package.dir.path() + "/my.xml.old_rawprogram_nand~");
}

TEST(BuildFlatImages, NeedsBothPartsInOneName)
{
    log_capture log;
    flat_directory package;
    package.dir.write("rawprogram_nand.txt", frame("<erase/>\n"));
    package.dir.write("rawprogram0.xml", frame("<erase/>\n"));
    EXPECT_EQ(package.build(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to find partition_file_path"});
}

TEST(BuildFlatImages, LooksForTheNameInItsCase)
{
    log_capture log;
    flat_directory package;
    package.dir.write("RAWPROGRAM_NAND.XML", frame("<erase/>\n"));
    EXPECT_EQ(package.build(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to find partition_file_path"});
}

TEST(BuildFlatImages, TakesTheFirstOfTwoThatTheListingYields)
{
    flat_directory package;
    package.dir.write("rawprogram_nand_a.xml", frame("<erase/>\n"));
    package.dir.write("rawprogram_nand_b.xml", frame("<erase/>\n"));
    DIR *const listing = opendir(package.dir.path().c_str());
    ASSERT_NE(listing, nullptr);
    std::string first;
    while (const dirent *const entry = readdir(listing)) {
        if (first.empty() && entry->d_name[0] == 'r')
            first = entry->d_name;
    }
    closedir(listing);
    EXPECT_EQ(package.build(), 0);
    EXPECT_EQ(package.list->partition_file_path, package.dir.path() + "/" + first);
}

TEST(BuildFlatImages, ReportsADirectoryThatCannotBeOpened)
{
    log_capture log;
    const auto list = std::make_unique<image_list>();
    strlcpy(list->programmer_path, "/nonexistent/prog.mbn", sizeof list->programmer_path);
    list->image_count = 200;
    EXPECT_EQ(build_image_array_from_xml(list.get()), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"failed to open fw directory /nonexistent, errno: 2 (No such file or directory)"});
}

TEST(BuildFlatImages, ReportsADirectoryThatIsAFile)
{
    log_capture log;
    flat_directory package;
    const std::string path = package.dir.path() + "/prog.mbn/x";
    strlcpy(package.list->programmer_path, path.c_str(), sizeof package.list->programmer_path);
    EXPECT_EQ(package.build(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"failed to open fw directory " + package.dir.path() +
                                             "/prog.mbn, errno: 20 (Not a directory)"});
}

TEST(BuildFlatImages, ReportsADirectoryInPlaceOfThePartitionFile)
{
    log_capture log;
    flat_directory package;
    std::filesystem::create_directory(package.dir.at("rawprogram_nand.xml"));
    EXPECT_EQ(package.build(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "unable to open partition file " + package.dir.path() +
                                                  "/rawprogram_nand.xml, err = 4294967274");
}

TEST(BuildFlatImages, LooksInThePresentDirectoryForABareName)
{
    flat_directory package;
    package.dir.write("rawprogram_nand.xml", frame("<erase/>\n"));
    ASSERT_EQ(chdir(package.dir.path().c_str()), 0);
    strlcpy(package.list->programmer_path, "prog.mbn", sizeof package.list->programmer_path);
    EXPECT_EQ(package.build(), 0);
    EXPECT_STREQ(package.list->partition_file_path, "./rawprogram_nand.xml");
    EXPECT_EQ(chdir("/"), 0);
}

TEST(BuildFlatImages, RefusesAFirstLineThatIsNoXml)
{
    log_capture log;
    flat_directory package;
    package.dir.write("rawprogram_nand.xml", "binary\n");
    EXPECT_EQ(package.build(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "file " + package.dir.path() + "/rawprogram_nand.xml");
}
