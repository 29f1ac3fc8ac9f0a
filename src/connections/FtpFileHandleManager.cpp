#include "connections/FtpFileHandleManager.h"

#include <string.h>

#include <memory>

#include "foundation/LastError.h"
#include "foundation/TextField.h"

namespace {

// Source name under which the table's lock is taken, for the host's lock
// diagnostics.
const char* const kLockSource = "FtpFileHandleManager";

}  // namespace

FtpFileHandleManager::FtpFileHandleManager(const char* server, const char* user,
                                           const char* password, int firstHandle, int handleLimit,
                                           int maxOpenFiles)
    : freeToolBuff(new FreeFtpToolBuff),
      handleLimit(handleLimit),
      firstHandle(firstHandle),
      maxOpenFiles(maxOpenFiles),
      connectGate(kConnectsInFlight) {
    copyTextField(this->server, sizeof this->server, server);
    copyTextField(this->user, sizeof this->user, user);
    copyTextField(this->password, sizeof this->password, password);
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

// Keeps an open's reservation listed in `opening` from the moment its number
// is reserved until the open has ended, however it ends (an exception from
// SafePointer or the allocator included), so a path is never left counted as
// being opened for ever. An open that ends without recording its file gives
// its number back: refused opens during an outage would otherwise use up
// every number, and the store would open nothing once the server is back.
class FtpFileHandleManager::PendingOpen {
public:
    PendingOpen(FtpFileHandleManager& table, int32_t handle, const char* path)
        FTPDISK_REQUIRES(table.mutex)
        : table_(table), handle_(handle), ended_(false) {
        OpenInProgress entry;
        entry.handle = handle;
        entry.path = path;
        table_.opening.push_back(entry);
    }
    // The table's mutex must not be held: this takes it.
    ~PendingOpen() FTPDISK_EXCLUDES(table_.mutex) {
        if (ended_) {
            return;
        }
        KDMutexLocker guard(table_.mutex, kLockSource, __LINE__);
        table_.endOpening(handle_);
        table_.handleInUse[handle_] = false;
    }
    // The caller has ended the reservation itself (with endOpening, under the
    // table's mutex, in the same step that records the open file).
    void dismiss() { ended_ = true; }

private:
    PendingOpen(const PendingOpen&);
    PendingOpen& operator=(const PendingOpen&);

    FtpFileHandleManager& table_;
    const int32_t handle_;
    bool ended_;
};

void FtpFileHandleManager::endOpening(int32_t handle) {
    for (std::vector<OpenInProgress>::iterator it = opening.begin(); it != opening.end(); ++it) {
        if (it->handle == handle) {
            opening.erase(it);
            return;
        }
    }
}

int FtpFileHandleManager::open(const char* path, int mode) {
    // A path that does not fit the handler's name field, or that could never
    // be sent (a line end inside it), is refused before any traffic and
    // before a handle number is reserved.
    if (path == nullptr || strlen(path) >= static_cast<size_t>(kFtpFileNameSize) ||
        strpbrk(path, "\r\n") != nullptr) {
        lasterror::note(lasterror::kBadArgument,
                        "no path, a path of 256 characters or more, or one holding a line end");
        return -1;
    }
    int id = -1;
    // Declared outside the locked block: its destructor takes the lock again.
    std::unique_ptr<PendingOpen> pending;
    {
        KDMutexLocker guard(mutex, kLockSource, __LINE__);
        // Opens in progress count: they will be open files in a moment.
        if (static_cast<long>(fileHandlers.size() + opening.size()) >=
            static_cast<long>(maxOpenFiles)) {
            lasterror::note(lasterror::kLocalLimit, "as many files open as the store allows");
            return -1;
        }
        id = getFileHandleID(path);
        if (id == -1) {
            lasterror::note(lasterror::kLocalLimit,
                            pathInUse(path) ? "the path is already open" : "no free handle number");
            return -1;
        }
        pending.reset(new PendingOpen(*this, id, path));
    }
    // From here on a failure gives `id` back (the reservation's destructor).
    //
    // The connection is made and the transfer started without the table's
    // lock, so that other cameras' writes, reads, opens and closes go on
    // meanwhile.
    SafePointer<FTPTool> tool;
    if (!getPFTPTool(tool)) {
        pending.reset();
        return -1;
    }
    SafePointer<FtpFileHandler> handler(new FtpFileHandler(tool, mode, id, path));
    if (!handler->open(server, user, password)) {
        // The handler and its connection are dropped, not pooled: a connection
        // that could not start a transfer is not trusted again. The path is
        // released first; the connection is quit afterwards, by the last
        // reference's destructor, outside every lock.
        pending.reset();
        return -1;
    }
    KDMutexLocker guard(mutex, kLockSource, __LINE__);
    // Recorded first: should the list not grow (memory exhausted), the
    // reservation's destructor, run after this lock is let go, gives the
    // number back.
    fileHandlers.push_back(handler);
    endOpening(id);
    pending->dismiss();
    return id;
}

int FtpFileHandleManager::close(int handle) {
    SafePointer<FtpFileHandler> handler;
    {
        KDMutexLocker guard(mutex, kLockSource, __LINE__);
        std::map<int32_t, bool>::iterator number = handleInUse.find(handle);
        if (number == handleInUse.end()) {
            lasterror::note(lasterror::kBadArgument, "no such handle");
            return -1;
        }
        // A number whose open has not returned yet belongs to nobody who
        // could close it: freeing it would let a second file take it while
        // the first is still being opened.
        for (std::vector<OpenInProgress>::const_iterator it = opening.begin(); it != opening.end();
             ++it) {
            if (it->handle == handle) {
                lasterror::note(lasterror::kBadArgument, "the handle's open has not ended yet");
                return -1;
            }
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
        handler = *found;
        fileHandlers.erase(found);
    }
    // Out of the table, the transfer is ended without the table's lock. A
    // reader or writer in another thread may still hold the handler; the
    // handler's own lock makes close wait for that call, and later calls fail.
    const int result = handler->close();
    SafePointer<FTPTool> tool(handler->getPFTPTool());
    // A connection that still owes a reply would answer its next owner's
    // first command with it: only one in step goes back to the pool.
    if (tool->getUsable() && result == 0 && tool->owedReplies() == 0) {
        freeToolBuff->addFreeFTPTool(tool);
        return 0;
    }
    if (result == 0) {
        // The transfer ended well; the connection is dropped for a reason of
        // its own, which is the close's.
        lasterror::note(tool->owedReplies() != 0 ? lasterror::kNoReply : lasterror::kConnectionLost,
                        tool->owedReplies() != 0 ? "the connection still owes a reply"
                                                 : "an earlier read or write on the file failed");
    }
    tool->quit();
    return -1;
}

bool FtpFileHandleManager::getFileHandler(int handle, SafePointer<FtpFileHandler>& out) {
    KDMutexLocker guard(mutex, kLockSource, __LINE__);
    for (std::vector<SafePointer<FtpFileHandler> >::iterator it = fileHandlers.begin();
         it != fileHandlers.end(); ++it) {
        if ((*it)->getFileHandle() == handle) {
            out = *it;
            return true;
        }
    }
    return false;
}

bool FtpFileHandleManager::pathInUse(const char* path) {
    for (std::vector<SafePointer<FtpFileHandler> >::iterator it = fileHandlers.begin();
         it != fileHandlers.end(); ++it) {
        if (strcmp((*it)->getFileName(), path) == 0) {
            return true;
        }
    }
    for (std::vector<OpenInProgress>::const_iterator it = opening.begin(); it != opening.end();
         ++it) {
        if (it->path == path) {
            return true;
        }
    }
    return false;
}

int FtpFileHandleManager::getFileHandleID(const char* path) {
    // One remote file is never open twice at once, whatever the modes; an
    // open still in progress counts as open.
    if (pathInUse(path)) {
        return -1;
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
    if (!tlsSetting.apply(*out)) {
        return false;
    }
    // New connections pass the gate from connect to the end of the login,
    // so that a burst of opens never has more of them waiting on the server
    // at once than it queues (see ConnectGate).
    ConnectGate::Place place(connectGate);
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

TlsSetting& FtpFileHandleManager::tls() { return tlsSetting; }
