// The ftpdisk-lab program: it announces its port, forwards to the scripted
// server, takes commands on standard input, and ends (printing its counters)
// when its input closes or it is sent SIGTERM.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ftp/FTPTool.h"
#include "support/ScriptedFtpServer.h"

namespace {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

// The program running as a child with pipes on its standard input (unless
// `pipeInput` is false: then /dev/null) and output.
class LabProcess {
public:
    LabProcess(std::vector<std::string> args, bool pipeInput) {
        int in[2] = {-1, -1};
        int out[2] = {-1, -1};
        if ((pipeInput && ::pipe2(in, O_CLOEXEC) != 0) || ::pipe2(out, O_CLOEXEC) != 0) return;
        int devNull = pipeInput ? -1 : ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        args.insert(args.begin(), FTPDISK_LAB_PATH);
        // Under an emulator (the armhf build runs its tests under qemu-user)
        // the target launcher goes first.
        const char* launcher = std::getenv("FTPDISK_TARGET_LAUNCHER");
        if (launcher != nullptr && *launcher != '\0') args.insert(args.begin(), launcher);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        pid_t pid = ::fork();
        if (pid == 0) {
            ::dup2(pipeInput ? in[0] : devNull, 0);
            ::dup2(out[1], 1);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        pid_ = pid;
        if (pipeInput) {
            ::close(in[0]);
            input_ = in[1];
        }
        if (devNull >= 0) ::close(devNull);
        ::close(out[1]);
        output_ = out[0];
    }

    ~LabProcess() {
        closeInput();
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (output_ >= 0) ::close(output_);
    }

    bool started() const { return pid_ > 0 && output_ >= 0; }

    bool send(const std::string& text) {
        return input_ >= 0 &&
               ::write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

    void closeInput() {
        if (input_ >= 0) ::close(input_);
        input_ = -1;
    }

    void signal(int number) { ::kill(pid_, number); }

    // Output up to and including the first line that starts with `prefix`
    // (or everything until the output ends or `limit` passes).
    std::string readThrough(const std::string& prefix, Millis limit = Millis(5000)) {
        Clock::time_point deadline = Clock::now() + limit;
        for (;;) {
            size_t at = 0;
            for (;;) {
                size_t end = buffered_.find('\n', at);
                if (end == std::string::npos) break;
                if (buffered_.compare(at, prefix.size(), prefix) == 0) {
                    std::string out = buffered_.substr(0, end + 1);
                    buffered_.erase(0, end + 1);
                    return out;
                }
                at = end + 1;
            }
            auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now()).count();
            if (left <= 0 || !readSome(static_cast<int>(left))) {
                std::string out;
                out.swap(buffered_);
                return out;
            }
        }
    }

    // Waits for the child to end; its exit code, or -1 when it did not end
    // within `limit` or did not exit normally.
    int wait(Millis limit = Millis(5000)) {
        Clock::time_point deadline = Clock::now() + limit;
        while (Clock::now() < deadline) {
            int status = 0;
            pid_t done = ::waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(Millis(10));
        }
        return -1;
    }

    // Everything the child still prints until its output ends.
    std::string rest(Millis limit = Millis(5000)) {
        Clock::time_point deadline = Clock::now() + limit;
        for (;;) {
            auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now()).count();
            if (left <= 0 || !readSome(static_cast<int>(left))) break;
        }
        std::string out;
        out.swap(buffered_);
        return out;
    }

private:
    bool readSome(int milliseconds) {
        pollfd p{output_, POLLIN, 0};
        if (::poll(&p, 1, milliseconds) <= 0) return false;
        char chunk[4096];
        ssize_t n = ::read(output_, chunk, sizeof chunk);
        if (n <= 0) return false;
        buffered_.append(chunk, static_cast<size_t>(n));
        return true;
    }

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string buffered_;
};

// "listening 127.0.0.1:40123\n" -> "127.0.0.1:40123"; "" otherwise.
std::string listeningAddress(const std::string& line) {
    const std::string prefix = "listening ";
    if (line.compare(0, prefix.size(), prefix) != 0 || line.back() != '\n') return "";
    return line.substr(prefix.size(), line.size() - prefix.size() - 1);
}

TEST(NetLabProgram, ForwardsTakesCommandsAndEndsWhenItsInputCloses) {
    ftptest::ScriptedFtpServer server;
    LabProcess lab({"--upstream", server.address(), "--rtt-ms", "10"}, true);
    ASSERT_TRUE(lab.started());
    std::string line = lab.readThrough("listening ");
    std::string address = listeningAddress(line);
    ASSERT_NE(address, "") << line;

    FTPTool tool;
    ASSERT_EQ(tool.connect(address.c_str()), 1) << tool.getResponse();
    ASSERT_EQ(tool.login("rec", "pw"), 1) << tool.getResponse();
    EXPECT_EQ(server.commands(), (std::vector<std::string>{"USER rec", "PASS pw"}));

    ASSERT_TRUE(lab.send("counters\n"));
    std::string counters = lab.readThrough("open_data ");
    EXPECT_NE(counters.find("accepted 1\n"), std::string::npos) << counters;
    EXPECT_NE(counters.find("open_control 1\n"), std::string::npos) << counters;
    ASSERT_TRUE(lab.send("max-connections 1\n"));
    EXPECT_EQ(lab.readThrough("ok"), "ok\n");
    ASSERT_TRUE(lab.send("bogus\n"));
    EXPECT_EQ(lab.readThrough("error"), "error: unknown command \"bogus\"\n");

    EXPECT_EQ(tool.quit(), 1);
    lab.closeInput();
    EXPECT_EQ(lab.wait(), 0);
    std::string final = lab.rest();
    EXPECT_NE(final.find("accepted 1\n"), std::string::npos) << final;
    // "USER rec", "PASS pw" and "QUIT", each with CR LF.
    EXPECT_NE(final.find("control_to_server 25\n"), std::string::npos) << final;
}

TEST(NetLabProgram, EndsOnSigtermWhenItsInputIsNotAPipe) {
    ftptest::ScriptedFtpServer server;
    LabProcess lab({"--upstream", server.address()}, false);
    ASSERT_TRUE(lab.started());
    ASSERT_NE(listeningAddress(lab.readThrough("listening ")), "");
    // Input from /dev/null ends at once; the program must not take that as
    // its cue to stop.
    EXPECT_EQ(lab.wait(Millis(300)), -1) << "ended without being told";
    lab.signal(SIGTERM);
    EXPECT_EQ(lab.wait(), 0);
    EXPECT_NE(lab.rest().find("accepted 0\n"), std::string::npos);
}

TEST(NetLabProgram, RefusesAnUpstreamOffLoopback) {
    LabProcess lab({"--upstream", "192.0.2.1:21"}, false);
    ASSERT_TRUE(lab.started());
    EXPECT_EQ(lab.wait(), 1);
    EXPECT_EQ(lab.rest(), "");
}

}  // namespace
