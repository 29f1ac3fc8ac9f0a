// An ftps store under threads: cameras opening, writing and closing files at
// once over TLS while the registry's trust calls change how the store trusts
// its server. Every byte must arrive and no call may see a half-made trust
// (the TSan run checks the sharing).
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemManager.h"
#include "foundation/SafePointer.h"
#include "ftp/TlsContext.h"
#include "support/ScriptedFtpServer.h"
#include "support/TestCertificate.h"
#include "support/TestHelpers.h"

namespace {

TEST(FtpTlsConcurrency, CamerasWriteOverTlsWhileTheTrustChanges) {
    if (!TlsContext::builtIn()) GTEST_SKIP() << "built without TLS";
    ftptest::TestCertificate cert;
    ASSERT_TRUE(cert.ok()) << cert.failure();
    ftptest::ScriptedFtpServer server;
    ftptest::ServerTlsOptions options;
    options.certFile = cert.certFile();
    options.keyFile = cert.keyFile();
    std::string why;
    ASSERT_TRUE(server.enableTls(options, &why)) << why;

    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    const std::string location = "rec(pw)@ftps://" + server.address() + "/rec";
    ASSERT_EQ(registry->addFTPFileSystem(location), 0);
    ASSERT_EQ(registry->addTlsCaFile(location, cert.caFile()), 0);
    SafePointer<FTPFileSystem> store;
    ASSERT_EQ(registry->getFTPFileSystem(location, store), 1);
    ASSERT_EQ(store->init(), 0);

    const int kCameras = 4;
    const int kSegments = 3;
    std::atomic<int> failures(0);
    std::atomic<bool> done(false);
    std::vector<std::thread> cameras;
    for (int c = 0; c < kCameras; ++c) {
        cameras.emplace_back([&, c] {
            for (int s = 0; s < kSegments; ++s) {
                const std::string path =
                    "/rec/cam" + std::to_string(c) + "_" + std::to_string(s) + ".ts";
                const std::string bytes = ftptest::patternBytes(20000 + c * 1000 + s, c * 10 + s);
                const int handle = store->open(path.c_str(), 2);
                if (handle < 0) {
                    ++failures;
                    continue;
                }
                size_t at = 0;
                for (int i = 0; i < 1000 && at < bytes.size(); ++i) {
                    const int n = store->write(handle, bytes.data() + at,
                                               static_cast<unsigned>(bytes.size() - at));
                    if (n <= 0) break;
                    at += static_cast<size_t>(n);
                }
                if (at != bytes.size() || store->close(handle) != 0) ++failures;
            }
        });
    }
    // Meanwhile the trust goes back and forth between the CA file and the
    // server's pinned fingerprint: either lets every connection in.
    std::thread trust([&] {
        for (int i = 0; i < 200 && !done.load(); ++i) {
            if (i % 2 == 0) {
                if (registry->setTlsPinnedFingerprint(location, cert.fingerprint()) != 0)
                    ++failures;
            } else if (registry->addTlsCaFile(location, cert.caFile()) != 0) {
                ++failures;
            }
        }
    });
    for (std::thread& t : cameras) t.join();
    done = true;
    trust.join();

    EXPECT_EQ(failures.load(), 0);
    for (int c = 0; c < kCameras; ++c) {
        for (int s = 0; s < kSegments; ++s) {
            const std::string path =
                "/rec/cam" + std::to_string(c) + "_" + std::to_string(s) + ".ts";
            const std::string bytes = ftptest::patternBytes(20000 + c * 1000 + s, c * 10 + s);
            EXPECT_TRUE(server.file(path) == std::optional<std::string>(bytes)) << path;
        }
    }
    EXPECT_EQ(store->uninit(), 0);
    EXPECT_EQ(registry->deleteFileSystem(location), 0);
}

}  // namespace
