#include "package-elements.hpp"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using texts = std::vector<std::string>;

namespace {

// The elements that are found, each as "line number:text", and behind them "line number:what is not
// understood".
texts read(std::string_view text)
{
    texts found;
    element_cursor elements(text);
    const auto add = [&](std::string_view what) {
        found.push_back(std::to_string(elements.line_number()) + ":" + std::string(what));
    };
    while (const std::optional<package_element> element = elements.next())
        add(element->text);
    EXPECT_EQ(elements.next(), std::nullopt) << "goes on behind its end";
    if (elements.problem() != nullptr)
        add(elements.problem());
    return found;
}

// The same, of lines inside of <data>; the first of them is line 3.
texts read_lines(const std::string &lines)
{
    return read("<?xml version=\"1.0\"?>\n<data>\n" + lines + "\n</data>\n");
}

// The attributes of an element, as "name=value".
texts attributes_of(const std::string &element)
{
    texts found;
    const std::string text = "<data>" + element + "</data>";
    element_cursor elements(text);
    const std::optional<package_element> first = elements.next();
    if (!first)
        return {"not read"};
    attribute_cursor attributes = first->attributes();
    while (const std::optional<element_attribute> attribute = attributes.next())
        found.push_back(std::string(attribute->name) + "=" + std::string(attribute->value));
    return found;
}

} // namespace

// ---- what is found

TEST(PackageElements, AreNoneInAnEmptyText)
{
    EXPECT_EQ(read(""), texts{});
    EXPECT_EQ(read("\n \r\n"), texts{});
    EXPECT_EQ(read("<?xml version=\"1.0\" ?>\n"), texts{});
}

TEST(PackageElements, AreNoneInAnEmptyFrame)
{
    EXPECT_EQ(read_lines(""), texts{});
    EXPECT_EQ(read("<data></data>"), texts{});
}

TEST(PackageElements, AreFoundInTheirOrderWithTheirLines)
{
    EXPECT_EQ(read_lines("  <erase start_sector=\"0\"/>\n\n  <program filename=\"a\" />\n<power/>"),
              (texts{"3:<erase start_sector=\"0\"/>", "5:<program filename=\"a\" />", "6:<power/>"}));
}

TEST(PackageElements, AreFoundBetweenLinesThatEndInCarriageReturns)
{
    EXPECT_EQ(read("<?xml?>\r\n<data>\r\n  <erase/>\r\n</data>\r\n"), texts{"3:<erase/>"});
}

TEST(PackageElements, AreFoundWithoutADeclarationAndBehindAByteOrderMark)
{
    EXPECT_EQ(read("<data>\n<erase/>\n</data>"), texts{"2:<erase/>"});
    EXPECT_EQ(read("\xef\xbb\xbf<?xml?>\n<data>\n<erase/>\n</data>"), texts{"3:<erase/>"});
}

TEST(PackageElements, MayShareALine)
{
    EXPECT_EQ(read("<?xml?><data><a/><b/>\n<c/></data>"), (texts{"1:<a/>", "1:<b/>", "2:<c/>"}));
}

TEST(PackageElements, MayShareALineWithComments)
{
    EXPECT_EQ(read_lines("<a/> <!-- 1 -->\n<!-- 2 --> <b/>\n<c/> <!--\n--> <d/>"),
              (texts{"3:<a/>", "4:<b/>", "5:<c/>", "6:<d/>"}));
}

TEST(PackageElements, MayGoOverSeveralLines)
{
    EXPECT_EQ(read_lines("<a\n  x=\"1\"\n  y='2'\n/>\n<b/>"),
              (texts{"3:<a\n  x=\"1\"\n  y='2'\n/>", "7:<b/>"}));
}

TEST(PackageElements, MayEndInATagOfTheirOwn)
{
    EXPECT_EQ(read_lines("<a></a>\n<b x=\"1\"> </b >\n<c>\n</c\n>"),
              (texts{"3:<a></a>", "4:<b x=\"1\"> </b >", "5:<c>\n</c\n>"}));
}

TEST(PackageElements, InCommentsAreNone)
{
    EXPECT_EQ(read_lines("<!-- <a/> -->\n<!--\n<b/>\n-->\n<!--<c/>--><!--<d/>-->"), texts{});
    EXPECT_EQ(read("<!-- <a/> -->\n<data>\n</data>\n<!-- <b/> -->"), texts{});
}

TEST(PackageElements, StandBehindTheFirstEndOfAComment)
{
    EXPECT_EQ(read_lines("<!-- <!-- -- --- --><a/>"), texts{"3:<a/>"});
    EXPECT_EQ(read_lines("<!---->\n<a/>"), texts{"4:<a/>"});
    EXPECT_EQ(read_lines("<!-->\n<a/>\n-->\n<b/>"), texts{"6:<b/>"}) << "the marks share no character";
}

TEST(PackageElements, MayStandBesideTextWithoutBrackets)
{
    EXPECT_EQ(read("one\n<?xml?>\ntwo\n<data>\nfilename=\"a\"\n<a/> ; \"\n</data>\nthree"), texts{"6:<a/>"});
}

TEST(PackageElements, MayHaveAnyName)
{
    for (const char *name :
         {"a", "Z9", "_a", ":", "x:y-z.1", "\xc3\xa9", "data", "data2", "partition_file"}) {
        const std::string element = "<" + std::string(name) + "/>";
        EXPECT_EQ(read_lines(element), texts{"3:" + element});
    }
}

TEST(PackageElements, KnowTheirNames)
{
    element_cursor elements("<data><program\tx=\"1\"/><a-b></a-b></data>");
    EXPECT_EQ(elements.next()->name, "program");
    EXPECT_EQ(elements.next()->name, "a-b");
}

TEST(PackageElements, KnowTheirLines)
{
    element_cursor elements("<data>\n  <a/> b \r\n<c\n/></data>");
    EXPECT_NE(elements.next(), std::nullopt);
    EXPECT_EQ(elements.line(), "  <a/> b \r");
    EXPECT_NE(elements.next(), std::nullopt);
    EXPECT_EQ(elements.line(), "<c");
    element_cursor first("<data><a/>");
    EXPECT_NE(first.next(), std::nullopt);
    EXPECT_EQ(first.line(), "<data><a/>");
}

// ---- their attributes

TEST(ElementAttributes, AreWalkedInTheirOrder)
{
    EXPECT_EQ(attributes_of("<a/>"), texts{});
    EXPECT_EQ(attributes_of("<a x=\"1\" y:z-2=\"\" x=\"3\"/>"), (texts{"x=1", "y:z-2=", "x=3"}));
    EXPECT_EQ(attributes_of("<a x=\"1\"></a>"), texts{"x=1"});
}

TEST(ElementAttributes, HaveQuotesOfEitherKind)
{
    EXPECT_EQ(attributes_of("<a x='1\"' y=\"2'\"/>"), (texts{"x=1\"", "y=2'"}));
}

TEST(ElementAttributes, MayStandBetweenAnyBlanks)
{
    EXPECT_EQ(attributes_of("<a\n\tx\r\n=\t \"1\"\n/>"), texts{"x=1"});
}

TEST(ElementAttributes, KeepTheirValuesAsTheyAreWritten)
{
    EXPECT_EQ(attributes_of("<a x=\" &lt; & > --> /> \t\"/>"), texts{"x= &lt; & > --> /> \t"});
    EXPECT_EQ(attributes_of("<a x=\"\xff\"/>"), texts{"x=\xff"});
}

// ---- what is not understood

struct bad_text {
    const char *name;
    const char *text;
    texts found; // the problem last
};

void PrintTo(const bad_text &bad, std::ostream *out)
{
    *out << bad.text;
}

class BadElements : public testing::TestWithParam<bad_text> {};

TEST_P(BadElements, AreNotUnderstood)
{
    EXPECT_EQ(read(GetParam().text), GetParam().found);
}

constexpr char unreadable[] = "2:element that cannot be read";
constexpr char filled[] = "2:element that is not empty";
constexpr char outside[] = "2:element outside of <data>";
constexpr char no_element[] = "2:markup that is no element";
constexpr char stray_end[] = "2:end of an element that has not begun";
constexpr char stray_bracket[] = "2:bracket that closes nothing";

INSTANTIATE_TEST_SUITE_P(
    Table, BadElements,
    testing::Values(
        bad_text{"OpenComment",
                 "<data><a/>\n<b/><!-- </data>-- >",
                 {"1:<a/>", "2:<b/>", "2:comment without an end"}},
        bad_text{"OpenCommentOfOneMark", "\n<!-->", {"2:comment without an end"}},
        bad_text{
            "OpenDeclaration", "\n<?xml version=\"1.0\">\n<data>\n</data>", {"2:declaration without an end"}},
        bad_text{"SecondDeclaration", "<?xml?>\n<?xml?>", {no_element}},
        bad_text{"DeclarationBehindAComment", "<!-- -->\n<?xml?>", {no_element}},
        bad_text{"Instruction", "<data>\n<?do this?></data>", {no_element}},
        bad_text{"DocumentType", "<?xml?>\n<!DOCTYPE data>\n<data></data>", {no_element}},
        bad_text{"CharacterData", "<data>\n<![CDATA[ <a/> ]]></data>", {no_element}},
        bad_text{"BracketAndBlank", "<data>\n< a/></data>", {no_element}},
        bad_text{"BracketAndDigit", "<data>\n<1/></data>", {no_element}},
        bad_text{"BracketAndMinus", "<data>\n<-a/></data>", {no_element}},
        bad_text{"EmptyBrackets", "<data>\n<></data>", {no_element}},
        bad_text{"BracketAtTheEnd", "<data>\n<", {no_element}},
        bad_text{"StrayBracket", "<data>\nprogram filename=\"a\"/>\n</data>", {stray_bracket}},
        bad_text{"StrayCommentEnd", "<data>\n-->\n</data>", {stray_bracket}},
        bad_text{"NestedComments",
                 "<data><!-- <!-- -->\n<a/>\n--></data>",
                 {"2:<a/>", "3:bracket that closes nothing"}},
        bad_text{"NoRoot", "<?xml?>\n<a/>\n", {outside}},
        bad_text{"OtherRoot", "<?xml?>\n<patches>\n<a/>\n</patches>", {outside}},
        bad_text{"RootWithAttributes", "<?xml?>\n<data x=\"1\">\n</data>", {outside}},
        bad_text{"RootWithABlank", "<?xml?>\n<data >\n</data>", {outside}},
        bad_text{"RootInCapitals", "<?xml?>\n<DATA>\n</DATA>", {outside}},
        bad_text{"EmptyRoot", "<?xml?>\n<data/>\n", {outside}},
        bad_text{"TwoRoots", "<data><a/></data>\n<data><b/></data>", {"1:<a/>", outside}},
        bad_text{"ElementBehindTheRoot", "<data></data>\n<a/>", {outside}},
        bad_text{"RootInTheRoot", "<data>\n<data><a/></data></data>", {filled}},
        bad_text{"RootWithoutAnEnd", "<?xml?>\n<data>\n<a/>\n", {"3:<a/>", "2:<data> without an end"}},
        bad_text{"RootWithoutAnEndAndALineFeed", "\n<data>", {"2:<data> without an end"}},
        bad_text{"EndWithABlank", "<data>\n</data >", {stray_end}},
        bad_text{"EndBeforeTheRoot", "<?xml?>\n</data>", {stray_end}},
        bad_text{"TwoEnds", "<data></data>\n</data>", {stray_end}},
        bad_text{"EndOfAnElement", "<data><a/>\n</a></data>", {"1:<a/>", stray_end}},
        bad_text{"ElementInAnElement", "<data>\n<a><b/></a></data>", {filled}},
        bad_text{"TextInAnElement", "<data>\n<a>b</a></data>", {filled}},
        bad_text{"CommentInAnElement", "<data>\n<a><!-- b --></a></data>", {filled}},
        bad_text{"ElementWithoutAnEnd", "<data>\n<a>\n</data>", {filled}},
        bad_text{"EndOfAnother", "<data>\n<a></b></data>", {filled}},
        bad_text{"EndOfALongerOne", "<data>\n<a></ab></data>", {filled}},
        bad_text{"EndWithAttributes", "<data>\n<a></a x=\"1\"></data>", {filled}},
        bad_text{"CutInTheName", "<data>\n<a", {unreadable}},
        bad_text{"CutBehindTheName", "<data>\n<a ", {unreadable}},
        bad_text{"CutInAnAttribute", "<data>\n<a x", {unreadable}},
        bad_text{"CutBehindTheEqualsSign", "<data>\n<a x=", {unreadable}},
        bad_text{"CutInAValue", "<data>\n<a x=\"1", {unreadable}},
        bad_text{"CutBehindAValue", "<data>\n<a x=\"1\"", {unreadable}},
        bad_text{"CutInTheEnd", "<data>\n<a x=\"1\"/", {unreadable}},
        bad_text{"CutBehindTheTag", "<data>\n<a>", {filled}},
        bad_text{"CutInTheEndTag", "<data>\n<a></a", {filled}},
        bad_text{"NoQuotes", "<data>\n<a x=1/></data>", {unreadable}},
        bad_text{"NoEqualsSign", "<data>\n<a x \"1\"/></data>", {unreadable}},
        bad_text{"NoValue", "<data>\n<a x/></data>", {unreadable}},
        bad_text{"NoName", "<data>\n<a =\"1\"/></data>", {unreadable}},
        bad_text{"NoBlank", "<data>\n<a x=\"1\"y=\"2\"/></data>", {unreadable}},
        bad_text{"NoEndOfAValue", "<data>\n<a x=\"1/>\n<b y=\"2\"/></data>", {unreadable}},
        bad_text{"MixedQuotes", "<data>\n<a x=\"1'/></data>", {unreadable}},
        bad_text{"BracketInAValue", "<data>\n<a x=\"<\"/></data>", {unreadable}},
        bad_text{"BracketAndBlankInAValue", "<data>\n<a x=\"< y=\"2\"/></data>", {unreadable}},
        bad_text{"BlankInTheEnd", "<data>\n<a / ></data>", {unreadable}},
        bad_text{"SlashInTheTag", "<data>\n<a/b/></data>", {unreadable}},
        bad_text{"CommentInATag", "<data>\n<a <!-- --> x=\"1\"/></data>", {unreadable}}),
    [](const testing::TestParamInfo<bad_text> &bad) { return std::string(bad.param.name); });

TEST(BadElement, IsShownInItsLine)
{
    element_cursor elements("<data>\n<a/>\n  <b c/>\r\n</data>");
    while (elements.next()) {
    }
    EXPECT_EQ(elements.line(), "  <b c/>\r");
    EXPECT_EQ(elements.line_number(), 3U);
}

TEST(BadElement, OfAFrameWithoutAnEndIsItsBegin)
{
    element_cursor elements("\n<data>\n<a/>\n");
    while (elements.next()) {
    }
    EXPECT_EQ(elements.line(), "<data>");
}
