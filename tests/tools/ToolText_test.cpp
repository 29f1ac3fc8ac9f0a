// The ftpdisk command's location reading, password masking and lookup, path
// placement, local replacement files and number formatting, as tables of
// real inputs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Credentials.h"
#include "LocalReplacement.h"
#include "ToolFormat.h"
#include "ToolLocation.h"
#include "location/FTPPath.h"
#include "support/FdCount.h"

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
        EXPECT_TRUE(location.passwordGiven) << c.text;
        EXPECT_EQ(c.server, location.server) << c.text;
        EXPECT_EQ(c.base, location.base) << c.text;
        EXPECT_EQ(c.text, location.text) << c.text;
    }
}

// One table for the registry's parser and the tool's reading of a location
// text: where the registry takes a text, the tool reads the same user,
// password, server and path, or refuses it with the reason given here (its
// own checks: a port the module would read otherwise, texts the store's fields
// cannot hold); where the registry refuses a text that carries a password,
// the tool refuses it too.
TEST(ToolLocation, TheToolAndTheRegistryReadOneTableOfLocationsAlike) {
    const std::string longName(32, 'n');
    const std::string longServer = "h" + std::string(31, '1');
    const std::string longPassword(20, 'p');
    const std::string texts[][2] = {
        {"rec(pw)@ftp://10.0.0.5/video/", ""},
        {"rec(pw)@ftp://127.0.0.1:2121/video", ""},
        {"rec(pw)@ftp://host", ""},
        {"rec(pw)@ftp://host///", ""},
        {"a*(b(pw)@ftp://h/p", ""},
        {"a**b(pw)@ftp://h/p", ""},
        {"a*@b(pw)@ftp://h/p", ""},
        {"rec(p@ss)@ftp://h/p", ""},
        {"rec(a(b)c)@ftp://h/p", ""},
        {"rec(pw)@ftp://h\\dir\\sub", ""},
        {"rec(pw)@ftp://h//a//b", ""},
        {"rec()@ftp://h/p", ""},
        {"rec(pw)@ftp://h:ftp/p", ""},
        {"rec(pw)@x@ftp://h/p", ""},
        {"rec(pw)@ftps://10.0.0.5/video/", ""},
        {"rec(pw)@ftps://h:990/p", ""},
        {"a*(b(p@ss)@ftps://h\\dir", ""},
        {"rec(pw)@ftps:/h/p", "no \"ftp://\" or \"ftps://\""},
        {"(pw)@ftp://h/p", "empty user name"},
        {"rec(pw@ftp://h/p", "no \")\""},
        {"a)b(pw@ftp://h/p", "no \")\""},
        {"rec(pw)@h/p", "no \"ftp://\""},
        {"rec(pw)ftp://h/p", "no \"@\""},
        {"", "no \"@\""},
        {"rec(pw)@ftp://h:0/p", "not between 1 and 65535"},
        {"rec(pw)@ftp://h:65536/p", "not between 1 and 65535"},
        {"rec(pw)@ftp://h:21x/p", "not a number"},
        {"rec(pw)@ftp://h:/p", "empty port"},
        {"rec(pw)@ftp:///p", "empty server address"},
        {"rec(pw)@ftp://h:no-such-service/p", "unknown port name"},
        {longName + "(pw)@ftp://h/p", "user name too long"},
        {"rec(pw)@ftp://" + longServer + "/p", "server address too long"},
        {"rec(" + longPassword + ")@ftp://h/p", "password too long"},
    };
    for (const auto& row : texts) {
        const std::string& text = row[0];
        const std::string& refusal = row[1];
        FTPPath registry;
        const bool registryReads = registry.create(text) == 1;
        Location tool;
        std::string problem;
        const bool toolReads = parseLocation(text, tool, problem);
        if (refusal.empty()) {
            ASSERT_TRUE(registryReads) << text;
            ASSERT_TRUE(toolReads) << text << ": " << problem;
            EXPECT_EQ(tool.user, registry.getUserName()) << text;
            EXPECT_EQ(tool.password, registry.getPassword()) << text;
            EXPECT_EQ(tool.server, registry.getServerAddress()) << text;
            EXPECT_EQ(tool.base, registry.getPath()) << text;
            EXPECT_EQ(tool.tls, registry.isTls()) << text;
            EXPECT_TRUE(tool.passwordGiven) << text;
        } else {
            EXPECT_FALSE(toolReads) << text;
            EXPECT_NE(problem.find(refusal), std::string::npos) << text << ": " << problem;
        }
    }
}

TEST(ToolLocation, AnFtpsLocationKeepsItsSchemeInEveryFormTheToolMakes) {
    Location location;
    std::string problem;
    ASSERT_TRUE(parseLocation("rec@ftps://10.0.0.5:2121/video/", location, problem)) << problem;
    EXPECT_TRUE(location.tls);
    EXPECT_EQ("10.0.0.5:2121", location.server);
    EXPECT_EQ("/video", location.base);
    EXPECT_EQ("rec(***)@ftps://10.0.0.5:2121/video", location.masked());
    ASSERT_TRUE(location.setPassword("s3cret", problem)) << problem;
    EXPECT_EQ("rec(s3cret)@ftps://10.0.0.5:2121/video/", location.text);
    FTPPath registry;
    ASSERT_EQ(1, registry.create(location.text));
    EXPECT_TRUE(registry.isTls());
    EXPECT_EQ("s3cret", registry.getPassword());

    ASSERT_TRUE(parseLocation("rec(pw)@ftp://10.0.0.5/video", location, problem)) << problem;
    EXPECT_FALSE(location.tls);
    EXPECT_EQ("rec(***)@ftp://10.0.0.5/video", location.masked());
    // "ftps://" in the path of a plain location is a path, not the scheme.
    ASSERT_TRUE(parseLocation("rec(pw)@ftp://h/ftps://x", location, problem)) << problem;
    EXPECT_FALSE(location.tls);
}

TEST(ToolLocation, ReadsLocationsWithoutPasswordAndPutsTheOneFoundElsewhereIn) {
    const struct {
        const char* text;
        const char* user;
        const char* server;
        const char* base;
        const char* password;
        const char* registryText;  // what the registry is given
    } cases[] = {
        {"rec@ftp://10.0.0.5:21/video", "rec", "10.0.0.5:21", "/video", "s3cret",
         "rec(s3cret)@ftp://10.0.0.5:21/video"},
        {"rec@ftp://h", "rec", "h", "", "pw", "rec(pw)@ftp://h"},
        {"a*(b*@c@ftp://h\\d/", "a(b@c", "h", "/d", "pw", "a*(b*@c(pw)@ftp://h\\d/"},
        // Any password reads back as it was: the registry takes it up to the
        // last ")" before the last "@".
        {"rec@ftp://h/p", "rec", "h", "/p", "a)b(c@d", "rec(a)b(c@d)@ftp://h/p"},
        {"rec@ftp://h/p", "rec", "h", "/p", "", "rec()@ftp://h/p"},
    };
    for (const auto& c : cases) {
        Location location;
        std::string problem;
        ASSERT_TRUE(parseLocation(c.text, location, problem)) << c.text << ": " << problem;
        EXPECT_FALSE(location.passwordGiven) << c.text;
        EXPECT_EQ(c.user, location.user) << c.text;
        EXPECT_EQ("", location.password) << c.text;
        EXPECT_EQ(c.server, location.server) << c.text;
        EXPECT_EQ(c.base, location.base) << c.text;
        ASSERT_TRUE(location.setPassword(c.password, problem)) << c.text << ": " << problem;
        EXPECT_EQ(c.registryText, location.text) << c.text;
        EXPECT_EQ(c.password, location.password) << c.text;
        // The registry's own reading of the text gives the same fields.
        Location again;
        ASSERT_TRUE(parseLocation(location.text, again, problem))
            << location.text << ": " << problem;
        EXPECT_EQ(c.user, again.user) << location.text;
        EXPECT_EQ(c.password, again.password) << location.text;
        EXPECT_EQ(c.server, again.server) << location.text;
        EXPECT_EQ(c.base, again.base) << location.text;
    }
    Location location;
    std::string problem;
    ASSERT_TRUE(parseLocation("rec@ftp://h/p", location, problem)) << problem;
    EXPECT_FALSE(location.setPassword(std::string(20, 'x'), problem));
    EXPECT_EQ("password too long (20 characters, at most 19)", problem);
    EXPECT_FALSE(location.setPassword("pw\nDELE x", problem));
    EXPECT_EQ("the password holds a control character", problem);
    EXPECT_EQ("rec@ftp://h/p", location.text);
}

TEST(ToolLocation, FindsWhereThePasswordStandsForBlankingIt) {
    const struct {
        const char* text;
        const char* password;  // nullptr: none
    } cases[] = {
        {"rec(pw)@ftps://h/p", "pw"},     {"rec(pw)@ftp://h/p", "pw"},
        {"a*(b(p@ss)@ftp://h/p", "p@ss"}, {"rec(a(b)c)@ftp://h/p", "a(b)c"},
        {"rec()@ftp://h/p", ""},          {"rec@ftp://h/p", nullptr},
        {"rec(pw@ftp://h/p", nullptr},    {"clip(1).bin", nullptr},
        {"--cameras", nullptr},
    };
    for (const auto& c : cases) {
        std::size_t begin = 0;
        std::size_t length = 0;
        const std::string text = c.text;
        ASSERT_EQ(c.password != nullptr, findPassword(text, begin, length)) << text;
        if (c.password != nullptr) {
            EXPECT_EQ(c.password, text.substr(begin, length)) << text;
        }
    }
}

TEST(ToolLocation, RefusesTextsThatAreNotLocationsWithAReason) {
    const struct {
        const char* text;
        const char* reason;
    } cases[] = {
        {"", "no \"@\""},
        {"(pw)@ftp://h/p", "empty user name"},
        {"@ftp://h/p", "empty user name"},
        {"rec:pw@ftp://h/p", "\":\" in the user name"},
        {"rec(pw\r\nDELE x)@ftp://h/p", "the password holds a control character"},
        {"rec\r\nDELE x(pw)@ftp://h/p", "the user name holds a control character"},
        {"rec(pw@ftp://h/p", "no \")\""},
        {"rec(pw)@h/p", "no \"ftp://\" or \"ftps://\" before the server"},
        {"rec(pw)@ftp:///p", "empty server"},
        {"rec(pw)@ftps:///p", "empty server"},
        {"rec(pw)@ftp://a-very-long-host-name-for-a-recorder.example:21/p",
         "server address too long"},
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
        {"rec(s3cret)ftps://h/p", "rec(***)ftps://h/p"},
        {"rec(s3cret@ftps://h/p", "rec(***@ftps://h/p"},
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

TEST(Netrc, FindsThePasswordOfTheServersEntryForTheUser) {
    const struct {
        const char* netrc;
        const char* server;
        const char* password;  // nullptr: none found
    } cases[] = {
        {"machine nas login rec password s3cret\n", "nas", "s3cret"},
        {"machine nas login rec password s3cret\n", "nas:2121", "s3cret"},
        {"machine nas:2121 login rec password s3cret\n", "nas:2121", "s3cret"},
        {"machine nas:2121 login rec password s3cret\n", "nas", nullptr},
        {"machine nas:2121 login rec password s3cret\n", "nas:21", nullptr},
        // The entry with the port first, then the host alone, then default,
        // whatever their order in the file.
        {"default login rec password d\nmachine nas login rec password h\n"
         "machine nas:21 login rec password hp\n",
         "nas:21", "hp"},
        {"default login rec password d\nmachine nas login rec password h\n", "nas:21", "h"},
        {"machine other login rec password o\ndefault login rec password d\n", "nas", "d"},
        // Another user's entry is passed over; one without login serves anyone.
        {"machine nas login eve password e\nmachine nas login rec password r\n", "nas", "r"},
        {"machine nas login eve password e\n", "nas", nullptr},
        {"machine nas password any\n", "nas", "any"},
        {"machine nas login rec\n", "nas", nullptr},
        // Layout: one line, tabs and line ends, quoted values with escapes.
        {"machine nas login rec password p1 machine nas2 login rec password p2", "nas2", "p2"},
        {"machine nas\n\tlogin rec\n\tpassword\tp3\n", "nas", "p3"},
        {"machine nas login rec password \"two words\"", "nas", "two words"},
        {"machine nas login \"rec\" password \"q\\\"\\\\x\"", "nas", "q\"\\x"},
        {"machine nas login rec account acc password p4", "nas", "p4"},
        // A macro body is skipped up to its empty line, whatever it holds.
        {"macdef init\nmachine nas login rec password m\n\nmachine nas login rec password p5\n",
         "nas", "p5"},
        {"machine nas login rec password p6\nmacdef x\ncd /\n", "nas", "p6"},
        {"", "nas", nullptr},
        {"login rec password p7\n", "nas", nullptr},
    };
    for (const auto& c : cases) {
        std::string password = "untouched";
        const bool found = findNetrcPassword(c.netrc, c.server, "rec", password);
        EXPECT_EQ(c.password != nullptr, found) << c.netrc << " for " << c.server;
        EXPECT_EQ(c.password != nullptr ? c.password : "untouched", password)
            << c.netrc << " for " << c.server;
    }
}

class LocalReplacementTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/ftpdisk-replacement-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(pattern));
        dir_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
            all.push_back(entry.path().filename().string());
        }
        std::sort(all.begin(), all.end());
        return all;
    }
    std::string read(const std::string& name) const {
        std::ifstream in(dir_ + "/" + name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    void write(const std::string& name, const std::string& text) const {
        std::ofstream(dir_ + "/" + name, std::ios::binary) << text;
    }

    std::string dir_;
};

TEST_F(LocalReplacementTest, ReplacesTheTargetOnlyOnCommitAndTouchesNothingElse) {
    write("seg.dat", "old");
    write("seg.dat.part", "the user's own");
    const int descriptors = ftptest::openDescriptorCount();
    LocalReplacement out(dir_ + "/seg.dat");
    std::string problem;
    ASSERT_TRUE(out.create(problem)) << problem;
    EXPECT_EQ(0u, out.temporaryPath().rfind(dir_ + "/.seg.dat.ftpdisk-", 0)) << out.temporaryPath();
    ASSERT_EQ(3, ::write(out.descriptor(), "new", 3));
    EXPECT_EQ("old", read("seg.dat"));
    ASSERT_TRUE(out.commit(problem)) << problem;
    EXPECT_EQ(-1, out.descriptor());
    EXPECT_EQ("new", read("seg.dat"));
    EXPECT_EQ("the user's own", read("seg.dat.part"));
    EXPECT_EQ((std::vector<std::string>{"seg.dat", "seg.dat.part"}), names());
    EXPECT_EQ(descriptors, ftptest::openDescriptorCount());
}

TEST_F(LocalReplacementTest, ClosesAndRemovesOnlyItsOwnFileOnEveryOtherWayOut) {
    write("seg.dat", "old");
    write("seg.dat.part", "the user's own");
    const int descriptors = ftptest::openDescriptorCount();
    std::string problem;
    {
        // Going out of scope without a commit, as a failed download does.
        LocalReplacement out(dir_ + "/seg.dat");
        ASSERT_TRUE(out.create(problem)) << problem;
        ASSERT_EQ(3, ::write(out.descriptor(), "new", 3));
        EXPECT_EQ(descriptors + 1, ftptest::openDescriptorCount());
    }
    EXPECT_EQ(descriptors, ftptest::openDescriptorCount());
    {
        LocalReplacement out(dir_ + "/seg.dat");
        ASSERT_TRUE(out.create(problem)) << problem;
        out.abandon();
        EXPECT_EQ(-1, out.descriptor());
        EXPECT_EQ(descriptors, ftptest::openDescriptorCount());
    }
    {
        // A rename that fails (the target is a non-empty directory) removes
        // the temporary file too.
        std::filesystem::create_directory(dir_ + "/busy");
        write("busy/inside", "x");
        LocalReplacement out(dir_ + "/busy");
        ASSERT_TRUE(out.create(problem)) << problem;
        EXPECT_FALSE(out.commit(problem));
        EXPECT_NE(std::string::npos, problem.find("cannot rename " + dir_ + "/.busy.ftpdisk-"))
            << problem;
        EXPECT_EQ(descriptors, ftptest::openDescriptorCount());
    }
    EXPECT_EQ("old", read("seg.dat"));
    EXPECT_EQ("the user's own", read("seg.dat.part"));
    EXPECT_EQ((std::vector<std::string>{"busy", "seg.dat", "seg.dat.part"}), names());
}

TEST_F(LocalReplacementTest, ADirectoryThatRefusesNewFilesCreatesNothing) {
    LocalReplacement out(dir_ + "/missing/seg.dat");
    std::string problem;
    const int descriptors = ftptest::openDescriptorCount();
    EXPECT_FALSE(out.create(problem));
    EXPECT_EQ("cannot create a temporary file beside " + dir_ +
                  "/missing/seg.dat: No such file or directory",
              problem);
    EXPECT_EQ(-1, out.descriptor());
    EXPECT_EQ(descriptors, ftptest::openDescriptorCount());
}

TEST(ToolFormat, JsonStringsStayValidWhateverBytesTheyHold) {
    EXPECT_EQ("\"\"", jsonString(""));
    EXPECT_EQ("\"open: 421 Too many connections (3) from this IP\"",
              jsonString("open: 421 Too many connections (3) from this IP"));
    EXPECT_EQ("\"say \\\"hi\\\" \\\\ bye\"", jsonString("say \"hi\" \\ bye"));
    EXPECT_EQ("\"a\\u000d\\u000ab\\u0009\\u0000\"", jsonString(std::string("a\r\nb\t\0", 6)));
    EXPECT_EQ("\"caf\\u00c3\\u00a9 \\u00ff\\u007f\"", jsonString("caf\xc3\xa9 \xff\x7f"));
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
        {0, "0 B"},
        {999, "999 B"},
        {1023, "1023 B"},
        {1024, "1.00 KiB"},
        {1536, "1.50 KiB"},
        {15000000, "14.3 MiB"},
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
