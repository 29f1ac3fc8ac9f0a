#include "connections/FtpFileHandler.h"

#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/ioctl.h>

#include "foundation/LastError.h"

namespace {

// FTPTool's data operations take a signed length; a larger request is cut to
// what one call can report back.
int clampLength(unsigned int len) {
    return len > static_cast<unsigned int>(INT_MAX) ? INT_MAX : static_cast<int>(len);
}

// Source name under which the transfer lock is taken, for the host's lock
// diagnostics.
const char* const kLockSource = "FtpFileHandler";

const char* const kClosedText = "the file is closed";

}  // namespace

FtpFileHandler::FtpFileHandler(SafePointer<FTPTool>& tool, int mode, int fileHandle,
                               const char* fileName)
    : ftpTool(tool), dataConnection(nullptr), mode(mode), fileHandle(fileHandle) {
    memset(this->fileName, 0, sizeof this->fileName);
    if (fileName != nullptr) {
        // The open-file table refuses paths of 256 characters or more before
        // it gets here; the bound only keeps a direct caller from overflowing
        // the field (a longer path is cut, never written past the end).
        strncpy(this->fileName, fileName, sizeof this->fileName - 1);
    }
}

// The last reference is going, so no other thread can be inside a data
// operation: the lock is not needed here.
FtpFileHandler::~FtpFileHandler() FTPDISK_NO_THREAD_SAFETY_ANALYSIS {
    // A handler dropped without close (its table was destroyed, or the host
    // never closed the handle) still owns its data connection. It is released
    // without traffic: no final reply is awaited on this path, but no socket
    // or record may outlive the handler either.
    if (dataConnection != nullptr) {
        // Without its control record closeData awaits no final reply.
        dataConnection->control = nullptr;
        ftpTool->closeData(dataConnection);
        dataConnection = nullptr;
    }
}

bool FtpFileHandler::open(const char* /*server*/, const char* /*user*/, const char* /*password*/) {
    // The connection is already logged in; the three texts are accepted for
    // the callers' sake and deliberately not used.
    int kind;
    switch (mode) {
        case kFtpModeRead: kind = kFtpRetr; break;
        case kFtpModeWrite:
        case kFtpModeWrite2: kind = kFtpStor; break;
        case kFtpModeAppend: kind = kFtpAppe; break;
        default: lasterror::note(lasterror::kBadArgument, "unknown open mode"); return false;
    }
    KDMutexLocker guard(transferLock, kLockSource, __LINE__);
    if (dataConnection != nullptr) {
        return false;  // one transfer per handler
    }
    return ftpTool->dataConnect(fileName, kind, 'I', &dataConnection) != 0;
}

int FtpFileHandler::read(char* buf, unsigned int len) {
    KDMutexLocker guard(transferLock, kLockSource, __LINE__);
    if (dataConnection == nullptr) {
        lasterror::note(lasterror::kBadArgument, kClosedText);
        return -1;
    }
    const int result = ftpTool->read(buf, clampLength(len), dataConnection);
    if (result < 0) {
        // The transfer's state is unknown now: the table must quit the
        // connection instead of pooling it.
        ftpTool->setUsable(false);
    }
    return result;
}

int FtpFileHandler::write(const char* buf, unsigned int len) {
    KDMutexLocker guard(transferLock, kLockSource, __LINE__);
    if (dataConnection == nullptr) {
        lasterror::note(lasterror::kBadArgument, kClosedText);
        return -1;
    }
    const int result = ftpTool->write(buf, clampLength(len), dataConnection);
    if (result < 0) {
        ftpTool->setUsable(false);
    }
    return result;
}

int FtpFileHandler::aioWrite(const char* buf, unsigned int len) {
    KDMutexLocker guard(transferLock, kLockSource, __LINE__);
    if (dataConnection == nullptr) {
        lasterror::note(lasterror::kBadArgument, kClosedText);
        return -1;
    }
    // Set on every call: the asynchronous write must never block the
    // recorder's thread, whatever was done to the socket before.
    int nonBlocking = 1;
    if (ioctl(dataConnection->handle, FIONBIO, &nonBlocking) != 0) {
        // Nothing was sent; the connection itself is not at fault.
        lasterror::noteError(lasterror::kConnectionLost, errno);
        return -1;
    }
    const int result = ftpTool->aioWrite(buf, len, dataConnection);
    if (result < 0) {
        ftpTool->setUsable(false);
    }
    return result;
}

int FtpFileHandler::aioReturn(int milliseconds) {
    KDMutexLocker guard(transferLock, kLockSource, __LINE__);
    if (dataConnection == nullptr) {
        // Closed (possibly by another thread while this call was on its way):
        // the same answer the store gives for a handle it does not know.
        lasterror::note(lasterror::kBadArgument, kClosedText);
        return -1;
    }
    // A time-out (-1) or error (-2) here is reported, not judged: the final
    // reply read by close decides whether the connection is kept.
    return ftpTool->aioReturn(milliseconds, dataConnection);
}

int FtpFileHandler::close() {
    KDMutexLocker guard(transferLock, kLockSource, __LINE__);
    if (dataConnection == nullptr) {
        lasterror::note(lasterror::kBadArgument, kClosedText);
        return -1;
    }
    NetBuf* data = dataConnection;
    // closeData releases the record whatever the final reply says.
    dataConnection = nullptr;
    return ftpTool->closeData(data) == 1 ? 0 : -1;
}

int FtpFileHandler::getMode() { return mode; }

int FtpFileHandler::getFileHandle() { return fileHandle; }

const char* FtpFileHandler::getFileName() { return fileName; }

SafePointer<FTPTool>& FtpFileHandler::getPFTPTool() { return ftpTool; }
