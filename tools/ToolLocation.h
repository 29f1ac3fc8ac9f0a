// The ftpdisk command's view of a location text and of the paths below it.
//
// The tool reads a location text with the module's own parser (the location
// layer, linked into the command statically; the loaded module exports only
// its three classes), so it reads every text exactly as the registry will. On
// top of that it takes the form without a password, echoes the location
// without its password, refuses texts the store's fixed fields could not hold
// or that the module would read differently than a user means (a port outside
// 1..65535, a ':' in a user name), and places the command's path argument
// below the location's base directory. Plain functions on values; safe from
// any thread.
#ifndef FTPDISK_TOOLS_TOOLLOCATION_H
#define FTPDISK_TOOLS_TOOLLOCATION_H

#include <string>

#include "location/LocationLimits.h"

namespace ftpdisk_tool {

// The module's limits on the texts of a location (what the store's fixed
// fields hold), and on a remote path: a transfer command ("STOR " and the
// path) must fit a 256-byte line.
constexpr std::size_t kMaxServer = NS_FTPPath::kMaxServerLength;
constexpr std::size_t kMaxUser = NS_FTPPath::kMaxUserLength;
constexpr std::size_t kMaxPassword = NS_FTPPath::kMaxPasswordLength;
constexpr std::size_t kMaxRemotePath = 250;

// What a command needs to know about one location. Examples:
//   'rec(pw)@ftp://127.0.0.1:2121/video/'
//   -> user "rec", password "pw" (given), server "127.0.0.1:2121", base "/video"
//   'rec@ftp://127.0.0.1:2121/video'
//   -> user "rec", no password yet (see setPassword), the same server and base
//   'rec@ftps://nas/video'
//   -> user "rec", server "nas", base "/video", tls: every connection is TLS
struct Location {
    std::string text;            // the registry's key: as given, or with the password put in
    std::string user;            // unescaped
    std::string password;        // never printed; see masked()
    bool passwordGiven = false;  // the text itself carried "(password)"
    std::string server;          // host[:port]
    std::string base;            // "" for the root, else "/dir..." without a trailing "/"
    std::string serverPart;      // the text after its last "@", as given
    bool tls = false;            // "ftps://": explicit TLS on every connection

    // The location for display: the password replaced by "***" ("ftps://"
    // kept for a TLS location).
    std::string masked() const;
    // Takes the password from elsewhere for a text that did not carry one,
    // and makes `text` the registry's form 'user(password)@ftp://...' (or
    // '...@ftps://...', as the text gave it). Returns
    // false, with `problem` set (never containing the password), when the
    // store could not take it (too long, or holding a control character).
    bool setPassword(const std::string& secret, std::string& problem);
};

// Parses `text`, the form with "(password)" or the one without. A port, when
// given, is a number from 1 to 65535 or a TCP service name the system knows.
// On success returns true and fills `out`. On failure returns false, leaves
// `out` partly filled and puts one line of explanation into `problem` (never
// containing the password).
bool parseLocation(const std::string& text, Location& out, std::string& problem);

// Where the password stands in a location text, by the registry's reading
// (after the first "(" not escaped by "*", up to the last ")" before the
// last "@"): true with `begin` and `length` set, false when the text carries
// none.
bool findPassword(const std::string& text, std::size_t& begin, std::size_t& length);

// Best-effort masking of a text that may not even parse: whatever stands where
// a password could be (between "(" and ")" before the last "@", or after a ":"
// in URL-like credentials) becomes "***".
std::string maskLocationText(const std::string& text);

// The remote path of `relative` below `base`. A leading "/" in `relative` is
// still taken below the base; "", "." and "/" name the base itself (the root
// is "/"). Backslashes count as separators, repeated separators collapse.
// Returns false with `problem` set when a component is ".." (the tool never
// leaves its location) or the result would not fit an open file's path field.
bool remotePathBelow(const std::string& base, const std::string& relative, std::string& out,
                     std::string& problem);

// The first name in `relative` (split at "/" and "\\") that holds a blank or a
// tab, or "" when none does. The store reads each name of a listing as one
// blank-free word, so it could create such a name but never list, measure or
// remove it again.
std::string nameWithBlank(const std::string& relative);

// `name` inside the remote directory `dir` ("/" + name for the root).
std::string childPath(const std::string& dir, const std::string& name);

// The TCP port of a service name such as "ftp" from the system's services
// database, in network byte order; false when the name is unknown.
bool lookUpServicePort(const std::string& name, unsigned short& networkOrderPort);

// The expected form, for error messages.
extern const char* const kLocationForm;

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_TOOLLOCATION_H
