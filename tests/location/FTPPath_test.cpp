// Location text: parsing, escaping and formatting.
#include <gtest/gtest.h>

#include <string>

#include "location/FTPPath.h"

namespace {

struct Parsed {
    const char* text;
    int result;
    const char* user;
    const char* password;
    const char* server;
    const char* path;
};

void expectParsed(const Parsed& row) {
    FTPPath location;
    EXPECT_EQ(row.result, location.create(row.text)) << "text: " << row.text;
    if (row.result == 0) {
        return;
    }
    EXPECT_EQ(row.user, location.getUserName()) << "text: " << row.text;
    EXPECT_EQ(row.password, location.getPassword()) << "text: " << row.text;
    EXPECT_EQ(row.server, location.getServerAddress()) << "text: " << row.text;
    EXPECT_EQ(row.path, location.getPath()) << "text: " << row.text;
}

}  // namespace

TEST(FTPPathCreate, ReadsUserPasswordServerAndPathOfWellFormedTexts) {
    const Parsed rows[] = {
        {"rec(pw)@ftp://10.0.0.5/video/", 1, "rec", "pw", "10.0.0.5", "/video"},
        {"rec(pw)@ftp://10.0.0.5:2121/video", 1, "rec", "pw", "10.0.0.5:2121", "/video"},
        {"rec(pw)@ftp://host", 1, "rec", "pw", "host", ""},
        {"rec(pw)@ftp://host/", 1, "rec", "pw", "host", ""},
        {"rec(pw)@ftp://host///", 1, "rec", "pw", "host", ""},
        {"a*(b(pw)@ftp://h/p", 1, "a(b", "pw", "h", "/p"},
        {"rec(p@ss)@ftp://h/p", 1, "rec", "p@ss", "h", "/p"},
        {"rec(pw)@ftp://h\\dir\\sub", 1, "rec", "pw", "h", "/dir/sub"},
        {"rec(pw)@ftp://h\\\\dir\\\\sub", 1, "rec", "pw", "h", "/dir//sub"},
        {"rec(pw)@ftp://h//a//b", 1, "rec", "pw", "h", "/a//b"},
        {"rec(pw)@ftp://nvr-store:ftp/cam1/2020", 1, "rec", "pw", "nvr-store:ftp", "/cam1/2020"},
    };
    for (const Parsed& row : rows) expectParsed(row);
}

TEST(FTPPathCreate, RefusesTextsWithoutUserBracketsAtOrMarker) {
    const Parsed rows[] = {
        {"(pw)@ftp://h/p", 0, "", "", "", ""},      // empty user name
        {"rec@ftp://h/p", 0, "", "", "", ""},       // no "("
        {"rec(pw@ftp://h/p", 0, "", "", "", ""},    // no ")"
        {"rec(pw)@h/p", 0, "", "", "", ""},         // no "ftp://"
        {"", 0, "", "", "", ""},                    // empty text
        {"rec(pw)ftp://h/p", 0, "", "", "", ""},    // no "@"
        {"rec(pw)@", 0, "", "", "", ""},            // empty server part
        {"rec*(pw)@ftp://h/p", 0, "", "", "", ""},  // the only "(" is escaped
        {"a)b(pw@ftp://h/p", 0, "", "", "", ""},    // the only ")" is before "("
    };
    for (const Parsed& row : rows) expectParsed(row);
}

TEST(FTPPathCreate, UnescapesEveryCharacterAfterAStar) {
    const Parsed rows[] = {
        {"a**b(pw)@ftp://h/p", 1, "a*b", "pw", "h", "/p"},
        {"a*@b(pw)@ftp://h/p", 1, "a@b", "pw", "h", "/p"},
        {"a*xb(pw)@ftp://h/p", 1, "axb", "pw", "h", "/p"},
        {"a*)b(pw)@ftp://h/p", 1, "a)b", "pw", "h", "/p"},
        {"*((pw)@ftp://h/p", 1, "(", "pw", "h", "/p"},
    };
    for (const Parsed& row : rows) expectParsed(row);
}

TEST(FTPPathCreate, PasswordRunsToTheLastClosingBracketAndIsNeverUnescaped) {
    const Parsed rows[] = {
        {"rec(p(w))@ftp://h/p", 1, "rec", "p(w)", "h", "/p"},
        {"rec(a)b)@ftp://h/p", 1, "rec", "a)b", "h", "/p"},
        {"rec(p**w)@ftp://h/p", 1, "rec", "p**w", "h", "/p"},
        {"rec()@ftp://h/p", 1, "rec", "", "h", "/p"},
        {"rec(pw)x@ftp://h/p", 1, "rec", "pw", "h", "/p"},
    };
    for (const Parsed& row : rows) expectParsed(row);
}

TEST(FTPPathCreate, AnAtSignAfterTheMarkerSplitsThereInstead) {
    // The text form has no escape for "@" in the server part: the last "@"
    // is taken, the credentials then hold "ftp://" and the server part lacks it.
    FTPPath location;
    EXPECT_EQ(0, location.create("rec(pw)@ftp://h/a@b"));
}

TEST(FTPPathCreate, AcceptsAnEmptyServerAddress) {
    const Parsed row = {"rec(pw)@ftp:///video", 1, "rec", "pw", "", "/video"};
    expectParsed(row);
}

TEST(FTPPathCreate, KeepsFieldsOfStepsThatSucceededBeforeAFailure) {
    FTPPath location("old-server", "old-user", "old-pw", "/old");
    EXPECT_EQ(0, location.create("rec(pw)@h/p"));
    EXPECT_EQ("rec", location.getUserName());
    EXPECT_EQ("pw", location.getPassword());
    EXPECT_EQ("old-server", location.getServerAddress());
    EXPECT_EQ("/old", location.getPath());
}

TEST(FTPPathToString, GivesBackTheTextOfAParsedLocation) {
    const char* texts[] = {
        "a*(b(pw)@ftp://h/p",  "rec(pw)@ftp://10.0.0.5:2121/video",
        "rec(pw)@ftp://host",  "a**b*@c(p(w))@ftp://h/x/y",
        "rec(p@ss)@ftp://h/p",
    };
    for (const char* text : texts) {
        FTPPath location;
        ASSERT_EQ(1, location.create(text)) << "text: " << text;
        EXPECT_EQ(text, location.toString()) << "text: " << text;
    }
}

TEST(FTPPathToString, NormalisesSlashesSoTheSecondParseGivesTheSameFields) {
    const char* texts[] = {
        "rec(pw)@ftp://10.0.0.5/video/",
        "rec(pw)@ftp://h\\dir\\sub\\",
        "rec(pw)@ftp://h//a/b",
        "rec(pw)@ftp://host/",
    };
    for (const char* text : texts) {
        FTPPath first;
        ASSERT_EQ(1, first.create(text)) << "text: " << text;
        FTPPath second;
        ASSERT_EQ(1, second.create(first.toString())) << "text: " << text;
        EXPECT_EQ(first.getUserName(), second.getUserName()) << "text: " << text;
        EXPECT_EQ(first.getPassword(), second.getPassword()) << "text: " << text;
        EXPECT_EQ(first.getServerAddress(), second.getServerAddress()) << "text: " << text;
        EXPECT_EQ(first.getPath(), second.getPath()) << "text: " << text;
        EXPECT_EQ(first.toString(), second.toString()) << "text: " << text;
    }
    FTPPath location;
    ASSERT_EQ(1, location.create("rec(pw)@ftp://10.0.0.5/video/"));
    EXPECT_EQ("rec(pw)@ftp://10.0.0.5/video", location.toString());
}

TEST(FTPPathToString, APathThatKeptADoubledSlashLosesItOnTheNextParse) {
    // Each parse folds one "//": the text of "h//a//b" is "h/a//b", which
    // parses to "/a/b". Hosts that compare locations by text should not write
    // doubled slashes.
    FTPPath first;
    ASSERT_EQ(1, first.create("rec(pw)@ftp://h//a//b"));
    EXPECT_EQ("/a//b", first.getPath());
    EXPECT_EQ("rec(pw)@ftp://h/a//b", first.toString());
    FTPPath second;
    ASSERT_EQ(1, second.create(first.toString()));
    EXPECT_EQ("/a/b", second.getPath());
    EXPECT_EQ("rec(pw)@ftp://h/a/b", second.toString());
}

TEST(FTPPathToString, EscapesUserNamesBuiltFromFields) {
    FTPPath location("10.0.0.5:2121", "rec", "pw", "/video");
    EXPECT_EQ("rec(pw)@ftp://10.0.0.5:2121/video", location.toString());

    const std::string users[] = {"a(b", "a*b", "a@b", "(*@)", "a)b", "*"};
    for (const std::string& user : users) {
        FTPPath built("h", user, "pw", "/p");
        FTPPath parsed;
        ASSERT_EQ(1, parsed.create(built.toString())) << "user: " << user;
        EXPECT_EQ(user, parsed.getUserName()) << "user: " << user;
        EXPECT_EQ("pw", parsed.getPassword()) << "user: " << user;
    }
}

TEST(FTPPathFields, DefaultIsEmptyAndSettersStoreTextsUnchanged) {
    FTPPath location;
    EXPECT_EQ("", location.getServerAddress());
    EXPECT_EQ("", location.getUserName());
    EXPECT_EQ("", location.getPassword());
    EXPECT_EQ("", location.getPath());
    location.setServerAddress("h:21");
    location.setUserName("u(");
    location.setPassword("p)");
    location.setPath("/a//b/");
    EXPECT_EQ("h:21", location.getServerAddress());
    EXPECT_EQ("u(", location.getUserName());
    EXPECT_EQ("p)", location.getPassword());
    EXPECT_EQ("/a//b/", location.getPath());
    EXPECT_EQ("u*((p))@ftp://h:21/a//b/", location.toString());
}

TEST(FTPPathHelpers, SplitInfoCutsAtTheLastAtSign) {
    std::string user = "x", server = "y";
    EXPECT_NE(0, NS_FTPPath::splitInfo("a@b@ftp://h", user, server));
    EXPECT_EQ("a@b", user);
    EXPECT_EQ("ftp://h", server);
    EXPECT_NE(0, NS_FTPPath::splitInfo("@", user, server));
    EXPECT_EQ("", user);
    EXPECT_EQ("", server);
    EXPECT_EQ(0, NS_FTPPath::splitInfo("", user, server));
    EXPECT_EQ(0, NS_FTPPath::splitInfo("no-at", user, server));
}

TEST(FTPPathHelpers, ParseUserNameReturnsThePositionOfTheClosingBracket) {
    std::string user = "stale";
    EXPECT_EQ(3, NS_FTPPath::parseUserName("rec(pw)", user));
    EXPECT_EQ("rec", user);
    EXPECT_EQ(4, NS_FTPPath::parseUserName("a*(b(pw)", user));
    EXPECT_EQ("a(b", user);
    EXPECT_EQ(0, NS_FTPPath::parseUserName("(pw)", user));
    EXPECT_EQ("", user);
    EXPECT_EQ(0, NS_FTPPath::parseUserName("", user));
    EXPECT_EQ(0, NS_FTPPath::parseUserName("rec", user));
    // A star at the very end stands for itself; there is still no "(".
    EXPECT_EQ(0, NS_FTPPath::parseUserName("rec*", user));
    EXPECT_EQ("rec*", user);
}

TEST(FTPPathHelpers, ConvertUserNameEscapesOnlyOpeningBracketStarAndAt) {
    std::string escaped = "stale";
    NS_FTPPath::convertUserName("a(b)c*d@e", escaped);
    EXPECT_EQ("a*(b)c**d*@e", escaped);
    NS_FTPPath::convertUserName("", escaped);
    EXPECT_EQ("", escaped);
}

TEST(FTPPathHelpers, ParseServerInfoNeedsTheMarkerAndSplitsAtTheFirstSlash) {
    std::string server, path;
    EXPECT_STREQ("ftp://", NS_FTPPath::FTPPathBegin);
    EXPECT_EQ(0, NS_FTPPath::parseServerInfo("", server, path));
    EXPECT_EQ(0, NS_FTPPath::parseServerInfo("h/p", server, path));
    EXPECT_NE(0, NS_FTPPath::parseServerInfo("xftp://h:2121/a/b/", server, path));
    EXPECT_EQ("h:2121", server);
    EXPECT_EQ("/a/b", path);
    EXPECT_NE(0, NS_FTPPath::parseServerInfo("ftp://", server, path));
    EXPECT_EQ("", server);
    EXPECT_EQ("", path);
    EXPECT_NE(0, NS_FTPPath::parseServerInfo("ftp://h//", server, path));
    EXPECT_EQ("h", server);
    EXPECT_EQ("", path);
}

namespace {

TEST(FTPPathTls, AnFtpsLocationParsesLikeAPlainOneAndSaysItIsTls) {
    FTPPath location;
    ASSERT_EQ(location.create("rec(pw)@ftps://nas.local:2121/video/cam1/"), 1);
    EXPECT_TRUE(location.isTls());
    EXPECT_EQ(location.getUserName(), "rec");
    EXPECT_EQ(location.getPassword(), "pw");
    EXPECT_EQ(location.getServerAddress(), "nas.local:2121");
    EXPECT_EQ(location.getPath(), "/video/cam1");
    EXPECT_EQ(location.toString(), "rec(pw)@ftps://nas.local:2121/video/cam1");
}

TEST(FTPPathTls, APlainLocationIsNotTlsAndFormatsAsBefore) {
    FTPPath location;
    ASSERT_EQ(location.create("rec(pw)@ftp://10.0.0.5/rec"), 1);
    EXPECT_FALSE(location.isTls());
    EXPECT_EQ(location.toString(), "rec(pw)@ftp://10.0.0.5/rec");
    location.setTls(true);
    EXPECT_EQ(location.toString(), "rec(pw)@ftps://10.0.0.5/rec");
}

TEST(FTPPathTls, TheFirstMarkerDecidesAndAMarkerInThePathDoesNotCount) {
    FTPPath secure;
    ASSERT_EQ(secure.create("rec(pw)@ftps://10.0.0.5/ftp://x"), 1);
    EXPECT_TRUE(secure.isTls());
    EXPECT_EQ(secure.getServerAddress(), "10.0.0.5");
    EXPECT_EQ(secure.getPath(), "/ftp:/x");
    FTPPath plain;
    ASSERT_EQ(plain.create("rec(pw)@ftp://10.0.0.5/ftps://x"), 1);
    EXPECT_FALSE(plain.isTls());
    EXPECT_EQ(plain.getServerAddress(), "10.0.0.5");
}

TEST(FTPPathTls, OtherSchemesAreStillRefused) {
    FTPPath location;
    EXPECT_EQ(location.create("rec(pw)@sftp:/10.0.0.5/rec"), 0);
    EXPECT_EQ(location.create("rec(pw)@ftpes://10.0.0.5/rec"), 0);
    EXPECT_EQ(location.create("rec(pw)@http://10.0.0.5/rec"), 0);
}

}  // namespace
