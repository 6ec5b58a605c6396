#include "package-text.hpp"

#include "core-file.hpp"
#include "core.hpp"
#include "log_capture.hpp"
#include "temp_dir.hpp"

#include <filesystem>
#include <gtest/gtest.h>

using texts = std::vector<std::string>;

namespace {

class PackageText : public testing::Test {
  protected:
    int read(const std::string &content)
    {
        dir.write("text", content);
        return read_file();
    }
    int read_file()
    {
        owned_file file;
        EXPECT_EQ(core_file_open(path.c_str(), file.receive()), 0);
        return text.read(path.c_str(), file.get(), "somebody");
    }
    texts lines() const
    {
        texts found;
        line_cursor cursor(text);
        while (const char *const line = cursor.next())
            found.emplace_back(line);
        return found;
    }

    temp_dir dir;
    log_capture log;
    const std::string path = dir.at("text");
    package_text text;
};

class PartitionText : public PackageText {
  protected:
    // Each line as "type/in comment/text".
    texts described() const
    {
        texts found;
        partition_cursor cursor(text);
        while (const char *const line = cursor.next())
            found.push_back(std::to_string(cursor.type()) + (cursor.in_comment() ? "/in/" : "/out/") + line);
        found.emplace_back(cursor.in_comment() ? "open" : "closed");
        return found;
    }
};

} // namespace

TEST_F(PackageText, IsNotReadAtFirst)
{
    EXPECT_FALSE(text.is_read());
}

TEST_F(PackageText, KeepsItsBytesAndItsPath)
{
    EXPECT_EQ(read("one\ntwo"), 0);
    EXPECT_TRUE(text.is_read());
    EXPECT_STREQ(text.bytes(), "one\ntwo");
    EXPECT_EQ(text.size(), 7U);
    EXPECT_EQ(text.path(), path);
}

TEST_F(PackageText, MayBeEmpty)
{
    EXPECT_EQ(read(""), 0);
    EXPECT_TRUE(text.is_read());
    EXPECT_EQ(text.size(), 0U);
    EXPECT_EQ(lines(), texts{});
}

TEST_F(PackageText, MayHold64MiBAndNoMore)
{
    EXPECT_EQ(read(""), 0);
    std::filesystem::resize_file(path, 67108864);
    EXPECT_EQ(read_file(), 0);
    std::filesystem::resize_file(path, 67108865);
    EXPECT_EQ(read_file(), -12);
    EXPECT_EQ(log.messages().back().text, "out of memory");
    EXPECT_EQ(log.messages().back().function, "somebody");
    EXPECT_EQ(log.messages().back().file, "../xml.c");
}

TEST_F(PackageText, TellsOfANulByteWhereverItIs)
{
    EXPECT_EQ(read("one"), 0);
    EXPECT_FALSE(text.holds_nul());
    EXPECT_EQ(read(std::string(100000, 'a') + std::string(1, '\0')), 0);
    EXPECT_TRUE(text.holds_nul());
}

TEST_F(PackageText, IsWalkedByLinesThatAreNotEmpty)
{
    EXPECT_EQ(read("\n\none\n\r\n two \n\nthree"), 0);
    EXPECT_EQ(lines(), (texts{"one", "\r", " two ", "three"}));
}

TEST_F(PackageText, IsWholeAgainBehindACursor)
{
    EXPECT_EQ(read("one\ntwo\nthree\n"), 0);
    {
        line_cursor cursor(text);
        EXPECT_STREQ(cursor.next(), "one");
        EXPECT_STREQ(cursor.next(), "two");
        EXPECT_STREQ(text.bytes(), "one\ntwo") << "cut at the line in hand only";
    }
    EXPECT_STREQ(text.bytes(), "one\ntwo\nthree\n");
    EXPECT_EQ(lines(), (texts{"one", "two", "three"}));
}

TEST_F(PackageText, EndsForACursorAtANulByte)
{
    EXPECT_EQ(read(std::string("one\nt\0wo\nthree", 14)), 0);
    EXPECT_EQ(lines(), (texts{"one", "t"}));
}

TEST_F(PartitionText, BeginsWithADeclarationWhateverItHolds)
{
    EXPECT_EQ(read("<!-- <erase>\n<erase>\n"), 0);
    EXPECT_EQ(described(), (texts{"100/out/<!-- <erase>", "9/out/<erase>", "closed"}));
    partition_cursor cursor(text);
    cursor.next();
    EXPECT_TRUE(cursor.is_declaration());
    cursor.next();
    EXPECT_FALSE(cursor.is_declaration());
}

TEST_F(PartitionText, KnowsWhatIsInsideAComment)
{
    EXPECT_EQ(read("<?xml?>\n<!--\n<erase>\n-->\n<erase>\n<!-- a -->\n<power>\n"), 0);
    EXPECT_EQ(described(), (texts{"100/out/<?xml?>", "3/out/<!--", "9/in/<erase>", "4/in/-->",
                                  "9/out/<erase>", "5/out/<!-- a -->", "9/out/<power>", "closed"}));
}

TEST_F(PartitionText, TellsOfACommentWithoutAnEnd)
{
    EXPECT_EQ(read("<?xml?>\n<!--\n"), 0);
    EXPECT_EQ(described(), (texts{"100/out/<?xml?>", "3/out/<!--", "open"}));
}
