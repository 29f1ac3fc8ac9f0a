// FTPPath: one storage location (server address, user name, password, base
// path, and whether it is reached over TLS) and its one-line text form
// 'user(password)@ftp://server[:port]/path', or with "ftps://" for explicit
// FTPS on the same default port.
//
// In the text form the user name escapes "(", "*" and "@" with a preceding
// "*"; the password sits between the first unescaped "(" and the last ")".
// A plain value class; no lock.
#ifndef FTPDISK_LOCATION_FTPPATH_H
#define FTPDISK_LOCATION_FTPPATH_H

#include <string>

namespace NS_FTPPath {

// The markers that introduce the server part: in clear, and over TLS.
extern const char* FTPPathBegin;
extern const char* FTPSPathBegin;

// Each returns non-zero on success, 0 on failure (parseUserName: the position
// of the "(" ending the name, 0 on failure). On failure the out-parameters may
// already be changed (parseUserName clears `user` first).
//
// splitInfo: cuts at the last "@"; fails on an empty text or one without "@".
// parseUserName: unescapes up to the first unescaped "("; fails when there is
//   none or when it is the first character (empty user name).
// parseUserInfo: the password runs from that "(" to the last ")"; fails when
//   there is no ")" after the "(".
// convertUserName: puts "*" before every "(", "*" and "@" of `user`.
// parseServerInfo: everything after the first "ftp://" or "ftps://" (whichever
//   comes first; *tls, when given, says which), backslashes turned into
//   slashes, split at the first "/"; the first "//" of the path folded and
//   trailing slashes removed (the root is ""). Fails without either marker.
int splitInfo(const std::string& text, std::string& userInfo, std::string& serverInfo);
int parseUserInfo(const std::string& userInfo, std::string& user, std::string& password);
int parseUserName(const std::string& userInfo, std::string& user);
void convertUserName(const std::string& user, std::string& escaped);
int parseServerInfo(const std::string& serverInfo, std::string& server, std::string& path);
int parseServerInfo(const std::string& serverInfo, std::string& server, std::string& path,
                    bool* tls);

}  // namespace NS_FTPPath

class FTPPath {
public:
    FTPPath();
    FTPPath(const std::string& server, const std::string& user, const std::string& password,
            const std::string& path);

    std::string getServerAddress() const;
    std::string getUserName() const;
    std::string getPassword() const;
    std::string getPath() const;
    void setServerAddress(const std::string& server);
    void setUserName(const std::string& user);
    void setPassword(const std::string& password);
    void setPath(const std::string& path);
    // Whether the location is "ftps://" (explicit TLS).
    bool isTls() const;
    void setTls(bool tls);

    // Parses `text` into the fields: 1 on success, 0 on failure. Fields filled
    // before a failing step keep their new values.
    int create(const std::string& text);
    // The escaped user name, "(", the password, ")@ftp://" (")@ftps://" for
    // a TLS location), the server address
    // and the path, as they are. create refuses the text when the user name
    // is empty, and cuts it at the wrong place when the server address or the
    // path holds an "@" (the text form has no escape for it); a path set by
    // hand with backslashes, "//" or a trailing "/" comes back normalised.
    std::string toString();

private:
    std::string serverAddress;
    std::string userName;
    std::string password;
    std::string path;
    bool tls;
};

#endif  // FTPDISK_LOCATION_FTPPATH_H
