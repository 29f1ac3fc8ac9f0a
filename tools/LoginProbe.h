// Why a store's init failed. The store reports only that it could not
// connect or log in; after such a failure the command opens one connection of
// its own to the same server and walks the greeting and the login, so that a
// person learns which of the two failed and what the server said.
//
//   127.0.0.1:1      -> "cannot connect to 127.0.0.1:1: Connection refused"
//   wrong password   -> "127.0.0.1:2121 refused the login as rec: 530 Login incorrect."
//
// Every step waits at most kProbeStepSeconds. Plain function; safe from any
// thread.
#ifndef FTPDISK_TOOLS_LOGINPROBE_H
#define FTPDISK_TOOLS_LOGINPROBE_H

#include <string>

#include "ToolLocation.h"

namespace ftpdisk_tool {

constexpr int kProbeStepSeconds = 5;

// One line (without the command name) saying why `location` cannot be
// logged in to, never containing the password.
std::string explainLoginFailure(const Location& location);

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_LOGINPROBE_H
