// Runs the ftpdisk command as a separate process for the command tests, the
// way a person or a script would, and collects what it printed.
//
// Every run is bounded: a command still running after `limit` is killed and
// reported as timedOut. One thread per call; calls are independent.
#ifndef FTPDISK_TESTS_TOOLS_TOOLRUNNER_H
#define FTPDISK_TESTS_TOOLS_TOOLRUNNER_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

struct ToolRun {
    int status = -1;       // exit status; -1 when killed by a signal or not started
    bool timedOut = false;
    std::string out;       // standard output (or the terminal's whole output)
    std::string err;       // standard error (empty for terminal runs)

    // For failure messages: everything the run printed.
    std::string transcript() const;
};

// Runs FTPDISK_TOOL_PATH with `args` in `workDir` (the current folder when
// empty), with standard output and standard error on separate pipes and
// standard input from /dev/null. FTPDISK_LOG_ROOT points below `workDir` (or
// /tmp) so that the module never writes to the recorder's log folder.
ToolRun runTool(const std::vector<std::string>& args, const std::string& workDir = "",
                std::chrono::seconds limit = std::chrono::seconds(120));

// runTool that sends SIGINT to the command (once) as soon as
// `interruptWhen()` returns true; it is asked at least every 20 ms while the
// command runs.
ToolRun runToolInterrupted(const std::vector<std::string>& args, const std::string& workDir,
                           const std::function<bool()>& interruptWhen,
                           std::chrono::seconds limit = std::chrono::seconds(120));

// The same on a pseudo-terminal of 100 columns: standard output and standard
// error both go to it, as on a person's screen.
ToolRun runToolOnTerminal(const std::vector<std::string>& args, const std::string& workDir = "",
                          std::chrono::seconds limit = std::chrono::seconds(120));

#endif  // FTPDISK_TESTS_TOOLS_TOOLRUNNER_H
