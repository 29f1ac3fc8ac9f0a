// One line saying what a failed store call met, made from the module's last
// error (FTPFileSystem::getLastError) and the location, for every message of
// the ftpdisk command. Never contains the password: the module's texts never
// hold it, and the location is named by its server and user only.
//
//   kErrorConnectRefused "Connection refused"
//       -> "cannot connect to 127.0.0.1:2121: Connection refused"
//   kErrorLoginRefused "530 Login incorrect."
//       -> "127.0.0.1:2121 refused the login as rec: 530 Login incorrect."
//   kErrorTurnedAway "421 Too many connections (50) from this IP"
//       -> "127.0.0.1:2121 refused the session: 421 Too many connections (50) from this IP"
//   kErrorTls "TLS certificate not trusted: self-signed certificate; SHA-256 fingerprint AB:..."
//       -> "no secure connection to nas:21: TLS certificate not trusted: ..."
//
// Plain functions on values; safe from any thread.
#ifndef FTPDISK_TOOLS_FAILURETEXT_H
#define FTPDISK_TOOLS_FAILURETEXT_H

#include <string>

#include "ToolLocation.h"

namespace ftpdisk_tool {

struct FailureReason {
    std::string text;         // the line, as above
    bool turnedAway = false;  // the server turned a session or a login away
    std::string reply;        // the server's own words, for turnedAway
};

// `kind` is an FTPFileSystem::ErrorKind, `text` its text.
FailureReason describeFailure(const Location& location, int kind, const std::string& text);

// describeFailure of the calling thread's last error: why the store call this
// thread made last failed. Built into the command (it asks the loaded module).
FailureReason lastFailure(const Location& location);

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_FAILURETEXT_H
