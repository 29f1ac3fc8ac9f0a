#include "connections/FtpFileHandleManager.h"

#include <string.h>

namespace {

// Zero-fills a fixed text field and copies `text` into it. The callers (store
// and registry) refuse texts that do not fit; the bound only guarantees that a
// longer one is cut instead of overflowing the field.
void copyField(char* field, size_t size, const char* text) {
    memset(field, 0, size);
    if (text != NULL) {
        strncpy(field, text, size - 1);
    }
}

}  // namespace

FtpFileHandleManager::FtpFileHandleManager(const char* server, const char* user,
                                           const char* password, int firstHandle,
                                           int handleLimit, int maxOpenFiles)
    : freeToolBuff(new FreeFtpToolBuff),
      fileHandlers(),
      handleLimit(handleLimit),
      firstHandle(firstHandle),
      maxOpenFiles(maxOpenFiles),
      mutex(),
      handleInUse() {
    copyField(this->server, sizeof this->server, server);
    copyField(this->user, sizeof this->user, user);
    copyField(this->password, sizeof this->password, password);
    // If the monitor cannot start, idle connections simply stay pooled until
    // reused or until the table goes; opening and closing still work.
    freeToolBuff->start();
    // Numbers run from firstHandle to handleLimit - 1. With the store's
    // (1, capacity, capacity) they run out one before maxOpenFiles is reached;
    // both limits are kept as they are on purpose.
    for (int32_t h = firstHandle; h < handleLimit; ++h) {
        handleInUse.insert(std::make_pair(h, false));
    }
}

// Members go in reverse order of declaration. Open handlers are only released:
// no final reply is read for them. The pool goes last, stopping its monitor.
FtpFileHandleManager::~FtpFileHandleManager() {}

int FtpFileHandleManager::open(const char* path, int mode) {
    // A path that does not fit the handler's name field is refused before any
    // traffic and before a handle number is reserved.
    if (path == NULL || strlen(path) >= static_cast<size_t>(kFtpFileNameSize)) {
        return -1;
    }
    KDMutexLocker guard(mutex, "FtpFileHandleManager", __LINE__);
    if (static_cast<long>(fileHandlers.size()) >= static_cast<long>(maxOpenFiles)) {
        return -1;
    }
    const int id = getFileHandleID(path);
    if (id == -1) {
        return -1;
    }
    // From here on a failure keeps `id` reserved: deliberately, nothing gives
    // the number back until the table is destroyed.
    SafePointer<FTPTool> tool;
    if (!getPFTPTool(tool)) {
        return -1;
    }
    SafePointer<FtpFileHandler> handler(new FtpFileHandler(tool, mode, id, path));
    if (!handler->open(server, user, password)) {
        // The handler and its connection are dropped, not pooled: a connection
        // that could not start a transfer is not trusted again.
        return -1;
    }
    fileHandlers.push_back(handler);
    return id;
}

int FtpFileHandleManager::close(int handle) {
    KDMutexLocker guard(mutex, "FtpFileHandleManager", __LINE__);
    std::map<int32_t, bool>::iterator number = handleInUse.find(handle);
    if (number == handleInUse.end()) {
        return -1;
    }
    // The number is free from here on, whatever the transfer's end says.
    number->second = false;

    std::vector<SafePointer<FtpFileHandler> >::iterator found = fileHandlers.begin();
    while (found != fileHandlers.end() && (*found)->getFileHandle() != handle) {
        ++found;
    }
    if (found == fileHandlers.end()) {
        return 0;
    }
    // A reader or writer in another thread may still hold the handler; its
    // reference keeps the object alive after it leaves the table.
    SafePointer<FtpFileHandler> handler(*found);
    const int result = handler->close();
    SafePointer<FTPTool> tool(handler->getPFTPTool());
    fileHandlers.erase(found);

    if (tool->getUsable() && result == 0) {
        freeToolBuff->addFreeFTPTool(tool);
        return 0;
    }
    tool->quit();
    return -1;
}

bool FtpFileHandleManager::getFileHandler(int handle, SafePointer<FtpFileHandler>& out) {
    KDMutexLocker guard(mutex, "FtpFileHandleManager", __LINE__);
    for (std::vector<SafePointer<FtpFileHandler> >::iterator it = fileHandlers.begin();
         it != fileHandlers.end(); ++it) {
        if ((*it)->getFileHandle() == handle) {
            out = *it;
            return true;
        }
    }
    return false;
}

int FtpFileHandleManager::getFileHandleID(const char* path) {
    // One remote file is never open twice at once, whatever the modes.
    for (std::vector<SafePointer<FtpFileHandler> >::iterator it = fileHandlers.begin();
         it != fileHandlers.end(); ++it) {
        if (strcmp((*it)->getFileName(), path) == 0) {
            return -1;
        }
    }
    // Lowest free number first.
    for (std::map<int32_t, bool>::iterator it = handleInUse.begin(); it != handleInUse.end();
         ++it) {
        if (!it->second) {
            it->second = true;
            return it->first;
        }
    }
    return -1;
}

bool FtpFileHandleManager::getPFTPTool(SafePointer<FTPTool>& out) {
    // A pooled connection is used without a test command: a broken one shows
    // itself when its transfer fails to start.
    if (freeToolBuff->getFreeFTPTool(out)) {
        return true;
    }
    out = SafePointer<FTPTool>(new FTPTool);
    if (out->connect(server) != 1) {
        return false;
    }
    if (out->login(user, password) == 1) {
        return true;
    }
    out->quit();
    return false;
}

SafePointer<FreeFtpToolBuff>& FtpFileHandleManager::getFreeToolBuff() { return freeToolBuff; }
