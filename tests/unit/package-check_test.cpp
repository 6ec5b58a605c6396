#include "package-check.hpp"

#include "core.hpp"
#include "image-list.hpp"
#include "libc-hooks.hpp"
#include "log_capture.hpp"
#include "package.hpp"
#include "temp_dir.hpp"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using texts = std::vector<std::string>;

namespace {

constexpr char content[] = "<?xml version=\"1.0\" ?>\n"
                           "<partition_file>\n"
                           "<file_name>rawprogram_nand.xml</file_name>\n"
                           "<device_programmer>\n"
                           "<file_name>prog.mbn</file_name>\n";
constexpr char erase[] = "<erase start_sector=\"0\"/>\n";
constexpr char program[] =
    "<program SECTOR_SIZE_IN_BYTES=\"4096\" filename=\"boot.img\" num_partition_sectors=\"1\"/>\n";

class PackageCheck : public testing::Test {
  protected:
    PackageCheck()
    {
        dir.write("contents.xml", content);
        dir.write("information.contents", "PKG VER : 49.01.102\n");
        dir.write("prog.mbn", "programmer");
        dir.write("boot.img", "0123");
        write_lines(std::string(erase) + program);
        give_paths();
    }

    void give_paths()
    {
        list->image_count = MAX_IMAGE_NUMBER;
        strlcpy(list->content_xml_path, dir.at("contents.xml").c_str(), sizeof list->content_xml_path);
    }

    void write_lines(const std::string &lines) const
    {
        dir.write("rawprogram_nand.xml", "<?xml version=\"1.0\" ?>\n<data>\n" + lines + "</data>\n");
    }
    void write_names(const std::string &programmer, const std::string &partition_file) const
    {
        dir.write("contents.xml", "<?xml?>\n<partition_file>\n<file_name>" + partition_file +
                                      "</file_name>\n<device_programmer>\n<file_name>" + programmer +
                                      "</file_name>\n");
    }
    // Reads the package and checks it; reading alone succeeds with every package here.
    int check(bool otp = false, bool uploads_programmer = true)
    {
        EXPECT_NE(get_new_pkgver(list.get()), nullptr);
        EXPECT_EQ(build_image_array_from_xml(list.get()), 0);
        log.clear();
        return check_package(list.get(), !otp, uploads_programmer);
    }
    int check_lines(const std::string &lines)
    {
        write_lines(lines);
        return check();
    }
    // Reads the package, which fails or is what the case is about.
    int build()
    {
        log.clear();
        return build_image_array_from_xml(list.get());
    }
    int build_lines(const std::string &lines)
    {
        write_lines(lines);
        return build();
    }
    texts errors() const { return log.texts(CORE_LOG_ERR); }

    temp_dir dir;
    log_capture log;
    std::unique_ptr<image_list> list = std::make_unique<image_list>();
    const std::string rawprogram = dir.at("rawprogram_nand.xml");
};

// The names in a package, the lines in its rawprogram file, and the programmer.
class PackageTexts : public PackageCheck {};
class PackageNames : public PackageCheck {
  protected:
    // A second folder beside the package, with a package of its own.
    class neighbour : public temp_dir {
      public:
        neighbour()
        {
            write("contents.xml", content);
            write("information.contents", "PKG VER : 49.01.102\n");
            write("rawprogram_nand.xml", std::string("<?xml?>\n") + erase);
            write("prog.mbn", "programmer");
            write("boot.img", "0123");
        }
        // What a file of it is called from within the package.
        std::string name(const std::string &file) const
        {
            return "../" + std::filesystem::path(path()).filename().string() + "/" + file;
        }
    };

    void link(const std::string &target, const std::string &name) const
    {
        std::filesystem::create_symlink(target, dir.at(name));
    }

    neighbour outside;
};
class PackageCommands : public PackageCheck {};
class PackageProgrammer : public PackageCheck {};
class PackageSectors : public PackageCheck {};
class ImageFile : public PackageCheck {
  protected:
    int open_image()
    {
        owned_file file;
        return open_same_file(list->images[1].filename, list->images[1].identity, file.receive());
    }
};

} // namespace

TEST_F(PackageCheck, AcceptsAGoodPackageSilently)
{
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(PackageCheck, LogsAsTheDriver)
{
    EXPECT_EQ(check_lines(""), -22);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].file, "../main.c");
    EXPECT_EQ(log.messages()[0].function, "check_package");
}

// ---- the texts

TEST_F(PackageTexts, OfTheDescriptionHaveNoNulBytes)
{
    dir.write("contents.xml", content + std::string(1, '\0'));
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"NUL byte in " + dir.at("contents.xml")});
}

TEST_F(PackageTexts, OfTheRawprogramFileHaveNoNulBytes)
{
    write_lines(erase + std::string(1, '\0') + program);
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"NUL byte in " + rawprogram});
}

TEST_F(PackageTexts, OfTheInformationFileHaveNoNulBytes)
{
    dir.write("information.contents", std::string("PKG VER : 49.01\0.102\n", 21));
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"NUL byte in " + dir.at("information.contents")});
}

TEST_F(PackageTexts, AreReadToTheirEnd)
{
    write_lines(erase + std::string(20000, ' ') + std::string(1, '\0'));
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"NUL byte in " + rawprogram});
}

TEST_F(PackageTexts, AreCheckedAsTheyWereRead)
{
    EXPECT_EQ(build_image_array_from_xml(list.get()), 0);
    log.clear();
    dir.write("contents.xml", std::string(1, '\0'));
    std::filesystem::remove(dir.at("information.contents"));
    std::filesystem::remove(rawprogram);
    ASSERT_EQ(mkfifo(rawprogram.c_str(), 0644), 0);
    EXPECT_EQ(check_package(list.get(), true, true), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(PackageTexts, OfAProgrammerAloneAreBesideIt)
{
    list->content_xml_path[0] = '\0';
    strlcpy(list->programmer_path, dir.at("prog.mbn").c_str(), sizeof list->programmer_path);
    dir.write("information.contents", std::string("PKG VER : 49.01\0.102\n", 21));
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"NUL byte in " + dir.at("information.contents")});
}

// ---- the names

TEST_F(PackageNames, OfImagesStayInThePackage)
{
    const std::string name = outside.name("boot.img");
    EXPECT_EQ(build_lines("<program filename=\"" + name + "\"/>\n"), -22);
    EXPECT_EQ(errors(),
              (texts{"file name leads out of the package: " + dir.at(name),
                     "unable to open file err = 4294967274, for image", "image list validation failure"}));
    EXPECT_EQ(list->images[0].file_size, 0U);
}

TEST_F(PackageNames, OfErasedImagesStayInThePackage)
{
    const std::string name = outside.name("boot.img");
    EXPECT_EQ(build_lines("<erase filename=\"" + name + "\"/>\n"), -22);
    EXPECT_EQ(errors()[0], "file name leads out of the package: " + dir.at(name));
}

TEST_F(PackageNames, OfImagesMayLeadUpwardsWithinThePackage)
{
    dir.write("images/x", "");
    EXPECT_EQ(check_lines("<program filename=\"images/../boot.img\" SECTOR_SIZE_IN_BYTES=\"1\"/>\n"), 0);
    EXPECT_EQ(list->images[0].filename, dir.at("images/../boot.img"));
    EXPECT_EQ(list->images[0].file_size, 4U);
}

TEST_F(PackageNames, OfImagesMayBeLinksWithinThePackage)
{
    link("boot.img", "relative.img");
    link(dir.at("boot.img"), "absolute.img");
    EXPECT_EQ(check_lines("<program filename=\"relative.img\" SECTOR_SIZE_IN_BYTES=\"1\"/>\n"
                          "<program filename=\"absolute.img\" SECTOR_SIZE_IN_BYTES=\"1\"/>\n"),
              0);
    EXPECT_EQ(list->images[0].file_size, 4U);
    EXPECT_EQ(list->images[1].file_size, 4U);
}

TEST_F(PackageNames, OfImagesMayBeNoLinksOutOfThePackage)
{
    link(outside.path() + "/boot.img", "link.img");
    EXPECT_EQ(build_lines("<program filename=\"link.img\"/>\n"), -22);
    EXPECT_EQ(errors()[0], "file name leads out of the package: " + dir.at("link.img"));
}

TEST_F(PackageNames, OfImagesMayNotBeginLikeThePackage)
{
    const temp_dir around;
    around.write("pkg2/boot.img", "0123");
    around.write("pkg/contents.xml", content);
    around.write("pkg/rawprogram_nand.xml", "<?xml?>\n<program filename=\"../pkg2/boot.img\"/>\n");
    strlcpy(list->content_xml_path, around.at("pkg/contents.xml").c_str(), sizeof list->content_xml_path);
    log.clear();
    EXPECT_EQ(build_image_array_from_xml(list.get()), -22);
    EXPECT_EQ(errors()[0], "file name leads out of the package: " + around.at("pkg/../pkg2/boot.img"));
}

TEST_F(PackageNames, OfTheProgrammerMayNotEndInTwoDots)
{
    write_names("..", "rawprogram_nand.xml");
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"'" + dir.at("..") + "' is not a regular file"});
}

TEST_F(PackageNames, OfTheProgrammerStayInThePackage)
{
    const std::string name = outside.name("prog.mbn");
    write_names(name, "rawprogram_nand.xml");
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"file name leads out of the package: " + dir.at(name)});
    EXPECT_TRUE(list->programmer == core_file_identity{});
}

TEST_F(PackageNames, OfTheProgrammerMayLeadNowhere)
{
    write_names("../prog.mbn/absent", "rawprogram_nand.xml");
    EXPECT_EQ(check(), -2);
    EXPECT_EQ(errors(), texts{"file is not there: " + dir.at("../prog.mbn/absent")});
}

// No run asks for it then.
TEST_F(PackageNames, OfTheProgrammerMayLeadAnywhereWhereItIsNotUploaded)
{
    write_names(outside.name("prog.mbn"), "rawprogram_nand.xml");
    EXPECT_EQ(check(false, false), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(PackageNames, OfTheProgrammerMayBeALinkWithinThePackage)
{
    link("prog.mbn", "link.mbn");
    write_names("link.mbn", "rawprogram_nand.xml");
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(list->programmer.size, 10);
}

TEST_F(PackageNames, OfTheProgrammerMayBeNoLinkOutOfThePackage)
{
    link(outside.path() + "/prog.mbn", "link.mbn");
    write_names("link.mbn", "rawprogram_nand.xml");
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"file name leads out of the package: " + dir.at("link.mbn")});
}

TEST_F(PackageNames, OfTheRawprogramFileStayInThePackage)
{
    const std::string name = outside.name("rawprogram_nand.xml");
    write_names("prog.mbn", name);
    EXPECT_EQ(build(), -22);
    EXPECT_EQ(errors(), (texts{"file name leads out of the package: " + dir.at(name),
                               "unable to open partition file " + dir.at(name) + ", err = 4294967274"}));
    EXPECT_TRUE(is_empty_image(&list->images[0]));
}

TEST_F(PackageNames, OfTheRawprogramFileMayLeadUpwardsWithinThePackage)
{
    dir.write("lists/x", "");
    write_names("prog.mbn", "lists//../rawprogram_nand.xml");
    EXPECT_EQ(check(), 0);
}

TEST_F(PackageNames, OfTheRawprogramFileMayBeNoLinkOutOfThePackage)
{
    link(outside.path() + "/rawprogram_nand.xml", "link.xml");
    write_names("prog.mbn", "link.xml");
    EXPECT_EQ(build(), -22);
    EXPECT_EQ(errors()[0], "file name leads out of the package: " + dir.at("link.xml"));
}

TEST_F(PackageNames, OfTheDescriptionMayBeNoLinkOutOfThePackage)
{
    std::filesystem::remove(dir.at("contents.xml"));
    link(outside.path() + "/contents.xml", "contents.xml");
    EXPECT_EQ(build(), -22);
    EXPECT_EQ(errors()[0], "file name leads out of the package: " + dir.at("contents.xml"));
}

TEST_F(PackageNames, OfTheInformationFileMayBeNoLinkOutOfThePackage)
{
    std::filesystem::remove(dir.at("information.contents"));
    link(outside.path() + "/information.contents", "information.contents");
    EXPECT_EQ(get_new_pkgver(list.get()), nullptr);
    EXPECT_EQ(errors(), (texts{"file name leads out of the package: " + dir.at("information.contents"),
                               "get_new_pkgver: cannot open the file " + dir.at("information.contents")}));
}

TEST_F(PackageNames, MayHoldTwoDotsInAComponent)
{
    dir.write("..images/boot..img..", "0123");
    EXPECT_EQ(check_lines("<program filename=\"..images/boot..img..\" SECTOR_SIZE_IN_BYTES=\"1\"/>\n"), 0);
}

TEST_F(PackageNames, MayHoldASingleDot)
{
    EXPECT_EQ(check_lines("<program filename=\"./boot.img\" SECTOR_SIZE_IN_BYTES=\"1\"/>\n"), 0);
}

TEST_F(PackageNames, ThatAreAbsoluteStandBelowThePackage)
{
    dir.write("abs/boot.img", "0123");
    EXPECT_EQ(check_lines("<program filename=\"/abs/boot.img\" SECTOR_SIZE_IN_BYTES=\"1\"/>\n"), 0);
    EXPECT_EQ(list->images[0].filename, dir.path() + "//abs/boot.img");
}

TEST_F(PackageNames, OfTheUserMayLeadAnywhere)
{
    dir.write("other/x", "");
    strlcpy(list->content_xml_path, dir.at("other/../contents.xml").c_str(), sizeof list->content_xml_path);
    EXPECT_EQ(check(), 0);
}

// ---- the commands

TEST_F(PackageCommands, AreNeeded)
{
    EXPECT_EQ(check_lines("<!--\n" + std::string(program) + "-->\n"), -22);
    EXPECT_EQ(errors(), texts{"no command in " + rawprogram});
}

TEST_F(PackageCommands, AreNeededInAnEmptyFileToo)
{
    dir.write("rawprogram_nand.xml", "");
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"no command in " + rawprogram});
}

TEST_F(PackageCommands, InTheFirstLineAreNone)
{
    dir.write("rawprogram_nand.xml", "<power/>\n");
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"no command in " + rawprogram});
}

struct bad_line {
    const char *name;
    const char *lines; // the first one is line 4, behind an erase command
    const char *why;
    int number;
    const char *shown;
};

// Shown behind the test's name.
void PrintTo(const bad_line &line, std::ostream *out)
{
    *out << line.lines;
}

class PackageLines : public PackageCheck, public testing::WithParamInterface<bad_line> {};

TEST_P(PackageLines, AreRefused)
{
    EXPECT_EQ(check_lines(erase + std::string(GetParam().lines) + "\n"), -22);
    EXPECT_EQ(errors(), texts{std::string(GetParam().why) + " in " + rawprogram + ", line " +
                              std::to_string(GetParam().number) + ": " + GetParam().shown});
}

constexpr char shared[] = "command without a line of its own";
constexpr char lost[] = "command that is not read";
constexpr char no_element[] = "line that is no element";
constexpr char no_file_name[] = "file name cannot be read";
constexpr char no_blank[] = "command without a blank behind its name";
constexpr char twice[] = "attribute given twice";

INSTANTIATE_TEST_SUITE_P(
    Shared, PackageLines,
    testing::Values(bad_line{"TwoCommands", "<erase/><erase/>", shared, 4, "<erase/><erase/>"},
                    bad_line{"TwoKinds", "<program/> <erase/>", shared, 4, "<program/> <erase/>"},
                    bad_line{"OtherKinds", "<power/><patch/>", shared, 4, "<power/><patch/>"},
                    bad_line{"GoesOn", "<program\nfilename=\"boot.img\"/>", shared, 4, "<program"},
                    bad_line{"GoesOnBehindAnother", "<power/> <program\n/>", shared, 4, "<power/> <program"},
                    bad_line{"OtherKindGoesOn", "<power\n/>", shared, 4, "<power"},
                    bad_line{"EndGoesOn", "<power></power\n>", shared, 4, "<power></power"},
                    bad_line{"TheEndOfTheFrame", "<power/></data>\n<data>", shared, 4, "<power/></data>"},
                    bad_line{"CommentBehind", "<power/> <!-- a -->", shared, 4, "<power/> <!-- a -->"},
                    bad_line{"CommentInFront", "<!-- a --> <power/>", shared, 4, "<!-- a --> <power/>"},
                    bad_line{"BeginOfAComment", "<power/> <!--\n-->", shared, 4, "<power/> <!--"},
                    bad_line{"EndOfAComment", "<!--\n--> <power/>", shared, 5, "--> <power/>"},
                    bad_line{"TextInFront", "filename=\"boot.img\" <power/>", shared, 4,
                             "filename=\"boot.img\" <power/>"},
                    bad_line{"TextBehind", " \t<power/> .\t\r", shared, 4, "<power/> ."},
                    bad_line{"FormFeed", "<power/>\f", shared, 4, "<power/>\f"},
                    bad_line{"LongLine",
                             "<power value=\"1234567890123456789012345678901234567890123456789\"/><power/>",
                             shared, 4, "<power value=\"1234567890123456789012345678901234567890123456"}),
    [](const testing::TestParamInfo<bad_line> &line) { return std::string(line.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Misread, PackageLines,
    testing::Values(
        bad_line{"CommentMarkInAValue", "<power value=\"-->\"/>", lost, 4, "<power value=\"-->\"/>"},
        bad_line{"EntryOfTheDescription", "<file_name/>", lost, 4, "<file_name/>"},
        bad_line{"BehindTwoComments", "<!--\n--> <!-- a -->\n<power/>", lost, 6, "<power/>"},
        bad_line{"BehindTwoCommentsWithAnotherBehind",
                 "<!--\n--> <!-- a -->\n<power/>\n<!-- a -->\n-- \n<erase/>", lost, 6, "<power/>"},
        bad_line{"BehindTwoCommentsWithTheSameBehind", "<!--\n--> <!-- a -->\n<power/>\n<!--\n-->\n<power/>",
                 lost, 6, "<power/>"},
        bad_line{"InTheSecondComment", "<!-- a --> <!--\n<power/>\n-->", no_element, 5, "<power/>"},
        bad_line{"InTheSecondCommentWithTheSameBehind", "<!-- a --> <!--\n<power/>\n-->\n<power/>",
                 no_element, 5, "<power/>"},
        bad_line{"TextInTheSecondComment", "<!-- a --> <!--\r\n <b> \r\n-->", no_element, 5, "<b>"}),
    [](const testing::TestParamInfo<bad_line> &line) { return std::string(line.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Malformed, PackageLines,
    testing::Values(
        bad_line{"CommentWithoutAnEnd", "<!--\n<erase/>", "comment without an end", 4, "<!--"},
        bad_line{"NoQuotes", "<program filename=boot.img />", "element that cannot be read", 4,
                 "<program filename=boot.img />"},
        bad_line{"BehindAComment", "<!--\n-->\n<erase", "element that cannot be read", 6, "<erase"},
        bad_line{"NotEmpty", "<power>\n<erase/>\n</power>", "element that is not empty", 4, "<power>"},
        bad_line{"SecondFrame", "</data>\n<data>", "element outside of <data>", 5, "<data>"},
        bad_line{"Instruction", "<?power?>", "markup that is no element", 4, "<?power?>"}),
    [](const testing::TestParamInfo<bad_line> &line) { return std::string(line.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Names, PackageLines,
    testing::Values(
        bad_line{"SingleQuotes", "<program filename='boot.img'/>", no_file_name, 4,
                 "<program filename='boot.img'/>"},
        bad_line{"BlankInFront", "<program filename =\"boot.img\"/>", no_file_name, 4,
                 "<program filename =\"boot.img\"/>"},
        bad_line{"BlankBehind", "<program filename= \"boot.img\"/>", no_file_name, 4,
                 "<program filename= \"boot.img\"/>"},
        bad_line{"NameInAValue", "<program label=\"filename\" filename=\"boot.img\"/>", no_file_name, 4,
                 "<program label=\"filename\" filename=\"boot.img\"/>"},
        bad_line{"NameInAName", "<program sparse_filename=\"\" filename=\"boot.img\"/>", no_file_name, 4,
                 "<program sparse_filename=\"\" filename=\"boot.img\"/>"},
        bad_line{"NameInANameAlone", "<program sparse_filename=\"boot.img\"/>", no_file_name, 4,
                 "<program sparse_filename=\"boot.img\"/>"},
        bad_line{"NameInAnotherValue", "<program label='filename=\"boot.img\"'/>", no_file_name, 4,
                 "<program label='filename=\"boot.img\"'/>"},
        bad_line{"OtherFile", "<program a_filename=\"boot.img\" filename=\"other\"/>", no_file_name, 4,
                 "<program a_filename=\"boot.img\" filename=\"other\"/>"},
        bad_line{"NameInANameOfAnotherKind", "<patch a_filename=\"boot.img\"/>", no_file_name, 4,
                 "<patch a_filename=\"boot.img\"/>"},
        bad_line{"Capitals", "<program FILENAME=\"boot.img\"/>", no_file_name, 4,
                 "<program FILENAME=\"boot.img\"/>"},
        bad_line{"CapitalsWithoutAName", "<program FileName=\"\"/>", no_file_name, 4,
                 "<program FileName=\"\"/>"},
        bad_line{"Hyphen", "<program file-name=\"boot.img\"/>", no_file_name, 4,
                 "<program file-name=\"boot.img\"/>"},
        bad_line{"Digit", "<program filename2=\"\" />", no_file_name, 4, "<program filename2=\"\" />"},
        bad_line{"FileNameTwice", "<program filename=\"\" filename=\"boot.img\"/>", twice, 4,
                 "<program filename=\"\" filename=\"boot.img\"/>"},
        bad_line{"OtherAttributeTwice", "<patch a=\"\" b=\"\" b='1'/>", twice, 4,
                 "<patch a=\"\" b=\"\" b='1'/>"},
        bad_line{"Tab", "<program\tfilename=\"boot.img\"/>", no_blank, 4,
                 "<program\tfilename=\"boot.img\"/>"},
        bad_line{"CarriageReturn", "<program\rlabel=\"a\"/>", no_blank, 4, "<program\rlabel=\"a\"/>"},
        bad_line{"NoAttributes", "<program/>", no_blank, 4, "<program/>"},
        bad_line{"NoAttributesAndAnEnd", "<program></program>", no_blank, 4, "<program></program>"},
        bad_line{"TabInAnEraseCommand", "<erase\tlabel=\"a\"/>", no_blank, 4, "<erase\tlabel=\"a\"/>"}),
    [](const testing::TestParamInfo<bad_line> &line) { return std::string(line.param.name); });

TEST_F(PackageCommands, MayNotStandInTheFirstLine)
{
    dir.write("rawprogram_nand.xml", std::string("\n<?xml?><data><erase/>\n") + program + "</data>\n");
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"command without a line of its own in " + rawprogram +
                              ", line 2: <?xml?><data><erase/>"});
}

TEST_F(PackageCommands, MayStandAnyhowInAComment)
{
    EXPECT_EQ(
        check_lines(std::string("<!--\n<program\n/><erase/><erase/>\n-->\n<!-- <erase/><erase/> -->\n") +
                    program),
        0);
    EXPECT_EQ(errors(), texts{});
}

TEST_F(PackageCommands, MayStandInOddPlacesAsLongAsNoneIsLost)
{
    for (const char *text :
         {"<!-- a --><data>\n<erase/>\n</data>", "<data>\n\n  <erase/>\t \r\n\n</data>\r\n",
          "<?xml?>\n<data> <!--\n<power>\n--> \n\t<erase/>\n<!----></data>",
          "<data>\na\n<erase></erase>\n<!-- a -->\nfilename=\"b\"\n</data>c"}) {
        memset(list->images, 0, sizeof list->images);
        dir.write("rawprogram_nand.xml", text);
        EXPECT_EQ(check(), 0) << text;
    }
    EXPECT_EQ(errors(), texts{});
}

TEST_F(PackageCommands, AreThoseOfTheImages)
{
    EXPECT_NE(get_new_pkgver(list.get()), nullptr);
    EXPECT_EQ(build_image_array_from_xml(list.get()), 0);
    log.clear();
    list->images[1].command[1] = 'x';
    EXPECT_EQ(check_package(list.get(), true, true), -22);
    EXPECT_EQ(errors(), texts{std::string(lost) + " in " + rawprogram +
                              ", line 4: <program SECTOR_SIZE_IN_BYTES=\"4096\" filename=\"boot.img\" num"});
}

TEST_F(PackageCommands, AreNotNeededInAFileWithoutAFrameToReadOtpValues)
{
    dir.write("rawprogram_nand.xml", "");
    EXPECT_EQ(check(true), 0);
}

TEST_F(PackageCommands, AreNotNeededToReadOtpValues)
{
    write_lines("");
    EXPECT_EQ(check(true), 0);
}

TEST_F(PackageCommands, OfMoreThan1023CharactersAreRefused)
{
    const std::string begin = "<erase padding=\"";
    EXPECT_EQ(check_lines(begin + std::string(1005, 'x') + "\"/>\n"), -22); // 1024 characters
    EXPECT_EQ(errors(), texts{"command of more than 1023 characters in " + rawprogram + ": " + begin +
                              std::string(44, 'x') + "..."});
}

TEST_F(PackageCommands, Of1023CharactersAreWhole)
{
    EXPECT_EQ(check_lines("<erase padding=\"" + std::string(1004, 'x') + "\"/>\n"), 0);
    EXPECT_EQ(strlen(list->images[0].command), 1023U);
}

TEST_F(PackageCommands, ThatEndBeforeTheCutAreWhole)
{
    EXPECT_EQ(check_lines(erase + std::string("<erase/>") + std::string(2000, ' ') + "\r\n"), 0);
}

TEST_F(PackageCommands, ThatAreCutBehindAnElementAreRefused)
{
    const std::string line = "<power/>" + std::string(1015, ' ') + "<patch/>";
    EXPECT_EQ(check_lines(line + "\n"), -22);
    EXPECT_EQ(errors(), texts{"command of more than 1023 characters in " + rawprogram + ": <power/>" +
                              std::string(52, ' ') + "..."});
}

TEST_F(PackageCommands, ThatBeginBehindTheCutAreRefused)
{
    EXPECT_EQ(check_lines(std::string(1023, ' ') + erase), -22);
}

TEST_F(PackageCommands, WithoutANameOfAFileMaySkipIt)
{
    for (const char *line : {"<program filename=\"\"/>", "<program label=\"a\"/>", "<program filename=''/>",
                             "<program filename = \"\" />", "<program label=\"filename\"/>", "<program />",
                             "<program filename=\"\"></program>", "<program FILE=\"a\" NAME=\"b\"/>"}) {
        EXPECT_EQ(check_lines(line + std::string("\n")), 0) << line;
        memset(list->images, 0, sizeof list->images);
    }
}

TEST_F(PackageCommands, WithANameOf1024CharactersAreRefused)
{
    EXPECT_EQ(check_lines("<program filename=\"" + std::string(1024, 'x') + "\"/>\n"), -22);
    EXPECT_EQ(errors(), texts{"command of more than 1023 characters in " + rawprogram +
                              ": <program filename=\"" + std::string(41, 'x') + "..."});
}

TEST_F(PackageCommands, ThatAreNoProgramLinesMayHaveAnyName)
{
    EXPECT_EQ(check_lines("<patch filename='DISK' start_sector=\"0\"/>\n"), 0);
}

TEST_F(PackageCommands, MayAnnounce2147483647Sectors)
{
    write_lines("<program SECTOR_SIZE_IN_BYTES=\"1\" filename=\"boot.img\"/>\n");
    std::filesystem::resize_file(dir.at("boot.img"), 2147483647);
    EXPECT_EQ(check(), 0);
}

TEST_F(PackageCommands, MayNotAnnounceMoreSectors)
{
    write_lines("<program SECTOR_SIZE_IN_BYTES=\"1\" filename=\"boot.img\"/>\n");
    std::filesystem::resize_file(dir.at("boot.img"), 2147483648);
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"too many sectors of 1 bytes: " + dir.at("boot.img")});
}

TEST_F(PackageCommands, MayAnnounceFiveGibibytes)
{
    std::filesystem::resize_file(dir.at("boot.img"), 5368709120);
    EXPECT_EQ(check(), 0);
}

TEST_F(PackageCommands, ThatEraseAnnounceNoSectorsOfTheirFile)
{
    write_lines("<erase SECTOR_SIZE_IN_BYTES=\"1\" filename=\"boot.img\"/>\n");
    std::filesystem::resize_file(dir.at("boot.img"), 2147483648);
    EXPECT_EQ(check(), 0);
}

// ---- the programmer

TEST_F(PackageProgrammer, MustBeThereAndIsNotCreated)
{
    std::filesystem::remove(dir.at("prog.mbn"));
    EXPECT_EQ(check(), -2);
    EXPECT_EQ(errors(), texts{"file is not there: " + dir.at("prog.mbn")});
    EXPECT_FALSE(std::filesystem::exists(dir.at("prog.mbn")));
}

TEST_F(PackageProgrammer, MustNotBeEmpty)
{
    dir.write("prog.mbn", "");
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"programmer image " + dir.at("prog.mbn") + " is empty"});
}

TEST_F(PackageProgrammer, MustBeAFile)
{
    std::filesystem::remove(dir.at("prog.mbn"));
    std::filesystem::create_directory(dir.at("prog.mbn"));
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(), texts{"'" + dir.at("prog.mbn") + "' is not a regular file"});
}

TEST_F(PackageProgrammer, ThatCannotBeLookedAtIsRefused)
{
    EXPECT_EQ(build(), 0);
    libc::fstat = libc::fails(EIO);
    EXPECT_EQ(check_package(list.get(), true, true), -5);
    EXPECT_EQ(errors(), texts{"error 5 Input/output error opening file '" + dir.at("prog.mbn") + "'\n"});
    EXPECT_EQ(log.messages().back().function, "check_package");
}

TEST_F(PackageProgrammer, IsKnownByItsFile)
{
    EXPECT_EQ(check(), 0);
    struct stat status {};
    ASSERT_EQ(stat(dir.at("prog.mbn").c_str(), &status), 0);
    EXPECT_EQ(list->programmer.inode, status.st_ino);
    EXPECT_EQ(list->programmer.size, 10);
    EXPECT_EQ(list->programmer.modified_ns, status.st_mtim.tv_nsec);
}

TEST_F(PackageProgrammer, IsNotKnownWhereItIsNotUploaded)
{
    EXPECT_EQ(check(false, false), 0);
    EXPECT_TRUE(list->programmer == core_file_identity{});
}

TEST_F(PackageProgrammer, MayBeMissingWhereItIsNotUploaded)
{
    std::filesystem::remove(dir.at("prog.mbn"));
    EXPECT_EQ(check(false, false), 0);
}

TEST_F(PackageProgrammer, IsNeededToReadOtpValuesToo)
{
    std::filesystem::remove(dir.at("prog.mbn"));
    EXPECT_EQ(check(true, true), -2);
}

// ---- sectors

TEST_F(PackageSectors, OfWholePayloadsNeedNoSize)
{
    write_lines("<program filename=\"boot.img\"/>\n");
    std::filesystem::resize_file(dir.at("boot.img"), 2097152);
    EXPECT_EQ(check(), 0);
}

TEST_F(PackageSectors, WithoutASizeAreRefusedForAPartialPayload)
{
    for (const char *attribute : {"", "SECTOR_SIZE_IN_BYTES=\"0\" ", "SECTOR_SIZE_IN_BYTES=\"4096x\" "}) {
        write_lines(std::string("<program ") + attribute + "filename=\"boot.img\"/>\n");
        EXPECT_EQ(check(), -22) << attribute;
        EXPECT_EQ(errors(),
                  texts{"sector size 0 does not fit payload size 1048576 for " + dir.at("boot.img")});
        list = std::make_unique<image_list>();
        give_paths();
    }
}

TEST_F(PackageSectors, MayBeAsLargeAsAPayloadAndNoLarger)
{
    write_lines("<program SECTOR_SIZE_IN_BYTES=\"1048576\" filename=\"boot.img\"/>\n");
    EXPECT_EQ(check(), 0);
    list = std::make_unique<image_list>();
    give_paths();
    write_lines("<program SECTOR_SIZE_IN_BYTES=\"1048577\" filename=\"boot.img\"/>\n");
    EXPECT_EQ(check(), -22);
    EXPECT_EQ(errors(),
              texts{"sector size 1048577 does not fit payload size 1048576 for " + dir.at("boot.img")});
}

TEST_F(PackageSectors, MustHaveANumberWithAnEnd)
{
    const std::string line =
        "<program SECTOR_SIZE_IN_BYTES=\"4096\" filename=\"boot.img\" num_partition_sectors=\"\"/>";
    EXPECT_EQ(check_lines(line + "\n"), -22);
    EXPECT_EQ(errors(),
              texts{"number of sectors without an end in " + rawprogram + ": " + line.substr(0, 60)});
}

TEST_F(PackageSectors, OfLinesThatAreNotSentMayBeWrong)
{
    write_lines("<program filename=\"boot.img\"/>\n");
    EXPECT_EQ(check(true), 0);
}

// ---- the file of an image

TEST_F(ImageFile, ThatIsUnchangedIsOpened)
{
    EXPECT_EQ(check(), 0);
    owned_file file;
    EXPECT_EQ(open_same_file(list->images[1].filename, list->images[1].identity, file.receive()), 0);
    char bytes[8] = {};
    EXPECT_EQ(read(file.get(), bytes, sizeof bytes), 4);
    EXPECT_STREQ(bytes, "0123");
    EXPECT_EQ(write(file.get(), "x", 1), -1) << "open for reading only";
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ImageFile, ThatHasGrownIsRefused)
{
    EXPECT_EQ(check(), 0);
    dir.write("boot.img", "01234");
    EXPECT_EQ(open_image(), -22);
    EXPECT_EQ(errors(), texts{"file of 4 bytes has changed to 5: " + dir.at("boot.img")});
    EXPECT_EQ(log.messages().back().function, "check_same_file");
    EXPECT_EQ(log.messages().size(), 1U); // and no descriptor was closed twice
}

TEST_F(ImageFile, ThatIsRefusedLeavesNoDescriptor)
{
    EXPECT_EQ(check(), 0);
    dir.write("boot.img", "01234");
    int handle = 4711;
    EXPECT_EQ(open_same_file(list->images[1].filename, list->images[1].identity, &handle), -22);
    EXPECT_EQ(handle, -1);
    std::filesystem::remove(dir.at("boot.img"));
    handle = 4711;
    EXPECT_EQ(open_same_file(list->images[1].filename, list->images[1].identity, &handle), -2);
    EXPECT_EQ(handle, -1);
}

TEST_F(ImageFile, ThatCannotBeLookedAtIsRefused)
{
    EXPECT_EQ(check(), 0);
    libc::fstat = libc::fails(EIO);
    EXPECT_EQ(open_image(), -5);
    EXPECT_EQ(errors(), texts{"error 5 Input/output error opening file '" + dir.at("boot.img") + "'\n"});
    EXPECT_EQ(log.messages().back().function, "open_same_file");
}

TEST_F(ImageFile, ThatIsGoneIsRefused)
{
    EXPECT_EQ(check(), 0);
    std::filesystem::remove(dir.at("boot.img"));
    EXPECT_EQ(open_image(), -2);
    EXPECT_EQ(errors(), texts{"file is not there: " + dir.at("boot.img")});
    EXPECT_EQ(log.messages().back().function, "open_same_file");
}

TEST_F(ImageFile, OfTheSameSizeIsKnownByItsInode)
{
    EXPECT_EQ(check(), 0);
    dir.write("other", "0123");
    std::filesystem::rename(dir.at("other"), dir.at("boot.img"));
    EXPECT_EQ(open_image(), -22);
    EXPECT_EQ(errors(), texts{"file has changed: " + dir.at("boot.img")});
}

// Whoever writes a file anew may set its time of modification back, but not that of its change.
TEST_F(ImageFile, OfTheSameSizeIsKnownByItsTimes)
{
    EXPECT_EQ(check(), 0);
    struct stat before {};
    ASSERT_EQ(stat(dir.at("boot.img").c_str(), &before), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // longer than the kernel's clock ticks
    dir.write("boot.img", "4567");
    const timespec times[] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, dir.at("boot.img").c_str(), times, 0), 0);
    EXPECT_EQ(open_image(), -22);
    EXPECT_EQ(errors(), texts{"file has changed: " + dir.at("boot.img")});
}
