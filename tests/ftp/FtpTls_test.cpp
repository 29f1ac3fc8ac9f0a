// Explicit FTPS against the scripted server: the exact lines the client sends
// (AUTH TLS right after the greeting, the login, PBSZ and PROT), the trust
// check (CA file, name, pinned fingerprint, no verification) and what a
// failed one leaves on the wire, protected data connections that resume the
// control session, the bytes of every transfer kind, bytes TLS has already
// decrypted counting as ready, and a plain store that stays plain.
//
// Built without TLS, only the test of the clear refusal runs; the others skip.
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemImpl.h"
#include "filesystem/FTPFileSystemManager.h"
#include "foundation/SafePointer.h"
#include "ftp/FTPTool.h"
#include "ftp/TlsContext.h"
#include "ftp/TlsSetting.h"
#include "support/ScriptedFtpServer.h"
#include "support/TempDir.h"
#include "support/TestCertificate.h"
#include "support/TestHelpers.h"

namespace {

using ftptest::CertificateKind;
using ftptest::DataConnectionRecord;
using ftptest::Millis;
using ftptest::patternBytes;
using ftptest::Reply;
using ftptest::ScriptedFtpServer;
using ftptest::ServerTlsOptions;
using ftptest::TestCertificate;
using Lines = std::vector<std::string>;

const Lines kSecureLogin{"AUTH TLS", "USER rec", "PASS pw", "PBSZ 0", "PROT P"};

// Writes every byte through `write` (which may take fewer than it is
// given); false when a call fails. At most 100000 calls.
template <typename Write>
bool writeAll(const std::string& bytes, size_t piece, Write&& write) {
    size_t at = 0;
    for (int i = 0; at < bytes.size() && i < 100000; ++i) {
        const int n = write(bytes.data() + at, std::min(piece, bytes.size() - at));
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return at == bytes.size();
}

Lines concat(Lines a, const Lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TlsTrust trustCa(const std::string& caFile) {
    TlsTrust trust;
    trust.caFiles.push_back(caFile);
    return trust;
}

TlsTrust trustPin(const std::string& sha256) {
    TlsTrust trust;
    trust.mode = TlsTrust::kPinned;
    trust.pinnedSha256 = sha256;
    return trust;
}

TlsTrust trustAnything() {
    TlsTrust trust;
    trust.mode = TlsTrust::kUnverified;
    return trust;
}

// A TLS server with a certificate of `kind`, and a tool on it.
class FtpTls : public ::testing::Test {
protected:
    void SetUp() override {
        if (!TlsContext::builtIn()) GTEST_SKIP() << "built without TLS";
        ASSERT_TRUE(cert.ok()) << cert.failure();
        serveWith(cert);
    }

    // The server presents `certificate` from now on.
    void serveWith(const TestCertificate& certificate, bool requireReuse = true) {
        ServerTlsOptions options;
        options.certFile = certificate.certFile();
        options.keyFile = certificate.keyFile();
        options.requireSessionReuse = requireReuse;
        std::string why;
        ASSERT_TRUE(server.enableTls(options, &why)) << why;
    }

    std::shared_ptr<TlsContext> context(const TlsTrust& trust) {
        std::string why;
        std::shared_ptr<TlsContext> made = TlsContext::make(trust, &why);
        EXPECT_TRUE(made) << why;
        return made;
    }

    // Connects with `trust` and logs in; the result of the step that failed
    // (connect or login), 1 when both succeeded.
    int connectAndLogin(const TlsTrust& trust) {
        tool.useTls(context(trust));
        const int connected = tool.connect(server.address().c_str());
        if (connected != 1) return connected;
        return tool.login("rec", "pw");
    }

    // Shortens the readiness wait of the control connection and of the data
    // connections opened afterwards: a read that waits for bytes TLS already
    // holds fails quickly instead of after seconds.
    void shortenWait(int milliseconds) {
        tool.getControlBuf()->idleTime.seconds = milliseconds / 1000;
        tool.getControlBuf()->idleTime.microseconds = (milliseconds % 1000) * 1000;
    }

    TestCertificate cert;
    ScriptedFtpServer server;
    FTPTool tool;
};

// --- The control connection ------------------------------------------------------------

TEST_F(FtpTls, AuthTlsFollowsTheGreetingThenTheLoginPbszAndProtGoThroughTls) {
    ASSERT_EQ(connectAndLogin(trustCa(cert.caFile())), 1) << tool.getResponse();
    EXPECT_EQ(server.commands(), kSecureLogin);
    EXPECT_EQ(server.tlsHandshakeCount(), 1);
    TlsPeerDetails details;
    ASSERT_TRUE(tool.tlsDetails(&details));
    EXPECT_EQ(details.fingerprint, cert.fingerprint());
    EXPECT_EQ(details.protocol, "TLSv1.3");
    EXPECT_TRUE(contains(details.subject, "localhost")) << details.subject;
    EXPECT_EQ(tool.cd("/rec"), 1);
    EXPECT_EQ(ftptest::tail(server.commands(), kSecureLogin.size()), Lines{"CWD /rec"});
}

TEST_F(FtpTls, TheServersNameInTheLocationIsCheckedAgainstTheCertificate) {
    tool.useTls(context(trustCa(cert.caFile())));
    ASSERT_EQ(tool.connect(("localhost:" + std::to_string(server.port())).c_str()), 1)
        << tool.getResponse();
    TlsPeerDetails details;
    ASSERT_TRUE(tool.tlsDetails(&details));
    EXPECT_EQ(details.fingerprint, cert.fingerprint());
}

TEST_F(FtpTls, ARefusedAuthFailsTheConnectWithTheServersReplyAndNothingFollowsInClear) {
    server.queueReply("AUTH", "534 Policy requires no TLS");
    tool.useTls(context(trustCa(cert.caFile())));
    EXPECT_EQ(tool.connect(server.address().c_str()), 0);
    EXPECT_EQ(std::string(tool.getResponse()), "534 Policy requires no TLS\n");
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureReply);
    EXPECT_EQ(server.commands(), Lines{"AUTH TLS"});
    EXPECT_EQ(server.tlsHandshakeCount(), 0);
}

// A failed trust check: the connect fails with a text naming the
// certificate's fingerprint, and the server gets no byte after the handshake.
void expectUntrusted(FTPTool& tool, ScriptedFtpServer& server, const std::string& fingerprint) {
    EXPECT_EQ(tool.connect(server.address().c_str()), 0);
    const std::string response = tool.getResponse();
    EXPECT_TRUE(contains(response, "TLS certificate not trusted")) << response;
    EXPECT_TRUE(contains(response, fingerprint)) << response;
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureTls);
    EXPECT_EQ(tool.login("rec", "pw"), 0);
    EXPECT_TRUE(server.waitForClosedConnections(1)) << "the client kept the connection open";
    EXPECT_EQ(server.commands(), Lines{"AUTH TLS"});
}

TEST_F(FtpTls, ACertificateOfAnUnknownCaFailsNamingItsFingerprint) {
    TestCertificate stranger;
    ASSERT_TRUE(stranger.ok()) << stranger.failure();
    tool.useTls(context(trustCa(stranger.caFile())));
    expectUntrusted(tool, server, cert.fingerprint());
}

TEST_F(FtpTls, ACertificateOfAnUnknownCaFailsWithTheSystemStoreAlone) {
    tool.useTls(context(TlsTrust()));
    expectUntrusted(tool, server, cert.fingerprint());
}

TEST_F(FtpTls, ACertificateForAnotherNameFailsNamingItsFingerprint) {
    TestCertificate other(CertificateKind::kOtherName);
    ASSERT_TRUE(other.ok()) << other.failure();
    serveWith(other);
    tool.useTls(context(trustCa(other.caFile())));
    expectUntrusted(tool, server, other.fingerprint());
}

TEST_F(FtpTls, AWrongPinFailsNamingTheServersFingerprint) {
    TestCertificate stranger;
    ASSERT_TRUE(stranger.ok()) << stranger.failure();
    tool.useTls(context(trustPin(stranger.sha256())));
    expectUntrusted(tool, server, cert.fingerprint());
}

TEST_F(FtpTls, TheRightPinIsTrustedWhateverTheChainAndName) {
    TestCertificate selfSigned(CertificateKind::kSelfSigned);
    ASSERT_TRUE(selfSigned.ok()) << selfSigned.failure();
    serveWith(selfSigned);
    ASSERT_EQ(connectAndLogin(trustPin(selfSigned.sha256())), 1) << tool.getResponse();
    EXPECT_EQ(server.commands(), kSecureLogin);

    TestCertificate other(CertificateKind::kOtherName);
    ASSERT_TRUE(other.ok()) << other.failure();
    serveWith(other);
    FTPTool second;
    std::string raw;
    ASSERT_TRUE(tlsParseFingerprint(other.fingerprint(), &raw));
    std::string why;
    second.useTls(TlsContext::make(trustPin(raw), &why));
    EXPECT_EQ(second.connect(server.address().c_str()), 1) << second.getResponse();
}

TEST_F(FtpTls, ASelfSignedCertificateIsRefusedByDefaultAndAcceptedUnverified) {
    TestCertificate selfSigned(CertificateKind::kSelfSigned);
    ASSERT_TRUE(selfSigned.ok()) << selfSigned.failure();
    serveWith(selfSigned);
    {
        FTPTool verifying;
        verifying.useTls(context(TlsTrust()));
        EXPECT_EQ(verifying.connect(server.address().c_str()), 0);
        EXPECT_TRUE(contains(verifying.getResponse(), selfSigned.fingerprint()))
            << verifying.getResponse();
    }
    ASSERT_EQ(connectAndLogin(trustAnything()), 1) << tool.getResponse();
    EXPECT_EQ(ftptest::tail(server.commands(), 1), kSecureLogin);
}

TEST_F(FtpTls, ARefusedProtFailsTheLogin) {
    server.queueReply("PROT", "536 Protection level not supported\n");
    EXPECT_EQ(connectAndLogin(trustCa(cert.caFile())), 0);
    EXPECT_EQ(std::string(tool.getResponse()), "536 Protection level not supported\n");
    EXPECT_EQ(server.commands(), kSecureLogin);
}

// A multi-line reply longer than the client's line buffer arrives in one
// TLS record: what the first read leaves inside TLS must be read without a
// wait on the socket, which stays quiet.
TEST_F(FtpTls, AReplyAlreadyDecryptedInsideTlsCountsAsReady) {
    std::string text;
    for (int i = 0; i < 200; ++i) text += "230-" + std::string(56, 'a' + i % 26) + "\n";
    text += "230 Logged in";
    ASSERT_LT(text.size(), 16000u) << "must fit one TLS record";
    ASSERT_GT(text.size(), 8192u) << "must not fit the client's line buffer";
    server.queueReply("PASS", Reply(text));
    tool.useTls(context(trustCa(cert.caFile())));
    ASSERT_EQ(tool.connect(server.address().c_str()), 1) << tool.getResponse();
    shortenWait(300);
    EXPECT_EQ(tool.login("rec", "pw"), 1) << tool.getResponse();
    EXPECT_EQ(server.commands(), kSecureLogin);
}

// --- Data connections ------------------------------------------------------------------

TEST_F(FtpTls, DataConnectionsAreProtectedAndResumeTheControlSession) {
    ASSERT_EQ(connectAndLogin(trustCa(cert.caFile())), 1) << tool.getResponse();
    const std::string bytes = patternBytes(100000, 3);
    server.putFile("/rec/a.ts", bytes);
    NetBuf* data = nullptr;
    ASSERT_EQ(tool.dataConnect("/rec/a.ts", kFtpRetr, 'I', &data), 1) << tool.getResponse();
    EXPECT_TRUE(tool.lastDataResumedSession());
    std::string got;
    char buffer[8192];
    for (int i = 0; i < 1000; ++i) {
        const int n = tool.read(buffer, sizeof buffer, data);
        if (n <= 0) break;
        got.append(buffer, static_cast<size_t>(n));
    }
    EXPECT_EQ(tool.closeData(data), 1) << tool.getResponse();
    EXPECT_TRUE(got == bytes) << got.size() << " bytes";

    ASSERT_EQ(tool.dataConnect("/rec/b.ts", kFtpStor, 'I', &data), 1) << tool.getResponse();
    EXPECT_TRUE(tool.lastDataResumedSession());
    EXPECT_TRUE(writeAll(bytes.substr(0, 50000), 50000, [&](const char* p, size_t n) {
        return tool.write(p, static_cast<int>(n), data);
    }));
    EXPECT_EQ(tool.closeData(data), 1) << tool.getResponse();
    EXPECT_TRUE(server.file("/rec/b.ts") == std::optional<std::string>(bytes.substr(0, 50000)));

    EXPECT_EQ(server.commands(), concat(kSecureLogin, {"TYPE I", "PASV", "RETR /rec/a.ts", "TYPE I",
                                                       "PASV", "STOR /rec/b.ts"}));
    const std::vector<DataConnectionRecord> records = server.dataConnectionRecords();
    ASSERT_EQ(records.size(), 2u);
    for (const DataConnectionRecord& r : records) {
        EXPECT_TRUE(r.tls) << r.command;
        EXPECT_TRUE(r.resumed) << r.command;
        EXPECT_FALSE(r.refused) << r.command;
    }
    EXPECT_TRUE(records[1].closeNotify) << "the upload ended without close_notify";
}

TEST_F(FtpTls, OneWriteTakesEveryByteItIsGivenAsInClear) {
    // A write in clear hands the rest to one blocking send once the socket
    // has room; through TLS the records after the first follow within the
    // same wait, so a caller that writes a segment in one call loses nothing.
    ASSERT_EQ(connectAndLogin(trustCa(cert.caFile())), 1) << tool.getResponse();
    const std::string bytes = patternBytes(1024 * 1024 + 7, 9);
    NetBuf* data = nullptr;
    ASSERT_EQ(tool.dataConnect("/rec/whole.ts", kFtpStor, 'I', &data), 1) << tool.getResponse();
    // A small send buffer makes the socket full many times over in one call.
    const int small = 16 * 1024;
    ASSERT_EQ(setsockopt(data->handle, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    EXPECT_EQ(tool.write(bytes.data(), static_cast<int>(bytes.size()), data),
              static_cast<int>(bytes.size()));
    EXPECT_EQ(tool.closeData(data), 1) << tool.getResponse();
    EXPECT_TRUE(server.file("/rec/whole.ts") == std::optional<std::string>(bytes));
}

TEST_F(FtpTls, AFailedDataHandshakeFailsTheTransferAndTheConnectionStaysInStep) {
    ASSERT_EQ(connectAndLogin(trustCa(cert.caFile())), 1) << tool.getResponse();
    server.putFile("/rec/a.ts", "bytes");
    Reply reset("150 Opening data connection");
    reset.failDataTls = true;
    server.queueReply("RETR", reset);
    NetBuf* data = nullptr;
    EXPECT_EQ(tool.dataConnect("/rec/a.ts", kFtpRetr, 'I', &data), 0);
    EXPECT_EQ(data, nullptr);
    EXPECT_TRUE(contains(tool.getResponse(), "TLS")) << tool.getResponse();
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureTls);
    // The server's 522 is read and dropped before the next command.
    EXPECT_EQ(tool.cd("/rec"), 1) << tool.getResponse();
    ASSERT_EQ(tool.dataConnect("/rec/a.ts", kFtpRetr, 'I', &data), 1) << tool.getResponse();
    char buffer[64];
    EXPECT_EQ(tool.read(buffer, sizeof buffer, data), 5);
    EXPECT_EQ(tool.closeData(data), 1) << tool.getResponse();
    EXPECT_EQ(server.commands(),
              concat(kSecureLogin, {"TYPE I", "PASV", "RETR /rec/a.ts", "CWD /rec", "TYPE I",
                                    "PASV", "RETR /rec/a.ts"}));
    const std::vector<DataConnectionRecord> records = server.dataConnectionRecords();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(records[0].refused);
    EXPECT_TRUE(records[1].tls && records[1].resumed);
}

// A file and a listing sent in one TLS record, read in small pieces while
// the server keeps the data connection open: every piece after the first is
// already decrypted inside TLS, and the socket stays quiet.
TEST_F(FtpTls, DataAlreadyDecryptedInsideTlsCountsAsReady) {
    ASSERT_EQ(connectAndLogin(trustCa(cert.caFile())), 1) << tool.getResponse();
    shortenWait(300);
    const std::string bytes = patternBytes(15000, 5);
    for (int type : {kFtpRetr, kFtpList}) {
        Reply held("150 Here it comes");
        held.body = bytes;
        held.finalAfterClientClose = true;
        server.queueReply(type == kFtpRetr ? "RETR" : "LIST", held);
        NetBuf* data = nullptr;
        ASSERT_EQ(tool.dataConnect("/rec/a.ts", type, 'I', &data), 1) << tool.getResponse();
        std::string got;
        char buffer[100];
        for (int i = 0; i < 1000 && got.size() < bytes.size(); ++i) {
            const int n = tool.read(buffer, sizeof buffer, data);
            ASSERT_GT(n, 0) << "read " << i << " after " << got.size() << " bytes";
            got.append(buffer, static_cast<size_t>(n));
        }
        EXPECT_TRUE(got == bytes) << got.size() << " bytes";
        EXPECT_EQ(tool.closeData(data), 1) << tool.getResponse();
    }
}

TEST_F(FtpTls, ListingsOneAfterAnotherAllResumeOnAServerThatRequiresIt) {
    ASSERT_EQ(connectAndLogin(trustCa(cert.caFile())), 1) << tool.getResponse();
    for (int i = 0; i < 3; ++i) {
        NetBuf* data = nullptr;
        ASSERT_EQ(tool.dataConnect("/rec", kFtpNlst, 'A', &data), 1) << tool.getResponse();
        char line[256];
        // The line reader reports the end of the data as -1.
        EXPECT_EQ(tool.read(line, sizeof line, data), -1);
        EXPECT_EQ(tool.closeData(data), 1) << tool.getResponse();
    }
    const std::vector<DataConnectionRecord> records = server.dataConnectionRecords();
    ASSERT_EQ(records.size(), 3u);
    for (const DataConnectionRecord& r : records) {
        EXPECT_TRUE(r.tls && r.resumed && !r.refused) << r.command;
    }
}

// A server that has forgotten the control connection's session (here: new
// session keys) makes a full handshake on the data connection, then refuses
// it: the transfer fails with the server's reply.
TEST_F(FtpTls, ADataConnectionThatCannotResumeIsRefusedAndTheTransferFails) {
    ASSERT_EQ(connectAndLogin(trustCa(cert.caFile())), 1) << tool.getResponse();
    serveWith(cert);
    server.putFile("/rec/a.ts", "bytes");
    NetBuf* data = nullptr;
    ASSERT_EQ(tool.dataConnect("/rec/a.ts", kFtpRetr, 'I', &data), 1) << tool.getResponse();
    EXPECT_FALSE(tool.lastDataResumedSession());
    char buffer[64];
    EXPECT_LE(tool.read(buffer, sizeof buffer, data), 0);
    EXPECT_EQ(tool.closeData(data), 0);
    EXPECT_EQ(std::string(tool.getResponse()),
              "522 Data connections must resume the TLS session of the control connection\n");
    const std::vector<DataConnectionRecord> records = server.dataConnectionRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_TRUE(records[0].tls);
    EXPECT_FALSE(records[0].resumed);
    EXPECT_TRUE(records[0].refused);
    // The control connection stays in step.
    EXPECT_EQ(tool.cd("/rec"), 1) << tool.getResponse();
}

// --- The store ---------------------------------------------------------------------------

class FtpTlsStore : public FtpTls {
protected:
    void SetUp() override {
        FtpTls::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        store.reset(new FTPFileSystemImpl(server.address().c_str(), "rec", "pw", 1024));
        store->tls().require();
        std::string why;
        ASSERT_EQ(store->tls().addCaFile(cert.caFile(), &why), 0) << why;
    }

    std::unique_ptr<FTPFileSystemImpl> store;
    ftptest::TempDir local;
};

TEST_F(FtpTlsStore, PutAndGetCopyEveryByteOverTls) {
    const std::string bytes = patternBytes(3 * 8192 + 5, 3);
    const std::string source = local.file("up.ts");
    {
        std::FILE* f = std::fopen(source.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
    }
    EXPECT_EQ(store->Put(source.c_str(), "/rec/up.ts"), 0);
    EXPECT_TRUE(server.file("/rec/up.ts") == std::optional<std::string>(bytes));
    const std::string target = local.file("down.ts");
    EXPECT_EQ(store->Get(target.c_str(), "/rec/up.ts"), 0);
    EXPECT_TRUE(ftptest::readWholeFile(target) == bytes);
    const Lines all = server.commands();
    ASSERT_GE(all.size(), 8u);
    EXPECT_EQ(Lines(all.begin(), all.begin() + 8),
              concat(kSecureLogin, {"TYPE I", "PASV", "STOR /rec/up.ts"}));
    EXPECT_EQ(ftptest::tail(all, all.size() - 3), (Lines{"TYPE I", "PASV", "RETR /rec/up.ts"}));
    for (const DataConnectionRecord& r : server.dataConnectionRecords()) {
        EXPECT_TRUE(r.tls && r.resumed) << r.command;
    }
}

TEST_F(FtpTlsStore, InitOpenWriteReadAndListOverTls) {
    ASSERT_EQ(store->init(), 0) << FTPFileSystem::getLastError().text;
    EXPECT_EQ(server.commandsOn(1), kSecureLogin);

    const std::string bytes = patternBytes(70000, 9);
    const int writing = store->open("/rec/seg.ts", 2);
    ASSERT_GT(writing, 0);
    EXPECT_TRUE(writeAll(bytes, bytes.size(), [&](const char* p, size_t n) {
        return store->write(writing, p, static_cast<unsigned>(n));
    }));
    EXPECT_EQ(store->close(writing), 0);
    EXPECT_TRUE(server.file("/rec/seg.ts") == std::optional<std::string>(bytes));
    EXPECT_EQ(server.commandsOn(2), concat(kSecureLogin, {"TYPE I", "PASV", "STOR /rec/seg.ts"}));

    const int reading = store->open("/rec/seg.ts", 1);
    ASSERT_GT(reading, 0);
    std::string got;
    char buffer[4096];
    for (int i = 0; i < 1000; ++i) {
        const int n = store->read(reading, buffer, sizeof buffer);
        if (n <= 0) break;
        got.append(buffer, static_cast<size_t>(n));
    }
    EXPECT_EQ(store->close(reading), 0);
    EXPECT_TRUE(got == bytes) << got.size() << " bytes";

    server.setListing(
        "-rw-r--r-- 1 rec rec 70000 Jan 15 10:31 seg.ts\r\n"
        "drwxr-xr-x 2 rec rec 4096 Jan 15 10:31 day\r\n");
    std::vector<std::string> names;
    EXPECT_EQ(store->getFileList("/rec", names, ""), 1);
    EXPECT_EQ(names, (Lines{"seg.ts"}));
    for (const DataConnectionRecord& r : server.dataConnectionRecords()) {
        EXPECT_TRUE(r.tls && r.resumed && !r.refused) << r.command;
    }
    EXPECT_GE(server.dataConnectionRecords().size(), 3u);
    // Every control connection went through TLS.
    EXPECT_EQ(server.tlsHandshakeCount(), server.connectionCount());
}

TEST_F(FtpTlsStore, UploadsEndWithCloseNotifyAndTheAsynchronousWriteAndTheSnapshotArriveWhole) {
    ASSERT_EQ(store->init(), 0) << FTPFileSystem::getLastError().text;
    const std::string bytes = patternBytes(40000, 2);
    const int handle = store->open("/rec/aio.ts", 2);
    ASSERT_GT(handle, 0);
    size_t at = 0;
    for (int i = 0; at < bytes.size() && i < 10000; ++i) {
        const int n =
            store->aioWrite(handle, bytes.data() + at,
                            static_cast<unsigned>(std::min<size_t>(4096, bytes.size() - at)));
        if (n < 0) {
            ASSERT_EQ(store->aioReturn(handle, 3000), 0);
            continue;
        }
        at += static_cast<size_t>(n);
    }
    EXPECT_EQ(at, bytes.size());
    EXPECT_EQ(store->close(handle), 0);
    EXPECT_TRUE(server.file("/rec/aio.ts") == std::optional<std::string>(bytes));

    ASSERT_EQ(store->snapshot_open("/rec/snap.jpg", 0), 0);
    EXPECT_EQ(store->snapshot_write(bytes.data(), 5000), 5000);
    EXPECT_EQ(store->snapshot_write(bytes.data() + 5000, 3), 3);
    EXPECT_EQ(store->snapshot_close(), 0);
    EXPECT_TRUE(server.file("/rec/snap.jpg") == std::optional<std::string>(bytes.substr(0, 5003)));

    const std::vector<DataConnectionRecord> records = server.dataConnectionRecords();
    ASSERT_EQ(records.size(), 2u);
    for (const DataConnectionRecord& r : records) {
        EXPECT_TRUE(r.tls && r.resumed) << r.command;
        EXPECT_TRUE(r.closeNotify) << r.command << " ended without close_notify";
    }
    EXPECT_EQ(server.commandsOn(1), concat(kSecureLogin, {"TYPE I", "PASV", "STOR /rec/snap.jpg"}));
}

// A server that offers TLS 1.2 at most resumes sessions by their id: the
// data connections resume all the same.
TEST_F(FtpTlsStore, WithTls12TheDataConnectionsResumeTheControlSessionToo) {
    ServerTlsOptions options;
    options.certFile = cert.certFile();
    options.keyFile = cert.keyFile();
    options.requireSessionReuse = true;
    options.tls12Only = true;
    ASSERT_TRUE(server.enableTls(options));
    ASSERT_EQ(store->init(), 0) << FTPFileSystem::getLastError().text;
    const std::string bytes = patternBytes(30000, 6);
    for (int i = 0; i < 3; ++i) {
        const std::string path = "/rec/seg" + std::to_string(i) + ".ts";
        const int handle = store->open(path.c_str(), 2);
        ASSERT_GT(handle, 0) << FTPFileSystem::getLastError().text;
        EXPECT_TRUE(writeAll(bytes, bytes.size(), [&](const char* p, size_t n) {
            return store->write(handle, p, static_cast<unsigned>(n));
        }));
        EXPECT_EQ(store->close(handle), 0);
        EXPECT_TRUE(server.file(path) == std::optional<std::string>(bytes));
    }
    std::vector<std::string> names;
    EXPECT_EQ(store->getFileList("/rec", names, ""), 1);
    const std::vector<DataConnectionRecord> records = server.dataConnectionRecords();
    ASSERT_EQ(records.size(), 4u);
    for (const DataConnectionRecord& r : records) {
        EXPECT_TRUE(r.tls && r.resumed && !r.refused) << r.command;
    }
}

TEST_F(FtpTlsStore, ARefusedAuthFailsInitWithTheServersReplyAndSendsNoLogin) {
    server.setReply("AUTH", "534 Not here");
    EXPECT_EQ(store->init(), -1);
    const FTPFileSystem::LastError error = FTPFileSystem::getLastError();
    EXPECT_EQ(error.kind, FTPFileSystem::kErrorRefused);
    EXPECT_EQ(std::string(error.text), "534 Not here");
    ASSERT_TRUE(server.waitForCommands(1));
    for (const std::string& line : server.commands())
        EXPECT_TRUE(line == "AUTH TLS" || line == "QUIT") << line;
    EXPECT_EQ(server.commands().front(), "AUTH TLS");
}

TEST_F(FtpTlsStore, AnUntrustedCertificateFailsInitWithTheTlsKindAndTheFingerprint) {
    TestCertificate other(CertificateKind::kOtherName);
    ASSERT_TRUE(other.ok());
    serveWith(other);
    EXPECT_EQ(store->init(), -1);
    const FTPFileSystem::LastError error = FTPFileSystem::getLastError();
    EXPECT_EQ(error.kind, FTPFileSystem::kErrorTls);
    EXPECT_TRUE(contains(error.text, "TLS certificate not trusted")) << error.text;
    EXPECT_TRUE(contains(error.text, other.fingerprint())) << error.text;
    EXPECT_TRUE(server.waitForClosedConnections(1));
    EXPECT_EQ(server.commands(), Lines{"AUTH TLS"});
    EXPECT_EQ(store->open("/rec/a.ts", 2), -1);
    EXPECT_EQ(server.commands(), (Lines{"AUTH TLS", "AUTH TLS"}));
}

// --- Through the registry ------------------------------------------------------------------

class FtpTlsRegistry : public FtpTls {
protected:
    void TearDown() override {
        held.reset();
        for (const std::string& l : registered) registry->deleteFileSystem(l);
    }

    FTPFileSystem* add(const std::string& scheme) {
        const std::string location = "rec(pw)@" + scheme + "://" + server.address() + "/rec";
        EXPECT_EQ(registry->addFTPFileSystem(location), 0);
        registered.push_back(location);
        SafePointer<FTPFileSystem> found;
        EXPECT_EQ(registry->getFTPFileSystem(location, found), 1);
        held.reset(new SafePointer<FTPFileSystem>(found));
        return found.get();
    }

    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    std::vector<std::string> registered;
    std::unique_ptr<SafePointer<FTPFileSystem> > held;
};

TEST_F(FtpTlsRegistry, AnFtpsStoreFollowsItsTrustCalls) {
    FTPFileSystem* store = add("ftps");
    ASSERT_NE(store, nullptr);
    const std::string location = registered.back();
    // The system store does not know the test CA.
    EXPECT_EQ(store->init(), -1);
    EXPECT_EQ(FTPFileSystem::getLastError().kind, FTPFileSystem::kErrorTls);
    TestCertificate stranger;
    ASSERT_TRUE(stranger.ok());
    EXPECT_EQ(registry->setTlsPinnedFingerprint(location, stranger.fingerprint()), 0);
    EXPECT_EQ(store->init(), -1);
    EXPECT_TRUE(contains(FTPFileSystem::getLastError().text, cert.fingerprint()));
    EXPECT_EQ(registry->setTlsPinnedFingerprint(location, cert.fingerprint()), 0);
    EXPECT_EQ(store->init(), 0) << FTPFileSystem::getLastError().text;
    EXPECT_EQ(registry->addTlsCaFile(location, cert.caFile()), 0);
    EXPECT_EQ(store->init(), 0) << FTPFileSystem::getLastError().text;
    EXPECT_EQ(registry->skipTlsCertificateVerification(location), 0);
    EXPECT_EQ(store->init(), 0) << FTPFileSystem::getLastError().text;
    // The two failed handshakes sent nothing after AUTH; three logins.
    EXPECT_EQ(server.commands(), concat(concat(Lines{"AUTH TLS", "AUTH TLS"}, kSecureLogin),
                                        concat(kSecureLogin, kSecureLogin)));
}

TEST_F(FtpTlsRegistry, APlainStoreSendsNoAuthAndRefusesTrustCalls) {
    FTPFileSystem* store = add("ftp");
    ASSERT_NE(store, nullptr);
    const std::string location = registered.back();
    EXPECT_EQ(registry->skipTlsCertificateVerification(location), -1);
    EXPECT_EQ(registry->addTlsCaFile(location, cert.caFile()), -1);
    EXPECT_EQ(registry->setTlsPinnedFingerprint(location, cert.fingerprint()), -1);
    ASSERT_EQ(store->init(), 0);
    EXPECT_EQ(store->createDir("/rec/day"), 0);
    const Lines all = server.commands();
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(Lines(all.begin(), all.begin() + 2), (Lines{"USER rec", "PASS pw"}));
    for (const std::string& line : all) {
        EXPECT_NE(line.substr(0, 4), "AUTH");
        EXPECT_NE(line.substr(0, 4), "PBSZ");
        EXPECT_NE(line.substr(0, 4), "PROT");
    }
    EXPECT_EQ(server.tlsHandshakeCount(), 0);
    for (const DataConnectionRecord& r : server.dataConnectionRecords()) EXPECT_FALSE(r.tls);
}

// --- Without TLS built in --------------------------------------------------------------------

TEST(FtpTlsNotBuiltIn, AnFtpsConnectionFailsWithAClearResponse) {
    if (TlsContext::builtIn()) GTEST_SKIP() << "built with TLS";
    std::string why;
    EXPECT_FALSE(TlsContext::make(TlsTrust(), &why));
    EXPECT_FALSE(why.empty());
    ScriptedFtpServer server;
    FTPFileSystemImpl store(server.address().c_str(), "rec", "pw", 1024);
    store.tls().require();
    EXPECT_EQ(store.init(), -1);
    EXPECT_EQ(FTPFileSystem::getLastError().kind, FTPFileSystem::kErrorTls);
    EXPECT_TRUE(server.commands().empty());
}

}  // namespace
