#include "ToolCommon.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>

#include "Credentials.h"
#include "FailureText.h"
#include "filesystem/FTPFileSystemManager.h"
#include "ftp/TlsContext.h"

namespace ftpdisk_tool {

bool parseArguments(int argc, char** argv, const std::set<std::string>& flagNames,
                    const std::set<std::string>& valueNames, Arguments& out, std::string& problem) {
    bool optionsEnded = false;
    for (int i = 0; i < argc; ++i) {
        const std::string word = argv[i];
        if (optionsEnded || word.size() < 2 || word[0] != '-') {
            out.positional.push_back(word);
            continue;
        }
        if (word == "--") {
            optionsEnded = true;
            continue;
        }
        if (word == "--help" || word == "-h") {
            out.help = true;
            continue;
        }
        std::string name = word;
        std::string value;
        bool inlineValue = false;
        const std::string::size_type equals = word.find('=');
        if (word.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            name = word.substr(0, equals);
            value = word.substr(equals + 1);
            inlineValue = true;
        }
        if (flagNames.count(name) != 0 && !inlineValue) {
            out.flags.insert(name);
        } else if (valueNames.count(name) != 0) {
            if (!inlineValue) {
                if (i + 1 >= argc) {
                    problem = "option " + name + " needs a value";
                    return false;
                }
                value = argv[++i];
            }
            out.values[name] = value;
        } else {
            problem = "unknown option " + name;
            return false;
        }
    }
    return true;
}

TlsOptions TlsOptions::from(const Arguments& args) {
    TlsOptions options;
    const auto fingerprint = args.values.find(kTlsFingerprintOption);
    if (fingerprint != args.values.end()) {
        options.pinned = true;
        options.fingerprint = fingerprint->second;
    }
    const auto caFile = args.values.find(kCaFileOption);
    if (caFile != args.values.end()) {
        options.caFileGiven = true;
        options.caFile = caFile->second;
    }
    options.insecure = args.has(kTlsInsecureOption);
    return options;
}

int fail(const std::string& command, const std::string& message, int status) {
    std::cout.flush();
    std::cerr << "ftpdisk " << command << ": " << message << std::endl;
    return status;
}

int usage(const std::string& command, const std::string& message) {
    return fail(command, message + " (see ftpdisk " + command + " --help)", kExitUsage);
}

bool stderrIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

double monotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Session::~Session() {
    // Release in the recorder's order: log out, then drop the registry's
    // reference; the store itself goes when store_ (the last holder) does.
    if (initialised_) {
        store_->uninit();
    }
    if (registered_) {
        FTPFileSystemManager::getInstance()->deleteFileSystem(location_.text);
    }
}

int Session::registerLocation(const std::string& text) {
    std::string problem;
    if (!parseLocation(text, location_, problem)) {
        return fail(command_,
                    "not a location: " + maskLocationText(text) + " (" + problem + "; expected " +
                        kLocationForm + ")",
                    kExitUsage);
    }
    // Before the password is looked for: options that do not fit the
    // location are a mistake whatever the password.
    problem = tlsProblem();
    if (!problem.empty()) {
        return usage(command_, problem);
    }
    if (!location_.passwordGiven) {
        std::string password;
        std::string source;
        if (!lookUpPassword(location_.server, location_.user, password, source, problem)) {
            return fail(command_, problem, kExitUsage);
        }
        if (!location_.setPassword(password, problem)) {
            return fail(command_, "the password from " + source + " will not do: " + problem,
                        kExitUsage);
        }
    }
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    if (registry->addFTPFileSystem(location_.text) != 0) {
        return fail(command_,
                    "not a location: " + location_.masked() + " (refused by the store; expected " +
                        kLocationForm + ")",
                    kExitUsage);
    }
    registered_ = true;
    if (registry->getFTPFileSystem(location_.text, store_) != 1) {
        return fail(command_, "the registry has no store for " + location_.masked(), kExitFailed);
    }
    return applyTls();
}

std::string Session::tlsProblem() const {
    if (!tls_.given()) {
        return "";
    }
    const char* first = tls_.pinned        ? kTlsFingerprintOption
                        : tls_.caFileGiven ? kCaFileOption
                                           : kTlsInsecureOption;
    if (!location_.tls) {
        return std::string(first) + " is for ftps:// locations only, and " + location_.masked() +
               " is not one";
    }
    if (tls_.count() > 1) {
        return std::string(kTlsFingerprintOption) + ", " + kCaFileOption + " and " +
               kTlsInsecureOption + " each replace the others: give one";
    }
    std::string raw;
    if (tls_.pinned && !tlsParseFingerprint(tls_.fingerprint, &raw)) {
        return std::string(kTlsFingerprintOption) +
               " takes the SHA-256 fingerprint of the server's certificate, 64 hexadecimal "
               "digits with or without colons between pairs (as ftpdisk check prints it), not \"" +
               tls_.fingerprint + "\"";
    }
    if (tls_.caFileGiven && tls_.caFile.empty()) {
        return std::string(kCaFileOption) + " needs a file name";
    }
    return "";
}

int Session::applyTls() {
    if (!tls_.given()) {
        return kExitOk;
    }
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    if (tls_.pinned) {
        if (registry->setTlsPinnedFingerprint(location_.text, tls_.fingerprint) != 0) {
            return usage(command_, std::string(kTlsFingerprintOption) + " refused by the store: " +
                                       FTPFileSystem::getLastError().text);
        }
    } else if (tls_.caFileGiven) {
        if (registry->addTlsCaFile(location_.text, tls_.caFile) != 0) {
            return fail(command_, FTPFileSystem::getLastError().text, kExitFailed);
        }
    } else if (registry->skipTlsCertificateVerification(location_.text) != 0) {
        return fail(command_,
                    std::string(kTlsInsecureOption) +
                        " refused by the store: " + FTPFileSystem::getLastError().text,
                    kExitFailed);
    }
    return kExitOk;
}

int Session::init(bool quiet) {
    if (store_.isNull()) {
        return kExitFailed;
    }
    if (store_->init() != 0) {
        if (!quiet) {
            const bool untrusted =
                FTPFileSystem::getLastError().kind == FTPFileSystem::kErrorTls && !tls_.given();
            std::string text = lastFailure(location_).text;
            if (untrusted && text.find("not trusted") != std::string::npos) {
                text += " (once you know it is the server's own certificate, trust it with " +
                        std::string(kTlsFingerprintOption) + ", or give " + kCaFileOption +
                        " with the CA certificate that signed it)";
            }
            fail(command_, text, kExitFailed);
        }
        return kExitFailed;
    }
    initialised_ = true;
    return kExitOk;
}

int Session::open(const std::string& text) {
    const int status = registerLocation(text);
    return status != kExitOk ? status : init();
}

int Session::openAt(const std::string& text, const std::string& relative, std::string& path) {
    const int status = open(text);
    if (status != kExitOk) {
        return status;
    }
    return remotePath(relative, path) ? kExitOk : kExitUsage;
}

bool Session::remotePath(const std::string& relative, std::string& out) {
    std::string problem;
    if (!remotePathBelow(location_.base, relative, out, problem)) {
        fail(command_, problem, kExitUsage);
        return false;
    }
    return true;
}

bool Session::listableName(const std::string& relative) {
    const std::string name = nameWithBlank(relative);
    if (!name.empty()) {
        fail(command_,
             "\"" + name +
                 "\" holds a blank: the store reads listed names only up to their "
                 "first blank, so it would not find this one again in a listing; choose a name "
                 "without blanks",
             kExitUsage);
        return false;
    }
    return true;
}

int Session::requireDirectory(const std::string& path) {
    if (!store_->isDirExist(path.c_str())) {
        return fail(command_, "no such directory: " + path, kExitFailed);
    }
    return kExitOk;
}

int Session::openForReading(const std::string& path, int& handle) {
    if (store_->isDirExist(path.c_str())) {
        return fail(command_, path + " is a directory", kExitFailed);
    }
    handle = store_->open(path.c_str(), 1);
    if (handle < 0) {
        return fail(command_, "cannot open " + path + " for reading (no such file?)", kExitFailed);
    }
    return kExitOk;
}

std::size_t writeToStore(FTPFileSystem* store, int handle, const char* data, std::size_t size) {
    std::size_t sent = 0;
    while (sent < size) {
        const unsigned chunk = static_cast<unsigned>(std::min<std::size_t>(kBlock, size - sent));
        const int n = store->write(handle, data + sent, chunk);
        if (n <= 0) {
            break;
        }
        sent += static_cast<std::size_t>(n);
    }
    return sent;
}

std::int64_t readFromStore(FTPFileSystem* store, int handle, const BlockSink& sink,
                           std::string& problem) {
    std::vector<char> buffer(kBlock);
    std::int64_t done = 0;
    for (;;) {
        const int n = store->read(handle, buffer.data(), kBlock);
        if (n < 0) {
            problem = "reading from the server failed after " + std::to_string(done) + " bytes";
            return -1;
        }
        if (n == 0) {
            return done;
        }
        if (!sink(buffer.data(), static_cast<std::size_t>(n), problem)) {
            return -1;
        }
        done += n;
    }
}

}  // namespace ftpdisk_tool
