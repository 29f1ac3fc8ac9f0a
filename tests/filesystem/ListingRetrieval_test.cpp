// Listing retrieval of the store against a scripted FTP server: the exact
// command lines, how the text is cut into lines, which style is chosen, what
// the parsers keep, and what a failed step leaves behind.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "filesystem/ListingTestUtil.h"
#include "support/FdCount.h"
#include "support/StoreTestAccess.h"

using listingtest::crlf;
using listingtest::describe;
using listingtest::Entries;
using listingtest::listingOf;
using Lines = std::vector<std::string>;

namespace {

class ListingRetrieval : public listingtest::ScriptedStoreTest {};

// A Linux daemon's listing of a recording folder.
const std::string kLinuxListing = crlf({
    "drwxr-xr-x    2 rec      rec          4096 Jan 15 10:30 cam1",
    "-rw-r--r--    1 rec      rec       1048576 Jan 15 10:31 ch01_0001.mp4",
    "-rw-r--r--    1 rec      rec           512 Jan 15 10:32 ch01_0002.mp4",
});

TEST_F(ListingRetrieval, ChangesToTheRootThenIntoThePathAndAsksForThePathAgain) {
    server().setListing(kLinuxListing);
    Entries entries;
    long long total = 0;

    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec/2020-01-15", entries, total));

    EXPECT_EQ(commands(), listingOf("/rec/2020-01-15"));
    EXPECT_EQ(describe(entries),
              (Lines{"d 4096 cam1", "- 1048576 ch01_0001.mp4", "- 512 ch01_0002.mp4"}));
    EXPECT_EQ(total, 4096 + 1048576 + 512);
}

TEST_F(ListingRetrieval, AnEmptyListingGivesTrueAndNoEntries) {
    server().setListing("");
    Entries entries;
    long long total = 0;

    EXPECT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    EXPECT_TRUE(entries.empty()) << ::testing::PrintToString(describe(entries));
    EXPECT_EQ(total, 0);
    EXPECT_EQ(commands(), listingOf("/rec"));
}

TEST_F(ListingRetrieval, ATotalLineAndABlankLineBeforeTheFirstNineWordLineStillGiveAUnixListing) {
    server().setListing(crlf({
        "total 12",
        "",
        "-rw-r--r--    1 rec      rec           100 Jan 15 10:31 a.dat",
        "drwxr-xr-x    2 rec      rec          4096 Jan 15 10:32 sub",
    }));
    Entries entries;
    long long total = 0;

    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    // The "total" line is not recognised as a header: the Unix parser turns it
    // into an entry of type 't' with no name and size 0, which is neither a
    // file nor a directory for the enumeration.
    EXPECT_EQ(describe(entries), (Lines{"t 0 ", "- 100 a.dat", "d 4096 sub"}));
    EXPECT_EQ(total, 4196);
}

TEST_F(ListingRetrieval, LinesEndingInABareLineFeedAreNotSplitSoEighteenWordsAreNotRecognised) {
    server().setListing(
        "-rw-r--r-- 1 rec rec 100 Jan 15 10:31 a.dat\n"
        "-rw-r--r-- 1 rec rec 200 Jan 15 10:32 b.dat\n");
    Entries entries;
    long long total = 0;

    EXPECT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    EXPECT_TRUE(entries.empty()) << ::testing::PrintToString(describe(entries));
    EXPECT_EQ(total, 0);
}

TEST_F(ListingRetrieval, ASingleLineEndingInABareLineFeedIsRecognisedWhenItHasFourWords) {
    // One DOS line with a bare line feed: still one line of four words, and
    // the line feed stays part of the last word.
    server().setListing("01-15-20  10:30AM                  512 a.dat\n");
    Entries entries;
    long long total = 0;

    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    EXPECT_EQ(describe(entries), (Lines{"- 512 a.dat\n"}));
    EXPECT_EQ(total, 512);
}

TEST_F(ListingRetrieval, AZeroByteInTheMiddleOfALineBecomesABlankAndSplitsTheWord) {
    std::string body = crlf({"-rw-r--r--    1 rec      rec           100 Jan 15 10:31 a.dat"});
    body += "-rw-r--r--    1 rec      rec           200 Jan 15 10:32 ab";
    body += std::string(1, '\0');
    body += "cd.dat\r\n";
    server().setListing(body);
    Entries entries;
    long long total = 0;

    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    EXPECT_EQ(describe(entries), (Lines{"- 100 a.dat", "- 200 ab"}));
    EXPECT_EQ(total, 300);
}

TEST_F(ListingRetrieval, RecvDataAppendsExactlyTheBytesReceivedZeroBytesIncluded) {
    SafePointer<FTPTool> tool(new FTPTool());
    ASSERT_EQ(tool->connect(server().address().c_str()), 1);
    ASSERT_EQ(tool->login("rec", "pw"), 1);
    server().setListing(std::string("x\0y\r\nz", 6));
    std::string text = "kept:";

    ASSERT_TRUE(store().recvData(tool, "/rec", text));

    EXPECT_EQ(text, std::string("kept:x\0y\r\nz", 11));
    EXPECT_EQ(commands(), (Lines{"USER rec", "PASS pw", "TYPE I", "PASV", "LIST /rec"}));
}

TEST_F(ListingRetrieval, RecvDataOfARefusedListGivesFalseAndLeavesTheTextAlone) {
    SafePointer<FTPTool> tool(new FTPTool());
    ASSERT_EQ(tool->connect(server().address().c_str()), 1);
    ASSERT_EQ(tool->login("rec", "pw"), 1);
    server().setReply("LIST", "450 Not now");
    std::string text = "kept";

    EXPECT_FALSE(store().recvData(tool, "/rec", text));

    EXPECT_EQ(text, "kept");
    EXPECT_EQ(commands(), (Lines{"USER rec", "PASS pw", "TYPE I", "PASV", "LIST /rec"}));
}

TEST_F(ListingRetrieval, AListingLongerThanOneReadIsReadWholeAcrossPiecesThatCutLines) {
    std::string body;
    long long expectedTotal = 0;
    Lines expected;
    for (int i = 0; i < 300; ++i) {
        const std::string name = "seg_" + std::to_string(i) + ".ts";
        const int size = 1000 + i;
        body += "-rw-r--r--    1 rec      rec      " + std::to_string(size) + " Jan 15 10:31 " +
                name + "\r\n";
        expected.push_back("- " + std::to_string(size) + " " + name);
        expectedTotal += size;
    }
    ASSERT_GT(body.size(), 10u * 1024u);
    ftptest::Reply dribble("150 Here comes the listing");
    dribble.pieceBytes = 700;  // not a multiple of the 1024-byte reads, nor of a line
    dribble.pieceDelay = ftptest::Millis(1);
    dribble.body = body;
    server().queueReply("LIST", dribble);
    Entries entries;
    long long total = 0;

    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    EXPECT_EQ(describe(entries), expected);
    EXPECT_EQ(total, expectedTotal);
}

TEST_F(ListingRetrieval, ADirectoryThatCannotBeEnteredGivesFalseAndLeavesListAndTotalAlone) {
    server().setReply("CWD /missing", "550 No such directory");
    server().setListing(kLinuxListing);
    Entries entries;
    entries.push_back(SafePointer<FTPConst::FTPFileDescriptor>(new FTPConst::FTPFileDescriptor));
    entries.back()->name = "already";
    long long total = 77;

    EXPECT_FALSE(StoreTestAccess::getFileDescriptorList(store(), "/missing", entries, total));

    EXPECT_EQ(commands(), (Lines{"CWD /", "CWD /missing"}));
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]->name, "already");
    EXPECT_EQ(total, 77);
}

TEST_F(ListingRetrieval, ARefusedChangeToTheRootIsIgnored) {
    server().setReply("CWD /", "550 Not allowed");
    server().setListing(kLinuxListing);
    Entries entries;
    long long total = 0;

    EXPECT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "rec", entries, total));

    EXPECT_EQ(commands(), listingOf("rec"));
    EXPECT_EQ(entries.size(), 3u);
}

TEST_F(ListingRetrieval, ARefusedListGivesFalseAndLeavesListAndTotalAlone) {
    server().setReply("LIST", "550 Cannot list");
    Entries entries;
    long long total = 5;

    EXPECT_FALSE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    EXPECT_EQ(commands(), listingOf("/rec"));
    EXPECT_TRUE(entries.empty());
    EXPECT_EQ(total, 5);
}

TEST_F(ListingRetrieval, ARefusedPassiveModeGivesFalseBeforeAnyListCommand) {
    server().setReply("PASV", "500 No passive mode here");
    Entries entries;
    long long total = 0;

    EXPECT_FALSE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    EXPECT_EQ(commands(), (Lines{"CWD /", "CWD /rec", "TYPE I", "PASV"}));
    EXPECT_TRUE(entries.empty());
}

TEST_F(ListingRetrieval, AnUnrecognisedListingGivesTrueAndNoEntries) {
    server().setListing(crlf({"this is not a listing", "neither is this"}));
    Entries entries;
    long long total = 0;

    EXPECT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    EXPECT_TRUE(entries.empty()) << ::testing::PrintToString(describe(entries));
    EXPECT_EQ(total, 0);
}

TEST_F(ListingRetrieval, EntriesAndSizesAreAddedToWhatTheCallerAlreadyHas) {
    server().setListing(kLinuxListing);
    Entries entries;
    entries.push_back(SafePointer<FTPConst::FTPFileDescriptor>(new FTPConst::FTPFileDescriptor));
    entries.back()->name = "earlier";
    long long total = 1000;

    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0]->name, "earlier");
    EXPECT_EQ(entries[1]->name, "cam1");
    EXPECT_EQ(total, 1000 + 4096 + 1048576 + 512);
}

TEST_F(ListingRetrieval, UnixDotNamesNeverBecomeEntries) {
    server().setListing(crlf({
        "drwxr-xr-x    3 rec      rec          4096 Jan 15 10:30 .",
        "drwxr-xr-x    5 rec      rec          4096 Jan 15 10:29 ..",
        "-rw-r--r--    1 rec      rec            10 Jan 15 10:31 .hidden",
        "-rw-r--r--    1 rec      rec            20 Jan 15 10:31 seen.dat",
    }));
    Entries entries;
    long long total = 0;

    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    EXPECT_EQ(describe(entries), (Lines{"- 20 seen.dat"}));
    EXPECT_EQ(total, 20);
}

// A Windows server's listing, columns padded with blanks as it pads them.
const std::string kDosListing = crlf({
    "01-15-20  10:30AM       <DIR>          .",
    "01-15-20  10:30AM       <DIR>          ..",
    "01-15-20  10:30AM       <DIR>          rec",
    "01-15-20  10:30AM                  512 a.dat",
    "01-15-20  10:31AM                2,048 b.dat",
    "01-15-20  10:32AM       <dir>          c",
    "01-15-20  10:33AM                  100 .hidden",
    "01-15-20  10:34AM                  300 my file.dat",
});

TEST_F(ListingRetrieval, ADosListingIsParsedEndToEndWithoutItsSelfAndParentEntries) {
    server().setListing(kDosListing);
    Entries entries;
    long long total = 0;

    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/video", entries, total));

    EXPECT_EQ(commands(), listingOf("/video"));
    // "<DIR>" marks a directory of size 0; "2,048" reads as 2; "<dir>" in
    // lower case is a file of size 0; a dot-file stays (only "." and ".." go);
    // a name with a blank keeps its first word.
    EXPECT_EQ(describe(entries),
              (Lines{"d 0 rec", "- 512 a.dat", "- 2 b.dat", "- 0 c", "- 100 .hidden", "- 300 my"}));
    EXPECT_EQ(total, 512 + 2 + 100 + 300);
}

TEST_F(ListingRetrieval, DosSelfAndParentEntriesAreDroppedWhateverTheirSizeColumnSays) {
    server().setListing(crlf({
        "01-15-20  10:30AM                   40 .",
        "01-15-20  10:30AM                   50 ..",
        "01-15-20  10:30AM                   60 ...",
    }));
    Entries entries;
    long long total = 0;

    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/video", entries, total));

    EXPECT_EQ(describe(entries), (Lines{"- 60 ..."}));
    EXPECT_EQ(total, 60);
}

TEST_F(ListingRetrieval, AFinalReplyOf426AfterTheBodyFailsTheListingAndTheNextOneStartsInStep) {
    ftptest::Reply aborted("150 Here comes the listing");
    aborted.body = kLinuxListing;
    aborted.finalText = "426 Connection closed; transfer aborted";
    server().queueReply("LIST", aborted);
    Entries entries;
    long long total = 0;

    // The server says the listing was cut: none of it is taken.
    EXPECT_FALSE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));
    EXPECT_TRUE(entries.empty());
    EXPECT_EQ(total, 0);

    // The final reply was consumed: the next listing starts cleanly.
    server().setListing(kDosListing);
    Entries next;
    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/video", next, total));
    EXPECT_EQ(next.size(), 6u);
    Lines expected = listingOf("/rec");
    for (const std::string& line : listingOf("/video")) expected.push_back(line);
    EXPECT_EQ(commands(), expected);
}

TEST_F(ListingRetrieval, ADataConnectionClosedInOrderAndConfirmedEndsTheListingWithItsLines) {
    // An orderly end of the data and a 226 are all a client can know of a
    // listing's end: what arrived is the listing.
    ftptest::Reply cut("150 Here comes the listing");
    cut.body = kLinuxListing;
    const std::string firstLine = kLinuxListing.substr(0, kLinuxListing.find("\r\n") + 2);
    cut.closeDataAfter = static_cast<long>(firstLine.size());
    server().queueReply("LIST", cut);
    Entries entries;
    long long total = 0;

    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    EXPECT_EQ(describe(entries), (Lines{"d 4096 cam1"}));
    EXPECT_EQ(total, 4096);
}

TEST_F(ListingRetrieval, ADataConnectionResetPartWayFailsTheListing) {
    ftptest::Reply reset("150 Here comes the listing");
    reset.body = kLinuxListing;
    reset.closeDataAfter = 100;
    reset.resetData = true;
    server().queueReply("LIST", reset);
    Entries entries;
    long long total = 0;

    EXPECT_FALSE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));
    EXPECT_TRUE(entries.empty());
    // The closing reply was read: the next listing is in step.
    server().setListing(kLinuxListing);
    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));
    EXPECT_EQ(entries.size(), 3u);
}

TEST_F(ListingRetrieval, ADataConnectionThatGoesQuietPastTheWaitFailsTheListing) {
    // The store's 3 s readiness wait, and a server that pauses 3.5 s after
    // the first line.
    ftptest::Reply quiet("150 Here comes the listing");
    quiet.body = kLinuxListing;
    quiet.pieceBytes = kLinuxListing.find("\r\n") + 2;
    quiet.pieceDelay = ftptest::Millis(3500);
    server().queueReply("LIST", quiet);
    Entries entries;
    long long total = 0;

    EXPECT_FALSE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));
    EXPECT_TRUE(entries.empty());
}

TEST_F(ListingRetrieval,
       AClosingReplyThatDoesNotComeFailsTheListingAndIsDroppedBeforeTheNextCommand) {
    // The closing reply comes 3.5 s after the data, past the 3 s wait.
    ftptest::Reply late("150 Here comes the listing");
    late.body = kLinuxListing;
    late.finalText = "226 Transfer complete, late";
    late.finalDelay = ftptest::Millis(3500);
    server().queueReply("LIST", late);
    Entries entries;
    long long total = 0;

    EXPECT_FALSE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));
    EXPECT_TRUE(entries.empty());
    // The next listing's first command waits for the late reply and drops it.
    server().setListing(kDosListing);
    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/video", entries, total));
    EXPECT_EQ(entries.size(), 6u);
}

TEST_F(ListingRetrieval, ListingsLeaveNoDescriptorOpen) {
    server().setListing(kLinuxListing);
    Entries entries;
    long long total = 0;
    // One listing first, so that lazily opened descriptors of the process are
    // counted in the baseline.
    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));
    ASSERT_TRUE(server().waitForCommands(2 + 5));
    const int baseline = ftptest::waitForDescriptorCount(ftptest::openDescriptorCount());

    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total))
            << "listing " << i;
    }
    server().queueReply("LIST", "550 Cannot list");
    EXPECT_FALSE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));
    server().queueReply("CWD /gone", "550 No such directory");
    EXPECT_FALSE(StoreTestAccess::getFileDescriptorList(store(), "/gone", entries, total));
    // A refused LIST leaves the server's passive socket open until the next
    // PASV; one more listing puts the server back in its baseline state.
    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total));

    EXPECT_EQ(ftptest::waitForDescriptorCount(baseline), baseline);
}

// Lines as servers write them, each served as a whole listing through the
// scripted server: what the store keeps of them.
struct LineCase {
    const char* source;
    std::string body;
    Lines entries;
    long long total;
};

TEST_F(ListingRetrieval, ServedLinesOfEitherStyleBecomeTheEntriesTheParsersMake) {
    const LineCase cases[] = {
        {"Unix directory line",
         crlf({"drwxr-xr-x 2 user group 4096 Jan 01 10:00 rec"}),
         {"d 4096 rec"},
         4096},
        {"Unix self, parent and a dot-file after a directory",
         crlf({"drwxr-xr-x 2 user group 4096 Jan 01 10:00 rec",
               "drwxr-xr-x 2 user group 4096 Jan 01 10:00 .",
               "drwxr-xr-x 9 user group 4096 Jan 01 10:00 ..",
               "-rw-r--r-- 1 user group 64 Jan 01 10:00 .profile"}),
         {"d 4096 rec"},
         4096},
        {"Unix name with a blank after a nine-word line",
         crlf({"drwxr-xr-x 2 user group 4096 Jan 01 10:00 rec",
               "-rw-r--r-- 1 u g 100 Jan 01 10:00 my file.dat"}),
         {"d 4096 rec", "- 100 my"},
         4196},
        {"Unix link after a nine-word line",
         crlf({"-rw-r--r-- 1 u g 100 Jan 01 10:00 a.dat",
               "lrwxrwxrwx 1 u g 5 Jan 01 10:00 latest -> a.dat"}),
         {"- 100 a.dat", "l 5 latest"},
         105},
        {"DOS directory, columns padded with many blanks",
         crlf({"01-15-20  10:30AM       <DIR>          rec"}),
         {"d 0 rec"},
         0},
        {"DOS file", crlf({"01-15-20  10:30AM             512 a.dat"}), {"- 512 a.dat"}, 512},
        {"DOS size with a thousands separator",
         crlf({"01-15-20  10:30AM           2,048 b.dat"}),
         {"- 2 b.dat"},
         2},
        {"DOS marker in lower case",
         crlf({"01-15-20  10:30AM       <dir>          c"}),
         {"- 0 c"},
         0},
    };
    for (const LineCase& c : cases) {
        server().setListing(c.body);
        Entries entries;
        long long total = 0;
        ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total))
            << c.source;
        EXPECT_EQ(describe(entries), c.entries) << c.source << ":\n" << c.body;
        EXPECT_EQ(total, c.total) << c.source << ":\n" << c.body;
    }
}

// getFTPFileType decides the style from word counts alone.
struct StyleCase {
    const char* source;
    Lines lines;
    int type;
};

TEST(ListingStyleOfTheStore, TheFirstLineOfFourOrNineWordsDecidesAndTheAnswerIsAlwaysTrue) {
    const StyleCase cases[] = {
        {"no lines at all", {}, 2},
        {"only an empty line", {""}, 2},
        {"Linux daemon with a total line",
         {"total 8", "-rw-r--r--    1 rec      rec   100 Jan 15 10:31 a.dat"},
         0},
        {"Windows server", {"01-15-20  10:30AM       <DIR>          rec"}, 1},
        {"four words before nine", {"a b c d", "1 2 3 4 5 6 7 8 9"}, 1},
        {"nine words before four", {"1 2 3 4 5 6 7 8 9", "a b c d"}, 0},
        {"link line of eleven words, then nothing else",
         {"lrwxrwxrwx 1 rec rec 7 Jan 15 10:31 link -> target"},
         2},
        {"three and five words only", {"a b c", "a b c d e"}, 2},
    };
    FTPFileSystemImpl store("127.0.0.1:1", "rec", "pw", 1024);  // never connects
    for (const StyleCase& c : cases) {
        int type = 99;
        EXPECT_TRUE(store.getFTPFileType(c.lines, type)) << c.source;
        EXPECT_EQ(type, c.type) << c.source << ": " << ::testing::PrintToString(c.lines);
    }
}

}  // namespace
