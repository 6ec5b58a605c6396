#include "xml.hpp"

#include "core.hpp"
#include "image-list.hpp"
#include "log_capture.hpp"

#include <gtest/gtest.h>
#include <memory>

using texts = std::vector<std::string>;

// ---- line types

TEST(LineType, OfNoLineIsNull)
{
    EXPECT_EQ(get_line_type(nullptr, false), -1);
}

TEST(LineType, ReportsANullLine)
{
    log_capture log;
    static_cast<void>(get_line_type(nullptr, false));
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "null line");
    EXPECT_EQ(log.messages()[0].file, "../xml.c");
    EXPECT_EQ(log.messages()[0].function, "get_line_type");
}

TEST(LineType, ReportsNothingForALine)
{
    log_capture log;
    static_cast<void>(get_line_type("<program/>", false));
    EXPECT_TRUE(log.messages().empty());
}

TEST(LineType, OfAnOpenCommentIsCommentStart)
{
    EXPECT_EQ(get_line_type("<!-- <program/>", false), 3);
}

TEST(LineType, OfALoneOpeningMarkIsCommentStart)
{
    EXPECT_EQ(get_line_type("<!--", false), 3);
}

TEST(LineType, OfAnOpeningMarkBehindAnElementIsCommentStart)
{
    EXPECT_EQ(get_line_type("<program/> <!-- from here on", false), 3);
}

TEST(LineType, OfAClosedCommentIsCommentEnd)
{
    EXPECT_EQ(get_line_type("</old> -->", true), 4);
}

TEST(LineType, OfALoneClosingMarkIsCommentEnd)
{
    EXPECT_EQ(get_line_type("-->", true), 4);
}

TEST(LineType, OfAClosingMarkOutsideACommentIsCommentEndToo)
{
    EXPECT_EQ(get_line_type("<program/> -->", false), 4);
}

TEST(LineType, OfBothMarksIsComment)
{
    EXPECT_EQ(get_line_type("<!--NOTE: sector size is 4096 bytes-->", false), 5);
}

TEST(LineType, OfBothMarksInTheWrongOrderIsComment)
{
    EXPECT_EQ(get_line_type("--> <!--", true), 5);
}

TEST(LineType, OfAnElementBesideAClosedCommentIsComment)
{
    EXPECT_EQ(get_line_type("<program/><!-- the boot image -->", false), 5);
}

TEST(LineType, OfAPartitionFileElement)
{
    EXPECT_EQ(get_line_type("  <partition_file fastboot=\"false\">", false), 6);
}

TEST(LineType, OfADeviceProgrammerElement)
{
    EXPECT_EQ(get_line_type("\t<device_programmer>", false), 7);
}

TEST(LineType, OfAFileNameElement)
{
    EXPECT_EQ(get_line_type("    <file_name>prog.mbn</file_name>", false), 8);
}

TEST(LineType, OfAFileNameElementWithAttributesIsFileName)
{
    EXPECT_EQ(get_line_type("<file_name flavor=\"nand\">prog.mbn</file_name>", false), 8);
}

TEST(LineType, PrefersThePartitionFileToTheProgrammer)
{
    EXPECT_EQ(get_line_type("<device_programmer><partition_file>", false), 6);
}

TEST(LineType, PrefersTheProgrammerToTheFileName)
{
    EXPECT_EQ(get_line_type("<device_programmer><file_name>a</file_name>", false), 7);
}

TEST(LineType, OfThePartitionFileInsideACommentIsCommand)
{
    EXPECT_EQ(get_line_type("<partition_file>", true), 9);
}

TEST(LineType, OfTheProgrammerInsideACommentIsCommand)
{
    EXPECT_EQ(get_line_type("<device_programmer>", true), 9);
}

TEST(LineType, OfTheFileNameInsideACommentIsCommand)
{
    EXPECT_EQ(get_line_type("<file_name>a</file_name>", true), 9);
}

TEST(LineType, OfAProgramElementIsCommand)
{
    EXPECT_EQ(get_line_type("<program filename=\"boot.img\"/>", false), 9);
}

TEST(LineType, OfAnyOtherElementIsCommand)
{
    EXPECT_EQ(get_line_type("</partition_file>", false), 9);
}

TEST(LineType, OfTheDeclarationIsCommand)
{
    EXPECT_EQ(get_line_type("<?xml version=\"1.0\" ?>", false), 9);
}

TEST(LineType, OfBracketsInTheWrongOrderIsCommand)
{
    EXPECT_EQ(get_line_type("> <", false), 9);
}

TEST(LineType, OfTheOpeningDataTagIsOther)
{
    EXPECT_EQ(get_line_type("<data>", false), 100);
}

TEST(LineType, OfTheClosingDataTagIsOther)
{
    EXPECT_EQ(get_line_type("</data>", false), 100);
}

TEST(LineType, OfAnElementBesideADataTagIsOther)
{
    EXPECT_EQ(get_line_type("<data><program/>", false), 100);
}

TEST(LineType, OfADataTagWithAnAttributeIsCommand)
{
    EXPECT_EQ(get_line_type("<data version=\"1\">", false), 9);
}

TEST(LineType, OfAnUpperCaseDataTagIsCommand)
{
    EXPECT_EQ(get_line_type("<DATA>", false), 9);
}

TEST(LineType, OfAnUpperCasePartitionFileIsCommand)
{
    EXPECT_EQ(get_line_type("<PARTITION_FILE>", false), 9);
}

TEST(LineType, OfALineWithoutClosingBracketIsOther)
{
    EXPECT_EQ(get_line_type("<partition_file", false), 100);
}

TEST(LineType, OfALineWithoutOpeningBracketIsOther)
{
    EXPECT_EQ(get_line_type("partition_file>", false), 100);
}

TEST(LineType, OfAnEmptyLineIsOther)
{
    EXPECT_EQ(get_line_type("", false), 100);
}

TEST(LineType, OfACarriageReturnIsOther)
{
    EXPECT_EQ(get_line_type("\r", false), 100);
}

// ---- text attributes

namespace {

struct text_attribute {
    char value[16] = {};
    bool found;

    explicit text_attribute(const char *line, const char *name = "label")
        : found(get_string_attribute(line, name, value, sizeof value))
    {
    }
};

} // namespace

TEST(StringAttribute, CopiesTheValue)
{
    const text_attribute read("<program label=\"boot\" filename=\"boot.img\"/>");
    EXPECT_TRUE(read.found);
    EXPECT_STREQ(read.value, "boot");
}

TEST(StringAttribute, LogsNameAndValue)
{
    log_capture log;
    const text_attribute read("<program label=\"boot\"/>");
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[0].text, "label: boot");
    EXPECT_EQ(log.messages()[0].file, "../xml.c");
    EXPECT_EQ(log.messages()[0].function, "get_string_attribute");
}

TEST(StringAttribute, TakesTheFirstOccurrence)
{
    EXPECT_STREQ(text_attribute("<program label=\"one\" label=\"two\"/>").value, "one");
}

TEST(StringAttribute, MatchesInsideALongerName)
{
    EXPECT_STREQ(text_attribute("<program sublabel=\"sub\" label=\"own\"/>").value, "sub");
}

TEST(StringAttribute, KeepsBlanksAndBracketsOfTheValue)
{
    EXPECT_STREQ(text_attribute("<program label=\" a > b \"/>").value, " a > b ");
}

TEST(StringAttribute, MissesTheNameInAnotherCase)
{
    EXPECT_FALSE(text_attribute("<program LABEL=\"boot\"/>").found);
}

TEST(StringAttribute, ReportsAMissingNameAndTheLine)
{
    log_capture log;
    EXPECT_FALSE(text_attribute("<program/>").found);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"unable to find label", "<program/>"}));
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST(StringAttribute, ReportsAMissingEqualsSign)
{
    log_capture log;
    EXPECT_FALSE(text_attribute("<program label:\"boot\"/>").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to find '=', instead found :"});
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"<program label:\"boot\"/>"});
}

TEST(StringAttribute, RefusesABlankBeforeTheEqualsSign)
{
    log_capture log;
    EXPECT_FALSE(text_attribute("<program label =\"boot\"/>").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to find '=', instead found  "});
}

TEST(StringAttribute, FailsWhereTheLineEndsBehindTheName)
{
    log_capture log;
    EXPECT_FALSE(text_attribute("<program> label").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to find '=', instead found "});
}

TEST(StringAttribute, ReportsAMissingOpeningQuote)
{
    log_capture log;
    EXPECT_FALSE(text_attribute("<program label='boot'/>").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to find '\"', instead found '"});
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"<program label='boot'/>"});
}

TEST(StringAttribute, FailsWhereTheLineEndsBehindTheEqualsSign)
{
    log_capture log;
    EXPECT_FALSE(text_attribute("<program> label=").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to find '\"', instead found "});
}

TEST(StringAttribute, ReportsAMissingClosingQuote)
{
    log_capture log;
    EXPECT_FALSE(text_attribute("<program label=\"boot/>").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to find final '\"'"});
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"<program label=\"boot/>"});
}

TEST(StringAttribute, TakesAValueOneShorterThanItsDestination)
{
    const text_attribute read("<program label=\"123456789012345\"/>");
    EXPECT_TRUE(read.found);
    EXPECT_STREQ(read.value, "123456789012345");
}

TEST(StringAttribute, RefusesAValueAsLongAsItsDestination)
{
    log_capture log;
    const text_attribute read("<program label=\"1234567890123456\"/>");
    EXPECT_FALSE(read.found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"attribute size 16 > max_dest_size"});
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"<program label=\"1234567890123456\"/>"});
}

TEST(StringAttribute, CopiesNothingOfAValueTooLong)
{
    EXPECT_STREQ(text_attribute("<program label=\"1234567890123456\"/>").value, "");
}

TEST(StringAttribute, FailsForAnEmptyValueWithTheLineOnly)
{
    log_capture log;
    EXPECT_FALSE(text_attribute("<program label=\"\"/>").found);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[0].text, "<program label=\"\"/>");
}

TEST(StringAttribute, AddsNoTerminator)
{
    char value[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', '\0'};
    EXPECT_TRUE(get_string_attribute("label=\"ab\"", "label", value, sizeof value));
    EXPECT_STREQ(value, "abxxxxx");
}

TEST(StringAttribute, RefusesANullLine)
{
    log_capture log;
    EXPECT_FALSE(text_attribute(nullptr).found);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "invalid arguments");
}

TEST(StringAttribute, RefusesANullName)
{
    log_capture log;
    EXPECT_FALSE(text_attribute("<program/>", nullptr).found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid arguments"});
}

TEST(StringAttribute, RefusesANullDestination)
{
    log_capture log;
    EXPECT_FALSE(get_string_attribute("label=\"a\"", "label", nullptr, 16));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid arguments"});
}

TEST(StringAttribute, RefusesADestinationWithoutSize)
{
    log_capture log;
    char value[1] = {};
    EXPECT_FALSE(get_string_attribute("label=\"a\"", "label", value, 0));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid arguments"});
}

TEST(StringAttribute, RefusesANegativeSize)
{
    char value[1] = {};
    EXPECT_FALSE(get_string_attribute("label=\"a\"", "label", value, -1));
}

// ---- number attributes

namespace {

struct number_attribute {
    uint32_t value = 77;
    bool found;

    explicit number_attribute(const std::string &line)
        : found(get_uint_attribute(line.c_str(), "SECTOR_SIZE_IN_BYTES", &value))
    {
    }
};

} // namespace

TEST(UintAttribute, ReadsADecimalNumber)
{
    const number_attribute read("<program SECTOR_SIZE_IN_BYTES=\"4096\"/>");
    EXPECT_TRUE(read.found);
    EXPECT_EQ(read.value, 4096U);
}

TEST(UintAttribute, LogsNameAndValue)
{
    log_capture log;
    const number_attribute read("<program SECTOR_SIZE_IN_BYTES=\"4096\"/>");
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[0].text, "SECTOR_SIZE_IN_BYTES: 4096");
    EXPECT_EQ(log.messages()[0].function, "get_uint_attribute");
}

TEST(UintAttribute, ReadsZero)
{
    const number_attribute read("<program SECTOR_SIZE_IN_BYTES=\"0\"/>");
    EXPECT_TRUE(read.found);
    EXPECT_EQ(read.value, 0U);
}

TEST(UintAttribute, ReadsLeadingZerosAsDecimal)
{
    EXPECT_EQ(number_attribute("<program SECTOR_SIZE_IN_BYTES=\"0512\"/>").value, 512U);
}

TEST(UintAttribute, ReadsTheLargestNumber)
{
    const number_attribute read("<program SECTOR_SIZE_IN_BYTES=\"4294967295\"/>");
    EXPECT_TRUE(read.found);
    EXPECT_EQ(read.value, 4294967295U);
}

TEST(UintAttribute, ReadsAnEmptyValueAsZero)
{
    const number_attribute read("<program SECTOR_SIZE_IN_BYTES=\"\"/>");
    EXPECT_TRUE(read.found);
    EXPECT_EQ(read.value, 0U);
}

TEST(UintAttribute, RefusesANumberOf33Bits)
{
    log_capture log;
    const std::string line = "<program SECTOR_SIZE_IN_BYTES=\"4294967296\"/>";
    EXPECT_FALSE(number_attribute(line).found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to perform conversion"});
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{line});
}

TEST(UintAttribute, RefusesANegativeNumber)
{
    log_capture log;
    uint32_t value = 7;
    EXPECT_FALSE(get_uint_attribute("<program size=\"-1\"/>", "size", &value));
    EXPECT_EQ(value, 7U);
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "unable to perform conversion"));
}

TEST(UintAttribute, RefusesANegativeNumberBehindABlank)
{
    log_capture log;
    uint32_t value = 7;
    EXPECT_FALSE(
        get_uint_attribute("<program size=\" -18446744073709551615\"/>", "size", &value)); // 1 - 2^64
    EXPECT_EQ(value, 7U);
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "unable to perform conversion"));
}

TEST(UintAttribute, TakesAMinusSignBehindTheValue)
{
    const number_attribute read("<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"a-b\"/>");
    EXPECT_TRUE(read.found);
    EXPECT_EQ(read.value, 512U);
}

TEST(UintAttribute, RefusesANumberThatNoLongHolds)
{
    log_capture log;
    EXPECT_FALSE(number_attribute("SECTOR_SIZE_IN_BYTES=\"99999999999999999999999\"").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to perform conversion"});
}

TEST(UintAttribute, RefusesALetterBehindTheNumber)
{
    log_capture log;
    const std::string line = "<program SECTOR_SIZE_IN_BYTES=\"4096k\"/>";
    EXPECT_FALSE(number_attribute(line).found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid conversion"});
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{line});
}

TEST(UintAttribute, RefusesAHexadecimalNumber)
{
    log_capture log;
    EXPECT_FALSE(number_attribute("SECTOR_SIZE_IN_BYTES=\"0x1000\"").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid conversion"});
}

TEST(UintAttribute, RefusesAMissingClosingQuote)
{
    log_capture log;
    EXPECT_FALSE(number_attribute("SECTOR_SIZE_IN_BYTES=\"4096").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid conversion"});
}

TEST(UintAttribute, RefusesText)
{
    log_capture log;
    EXPECT_FALSE(number_attribute("SECTOR_SIZE_IN_BYTES=\"many\"").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid conversion"});
}

TEST(UintAttribute, KeepsTheOldValueOnFailure)
{
    EXPECT_EQ(number_attribute("SECTOR_SIZE_IN_BYTES=\"4096k\"").value, 77U);
}

TEST(UintAttribute, ReportsAMissingNameAndTheLine)
{
    log_capture log;
    EXPECT_FALSE(number_attribute("<erase/>").found);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"unable to find SECTOR_SIZE_IN_BYTES", "<erase/>"}));
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST(UintAttribute, ReportsAMissingEqualsSign)
{
    log_capture log;
    EXPECT_FALSE(number_attribute("SECTOR_SIZE_IN_BYTES-\"4096\"").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to find '=', instead found -"});
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"SECTOR_SIZE_IN_BYTES-\"4096\""});
}

TEST(UintAttribute, ReportsAMissingOpeningQuote)
{
    log_capture log;
    EXPECT_FALSE(number_attribute("SECTOR_SIZE_IN_BYTES=4096").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to find '\"', instead found 4"});
}

// ---- file names

namespace {

struct file_name {
    char value[16] = {'o', 'l', 'd'};
    bool found;

    explicit file_name(const char *line, line_type type = LINE_FILE_NAME)
        : found(get_value(value, sizeof value, line, type))
    {
    }
};

} // namespace

TEST(FileName, IsTheTextBetweenTheTags)
{
    const file_name read("    <file_name>prog.mbn</file_name>\r");
    EXPECT_TRUE(read.found);
    EXPECT_STREQ(read.value, "prog.mbn");
}

TEST(FileName, KeepsItsBlanks)
{
    EXPECT_STREQ(file_name("<file_name> a b </file_name>").value, " a b ");
}

TEST(FileName, MayBeEmptyInALongerLine)
{
    const file_name read(" <file_name></file_name>");
    EXPECT_TRUE(read.found);
    EXPECT_STREQ(read.value, "");
}

TEST(FileName, IsCutToItsDestination)
{
    const file_name read("<file_name>12345678901234567890</file_name>");
    EXPECT_TRUE(read.found);
    EXPECT_STREQ(read.value, "123456789012345");
}

TEST(FileName, OfOneCharacterIsEnough)
{
    EXPECT_STREQ(file_name("<file_name>x</file_name>").value, "x");
}

TEST(FileName, OfALineOfTheTagsAloneIsBogus)
{
    log_capture log;
    EXPECT_FALSE(file_name("<file_name></file_name>").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"bogus line:", "<file_name></file_name>"}));
}

TEST(FileName, WithoutClosingTagIsBogus)
{
    log_capture log;
    EXPECT_FALSE(file_name("<file_name>prog_nand_firehose.mbn").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"bogus line:", "<file_name>prog_nand_firehose.mbn"}));
}

TEST(FileName, WithoutOpeningTagIsBogus)
{
    log_capture log;
    EXPECT_FALSE(file_name("<file_name flavor=\"x\">prog.mbn</file_name>").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"bogus line:", "<file_name flavor=\"x\">prog.mbn</file_name>"}));
}

TEST(FileName, BehindItsClosingTagIsBogus)
{
    log_capture log;
    EXPECT_FALSE(file_name("</file_name>prog.mbn<file_name>").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"bogus line:", "</file_name>prog.mbn<file_name>"}));
    EXPECT_EQ(log.messages().back().function, "get_value");
}

TEST(FileName, OfAnEmptyLineIsBogus)
{
    log_capture log;
    EXPECT_FALSE(file_name("").found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"bogus line:", ""}));
}

TEST(FileName, OfABogusLineLeavesTheDestination)
{
    EXPECT_STREQ(file_name("<file_name>prog_nand_firehose.mbn").value, "old");
}

TEST(FileName, IsRefusedSilentlyForAnyOtherLineType)
{
    log_capture log;
    EXPECT_FALSE(file_name("<file_name>prog.mbn</file_name>", LINE_COMMAND).found);
    EXPECT_TRUE(log.messages().empty());
}

TEST(FileName, IsRefusedSilentlyForAnotherTypeEvenWithoutALine)
{
    log_capture log;
    EXPECT_FALSE(get_value(nullptr, 0, nullptr, LINE_NULL));
    EXPECT_TRUE(log.messages().empty());
}

TEST(FileName, NeedsADestination)
{
    log_capture log;
    EXPECT_FALSE(get_value(nullptr, 16, "<file_name>prog.mbn</file_name>", LINE_FILE_NAME));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid args"});
}

TEST(FileName, NeedsADestinationWithASize)
{
    log_capture log;
    char value[1] = {};
    EXPECT_FALSE(get_value(value, 0, "<file_name>prog.mbn</file_name>", LINE_FILE_NAME));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid args"});
}

TEST(FileName, NeedsALine)
{
    log_capture log;
    EXPECT_FALSE(file_name(nullptr).found);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"invalid args"});
}

// ---- first lines

TEST(ValidXml, IsNoLineAtAll)
{
    EXPECT_TRUE(is_valid_xml(nullptr));
}

TEST(ValidXml, IsADeclaration)
{
    EXPECT_TRUE(is_valid_xml("<?xml version=\"1.0\" ?>"));
}

TEST(ValidXml, IsADeclarationCutBeforeItsBracket)
{
    EXPECT_TRUE(is_valid_xml("<?xml version=\"1.0\""));
}

TEST(ValidXml, IsAnyLineWithAClosingBracket)
{
    EXPECT_TRUE(is_valid_xml("hello >"));
}

TEST(ValidXml, IsNotALineWithoutEither)
{
    log_capture log;
    EXPECT_FALSE(is_valid_xml("<data"));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"invalid xml:", "<data"}));
    EXPECT_EQ(log.messages().back().function, "is_valid_xml");
}

TEST(ValidXml, IsNotAnEmptyLine)
{
    log_capture log;
    EXPECT_FALSE(is_valid_xml(""));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"invalid xml:", ""}));
}

TEST(ValidXml, SaysNothingAboutAValidLine)
{
    log_capture log;
    static_cast<void>(is_valid_xml("<?xml?>"));
    EXPECT_TRUE(log.messages().empty());
}

// ---- slots

TEST(ImageSlot, OfZeroBytesIsEmpty)
{
    const auto img = std::make_unique<image>();
    EXPECT_TRUE(is_empty_image(img.get()));
}

TEST(ImageSlot, WithACommandIsUsed)
{
    const auto img = std::make_unique<image>();
    img->command[0] = '<';
    EXPECT_FALSE(is_empty_image(img.get()));
}

TEST(ImageSlot, WithOnlyASectorSizeIsUsed)
{
    const auto img = std::make_unique<image>();
    img->sector_size_in_bytes = 1;
    EXPECT_FALSE(is_empty_image(img.get()));
}

TEST(ImageSlot, WithOnlyAFileSizeIsUsed)
{
    const auto img = std::make_unique<image>();
    img->file_size = UINT64_C(1) << 32;
    EXPECT_FALSE(is_empty_image(img.get()));
}

TEST(ImageSlot, WithOnlyTheLastByteOfATextIsUsed)
{
    const auto img = std::make_unique<image>();
    img->label[1023] = 'x';
    EXPECT_FALSE(is_empty_image(img.get()));
}

TEST(FreeImageSlot, IsTheFirstEmptyOne)
{
    const auto images = std::make_unique<image[]>(4);
    images[0].command[0] = '<';
    images[2].command[0] = '<';
    EXPECT_EQ(find_free_image_slot(images.get(), 4), 1);
}

TEST(FreeImageSlot, IsTheFirstOfAnEmptyTable)
{
    const auto images = std::make_unique<image[]>(2);
    EXPECT_EQ(find_free_image_slot(images.get(), 2), 0);
}

TEST(FreeImageSlot, IsNoneInAFullTable)
{
    const auto images = std::make_unique<image[]>(2);
    images[0].command[0] = '<';
    images[1].command[0] = '<';
    EXPECT_EQ(find_free_image_slot(images.get(), 2), -1);
}

TEST(FreeImageSlot, IsNotLookedForBehindTheCount)
{
    const auto images = std::make_unique<image[]>(2);
    images[0].command[0] = '<';
    EXPECT_EQ(find_free_image_slot(images.get(), 1), -1);
}

TEST(FreeImageSlot, IsNoneInATableOfNone)
{
    EXPECT_EQ(find_free_image_slot(nullptr, 0), -1);
}

// ---- dumps

TEST(DumpImage, ShowsFiveLines)
{
    log_capture log;
    const auto img = std::make_unique<image>();
    strlcpy(img->label, "boot", sizeof img->label);
    strlcpy(img->filename, "/fw/boot.img", sizeof img->filename);
    strlcpy(img->command, "<program/>", sizeof img->command);
    img->file_size = 12345678901;
    img->sector_size_in_bytes = 4096;
    dump_image(img.get());
    EXPECT_EQ(log.texts(CORE_LOG_DBG),
              (texts{"Label: boot", "\tFilename: /fw/boot.img", "\tCommand: <program/>",
                     "\tFilesize: 12345678901", "\tsector_size_in_bytes: 4096"}));
    EXPECT_EQ(log.messages()[0].file, "../xml.c");
    EXPECT_EQ(log.messages()[0].function, "dump_image");
}

TEST(DumpImage, ShowsNoneForEmptyFieldsAndNoEmptySize)
{
    log_capture log;
    const auto img = std::make_unique<image>();
    dump_image(img.get());
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"Label: <none>", "\tFilename: <none>", "\tCommand: <none>",
                                              "\tsector_size_in_bytes: 0"}));
}

TEST(DumpImageList, ShowsUsedSlotsOnly)
{
    log_capture log;
    const auto images = std::make_unique<image[]>(3);
    images[0].label[0] = 'a';
    images[2].label[0] = 'b';
    dump_image_list(images.get(), 3);
    EXPECT_EQ(log.texts(CORE_LOG_DBG),
              (texts{"Label: a", "\tFilename: <none>", "\tCommand: <none>", "\tsector_size_in_bytes: 0",
                     "Label: b", "\tFilename: <none>", "\tCommand: <none>", "\tsector_size_in_bytes: 0"}));
}

TEST(DumpImageList, StopsAtTheCount)
{
    log_capture log;
    const auto images = std::make_unique<image[]>(2);
    images[0].label[0] = 'a';
    images[1].label[0] = 'b';
    dump_image_list(images.get(), 1);
    EXPECT_EQ(log.count(CORE_LOG_DBG, "Label: b"), 0);
    EXPECT_EQ(log.count(CORE_LOG_DBG, "Label: a"), 1);
}
