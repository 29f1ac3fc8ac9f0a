// ls, du, df, mkdir, rm and mv: one store call each (with a test or two
// before it so that a refusal can be explained), on a path below the location.
#include <algorithm>
#include <iostream>
#include <vector>

#include "Commands.h"
#include "ToolFormat.h"

namespace ftpdisk_tool {

int runLs(const Arguments& args) {
    Session session("ls", args);
    std::string dir;
    int status = session.openAt(args.positional[0], args.positionalOr(1), dir);
    if (status == kExitOk) {
        status = session.requireDirectory(dir);
    }
    if (status != kExitOk) {
        return status;
    }
    FTPFileSystem* store = session.store();
    std::vector<std::string> dirs;
    std::vector<std::string> files;
    if (!store->getSubDirList(dir.c_str(), dirs, "") ||
        !store->getFileList(dir.c_str(), files, "")) {
        return fail("ls", "cannot list " + dir, kExitFailed);
    }
    std::sort(dirs.begin(), dirs.end());
    std::sort(files.begin(), files.end());
    const bool longForm = args.has("-l");
    for (const std::string& name : dirs) {
        if (longForm) {
            std::cout << "d " << std::string(12, ' ') << "-  ";
        }
        std::cout << name << "/\n";
    }
    for (const std::string& name : files) {
        if (longForm) {
            // One listing of the directory per file: fine for a person
            // looking, too slow for thousands of entries.
            const long long length = store->getFileLength(childPath(dir, name).c_str());
            std::string size = length < 0 ? "?" : std::to_string(length);
            std::cout << "- " << std::string(size.size() < 13 ? 13 - size.size() : 0, ' ') << size
                      << "  ";
        }
        std::cout << name << "\n";
    }
    std::cout.flush();
    return kExitOk;
}

int runDu(const Arguments& args) {
    Session session("du", args);
    std::string dir;
    int status = session.openAt(args.positional[0], args.positionalOr(1), dir);
    if (status == kExitOk) {
        status = session.requireDirectory(dir);
    }
    if (status != kExitOk) {
        return status;
    }
    long long total = 0;
    if (!session.store()->getTotalSize(dir.c_str(), total)) {
        return fail("du", "cannot add up the sizes below " + dir, kExitFailed);
    }
    std::cout << total << "\t" << humanBytes(static_cast<double>(total)) << "\t" << dir
              << std::endl;
    return kExitOk;
}

int runDf(const Arguments& args) {
    Session session("df", args);
    int status = session.open(args.positional[0]);
    if (status != kExitOk) {
        return status;
    }
    long first = -1;
    long usedMiB = -1;
    if (session.store()->getDiskSpaceInfo(first, usedMiB) != 0) {
        return fail("df", "the store gave no space figures", kExitFailed);
    }
    // The store answers from its own account of what it wrote since init; it
    // never asks the server for free space. A fresh store therefore says 0.
    std::cout << "location      " << session.location().masked() << "\n"
              << "first figure  " << first << "\n"
              << "used          " << usedMiB << " MiB (written through this store since init)"
              << std::endl;
    return kExitOk;
}

int runMkdir(const Arguments& args) {
    Session session("mkdir", args);
    if (!session.listableName(args.positional[1])) {
        return kExitUsage;
    }
    std::string dir;
    const int status = session.openAt(args.positional[0], args.positional[1], dir);
    if (status != kExitOk) {
        return status;
    }
    if (session.store()->createDir(dir.c_str()) != 0) {
        return fail("mkdir", "cannot create directory " + dir, kExitFailed);
    }
    std::cout << "created directory " << dir << std::endl;
    return kExitOk;
}

int runRm(const Arguments& args) {
    Session session("rm", args);
    std::string path;
    const int status = session.openAt(args.positional[0], args.positional[1], path);
    if (status != kExitOk) {
        return status;
    }
    FTPFileSystem* store = session.store();
    const bool isDir = store->isDirExist(path.c_str());
    if (isDir) {
        if (!args.has("-r")) {
            return fail("rm", path + " is a directory (use -r to remove it with its contents)",
                        kExitFailed);
        }
        if (path == "/") {
            return fail("rm", "refusing to remove the server's root directory", kExitFailed);
        }
        if (store->removeDir(path.c_str()) != 0) {
            return fail(
                "rm",
                "cannot remove directory " + path + " (what was already removed stays removed)",
                kExitFailed);
        }
        std::cout << "removed directory " << path << std::endl;
        return kExitOk;
    }
    if (store->deleteFile(path.c_str()) != 0) {
        return fail("rm", "cannot remove " + path + " (no such file?)", kExitFailed);
    }
    std::cout << "removed " << path << std::endl;
    return kExitOk;
}

int runMv(const Arguments& args) {
    Session session("mv", args);
    if (!session.listableName(args.positional[2])) {
        return kExitUsage;
    }
    std::string from;
    const int status = session.openAt(args.positional[0], args.positional[1], from);
    if (status != kExitOk) {
        return status;
    }
    std::string to;
    if (!session.remotePath(args.positional[2], to)) {
        return kExitUsage;
    }
    if (session.store()->renameFile(from.c_str(), to.c_str()) != 0) {
        return fail("mv", "cannot rename " + from + " to " + to, kExitFailed);
    }
    std::cout << "renamed " << from << " to " << to << std::endl;
    return kExitOk;
}

}  // namespace ftpdisk_tool
