#include "package.hpp"

#include "core.hpp"
#include "image-list.hpp"
#include "log_capture.hpp"
#include "options.hpp"
#include "temp_dir.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using texts = std::vector<std::string>;

constexpr char content[] = "<?xml version=\"1.0\" ?>\n"
                           "<partition_file>\n"
                           "<file_name>rawprogram_nand.xml</file_name>\n"
                           "<device_programmer>\n"
                           "<file_name>prog.mbn</file_name>\n";
constexpr char partition[] = "<?xml version=\"1.0\" ?>\n"
                             "<data>\n"
                             "<program filename=\"boot.img\"/>\n"
                             "</data>\n";

// The package record and the options are process-wide: both start fresh.
class PackageInit : public testing::Test {
  protected:
    PackageInit()
    {
        options = {};
        package = {};
    }
    ~PackageInit() override
    {
        fw_package_free();
        options = {};
        package = {};
    }

    // A whole package with a description.
    void write_package(const std::string &version = "49.01.102")
    {
        dir.write("contents.xml", content);
        dir.write("information.contents", "PKG VER : " + version + "\n");
        dir.write("rawprogram_nand.xml", partition);
        dir.write("boot.img", "0123");
    }
    // A whole package of a programmer.
    void write_flat_package(const std::string &programmer)
    {
        dir.write(programmer, "programmer");
        dir.write("information.contents", "PKG VER : 25.30.001\n");
        dir.write("rawprogram_nand.xml", partition);
        dir.write("boot.img", "0123");
    }
    int init_from_directory()
    {
        options.firmware_directory = dir.path().c_str();
        return fw_package_init();
    }

    temp_dir dir;
    log_capture log;
};

using PackageInitDeath = PackageInit;

} // namespace

// ---- the source

TEST_F(PackageInit, TakesTheDescriptionOfADirectory)
{
    write_package();
    EXPECT_EQ(init_from_directory(), 0);
    EXPECT_EQ(package.content_xml_path, dir.path() + "//contents.xml");
}

TEST_F(PackageInit, KeepsTheSlashBehindADirectory)
{
    write_package();
    const std::string with_slash = dir.path() + "/";
    options.firmware_directory = with_slash.c_str();
    EXPECT_EQ(fw_package_init(), 0);
    EXPECT_EQ(package.content_xml_path, dir.path() + "///contents.xml");
}

TEST_F(PackageInit, PrefersTheDescriptionToTheProgrammer)
{
    write_package();
    dir.write("prog_nand_firehose_9x06.mbn", "programmer");
    EXPECT_EQ(init_from_directory(), 0);
    EXPECT_EQ(package.content_xml_path, dir.path() + "//contents.xml");
    EXPECT_EQ(package.programmer_path, dir.path() + "/prog.mbn");
}

TEST_F(PackageInit, TakesTheProgrammerOfADirectoryWithoutDescription)
{
    write_flat_package("prog_nand_firehose_9x06.mbn");
    EXPECT_EQ(init_from_directory(), 0);
    EXPECT_EQ(package.programmer_path, dir.path() + "//prog_nand_firehose_9x06.mbn");
    EXPECT_STREQ(package.content_xml_path, "");
}

TEST_F(PackageInit, RefusesADirectoryWithNeither)
{
    write_flat_package("prog_other.mbn");
    EXPECT_EQ(init_from_directory(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"firmware not supported: " + dir.path()});
    EXPECT_EQ(log.messages().back().file, "../main.c");
    EXPECT_EQ(log.messages().back().function, "fw_package_init");
}

TEST_F(PackageInit, RefusesADirectoryWhosePackageHasAPathThatDoesNotFit)
{
    write_package();
    std::string directory = dir.path();
    while (directory.size() < 1010)
        directory += "/.";
    options.firmware_directory = directory.c_str();
    EXPECT_EQ(fw_package_init(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{("path of more than 1023 characters: " + directory + "//contents.xml").substr(0, 1024)});
}

TEST_F(PackageInit, RefusesAnEmptyDirectory)
{
    EXPECT_EQ(init_from_directory(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"firmware not supported: " + dir.path()});
}

TEST_F(PackageInit, TakesTheDescriptionOfTheOption)
{
    write_package();
    strlcpy(options.meta, dir.at("contents.xml").c_str(), sizeof options.meta);
    EXPECT_EQ(fw_package_init(), 0);
    EXPECT_EQ(package.content_xml_path, dir.path() + "/contents.xml");
    EXPECT_EQ(package.programmer_path, dir.path() + "/prog.mbn");
}

TEST_F(PackageInit, TakesADescriptionOfAnyName)
{
    write_package();
    std::filesystem::rename(dir.at("contents.xml"), dir.at("my package"));
    strlcpy(options.meta, dir.at("my package").c_str(), sizeof options.meta);
    EXPECT_EQ(fw_package_init(), 0);
    EXPECT_STREQ(package.new_pkgver, "49.01.102");
}

TEST_F(PackageInit, TakesTheProgrammerOfTheOption)
{
    write_flat_package("prog.mbn");
    strlcpy(options.flat, dir.at("prog.mbn").c_str(), sizeof options.flat);
    EXPECT_EQ(fw_package_init(), 0);
    EXPECT_EQ(package.programmer_path, dir.path() + "/prog.mbn");
    EXPECT_EQ(package.partition_file_path, dir.path() + "/rawprogram_nand.xml");
}

TEST_F(PackageInit, PrefersTheDirectoryToTheOptions)
{
    write_package();
    strlcpy(options.meta, "/nonexistent/contents.xml", sizeof options.meta);
    EXPECT_EQ(init_from_directory(), 0);
    EXPECT_EQ(package.content_xml_path, dir.path() + "//contents.xml");
}

TEST_F(PackageInitDeath, NeedsASource)
{
    EXPECT_DEATH(static_cast<void>(fw_package_init()), "strlen\\(options\\.flat\\)");
}

// ---- version, platform and images

TEST_F(PackageInit, ReadsVersionPlatformAndImages)
{
    write_package();
    EXPECT_EQ(init_from_directory(), 0);
    EXPECT_STREQ(package.new_pkgver, "49.01.102");
    EXPECT_EQ(package.platform, 1U);
    EXPECT_EQ(package.images[0].file_size, 4U);
}

TEST_F(PackageInit, SetsTheCapacityTo200)
{
    write_package();
    EXPECT_EQ(init_from_directory(), 0);
    EXPECT_EQ(package.image_count, 200U);
}

TEST_F(PackageInit, KnowsPlatformTwo)
{
    write_package("50.01.102");
    EXPECT_EQ(init_from_directory(), 0);
    EXPECT_EQ(package.platform, 2U);
}

TEST_F(PackageInit, KnowsPlatformZero)
{
    write_package("25.30.001");
    package.platform = 7;
    EXPECT_EQ(init_from_directory(), 0);
    EXPECT_EQ(package.platform, 0U);
}

TEST_F(PackageInit, LogsNoErrorForAGoodPackage)
{
    write_package();
    EXPECT_EQ(init_from_directory(), 0);
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST_F(PackageInit, ReportsAMissingVersion)
{
    write_package();
    dir.write("information.contents", "nothing\n");
    EXPECT_EQ(init_from_directory(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"search_pkgv: no PKG VER found in the information.contents file",
                     "unable to get package version of the firmware to be flashed"}));
}

TEST_F(PackageInit, ReportsAMissingVersionFile)
{
    write_package();
    std::filesystem::remove(dir.at("information.contents"));
    EXPECT_EQ(init_from_directory(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"get_new_pkgver: cannot open the file " + dir.path() + "/information.contents",
                     "unable to get package version of the firmware to be flashed"}));
}

TEST_F(PackageInit, BuildsNoImagesWithoutAVersion)
{
    write_package();
    dir.write("information.contents", "nothing\n");
    init_from_directory();
    EXPECT_TRUE(is_empty_image(&package.images[0]));
}

TEST_F(PackageInit, GoesOnWithAnUnknownPlatform)
{
    write_package("99.01.102");
    EXPECT_EQ(init_from_directory(), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"unsupported platform: 99.01.102", "unsupported platform: 99.01.102; reason: -102"}));
    EXPECT_EQ(package.images[0].file_size, 4U);
}

TEST_F(PackageInit, GoesOnWithAMalformedVersion)
{
    write_package("49.01");
    EXPECT_EQ(init_from_directory(), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"invalid length of version: 49.01", "unsupported platform: 49.01; reason: -22"}));
}

TEST_F(PackageInit, ReturnsTheResultOfTheImageList)
{
    write_package();
    std::filesystem::remove(dir.at("boot.img"));
    EXPECT_EQ(init_from_directory(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"file does not exist for image", "image list validation failure",
                     "error in building the image list"}));
    EXPECT_EQ(log.messages().back().function, "fw_package_init");
}

TEST_F(PackageInit, ReportsADescriptionThatIsADirectory)
{
    write_package();
    std::filesystem::remove(dir.at("contents.xml"));
    std::filesystem::create_directory(dir.at("contents.xml"));
    EXPECT_EQ(init_from_directory(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in building the image list");
}

TEST_F(PackageInit, RefusesAnEmptyDescription)
{
    write_package();
    dir.write("contents.xml", "");
    EXPECT_EQ(init_from_directory(), -2);
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "programmer_path not found"));
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in building the image list");
}

TEST_F(PackageInit, RefusesAnAbsentDescriptionOfTheOption)
{
    write_package();
    strlcpy(options.meta, dir.at("absent.xml").c_str(), sizeof options.meta);
    const std::string path = dir.at("absent.xml");
    EXPECT_EQ(fw_package_init(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"error 2 No such file or directory opening file '" + path + "'\n",
                     "unable to open xml file " + path + ", error = 4294967294",
                     "unable to parse content xml file " + path + ", err = 4294967274",
                     "error in building the image list"}));
    EXPECT_FALSE(std::filesystem::exists(path)); // not created
}

TEST_F(PackageInit, FreeReleasesTheVersion)
{
    write_package();
    EXPECT_EQ(init_from_directory(), 0);
    fw_package_free();
    EXPECT_EQ(package.new_pkgver, nullptr);
}

TEST_F(PackageInit, FreeMayBeCalledTwiceAndWithoutAPackage)
{
    fw_package_free();
    fw_package_free();
    EXPECT_EQ(package.new_pkgver, nullptr);
}

// ---- where the version is read

namespace {

// The version that a package with these paths has; "(null)" for none.
std::string version_of(const std::string &description, const std::string &programmer)
{
    static image_list list;
    list = {};
    strlcpy(list.content_xml_path, description.c_str(), sizeof list.content_xml_path);
    strlcpy(list.programmer_path, programmer.c_str(), sizeof list.programmer_path);
    const owned_text version = get_new_pkgver(&list);
    return version != nullptr ? version.get() : "(null)";
}

} // namespace

TEST(NewPackageVersion, IsReadBesideTheDescription)
{
    const temp_dir dir;
    dir.write("a/b/information.contents", "PKG VER : 49.01.102\n");
    EXPECT_EQ(version_of(dir.at("a/b/contents.xml"), ""), "49.01.102");
}

TEST(NewPackageVersion, IsReadBesideTheProgrammerWithoutADescription)
{
    const temp_dir dir;
    dir.write("a/b/information.contents", "PKG VER : 25.30.001\n");
    EXPECT_EQ(version_of("", dir.at("a/b/prog.mbn")), "25.30.001");
}

TEST(NewPackageVersion, PrefersTheDescriptionsDirectory)
{
    const temp_dir dir;
    dir.write("a/information.contents", "PKG VER : 49.01.102\n");
    dir.write("b/information.contents", "PKG VER : 25.30.001\n");
    EXPECT_EQ(version_of(dir.at("a/contents.xml"), dir.at("b/prog.mbn")), "49.01.102");
}

TEST(NewPackageVersion, NamesAFileThatCannotBeOpened)
{
    log_capture log;
    EXPECT_EQ(version_of("/nonexistent/contents.xml", ""), "(null)");
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"get_new_pkgver: cannot open the file /nonexistent/information.contents"});
    EXPECT_EQ(log.messages().back().file, "../main.c");
    EXPECT_EQ(log.messages().back().function, "get_new_pkgver");
}

TEST(NewPackageVersion, IsReadInThePresentDirectoryForABareName)
{
    log_capture log;
    const temp_dir dir;
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    EXPECT_EQ(version_of("contents.xml", ""), "(null)");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"get_new_pkgver: cannot open the file ./information.contents"});
    EXPECT_EQ(chdir("/"), 0);
}

TEST(NewPackageVersion, IsNotFoundInADirectoryOfThatName)
{
    log_capture log;
    const temp_dir dir;
    std::filesystem::create_directory(dir.at("information.contents"));
    EXPECT_EQ(version_of(dir.at("contents.xml"), ""), "(null)");
    const std::string path = dir.at("information.contents");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"'" + path + "' is not a regular file",
                                              "get_new_pkgver: cannot open the file " + path}));
}

TEST(NewPackageVersion, IsNotLookedForInMoreThan64Mebibytes)
{
    log_capture log;
    const temp_dir dir;
    const std::string path = dir.write("information.contents", "PKG VER : 49.01.102\n");
    std::filesystem::resize_file(path, 64 * 1024 * 1024 + 1);
    EXPECT_EQ(version_of(dir.at("contents.xml"), ""), "(null)");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"get_new_pkgver: too large: " + path});
}

TEST(NewPackageVersion, DoesNotWaitForTheOtherEndOfAFifo)
{
    log_capture log;
    const temp_dir dir;
    const std::string path = dir.at("information.contents");
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    EXPECT_EQ(version_of(dir.at("contents.xml"), ""), "(null)");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"'" + path + "' is not a regular file",
                                              "get_new_pkgver: cannot open the file " + path}));
}

// ---- the version line

namespace {

// The version in a file of this text; "(null)" for none.
std::string version_in(std::string text)
{
    const owned_stream file(fmemopen(text.data(), text.size(), "r"));
    const owned_text version = search_pkgv(file.get());
    return version != nullptr ? version.get() : "(null)";
}

} // namespace

TEST(SearchPackageVersion, TakesTheRestOfTheLine)
{
    EXPECT_EQ(version_in("PKG VER : 49.01.102-B001\n"), "49.01.102-B001");
}

TEST(SearchPackageVersion, LogsTheVersion)
{
    log_capture log;
    version_in("PKG VER : 49.01.102\n");
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[0].text, "PKG VER to be flashed: 49.01.102");
    EXPECT_EQ(log.messages()[0].function, "search_pkgv");
}

TEST(SearchPackageVersion, FindsTheLineBehindOthers)
{
    EXPECT_EQ(version_in("MODEL : X\n\nDATE : today\nPKG VER : 49.01.102\nEND\n"), "49.01.102");
}

TEST(SearchPackageVersion, TakesTheFirstOfTwoLines)
{
    EXPECT_EQ(version_in("PKG VER : 49.01.102\nPKG VER : 49.01.103\n"), "49.01.102");
}

TEST(SearchPackageVersion, LosesTheLastCharacterWithoutALineFeed)
{
    EXPECT_EQ(version_in("PKG VER : 49.01.102"), "49.01.10");
}

TEST(SearchPackageVersion, LosesACarriageReturn)
{
    EXPECT_EQ(version_in("PKG VER : 49.01.102\r\n"), "49.01.102");
}

TEST(SearchPackageVersion, LosesBlanksBehindIt)
{
    EXPECT_EQ(version_in("PKG VER : 49.01.102 \t \t\r\n"), "49.01.102");
}

TEST(SearchPackageVersion, KeepsBlanksBeforeAndWithinIt)
{
    EXPECT_EQ(version_in("PKG VER : \t 49.01 \t.102 \n"), "\t 49.01 \t.102");
}

TEST(SearchPackageVersion, KeepsAnythingElseBehindIt)
{
    EXPECT_EQ(version_in("PKG VER : 49.01.102\v\n"), "49.01.102\v");
}

TEST(SearchPackageVersion, OfBlanksAloneIsEmpty)
{
    EXPECT_EQ(version_in("PKG VER :  \t \r\n"), "");
}

TEST(SearchPackageVersion, LosesOneCharacterAndThenTheBlanksWithoutALineFeed)
{
    EXPECT_EQ(version_in("PKG VER : 49.01.102 \r"), "49.01.102");
}

TEST(SearchPackageVersion, LogsTheVersionWithoutTheBlanks)
{
    log_capture log;
    version_in("PKG VER : 49.01.102 \r\n");
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"PKG VER to be flashed: 49.01.102"});
}

TEST(SearchPackageVersion, MayBeEmpty)
{
    EXPECT_EQ(version_in("PKG VER : \n"), "");
}

TEST(SearchPackageVersion, OfOneCharacterAtTheEndIsEmpty)
{
    EXPECT_EQ(version_in("PKG VER : 4"), "");
}

TEST(SearchPackageVersion, RefusesAPrefixAtTheVeryEnd)
{
    log_capture log;
    EXPECT_EQ(version_in("PKG VER : "), "(null)");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"search_pkgv: empty PKG VER in the information.contents file"});
}

TEST(SearchPackageVersion, MissesALowerCaseLine)
{
    EXPECT_EQ(version_in("pkg ver : 49.01.102\n"), "(null)");
}

TEST(SearchPackageVersion, MissesALineWithoutTheBlankBeforeTheColon)
{
    EXPECT_EQ(version_in("PKG VER: 49.01.102\n"), "(null)");
}

TEST(SearchPackageVersion, MissesALineWithoutTheBlankBehindTheColon)
{
    EXPECT_EQ(version_in("PKG VER :49.01.102\n"), "(null)");
}

TEST(SearchPackageVersion, MissesAnIndentedLine)
{
    EXPECT_EQ(version_in(" PKG VER : 49.01.102\n"), "(null)");
}

TEST(SearchPackageVersion, MissesALineThatIsShorterThanThePrefix)
{
    EXPECT_EQ(version_in("PKG VER :\n"), "(null)");
}

TEST(SearchPackageVersion, ReportsAMissingLine)
{
    log_capture log;
    EXPECT_EQ(version_in("MODEL : X\n"), "(null)");
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "search_pkgv: no PKG VER found in the information.contents file");
    EXPECT_EQ(log.messages()[0].file, "../main.c");
    EXPECT_EQ(log.messages()[0].function, "search_pkgv");
}

TEST(SearchPackageVersion, ReportsAnEmptyFile)
{
    log_capture log;
    const owned_stream file(fopen("/dev/null", "r"));
    EXPECT_EQ(search_pkgv(file.get()), nullptr);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"search_pkgv: no PKG VER found in the information.contents file"});
}

TEST(SearchPackageVersion, ReadsAtMost1023CharactersOfALine)
{
    EXPECT_EQ(version_in("PKG VER : " + std::string(2000, '4') + "\n"), std::string(1012, '4'));
}

TEST(SearchPackageVersion, FindsTheLineBehindALongOne)
{
    EXPECT_EQ(version_in(std::string(3000, 'x') + "\nPKG VER : 49.01.102\n"), "49.01.102");
}

TEST(SearchPackageVersion, EndsAtAZeroByte)
{
    EXPECT_EQ(version_in(std::string("PKG VER : 49.01\0.102\n", 21)), "49.0");
}
