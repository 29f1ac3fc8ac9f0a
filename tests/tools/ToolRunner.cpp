#include "ToolRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace {

using Clock = std::chrono::steady_clock;

std::string nameOf(const std::string& entry) { return entry.substr(0, entry.find('=')); }

std::vector<std::string> toolEnvironment(const std::string& workDir, const ToolEnvironment& extra) {
    ToolEnvironment own = {
        "FTPDISK_LOG_ROOT=" + (workDir.empty() ? std::string("/tmp") : workDir) + "/logroot",
        "HOME=" + (workDir.empty() ? std::string("/nonexistent-ftpdisk-test-home") : workDir)};
    own.insert(own.end(), extra.begin(), extra.end());
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        const std::string name = nameOf(entry);
        const bool replaced = std::any_of(own.begin(), own.end(),
                                          [&](const std::string& o) { return nameOf(o) == name; });
        if (!replaced && name != "FTPDISK_PASSWORD") {
            env.push_back(entry);
        }
    }
    // Later entries of `extra` win over earlier ones and over our own.
    for (std::size_t i = 0; i < own.size(); ++i) {
        const bool overridden =
            std::any_of(own.begin() + static_cast<long>(i) + 1, own.end(),
                        [&](const std::string& o) { return nameOf(o) == nameOf(own[i]); });
        if (!overridden) {
            env.push_back(own[i]);
        }
    }
    return env;
}

// The command line that starts the tool: under an emulator (the armhf build
// runs its tests under qemu-user) the target launcher goes first.
std::vector<std::string> toolCommand(const std::vector<std::string>& args) {
    std::vector<std::string> argv;
    const char* launcher = std::getenv("FTPDISK_TARGET_LAUNCHER");
    if (launcher != nullptr && *launcher != '\0') argv.push_back(launcher);
    argv.push_back(FTPDISK_TOOL_PATH);
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> out;
    for (std::string& t : texts) {
        out.push_back(&t[0]);
    }
    out.push_back(nullptr);
    return out;
}

int waitStatus(pid_t pid) {
    int raw = 0;
    while (::waitpid(pid, &raw, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

// Reads every descriptor in `fds` into the matching text until all reach
// their end or the deadline passes; returns false on the deadline.
// `everyRound`, when given, runs at least every 20 ms while waiting.
bool drain(std::vector<int> fds, std::vector<std::string*> texts, Clock::time_point deadline,
           const std::function<void()>& everyRound = std::function<void()>()) {
    char buffer[65536];
    while (!fds.empty()) {
        if (everyRound) {
            everyRound();
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        if (everyRound) {
            left = std::min(left, std::chrono::milliseconds(20));
        }
        std::vector<pollfd> polls;
        for (int fd : fds) {
            polls.push_back(pollfd{fd, POLLIN, 0});
        }
        const int ready = ::poll(polls.data(), polls.size(), static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        for (std::size_t i = polls.size(); i-- > 0;) {
            if (polls[i].revents == 0) {
                continue;
            }
            const ssize_t n = ::read(fds[i], buffer, sizeof buffer);
            if (n > 0) {
                texts[i]->append(buffer, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                // End of data (a pseudo-terminal says EIO once the child is gone).
                fds.erase(fds.begin() + static_cast<long>(i));
                texts.erase(texts.begin() + static_cast<long>(i));
            }
        }
    }
    return true;
}

}  // namespace

std::string ToolRun::transcript() const {
    return "status " + std::to_string(status) + (timedOut ? " (timed out)" : "") +
           "\n--- stdout\n" + out + "--- stderr\n" + err;
}

ToolRun runTool(const std::vector<std::string>& args, const std::string& workDir,
                std::chrono::seconds limit, const ToolEnvironment& environment) {
    return runToolWatched(args, workDir, nullptr, limit, environment);
}

ToolRun runToolInterrupted(const std::vector<std::string>& args, const std::string& workDir,
                           const std::function<bool()>& interruptWhen, std::chrono::seconds limit) {
    std::function<bool(pid_t, const std::string&)> watch;
    if (interruptWhen) {
        watch = [&](pid_t, const std::string&) { return interruptWhen(); };
    }
    return runToolWatched(args, workDir, watch, limit);
}

ToolRun runToolWatched(const std::vector<std::string>& args, const std::string& workDir,
                       const std::function<bool(pid_t pid, const std::string& out)>& interruptWhen,
                       std::chrono::seconds limit, const ToolEnvironment& environment) {
    ToolRun run;
    std::vector<std::string> argv = toolCommand(args);
    std::vector<std::string> env = toolEnvironment(workDir, environment);
    std::vector<char*> argp = pointers(argv);
    std::vector<char*> envp = pointers(env);

    int outPipe[2];
    int errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0) {
        return run;
    }
    if (::pipe2(errPipe, O_CLOEXEC) != 0) {
        ::close(outPipe[0]);
        ::close(outPipe[1]);
        return run;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    if (!workDir.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, workDir.c_str());
    }
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    if (spawned != 0) {
        ::close(outPipe[0]);
        ::close(errPipe[0]);
        run.err = "cannot start " + argv[0];
        return run;
    }
    bool interrupted = false;
    std::function<void()> watch;
    if (interruptWhen) {
        watch = [&] {
            if (!interrupted && interruptWhen(pid, run.out)) {
                interrupted = true;
                ::kill(pid, SIGINT);
            }
        };
    }
    if (!drain({outPipe[0], errPipe[0]}, {&run.out, &run.err}, Clock::now() + limit, watch)) {
        run.timedOut = true;
        ::kill(pid, SIGKILL);
    }
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    run.status = waitStatus(pid);
    return run;
}

ToolRun runToolOnTerminal(const std::vector<std::string>& args, const std::string& workDir,
                          std::chrono::seconds limit, const ToolEnvironment& environment) {
    ToolRun run;
    std::vector<std::string> argv = toolCommand(args);
    std::vector<std::string> env = toolEnvironment(workDir, environment);
    std::vector<char*> argp = pointers(argv);
    std::vector<char*> envp = pointers(env);

    struct winsize size = {};
    size.ws_row = 40;
    size.ws_col = 100;
    int master = -1;
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, &size);
    if (pid < 0) {
        run.err = "forkpty failed";
        return run;
    }
    if (pid == 0) {
        if (!workDir.empty() && ::chdir(workDir.c_str()) != 0) {
            ::_exit(126);
        }
        ::execve(argp[0], argp.data(), envp.data());
        ::_exit(127);
    }
    if (!drain({master}, {&run.out}, Clock::now() + limit)) {
        run.timedOut = true;
        ::kill(pid, SIGKILL);
    }
    ::close(master);
    run.status = waitStatus(pid);
    return run;
}
