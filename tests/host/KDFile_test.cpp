// Local files of the host (mode 98 writes, mode 1 reads, names given as wide
// text of UTF-8 names) and the two text conversions.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "host/KDFile.h"
#include "host/string_util.h"
#include "support/TempDir.h"

namespace {

using ftptest::readWholeFile;
using ftptest::TempDir;

std::wstring wide(const std::string& utf8) { return string_util::utf82wchar(utf8.c_str()); }

TEST(KDFile, Mode98CreatesTheFileAndMode1ReadsItBack) {
    TempDir dir;
    const std::string path = dir.path() + "/clip.dat";
    KDFile out;
    ASSERT_NE(0, out.open_w(wide(path).c_str(), 98));
    char data[] = "recorded\0bytes";
    EXPECT_EQ(14, out.write(data, 14));
    out.close();
    EXPECT_EQ(std::string(data, 14), readWholeFile(path));

    KDFile in;
    ASSERT_NE(0, in.open_w(wide(path).c_str(), 1));
    char back[32] = {0};
    EXPECT_EQ(14, in.read(back, sizeof back));
    EXPECT_EQ(0, in.read(back, sizeof back)) << "end of file";
    EXPECT_EQ(std::string(data, 14), std::string(back, 14));
}

TEST(KDFile, Mode98TruncatesAnExistingFile) {
    TempDir dir;
    const std::string path = dir.path() + "/old.dat";
    {
        KDFile out;
        ASSERT_NE(0, out.open_w(wide(path).c_str(), 98));
        char longer[] = "a much longer older content";
        out.write(longer, sizeof longer - 1);
    }  // the destructor closes
    KDFile out;
    ASSERT_NE(0, out.open_w(wide(path).c_str(), 98));
    char shorter[] = "new";
    out.write(shorter, 3);
    out.close();
    EXPECT_EQ("new", readWholeFile(path));
}

TEST(KDFile, Mode1OnAMissingFileFailsAndOtherModesAreRefused) {
    TempDir dir;
    const std::string missing = dir.path() + "/missing.dat";
    KDFile file;
    EXPECT_EQ(0, file.open_w(wide(missing).c_str(), 1));
    EXPECT_EQ(0, file.open_w(wide(missing).c_str(), 2));
    EXPECT_EQ(0, file.open_w(wide(missing).c_str(), 'w'));
    EXPECT_FALSE(std::filesystem::exists(missing)) << "a refused mode creates nothing";
    EXPECT_EQ(0, file.open_w(nullptr, 98));
}

TEST(KDFile, ReadAndWriteOnAFileThatIsNotOpenGiveNegativeResults) {
    KDFile file;
    char buf[4] = {0};
    EXPECT_LT(file.read(buf, sizeof buf), 0);
    EXPECT_LT(file.write(buf, sizeof buf), 0);
    file.close();  // closing twice is harmless
    file.close();
}

TEST(KDFile, NonAsciiNamesAreWrittenAsUtf8OnDisk) {
    TempDir dir;
    // "Aufnahme größe 录像 🎥.dat" in UTF-8 bytes.
    const std::string name =
        "Aufnahme_gr\xC3\xB6\xC3\x9F"
        "e_\xE5\xBD\x95\xE5\x83\x8F_\xF0\x9F\x8E\xA5.dat";
    const std::string path = dir.path() + "/" + name;
    const std::wstring widePath = wide(path);
    EXPECT_EQ(std::wstring(L"Aufnahme_gr\u00f6\u00dfe_\u5f55\u50cf_\U0001F3A5.dat"),
              widePath.substr(widePath.size() - 23));
    KDFile out;
    ASSERT_NE(0, out.open_w(widePath.c_str(), 98));
    char data[] = "x";
    out.write(data, 1);
    out.close();
    EXPECT_EQ("x", readWholeFile(path));
    KDFile in;
    EXPECT_NE(0, in.open_w(widePath.c_str(), 1));
}

struct Utf8Case {
    const char* label;
    const char* utf8;
    std::wstring wide;
};

TEST(StringUtil, Utf8ToWideTable) {
    const Utf8Case cases[] = {
        {"ascii", "abc/01.dat", L"abc/01.dat"},
        {"two-byte",
         "gr\xC3\xB6\xC3\x9F"
         "e",
         L"gr\u00f6\u00dfe"},
        {"three-byte", "\xE5\xBD\x95\xE5\x83\x8F", L"\u5f55\u50cf"},
        {"four-byte", "\xF0\x9F\x8E\xA5", L"\U0001F3A5"},
        {"empty", "", L""},
        {"stray continuation byte", "a\x80z", L"a\uFFFDz"},
        {"lead byte without continuation", "\xC3(", L"\uFFFD("},
        {"cut at the end", "ok\xE2\x82", L"ok\uFFFD"},
        {"overlong slash", "\xC0\xAF", L"\uFFFD"},
        {"encoded surrogate", "\xED\xA0\x80", L"\uFFFD"},
        {"past U+10FFFF", "\xF4\x90\x80\x80", L"\uFFFD"},
        {"invalid lead 0xFF",
         "\xFF"
         "a",
         L"\uFFFDa"},
    };
    for (const Utf8Case& c : cases) {
        EXPECT_EQ(c.wide, string_util::utf82wchar(c.utf8)) << c.label;
    }
    EXPECT_EQ(std::wstring(), string_util::utf82wchar(nullptr));
}

TEST(StringUtil, WideToUtf8Table) {
    const Utf8Case cases[] = {
        {"ascii", "abc", L"abc"},
        {"two-byte", "\xC3\xB6", L"\u00f6"},
        {"three-byte", "\xE5\xBD\x95", L"\u5f55"},
        {"four-byte", "\xF0\x9F\x8E\xA5", L"\U0001F3A5"},
        {"lone surrogate", "\xEF\xBF\xBD", std::wstring(1, static_cast<wchar_t>(0xD800))},
        {"past U+10FFFF", "\xEF\xBF\xBD", std::wstring(1, static_cast<wchar_t>(0x110000))},
    };
    for (const Utf8Case& c : cases) {
        EXPECT_EQ(std::string(c.utf8), string_util::wchar2utf8(c.wide.c_str())) << c.label;
    }
    EXPECT_EQ(std::string(), string_util::wchar2utf8(nullptr));
}

TEST(StringUtil, ValidTextSurvivesTheRoundTrip) {
    const char* texts[] = {"/rec/2024-03-01/ch01_120000.dat",
                           "\xE5\xBD\x95\xE5\x83\x8F/gr\xC3\xB6\xC3\x9F"
                           "e/\xF0\x9F\x8E\xA5"};
    for (const char* text : texts) {
        EXPECT_EQ(std::string(text), string_util::wchar2utf8(string_util::utf82wchar(text).c_str()))
            << text;
    }
}

}  // namespace
