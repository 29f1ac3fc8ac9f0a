// FTPPath: one storage location (server address, user name, password, base
// path) and its one-line text form 'user(password)@ftp://server[:port]/path'.
//
// In the text form the user name escapes "(", "*" and "@" with a preceding
// "*"; the password sits between the first unescaped "(" and the last ")".
// A plain value class; no lock.
#ifndef FTPDISK_LOCATION_FTPPATH_H
#define FTPDISK_LOCATION_FTPPATH_H

#include <string>

namespace NS_FTPPath {

// The marker that introduces the server part.
extern const char* FTPPathBegin;

// Each returns non-zero on success, 0 on failure (parseUserName: the position
// of the "(" ending the name, 0 on failure).
int splitInfo(const std::string& text, std::string& userInfo, std::string& serverInfo);
int parseUserInfo(const std::string& userInfo, std::string& user, std::string& password);
int parseUserName(const std::string& userInfo, std::string& user);
void convertUserName(const std::string& user, std::string& escaped);
int parseServerInfo(const std::string& serverInfo, std::string& server, std::string& path);

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

    // Parses `text` into the fields: 1 on success, 0 on failure. Fields filled
    // before a failing step keep their new values.
    int create(const std::string& text);
    std::string toString();

private:
    std::string serverAddress;
    std::string userName;
    std::string password;
    std::string path;
};

#endif  // FTPDISK_LOCATION_FTPPATH_H
