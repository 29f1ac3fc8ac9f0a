// Where the ftpdisk command finds a password that the location text does not
// carry: the environment variable FTPDISK_PASSWORD, else the user's ~/.netrc,
// the file FTP clients have long read their logins from. A password on the
// command line is visible to every local user in the process list; these two
// places are not.
//
//   ~/.netrc:  machine 10.0.0.5:2121 login rec password s3cret
//              machine nas login rec password "two words"
//              default login rec password fallback
//
// Plain functions; lookUpPassword reads the environment and the file system
// and is meant for the command's main thread.
#ifndef FTPDISK_TOOLS_CREDENTIALS_H
#define FTPDISK_TOOLS_CREDENTIALS_H

#include <string>

namespace ftpdisk_tool {

// The environment variable that may hold the password.
extern const char* const kPasswordVariable;

// Looks `user` up for `server` ("host" or "host:port") in the text of a netrc
// file. Tokens are separated by blanks, tabs and line ends; a value may be
// quoted ("a b", with \" and \\ inside). "machine NAME" or "default" starts an
// entry; "login", "password" and "account" take a value; "macdef NAME" is
// followed by a macro body that ends at the first empty line and is skipped.
// The entry chosen is the first, in file order, whose login is `user` (or
// that names no login) with a password, looking first at entries whose
// machine is the whole server text, then at those naming the host alone,
// then at "default". Returns true with `password` set when one is found;
// false, with `password` untouched, otherwise.
bool findNetrcPassword(const std::string& netrcText, const std::string& server,
                       const std::string& user, std::string& password);

// The password for `user` at `server` when the location carries none: a
// non-empty FTPDISK_PASSWORD wins, else ~/.netrc ($HOME/.netrc, or the home
// directory of the account when HOME is unset). Returns true with `password`
// set and `source` naming where it came from ("FTPDISK_PASSWORD" or the
// file's path). Returns false with `problem` set (one line, never holding a
// password) when there is none, or when the netrc file may be read or
// changed by others than its owner (as FTP clients do, its passwords are then
// not used).
bool lookUpPassword(const std::string& server, const std::string& user, std::string& password,
                    std::string& source, std::string& problem);

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_CREDENTIALS_H
