#include "ToolCommon.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>

#include "filesystem/FTPFileSystemManager.h"

namespace ftpdisk_tool {

bool parseArguments(int argc, char** argv, const std::set<std::string>& flagNames,
                    const std::set<std::string>& valueNames, Arguments& out,
                    std::string& problem) {
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
                    "not a location: " + maskLocationText(text) + " (" + problem +
                        "; expected " + kLocationForm + ")",
                    kExitUsage);
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
    return kExitOk;
}

int Session::init(bool quiet) {
    if (store_.isNull()) {
        return kExitFailed;
    }
    if (store_->init() != 0) {
        if (!quiet) {
            fail(command_,
                 "cannot connect to " + location_.server + " or log in as " + location_.user,
                 kExitFailed);
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

bool Session::remotePath(const std::string& relative, std::string& out) {
    std::string problem;
    if (!remotePathBelow(location_.base, relative, out, problem)) {
        fail(command_, problem, kExitUsage);
        return false;
    }
    return true;
}

}  // namespace ftpdisk_tool
