// The store's lifecycle against the scripted server: init, uninit, reinit,
// destruction, the operations that answer without the server, and the refusal
// of texts too long for the store's fixed fields.
#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "StoreTestUtil.h"
#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemImpl.h"
#include "support/FdCount.h"
#include "support/ScriptedFtpServer.h"
#include "support/StoreTestAccess.h"

namespace {

using Commands = std::vector<std::string>;

class StoreLifecycle : public ::testing::Test {
protected:
    void SetUp() override {
        store.reset(new FTPFileSystem(server.address().c_str(), "rec", "pw", 1024));
    }

    ftptest::ScriptedFtpServer server;
    std::unique_ptr<FTPFileSystem> store;
};

TEST_F(StoreLifecycle, InitConnectsAndLogsInWithoutChangingDirectory) {
    EXPECT_EQ(store->init(), 0);
    EXPECT_EQ(server.commands(), (Commands{"USER rec", "PASS pw"}));
    EXPECT_EQ(server.connectionCount(), 1);
}

TEST_F(StoreLifecycle, InitTwiceWithoutUninitConnectsASecondTimeOnTheSameTool) {
    ASSERT_EQ(store->init(), 0);
    ASSERT_EQ(store->init(), 0);
    EXPECT_EQ(server.connectionCount(), 2);
    // No QUIT on the first connection: the tool drops it without traffic.
    EXPECT_EQ(server.commandsOn(1), (Commands{"USER rec", "PASS pw"}));
    EXPECT_EQ(server.commandsOn(2), (Commands{"USER rec", "PASS pw"}));
    EXPECT_TRUE(server.waitForClosedConnections(1));
}

TEST_F(StoreLifecycle, ReinitOnAnInitialisedStoreDoesNothing) {
    ASSERT_EQ(store->init(), 0);
    EXPECT_EQ(store->reinit(), 0);
    EXPECT_EQ(server.connectionCount(), 1);
    EXPECT_EQ(server.commands(), (Commands{"USER rec", "PASS pw"}));
}

TEST_F(StoreLifecycle, ReinitAfterUninitConnectsAgain) {
    ASSERT_EQ(store->init(), 0);
    EXPECT_EQ(store->uninit(), 0);
    EXPECT_EQ(store->reinit(), 0);
    EXPECT_EQ(server.connectionCount(), 2);
    EXPECT_EQ(server.commands(), (Commands{"USER rec", "PASS pw", "QUIT", "USER rec", "PASS pw"}));
}

TEST_F(StoreLifecycle, UninitSendsQuitAndAlwaysReturnsZero) {
    ASSERT_EQ(store->init(), 0);
    EXPECT_EQ(store->uninit(), 0);
    EXPECT_EQ(server.commands(), (Commands{"USER rec", "PASS pw", "QUIT"}));
    // A second uninit has no connection left to quit.
    EXPECT_EQ(store->uninit(), 0);
    EXPECT_EQ(server.commands().size(), 3u);
}

TEST_F(StoreLifecycle, RefusedLoginReturnsMinusOneQuitsAndLeavesTheStoreUninitialised) {
    server.queueReply("PASS", "530 Login incorrect");
    EXPECT_EQ(store->init(), -1);
    EXPECT_EQ(server.commands(), (Commands{"USER rec", "PASS pw", "QUIT"}));
    // Uninitialised: a path operation fails without any traffic.
    EXPECT_EQ(store->createDir("/rec/d1"), -1);
    EXPECT_FALSE(store->isDirExist("/rec"));
    EXPECT_EQ(server.commands().size(), 3u);
}

TEST_F(StoreLifecycle, RefusedGreetingReturnsMinusOneWithoutSendingAnything) {
    server.setGreeting("421 Too many users");
    EXPECT_EQ(store->init(), -1);
    EXPECT_EQ(server.connectionCount(), 1);
    EXPECT_TRUE(server.commands().empty()) << storetest::joined(server.commands());
    EXPECT_EQ(store->createDir("/a"), -1);
}

TEST_F(StoreLifecycle, InitAgainstAPortWithNoServerReturnsMinusOne) {
    std::string address;
    {
        ftptest::ScriptedFtpServer gone;
        address = gone.address();
    }
    FTPFileSystem lonely(address.c_str(), "rec", "pw", 1024);
    EXPECT_EQ(lonely.init(), -1);
    EXPECT_EQ(lonely.createDir("/a"), -1);
}

TEST_F(StoreLifecycle, ASecondInitThatFailsLeavesTheStoreUninitialisedSoReinitRetries) {
    ASSERT_EQ(store->init(), 0);
    server.queueReply("PASS", "530 Login incorrect");
    EXPECT_EQ(store->init(), -1);
    EXPECT_EQ(store->createDir("/a"), -1);
    const size_t before = server.commands().size();
    EXPECT_EQ(store->reinit(), 0);
    EXPECT_EQ(storetest::tail(server.commands(), before), (Commands{"USER rec", "PASS pw"}));
}

TEST_F(StoreLifecycle, FlushReturnsOneForAnyHandle) {
    EXPECT_EQ(store->flush(0), 1);
    EXPECT_EQ(store->flush(-7), 1);
    EXPECT_EQ(store->flush(12345), 1);
    EXPECT_EQ(server.connectionCount(), 0);
}

TEST_F(StoreLifecycle, MoveDirReturnsZeroAndChangesNothing) {
    ASSERT_EQ(store->init(), 0);
    server.putFile("/from/a.dat", "abc");
    EXPECT_EQ(store->moveDir("/from", "/to"), 0);
    EXPECT_EQ(store->moveDir(nullptr, nullptr), 0);
    EXPECT_EQ(server.commands(), (Commands{"USER rec", "PASS pw"}));
    EXPECT_EQ(server.file("/from/a.dat"), std::optional<std::string>("abc"));
}

TEST_F(StoreLifecycle, GetFileNumberIsNotSupportedAndReturnsMinusOne) {
    ASSERT_EQ(store->init(), 0);
    EXPECT_EQ(store->getFileNumber("/rec"), -1);
    EXPECT_EQ(server.commands(), (Commands{"USER rec", "PASS pw"}));
}

TEST_F(StoreLifecycle, DestroyingAStoreThatWasNeverInitialisedIsHarmless) {
    const int descriptors = ftptest::openDescriptorCount();
    store.reset(new FTPFileSystem(server.address().c_str(), "rec", "pw", 1024));
    store.reset();
    EXPECT_EQ(server.connectionCount(), 0);
    EXPECT_EQ(ftptest::waitForDescriptorCount(descriptors), descriptors);
}

TEST_F(StoreLifecycle, DestroyingAnInitialisedStoreQuitsAndLeavesNoDescriptor) {
    store.reset();
    const int descriptors = ftptest::openDescriptorCount();
    store.reset(new FTPFileSystem(server.address().c_str(), "rec", "pw", 1024));
    ASSERT_EQ(store->init(), 0);
    store.reset();
    EXPECT_EQ(server.commands(), (Commands{"USER rec", "PASS pw", "QUIT"}));
    EXPECT_TRUE(server.waitForClosedConnections(1));
    EXPECT_EQ(ftptest::waitForDescriptorCount(descriptors), descriptors);
}

TEST_F(StoreLifecycle, InitResetsTheUsedBytesAccount) {
    FTPFileSystemImpl impl(server.address().c_str(), "rec", "pw", 1024);
    impl.updateSpaceInfo(5000, true);
    EXPECT_EQ(StoreTestAccess::usedBytes(impl), 5000);
    ASSERT_EQ(impl.init(), 0);
    EXPECT_EQ(StoreTestAccess::usedBytes(impl), 0);
}

TEST_F(StoreLifecycle, DiskSpaceFiguresAreWholeMebibytesOfTheAccount) {
    FTPFileSystemImpl impl(server.address().c_str(), "rec", "pw", 1024);
    long first = -1;
    long second = -1;
    impl.updateSpaceInfo(3 * 1048576LL, true);
    impl.updateSpaceInfo(1048576LL, false);
    impl.getDiskSpaceInfo(first, second);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 2);
    impl.updateSpaceInfo(2 * 1048576LL, false);
    impl.updateSpaceInfo(1048575LL, true);
    impl.getDiskSpaceInfo(first, second);
    EXPECT_EQ(second, 0);
    // Below zero the figure truncates toward zero as well.
    impl.updateSpaceInfo(1048575LL + 1048576LL + 1, false);
    impl.getDiskSpaceInfo(first, second);
    EXPECT_EQ(second, -1);
    EXPECT_EQ(server.connectionCount(), 0);
}

TEST_F(StoreLifecycle, ADiskSpaceFigureBeyondTheRecordersLongStaysAtItsLimit) {
    // 2^32 MiB either way: more than a 32-bit long holds, so on the recorder
    // the figure stops at the long's limit instead of wrapping; where long is
    // wider it is exact.
    FTPFileSystemImpl impl(server.address().c_str(), "rec", "pw", 1024);
    const long long mebibytes = 1LL << 32;
    const long long bytes = mebibytes * 1048576LL;
    const long largest = std::numeric_limits<long>::max();
    const long smallest = std::numeric_limits<long>::min();
    long first = -1;
    long second = -1;
    impl.updateSpaceInfo(bytes, true);
    impl.getDiskSpaceInfo(first, second);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, mebibytes > largest ? largest : static_cast<long>(mebibytes));
    impl.updateSpaceInfo(2 * bytes, false);
    impl.getDiskSpaceInfo(first, second);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, -mebibytes < smallest ? smallest : static_cast<long>(-mebibytes));
}

TEST_F(StoreLifecycle, TheFacadeReportsTheSameSpaceFiguresAndReturnsZero) {
    long first = -1;
    long second = -1;
    EXPECT_EQ(store->getDiskSpaceInfo(first, second), 0);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 0);
    // Bytes written through a handle of the facade raise the figure it reports.
    const std::string bytes = storetest::patternBytes(2 * 1048576 + 5, 8);
    const int handle = store->open("/rec/seg.ts", 2);
    ASSERT_GE(handle, 1);
    size_t done = 0;
    for (int round = 0; done < bytes.size() && round < 10000; ++round) {
        const int n = store->write(handle, bytes.data() + done,
                                   static_cast<unsigned int>(bytes.size() - done));
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    ASSERT_EQ(done, bytes.size());
    EXPECT_EQ(store->close(handle), 0);
    first = -1;
    EXPECT_EQ(store->getDiskSpaceInfo(first, second), 0);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 2);
}

// --- Texts that must fit the fixed fields ---------------------------------------

struct TextCase {
    const char* label;
    size_t serverLength;  // of the server text; padded with leading port zeros
    size_t userLength;
    size_t passwordLength;
    bool accepted;
};

// A server text of exactly `length` characters that still reaches the scripted
// server: the decimal port gets leading zeros.
std::string paddedAddress(const ftptest::ScriptedFtpServer& server, size_t length) {
    const std::string host = "127.0.0.1:";
    std::string port = std::to_string(server.port());
    if (host.size() + port.size() < length) {
        port = std::string(length - host.size() - port.size(), '0') + port;
    }
    return host + port;
}

class StoreTextLimits : public ::testing::TestWithParam<TextCase> {};

TEST_P(StoreTextLimits, TextsThatFitAreUsedAndLongerOnesLeaveTheStoreRefused) {
    const TextCase& c = GetParam();
    ftptest::ScriptedFtpServer server;
    const std::string address = paddedAddress(server, c.serverLength);
    ASSERT_EQ(address.size(), c.serverLength) << c.label;
    const std::string user(c.userLength, 'u');
    const std::string password(c.passwordLength, 'p');
    storetest::TempDir local;
    {
        FTPFileSystem store(address.c_str(), user.c_str(), password.c_str(), 1024);
        if (c.accepted) {
            EXPECT_EQ(store.init(), 0) << c.label;
            EXPECT_EQ(server.commands(), (Commands{"USER " + user, "PASS " + password})) << c.label;
        } else {
            EXPECT_EQ(store.init(), -1) << c.label;
            EXPECT_EQ(store.reinit(), -1) << c.label;
            EXPECT_EQ(store.createDir("/a"), -1) << c.label;
            EXPECT_FALSE(store.isDirExist("/a")) << c.label;
            EXPECT_EQ(store.open("/a.dat", 2), -1) << c.label;
            EXPECT_EQ(store.Get(local.file("x").c_str(), "/a.dat"), -1) << c.label;
            EXPECT_EQ(store.snapshot_open("/s.jpg", 0), -1) << c.label;
            EXPECT_EQ(server.connectionCount(), 0) << c.label;
        }
    }
    if (!c.accepted) {
        EXPECT_EQ(server.connectionCount(), 0) << c.label;
    }
}

INSTANTIATE_TEST_SUITE_P(
    AtAndAroundEachLimit, StoreTextLimits,
    ::testing::Values(
        TextCase{"server 30", 30, 3, 2, true}, TextCase{"server 31", 31, 3, 2, true},
        TextCase{"server 32", 32, 3, 2, false}, TextCase{"server 47", 47, 3, 2, false},
        TextCase{"server 48", 48, 3, 2, false}, TextCase{"server 200", 200, 3, 2, false},
        TextCase{"user 31", 15, 31, 2, true}, TextCase{"user 32", 15, 32, 2, false},
        TextCase{"user 100", 15, 100, 2, false}, TextCase{"password 19", 15, 3, 19, true},
        TextCase{"password 20", 15, 3, 20, false}, TextCase{"password 31", 15, 3, 31, false},
        TextCase{"empty user and password", 15, 0, 0, true}),
    [](const ::testing::TestParamInfo<TextCase>& info) {
        std::string name = info.param.label;
        for (char& ch : name) {
            if (ch == ' ') ch = '_';
        }
        return name;
    });

TEST(StoreTextRefusal, NullTextsLeaveTheStoreRefused) {
    FTPFileSystem noServer(nullptr, "rec", "pw", 1024);
    FTPFileSystem noUser("127.0.0.1:1", nullptr, "pw", 1024);
    FTPFileSystem noPassword("127.0.0.1:1", "rec", nullptr, 1024);
    EXPECT_EQ(noServer.init(), -1);
    EXPECT_EQ(noUser.init(), -1);
    EXPECT_EQ(noPassword.init(), -1);
}

TEST(StoreTextRefusal, TheImplementationRefusesTextsThatDoNotFitOnItsOwn) {
    const std::string longServer(64, 's');
    FTPFileSystemImpl impl(longServer.c_str(), "rec", "pw", 1024);
    EXPECT_TRUE(StoreTestAccess::isRefused(impl));
    EXPECT_EQ(impl.init(), -1);
    EXPECT_TRUE(FTPFileSystemImpl::textsFit(
        std::string(31, 's').c_str(), std::string(31, 'u').c_str(), std::string(19, 'p').c_str()));
    EXPECT_FALSE(FTPFileSystemImpl::textsFit("h", "u", std::string(20, 'p').c_str()));
}

}  // namespace
