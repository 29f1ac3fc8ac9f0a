#include "Credentials.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "ToolFormat.h"

namespace ftpdisk_tool {

const char* const kPasswordVariable = "FTPDISK_PASSWORD";

namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Reads a netrc text token by token.
class NetrcTokens {
public:
    explicit NetrcTokens(const std::string& text) : text_(text) {}

    // The next token, unquoted; false at the end of the text.
    bool next(std::string& token) {
        token.clear();
        while (pos_ < text_.size() && isSpace(text_[pos_])) {
            ++pos_;
        }
        if (pos_ >= text_.size()) {
            return false;
        }
        if (text_[pos_] == '"') {
            for (++pos_; pos_ < text_.size() && text_[pos_] != '"'; ++pos_) {
                if (text_[pos_] == '\\' && pos_ + 1 < text_.size()) {
                    ++pos_;
                }
                token += text_[pos_];
            }
            ++pos_;  // the closing quote
            return true;
        }
        while (pos_ < text_.size() && !isSpace(text_[pos_])) {
            token += text_[pos_++];
        }
        return true;
    }

    // Skips the rest of the "macdef NAME" line and the macro body after it,
    // which ends at the first empty line.
    void skipMacro() {
        skipLine();
        while (pos_ < text_.size()) {
            if (text_[pos_] == '\n' || text_.compare(pos_, 2, "\r\n") == 0) {
                skipLine();
                return;
            }
            skipLine();
        }
    }

private:
    void skipLine() {
        while (pos_ < text_.size() && text_[pos_] != '\n') {
            ++pos_;
        }
        if (pos_ < text_.size()) {
            ++pos_;
        }
    }

    const std::string& text_;
    std::string::size_type pos_ = 0;
};

struct NetrcEntry {
    bool isDefault = false;
    std::string machine;
    bool hasLogin = false;
    std::string login;
    bool hasPassword = false;
    std::string password;
};

std::vector<NetrcEntry> readEntries(const std::string& text) {
    std::vector<NetrcEntry> entries;
    NetrcTokens tokens(text);
    std::string token;
    std::string value;
    while (tokens.next(token)) {
        if (token == "machine") {
            entries.emplace_back();
            tokens.next(entries.back().machine);
        } else if (token == "default") {
            entries.emplace_back();
            entries.back().isDefault = true;
        } else if (token == "login" || token == "password" || token == "account") {
            tokens.next(value);
            if (entries.empty()) {
                continue;
            }
            if (token == "login") {
                entries.back().hasLogin = true;
                entries.back().login = value;
            } else if (token == "password") {
                entries.back().hasPassword = true;
                entries.back().password = value;
            }
        } else if (token == "macdef") {
            tokens.next(value);
            tokens.skipMacro();
        }
        // Anything else is not a netrc word; FTP clients pass over it too.
    }
    return entries;
}

std::string homeDirectory() {
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') {
        return home;
    }
    struct passwd entry;
    struct passwd* found = nullptr;
    char scratch[4096];
    if (::getpwuid_r(::getuid(), &entry, scratch, sizeof scratch, &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return "";
}

}  // namespace

bool findNetrcPassword(const std::string& netrcText, const std::string& server,
                       const std::string& user, std::string& password) {
    const std::vector<NetrcEntry> entries = readEntries(netrcText);
    const std::string host = server.substr(0, server.find(':'));
    // Most specific first: the server with its port, the host alone, default.
    for (int level = 0; level < 3; ++level) {
        for (const NetrcEntry& entry : entries) {
            const bool machineMatches = level == 0   ? !entry.isDefault && entry.machine == server
                                        : level == 1 ? !entry.isDefault && entry.machine == host
                                                     : entry.isDefault;
            if (machineMatches && entry.hasPassword && (!entry.hasLogin || entry.login == user)) {
                password = entry.password;
                return true;
            }
        }
    }
    return false;
}

bool lookUpPassword(const std::string& server, const std::string& user, std::string& password,
                    std::string& source, std::string& problem) {
    const char* fromEnvironment = std::getenv(kPasswordVariable);
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') {
        password = fromEnvironment;
        source = kPasswordVariable;
        return true;
    }
    const std::string home = homeDirectory();
    const std::string path = (home.empty() ? std::string(".") : home) + "/.netrc";
    const std::string host = server.substr(0, server.find(':'));
    const std::string none = "no password for " + user + " at " + server + ": write it into " +
                             path + " as \"machine " + host + " login " + user +
                             " password ...\" or set " + kPasswordVariable;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) {
            problem = none;
        } else {
            problem = none + " (cannot read " + path + ": " + systemError(errno) + ")";
        }
        return false;
    }
    struct stat info;
    std::string text;
    int error = ::fstat(fd, &info) == 0 ? 0 : errno;
    // A netrc file is a few lines; a megabyte is plenty.
    while (error == 0 && text.size() < (1u << 20)) {
        char chunk[4096];
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            error = errno;
        }
        if (n <= 0) {
            break;
        }
        text.append(chunk, static_cast<std::size_t>(n));
    }
    ::close(fd);
    if (error != 0) {
        problem = none + " (cannot read " + path + ": " + systemError(error) + ")";
        return false;
    }
    std::string found;
    if (!findNetrcPassword(text, server, user, found)) {
        problem = none;
        return false;
    }
    // A password others may read is no secret, and one others may change
    // is not the user's: FTP clients refuse such a file, and so does this.
    if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        problem = path + " holds the password for " + user + " at " + server +
                  " but others may read or change the file; make it private (chmod 600 " + path +
                  ")";
        return false;
    }
    password = found;
    source = path;
    return true;
}

}  // namespace ftpdisk_tool
