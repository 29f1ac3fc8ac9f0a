// Parsing and formatting of the location text.
//
//   a*(b(p(w))@ftp://10.0.0.5:2121\rec\cam1/
//     -> user "a(b", password "p(w)", server "10.0.0.5:2121", path "/rec/cam1"
//
// The user name is the only escaped field: its "(" would otherwise end it. The
// password runs to the last ")" and the credentials end at the last "@", so
// both may contain brackets or "@" without escapes.
#include "location/FTPPath.h"

namespace NS_FTPPath {

const char* FTPPathBegin = "ftp://";
const char* FTPSPathBegin = "ftps://";

namespace {

const char kEscape = '*';

}  // namespace

int splitInfo(const std::string& text, std::string& userInfo, std::string& serverInfo) {
    if (text.empty()) {
        return 0;
    }
    // The last "@": a password such as "p@ss" keeps its "@".
    std::string::size_type at = text.rfind('@');
    if (at == std::string::npos) {
        return 0;
    }
    userInfo = text.substr(0, at);
    serverInfo = text.substr(at + 1);
    return 1;
}

int parseUserName(const std::string& userInfo, std::string& user) {
    user.clear();
    if (userInfo.empty()) {
        return 0;
    }
    const std::string::size_type length = userInfo.size();
    for (std::string::size_type i = 0; i < length; ++i) {
        const char c = userInfo[i];
        if (c == '(') {
            // A "(" at position 0 returns 0, which callers read as failure:
            // an empty user name is refused.
            return static_cast<int>(i);
        }
        if (c == kEscape) {
            // The escaped character is taken as is; a trailing "*" stands for
            // itself because there is nothing left to escape.
            if (i + 1 < length) {
                ++i;
                user += userInfo[i];
            } else {
                user += c;
            }
            continue;
        }
        user += c;
    }
    return 0;
}

int parseUserInfo(const std::string& userInfo, std::string& user, std::string& password) {
    const int open = parseUserName(userInfo, user);
    if (open == 0) {
        return 0;
    }
    const std::string::size_type close = userInfo.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    const std::string::size_type begin = static_cast<std::string::size_type>(open) + 1;
    // A ")" escaped inside the user name can sit before the "(": then there is
    // no ")" after it and the bracket pair is not closed.
    if (close < begin) {
        return 0;
    }
    password = userInfo.substr(begin, close - begin);
    return 1;
}

void convertUserName(const std::string& user, std::string& escaped) {
    escaped.clear();
    escaped.reserve(user.size());
    for (std::string::size_type i = 0; i < user.size(); ++i) {
        const char c = user[i];
        if (c == '(' || c == kEscape || c == '@') {
            escaped += kEscape;
        }
        escaped += c;
    }
}

int parseServerInfo(const std::string& serverInfo, std::string& server, std::string& path) {
    return parseServerInfo(serverInfo, server, path, nullptr);
}

int parseServerInfo(const std::string& serverInfo, std::string& server, std::string& path,
                    bool* tls) {
    // Whichever marker comes first: "ftps://" is not an "ftp://" with an
    // "s" before it, and an "ftp://" inside the path does not count.
    const std::string plain(FTPPathBegin);
    const std::string secure(FTPSPathBegin);
    const std::string::size_type plainAt = serverInfo.find(plain);
    const std::string::size_type secureAt = serverInfo.find(secure);
    if (plainAt == std::string::npos && secureAt == std::string::npos) {
        return 0;
    }
    const bool isSecure = secureAt < plainAt;
    if (tls != nullptr) *tls = isSecure;
    const std::string::size_type found = isSecure ? secureAt : plainAt;
    const std::string::size_type markerSize = isSecure ? secure.size() : plain.size();
    std::string rest = serverInfo.substr(found + markerSize);
    // Hosts that keep Windows paths write them with backslashes.
    for (std::string::size_type i = 0; i < rest.size(); ++i) {
        if (rest[i] == '\\') {
            rest[i] = '/';
        }
    }
    const std::string::size_type slash = rest.find('/');
    if (slash == std::string::npos) {
        server = rest;
        path.clear();
    } else {
        server = rest.substr(0, slash);
        path = rest.substr(slash);
    }
    // Folds the one doubled slash that joining "ftp://server/" and "/path"
    // leaves; later ones are kept ("//a//b" becomes "/a//b").
    if (path.size() > 1) {
        const std::string::size_type doubled = path.find("//");
        if (doubled != std::string::npos) {
            path.erase(doubled, 1);
        }
    }
    // The root is stored as "": every later path is appended to this one.
    while (!path.empty() && path[path.size() - 1] == '/') {
        path.erase(path.size() - 1);
    }
    return 1;
}

}  // namespace NS_FTPPath

FTPPath::FTPPath() : tls(false) {}

FTPPath::FTPPath(const std::string& server, const std::string& user, const std::string& password,
                 const std::string& path)
    : serverAddress(server), userName(user), password(password), path(path), tls(false) {}

bool FTPPath::isTls() const { return tls; }
void FTPPath::setTls(bool tls) { this->tls = tls; }

std::string FTPPath::getServerAddress() const { return serverAddress; }
std::string FTPPath::getUserName() const { return userName; }
std::string FTPPath::getPassword() const { return password; }
std::string FTPPath::getPath() const { return path; }

void FTPPath::setServerAddress(const std::string& server) { serverAddress = server; }
void FTPPath::setUserName(const std::string& user) { userName = user; }
void FTPPath::setPassword(const std::string& password) { this->password = password; }
void FTPPath::setPath(const std::string& path) { this->path = path; }

int FTPPath::create(const std::string& text) {
    std::string userInfo;
    std::string serverInfo;
    if (!NS_FTPPath::splitInfo(text, userInfo, serverInfo)) {
        return 0;
    }
    // Each step writes straight into the fields; a later failure leaves the
    // earlier ones changed, and the registry discards such an object.
    if (!NS_FTPPath::parseUserInfo(userInfo, userName, password)) {
        return 0;
    }
    if (!NS_FTPPath::parseServerInfo(serverInfo, serverAddress, path, &tls)) {
        return 0;
    }
    return 1;
}

std::string FTPPath::toString() {
    std::string escaped;
    NS_FTPPath::convertUserName(userName, escaped);
    std::string text;
    text.reserve(escaped.size() + password.size() + serverAddress.size() + path.size() + 10);
    text += escaped;
    text += '(';
    text += password;
    text += ")@";
    text += tls ? NS_FTPPath::FTPSPathBegin : NS_FTPPath::FTPPathBegin;
    text += serverAddress;
    text += path;
    return text;
}
