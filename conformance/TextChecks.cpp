// StringParser, StringHandler and string_util, as the module calls them. The
// listing code cuts the "LIST" text into lines with StringHandler at "\r\n"
// and each line into words with StringParser at " "; a line of exactly 9
// words is a Unix listing, of exactly 4 a DOS one, and the name is the 9th or
// 4th word. The registry cuts location texts at "/" and compares the parts,
// empty ones included. Get and Put widen local file names with utf82wchar.
#include <stdio.h>

#include <string>
#include <vector>

#include "HostConformance.h"
#include "host/StringHandler.h"
#include "host/StringParser.h"
#include "host/string_util.h"

namespace conformance {

namespace {

typedef std::vector<std::string> Words;

std::string listed(const Words& words) {
    std::string out("{");
    for (size_t i = 0; i < words.size(); ++i) out += (i ? ", " : "") + quoted(words[i]);
    return out + "}";
}

Words make(const char* const* items, size_t count) { return Words(items, items + count); }

// Splits `text` as the module does: a writable copy that stays alive and
// unread by anyone else while the words are taken, and a writable " ".
Words splitWords(StringParser& parser, const std::string& text, int* result) {
    std::vector<char> line(text.begin(), text.end());
    line.push_back('\0');
    char separator[] = " ";
    *result = parser.Split(&line[0], separator);
    Words words;
    for (unsigned int i = 0; i < parser.Getcount() && i < 1000; ++i) {
        words.push_back(parser.getItem(i));
    }
    return words;
}

struct WordRow {
    const char* from;
    std::string line;
    Words expected;
};

}  // namespace

void checkParserBlanks(Report& report) {
    const char* const dos[] = {"01-15-20", "10:30AM", "512", "a.dat"};
    const char* const unix[] = {"-rw-r--r--", "1",  "1000",  "1000",    "1048576",
                                "Jan",        "15", "10:30", "ch01.mp4"};
    const char* const padded[] = {"lead", "and", "trail"};
    const char* const tab[] = {"a\tb", "c"};
    const char* const tabbed[] = {"-rw-r--r--\t1\tu\tg\t100\tJan\t01\t10:00\ta"};
    const char* const blankName[] = {"-rw-r--r--", "1",  "rec",   "rec", "5",
                                     "Nov",        "24", "10:30", "my",  "clip.ts"};
    const WordRow rows[] = {
        {"a DOS listing line: columns padded with runs of blanks",
         "01-15-20  10:30AM       512 a.dat", make(dos, 4)},
        {"a Unix listing line", "-rw-r--r--    1 1000     1000      1048576 Jan 15 10:30 ch01.mp4",
         make(unix, 9)},
        {"blanks before the first and after the last word", "   lead and trail   ",
         make(padded, 3)},
        {"a tab is part of a word", "a\tb c", make(tab, 2)},
        {"a listing line separated by tabs is one word",
         "-rw-r--r--\t1\tu\tg\t100\tJan\t01\t10:00\ta", make(tabbed, 1)},
        {"a name with a blank makes 10 words", "-rw-r--r-- 1 rec rec 5 Nov 24 10:30 my clip.ts",
         make(blankName, 10)},
        {"an empty line", "", Words()},
        {"a line of blanks", "     ", Words()},
    };
    StringParser parser;
    for (size_t r = 0; r < sizeof rows / sizeof rows[0]; ++r) {
        int result = -1;
        const Words words = splitWords(parser, rows[r].line, &result);
        if (words != rows[r].expected || result != static_cast<int>(rows[r].expected.size()) ||
            parser.Getcount() != rows[r].expected.size()) {
            report.fail(std::string(rows[r].from) + ": Split(" + quoted(rows[r].line) +
                        ", \" \") gave " + show(static_cast<long long>(result)) + " words " +
                        listed(words) + ", not " + listed(rows[r].expected));
        }
    }

    // The parsers ask for fixed word numbers without looking at the count.
    int result = 0;
    splitWords(parser, "01-15-20  10:30AM       512 a.dat", &result);
    report.expect(parser.getItem(8).empty() && parser.getItem(4).empty() &&
                      parser.getItem(0xFFFFFFFFu).empty(),
                  "getItem past the last of 4 words did not give an empty word");
    splitWords(parser, "only", &result);
    report.expect(result == 1 && parser.getItem(0) == "only" && parser.getItem(3).empty(),
                  "a new Split did not replace the words of the one before");
    char separator[] = " ";
    report.expect(parser.Split(NULL, separator) == 0 && parser.Getcount() == 0,
                  "Split of a null text gave words");
    // A zero byte ends the text as the host reads it.
    std::vector<char> zero;
    const char withZero[] = "ab\0cd ef";
    zero.assign(withZero, withZero + sizeof withZero);
    report.expect(parser.Split(&zero[0], separator) == 1 && parser.getItem(0) == "ab",
                  "Split read past the text's first zero byte");
}

void checkHandlerSeparators(Report& report) {
    struct Row {
        const char* from;
        std::string text;
        const char* separator;
        Words expected;
    };
    const char* const crlfEnd[] = {"a", "b", ""};
    const char* const noEnd[] = {"a", "b"};
    const char* const empty[] = {""};
    const char* const blankLine[] = {"total 1", "", "x"};
    const char* const bare[] = {"a\nb\n"};
    const char* const location[] = {"rec(pw)@ftp:", "", "10.0.0.5", "rec", "a", ""};
    const Row rows[] = {
        {"a listing ending in CRLF", "a\r\nb\r\n", "\r\n", make(crlfEnd, 3)},
        {"a listing without a final CRLF", "a\r\nb", "\r\n", make(noEnd, 2)},
        {"an empty listing", "", "\r\n", make(empty, 1)},
        {"a blank line inside", "total 1\r\n\r\nx", "\r\n", make(blankLine, 3)},
        {"bare line feeds are no separator", "a\nb\n", "\r\n", make(bare, 1)},
        {"a location with a trailing slash", "rec(pw)@ftp://10.0.0.5/rec/a/", "/",
         make(location, 6)},
        {"a zero byte inside a part", std::string("a\0b\r\nc", 6), "\r\n",
         Words{std::string("a\0b", 3), "c"}},
    };
    for (size_t r = 0; r < sizeof rows / sizeof rows[0]; ++r) {
        Words parts;
        StringHandler::split(rows[r].text, parts, rows[r].separator);
        if (parts != rows[r].expected) {
            report.fail(std::string(rows[r].from) + ": split(" + quoted(rows[r].text) + ", " +
                        quoted(rows[r].separator) + ") gave " + listed(parts) + ", not " +
                        listed(rows[r].expected));
        }
    }
    Words kept(1, "kept");
    StringHandler::split("x/y", kept, "/");
    const char* const appended[] = {"kept", "x", "y"};
    report.expect(kept == make(appended, 3),
                  "split did not append to the parts already there: " + listed(kept));
}

void checkUtf8ToWide(Report& report) {
    struct Row {
        const char* from;
        const char* utf8;
        std::wstring expected;
    };
    const Row rows[] = {
        {"ASCII", "/mnt/sd/rec/2026-11-22/cam01.ts", L"/mnt/sd/rec/2026-11-22/cam01.ts"},
        {"two-byte sequences", "/mnt/sd/caf\xc3\xa9-\xc3\xa4.ts", L"/mnt/sd/caf\u00e9-\u00e4.ts"},
        {"three-byte sequences", "/mnt/sd/\xe6\x97\xa5\xe6\x9c\xac.ts", L"/mnt/sd/\u65e5\u672c.ts"},
        {"a four-byte sequence", "/mnt/sd/\xf0\x9f\x8e\xa5.ts", L"/mnt/sd/\U0001F3A5.ts"},
        {"an empty name", "", L""},
    };
    for (size_t r = 0; r < sizeof rows / sizeof rows[0]; ++r) {
        const std::wstring got = string_util::utf82wchar(rows[r].utf8);
        if (got != rows[r].expected) {
            std::string codes;
            for (size_t i = 0; i < got.size(); ++i) {
                char code[16];
                snprintf(code, sizeof code, "%sU+%04lX", i ? " " : "",
                         static_cast<unsigned long>(got[i]));
                codes += code;
            }
            report.fail(std::string(rows[r].from) + ": utf82wchar(" + quoted(rows[r].utf8) +
                        ") gave " + show(static_cast<long long>(got.size())) +
                        " wide characters (" + codes + "), not " +
                        show(static_cast<long long>(rows[r].expected.size())));
        }
    }
    report.expect(string_util::utf82wchar(NULL).empty(), "utf82wchar(NULL) did not give \"\"");
}

}  // namespace conformance
