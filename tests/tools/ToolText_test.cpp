// The ftpdisk command's location reading, password masking, path placement
// and number formatting, as tables of real inputs.
#include <gtest/gtest.h>

#include "ToolFormat.h"
#include "ToolLocation.h"

using namespace ftpdisk_tool;

namespace {

struct LocationCase {
    const char* text;
    const char* user;
    const char* password;
    const char* server;
    const char* base;
};

TEST(ToolLocation, ReadsLocationsTheWayTheRegistryDoes) {
    const LocationCase cases[] = {
        {"rec(pw)@ftp://10.0.0.5/video/", "rec", "pw", "10.0.0.5", "/video"},
        {"rec(pw)@ftp://127.0.0.1:2121/video", "rec", "pw", "127.0.0.1:2121", "/video"},
        {"rec(pw)@ftp://host", "rec", "pw", "host", ""},
        {"rec(pw)@ftp://host/", "rec", "pw", "host", ""},
        {"a*(b(pw)@ftp://h/p", "a(b", "pw", "h", "/p"},
        {"rec(p@ss)@ftp://h/p", "rec", "p@ss", "h", "/p"},
        {"rec(a(b)c)@ftp://h/p", "rec", "a(b)c", "h", "/p"},
        {"rec(pw)@ftp://h\\dir\\sub", "rec", "pw", "h", "/dir/sub"},
        {"rec(pw)@ftp://h//a//b", "rec", "pw", "h", "/a//b"},
        {"rec()@ftp://h/p", "rec", "", "h", "/p"},
        {"rec(pw)@ftp://h:65535/p", "rec", "pw", "h:65535", "/p"},
        {"rec(pw)@ftp://h:1/p", "rec", "pw", "h:1", "/p"},
        // A service name instead of a number, as the services database knows it.
        {"rec(pw)@ftp://h:ftp/p", "rec", "pw", "h:ftp", "/p"},
    };
    for (const LocationCase& c : cases) {
        Location location;
        std::string problem;
        ASSERT_TRUE(parseLocation(c.text, location, problem)) << c.text << ": " << problem;
        EXPECT_EQ(c.user, location.user) << c.text;
        EXPECT_EQ(c.password, location.password) << c.text;
        EXPECT_EQ(c.server, location.server) << c.text;
        EXPECT_EQ(c.base, location.base) << c.text;
        EXPECT_EQ(c.text, location.text) << c.text;
    }
}

TEST(ToolLocation, RefusesTextsThatAreNotLocationsWithAReason) {
    const struct {
        const char* text;
        const char* reason;
    } cases[] = {
        {"", "no \"@\""},
        {"(pw)@ftp://h/p", "empty user name"},
        {"rec@ftp://h/p", "no \"(\""},
        {"rec(pw@ftp://h/p", "no \")\""},
        {"rec(pw)@h/p", "no \"ftp://\""},
        {"rec(pw)@ftp:///p", "empty server"},
        {"rec(pw)@ftp://a-very-long-host-name-for-a-recorder.example:21/p", "server address too long"},
        {"rec(an-overlong-password-of-24)@ftp://h/p", "password too long"},
        {"a-user-name-of-thirty-two-chars!(pw)@ftp://h/p", "user name too long"},
        // The module would take the low 16 bits of the number (99999 -> 34463),
        // the digits before any other character (12ab -> 12), or look up an
        // empty or unknown service name and fail only when connecting.
        {"rec(pw)@ftp://h:99999/p", "port 99999 is not between 1 and 65535"},
        {"rec(pw)@ftp://h:0/p", "port 0 is not between 1 and 65535"},
        {"rec(pw)@ftp://h:12ab/p", "port \"12ab\" is not a number"},
        {"rec(pw)@ftp://h:/p", "empty port after \":\""},
        {"rec(pw)@ftp://h:no-such-service/p", "unknown port name \"no-such-service\""},
        {"rec(pw)@ftp://:21/p", "empty server address"},
    };
    for (const auto& c : cases) {
        Location location;
        std::string problem;
        EXPECT_FALSE(parseLocation(c.text, location, problem)) << c.text;
        EXPECT_NE(std::string::npos, problem.find(c.reason)) << c.text << ": " << problem;
    }
}

TEST(ToolLocation, MaskedFormNeverShowsThePassword) {
    Location location;
    std::string problem;
    ASSERT_TRUE(parseLocation("a*(b(s3cret)@ftp://h:21/video/", location, problem)) << problem;
    EXPECT_EQ("a*(b(***)@ftp://h:21/video", location.masked());
}

TEST(ToolLocation, MasksWhateverStandsWhereAPasswordCouldBeInBrokenTexts) {
    const struct {
        const char* text;
        const char* masked;
    } cases[] = {
        {"rec(s3cret)@ftp://h/p", "rec(***)@ftp://h/p"},
        {"rec(s3cret@ftp://h/p", "rec(***@ftp://h/p"},
        {"rec(s3cret)ftp://h/p", "rec(***)ftp://h/p"},
        {"rec(s3cret", "rec(***"},
        {"rec:s3cret@ftp://h/p", "rec:***@ftp://h/p"},
        {"ftp://rec:s3cret@h/p", "ftp:***@h/p"},
        {"rec(p@ss)@ftp://h", "rec(***)@ftp://h"},
        {"plain-text", "plain-text"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.masked, maskLocationText(c.text)) << c.text;
    }
}

TEST(ToolLocation, PlacesPathArgumentsBelowTheBase) {
    const struct {
        const char* base;
        const char* relative;
        const char* remote;
    } cases[] = {
        {"/video", "", "/video"},
        {"/video", ".", "/video"},
        {"/video", "/", "/video"},
        {"/video", "a/b.dat", "/video/a/b.dat"},
        {"/video", "/a/b.dat", "/video/a/b.dat"},
        {"/video", "a//b/./c/", "/video/a/b/c"},
        {"/video", "a\\b", "/video/a/b"},
        {"", "", "/"},
        {"", "x", "/x"},
        {"", "/x/", "/x"},
    };
    for (const auto& c : cases) {
        std::string out;
        std::string problem;
        ASSERT_TRUE(remotePathBelow(c.base, c.relative, out, problem))
            << c.base << " + " << c.relative << ": " << problem;
        EXPECT_EQ(c.remote, out) << c.base << " + " << c.relative;
    }
}

TEST(ToolLocation, RefusesPathsThatLeaveTheLocationOrCannotBeSent) {
    std::string out;
    std::string problem;
    EXPECT_FALSE(remotePathBelow("/video", "../etc", out, problem));
    EXPECT_NE(std::string::npos, problem.find("\"..\"")) << problem;
    EXPECT_FALSE(remotePathBelow("/video", "a/../../b", out, problem));

    const std::string fits(250 - 7, 'x');  // "/video/" is 7 bytes
    EXPECT_TRUE(remotePathBelow("/video", fits, out, problem)) << problem;
    EXPECT_EQ(250u, out.size());
    EXPECT_FALSE(remotePathBelow("/video", fits + "y", out, problem));
    EXPECT_NE(std::string::npos, problem.find("too long")) << problem;
}

TEST(ToolLocation, FindsTheFirstNameWithABlank) {
    const struct {
        const char* relative;
        const char* name;
    } cases[] = {
        {"2026-11-22/cam01/00001_120000.dat", ""},
        {"", ""},
        {"/", ""},
        {"my clip.bin", "my clip.bin"},
        {"a/b c/d e", "b c"},
        {"a\\tab\there", "tab\there"},
        {" lead/x", " lead"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.name, nameWithBlank(c.relative)) << c.relative;
    }
}

TEST(ToolFormat, PercentilesUseTheNearestRank) {
    const std::vector<double> values = {5, 1, 4, 2, 3, 10, 9, 8, 7, 6};
    EXPECT_EQ(5, percentile(values, 50));
    EXPECT_EQ(9, percentile(values, 90));
    EXPECT_EQ(10, percentile(values, 99));
    EXPECT_EQ(10, percentile(values, 100));
    EXPECT_EQ(1, percentile(values, 0));
    EXPECT_EQ(0, percentile({}, 50));
    EXPECT_EQ(7, percentile({7}, 99));
}

TEST(ToolFormat, SizesReadAsPeopleWriteThem) {
    const struct {
        double bytes;
        const char* text;
    } cases[] = {
        {0, "0 B"},       {999, "999 B"},          {1023, "1023 B"},
        {1024, "1.00 KiB"}, {1536, "1.50 KiB"},    {15000000, "14.3 MiB"},
        {1073741824.0 * 300, "300 GiB"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.text, humanBytes(c.bytes)) << c.bytes;
    }
    EXPECT_EQ("1:15", humanClock(75));
    EXPECT_EQ("1:02:05", humanClock(3725));
    EXPECT_EQ("12.3 ms", humanMillis(0.0123));
}

TEST(ToolFormat, ProgressLineShowsBarBytesRateAndTimeLeft) {
    // 4 MiB of 10 MiB after 2 s: 2 MiB/s, 3 s left.
    const std::string line = progressLine(4 << 20, 10 << 20, 2.0, 100);
    EXPECT_NE(std::string::npos, line.find(" 40%")) << line;
    EXPECT_NE(std::string::npos, line.find("4.00 MiB / 10.0 MiB")) << line;
    EXPECT_NE(std::string::npos, line.find("2.00 MiB/s")) << line;
    EXPECT_NE(std::string::npos, line.find("ETA 0:03")) << line;
    EXPECT_EQ('[', line[0]) << line;
    EXPECT_LE(line.size(), 100u) << line;

    const std::string unknown = progressLine(1536, -1, 1.0, 100);
    EXPECT_EQ(std::string::npos, unknown.find('%')) << unknown;
    EXPECT_NE(std::string::npos, unknown.find("1.50 KiB")) << unknown;

    EXPECT_LE(progressLine(4 << 20, 10 << 20, 2.0, 30).size(), 30u);
}

TEST(ToolFormat, NumbersAreWholeOrRefused) {
    long long whole = 0;
    EXPECT_TRUE(parseInt("12", whole));
    EXPECT_EQ(12, whole);
    for (const char* bad : {"", "1x", " 1", "x", "99999999999999999999"}) {
        EXPECT_FALSE(parseInt(bad, whole)) << bad;
    }
    double real = 0;
    EXPECT_TRUE(parsePositiveReal("0.5", real));
    EXPECT_EQ(0.5, real);
    for (const char* bad : {"", "0", "-1", "nan", "inf", "2Mbit", " 2"}) {
        EXPECT_FALSE(parsePositiveReal(bad, real)) << bad;
    }
}

}  // namespace
