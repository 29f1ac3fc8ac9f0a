// Shared plumbing of the ftpdisk subcommands: argument parsing, one-line
// errors, and a store session that goes through the exported registry exactly
// as a recorder does (register, fetch, init; uninit and unregister at the end).
// Used from the command's main thread; a Session's store may be used by any
// number of threads while the Session lives.
#ifndef FTPDISK_TOOLS_TOOLCOMMON_H
#define FTPDISK_TOOLS_TOOLCOMMON_H

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ToolLocation.h"
#include "filesystem/FTPFileSystem.h"
#include "foundation/SafePointer.h"

namespace ftpdisk_tool {

// Exit statuses of the command.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;         // an operation on the store failed
constexpr int kExitUsage = 2;          // bad arguments or a text that is not a location
constexpr int kExitInterrupted = 130;  // record ended early by Ctrl-C (SIGINT) or SIGTERM

// One subcommand's arguments after the subcommand word. Options are
// "--name value", "--name=value" or flags such as "-r"; "--" ends them.
struct Arguments {
    std::vector<std::string> positional;
    std::map<std::string, std::string> values;
    std::set<std::string> flags;
    bool help = false;

    bool has(const std::string& flag) const { return flags.count(flag) != 0; }
    // The positional argument at `index`, or `fallback` when there are fewer.
    std::string positionalOr(std::size_t index, const std::string& fallback = "") const {
        return index < positional.size() ? positional[index] : fallback;
    }
};

// The options of every command that takes a location, for an ftps://
// location: how the server's certificate is trusted, through the registry's
// trust calls. At most one of the three: each replaces the others.
constexpr const char* kTlsFingerprintOption = "--tls-fingerprint";
constexpr const char* kCaFileOption = "--ca-file";
constexpr const char* kTlsInsecureOption = "--tls-insecure";

struct TlsOptions {
    bool pinned = false;      // --tls-fingerprint given
    std::string fingerprint;  // its text as given
    bool caFileGiven = false;
    std::string caFile;
    bool insecure = false;  // --tls-insecure

    // The options found in `args`.
    static TlsOptions from(const Arguments& args);
    int count() const { return int(pinned) + int(caFileGiven) + int(insecure); }
    bool given() const { return count() != 0; }
};

// Bytes per store call for whole files: 64 KiB keeps the per-call overhead
// small without holding much memory.
constexpr unsigned kBlock = 64 * 1024;

// Splits argv. `flagNames` take no value, `valueNames` take one. On an unknown
// option or a missing value returns false with `problem` set.
bool parseArguments(int argc, char** argv, const std::set<std::string>& flagNames,
                    const std::set<std::string>& valueNames, Arguments& out, std::string& problem);

// "ftpdisk <command>: <message>" on standard error; returns `status`.
int fail(const std::string& command, const std::string& message, int status);
// A usage error, pointing at --help.
int usage(const std::string& command, const std::string& message);

// Whether standard error is a terminal (progress bars and live status lines
// are drawn there only then).
bool stderrIsTerminal();

// Seconds on a monotonic clock.
double monotonicSeconds();

// Hands `size` bytes at `data` to the store's `handle` with write, at most
// kBlock per call, until all are taken or a write fails (the store may take
// part of a block). Returns how many bytes the store took.
std::size_t writeToStore(FTPFileSystem* store, int handle, const char* data, std::size_t size);

// Receives one block read from the store; returns false, with `problem`
// set, to stop the copy.
using BlockSink = std::function<bool(const char* data, std::size_t size, std::string& problem)>;

// Reads the remote file behind `handle` in blocks of kBlock until the server
// ends the transfer, handing each block to `sink`. Returns the byte count, or
// -1 with `problem` set when a read fails or the sink stops.
std::int64_t readFromStore(FTPFileSystem* store, int handle, const BlockSink& sink,
                           std::string& problem);

// The store of one location, registered and initialised for the life of the
// object. open() reports failure as one line on standard error.
class Session {
public:
    // `args` carries the command's TLS options (TlsOptions).
    Session(std::string command, const Arguments& args)
        : command_(std::move(command)), tls_(TlsOptions::from(args)) {}
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Parses the location text, finds its password when the text carries
    // none (see Credentials.h), registers it and fetches its store. Returns
    // kExitOk, or kExitUsage for a text that is not a location (after printing
    // "not a location: ...") or one without a password to be found, with no
    // store then. For an ftps:// location it then applies the TLS options
    // through the registry's trust calls: kExitUsage for TLS options with an
    // ftp:// location, more than one of them or a text that is not a
    // fingerprint; kExitFailed when the CA file cannot be read (with the
    // module's reason).
    int registerLocation(const std::string& text);
    // Connects and logs in. Returns kExitOk or kExitFailed; unless `quiet`,
    // a failure is printed with its reason, the module's last error (see
    // FailureText.h).
    int init(bool quiet = false);
    // registerLocation then init.
    int open(const std::string& text);
    // open, then the remote path of `relative` into `path`. Returns kExitOk,
    // or the status to exit with (its message printed).
    int openAt(const std::string& text, const std::string& relative, std::string& path);

    // The remote path of `relative` below the location's base; prints the
    // problem and returns false when it is refused.
    bool remotePath(const std::string& relative, std::string& out);

    // For a path the command is about to create below the base: false, with
    // the reason printed, when one of its names holds a blank (see
    // nameWithBlank).
    bool listableName(const std::string& relative);

    // kExitOk when `path` is a directory on the server; otherwise prints
    // "no such directory: PATH" and returns kExitFailed.
    int requireDirectory(const std::string& path);
    // Opens the remote file `path` for reading: kExitOk with `handle` set, or
    // kExitFailed (message printed) for a directory or a file that cannot be
    // opened.
    int openForReading(const std::string& path, int& handle);

    const Location& location() const { return location_; }
    FTPFileSystem* store() { return store_.get(); }
    const std::string& command() const { return command_; }
    const TlsOptions& tls() const { return tls_; }

private:
    // The TLS options against the location: "" when they fit, else why not.
    std::string tlsProblem() const;
    // The registry's trust calls for the TLS options; kExitOk or the status
    // to exit with (its message printed).
    int applyTls();

    std::string command_;
    TlsOptions tls_;
    Location location_;
    SafePointer<FTPFileSystem> store_;
    bool registered_ = false;
    bool initialised_ = false;
};

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_TOOLCOMMON_H
