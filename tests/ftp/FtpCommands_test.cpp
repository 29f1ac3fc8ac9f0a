// Single commands of the FTP client against the scripted server: the exact
// lines sent, the replies judged, and the arguments refused before anything
// goes out.
#include <string>

#include "FtpTestFixture.h"

namespace {

using FtpCommands = FtpToolTest;

TEST_F(FtpCommands, CdSendsCwdAndAnEmptyTextMeansTheRoot) {
    connectAndLogin();
    EXPECT_EQ(tool.cd("/rec/2024"), 1);
    EXPECT_EQ(tool.cd(""), 1);
    EXPECT_EQ(tool.cd("relative dir"), 1);
    EXPECT_EQ(tool.cd(nullptr), 0);
    EXPECT_EQ(afterLogin(), (Lines{"CWD /rec/2024", "CWD /", "CWD relative dir"}));
}

// The command's own check lets 250 characters through ("CWD " + 250 + the
// terminator fill 255 bytes), but the line with "\r\n" would then not fit the
// 256-byte send buffer, so the longest name that actually goes out has 249
// characters. Neither 250 nor 251 sends anything.
TEST_F(FtpCommands, CdSendsA249CharacterNameAndRefusesLongerOnesBeforeSending) {
    connectAndLogin();
    for (size_t length : {251u, 250u}) {
        EXPECT_EQ(tool.cd(std::string(length, 'd').c_str()), 0) << length;
    }
    EXPECT_EQ(afterLogin(), Lines{});
    EXPECT_STREQ(tool.getResponse(), "230 Logged in\n") << "a refused argument keeps the reply";
    const std::string name(249, 'd');
    EXPECT_EQ(tool.cd(name.c_str()), 1);
    EXPECT_EQ(afterLogin(), (Lines{"CWD " + name}));
}

TEST_F(FtpCommands, ARefusedCwdFailsWithTheServersReplyInPlace) {
    connectAndLogin();
    server.queueReply("CWD", "550 No such directory");
    EXPECT_EQ(tool.cd("/nowhere"), 0);
    EXPECT_STREQ(tool.getResponse(), "550 No such directory\n");
}

TEST_F(FtpCommands, CdupMkdirRmdirAndSiteSendOneLineEach) {
    connectAndLogin();
    EXPECT_EQ(tool.cdup(), 1);
    EXPECT_EQ(tool.mkdir("/rec/new"), 1);
    EXPECT_STREQ(tool.getResponse(), "257 \"/rec/new\" created\n");
    EXPECT_EQ(tool.rmdir("/rec/old"), 1);
    EXPECT_EQ(tool.site("CHMOD 644 /rec/a"), 1);
    EXPECT_EQ(afterLogin(),
              (Lines{"CDUP", "MKD /rec/new", "RMD /rec/old", "SITE CHMOD 644 /rec/a"}));
}

TEST_F(FtpCommands, CommandsFailOnAnyReplyButTheExpectedClass) {
    connectAndLogin();
    server.queueReply("CDUP", "550 At the top");
    server.queueReply("MKD", "550 Exists");
    server.queueReply("RMD", "350 Odd");
    server.queueReply("SITE", "500 Unknown SITE command");
    EXPECT_EQ(tool.cdup(), 0);
    EXPECT_EQ(tool.mkdir("a"), 0);
    EXPECT_EQ(tool.rmdir("a"), 0);
    EXPECT_EQ(tool.site("IDLE 60"), 0);
    EXPECT_STREQ(tool.getResponse(), "500 Unknown SITE command\n");
    EXPECT_EQ(afterLogin(), (Lines{"CDUP", "MKD a", "RMD a", "SITE IDLE 60"}));
}

TEST_F(FtpCommands, OverlongArgumentsAreRefusedBeforeAnythingIsSent) {
    // A reply longer than 255 characters would leave its tail for the next
    // command; keep the MKD reply short.
    server.setReply("MKD", "257 created");
    connectAndLogin();
    // Every line holds at most 253 characters: the command word, a blank and
    // the argument.
    struct Case {
        const char* what;
        size_t longestSent;
    };
    const Case cases[] = {{"MKD", 249}, {"RMD", 249}, {"SITE", 248}};
    for (const Case& c : cases) {
        const std::string fits(c.longestSent, 'a');
        const std::string tooLong(c.longestSent + 1, 'a');
        const std::string word(c.what);
        auto run = [&](const std::string& arg) {
            if (word == "MKD") return tool.mkdir(arg.c_str());
            if (word == "RMD") return tool.rmdir(arg.c_str());
            return tool.site(arg.c_str());
        };
        const size_t before = server.commands().size();
        EXPECT_EQ(run(tooLong), 0) << c.what;
        EXPECT_EQ(run(std::string(300, 'a')), 0) << c.what;
        EXPECT_EQ(server.commands().size(), before) << c.what;
        EXPECT_EQ(run(fits), 1) << c.what;
        EXPECT_EQ(server.commands().back(), word + " " + fits) << c.what;
    }
    EXPECT_EQ(tool.mkdir(nullptr), 0);
    EXPECT_EQ(tool.rmdir(nullptr), 0);
    EXPECT_EQ(tool.site(nullptr), 0);
    EXPECT_EQ(afterLogin().size(), 3u);
}

TEST_F(FtpCommands, SizeSetsTheTypeAndStoresTheNumberFromA213Reply) {
    server.putFile("/rec/a.bin", std::string(1234, 'a'));
    connectAndLogin();
    int size = -1;
    EXPECT_EQ(tool.size("/rec/a.bin", &size, 'I'), 1);
    EXPECT_EQ(size, 1234);
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "SIZE /rec/a.bin"}));
}

TEST_F(FtpCommands, SizeReadsTheReplyCodeAndTheSizeAsTwoNumbers) {
    connectAndLogin();
    struct Case {
        const char* reply;
        int result;
        int size;
    };
    const Case cases[] = {
        {"213 1234", 1, 1234},
        {"213    0", 1, 0},
        {"213 2147483647", 1, 2147483647},
        // Sizes of 2 GiB and more do not fit: the low 32 bits are kept.
        {"213 3221225472", 1, -1073741824},
        {"213 4294967296", 1, 0},
        {"213 77 bytes", 1, 77},
        // Signs and any white space before the number are read as "%d" reads them.
        {"213 -12", 1, -12},
        {"213\t+12", 1, 12},
        {"213 - 12", 0, -5},
        // One number only: no size.
        {"213", 0, -5},
        {"213 unknown", 0, -5},
        {"2131234", 0, -5},
    };
    for (const Case& c : cases) {
        server.queueReply("SIZE", c.reply);
        int size = -5;
        EXPECT_EQ(tool.size("f", &size, 'I'), c.result) << c.reply;
        EXPECT_EQ(size, c.size) << c.reply;
    }
}

TEST_F(FtpCommands, ASizeRefusedWith550FailsAfterTheTypeWasSent) {
    connectAndLogin();
    int size = 99;
    EXPECT_EQ(tool.size("/missing", &size, 'A'), 0);
    EXPECT_EQ(size, 99);
    EXPECT_STREQ(tool.getResponse(), "550 No such file\n");
    EXPECT_EQ(afterLogin(), (Lines{"TYPE A", "SIZE /missing"}));
}

TEST_F(FtpCommands, ARefusedTypeStopsSizeBeforeTheSizeCommand) {
    connectAndLogin();
    server.queueReply("TYPE", "504 Not that type");
    int size = 99;
    EXPECT_EQ(tool.size("/a", &size, 'Q'), 0);
    EXPECT_EQ(afterLogin(), (Lines{"TYPE Q"}));
}

TEST_F(FtpCommands, SizeRefusesAnOverlongPathOrMissingTargetBeforeSending) {
    connectAndLogin();
    int size = 0;
    EXPECT_EQ(tool.size(std::string(250, 'p').c_str(), &size, 'I'), 0);
    EXPECT_EQ(tool.size("/a", nullptr, 'I'), 0);
    EXPECT_EQ(tool.size(nullptr, &size, 'I'), 0);
    EXPECT_EQ(afterLogin(), Lines{});
    // 249 characters pass SIZE's own rule: TYPE goes out, then the SIZE line
    // is too long for Sendcmd and nothing more is sent.
    EXPECT_EQ(tool.size(std::string(249, 'p').c_str(), &size, 'I'), 0);
    EXPECT_EQ(afterLogin(), Lines{"TYPE I"});
}

TEST_F(FtpCommands, MoveFileSendsRnfrThenRnto) {
    server.putFile("/rec/a", "bytes");
    connectAndLogin();
    EXPECT_EQ(tool.moveFile("/rec/a", "/rec/b"), 1);
    EXPECT_EQ(afterLogin(), (Lines{"RNFR /rec/a", "RNTO /rec/b"}));
    EXPECT_EQ(server.file("/rec/b"), std::string("bytes"));
    EXPECT_FALSE(server.file("/rec/a").has_value());
}

TEST_F(FtpCommands, MoveFileSendsNoRntoWhenRnfrIsNotAnswered3xx) {
    connectAndLogin();
    const char* replies[] = {"550 No such file", "250 Odd but not 3xx"};
    for (const char* reply : replies) {
        server.queueReply("RNFR", reply);
        EXPECT_EQ(tool.moveFile("/a", "/b"), 0) << reply;
    }
    EXPECT_EQ(afterLogin(), (Lines{"RNFR /a", "RNFR /a"}));
}

TEST_F(FtpCommands, MoveFileFailsWhenRntoIsRefused) {
    connectAndLogin();
    server.queueReply("RNTO", "553 Not allowed");
    EXPECT_EQ(tool.moveFile("/a", "/b"), 0);
    EXPECT_EQ(afterLogin(), (Lines{"RNFR /a", "RNTO /b"}));
}

TEST_F(FtpCommands, AnOverlongDestinationIsRefusedAfterRnfrWasSent) {
    connectAndLogin();
    const std::string to(251, 't');
    EXPECT_EQ(tool.moveFile("/a", to.c_str()), 0);
    EXPECT_EQ(afterLogin(), (Lines{"RNFR /a"}));
    EXPECT_EQ(tool.moveFile(std::string(251, 'f').c_str(), "/b"), 0);
    EXPECT_EQ(tool.moveFile(nullptr, "/b"), 0);
    EXPECT_EQ(tool.moveFile("/a", nullptr), 0);
    EXPECT_EQ(afterLogin(), (Lines{"RNFR /a"}));
}

TEST_F(FtpCommands, DeleteChangesIntoTheFilesDirectoryFirst) {
    connectAndLogin();
    struct Case {
        const char* path;
        Lines sent;
    };
    const Case cases[] = {
        {"a.txt", {"DELE a.txt"}},
        {"/d/e/a.txt", {"CWD /", "CWD /d/e", "DELE a.txt"}},
        {"/a.txt", {"CWD /", "CWD ", "DELE a.txt"}},
        {"d/a.txt", {"CWD /", "CWD d", "DELE a.txt"}},
        // A path that ends in "/" deletes an empty name.
        {"/d/e/", {"CWD /", "CWD /d/e", "DELE "}},
        {"", {"DELE "}},
    };
    for (const Case& c : cases) {
        const size_t before = server.commands().size();
        tool.deleteFile(c.path);
        Lines all = server.commands();
        EXPECT_EQ(Lines(all.begin() + before, all.end()), c.sent) << "'" << c.path << "'";
    }
}

TEST_F(FtpCommands, DeleteFileDeletesTheNameInTheFilesDirectory) {
    server.putFile("/d/e/a.txt", "x");
    connectAndLogin();
    EXPECT_EQ(tool.deleteFile("/d/e/a.txt"), 1);
    EXPECT_FALSE(server.file("/d/e/a.txt").has_value());
    // The connection stays in the file's directory.
    server.putFile("/d/e/b.txt", "y");
    EXPECT_EQ(tool.deleteFile("b.txt"), 1);
    EXPECT_FALSE(server.file("/d/e/b.txt").has_value());
    EXPECT_EQ(afterLogin(), (Lines{"CWD /", "CWD /d/e", "DELE a.txt", "DELE b.txt"}));
}

TEST_F(FtpCommands, AFailingCwdStillSendsTheDelete) {
    connectAndLogin();
    server.queueReply("CWD /d/e", "550 No such directory");
    EXPECT_EQ(tool.deleteFile("/d/e/a.txt"), 1);
    EXPECT_EQ(afterLogin(), (Lines{"CWD /", "CWD /d/e", "DELE a.txt"}));
    server.queueReply("CWD", "550 No");
    server.queueReply("CWD", "550 No");
    server.queueReply("DELE", "550 Not there");
    EXPECT_EQ(tool.deleteFile("/x/y"), 0);
    EXPECT_STREQ(tool.getResponse(), "550 Not there\n");
}

// The length of the whole path is checked just before "DELE": the changes of
// directory have gone out by then, and the connection stays where they led.
TEST_F(FtpCommands, AnOverlongPathIsRefusedAfterTheChangesOfDirectory) {
    connectAndLogin();
    const std::string name(248, 'n');
    const std::string path = "/d/" + name;  // 251 characters
    EXPECT_EQ(tool.deleteFile(path.c_str()), 0);
    EXPECT_EQ(afterLogin(), (Lines{"CWD /", "CWD /d"}));
    EXPECT_STREQ(tool.getResponse(), "250 Directory changed\n");
    // Without a "/" nothing goes out at all.
    EXPECT_EQ(tool.deleteFile(std::string(251, 'n').c_str()), 0);
    EXPECT_EQ(tool.deleteFile(nullptr), 0);
    EXPECT_EQ(afterLogin(), (Lines{"CWD /", "CWD /d"}));
    // 250 characters pass.
    const std::string fits = "/d/" + std::string(247, 'n');
    EXPECT_EQ(tool.deleteFile(fits.c_str()), 1);
    EXPECT_EQ(afterLogin(),
              (Lines{"CWD /", "CWD /d", "CWD /", "CWD /d", "DELE " + std::string(247, 'n')}));
}

}  // namespace
