#include "FailureText.h"

#include "filesystem/FTPFileSystem.h"

namespace ftpdisk_tool {

FailureReason describeFailure(const Location& location, int kind, const std::string& text) {
    FailureReason reason;
    const std::string& server = location.server;
    switch (kind) {
        case FTPFileSystem::kErrorConnectRefused:
        case FTPFileSystem::kErrorUnreachable:
            reason.text = "cannot connect to " + server + ": " + text;
            break;
        case FTPFileSystem::kErrorTurnedAway:
            reason.text = server + " refused the session: " + text;
            reason.turnedAway = true;
            reason.reply = text;
            break;
        case FTPFileSystem::kErrorLoginRefused:
            // A wrong password, or a server at its limit that says so at the
            // login (proftpd's "530 Sorry, the maximum number of clients").
            reason.text = server + " refused the login as " + location.user + ": " + text;
            reason.turnedAway = true;
            reason.reply = text;
            break;
        case FTPFileSystem::kErrorNoReply:
            reason.text = server + " did not answer in time: " + text;
            break;
        case FTPFileSystem::kErrorConnectionLost:
            reason.text = "the connection to " + server + " was lost: " + text;
            break;
        case FTPFileSystem::kErrorRefused: reason.text = server + " refused it: " + text; break;
        case FTPFileSystem::kErrorTls:
            // A failed handshake, or a certificate the store does not trust
            // (the text then ends with its fingerprint).
            reason.text = "no secure connection to " + server + ": " + text;
            break;
        case FTPFileSystem::kErrorNone: reason.text = "no reason given"; break;
        default: reason.text = std::string(FTPFileSystem::errorKindName(kind)) + ": " + text; break;
    }
    return reason;
}

FailureReason lastFailure(const Location& location) {
    const FTPFileSystem::LastError e = FTPFileSystem::getLastError();
    return describeFailure(location, e.kind, e.text);
}

}  // namespace ftpdisk_tool
