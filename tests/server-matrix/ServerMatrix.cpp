// ftpdisk_server_matrix: measures how each real FTP server kind answers the
// lines this module sends where servers differ, and what the exported store
// then returns on that server; writes the result as the Markdown of
// docs/SERVERS.md, with a table of the servers that speak explicit TLS.
//
//   ftpdisk_server_matrix                 # the document on standard output
//   ftpdisk_server_matrix --out FILE      # written to FILE
//   ftpdisk_server_matrix --check FILE    # exit 1 unless FILE's tables match
//
// Every probe starts from the same small tree on the server's disk and a
// fresh control connection, so rows do not depend on each other. Replies are
// kept as the server sends them, except for the parts that change from run to
// run (data ports, timings), which are replaced by fixed words.
#include <dirent.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemManager.h"
#include "host/IFileScanAction.h"
#include "support/RawFtpSession.h"
#include "support/RealFtpServer.h"
#include "support/TempDir.h"
#if defined(FTPDISK_WITH_TLS)
#include "support/RawTlsSession.h"
#endif

namespace {

// --- The tree every probe starts from ---------------------------------------

int removeEntry(const char* path, const struct stat*, int, struct FTW* where) {
    if (where->level > 0) ::remove(path);  // keep the root itself
    return 0;
}

// /top.dat (3 bytes), /d/a.dat (5), /d/e/ (empty), /full/x.dat, /full/sub/y.dat,
// /b/my file.dat (a name with a blank).
bool resetTree(const RealFtpServer& server) {
    nftw(server.root().c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    return server.writeFile("/top.dat", "top") && server.makeDir("/d") &&
           server.writeFile("/d/a.dat", "hello") && server.makeDir("/d/e") &&
           server.makeDir("/full") && server.writeFile("/full/x.dat", "x") &&
           server.makeDir("/full/sub") && server.writeFile("/full/sub/y.dat", "yy") &&
           server.makeDir("/b") && server.writeFile("/b/my file.dat", "blank");
}

// --- Turning replies into stable table cells --------------------------------

std::string stable(std::string text) {
    // "227 Entering Passive Mode (127,0,0,1,181,77)." -> "(127,0,0,1,p1,p2)"
    text = std::regex_replace(text, std::regex(R"(\(127,0,0,1,\d+,\d+\))"), "(127,0,0,1,p1,p2)");
    // pure-ftpd's "226 0.000 seconds (measured here), 2.85 Mbytes per second"
    text = std::regex_replace(text, std::regex(R"(\d+(\.\d+)? seconds \(measured here\))"),
                              "N seconds (measured here)");
    text = std::regex_replace(text, std::regex(R"((\d+(\.\d+)?|inf) [KMG]?bytes per second)"),
                              "N bytes per second");
    // pyftpdlib starts a transfer with 125 when it has already accepted the
    // data connection and with 150 when not: a race between two sockets.
    if (text == "125 Data connection already open. Transfer starting." ||
        text == "150 File status okay. About to open data connection.") {
        text =
            "150 File status okay. About to open data connection. (or 125 Data connection "
            "already open. Transfer starting.)";
    }
    return text;
}

std::string cell(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '|') {
            out += "\\|";
        } else if (c == '\r' || c == '\n') {
            out += ' ';
        } else {
            out += c;
        }
    }
    return out.empty() ? "(no reply)" : out;
}

// The names of a listing's lines, as the module's Unix parser would take
// them apart, plus what else is notable about its shape.
std::string describeListing(const std::string& data) {
    if (data.empty()) return "empty listing";
    std::vector<std::string> lines;
    size_t start = 0;
    bool bareLineFeeds = false;
    while (start < data.size()) {
        size_t end = data.find('\n', start);
        if (end == std::string::npos) end = data.size();
        std::string line = data.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        } else if (end < data.size()) {
            bareLineFeeds = true;
        }
        if (!line.empty()) lines.push_back(line);
        start = end + 1;
    }
    std::vector<std::string> entries;
    std::vector<std::string> notes;
    for (const std::string& line : lines) {
        std::istringstream words(line);
        std::vector<std::string> w;
        for (std::string word; words >> word;) w.push_back(word);
        if (w.size() == 2 && w[0] == "total") {
            notes.push_back("a \"total\" line");
            continue;
        }
        std::string name;
        if (w.size() >= 9) {
            // The name is everything after the eighth column, blanks kept.
            size_t at = 0;
            for (int column = 0; column < 8 && at < line.size(); ++column) {
                at = line.find_first_not_of(' ', at);
                at = at == std::string::npos ? line.size() : line.find(' ', at);
                if (at == std::string::npos) at = line.size();
            }
            size_t nameStart = line.find_first_not_of(' ', at);
            name = nameStart == std::string::npos ? "" : line.substr(nameStart);
            if (w[0][0] == 'd') name += "/";
        } else {
            name = "[" + line + "]";
        }
        entries.push_back(name);
    }
    // Servers list in their own order (some sort, some follow the folder);
    // sorted names keep the table stable.
    std::sort(entries.begin(), entries.end());
    std::string names;
    for (const std::string& name : entries) names += (names.empty() ? "" : ", ") + name;
    std::string text = names.empty() ? "no entries" : names;
    if (bareLineFeeds) notes.push_back("lines end in a bare LF");
    for (const std::string& note : notes) text += "; " + note;
    return text;
}

std::string describeTransfer(const RawFtpSession::Transfer& t, bool listing) {
    if (t.pasv.compare(0, 1, "2") != 0) return "PASV: " + stable(t.pasv);
    std::string text = stable(t.preliminary);
    if (!t.final.empty()) {
        text += " → " + stable(t.final);
        if (listing) text += " — " + describeListing(t.data);
    }
    return text;
}

// --- Probes -----------------------------------------------------------------

struct Probe {
    std::string label;  // what is sent, as shown in the table
    // Runs on a logged-in session against a freshly reset tree.
    std::function<std::string(RawFtpSession&, const RealFtpServer&)> run;
};

std::string onDisk(const RealFtpServer& server, const std::string& path) {
    std::string bytes;
    if (server.dirExists(path)) return "a directory";
    if (!server.readFile(path, &bytes)) return "absent";
    return "\"" + bytes + "\"";
}

std::vector<Probe> lineProbes() {
    using S = RawFtpSession;
    using R = const RealFtpServer&;
    auto list = [](S& s, const std::string& line) {
        return describeTransfer(s.transfer(line), true);
    };
    auto plain = [](S& s, const std::string& line) {
        return describeTransfer(s.transfer(line), false);
    };
    std::vector<Probe> probes = {
        {"`TYPE I`", [](S& s, R) { return stable(s.command("TYPE I")); }},
        {"`PASV`", [](S& s, R) { return stable(s.command("PASV")); }},
        {"`CWD /`", [](S& s, R) { return stable(s.command("CWD /")); }},
        {"`CWD /d/` (trailing slash)", [](S& s, R) { return stable(s.command("CWD /d/")); }},
        {"`CWD ` with nothing after it, then `PWD`",
         [](S& s, R) {
             std::string cwd = stable(s.command("CWD "));
             return cwd + " · " + stable(s.command("PWD"));
         }},
        {"`CWD /d` then `CWD ` with nothing after it, then `PWD`",
         [](S& s, R) {
             s.command("CWD /d");
             std::string cwd = stable(s.command("CWD "));
             return cwd + " · " + stable(s.command("PWD"));
         }},
        {"`CWD /d/a.dat` (a file)", [](S& s, R) { return stable(s.command("CWD /d/a.dat")); }},
        {"`CWD /missing`", [](S& s, R) { return stable(s.command("CWD /missing")); }},
        {"`CDUP` at the root, then `PWD`",
         [](S& s, R) {
             std::string up = stable(s.command("CDUP"));
             return up + " · " + stable(s.command("PWD"));
         }},
        {"`CWD /d` then `LIST` (no argument)",
         [list](S& s, R) {
             s.command("CWD /d");
             return list(s, "LIST");
         }},
        {"`CWD /d` then `LIST ` (a blank, empty argument)",
         [list](S& s, R) {
             s.command("CWD /d");
             return list(s, "LIST ");
         }},
        {"`CWD /` then `LIST ` (a blank, empty argument)",
         [list](S& s, R) {
             s.command("CWD /");
             return list(s, "LIST ");
         }},
        {"`CWD /d` then `LIST /d`",
         [list](S& s, R) {
             s.command("CWD /d");
             return list(s, "LIST /d");
         }},
        {"`CWD d` then `LIST d` (relative path after changing into it)",
         [list](S& s, R) {
             s.command("CWD /");
             s.command("CWD d");
             return list(s, "LIST d");
         }},
        {"`LIST /missing`", [list](S& s, R) { return list(s, "LIST /missing"); }},
        {"`LIST /d/a.dat` (a file)", [list](S& s, R) { return list(s, "LIST /d/a.dat"); }},
        {"`LIST /b` (a name with a blank)", [list](S& s, R) { return list(s, "LIST /b"); }},
        {"`LIST /d/e` (an empty directory)", [list](S& s, R) { return list(s, "LIST /d/e"); }},
        {"`NLST /d`",
         [](S& s, R) {
             RawFtpSession::Transfer t = s.transfer("NLST /d");
             std::vector<std::string> entries;
             std::istringstream lines(t.data);
             for (std::string line; std::getline(lines, line);) {
                 if (!line.empty() && line.back() == '\r') line.pop_back();
                 if (!line.empty()) entries.push_back(line);
             }
             std::sort(entries.begin(), entries.end());
             std::string names;
             for (const std::string& name : entries) names += (names.empty() ? "" : ", ") + name;
             return describeTransfer(t, false) + (t.final.empty() ? "" : " — " + names);
         }},
        {"`RETR /d/a.dat`",
         [](S& s, R) {
             RawFtpSession::Transfer t = s.transfer("RETR /d/a.dat");
             return describeTransfer(t, false) + (t.final.empty() ? "" : " — \"" + t.data + "\"");
         }},
        {"`RETR /d` (a directory)", [plain](S& s, R) { return plain(s, "RETR /d"); }},
        {"`RETR /d/missing.dat`", [plain](S& s, R) { return plain(s, "RETR /d/missing.dat"); }},
        {"`STOR /d/new.dat`",
         [](S& s, R server) {
             std::string bytes = "new";
             std::string sent = describeTransfer(s.transfer("STOR /d/new.dat", &bytes), false);
             return sent + " — on disk: " + onDisk(server, "/d/new.dat");
         }},
        {"`STOR /d/a.dat` over an existing file",
         [](S& s, R server) {
             std::string bytes = "NEW";
             std::string sent = describeTransfer(s.transfer("STOR /d/a.dat", &bytes), false);
             return sent + " — on disk: " + onDisk(server, "/d/a.dat");
         }},
        {"`STOR /missing/x.dat` (missing directory)",
         [](S& s, R server) {
             std::string bytes = "x";
             std::string sent = describeTransfer(s.transfer("STOR /missing/x.dat", &bytes), false);
             return sent + " — on disk: " + onDisk(server, "/missing/x.dat");
         }},
        {"`STOR /d` (a directory's name)",
         [](S& s, R server) {
             std::string bytes = "x";
             std::string sent = describeTransfer(s.transfer("STOR /d", &bytes), false);
             return sent + " — on disk: " + onDisk(server, "/d");
         }},
        {"`APPE /d/a.dat`",
         [](S& s, R server) {
             std::string bytes = "+";
             std::string sent = describeTransfer(s.transfer("APPE /d/a.dat", &bytes), false);
             return sent + " — on disk: " + onDisk(server, "/d/a.dat");
         }},
        {"`APPE /d/fresh.dat` (missing file)",
         [](S& s, R server) {
             std::string bytes = "+";
             std::string sent = describeTransfer(s.transfer("APPE /d/fresh.dat", &bytes), false);
             return sent + " — on disk: " + onDisk(server, "/d/fresh.dat");
         }},
        {"`SIZE /d/a.dat`",
         [](S& s, R) {
             s.command("TYPE I");
             return stable(s.command("SIZE /d/a.dat"));
         }},
        {"`SIZE /d` (a directory)",
         [](S& s, R) {
             s.command("TYPE I");
             return stable(s.command("SIZE /d"));
         }},
        {"`SIZE /d/missing.dat`",
         [](S& s, R) {
             s.command("TYPE I");
             return stable(s.command("SIZE /d/missing.dat"));
         }},
        {"`DELE /d/a.dat`",
         [](S& s, R server) {
             std::string sent = stable(s.command("DELE /d/a.dat"));
             return sent + " — on disk: " + onDisk(server, "/d/a.dat");
         }},
        {"`DELE /d/missing.dat`", [](S& s, R) { return stable(s.command("DELE /d/missing.dat")); }},
        {"`DELE /d/e` (a directory)", [](S& s, R) { return stable(s.command("DELE /d/e")); }},
        {"`MKD /d` (exists)", [](S& s, R) { return stable(s.command("MKD /d")); }},
        {"`MKD /n1`", [](S& s, R) { return stable(s.command("MKD /n1")); }},
        {"`MKD /missing/n2` (parent missing)",
         [](S& s, R) { return stable(s.command("MKD /missing/n2")); }},
        {"`RMD /full` (not empty)", [](S& s, R) { return stable(s.command("RMD /full")); }},
        {"`RMD /d/e`", [](S& s, R) { return stable(s.command("RMD /d/e")); }},
        {"`RMD /missing`", [](S& s, R) { return stable(s.command("RMD /missing")); }},
        {"`RNFR /d/a.dat`, `RNTO /d/b.dat`",
         [](S& s, R server) {
             std::string from = stable(s.command("RNFR /d/a.dat"));
             std::string to = stable(s.command("RNTO /d/b.dat"));
             return from + " · " + to + " — on disk: " + onDisk(server, "/d/b.dat");
         }},
        {"`RNFR /d/missing.dat`", [](S& s, R) { return stable(s.command("RNFR /d/missing.dat")); }},
        {"`RNFR /d/a.dat`, `RNTO /missing/b.dat`",
         [](S& s, R) {
             std::string from = stable(s.command("RNFR /d/a.dat"));
             return from + " · " + stable(s.command("RNTO /missing/b.dat"));
         }},
        {"`RNFR /d/a.dat`, `RNTO /top.dat` (target exists)",
         [](S& s, R server) {
             std::string from = stable(s.command("RNFR /d/a.dat"));
             std::string to = stable(s.command("RNTO /top.dat"));
             return from + " · " + to + " — on disk: " + onDisk(server, "/top.dat");
         }},
        {"`SITE HELP`", [](S& s, R) { return stable(s.command("SITE HELP")); }},
        {"`QUIT`", [](S& s, R) { return stable(s.command("QUIT")); }},
    };
    return probes;
}

std::string greetingAndLogin(const RealFtpServer& server, const std::string& password) {
    RawFtpSession session(server.port());
    std::string greeting = stable(session.reply());
    std::string user = stable(session.command("USER rec"));
    std::string pass = stable(session.command("PASS " + password));
    return greeting + " · " + user + " · " + pass;
}

// --- Store operations ---------------------------------------------------------

struct StoreCall {
    std::string label;
    std::function<std::string(FTPFileSystem&, const RealFtpServer&)> run;
};

std::string names(const std::vector<std::string>& list) {
    std::string text;
    for (const std::string& name : list) text += (text.empty() ? "" : ", ") + name;
    return "[" + text + "]";
}

std::string yes(bool value) { return value ? "true" : "false"; }

// The visitor of scan rows: the names it was handed, in order.
class NameCollector : public IFileScanAction {
public:
    int onFile(const char* fileName) override {
        names.push_back(fileName);
        return 0;
    }
    std::vector<std::string> names;
};

// A local file for the Get and Put rows, removed with its folder afterwards.
class LocalScratch {
public:
    LocalScratch() {
        char pattern[] = "/tmp/ftpdisk-matrix-XXXXXX";
        if (mkdtemp(pattern) != nullptr) dir_ = pattern;
    }
    ~LocalScratch() {
        if (dir_.empty()) return;
        ::remove(file().c_str());
        ::rmdir(dir_.c_str());
    }
    std::string file() const { return dir_ + "/local.dat"; }
    // The file's bytes in quotes, or "absent".
    std::string shown() const {
        std::ifstream in(file(), std::ios::binary);
        if (!in) return "absent";
        std::ostringstream all;
        all << in.rdbuf();
        return "\"" + all.str() + "\"";
    }

private:
    std::string dir_;
};

std::vector<StoreCall> storeCalls() {
    using F = FTPFileSystem&;
    using R = const RealFtpServer&;
    // The four listing calls answer 1 or 0 as ints: shown as the number.
    auto fileList = [](F fs, const char* dir) {
        std::vector<std::string> out;
        const int result = fs.getFileList(dir, out, "");
        return std::to_string(result) + " " + names(out);
    };
    auto subDirList = [](F fs, const char* dir) {
        std::vector<std::string> out;
        const int result = fs.getSubDirList(dir, out, "");
        std::sort(out.begin(), out.end());
        return std::to_string(result) + " " + names(out);
    };
    auto scanned = [](F fs, const char* dir, const char* filter) {
        NameCollector visitor;
        const int result = fs.scan(dir, &visitor, filter);
        std::sort(visitor.names.begin(), visitor.names.end());
        return std::to_string(result) + ", visited " + names(visitor.names);
    };
    return {
        {"`getFileLength(\"/top.dat\")` (file in the root: `CWD `, `LIST `)",
         [](F fs, R) { return std::to_string(fs.getFileLength("/top.dat")); }},
        {"`getFileLength(\"/d/a.dat\")`",
         [](F fs, R) { return std::to_string(fs.getFileLength("/d/a.dat")); }},
        {"`getFileLength(\"d/a.dat\")` (relative)",
         [](F fs, R) { return std::to_string(fs.getFileLength("d/a.dat")); }},
        {"`getFileLength(\"/d/e\")` (a directory)",
         [](F fs, R) { return std::to_string(fs.getFileLength("/d/e")); }},
        {"`getFileList(\"/d\")`", [fileList](F fs, R) { return fileList(fs, "/d"); }},
        {"`getFileList(\"d\")` (relative)", [fileList](F fs, R) { return fileList(fs, "d"); }},
        {"`getFileList(\"/\")`", [fileList](F fs, R) { return fileList(fs, "/"); }},
        {"`getFileList(\"\")`", [fileList](F fs, R) { return fileList(fs, ""); }},
        {"`getFileList(\"/b\")` (a name with a blank)",
         [fileList](F fs, R) { return fileList(fs, "/b"); }},
        {"`getFileList(\"/missing\")`", [fileList](F fs, R) { return fileList(fs, "/missing"); }},
        {"`getSubDirList(\"/\")`", [subDirList](F fs, R) { return subDirList(fs, "/"); }},
        {"`getSubDirList(\"/missing\")`",
         [subDirList](F fs, R) { return subDirList(fs, "/missing"); }},
        {"`scan(\"/d\", visitor, \"*.txt\")`",
         [scanned](F fs, R) { return scanned(fs, "/d", "*.txt"); }},
        {"`scan(\"/missing\", visitor, \"\")`",
         [scanned](F fs, R) { return scanned(fs, "/missing", ""); }},
        {"`getFileNumber(\"/d\")`", [](F fs, R) { return std::to_string(fs.getFileNumber("/d")); }},
        {"`isEmptyDir(\"/d\")` (a file and a directory in it)",
         [](F fs, R) { return yes(fs.isEmptyDir("/d")); }},
        {"`isEmptyDir(\"/d/e\")`, `isEmptyDir(\"/missing\")`",
         [](F fs, R) {
             return yes(fs.isEmptyDir("/d/e")) + ", " + yes(fs.isEmptyDir("/missing"));
         }},
        {"`getTotalSize(\"/full\")`",
         [](F fs, R server) {
             long long total = 0;
             const int result = fs.getTotalSize("/full", total);
             struct stat sub;
             long long expected = 1 + 2;
             if (::stat(server.localPath("/full/sub").c_str(), &sub) == 0) expected += sub.st_size;
             return std::to_string(result) + ", " +
                    (total == expected
                         ? "files plus the directory's own size on disk"
                         : "other: " + std::to_string(total - 3) + " bytes beside the files");
         }},
        {"`getTotalSize(\"/missing\")`",
         [](F fs, R) {
             long long total = -7;
             const int result = fs.getTotalSize("/missing", total);
             return std::to_string(result) + ", total " + std::to_string(total);
         }},
        {"`isDirExist(\"/d/a.dat\")` (a file)",
         [](F fs, R) { return yes(fs.isDirExist("/d/a.dat")); }},
        {"`isFileExist(\"/d\")` (a directory)", [](F fs, R) { return yes(fs.isFileExist("/d")); }},
        {"`isFileExist(\"/d/missing.dat\")`",
         [](F fs, R) { return yes(fs.isFileExist("/d/missing.dat")); }},
        {"`createDir(\"/d\")` (exists)",
         [](F fs, R) { return std::to_string(fs.createDir("/d")); }},
        {"`createDir(\"/n1/n2\")`",
         [](F fs, R server) {
             int r = fs.createDir("/n1/n2");
             return std::to_string(r) + " — on disk: " + onDisk(server, "/n1/n2");
         }},
        {"`createFile(\"/d/new.dat\")`",
         [](F fs, R server) {
             int r = fs.createFile("/d/new.dat");
             return std::to_string(r) + " — on disk: " + onDisk(server, "/d/new.dat");
         }},
        {"`createFile(\"/missing/x.dat\")`",
         [](F fs, R) { return std::to_string(fs.createFile("/missing/x.dat")); }},
        {"`deleteFile(\"/top.dat\")` (`CWD /`, `CWD `, `DELE top.dat`)",
         [](F fs, R server) {
             int r = fs.deleteFile("/top.dat");
             return std::to_string(r) + " — on disk: " + onDisk(server, "/top.dat");
         }},
        {"`deleteFile(\"/d/missing.dat\")`",
         [](F fs, R) { return std::to_string(fs.deleteFile("/d/missing.dat")); }},
        {"`deleteFile(\"/d/e\")` (a directory)",
         [](F fs, R server) {
             int r = fs.deleteFile("/d/e");
             return std::to_string(r) + " — on disk: " + onDisk(server, "/d/e");
         }},
        {"`renameFile(\"/d/a.dat\", \"/missing/b.dat\")`",
         [](F fs, R) { return std::to_string(fs.renameFile("/d/a.dat", "/missing/b.dat")); }},
        {"`renameFile(\"/d/a.dat\", \"/top.dat\")` (target exists)",
         [](F fs, R server) {
             int r = fs.renameFile("/d/a.dat", "/top.dat");
             return std::to_string(r) + " — on disk: " + onDisk(server, "/top.dat");
         }},
        {"`removeDir(\"/full\")` (a tree)",
         [](F fs, R server) {
             int r = fs.removeDir("/full");
             return std::to_string(r) + " — on disk: " + onDisk(server, "/full");
         }},
        {"`removeDir(\"/b\")` (a name with a blank inside)",
         [](F fs, R server) {
             int r = fs.removeDir("/b");
             return std::to_string(r) + " — on disk: " + onDisk(server, "/b/my file.dat");
         }},
        {"`removeDir(\"/missing\")`",
         [](F fs, R) { return std::to_string(fs.removeDir("/missing")); }},
        {"`open(\"/missing/x.dat\", 2)`",
         [](F fs, R) {
             int h = fs.open("/missing/x.dat", 2);
             if (h >= 1) fs.close(h);
             return h >= 1 ? std::string("a handle") : std::to_string(h);
         }},
        {"`open(\"/d/e\", 1)` (a directory)",
         [](F fs, R) {
             int h = fs.open("/d/e", 1);
             if (h >= 1) fs.close(h);
             return h >= 1 ? std::string("a handle") : std::to_string(h);
         }},
        {"`open(\"/d/a.dat\", 3)`, write \"+\", `close`",
         [](F fs, R server) {
             int h = fs.open("/d/a.dat", 3);
             if (h < 1) return std::to_string(h);
             int w = fs.write(h, "+", 1);
             int c = fs.close(h);
             return "a handle, write " + std::to_string(w) + ", close " + std::to_string(c) +
                    " — on disk: " + onDisk(server, "/d/a.dat");
         }},
        {"`moveDir(\"/d\", \"/m\")`",
         [](F fs, R server) {
             int r = fs.moveDir("/d", "/m");
             return std::to_string(r) + " — on disk: /d " + onDisk(server, "/d") + ", /m " +
                    onDisk(server, "/m");
         }},
        {"`open(\"/d/a.dat\", 1)`, `read` until 0, `close`",
         [](F fs, R) {
             int h = fs.open("/d/a.dat", 1);
             if (h < 1) return std::to_string(h);
             std::string got;
             std::string reads;
             char buffer[64];
             for (int rounds = 0; rounds < 100; ++rounds) {
                 int n = fs.read(h, buffer, sizeof buffer);
                 reads += (reads.empty() ? "" : ", ") + std::to_string(n);
                 if (n <= 0) break;
                 got.append(buffer, static_cast<size_t>(n));
             }
             int c = fs.close(h);
             return "a handle, read " + reads + " (\"" + got + "\"), close " + std::to_string(c);
         }},
        {"`open(\"/d/w.dat\", 2)`, `aioReturn(h, 1000)`, `aioWrite` \"abc\", `flush`, `close`",
         [](F fs, R server) {
             int h = fs.open("/d/w.dat", 2);
             if (h < 1) return std::to_string(h);
             int ready = fs.aioReturn(h, 1000);
             int w = fs.aioWrite(h, "abc", 3);
             int f = fs.flush(h);
             int c = fs.close(h);
             return "a handle, aioReturn " + std::to_string(ready) + ", aioWrite " +
                    std::to_string(w) + ", flush " + std::to_string(f) + ", close " +
                    std::to_string(c) + " — on disk: " + onDisk(server, "/d/w.dat");
         }},
        {"`Get(local, \"/d/a.dat\")`",
         [](F fs, R) {
             LocalScratch local;
             int r = fs.Get(local.file().c_str(), "/d/a.dat");
             return std::to_string(r) + " — local file: " + local.shown();
         }},
        {"`Get(local, \"/d/missing.dat\")`",
         [](F fs, R) {
             LocalScratch local;
             int r = fs.Get(local.file().c_str(), "/d/missing.dat");
             return std::to_string(r) + " — local file: " + local.shown();
         }},
        {"`Put(local, \"/d/p.dat\")` (local file \"put\")",
         [](F fs, R server) {
             LocalScratch local;
             std::ofstream(local.file(), std::ios::binary) << "put";
             int r = fs.Put(local.file().c_str(), "/d/p.dat");
             return std::to_string(r) + " — on disk: " + onDisk(server, "/d/p.dat");
         }},
        {"`Put(local, \"/missing/p.dat\")`",
         [](F fs, R server) {
             LocalScratch local;
             std::ofstream(local.file(), std::ios::binary) << "put";
             int r = fs.Put(local.file().c_str(), "/missing/p.dat");
             return std::to_string(r) + " — on disk: " + onDisk(server, "/missing/p.dat");
         }},
        {"`snapshot_open(\"/d/s.jpg\", 0)`, `snapshot_write` \"jpg\", `snapshot_close`",
         [](F fs, R server) {
             int o = fs.snapshot_open("/d/s.jpg", 0);
             if (o != 0) return std::to_string(o);
             int w = fs.snapshot_write("jpg", 3);
             int c = fs.snapshot_close();
             return "0, write " + std::to_string(w) + ", close " + std::to_string(c) +
                    " — on disk: " + onDisk(server, "/d/s.jpg");
         }},
        {"`snapshot_open(\"/missing/s.jpg\", 0)`",
         [](F fs, R) {
             int r = fs.snapshot_open("/missing/s.jpg", 0);
             if (r == 0) fs.snapshot_close();
             return std::to_string(r);
         }},
        {"`getDiskSpaceInfo(first, second)`",
         [](F fs, R) {
             long first = -1, second = -1;
             int r = fs.getDiskSpaceInfo(first, second);
             return std::to_string(r) + ", first " + std::to_string(first) + ", second " +
                    std::to_string(second);
         }},
        {"`reinit()` (initialised)", [](F fs, R) { return std::to_string(fs.reinit()); }},
        {"`init()` of another store with the password \"wrong\"",
         [](F, R server) {
             FTPFileSystem other(server.hostPort().c_str(), "rec", "wrong", 16);
             return std::to_string(other.init());
         }},
        // Last: the store is not initialised afterwards.
        {"`uninit()`, then `createDir(\"/u\")`",
         [](F fs, R server) {
             int u = fs.uninit();
             int r = fs.createDir("/u");
             return std::to_string(u) + ", then " + std::to_string(r) +
                    " — on disk: " + onDisk(server, "/u");
         }},
    };
}

// --- Explicit TLS -------------------------------------------------------------

#if defined(FTPDISK_WITH_TLS)
// What each kind is given to require TLS (tests/support/RealFtpServer.cpp).
std::string tlsSetup(FtpServerKind kind) {
    switch (kind) {
        case FtpServerKind::kPyftpdlib:
            return "TLS_FTPHandler with tls_control_required and tls_data_required, TLS 1.2 at "
                   "least (pyOpenSSL)";
        case FtpServerKind::kVsftpd:
            return "ssl_enable, force_local_logins_ssl, force_local_data_ssl, require_ssl_reuse, "
                   "ssl_tlsv1, ssl_ciphers=HIGH (its own default, DES-CBC3-SHA, is gone from "
                   "OpenSSL 3)";
        case FtpServerKind::kProftpd:
            return "LoadModule mod_tls.c (proftpd-mod-crypto), TLSEngine on, TLSRequired on, "
                   "TLSProtocol TLSv1.2 TLSv1.3";
        case FtpServerKind::kPureftpd:
            return "-Y 3 (TLS for the login and for data), -2 with the certificate and key in "
                   "one file";
        case FtpServerKind::kBusybox: return "no TLS";
    }
    return "?";
}

// The rows of the TLS table for one server; `cells[i]` is row i.
std::vector<std::string> tlsColumn(const RealFtpServer& server) {
    std::vector<std::string> cells;
    bool offeredResumed = false;
    bool freshRefused = false;
    cells.push_back(tlsSetup(server.kind()));
    {
        RawFtpSession clear(server.port());
        std::string greeting = stable(clear.reply());
        std::string user = stable(clear.command("USER rec"));
        std::string text = user;
        if (user.compare(0, 1, "3") == 0) text += " · " + stable(clear.command("PASS pw"));
        cells.push_back(text);
    }
    std::string fresh;
    {
        RawTlsSession session(server.caFile());
        std::string failed = session.secure(server.port());
        cells.push_back(stable(session.authReply()));
        cells.push_back(failed.empty() ? session.protocol() + " · " + session.cipher()
                                       : "(failed: " + failed + ")");
        failed = failed.empty() ? session.logIn("rec", "pw") : failed;
        std::string replies;
        for (const std::string& reply : session.loginReplies()) {
            replies += (replies.empty() ? "" : " · ") + stable(reply);
        }
        cells.push_back(replies.empty() ? "(failed: " + failed + ")" : replies);
        RawTlsSession::Listing resumed = session.list("/", true);
        cells.push_back(stable(resumed.preliminary) + " → " + stable(resumed.final) + " — " +
                        (resumed.handshake ? (resumed.resumed ? "resumed" : "not resumed")
                                           : "handshake failed"));
        offeredResumed = resumed.handshake && resumed.resumed;
    }
    {
        RawTlsSession session(server.caFile());
        std::string failed = session.secure(server.port());
        if (failed.empty()) failed = session.logIn("rec", "pw");
        if (failed.empty()) {
            RawTlsSession::Listing listing = session.list("/", false);
            freshRefused = listing.final.compare(0, 1, "2") != 0;
            std::string after = session.command("NOOP");
            cells.push_back(stable(listing.preliminary) + " → " + stable(listing.final) + " — " +
                            (listing.handshake ? "handshake passed" : "handshake failed") +
                            "; then `NOOP`: " + (after.empty() ? "connection closed" : after));
        } else {
            cells.push_back("(failed: " + failed + ")");
        }
    }
    {
        // The exported store, trusting the test's CA through the registry.
        const std::string location = server.location("/");
        FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
        std::string text = "(not registered)";
        if (registry->addFTPFileSystem(location) == 0) {
            int trusted = registry->addTlsCaFile(location, server.caFile());
            SafePointer<FTPFileSystem> store;
            if (trusted == 0 && registry->getFTPFileSystem(location, store) == 1) {
                ftptest::TempDir local;
                const std::string bytes(100000, 'u');
                std::ofstream(local.file("up.bin"), std::ios::binary) << bytes;
                int init = store->init();
                int put = store->Put(local.file("up.bin").c_str(), "/tls.bin");
                int get = store->Get(local.file("back.bin").c_str(), "/tls.bin");
                int uninit = store->uninit();
                std::string stored, copied;
                server.readFile("/tls.bin", &stored);
                std::ifstream in(local.file("back.bin"), std::ios::binary);
                std::ostringstream all;
                all << in.rdbuf();
                copied = all.str();
                text = std::to_string(init) + ", " + std::to_string(put) + ", " +
                       std::to_string(get) + ", " + std::to_string(uninit) + " — on disk: " +
                       (stored == bytes ? "the bytes sent" : "not the bytes sent") +
                       "; local copy: " + (copied == bytes ? "the same" : "not the same");
            }
            registry->deleteFileSystem(location);
        }
        cells.push_back(text);
    }
    // The two listings above, summed up.
    cells.push_back(freshRefused ? "yes" : "no");
    cells.push_back(offeredResumed ? "yes" : "no");
    return cells;
}
#endif

const char* const kTlsRows[] = {
    "what the test server is given",
    "`USER rec` · `PASS pw` in clear, before `AUTH TLS`",
    "`AUTH TLS`",
    "protocol · cipher of the control connection (`AUTH TLS`, then a TLS 1.2+ handshake)",
    "`USER rec` · `PASS pw` · `PBSZ 0` · `PROT P` over TLS",
    "`PASV`, `LIST /` with a data connection that resumes the control connection's session",
    "`PASV`, `LIST /` with a data connection on a fresh session (no resumption)",
    "the store: `init`, `Put` (100000 bytes), `Get`, `uninit`, trusting the test's CA",
    "requires a data connection to resume the control connection's session",
    "resumes the session a data connection offers",
};

// The TLS table: every kind that speaks TLS, started with it required.
int tlsSection(std::ostream& out, std::string* problems) {
    std::vector<std::string> names;
    std::vector<std::vector<std::string>> columns;
    for (FtpServerKind kind : allFtpServerKinds()) {
        names.push_back(ftpServerKindName(kind));
        std::vector<std::string> cells;
        if (kind == FtpServerKind::kBusybox) {
            cells.assign(sizeof kTlsRows / sizeof kTlsRows[0], "no TLS");
        } else {
#if defined(FTPDISK_WITH_TLS)
            RealFtpServerOptions options;
            options.tls = true;
            RealFtpServer server(kind, options);
            if (!server.ready()) {
                *problems += server.failure() + "\n";
                return 1;
            }
            cells = tlsColumn(server);
#else
            *problems += "built without TLS (FTPDISK_TLS=OFF): no TLS table\n";
            return 1;
#endif
        }
        columns.push_back(cells);
    }
    out << "| over TLS |";
    for (const std::string& name : names) out << " " << name << " |";
    out << "\n|---|";
    for (size_t i = 0; i < names.size(); ++i) out << "---|";
    out << "\n";
    for (size_t row = 0; row < sizeof kTlsRows / sizeof kTlsRows[0]; ++row) {
        out << "| " << cell(kTlsRows[row]) << " |";
        for (const std::vector<std::string>& column : columns) {
            out << " " << cell(row < column.size() ? column[row] : "") << " |";
        }
        out << "\n";
    }
    return 0;
}

// --- The document ---------------------------------------------------------------

std::string packageVersion(const char* package) {
    std::string command = std::string("dpkg-query -W -f='${Version}' ") + package + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return "?";
    char text[128] = {0};
    size_t n = fread(text, 1, sizeof text - 1, pipe);
    pclose(pipe);
    return n ? std::string(text, n) : "?";
}

std::string unpackedVersion(const char* folder) {
    const char* dir = getenv("FTPDISK_SERVERS_DIR");
    std::string path = std::string(dir && *dir ? dir : "/opt/ftpdisk-servers") + "/" + folder +
                       "/.ftpdisk-version";
    std::ifstream in(path);
    std::string version;
    std::getline(in, version);
    return version.empty() ? "?" : version;
}

struct Column {
    std::unique_ptr<RealFtpServer> server;
    std::unique_ptr<FTPFileSystem> store;
};

struct Row {
    std::string label;
    std::vector<std::string> cells;  // one per server, in column order
};

// What a cell says that matters to the module: the reply codes (the module
// judges only their first digit, but a reader wants the code) and what was
// listed, read or left on disk; the servers' wording is left out.
std::string gist(const std::string& cell) {
    std::string text;
    size_t at = 0;
    for (;;) {
        size_t next = std::string::npos;
        std::string separator;
        for (const char* candidate : {" · ", " → ", " — "}) {
            size_t found = cell.find(candidate, at);
            if (found < next) {
                next = found;
                separator = candidate;
            }
        }
        std::string part =
            cell.substr(at, next == std::string::npos ? std::string::npos : next - at);
        bool reply = part.size() >= 3 && isdigit(static_cast<unsigned char>(part[0])) &&
                     isdigit(static_cast<unsigned char>(part[1])) &&
                     isdigit(static_cast<unsigned char>(part[2])) &&
                     (part.size() == 3 || part[3] == ' ');
        text += reply ? part.substr(0, 3) : part;
        if (next == std::string::npos) break;
        text += separator;
        at = next + separator.size();
    }
    return text;
}

void printRows(std::ostream& out, const std::string& firstTitle, const std::vector<Row>& rows,
               const std::vector<Column>& columns) {
    out << "| " << firstTitle << " |";
    for (const Column& c : columns) out << " " << c.server->name() << " |";
    out << "\n|---|";
    for (size_t i = 0; i < columns.size(); ++i) out << "---|";
    out << "\n";
    for (const Row& row : rows) {
        out << "| " << cell(row.label) << " |";
        for (const std::string& text : row.cells) out << " " << cell(text) << " |";
        out << "\n";
    }
}

void printDifferences(std::ostream& out, const std::vector<Row>& rows,
                      const std::vector<Column>& columns) {
    for (const Row& row : rows) {
        bool differ = false;
        for (const std::string& text : row.cells) differ |= gist(text) != gist(row.cells[0]);
        if (!differ) continue;
        out << "- " << row.label << ":";
        for (size_t i = 0; i < columns.size(); ++i) {
            out << (i ? ";" : "") << " " << columns[i].server->name() << " "
                << cell(gist(row.cells[i]));
        }
        out << "\n";
    }
}

int run(std::ostream& out, std::string* problems) {
    std::vector<Column> columns;
    for (FtpServerKind kind : allFtpServerKinds()) {
        Column column;
        column.server.reset(new RealFtpServer(kind));
        if (!column.server->ready()) {
            *problems += column.server->failure() + "\n";
            return 1;
        }
        columns.push_back(std::move(column));
    }

    // Lines sent after login, each on a fresh session against a fresh tree.
    std::vector<Row> lines;
    for (const char* password : {"pw", "wrong"}) {
        Row row{std::string("greeting · `USER rec` · `PASS ") + password + "`", {}};
        for (Column& c : columns) row.cells.push_back(greetingAndLogin(*c.server, password));
        lines.push_back(row);
    }
    for (const Probe& probe : lineProbes()) {
        Row row{probe.label, {}};
        for (Column& c : columns) {
            if (!resetTree(*c.server)) {
                row.cells.push_back("(could not prepare the tree)");
                continue;
            }
            RawFtpSession session(c.server->port());
            row.cells.push_back(session.logIn("rec", "pw") ? probe.run(session, *c.server)
                                                           : "(login failed)");
        }
        lines.push_back(row);
    }

    // Store operations, one initialised store per server for all of them.
    for (Column& c : columns) {
        c.store.reset(new FTPFileSystem(c.server->hostPort().c_str(), "rec", "pw", 1024));
        if (c.store->init() != 0) {
            *problems += std::string(c.server->name()) + ": init failed\n";
            return 1;
        }
    }
    std::vector<Row> calls;
    for (const StoreCall& call : storeCalls()) {
        Row row{call.label, {}};
        for (Column& c : columns) {
            row.cells.push_back(resetTree(*c.server) ? call.run(*c.store, *c.server)
                                                     : "(could not prepare the tree)");
        }
        calls.push_back(row);
    }
    for (Column& c : columns) c.store.reset();

    out << "# How the FTP servers answer this module\n\n"
        << "Generated by `scripts/measure-servers.sh` (the program `ftpdisk_server_matrix` in\n"
        << "`tests/server-matrix`); do not edit by hand. The server test "
           "`server_matrix_is_current`\n"
        << "fails when the tables below no longer match what the servers and the module do.\n\n"
        << "Servers, as the tests start them (`tests/support/RealFtpServer.h`): pyftpdlib "
        << packageVersion("python3-pyftpdlib") << ", vsftpd " << packageVersion("vsftpd")
        << ", proftpd " << unpackedVersion("proftpd-core") << ", pure-ftpd "
        << unpackedVersion("pure-ftpd") << " (Debian packages), BusyBox ftpd under tcpsvd "
        << unpackedVersion("busybox") << " (built from Debian's source package).\n"
        << "Each runs on 127.0.0.1 with user `rec`, its root folder as the user's \"/\",\n"
        << "passive data connections on loopback; proftpd with `AllowStoreRestart on`, without\n"
        << "which it refuses `APPE` with 451.\n\n"
        << "Every row starts from the same tree: `/top.dat` (\"top\"), `/d/a.dat` (\"hello\"),\n"
        << "`/d/e/` (empty), `/full/x.dat`, `/full/sub/y.dat`, `/b/my file.dat`. Replies are the\n"
        << "last line of each reply (the line the module judges); \"·\" separates the replies to\n"
        << "successive commands, \"→\" leads from a transfer's first reply to its closing one,\n"
        << "and listings are shown as the names the server lists (directories with a\n"
        << "trailing \"/\"), sorted. Data ports and timings are replaced by p1,p2 and N.\n\n"
        << "## Where the servers differ\n\n"
        << "Rows of the tables below whose reply codes, listings or results are not the same\n"
        << "on every server (the servers' wording aside).\n\n"
        << "Lines sent:\n\n";
    printDifferences(out, lines, columns);
    out << "\nStore operations:\n\n";
    printDifferences(out, calls, columns);
    out << "\n## Replies to the lines the module sends\n\n";
    printRows(out, "sent after login", lines, columns);
    out << "\n## What the exported store then returns\n\n"
        << "`FTPFileSystem` operations on each server after `init`, with what the server's\n"
        << "disk shows afterwards where the call writes. `getFileList`, `getSubDirList`, `scan`\n"
        << "and `getTotalSize` answer 1 or 0 (ints); `isDirExist`, `isFileExist` and\n"
        << "`isEmptyDir` answer true or false; the other calls 0 or -1, a handle, a count or a\n"
        << "length as shown. Rows run in order on one initialised store, each from the same\n"
        << "tree; the last one uninitialises it.\n\n";
    printRows(out, "call", calls, columns);
    columns.clear();

    out << "\n## Explicit TLS (`ftps://` locations)\n\n"
        << "Each server started again with TLS required for the login and for every data\n"
        << "connection (`RealFtpServerOptions::tls`), with a certificate for 127.0.0.1 signed\n"
        << "by a private CA the test makes with `openssl`; BusyBox's ftpd has none. The\n"
        << "probes in clear use a bare socket, those over TLS a bare OpenSSL client that trusts\n"
        << "that CA (`tests/support/RawTlsSession.h`): it can offer the control connection's\n"
        << "session on a data connection or not, which shows whether the server insists on\n"
        << "resumption. The module always resumes. The last row is the exported store.\n\n";
    return tlsSection(out, problems);
}

// The table rows of a document: what --check compares.
std::vector<std::string> tableRows(const std::string& text) {
    std::vector<std::string> rows;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] == '|') rows.push_back(line);
    }
    return rows;
}

}  // namespace

int main(int argc, char** argv) {
    std::string outFile, checkFile;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--out" && i + 1 < argc) {
            outFile = argv[++i];
        } else if (arg == "--check" && i + 1 < argc) {
            checkFile = argv[++i];
        } else {
            std::cerr << "usage: ftpdisk_server_matrix [--out FILE | --check FILE]\n";
            return 2;
        }
    }
    std::ostringstream document;
    std::string problems;
    if (run(document, &problems) != 0) {
        std::cerr << "ftpdisk_server_matrix: a server did not work:\n" << problems;
        return 1;
    }
    if (!checkFile.empty()) {
        std::ifstream in(checkFile);
        std::ostringstream committed;
        committed << in.rdbuf();
        std::vector<std::string> want = tableRows(committed.str());
        std::vector<std::string> got = tableRows(document.str());
        int differences = 0;
        for (size_t i = 0; i < std::max(want.size(), got.size()); ++i) {
            std::string w = i < want.size() ? want[i] : "(no row)";
            std::string g = i < got.size() ? got[i] : "(no row)";
            if (w != g) {
                ++differences;
                std::cout << "row " << i + 1 << " differs:\n  " << checkFile << ": " << w
                          << "\n  measured now: " << g << "\n";
            }
        }
        if (differences > 0 || want.empty()) {
            std::cout << differences << " rows differ from " << checkFile
                      << "; regenerate it with scripts/measure-servers.sh\n";
            return 1;
        }
        std::cout << got.size() << " rows of " << checkFile << " match the servers\n";
        return 0;
    }
    if (!outFile.empty()) {
        std::ofstream out(outFile);
        out << document.str();
        return out ? 0 : 1;
    }
    std::cout << document.str();
    return 0;
}
