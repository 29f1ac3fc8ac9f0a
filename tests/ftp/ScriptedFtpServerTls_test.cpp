// The scripted server's explicit TLS, driven by a bare OpenSSL client: AUTH,
// the handshake and the commands over it, protected data connections and
// their session resumption, scripted refusals, and the test certificates
// (trusted through their CA, for the right names, with the fingerprint they
// announce).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "support/ScriptedFtpServer.h"
#include "support/TestCertificate.h"
#include "support/TestHelpers.h"

namespace {

using ftptest::CertificateKind;
using ftptest::DataConnectionRecord;
using ftptest::Reply;
using ftptest::ScriptedFtpServer;
using ftptest::ServerTlsOptions;
using ftptest::TestCertificate;
using Lines = std::vector<std::string>;

// A blocking TCP connection to 127.0.0.1:port whose every send and receive
// gives up after 5 s.
int connectLoopback(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// "AB:CD:..." of the peer's certificate.
std::string peerFingerprint(SSL* ssl) {
    X509* cert = SSL_get0_peer_certificate(ssl);
    if (cert == nullptr) return "";
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    X509_digest(cert, EVP_sha256(), digest, &length);
    std::string text;
    char hex[4];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(hex, sizeof hex, i == 0 ? "%02X" : ":%02X", digest[i]);
        text += i == 0 ? std::string(hex, 2) : std::string(hex, 3);
    }
    return text;
}

// A control connection: clear text until startTls(), TLS afterwards; and
// passive data connections, TLS when asked, resuming the control session
// when asked.
class TlsClient {
public:
    // Trusts `caFile` (none: trusts nothing) and checks the address
    // 127.0.0.1 (or, when `host` is given, that name).
    TlsClient(uint16_t port, const std::string& caFile, const std::string& host = "") {
        context_ = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_min_proto_version(context_, TLS1_2_VERSION);
        SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, nullptr);
        if (!caFile.empty()) SSL_CTX_load_verify_locations(context_, caFile.c_str(), nullptr);
        host_ = host;
        fd_ = connectLoopback(port);
    }
    ~TlsClient() {
        endData();
        if (ssl_ != nullptr) {
            SSL_shutdown(ssl_);
            SSL_free(ssl_);
        }
        if (fd_ >= 0) close(fd_);
        SSL_CTX_free(context_);
        ERR_clear_error();
    }

    bool connected() const { return fd_ >= 0; }

    void send(const std::string& line) {
        const std::string out = line + "\r\n";
        if (ssl_ != nullptr)
            ASSERT_EQ(SSL_write(ssl_, out.data(), static_cast<int>(out.size())),
                      static_cast<int>(out.size()));
        else
            ASSERT_EQ(::send(fd_, out.data(), out.size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(out.size()));
    }

    // One reply line without its CR LF; "" when the connection ends or 5 s
    // pass without one.
    std::string line() {
        for (int i = 0; i < 1000 && buffer_.find('\n') == std::string::npos; ++i) {
            char b[512];
            const int n = ssl_ != nullptr ? SSL_read(ssl_, b, sizeof b)
                                          : static_cast<int>(recv(fd_, b, sizeof b, 0));
            if (n <= 0) break;
            buffer_.append(b, static_cast<size_t>(n));
        }
        const size_t end = buffer_.find('\n');
        if (end == std::string::npos) return "";
        std::string l = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        if (!l.empty() && l.back() == '\r') l.pop_back();
        return l;
    }

    std::string command(const std::string& line) {
        send(line);
        return this->line();
    }

    // The handshake on the control connection, verified.
    bool startTls() {
        ssl_ = SSL_new(context_);
        SSL_set_fd(ssl_, fd_);
        X509_VERIFY_PARAM* param = SSL_get0_param(ssl_);
        if (host_.empty()) {
            X509_VERIFY_PARAM_set1_ip_asc(param, "127.0.0.1");
        } else {
            X509_VERIFY_PARAM_set1_host(param, host_.c_str(), 0);
            SSL_set_tlsext_host_name(ssl_, host_.c_str());
        }
        const bool ok = SSL_connect(ssl_) == 1;
        verifyResult_ = SSL_get_verify_result(ssl_);
        if (!ok) {
            SSL_free(ssl_);
            ssl_ = nullptr;
            ERR_clear_error();
        }
        return ok;
    }
    long verifyResult() const { return verifyResult_; }
    SSL* ssl() const { return ssl_; }

    // PASV, then a connection to the announced port.
    bool openPassive() {
        const std::string reply = command("PASV");
        unsigned h[4], p[2];
        if (std::sscanf(reply.c_str(), "227 Entering Passive Mode (%u,%u,%u,%u,%u,%u)", &h[0],
                        &h[1], &h[2], &h[3], &p[0], &p[1]) != 6)
            return false;
        dataFd_ = connectLoopback(static_cast<uint16_t>(p[0] * 256 + p[1]));
        return dataFd_ >= 0;
    }

    // The data connection's handshake (after the transfer's 1xx), resuming
    // the control connection's session when `resume`.
    bool startDataTls(bool resume) {
        dataSsl_ = SSL_new(context_);
        SSL_set_fd(dataSsl_, dataFd_);
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(dataSsl_), "127.0.0.1");
        if (resume) {
            SSL_SESSION* session = SSL_get1_session(ssl_);
            SSL_set_session(dataSsl_, session);
            SSL_SESSION_free(session);
        }
        const bool ok = SSL_connect(dataSsl_) == 1;
        ERR_clear_error();
        return ok;
    }
    bool dataResumed() const { return dataSsl_ != nullptr && SSL_session_reused(dataSsl_) == 1; }

    // Everything until the end of the data (at most 1000 reads).
    std::string readData() {
        std::string got;
        char b[4096];
        for (int i = 0; i < 1000; ++i) {
            const int n = dataSsl_ != nullptr ? SSL_read(dataSsl_, b, sizeof b)
                                              : static_cast<int>(recv(dataFd_, b, sizeof b, 0));
            if (n <= 0) break;
            got.append(b, static_cast<size_t>(n));
        }
        return got;
    }
    void writeData(const std::string& bytes) {
        ASSERT_EQ(SSL_write(dataSsl_, bytes.data(), static_cast<int>(bytes.size())),
                  static_cast<int>(bytes.size()));
    }
    // close_notify when `notify`, then the socket.
    void endData(bool notify = true) {
        if (dataSsl_ != nullptr) {
            if (notify) SSL_shutdown(dataSsl_);
            SSL_free(dataSsl_);
            dataSsl_ = nullptr;
        }
        if (dataFd_ >= 0) close(dataFd_);
        dataFd_ = -1;
        ERR_clear_error();
    }

private:
    SSL_CTX* context_ = nullptr;
    std::string host_;
    int fd_ = -1;
    SSL* ssl_ = nullptr;
    long verifyResult_ = -1;
    int dataFd_ = -1;
    SSL* dataSsl_ = nullptr;
    std::string buffer_;
};

class ScriptedFtpServerTls : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        ASSERT_TRUE(cert.ok()) << cert.failure();
        ServerTlsOptions options;
        options.certFile = cert.certFile();
        options.keyFile = cert.keyFile();
        options.tls12Only = GetParam();
        options.requireSessionReuse = true;
        std::string why;
        ASSERT_TRUE(server.enableTls(options, &why)) << why;
    }

    // Greeting, AUTH TLS, handshake, login, PBSZ, PROT P.
    void protectedLogin(TlsClient& client) {
        ASSERT_TRUE(client.connected());
        ASSERT_EQ(client.line(), "220 ready");
        ASSERT_EQ(client.command("AUTH TLS"), "234 Proceed with negotiation.");
        ASSERT_TRUE(client.startTls()) << "verify result " << client.verifyResult();
        ASSERT_EQ(client.command("USER rec"), "331 Password required");
        ASSERT_EQ(client.command("PASS pw"), "230 Logged in");
        ASSERT_EQ(client.command("PBSZ 0"), "200 PBSZ=0");
        ASSERT_EQ(client.command("PROT P"), "200 Protection level set to P");
    }

    TestCertificate cert;
    ScriptedFtpServer server;
};

TEST_P(ScriptedFtpServerTls, CommandsAfterTheHandshakeAreRecordedAsTheirClearLines) {
    server.putFile("/rec/a.ts", ftptest::patternBytes(50000, 1));
    {
        TlsClient client(server.port(), cert.caFile());
        protectedLogin(client);
        EXPECT_EQ(peerFingerprint(client.ssl()), cert.fingerprint());
        EXPECT_EQ(std::string(SSL_get_version(client.ssl())), GetParam() ? "TLSv1.2" : "TLSv1.3");
        ASSERT_TRUE(client.openPassive());
        EXPECT_EQ(client.command("RETR /rec/a.ts"), "150 Opening data connection");
        ASSERT_TRUE(client.startDataTls(true));
        EXPECT_TRUE(client.dataResumed());
        EXPECT_TRUE(client.readData() == ftptest::patternBytes(50000, 1));
        client.endData();
        EXPECT_EQ(client.line(), "226 Transfer complete");

        ASSERT_TRUE(client.openPassive());
        EXPECT_EQ(client.command("STOR /rec/b.ts"), "150 Opening data connection");
        ASSERT_TRUE(client.startDataTls(true));
        client.writeData("recorded bytes");
        client.endData();
        EXPECT_EQ(client.line(), "226 Transfer complete");
        EXPECT_EQ(client.command("QUIT"), "221 Goodbye");
    }
    EXPECT_EQ(server.commands(),
              (Lines{"AUTH TLS", "USER rec", "PASS pw", "PBSZ 0", "PROT P", "PASV",
                     "RETR /rec/a.ts", "PASV", "STOR /rec/b.ts", "QUIT"}));
    EXPECT_EQ(server.file("/rec/b.ts"), std::optional<std::string>("recorded bytes"));
    EXPECT_EQ(server.tlsHandshakeCount(), 1);
    const std::vector<DataConnectionRecord> records = server.dataConnectionRecords();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].command, "RETR /rec/a.ts");
    EXPECT_TRUE(records[0].tls);
    EXPECT_TRUE(records[0].resumed);
    EXPECT_FALSE(records[0].refused);
    EXPECT_EQ(records[1].command, "STOR /rec/b.ts");
    EXPECT_TRUE(records[1].resumed);
    EXPECT_TRUE(records[1].closeNotify);
}

TEST_P(ScriptedFtpServerTls, ADataConnectionThatDoesNotResumeIsRefusedWhenReuseIsRequired) {
    TlsClient client(server.port(), cert.caFile());
    protectedLogin(client);
    ASSERT_TRUE(client.openPassive());
    EXPECT_EQ(client.command("LIST"), "150 Opening data connection");
    // The server completes the handshake, then closes the connection.
    client.startDataTls(false);
    EXPECT_FALSE(client.dataResumed());
    EXPECT_EQ(client.readData(), "");
    client.endData(false);
    EXPECT_EQ(client.line(),
              "522 Data connections must resume the TLS session of the control connection");
    const std::vector<DataConnectionRecord> records = server.dataConnectionRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_TRUE(records[0].refused);
    EXPECT_FALSE(records[0].resumed);
}

TEST_P(ScriptedFtpServerTls, AnUploadEndedWithoutCloseNotifyIsRecordedSo) {
    TlsClient client(server.port(), cert.caFile());
    protectedLogin(client);
    ASSERT_TRUE(client.openPassive());
    EXPECT_EQ(client.command("STOR /rec/c.ts"), "150 Opening data connection");
    ASSERT_TRUE(client.startDataTls(true));
    client.writeData("cut");
    client.endData(false);
    EXPECT_EQ(client.line(), "226 Transfer complete");
    ASSERT_EQ(server.dataConnectionRecords().size(), 1u);
    EXPECT_FALSE(server.dataConnectionRecords()[0].closeNotify);
    EXPECT_EQ(server.file("/rec/c.ts"), std::optional<std::string>("cut"));
}

INSTANTIATE_TEST_SUITE_P(Protocols, ScriptedFtpServerTls, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Tls12" : "Tls13";
                         });

class ScriptedFtpServerTlsRefusals : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(cert.ok()) << cert.failure();
        ServerTlsOptions options;
        options.certFile = cert.certFile();
        options.keyFile = cert.keyFile();
        ASSERT_TRUE(server.enableTls(options));
    }
    TestCertificate cert;
    ScriptedFtpServer server;
};

TEST_F(ScriptedFtpServerTlsRefusals, AScriptedRefusalOfAuthKeepsTheConnectionInClearText) {
    server.queueReply("AUTH", "534 Not now");
    TlsClient client(server.port(), cert.caFile());
    ASSERT_EQ(client.line(), "220 ready");
    EXPECT_EQ(client.command("AUTH TLS"), "534 Not now");
    EXPECT_EQ(client.command("USER rec"), "331 Password required");
    EXPECT_EQ(server.commands(), (Lines{"AUTH TLS", "USER rec"}));
    EXPECT_EQ(server.tlsHandshakeCount(), 0);
}

TEST_F(ScriptedFtpServerTlsRefusals, AFailedHandshakeClosesTheConnectionAfterAuth) {
    TestCertificate stranger;  // another CA: the server's certificate is unknown to it
    ASSERT_TRUE(stranger.ok()) << stranger.failure();
    TlsClient client(server.port(), stranger.caFile());
    ASSERT_EQ(client.line(), "220 ready");
    ASSERT_EQ(client.command("AUTH TLS"), "234 Proceed with negotiation.");
    EXPECT_FALSE(client.startTls());
    EXPECT_EQ(client.verifyResult(), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
    ASSERT_TRUE(server.waitForClosedConnections(1));
    EXPECT_EQ(server.failedTlsHandshakeCount(), 1);
    EXPECT_EQ(server.commands(), (Lines{"AUTH TLS"}));
}

TEST(ScriptedFtpServerPlain, AuthPbszAndProtAreUnknownWithoutTls) {
    ScriptedFtpServer server;
    TlsClient client(server.port(), "");
    ASSERT_EQ(client.line(), "220 ready");
    EXPECT_EQ(client.command("AUTH TLS"), "502 Command not implemented");
    EXPECT_EQ(client.command("PBSZ 0"), "502 Command not implemented");
    EXPECT_EQ(client.command("PROT P"), "502 Command not implemented");
}

// --- The certificates ----------------------------------------------------------------

// The handshake's verification result for a server with `kind`, trusting
// the certificate's own CA file, checking 127.0.0.1 or `host`.
long verification(CertificateKind kind, const std::string& host = "") {
    TestCertificate cert(kind);
    EXPECT_TRUE(cert.ok()) << cert.failure();
    ScriptedFtpServer server;
    ServerTlsOptions options;
    options.certFile = cert.certFile();
    options.keyFile = cert.keyFile();
    EXPECT_TRUE(server.enableTls(options));
    TlsClient client(server.port(), kind == CertificateKind::kSelfSigned ? "" : cert.caFile(),
                     host);
    EXPECT_EQ(client.line(), "220 ready");
    EXPECT_EQ(client.command("AUTH TLS"), "234 Proceed with negotiation.");
    const bool ok = client.startTls();
    if (ok) {
        EXPECT_EQ(peerFingerprint(client.ssl()), cert.fingerprint());
    }
    return ok ? X509_V_OK : client.verifyResult();
}

TEST(TestCertificate, TheLoopbackCertificateIsTrustedThroughItsCaForTheAddressAndLocalhost) {
    EXPECT_EQ(verification(CertificateKind::kLoopback), X509_V_OK);
    EXPECT_EQ(verification(CertificateKind::kLoopback, "localhost"), X509_V_OK);
    EXPECT_EQ(verification(CertificateKind::kLoopback, "example.invalid"),
              X509_V_ERR_HOSTNAME_MISMATCH);
}

TEST(TestCertificate, TheOtherNameCertificateDoesNotMatchTheAddress) {
    EXPECT_EQ(verification(CertificateKind::kOtherName), X509_V_ERR_IP_ADDRESS_MISMATCH);
    EXPECT_EQ(verification(CertificateKind::kOtherName, "other.invalid"), X509_V_OK);
}

TEST(TestCertificate, TheSelfSignedCertificateIsNotTrustedByDefault) {
    EXPECT_EQ(verification(CertificateKind::kSelfSigned), X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
}

TEST(TestCertificate, FingerprintsAreColonSeparatedUpperCaseSha256AndDiffer) {
    TestCertificate a, b;
    ASSERT_TRUE(a.ok() && b.ok());
    EXPECT_EQ(a.fingerprint().size(), 95u);
    EXPECT_EQ(a.sha256().size(), 32u);
    EXPECT_NE(a.fingerprint(), b.fingerprint());
    char first[3];
    std::snprintf(first, sizeof first, "%02X", static_cast<unsigned char>(a.sha256()[0]));
    EXPECT_EQ(a.fingerprint().substr(0, 2), first);
}

}  // namespace
