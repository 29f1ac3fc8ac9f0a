// The reason of the last failure met on the calling thread, which the exported
// calls hand to the recorder (FTPFileSystem::getLastError). Every layer notes
// the failures it meets where it meets them (the FTP client its refusals,
// silences and lost connections, the open-file table its limits, the store
// its arguments); the exported call clears the record when it begins and
// again when it succeeds. Thread-local: no lock, no allocation, and two
// threads never see each other's.
//
//   note(kFailureReply, "550 No such directory\n")
//       -> kind 1, text "550 No such directory" (one line, its line end cut)
#ifndef FTPDISK_FOUNDATION_LASTERROR_H
#define FTPDISK_FOUNDATION_LASTERROR_H

namespace lasterror {

// The kinds, with the values of FTPFileSystem::ErrorKind (checked where both
// are seen) and of FtpFailure, whose first kinds are the same.
enum Kind {
    kNone = 0,
    kRefused = 1,          // the server answered the command with a refusal
    kNoReply = 2,          // no reply (or data) in time, a reply abandoned, a command held back
    kConnectionLost = 3,   // a send or receive failed, or the server closed the connection
    kConnectRefused = 4,   // nothing accepts connections at the address
    kUnreachable = 5,      // no route, no answer within the connect limit, a name unknown
    kBadArgument = 6,      // refused before anything was sent: a missing or unfit argument
    kLoginRefused = 7,     // the server refused the user or the password
    kTurnedAway = 8,       // the server refused the session (a greeting other than 2xx, a 421)
    kLocalLimit = 9,       // no free handle number, too many open files, out of memory, ...
    kNotInitialised = 10,  // a path operation on a store that is not initialised
    kLocalFile = 11,       // Get's or Put's local file could not be opened or written
    kNotFound = 12,        // the listing came, and the name is not in it
    kUnexplained = 13,     // a failure no layer gave a reason for
    kTls = 14              // a TLS handshake failed or the certificate was not trusted
};

enum { kTextSize = 256 };

// Forgets what was noted: kind kNone, empty text.
void clear();
// Records `kind` and the first line of `text` (cut to fit; null counts as
// ""), replacing what was noted before, unless a Quiet is alive on this
// thread.
void note(int kind, const char* text);
// Records `kind` with the system's text for `error`.
void noteError(int kind, int error);
int kind();
// The noted text, terminated; "" after clear().
const char* text();

// While one is alive, notes of this thread are dropped: clean-up after a
// failure (quitting a connection, closing a data connection) must not replace
// the reason of the failure with one of its own.
class Quiet {
public:
    Quiet();
    ~Quiet();

private:
    Quiet(const Quiet&);
    Quiet& operator=(const Quiet&);
};

}  // namespace lasterror

#endif  // FTPDISK_FOUNDATION_LASTERROR_H
