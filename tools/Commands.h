// The ftpdisk subcommands. Each takes the words after the subcommand name,
// prints its results on standard output and one-line errors on standard error,
// and returns the process exit status (kExitOk, kExitFailed, kExitUsage).
// Called from the command's main thread.
#ifndef FTPDISK_TOOLS_COMMANDS_H
#define FTPDISK_TOOLS_COMMANDS_H

#include <set>
#include <string>

#include "ToolCommon.h"

namespace ftpdisk_tool {

using CommandBody = int (*)(const Arguments&);

struct Command {
    const char* name;
    const char* synopsis;  // one line for the overview
    const char* help;      // the whole --help text
    std::set<std::string> flags;
    std::set<std::string> values;
    std::size_t minPositional;
    std::size_t maxPositional;
    CommandBody body;
};

// Parses `argv` for `command`, answers --help, checks the number of
// positional arguments, then runs the body.
int runCommand(const Command& command, int argc, char** argv);

int runCheck(const Arguments& args);
int runLs(const Arguments& args);
int runDu(const Arguments& args);
int runDf(const Arguments& args);
int runMkdir(const Arguments& args);
int runRm(const Arguments& args);
int runMv(const Arguments& args);
int runPut(const Arguments& args);
int runGet(const Arguments& args);
int runCat(const Arguments& args);
int runRecord(const Arguments& args);

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_COMMANDS_H
