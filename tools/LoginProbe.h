// Why a store's init failed. The store reports only that it could not
// connect or log in; after such a failure the command opens one connection of
// its own to the same server and walks the greeting and the login, so that a
// person learns which of the two failed and what the server said.
//
//   127.0.0.1:1      -> "cannot connect to 127.0.0.1:1: Connection refused"
//   wrong password   -> "127.0.0.1:2121 refused the login as rec: 530 Login incorrect."
//
// The same walk tells, after a store call failed under load, whether the
// server still takes a login at all, and if not, what it answers:
//
//   pure-ftpd at its limit -> kSessionRefused, "421 Too many connections (50) from this IP"
//
// Every step waits at most kProbeStepSeconds. Plain functions; safe from any
// thread.
#ifndef FTPDISK_TOOLS_LOGINPROBE_H
#define FTPDISK_TOOLS_LOGINPROBE_H

#include <string>

#include "ToolLocation.h"

namespace ftpdisk_tool {

constexpr int kProbeStepSeconds = 5;

// How far one login of the tool's own got.
struct LoginProbe {
    enum Outcome {
        kCannotConnect,   // the name did not resolve or the connect failed
        kNoGreeting,      // connected, but no greeting came in time
        kClosed,          // connected, and the server closed without a greeting
        kSessionRefused,  // a greeting other than 2xx
        kNoLoginAnswer,   // USER or PASS went unanswered (or the server closed)
        kLoginRefused,    // USER or PASS answered with a refusal
        kLoggedIn,
    };
    Outcome outcome = kCannotConnect;
    // The server's last reply line (printable, the password taken out) for
    // kSessionRefused and kLoginRefused; "" otherwise.
    std::string reply;
    // One line saying what happened, never containing the password, e.g.
    // "127.0.0.1:2121 refused the session: 421 Too many connections".
    std::string text;
    // Connect, greeting and login, for kLoggedIn.
    double loginSeconds = 0;

    // The server turned the connection or the login away (or closed it
    // unasked) while it was reachable: what a server at its connection limit
    // does.
    bool turnedAway() const {
        return outcome == kClosed || outcome == kSessionRefused || outcome == kLoginRefused;
    }
};

// Opens one connection to the server of `location`, reads the greeting,
// logs in as its user (then sends QUIT) and says how far it got.
LoginProbe probeLogin(const Location& location);

// One line (without the command name) saying why `location` cannot be
// logged in to, never containing the password.
std::string explainLoginFailure(const Location& location);

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_LOGINPROBE_H
