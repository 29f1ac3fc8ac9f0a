#include "ToolLocation.h"

#include <stdint.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "ftp/FTPTool.h"
#include "location/FTPPath.h"

namespace ftpdisk_tool {

const char* const kLocationForm = "user[(password)]@ftp[s]://server[:port]/path";

namespace {

// The user name as the text form writes it: "(", "*" and "@" escaped by "*".
std::string escapeUser(const std::string& user) {
    std::string escaped;
    NS_FTPPath::convertUserName(user, escaped);
    return escaped;
}

std::string tooLong(const char* what, std::size_t length, std::size_t limit) {
    return std::string(what) + " too long (" + std::to_string(length) + " characters, at most " +
           std::to_string(limit) + ")";
}

// "host[:port]": an empty host, an empty port, a number outside 1..65535,
// digits followed by anything else, or a service name the system does not
// know. The module itself would take the low 16 bits of a number or the
// digits before a stray character, and would fail on an unknown name only
// when connecting, so such texts are refused here with their reason.
bool checkServer(const std::string& server, std::string& problem) {
    const std::string::size_type colon = server.find(':');
    if (server.empty() || colon == 0) {
        problem = "empty server address";
        return false;
    }
    if (colon == std::string::npos) {
        return true;
    }
    const std::string port = server.substr(colon + 1);
    if (port.empty()) {
        problem = "empty port after \":\"";
        return false;
    }
    if (port[0] >= '0' && port[0] <= '9') {
        if (port.find_first_not_of("0123456789") != std::string::npos) {
            problem = "port \"" + port + "\" is not a number";
            return false;
        }
        // Past the range of unsigned long long strtoull gives its maximum.
        const unsigned long long number = std::strtoull(port.c_str(), nullptr, 10);
        if (number < 1 || number > 65535) {
            problem = "port " + port + " is not between 1 and 65535";
            return false;
        }
        return true;
    }
    unsigned short ignored = 0;
    if (!lookUpServicePort(port, ignored)) {
        problem = "unknown port name \"" + port + "\"";
        return false;
    }
    return true;
}

// A password is sent as "PASS <password>" on a line of its own: a control
// character (a line end above all) would end that line early.
bool checkPassword(const std::string& password, std::string& problem) {
    if (password.size() > kMaxPassword) {
        problem = tooLong("password", password.size(), kMaxPassword);
        return false;
    }
    for (char c : password) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            problem = "the password holds a control character";
            return false;
        }
    }
    return true;
}

}  // namespace

bool findPassword(const std::string& text, std::size_t& begin, std::size_t& length) {
    std::string credentials;
    std::string serverInfo;
    if (NS_FTPPath::splitInfo(text, credentials, serverInfo) == 0) {
        return false;
    }
    std::string user;
    const std::string::size_type open =
        static_cast<std::string::size_type>(NS_FTPPath::parseUserName(credentials, user));
    const std::string::size_type close = credentials.rfind(')');
    if (open == 0 || close == std::string::npos || close < open) {
        return false;
    }
    begin = open + 1;
    length = close - open - 1;
    return true;
}

bool lookUpServicePort(const std::string& name, unsigned short& networkOrderPort) {
    uint16_t port = 0;
    if (ftpLookUpService(name.c_str(), &port) == 0) {
        return false;
    }
    networkOrderPort = port;
    return true;
}

std::string nameWithBlank(const std::string& relative) {
    std::string name;
    const std::string all = relative + "/";
    for (char c : all) {
        if (c == '/' || c == '\\') {
            if (name.find_first_of(" \t") != std::string::npos) {
                return name;
            }
            name.clear();
        } else {
            name += c;
        }
    }
    return "";
}

std::string childPath(const std::string& dir, const std::string& name) {
    return dir == "/" ? "/" + name : dir + "/" + name;
}

std::string Location::masked() const {
    return escapeUser(user) + "(***)@" +
           (tls ? NS_FTPPath::FTPSPathBegin : NS_FTPPath::FTPPathBegin) + server + base;
}

bool Location::setPassword(const std::string& secret, std::string& problem) {
    if (!checkPassword(secret, problem)) {
        return false;
    }
    password = secret;
    // The registry takes the password up to the last ")" before the last
    // "@", so any password reads back as it was.
    text = escapeUser(user) + "(" + password + ")@" + serverPart;
    return true;
}

// 'a*(b(pw)@ftp://h\dir\sub/' -> user "a(b", password "pw", server "h",
// base "/dir/sub": the same reading the registry gives the text.
// 'a*(b@ftp://h/p' -> user "a(b", no password (passwordGiven false).
// 'rec(pw)@ftps://h:990/p' -> the same fields, tls true.
bool parseLocation(const std::string& text, Location& out, std::string& problem) {
    out = Location();
    out.text = text;
    // Every step is the registry's own (NS_FTPPath), so the tool reads a text
    // exactly as the store's registry will; only the form without a password
    // and the checks below are the tool's.
    std::string userInfo;
    std::string serverInfo;
    if (NS_FTPPath::splitInfo(text, userInfo, serverInfo) == 0) {
        problem = "no \"@\" between the credentials and the server";
        return false;
    }
    out.serverPart = serverInfo;

    // The user name runs to the first "(" that is not escaped by "*"; without
    // one the whole of it is the name and the password comes from elsewhere.
    std::string name;
    const bool hasPassword = NS_FTPPath::parseUserName(userInfo, name) != 0;
    if (hasPassword) {
        if (NS_FTPPath::parseUserInfo(userInfo, out.user, out.password) == 0) {
            problem = "no \")\" after the password";
            return false;
        }
        out.passwordGiven = true;
    } else if (name.empty()) {
        problem = "empty user name";
        return false;
    } else {
        out.user = name;
        if (out.user.find(':') != std::string::npos) {
            // 'user:password@...' as in URLs: what follows the ":" is most
            // likely a password, which must not be taken for a name and printed.
            problem =
                "\":\" in the user name (the password goes in brackets, user(password), "
                "or is left out)";
            return false;
        }
    }

    if (NS_FTPPath::parseServerInfo(serverInfo, out.server, out.base, &out.tls) == 0) {
        problem = "no \"ftp://\" or \"ftps://\" before the server";
        return false;
    }

    if (!checkServer(out.server, problem)) {
        return false;
    }
    if (out.server.size() > kMaxServer) {
        problem = tooLong("server address", out.server.size(), kMaxServer);
        return false;
    }
    if (out.user.size() > kMaxUser) {
        problem = tooLong("user name", out.user.size(), kMaxUser);
        return false;
    }
    for (char c : out.user) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            problem = "the user name holds a control character";
            return false;
        }
    }
    return !out.passwordGiven || checkPassword(out.password, problem);
}

std::string maskLocationText(const std::string& text) {
    // The credentials are what stands before the last "@"; without one, what
    // stands before the marker; without that either, the whole text.
    std::string::size_type end = text.rfind('@');
    if (end == std::string::npos) {
        // Whichever marker comes first ("ftps://" does not hold "ftp://").
        end = std::min(text.find(NS_FTPPath::FTPPathBegin), text.find(NS_FTPPath::FTPSPathBegin));
    }
    if (end == std::string::npos) {
        end = text.size();
    }
    const std::string credentials = text.substr(0, end);
    std::string::size_type from = credentials.find('(');
    std::string::size_type to = std::string::npos;
    if (from != std::string::npos) {
        to = credentials.rfind(')');
        if (to == std::string::npos || to <= from) {
            to = credentials.size();
        }
    } else {
        // URL-like credentials 'user:password@...'.
        from = credentials.find(':');
        to = credentials.size();
    }
    if (from == std::string::npos) {
        return text;
    }
    return text.substr(0, from + 1) + "***" + text.substr(to);
}

bool remotePathBelow(const std::string& base, const std::string& relative, std::string& out,
                     std::string& problem) {
    std::vector<std::string> parts;
    std::string part;
    const std::string all = relative + "/";
    for (char c : all) {
        if (c == '/' || c == '\\') {
            if (part == "..") {
                problem = "\"..\" would leave the location: " + relative;
                return false;
            }
            if (!part.empty() && part != ".") {
                parts.push_back(part);
            }
            part.clear();
        } else {
            part += c;
        }
    }
    out = base;
    for (const std::string& p : parts) {
        out += "/" + p;
    }
    if (out.empty()) {
        out = "/";
    }
    if (out.size() > kMaxRemotePath) {
        problem = "remote path too long (" + std::to_string(out.size()) + " bytes, at most " +
                  std::to_string(kMaxRemotePath) + ")";
        return false;
    }
    return true;
}

}  // namespace ftpdisk_tool
