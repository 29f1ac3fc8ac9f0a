// TLS pieces that need no server: fingerprints as text, contexts made from a
// trust, and what a build without TLS answers.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "filesystem/FTPFileSystemManager.h"
#include "ftp/TlsContext.h"
#include "support/TempDir.h"

namespace {

const char* const kColons =
    "70:DA:12:62:18:F4:31:43:BF:A3:BD:22:42:06:0A:DF:A4:9B:60:C7:11:33:39:9B:41:D4:F8:9C:65:37:9E:"
    "E8";

TEST(TlsFingerprint, ColonsAndPlainHexInAnyCaseGiveTheSameBytes) {
    std::string fromColons;
    std::string fromPlain;
    ASSERT_TRUE(tlsParseFingerprint(kColons, &fromColons));
    ASSERT_TRUE(tlsParseFingerprint(
        "70da126218f43143bfa3bd2242060adfa49b60c71133399b41d4f89c65379ee8", &fromPlain));
    EXPECT_EQ(fromColons.size(), 32u);
    EXPECT_EQ(fromColons, fromPlain);
    EXPECT_EQ(static_cast<unsigned char>(fromColons[0]), 0x70);
    EXPECT_EQ(static_cast<unsigned char>(fromColons[31]), 0xE8);
    EXPECT_EQ(tlsFormatFingerprint(fromPlain), kColons);
}

TEST(TlsFingerprint, AnythingElseIsRefusedAndLeavesTheOutputAlone) {
    const char* const bad[] = {
        "",
        "70:DA",                                                               // too short
        "70da126218f43143bfa3bd2242060adfa49b60c71133399b41d4f89c65379ee8aa",  // 33 bytes
        "70da126218f43143bfa3bd2242060adfa49b60c71133399b41d4f89c65379ee",     // odd length
        "zzda126218f43143bfa3bd2242060adfa49b60c71133399b41d4f89c65379ee8",    // not hex
        ":70da126218f43143bfa3bd2242060adfa49b60c71133399b41d4f89c65379ee8",   // leading colon
        "70da126218f43143bfa3bd2242060adfa49b60c71133399b41d4f89c65379ee8:",   // trailing colon
        "70::da126218f43143bfa3bd2242060adfa49b60c71133399b41d4f89c65379ee8",  // doubled colon
        "7:0da126218f43143bfa3bd2242060adfa49b60c71133399b41d4f89c65379ee8",   // split pair
    };
    for (const char* text : bad) {
        std::string raw = "untouched";
        EXPECT_FALSE(tlsParseFingerprint(text, &raw)) << text;
        EXPECT_EQ(raw, "untouched") << text;
    }
}

TEST(TlsContextMaking, ContextsAreMadeForEveryTrustThisBuildCanKeep) {
    std::string why;
    TlsTrust system;
    TlsTrust pinned;
    pinned.mode = TlsTrust::kPinned;
    ASSERT_TRUE(tlsParseFingerprint(kColons, &pinned.pinnedSha256));
    TlsTrust none;
    none.mode = TlsTrust::kUnverified;
    for (const TlsTrust& trust : {system, pinned, none}) {
        const std::shared_ptr<TlsContext> made = TlsContext::make(trust, &why);
        if (TlsContext::builtIn()) {
            EXPECT_TRUE(made != nullptr) << why;
        } else {
            EXPECT_TRUE(made == nullptr);
            EXPECT_EQ(why, "TLS is not built into this module (ftps locations cannot connect)");
        }
    }
}

TEST(TlsContextMaking, ACaFileThatIsNotAPemCertificateIsNamedInTheReason) {
    if (!TlsContext::builtIn()) GTEST_SKIP() << "built without TLS";
    ftptest::TempDir dir;
    const std::string file = dir.path() + "/not-a-ca.pem";
    std::ofstream(file) << "this is not a certificate\n";
    TlsTrust trust;
    trust.caFiles.push_back(file);
    std::string why;
    EXPECT_TRUE(TlsContext::make(trust, &why) == nullptr);
    EXPECT_EQ(why.compare(0, 25 + file.size(), "cannot read the CA file " + file + ":"), 0) << why;

    trust.caFiles.assign(1, dir.path() + "/absent.pem");
    EXPECT_TRUE(TlsContext::make(trust, &why) == nullptr);
    EXPECT_NE(why.find("absent.pem"), std::string::npos) << why;
}

TEST(TlsStore, WithoutTlsBuiltInAnFtpsStoreFailsBeforeItConnects) {
    // Port 1 of the loopback address: nothing listens there, so a store that
    // tried to connect would fail as a refused connection instead.
    const std::string location = "rec(pw)@ftps://127.0.0.1:1/rec";
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    ASSERT_EQ(registry->addFTPFileSystem(location), 0);
    SafePointer<FTPFileSystem> store;
    ASSERT_EQ(registry->getFTPFileSystem(location, store), 1);
    EXPECT_EQ(store->init(), -1);
    const FTPFileSystem::LastError error = FTPFileSystem::getLastError();
    if (TlsContext::builtIn()) {
        EXPECT_EQ(error.kind, FTPFileSystem::kErrorConnectRefused) << error.text;
    } else {
        EXPECT_EQ(error.kind, FTPFileSystem::kErrorTls);
        EXPECT_STREQ(error.text,
                     "TLS is not built into this module (ftps locations cannot connect)");
        EXPECT_EQ(registry->skipTlsCertificateVerification(location), -1);
        EXPECT_EQ(FTPFileSystem::getLastError().kind, FTPFileSystem::kErrorTls);
        EXPECT_EQ(registry->setTlsPinnedFingerprint(location, std::string(64, 'a')), -1);
        EXPECT_EQ(FTPFileSystem::getLastError().kind, FTPFileSystem::kErrorTls);
        EXPECT_EQ(registry->setTlsPinnedFingerprint(location, "not hex"), -1);
        EXPECT_EQ(FTPFileSystem::getLastError().kind, FTPFileSystem::kErrorBadArgument);
    }
    EXPECT_EQ(registry->deleteFileSystem(location), 0);
}

}  // namespace
