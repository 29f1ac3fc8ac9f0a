// The host's two splitters, as the listing code relies on them: StringHandler
// cuts the "LIST" text into lines, StringParser cuts a line into words.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/StringHandler.h"
#include "host/StringParser.h"

namespace {

std::vector<std::string> words(const StringParser& parser) {
    std::vector<std::string> out;
    for (unsigned int i = 0; i < parser.Getcount(); ++i) out.push_back(parser.getItem(i));
    return out;
}

std::vector<std::string> lines(const std::string& text, const std::string& separator) {
    std::vector<std::string> out;
    StringHandler::split(text, out, separator);
    return out;
}

typedef std::vector<std::string> Words;

}  // namespace

TEST(StringParserSplit, CountsARunOfBlanksAsOneSeparator) {
    struct Row {
        const char* text;
        Words expected;
    };
    const Row rows[] = {
        {"01-15-20  10:30AM       512 a.dat", {"01-15-20", "10:30AM", "512", "a.dat"}},
        {"   lead and trail   ", {"lead", "and", "trail"}},
        {"one", {"one"}},
        {"", {}},
        {"     ", {}},
        {"a\tb c", {"a\tb", "c"}},
        {"-rw-r--r--    1 1000     1000      1048576 Jan 15 10:30 ch01.mp4",
         {"-rw-r--r--", "1", "1000", "1000", "1048576", "Jan", "15", "10:30", "ch01.mp4"}},
    };
    StringParser parser;
    for (const Row& row : rows) {
        EXPECT_EQ(static_cast<int>(row.expected.size()), parser.Split(row.text, " "))
            << "[" << row.text << "]";
        EXPECT_EQ(row.expected.size(), parser.Getcount()) << "[" << row.text << "]";
        EXPECT_EQ(row.expected, words(parser)) << "[" << row.text << "]";
    }
}

TEST(StringParserSplit, SplitsAtAWholeMultiCharacterSeparator) {
    StringParser parser;
    EXPECT_EQ(3, parser.Split("a::b::::c::", "::"));
    EXPECT_EQ((Words{"a", "b", "c"}), words(parser));
    EXPECT_EQ(2, parser.Split("a:b::c", "::"));
    EXPECT_EQ((Words{"a:b", "c"}), words(parser));
}

TEST(StringParserSplit, AnEmptyOrNullSeparatorSplitsAtBlanks) {
    StringParser parser;
    EXPECT_EQ(2, parser.Split("a  b", ""));
    EXPECT_EQ((Words{"a", "b"}), words(parser));
    EXPECT_EQ(3, parser.Split("a b  c", nullptr));
    EXPECT_EQ((Words{"a", "b", "c"}), words(parser));
}

TEST(StringParserSplit, ANullTextGivesNoWords) {
    StringParser parser;
    ASSERT_EQ(2, parser.Split("x y", " "));
    EXPECT_EQ(0, parser.Split(nullptr, " "));
    EXPECT_EQ(0u, parser.Getcount());
    EXPECT_EQ("", parser.getItem(0));
}

TEST(StringParserSplit, ACStringEndsAtItsFirstZeroByteButALengthDoesNot) {
    const char text[] = "ab\0cd ef";
    StringParser parser;
    EXPECT_EQ(1, parser.Split(text, " "));
    EXPECT_EQ((Words{"ab"}), words(parser));
    EXPECT_EQ(2, parser.Split(text, sizeof(text) - 1, " "));
    EXPECT_EQ((Words{std::string("ab\0cd", 5), "ef"}), words(parser));
}

TEST(StringParserSplit, ANewSplitReplacesTheWordsOfTheLastOne) {
    StringParser parser;
    ASSERT_EQ(9, parser.Split("1 2 3 4 5 6 7 8 9", " "));
    ASSERT_EQ(1, parser.Split("only", " "));
    EXPECT_EQ("only", parser.getItem(0));
    EXPECT_EQ("", parser.getItem(8));
}

TEST(StringParserItems, AnIndexPastTheLastWordGivesAnEmptyWord) {
    StringParser parser;
    EXPECT_EQ("", parser.getItem(0));  // nothing split yet
    parser.Split("total 12", " ");
    EXPECT_EQ("total", parser.getItem(0));
    EXPECT_EQ("12", parser.getItem(1));
    EXPECT_EQ("", parser.getItem(2));
    EXPECT_EQ("", parser.getItem(8));
    EXPECT_EQ("", parser.getItem(0xFFFFFFFFu));
}

TEST(StringParserItems, ItemPointersGiveTheSameWordsWithoutCopying) {
    StringParser parser;
    parser.Split("  drwxr-xr-x 2 u g 4096 Jan 01 10:00 rec  ", " ");
    for (unsigned int i = 0; i < 11; ++i) {
        unsigned int length = 12345;
        const char* word = parser.getItemPointer(i, &length);
        ASSERT_NE(nullptr, word) << "index " << i;
        EXPECT_EQ(parser.getItem(i), std::string(word, length)) << "index " << i;
    }
    unsigned int length = 7;
    EXPECT_STREQ("", parser.getItemPointer(9, &length));
    EXPECT_EQ(0u, length);
    // The length may be left out.
    EXPECT_EQ('d', parser.getItemPointer(0, nullptr)[0]);
}

TEST(StringHandlerSplit, CutsAtEverySeparatorAndKeepsEmptyParts) {
    struct Row {
        const char* source;
        std::string text;
        Words expected;
    };
    const Row rows[] = {
        {"listing ending in CRLF", "a\r\nb\r\n", {"a", "b", ""}},
        {"listing without final CRLF", "a\r\nb", {"a", "b"}},
        {"empty listing", "", {""}},
        {"blank line in the middle", "total 1\r\n\r\nx", {"total 1", "", "x"}},
        {"only a separator", "\r\n", {"", ""}},
        {"bare line feeds are not cut", "a\nb\n", {"a\nb\n"}},
        {"bare carriage return before CRLF", "a\r\r\nb", {"a\r", "b"}},
        {"separator split over two CRs", "a\r\n\nb", {"a", "\nb"}},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.expected, lines(row.text, "\r\n")) << row.source;
    }
}

TEST(StringHandlerSplit, AppendsToThePartsAlreadyThere) {
    std::vector<std::string> parts = {"kept"};
    StringHandler::split("x,y", parts, ",");
    EXPECT_EQ((Words{"kept", "x", "y"}), parts);
}

TEST(StringHandlerSplit, AnEmptySeparatorAppendsTheWholeText) {
    EXPECT_EQ((Words{"a\r\nb"}), lines("a\r\nb", ""));
    EXPECT_EQ((Words{""}), lines("", ""));
}

TEST(StringHandlerSplit, KeepsZeroBytesInsideParts) {
    const std::string text("a\0b\r\nc", 6);
    EXPECT_EQ((Words{std::string("a\0b", 3), "c"}), lines(text, "\r\n"));
}
