// A numeric port in a server text is read in base 10 and kept to its low 16
// bits. The reading must not depend on the width of `long`: a 32-bit reader
// stops at 4294967295 (whose low 16 bits are 65535), a 64-bit one does not, so
// a long port text would reach different ports on the recorder and on a
// development machine.
#include <gtest/gtest.h>

#include <stdint.h>

#include <string>

#include "ftp/FTPTool.h"
#include "support/ScriptedFtpServer.h"

namespace {

TEST(PortNumbers, APortTextBeyond32BitsReachesThePortOfItsLow16BitsOnEveryProcessor) {
    ftptest::ScriptedFtpServer server;
    const uint64_t port = server.port();
    // Each text's low 16 bits are the server's port.
    const uint64_t texts[] = {
        port, port + 65536u * 4u,
        port + (static_cast<uint64_t>(1) << 32),  // 2^32 + port
        port + (static_cast<uint64_t>(3) << 40),  // far beyond 32 bits
    };
    int connections = 0;
    for (uint64_t text : texts) {
        const std::string address = "127.0.0.1:" + std::to_string(text);
        FTPTool tool;
        EXPECT_EQ(tool.connect(address.c_str()), 1) << address;
        if (tool.getControlBuf() != nullptr) {
            ++connections;
        }
        tool.quit();
    }
    EXPECT_EQ(server.connectionCount(), connections);
    EXPECT_EQ(server.connectionCount(), 4);
}

}  // namespace
