// FTPTool: single commands (directories, site commands, sizes, renames and
// deletions). Each builds one line in a zeroed 256-byte buffer and judges the
// reply by its first digit. An argument that would not fit is refused before
// the line that carries it is sent, leaving `response` as that line found it:
// RNTO's after RNFR has gone out, deleteFile's after its changes of directory,
// every other before anything is sent.
//
// Two limits apply to every line: the command's own (argument length plus the
// command word, blank and terminator within 256 bytes) and Sendcmd's (at most
// 253 characters of line, so that "\r\n" and the terminator fit). Sendcmd's is
// the tighter one for all of them: the longest argument that goes out is 249
// characters for CWD, MKD and RMD, 248 for RNFR, RNTO, DELE, SITE and SIZE.
// SIZE, which sends TYPE first, holds its path to Sendcmd's limit before
// sending anything.
#include "ftp/FTPTool.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "ftp/FTPToolInternal.h"

using ftptool::kCommandLineSize;

namespace {

// Whether "VERB " followed by an argument of `length` characters, and the
// terminator, fits the line buffer.
bool fits(const char* verb, size_t length) {
    return strlen(verb) + 1 + length + 1 <= kCommandLineSize;
}

// Builds "VERB argument" into `line`, zeroed first; false, leaving it zeroed,
// when it would not fit.
bool commandLine(char (&line)[kCommandLineSize], const char* verb, const char* argument) {
    memset(line, 0, sizeof line);
    if (!fits(verb, strlen(argument))) return false;
    snprintf(line, sizeof line, "%s %s", verb, argument);
    return true;
}

// Reads one decimal integer the way "%d" does (leading white space, an
// optional sign, then digits), keeping the low 32 bits of the number so that
// the result is the same on 32- and 64-bit recorders; false when no digits.
bool readInteger(const char*& at, int32_t* value) {
    const char* p = at;
    bool negative = false;
    if (!ftptool::skipToDigits(p, &negative)) return false;
    uint64_t n = 0;
    while (*p >= '0' && *p <= '9') {
        n = n * 10 + static_cast<uint64_t>(*p - '0');
        ++p;
    }
    uint32_t low = static_cast<uint32_t>(negative ? 0 - n : n);
    *value = static_cast<int32_t>(low);
    at = p;
    return true;
}

}  // namespace

int FTPTool::refuseArgument() {
    if (controlBuf == nullptr) {
        setFailure(kFtpFailureConnectionLost, 0, "not connected");
    } else {
        setFailure(kFtpFailureLocal, 0,
                   "command not sent: an argument missing or too long for one line");
    }
    return 0;
}

int FTPTool::cd(const char* dir) {
    if (dir == nullptr || controlBuf == nullptr) return refuseArgument();
    char line[kCommandLineSize];
    // An empty directory means the root.
    if (!commandLine(line, "CWD", dir[0] == '\0' ? "/" : dir)) return refuseArgument();
    return Sendcmd(line, '2');
}

int FTPTool::cdup() {
    if (controlBuf == nullptr) return refuseArgument();
    return Sendcmd("CDUP", '2');
}

int FTPTool::mkdir(const char* dir) {
    if (dir == nullptr || controlBuf == nullptr) return refuseArgument();
    char line[kCommandLineSize];
    if (!commandLine(line, "MKD", dir)) return refuseArgument();
    return Sendcmd(line, '2');
}

int FTPTool::rmdir(const char* dir) {
    if (dir == nullptr || controlBuf == nullptr) return refuseArgument();
    char line[kCommandLineSize];
    if (!commandLine(line, "RMD", dir)) return refuseArgument();
    return Sendcmd(line, '2');
}

int FTPTool::site(const char* command) {
    if (command == nullptr || controlBuf == nullptr) return refuseArgument();
    char line[kCommandLineSize];
    if (!commandLine(line, "SITE", command)) return refuseArgument();
    return Sendcmd(line, '2');
}

// "213 1234" stores 1234. The type set first stays in force for later
// commands on this connection.
int FTPTool::size(const char* path, int* size, char mode) {
    if (path == nullptr || size == nullptr || controlBuf == nullptr) return refuseArgument();
    // SIZE's own rule counts one byte more than its line needs: a path of
    // 250 characters or more is refused before anything is sent. One of 249
    // passes it, sends TYPE, and then meets Sendcmd's line limit, as it
    // always has.
    if (strlen(path) + 7 > kCommandLineSize) return refuseArgument();
    char line[kCommandLineSize];
    memset(line, 0, sizeof line);
    snprintf(line, sizeof line, "TYPE %c", mode);
    if (!Sendcmd(line, '2')) return 0;
    commandLine(line, "SIZE", path);
    char reply[kNetBufResponseSize];
    if (!exchange(line, '2', reply)) return 0;
    // The reply code, then the size: both must be there.
    const char* at = reply;
    int32_t code = 0;
    int32_t bytes = 0;
    if (!readInteger(at, &code) || !readInteger(at, &bytes)) {
        setFailure(kFtpFailureReply, 0, reply);
        return 0;
    }
    *size = bytes;
    return 1;
}

int FTPTool::moveFile(const char* from, const char* to) {
    if (from == nullptr || to == nullptr || controlBuf == nullptr) return refuseArgument();
    char line[kCommandLineSize];
    if (!commandLine(line, "RNFR", from)) return refuseArgument();
    if (!Sendcmd(line, '3')) return 0;
    // RNFR has gone out by now; a destination that does not fit leaves it
    // pending on the server, and nothing undoes it.
    if (!commandLine(line, "RNTO", to)) return refuseArgument();
    return Sendcmd(line, '2');
}

// "/d/e/a.txt" sends "CWD /", "CWD /d/e", "DELE a.txt"; the connection stays
// in the file's directory afterwards. A path without "/" is deleted where the
// connection stands. The length of the whole path is checked only once the
// directory has been changed, just before "DELE": a path too long to delete
// still moves the connection (callers set their working directory again
// before relying on it).
int FTPTool::deleteFile(const char* path) {
    if (path == nullptr || controlBuf == nullptr) return refuseArgument();
    std::string whole(path);
    std::string name = whole;
    std::string::size_type slash = whole.rfind('/');
    char line[kCommandLineSize];
    if (slash != std::string::npos) {
        // Both changes of directory are tried; a failure does not stop the
        // deletion (the server then judges the name where it stands).
        Sendcmd("CWD /", '2');
        // Shorter than the whole path, which is checked below.
        memset(line, 0, sizeof line);
        snprintf(line, sizeof line, "CWD %s", whole.substr(0, slash).c_str());
        Sendcmd(line, '2');
        name = whole.substr(slash + 1);
    }
    // The whole path is held to DELE's limit, not just the name that goes out.
    if (!fits("DELE", whole.size())) return refuseArgument();
    commandLine(line, "DELE", name.c_str());
    return Sendcmd(line, '2');
}
