// Runs the ftpdisk command as a separate process for the command tests, the
// way a person or a script would, and collects what it printed.
//
// Every run is bounded: a command still running after `limit` is killed and
// reported as timedOut. One thread per call; calls are independent.
#ifndef FTPDISK_TESTS_TOOLS_TOOLRUNNER_H
#define FTPDISK_TESTS_TOOLS_TOOLRUNNER_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

struct ToolRun {
    int status = -1;  // exit status; -1 when killed by a signal or not started
    bool timedOut = false;
    std::string out;  // standard output (or the terminal's whole output)
    std::string err;  // standard error (empty for terminal runs)

    // For failure messages: everything the run printed.
    std::string transcript() const;
};

// "NAME=value" entries for the command's environment, each replacing an
// inherited one of the same name.
using ToolEnvironment = std::vector<std::string>;

// Runs FTPDISK_TOOL_PATH with `args` in `workDir` (the current folder when
// empty), with standard output and standard error on separate pipes and
// standard input from /dev/null. The command inherits this process's
// environment except that FTPDISK_LOG_ROOT points below `workDir` (or /tmp)
// so that the module never writes to the recorder's log folder, HOME is
// `workDir` (or a folder that does not exist) so that no real ~/.netrc is
// read, and FTPDISK_PASSWORD is unset; `environment` then adds or replaces
// entries.
ToolRun runTool(const std::vector<std::string>& args, const std::string& workDir = "",
                std::chrono::seconds limit = std::chrono::seconds(120),
                const ToolEnvironment& environment = ToolEnvironment());

// runTool that sends SIGINT to the command (once) as soon as
// `interruptWhen()` returns true; it is asked at least every 20 ms while the
// command runs.
ToolRun runToolInterrupted(const std::vector<std::string>& args, const std::string& workDir,
                           const std::function<bool()>& interruptWhen,
                           std::chrono::seconds limit = std::chrono::seconds(120));

// The same, with the command's process id and its standard output so far
// handed to `interruptWhen`.
ToolRun runToolWatched(const std::vector<std::string>& args, const std::string& workDir,
                       const std::function<bool(pid_t pid, const std::string& out)>& interruptWhen,
                       std::chrono::seconds limit = std::chrono::seconds(120),
                       const ToolEnvironment& environment = ToolEnvironment());

// The same on a pseudo-terminal of 100 columns: standard output and standard
// error both go to it, as on a person's screen.
ToolRun runToolOnTerminal(const std::vector<std::string>& args, const std::string& workDir = "",
                          std::chrono::seconds limit = std::chrono::seconds(120),
                          const ToolEnvironment& environment = ToolEnvironment());

#endif  // FTPDISK_TESTS_TOOLS_TOOLRUNNER_H
