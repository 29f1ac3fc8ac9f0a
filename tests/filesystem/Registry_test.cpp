// The registry of stores: registering, finding the store that covers a
// location, removing, and the lifetime of stores that callers still hold.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "StoreTestUtil.h"
#include "filesystem/FTPFileSystemManager.h"
#include "support/ScriptedFtpServer.h"

namespace {

using Commands = std::vector<std::string>;

class Registry : public ::testing::Test {
protected:
    void TearDown() override {
        for (const std::string& location : added) {
            registry->deleteFileSystem(location);
        }
    }

    // "rec(pw)@ftp://127.0.0.1:<port>" + path, registered for removal at the
    // end of the test.
    std::string location(const std::string& path, const std::string& credentials = "rec(pw)") {
        return credentials + "@ftp://" + server.address() + path;
    }

    int add(const std::string& text) {
        added.push_back(text);
        return registry->addFTPFileSystem(text);
    }

    ftptest::ScriptedFtpServer server;
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    std::vector<std::string> added;
};

TEST_F(Registry, GetInstanceAlwaysGivesTheSameRegistry) {
    FTPFileSystemManager* fromThread = nullptr;
    std::thread other([&] { fromThread = FTPFileSystemManager::getInstance(); });
    other.join();
    EXPECT_EQ(fromThread, registry);
    EXPECT_EQ(FTPFileSystemManager::getInstance(), registry);
}

TEST_F(Registry, AStoreIsMadeFromTheLocationsServerUserAndPasswordButNotInitialised) {
    ASSERT_EQ(add(location("/rec/a")), 0);
    EXPECT_EQ(server.connectionCount(), 0);
    SafePointer<FTPFileSystem> store;
    ASSERT_EQ(registry->getFTPFileSystem(location("/rec/a"), store), 1);
    EXPECT_EQ(store->init(), 0);
    EXPECT_EQ(server.commands(), (Commands{"USER rec", "PASS pw"}));
}

TEST_F(Registry, AnEscapedUserNameReachesTheServerUnescaped) {
    ASSERT_EQ(add(location("/rec", "a*(b(p(w))")), 0);
    SafePointer<FTPFileSystem> store;
    ASSERT_EQ(registry->getFTPFileSystem(location("/rec", "a*(b(p(w))"), store), 1);
    EXPECT_EQ(store->init(), 0);
    EXPECT_EQ(server.commands(), (Commands{"USER a(b", "PASS p(w)"}));
}

TEST_F(Registry, AddingTheSameLocationTwiceKeepsOneStore) {
    ASSERT_EQ(add(location("/rec/a")), 0);
    SafePointer<FTPFileSystem> first;
    ASSERT_EQ(registry->getFTPFileSystem(location("/rec/a"), first), 1);
    ASSERT_EQ(first->init(), 0);
    EXPECT_EQ(add(location("/rec/a")), 0);
    SafePointer<FTPFileSystem> second;
    ASSERT_EQ(registry->getFTPFileSystem(location("/rec/a"), second), 1);
    EXPECT_EQ(first.get(), second.get());
    // No reconnection either.
    EXPECT_EQ(server.connectionCount(), 1);
}

TEST_F(Registry, AnUnparsableLocationIsRefusedAndChangesNothing) {
    const std::vector<std::string> bad = {"", "rec@ftp://127.0.0.1/p", "(pw)@ftp://127.0.0.1/p",
                                          "rec(pw@ftp://127.0.0.1/p", "rec(pw)@127.0.0.1/p"};
    for (const std::string& text : bad) {
        EXPECT_EQ(add(text), -1) << text;
        SafePointer<FTPFileSystem> out;
        EXPECT_EQ(registry->getFTPFileSystem(text, out), 0) << text;
        EXPECT_TRUE(out.isNull()) << text;
    }
}

TEST_F(Registry, ASubPathOfARegisteredLocationFindsItsStore) {
    ASSERT_EQ(add(location("/rec/a")), 0);
    SafePointer<FTPFileSystem> registered;
    ASSERT_EQ(registry->getFTPFileSystem(location("/rec/a"), registered), 1);
    // The registered location's last component is not compared: rec/b/x on
    // the same server with the same credentials is the same disk.
    SafePointer<FTPFileSystem> found;
    EXPECT_EQ(registry->getFTPFileSystem(location("/rec/b/x"), found), 1);
    EXPECT_EQ(found.get(), registered.get());
    EXPECT_EQ(registry->getFTPFileSystem(location("/rec/a/2026-11-22/cam1"), found), 1);
    EXPECT_EQ(found.get(), registered.get());
}

TEST_F(Registry, ADifferentPasswordOrParentDirectoryIsAnotherDisk) {
    ASSERT_EQ(add(location("/rec/a")), 0);
    SafePointer<FTPFileSystem> out;
    EXPECT_EQ(registry->getFTPFileSystem(location("/rec/a", "rec(other)"), out), 0);
    EXPECT_EQ(registry->getFTPFileSystem(location("/video/a"), out), 0);
    EXPECT_EQ(registry->getFTPFileSystem(location("/rec"), out), 0);
    EXPECT_TRUE(out.isNull());
}

TEST_F(Registry, AFailedLookupLeavesTheCallersReferenceAsItWas) {
    ASSERT_EQ(add(location("/rec/a")), 0);
    SafePointer<FTPFileSystem> out;
    ASSERT_EQ(registry->getFTPFileSystem(location("/rec/a"), out), 1);
    FTPFileSystem* const before = out.get();
    EXPECT_EQ(registry->getFTPFileSystem(location("/rec/a", "rec(other)"), out), 0);
    EXPECT_EQ(out.get(), before);
    EXPECT_EQ(registry->getFTPFileSystem("not a location", out), 0);
    EXPECT_EQ(out.get(), before);
}

TEST_F(Registry, ALocationWrittenWithBackslashesMatchesTheSameWithSlashes) {
    ASSERT_EQ(add(location("/rec/a")), 0);
    SafePointer<FTPFileSystem> registered;
    ASSERT_EQ(registry->getFTPFileSystem(location("/rec/a"), registered), 1);
    const std::string backslashed = "rec(pw)@ftp:\\\\" + server.address() + "\\rec\\a";
    SafePointer<FTPFileSystem> found;
    EXPECT_EQ(registry->getFTPFileSystem(backslashed, found), 1);
    EXPECT_EQ(found.get(), registered.get());
}

TEST_F(Registry, TheFirstCoveringLocationInKeyOrderWins) {
    ASSERT_EQ(add(location("/rec/y")), 0);
    ASSERT_EQ(add(location("/rec/x")), 0);
    SafePointer<FTPFileSystem> x;
    SafePointer<FTPFileSystem> y;
    ASSERT_EQ(registry->getFTPFileSystem(location("/rec/x"), x), 1);
    // Both cover /rec/y; "/rec/x" sorts first and is found for it too.
    ASSERT_EQ(registry->getFTPFileSystem(location("/rec/y"), y), 1);
    EXPECT_EQ(x.get(), y.get());
}

TEST_F(Registry, DeleteNeedsTheExactKey) {
    ASSERT_EQ(add(location("/rec/a")), 0);
    EXPECT_EQ(registry->deleteFileSystem(location("/rec/a/sub")), -1);
    SafePointer<FTPFileSystem> out;
    EXPECT_EQ(registry->getFTPFileSystem(location("/rec/a"), out), 1);
    EXPECT_EQ(registry->deleteFileSystem(location("/rec/a")), 0);
    EXPECT_EQ(registry->deleteFileSystem(location("/rec/a")), -1);
    SafePointer<FTPFileSystem> after;
    EXPECT_EQ(registry->getFTPFileSystem(location("/rec/a"), after), 0);
}

TEST_F(Registry, DeletingTheLastReferenceDestroysTheStoreWhichQuits) {
    ASSERT_EQ(add(location("/rec/a")), 0);
    {
        SafePointer<FTPFileSystem> store;
        ASSERT_EQ(registry->getFTPFileSystem(location("/rec/a"), store), 1);
        ASSERT_EQ(store->init(), 0);
    }
    EXPECT_EQ(registry->deleteFileSystem(location("/rec/a")), 0);
    EXPECT_EQ(server.commands(), (Commands{"USER rec", "PASS pw", "QUIT"}));
}

TEST_F(Registry, DeletingAStoreThatACallerStillHoldsKeepsTheCallersReferenceValid) {
    ASSERT_EQ(add(location("/rec/a")), 0);
    SafePointer<FTPFileSystem> held;
    ASSERT_EQ(registry->getFTPFileSystem(location("/rec/a"), held), 1);
    ASSERT_EQ(registry->deleteFileSystem(location("/rec/a")), 0);
    // Still alive and usable through the caller's reference.
    EXPECT_EQ(held->init(), 0);
    EXPECT_EQ(held->createDir("/rec"), 0);
    EXPECT_EQ(server.commands(), (Commands{"USER rec", "PASS pw", "CWD /", "CWD /rec"}));
    // The last holder lets go: the store is destroyed and quits.
    held = SafePointer<FTPFileSystem>(new FTPFileSystem("127.0.0.1:1", "x", "y", 4));
    EXPECT_EQ(server.commands(), (Commands{"USER rec", "PASS pw", "CWD /", "CWD /rec", "QUIT"}));
}

// --- Texts that must fit the store's fields --------------------------------------------

TEST_F(Registry, LocationsWhoseTextsWouldNotFitAreRefusedWithoutAStore) {
    struct Case {
        std::string credentials;
        size_t serverLength;
        bool accepted;
    };
    const std::vector<Case> cases = {
        {"rec(" + std::string(19, 'p') + ")", 15, true},
        {"rec(" + std::string(20, 'p') + ")", 15, false},
        {std::string(31, 'u') + "(pw)", 15, true},
        {std::string(32, 'u') + "(pw)", 15, false},
        {"rec(pw)", 31, true},
        {"rec(pw)", 32, false},
        {"rec(pw)", 48, false},
    };
    for (const Case& c : cases) {
        std::string host = "127.0.0.1:";
        std::string port = std::to_string(server.port());
        if (host.size() + port.size() < c.serverLength) {
            port = std::string(c.serverLength - host.size() - port.size(), '0') + port;
        }
        const std::string text = c.credentials + "@ftp://" + host + port + "/rec";
        const std::string label = c.credentials + " server " + std::to_string(c.serverLength);
        EXPECT_EQ(add(text), c.accepted ? 0 : -1) << label;
        SafePointer<FTPFileSystem> out;
        EXPECT_EQ(registry->getFTPFileSystem(text, out), c.accepted ? 1 : 0) << label;
        if (c.accepted) {
            EXPECT_EQ(out->init(), 0) << label;
            EXPECT_EQ(out->uninit(), 0) << label;
            EXPECT_EQ(registry->deleteFileSystem(text), 0) << label;
        }
    }
}

TEST(RegistryAtExit, StoresStillRegisteredAtProcessExitAreReleasedCleanly) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The child registers stores (one of them held by a second reference)
    // and exits: destroying the registry destroys them, with their monitor
    // threads, during static destruction.
    EXPECT_EXIT(
        {
            FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
            const bool added = registry->addFTPFileSystem("rec(pw)@ftp://127.0.0.1:1/a") == 0 &&
                               registry->addFTPFileSystem("rec(pw)@ftp://127.0.0.1:1/b/c") == 0;
            static SafePointer<FTPFileSystem> held;
            registry->getFTPFileSystem("rec(pw)@ftp://127.0.0.1:1/a", held);
            std::exit(added && !held.isNull() ? 7 : 1);
        },
        ::testing::ExitedWithCode(7), "");
}

// --- The covering rule on its own -------------------------------------------------------

struct CoverCase {
    const char* registered;
    const char* location;
    bool same;
};

TEST(RegistryCovering, IsSameDiskDirComparesEverythingButTheRegisteredLastComponent) {
    const std::vector<CoverCase> cases = {
        {"rec(pw)@ftp://h/rec/a", "rec(pw)@ftp://h/rec/a", true},
        {"rec(pw)@ftp://h/rec/a", "rec(pw)@ftp://h/rec/b/x", true},
        {"rec(pw)@ftp://h/rec/a", "rec(pw)@ftp://h/rec", false},  // fewer components
        {"rec(pw)@ftp://h/rec/a", "rec(pw2)@ftp://h/rec/a", false},
        {"rec(pw)@ftp://h/rec/a", "rec(pw)@ftp://g/rec/a", false},
        {"rec(pw)@ftp://h/rec/a", "rec(pw)@ftp:\\\\h\\rec\\a", true},
        {"rec(pw)@ftp:\\\\h\\rec\\a", "rec(pw)@ftp://h/rec/zzz", true},
        {"rec(pw)@ftp://h", "rec(pw)@ftp://h/anything", true},
        {"rec(pw)@ftp://h", "rec(pw)@ftp://other", true},  // "h" is the last component
        {"single", "anything/at/all", true},               // one component: always
        {"a/b", "c/b", false},
        {"", "", true},
    };
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    for (const CoverCase& c : cases) {
        EXPECT_EQ(registry->isSameDiskDir(c.registered, c.location), c.same)
            << c.registered << " covering " << c.location;
    }
}

// --- ftps stores -----------------------------------------------------------

TEST_F(Registry, AnFtpAndAnFtpsLocationNeverCoverEachOther) {
    EXPECT_FALSE(
        registry->isSameDiskDir("rec(pw)@ftp://10.0.0.5/rec/a", "rec(pw)@ftps://10.0.0.5/rec/b/x"));
    EXPECT_FALSE(
        registry->isSameDiskDir("rec(pw)@ftps://10.0.0.5/rec/a", "rec(pw)@ftp://10.0.0.5/rec/b/x"));
    EXPECT_TRUE(registry->isSameDiskDir("rec(pw)@ftps://10.0.0.5/rec/a",
                                        "rec(pw)@ftps://10.0.0.5/rec/b/x"));
    // Also where a registered text has no parent directories to compare.
    EXPECT_FALSE(registry->isSameDiskDir("rec(pw)@ftp://10.0.0.5", "rec(pw)@ftps://10.0.0.5/x"));
}

TEST_F(Registry, AnFtpsStoreIsFoundOnlyForFtpsLocations) {
    const std::string secure = "rec(pw)@ftps://" + server.address() + "/rec/a";
    ASSERT_EQ(add(secure), 0);
    SafePointer<FTPFileSystem> store;
    EXPECT_EQ(registry->getFTPFileSystem(location("/rec/b"), store), 0);
    EXPECT_TRUE(store.isNull());
    EXPECT_EQ(registry->getFTPFileSystem("rec(pw)@ftps://" + server.address() + "/rec/b", store),
              1);
    EXPECT_FALSE(store.isNull());
    EXPECT_EQ(server.connectionCount(), 0);
}

TEST_F(Registry, TrustCallsNeedAnFtpsStoreRegisteredUnderExactlyTheText) {
    const std::string secure = "rec(pw)@ftps://" + server.address() + "/rec";
    const std::string pin =
        "70:DA:12:62:18:F4:31:43:BF:A3:BD:22:42:06:0A:DF:A4:9B:60:C7:11:33:39:9B:41:D4:F8:9C:65:37:"
        "9E:E8";
    // Nothing registered yet.
    EXPECT_EQ(registry->setTlsPinnedFingerprint(secure, pin), -1);
    EXPECT_EQ(FTPFileSystem::getLastError().kind, FTPFileSystem::kErrorBadArgument);
    EXPECT_STREQ(FTPFileSystem::getLastError().text, "no store is registered under this text");
    // A plain store has no TLS to set.
    ASSERT_EQ(add(location("/rec")), 0);
    EXPECT_EQ(registry->skipTlsCertificateVerification(location("/rec")), -1);
    EXPECT_STREQ(FTPFileSystem::getLastError().text, "the location is not an ftps location");
    ASSERT_EQ(add(secure), 0);
    // A sub-path is not the registered text.
    EXPECT_EQ(registry->setTlsPinnedFingerprint(secure + "/cam1", pin), -1);
    EXPECT_EQ(registry->setTlsPinnedFingerprint(secure, "70:DA:12"), -1);
    EXPECT_EQ(FTPFileSystem::getLastError().kind, FTPFileSystem::kErrorBadArgument);
    EXPECT_EQ(registry->setTlsPinnedFingerprint(secure, pin), 0);
    EXPECT_EQ(FTPFileSystem::getLastError().kind, FTPFileSystem::kErrorNone);
    EXPECT_EQ(registry->skipTlsCertificateVerification(secure), 0);
    EXPECT_EQ(registry->addTlsCaFile(secure, "/nonexistent/ca.pem"), -1);
    EXPECT_EQ(FTPFileSystem::getLastError().kind, FTPFileSystem::kErrorLocalFile);
    EXPECT_NE(std::string(FTPFileSystem::getLastError().text).find("/nonexistent/ca.pem"),
              std::string::npos);
    EXPECT_EQ(server.connectionCount(), 0);
}

TEST_F(Registry, AnFtpsStoreWhoseServerRefusesAuthTlsNeverLogsInInClear) {
    const std::string secure = "rec(pw)@ftps://" + server.address() + "/rec";
    ASSERT_EQ(add(secure), 0);
    server.queueReply("AUTH", "534 TLS not available");
    SafePointer<FTPFileSystem> store;
    ASSERT_EQ(registry->getFTPFileSystem(secure, store), 1);
    EXPECT_EQ(store->init(), -1);
    EXPECT_EQ(FTPFileSystem::getLastError().kind, FTPFileSystem::kErrorRefused);
    EXPECT_STREQ(FTPFileSystem::getLastError().text, "534 TLS not available");
    // The refusal fails the connect: no user name or password goes out.
    EXPECT_EQ(server.commands(), (Commands{"AUTH TLS"}));
}

}  // namespace
