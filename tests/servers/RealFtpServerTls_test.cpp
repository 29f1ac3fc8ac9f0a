// Stores of "ftps://" locations on real FTP servers that require TLS for the
// login and for every data connection (pyftpdlib, vsftpd, proftpd, pure-ftpd;
// tests/support/RealFtpServer.h): a store trusting the test's private CA, and
// one with the server's certificate pinned, each makes a directory, copies a
// file both ways, writes and reads a handle, lists and deletes, with the
// bytes checked on the server's disk. A store that trusts neither fails its
// init with a TLS failure naming the certificate's fingerprint, and so does a
// wrong pin. On vsftpd, which refuses a data connection that does not resume
// the control connection's TLS session, a bare client shows that the refusal
// is real and the store's transfers pass it. Last, the whole traffic of a
// session, captured by the network lab, holds "AUTH TLS" in clear and neither
// the password nor any 16 bytes of the file.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include "filesystem/StoreTestUtil.h"
#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemManager.h"
#include "ftp/FTPTool.h"
#include "ftp/TlsContext.h"
#include "support/NetLab.h"
#include "support/RawTlsSession.h"
#include "support/RealFtpServer.h"

namespace {

using storetest::patternBytes;
using storetest::readLocalFile;
using storetest::writeLocalFile;

std::string kindName(const ::testing::TestParamInfo<FtpServerKind>& info) {
    return ftpServerKindName(info.param);
}

// Bytes no pattern of the other tests makes: every 16-byte piece of them is
// unique to this file.
std::string distinctiveBytes(size_t size, uint32_t seed) {
    std::string bytes(size, '\0');
    uint64_t state = 0x9e3779b97f4a7c15ull ^ seed;
    for (size_t i = 0; i < size; ++i) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        bytes[i] = static_cast<char>(state >> 24);
    }
    return bytes;
}

// Registers the server's ftps location and hands out its store; the entry
// is removed again at the end of the test.
class RegisteredStore {
public:
    explicit RegisteredStore(const std::string& location) : location_(location) {
        registry_ = FTPFileSystemManager::getInstance();
        added_ = registry_ != nullptr && registry_->addFTPFileSystem(location_) == 0;
    }
    ~RegisteredStore() {
        store_.reset();
        if (added_) registry_->deleteFileSystem(location_);
    }
    RegisteredStore(const RegisteredStore&) = delete;
    RegisteredStore& operator=(const RegisteredStore&) = delete;

    bool added() const { return added_; }
    const std::string& location() const { return location_; }
    FTPFileSystemManager* registry() { return registry_; }
    FTPFileSystem* store() {
        if (!store_) {
            auto found = std::make_unique<SafePointer<FTPFileSystem>>();
            if (registry_->getFTPFileSystem(location_, *found) == 1) store_ = std::move(found);
        }
        return store_ ? store_->get() : nullptr;
    }

private:
    std::string location_;
    FTPFileSystemManager* registry_ = nullptr;
    bool added_ = false;
    std::unique_ptr<SafePointer<FTPFileSystem>> store_;
};

std::string lastErrorText() {
    FTPFileSystem::LastError error = FTPFileSystem::getLastError();
    return std::string(FTPFileSystem::errorKindName(error.kind)) + ": " + error.text;
}

// Writes all of `bytes` through a handle; the number of bytes taken.
size_t writeAll(FTPFileSystem& store, int handle, const std::string& bytes) {
    size_t done = 0;
    for (int round = 0; done < bytes.size() && round < 100000; ++round) {
        const int n =
            store.write(handle, bytes.data() + done, static_cast<unsigned>(bytes.size() - done));
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    return done;
}

// Reads a handle to its end (bounded); false when a read fails.
bool readAll(FTPFileSystem& store, int handle, std::string* bytes) {
    char chunk[16384];
    for (int round = 0; round < 100000; ++round) {
        const int n = store.read(handle, chunk, sizeof chunk);
        if (n < 0) return false;
        if (n == 0) return true;
        bytes->append(chunk, static_cast<size_t>(n));
    }
    return false;
}

// What every kind must do over TLS: init, a directory, Put and Get, a
// written and a read handle, a listing, a deletion; every byte checked on
// the server's disk and locally.
void storeWorksOverTls(RealFtpServer& server, FTPFileSystem& store) {
    storetest::TempDir local;
    ASSERT_EQ(store.init(), 0) << lastErrorText() << "\n" << server.logTail();
    EXPECT_EQ(store.createDir("/tls"), 0) << lastErrorText();
    EXPECT_TRUE(server.dirExists("/tls"));

    const std::string putBytes = patternBytes(300000, 31);
    ASSERT_TRUE(writeLocalFile(local.file("put.bin"), putBytes));
    EXPECT_EQ(store.Put(local.file("put.bin").c_str(), "/tls/put.bin"), 0) << lastErrorText();
    std::string onDisk;
    EXPECT_TRUE(server.readFile("/tls/put.bin", &onDisk));
    EXPECT_TRUE(onDisk == putBytes) << "the server holds " << onDisk.size() << " bytes\n"
                                    << server.logTail(1 << 20);

    EXPECT_EQ(store.Get(local.file("got.bin").c_str(), "/tls/put.bin"), 0) << lastErrorText();
    std::string got;
    EXPECT_TRUE(readLocalFile(local.file("got.bin"), &got));
    EXPECT_TRUE(got == putBytes) << "Get gave " << got.size() << " bytes";

    const std::string written = patternBytes(70000, 32);
    const int out = store.open("/tls/rw.bin", 2);
    ASSERT_GE(out, 1) << lastErrorText();
    EXPECT_EQ(writeAll(store, out, written), written.size());
    EXPECT_EQ(store.close(out), 0) << lastErrorText();
    onDisk.clear();
    EXPECT_TRUE(server.readFile("/tls/rw.bin", &onDisk));
    EXPECT_TRUE(onDisk == written) << "the server holds " << onDisk.size() << " bytes";

    const int in = store.open("/tls/rw.bin", 1);
    ASSERT_GE(in, 1) << lastErrorText();
    std::string read;
    EXPECT_TRUE(readAll(store, in, &read)) << lastErrorText();
    EXPECT_EQ(store.close(in), 0) << lastErrorText();
    EXPECT_TRUE(read == written) << "read " << read.size() << " bytes";

    std::vector<std::string> names;
    EXPECT_EQ(store.getFileList("/tls", names, ""), 1) << lastErrorText();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"put.bin", "rw.bin"}));

    EXPECT_EQ(store.deleteFile("/tls/put.bin"), 0) << lastErrorText();
    EXPECT_FALSE(server.fileExists("/tls/put.bin"));
    EXPECT_TRUE(server.fileExists("/tls/rw.bin"));
    EXPECT_EQ(store.uninit(), 0);
}

class TlsStoreOnRealServer : public ::testing::TestWithParam<FtpServerKind> {
protected:
    static RealFtpServerOptions tlsOptions() {
        RealFtpServerOptions options;
        options.tls = true;
        return options;
    }

    void SetUp() override {
        ASSERT_TRUE(TlsContext::builtIn()) << "built without TLS";
        ASSERT_TRUE(server.ready()) << server.failure();
    }

    RealFtpServer server{GetParam(), tlsOptions()};
};

TEST_P(TlsStoreOnRealServer, TrustingTheTestCaEveryOperationWorksAndTheBytesAreRight) {
    RegisteredStore registered(server.location("/"));
    ASSERT_TRUE(registered.added()) << registered.location();
    EXPECT_EQ(registered.registry()->addTlsCaFile(registered.location(), server.caFile()), 0);
    ASSERT_NE(registered.store(), nullptr);
    storeWorksOverTls(server, *registered.store());
}

TEST_P(TlsStoreOnRealServer, WithTheFingerprintPinnedEveryOperationWorksAndTheBytesAreRight) {
    RegisteredStore registered(server.location("/"));
    ASSERT_TRUE(registered.added()) << registered.location();
    EXPECT_EQ(registered.registry()->setTlsPinnedFingerprint(registered.location(),
                                                             server.fingerprint()),
              0);
    ASSERT_NE(registered.store(), nullptr);
    storeWorksOverTls(server, *registered.store());
}

TEST_P(TlsStoreOnRealServer, WithoutTheCaInitFailsWithATlsFailureNamingTheFingerprint) {
    RegisteredStore registered(server.location("/"));
    ASSERT_TRUE(registered.added()) << registered.location();
    ASSERT_NE(registered.store(), nullptr);
    EXPECT_EQ(registered.store()->init(), -1);
    FTPFileSystem::LastError error = FTPFileSystem::getLastError();
    EXPECT_EQ(error.kind, FTPFileSystem::kErrorTls) << lastErrorText();
    EXPECT_NE(std::string(error.text).find(server.fingerprint()), std::string::npos)
        << lastErrorText();
    // Nothing after the handshake: the login never came.
    std::string log = server.logTail(1 << 20);
    EXPECT_EQ(log.find("USER rec"), std::string::npos) << log;
    EXPECT_FALSE(server.dirExists("/tls"));
}

TEST_P(TlsStoreOnRealServer, AWrongPinFailsInitWithATlsFailure) {
    RegisteredStore registered(server.location("/"));
    ASSERT_TRUE(registered.added()) << registered.location();
    std::string wrong = server.fingerprint();
    wrong[0] = wrong[0] == 'A' ? 'B' : 'A';
    EXPECT_EQ(registered.registry()->setTlsPinnedFingerprint(registered.location(), wrong), 0);
    ASSERT_NE(registered.store(), nullptr);
    EXPECT_EQ(registered.store()->init(), -1);
    FTPFileSystem::LastError error = FTPFileSystem::getLastError();
    EXPECT_EQ(error.kind, FTPFileSystem::kErrorTls) << lastErrorText();
    EXPECT_NE(std::string(error.text).find(server.fingerprint()), std::string::npos)
        << lastErrorText();
    EXPECT_EQ(registered.store()->createDir("/tls"), -1);
    EXPECT_FALSE(server.dirExists("/tls"));
}

INSTANTIATE_TEST_SUITE_P(TlsKinds, TlsStoreOnRealServer,
                         ::testing::Values(FtpServerKind::kPyftpdlib, FtpServerKind::kVsftpd,
                                           FtpServerKind::kProftpd, FtpServerKind::kPureftpd),
                         kindName);

// --- Session reuse on data connections (vsftpd, require_ssl_reuse=YES) ------

TEST(TlsSessionReuse, VsftpdRefusesADataConnectionThatDoesNotResumeAndTheStorePassesIt) {
    RealFtpServerOptions options;
    options.tls = true;
    RealFtpServer server(FtpServerKind::kVsftpd, options);
    ASSERT_TRUE(server.ready()) << server.failure();
    ASSERT_TRUE(server.writeFile("/a.dat", "hello"));

    {
        // A fresh session on the data connection is refused (and vsftpd ends
        // the session after saying so)...
        RawTlsSession bare(server.caFile());
        ASSERT_EQ(bare.secure(server.port()), "") << server.logTail();
        ASSERT_EQ(bare.logIn("rec", "pw"), "") << server.logTail();
        RawTlsSession::Listing fresh = bare.list("", false);
        EXPECT_EQ(fresh.preliminary.substr(0, 1), "1") << fresh.preliminary;
        EXPECT_EQ(fresh.final, "522 SSL connection failed: session reuse required")
            << server.logTail();
        EXPECT_EQ(fresh.data, "");
    }
    {
        // ... and the control connection's own session is taken.
        RawTlsSession bare(server.caFile());
        ASSERT_EQ(bare.secure(server.port()), "") << server.logTail();
        ASSERT_EQ(bare.logIn("rec", "pw"), "") << server.logTail();
        RawTlsSession::Listing resumed = bare.list("", true);
        EXPECT_TRUE(resumed.handshake);
        EXPECT_TRUE(resumed.resumed);
        EXPECT_NE(resumed.data.find("a.dat"), std::string::npos) << resumed.data;
        EXPECT_EQ(resumed.final.substr(0, 3), "226") << resumed.final << "\n" << server.logTail();
    }

    // The module's client resumes on every data connection.
    std::string why;
    TlsTrust trust;
    trust.mode = TlsTrust::kSystemStore;
    trust.caFiles.push_back(server.caFile());
    std::shared_ptr<TlsContext> context = TlsContext::make(trust, &why);
    ASSERT_TRUE(context) << why;
    FTPTool tool;
    tool.useTls(context);
    ASSERT_EQ(tool.connect(server.hostPort().c_str()), 1) << tool.getResponse();
    ASSERT_EQ(tool.login("rec", "pw"), 1) << tool.getResponse();
    for (int transfer = 0; transfer < 3; ++transfer) {
        NetBuf* data = nullptr;
        ASSERT_EQ(tool.dataConnect("/a.dat", kFtpRetr, 'I', &data), 1) << tool.getResponse();
        std::string got;
        char chunk[64];
        for (int reads = 0; reads < 100; ++reads) {
            int n = tool.read(chunk, sizeof chunk, data);
            if (n <= 0) break;
            got.append(chunk, static_cast<size_t>(n));
        }
        EXPECT_EQ(tool.closeData(data), 1) << tool.getResponse();
        EXPECT_EQ(got, "hello");
        EXPECT_TRUE(tool.lastDataResumedSession()) << "transfer " << transfer;
    }
    TlsPeerDetails details;
    ASSERT_TRUE(tool.tlsDetails(&details));
    EXPECT_EQ(details.fingerprint, server.fingerprint());
    EXPECT_TRUE(details.protocol == "TLSv1.3" || details.protocol == "TLSv1.2")
        << details.protocol;
    tool.quit();
    std::string log = server.logTail(1 << 20);
    EXPECT_NE(log.find("reused"), std::string::npos) << log;
}

// --- The traffic of a whole session, captured ---------------------------------

// `count` consecutive ports, free on 127.0.0.1 and 127.0.0.2 a moment ago;
// 0 when none were found.
int freePortRun(int count) {
    auto bindable = [](const char* host, int port) {
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        ::inet_pton(AF_INET, host, &address.sin_addr);
        address.sin_port = htons(static_cast<uint16_t>(port));
        bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        ::close(fd);
        return ok;
    };
    // Below the ephemeral range (32768 and up), where the kernel does not
    // hand out ports by itself.
    const int base = 20000 + static_cast<int>(::getpid() % 400) * 25;
    for (int first = base; first < base + 2000; first += count) {
        bool free = true;
        for (int port = first; free && port < first + count; ++port) {
            free = bindable("127.0.0.1", port) && bindable("127.0.0.2", port);
        }
        if (free) return first;
    }
    return 0;
}

TEST(TlsTrafficCapture, AWholeSessionShowsAuthTlsInClearAndNeitherThePasswordNorTheFile) {
    const int passivePorts = 20;
    const int first = freePortRun(passivePorts);
    ASSERT_NE(first, 0) << "no free run of ports";
    const std::string password = "Kx7-Lab-Secret-93q";
    RealFtpServerOptions options;
    options.tls = true;
    options.password = password;
    options.passivePortFirst = first;
    options.passivePortLast = first + passivePorts - 1;
    RealFtpServer server(FtpServerKind::kPyftpdlib, options);
    ASSERT_TRUE(server.ready()) << server.failure();

    // The lab listens on 127.0.0.2: the store's data connections go to the
    // address of its control connection with the port of the (encrypted) 227
    // reply, which is one of the ports the lab forwards to the server.
    ftptest::NetLabOptions labOptions;
    labOptions.listenAddress = "127.0.0.2";
    labOptions.readReplies = false;
    labOptions.record = true;
    for (int port = first; port < first + passivePorts; ++port) {
        labOptions.forwardPorts.push_back(static_cast<uint16_t>(port));
    }
    ftptest::NetLab lab(server.hostPort(), labOptions);
    ASSERT_TRUE(lab.ok()) << lab.failure();

    const std::string file = distinctiveBytes(200000, 77);
    storetest::TempDir local;
    ASSERT_TRUE(writeLocalFile(local.file("secret.bin"), file));
    {
        const std::string location =
            std::string("rec(") + password + ")@ftps://" + lab.address() + "/";
        RegisteredStore registered(location);
        ASSERT_TRUE(registered.added()) << location;
        // The certificate names 127.0.0.1, not the lab's address: pinned.
        ASSERT_EQ(registered.registry()->setTlsPinnedFingerprint(location, server.fingerprint()),
                  0);
        FTPFileSystem* store = registered.store();
        ASSERT_NE(store, nullptr);
        ASSERT_EQ(store->init(), 0) << lastErrorText() << "\n" << server.logTail();
        EXPECT_EQ(store->Put(local.file("secret.bin").c_str(), "/secret.bin"), 0)
            << lastErrorText();
        EXPECT_EQ(store->Get(local.file("back.bin").c_str(), "/secret.bin"), 0) << lastErrorText();
        EXPECT_EQ(store->uninit(), 0);
    }
    std::string onDisk, back;
    EXPECT_TRUE(server.readFile("/secret.bin", &onDisk));
    EXPECT_TRUE(onDisk == file) << "the server holds " << onDisk.size() << " bytes";
    EXPECT_TRUE(readLocalFile(local.file("back.bin"), &back));
    EXPECT_TRUE(back == file) << "Get gave " << back.size() << " bytes";
    ASSERT_TRUE(lab.waitFor([](const ftptest::NetLabCounters& c) {
        return c.openControl == 0 && c.openData == 0;
    }));

    std::vector<ftptest::NetLabRecording> recorded = lab.recorded();
    ASSERT_FALSE(recorded.empty());
    std::string all;
    size_t dataBytes = 0;
    bool sawAuthTls = false;
    for (const ftptest::NetLabRecording& r : recorded) {
        all += r.toServer;
        all += r.toClient;
        if (r.traffic == ftptest::Traffic::kData) {
            dataBytes += r.toServer.size() + r.toClient.size();
        } else if (r.toServer.rfind("AUTH TLS\r\n", 0) == 0 &&
                   r.toClient.rfind("220 ", 0) == 0) {
            sawAuthTls = true;
        }
    }
    EXPECT_TRUE(sawAuthTls) << "no control connection began with AUTH TLS in clear";
    // Both copies of the file went through the lab (encrypted, so larger).
    EXPECT_GE(dataBytes, 2 * file.size());
    EXPECT_EQ(all.find(password), std::string::npos) << "the password went in clear";
    EXPECT_EQ(all.find("PASS "), std::string::npos);
    // No 16-byte piece of the file, anywhere in the capture.
    const size_t window = 16;
    std::unordered_set<std::string_view> pieces;
    pieces.reserve(all.size());
    for (size_t at = 0; at + window <= all.size(); ++at) {
        pieces.insert(std::string_view(all).substr(at, window));
    }
    size_t found = 0;
    for (size_t at = 0; at + window <= file.size(); ++at) {
        if (pieces.count(std::string_view(file).substr(at, window)) != 0) ++found;
    }
    EXPECT_EQ(found, 0u) << "pieces of the file went in clear";
    EXPECT_GT(all.size(), 2 * file.size());
}

}  // namespace
