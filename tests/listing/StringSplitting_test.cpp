// The host's two splitters, as the listing code relies on them: StringHandler
// cuts the "LIST" text into lines, StringParser cuts a line into words.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "host/StringHandler.h"
#include "host/StringParser.h"

namespace {

std::vector<std::string> words(StringParser& parser) {
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

// The host's Split takes writable text, as the recorder's does: hand it a copy
// that stays alive while the words are read. A null text stays null.
class Splitter {
public:
    int split(StringParser& parser, const char* text, const char* separator) {
        text_.clear();
        if (text != nullptr) text_.assign(text, text + std::strlen(text) + 1);
        separator_.clear();
        if (separator != nullptr)
            separator_.assign(separator, separator + std::strlen(separator) + 1);
        return parser.Split(text != nullptr ? text_.data() : nullptr,
                            separator != nullptr ? separator_.data() : nullptr);
    }

private:
    std::vector<char> text_;
    std::vector<char> separator_;
};

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
    Splitter splitter;
    for (const Row& row : rows) {
        EXPECT_EQ(static_cast<int>(row.expected.size()), splitter.split(parser, row.text, " "))
            << "[" << row.text << "]";
        EXPECT_EQ(row.expected.size(), parser.Getcount()) << "[" << row.text << "]";
        EXPECT_EQ(row.expected, words(parser)) << "[" << row.text << "]";
    }
}

TEST(StringParserSplit, SplitsAtAWholeMultiCharacterSeparator) {
    StringParser parser;
    Splitter splitter;
    EXPECT_EQ(3, splitter.split(parser, "a::b::::c::", "::"));
    EXPECT_EQ((Words{"a", "b", "c"}), words(parser));
    EXPECT_EQ(2, splitter.split(parser, "a:b::c", "::"));
    EXPECT_EQ((Words{"a:b", "c"}), words(parser));
}

TEST(StringParserSplit, AnEmptyOrNullSeparatorSplitsAtBlanks) {
    StringParser parser;
    Splitter splitter;
    EXPECT_EQ(2, splitter.split(parser, "a  b", ""));
    EXPECT_EQ((Words{"a", "b"}), words(parser));
    EXPECT_EQ(3, splitter.split(parser, "a b  c", nullptr));
    EXPECT_EQ((Words{"a", "b", "c"}), words(parser));
}

TEST(StringParserSplit, ANullTextGivesNoWords) {
    StringParser parser;
    Splitter splitter;
    ASSERT_EQ(2, splitter.split(parser, "x y", " "));
    EXPECT_EQ(0, splitter.split(parser, nullptr, " "));
    EXPECT_EQ(0u, parser.Getcount());
    EXPECT_EQ("", parser.getItem(0));
}

TEST(StringParserSplit, TheTextEndsAtItsFirstZeroByte) {
    const char text[] = "ab\0cd ef";
    StringParser parser;
    Splitter splitter;
    EXPECT_EQ(1, splitter.split(parser, text, " "));
    EXPECT_EQ((Words{"ab"}), words(parser));
}

TEST(StringParserSplit, LeavesTheCallersTextAsItWas) {
    char text[] = "drwxr-xr-x 2 u g 4096 Jan 01 10:00 rec";
    char separator[] = " ";
    const std::string before(text);
    StringParser parser;
    ASSERT_EQ(9, parser.Split(text, separator));
    EXPECT_EQ(before, std::string(text));
    EXPECT_EQ("rec", parser.getItem(8));
}

TEST(StringParserSplit, ANewSplitReplacesTheWordsOfTheLastOne) {
    StringParser parser;
    Splitter splitter;
    ASSERT_EQ(9, splitter.split(parser, "1 2 3 4 5 6 7 8 9", " "));
    ASSERT_EQ(1, splitter.split(parser, "only", " "));
    EXPECT_EQ("only", parser.getItem(0));
    EXPECT_EQ("", parser.getItem(8));
}

TEST(StringParserItems, AnIndexPastTheLastWordGivesAnEmptyWord) {
    StringParser parser;
    Splitter splitter;
    EXPECT_EQ("", parser.getItem(0));  // nothing split yet
    splitter.split(parser, "total 12", " ");
    EXPECT_EQ("total", parser.getItem(0));
    EXPECT_EQ("12", parser.getItem(1));
    EXPECT_EQ("", parser.getItem(2));
    EXPECT_EQ("", parser.getItem(8));
    EXPECT_EQ("", parser.getItem(0xFFFFFFFFu));
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
