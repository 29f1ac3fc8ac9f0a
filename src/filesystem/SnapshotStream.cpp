#include "filesystem/SnapshotStream.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>

#include "foundation/LastError.h"

namespace {

const char* const kNoSnapshotText = "no snapshot is open";

}  // namespace

SnapshotStream::SnapshotStream(const char* lockSource)
    : lockSource(lockSource), snapshotStream(nullptr) {}

int SnapshotStream::open(FTPTool& tool, const char* path) {
    KDMutexLocker snapshot(snapshotLock, lockSource, __LINE__);
    if (snapshotStream != nullptr) {
        lasterror::note(lasterror::kLocalLimit, "a snapshot is already open");
        return -1;
    }
    if (path == nullptr) {
        lasterror::note(lasterror::kBadArgument, "no path");
        return -1;
    }
    if (tool.getControlBuf() == nullptr) {
        // Never connected, or quit: nothing to talk to.
        lasterror::note(lasterror::kConnectionLost, "the main connection is not connected");
        return -1;
    }
    NetBuf* stream = nullptr;
    if (tool.dataConnect(path, kFtpStor, 'I', &stream) == 0 || stream == nullptr) {
        return -1;
    }
    snapshotStream = stream;
    return 0;
}

int SnapshotStream::write(FTPTool& tool, const char* buf, unsigned int len) {
    KDMutexLocker snapshot(snapshotLock, lockSource, __LINE__);
    int n = -1;
    if (snapshotStream == nullptr) {
        errno = EBADF;  // no stream: report it as a write to a closed descriptor
        lasterror::note(lasterror::kBadArgument, kNoSnapshotText);
    } else {
        const int length =
            len > static_cast<unsigned int>(INT_MAX) ? INT_MAX : static_cast<int>(len);
        n = tool.write(buf, length, snapshotStream);
    }
    if (n >= 0) {
        return n;
    }
    printf("FTPFileSystemImpl::snapshot_write %d\n", errno);
    fflush(stdout);
    return -1;
}

int SnapshotStream::close(FTPTool& tool) {
    KDMutexLocker snapshot(snapshotLock, lockSource, __LINE__);
    if (snapshotStream == nullptr) {
        lasterror::note(lasterror::kBadArgument, kNoSnapshotText);
        return -1;
    }
    NetBuf* stream = snapshotStream;
    snapshotStream = nullptr;  // closeData frees the record whatever it returns
    return tool.closeData(stream) == 1 ? 0 : -1;
}

void SnapshotStream::drop(FTPTool* tool) {
    if (snapshotStream == nullptr) {
        return;
    }
    NetBuf* stream = snapshotStream;
    snapshotStream = nullptr;
    tool->closeData(stream);
}

SnapshotStream::Pause::Pause(SnapshotStream& stream, FTPTool* tool, int line)
    : held(stream.snapshotLock, stream.lockSource, line) {
    stream.drop(tool);
}

SnapshotStream::Pause::~Pause() {}
