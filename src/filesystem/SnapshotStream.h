// SnapshotStream: the store's one snapshot upload, a data connection opened
// on the main connection, and the lock that keeps its record alive while a
// snapshot call uses it. Owned by FTPFileSystemImpl; any thread.
//
// Snapshot calls deliberately do not take the store's operation lock: they
// share the main connection with the path operations unguarded, as the
// recorder expects. The snapshot lock only keeps init, uninit and destruction
// from closing the stream, or replacing the connection under it, while a
// snapshot call runs on another thread. Lock order: the store's operation lock
// before this lock; never held together with the space account's lock.
#ifndef FTPDISK_FILESYSTEM_SNAPSHOTSTREAM_H
#define FTPDISK_FILESYSTEM_SNAPSHOTSTREAM_H

#include "ftp/FTPTool.h"
#include "host/technic/KDMutex.h"

class SnapshotStream {
public:
    // No stream. `lockSource` is the source name the lock is taken with, for
    // the host's lock diagnostics.
    explicit SnapshotStream(const char* lockSource);

    // Opens the stream (STOR `path`) on `tool`. -1 when a stream is already
    // open (a second would lose the first and mix two transfers on one control
    // connection), `path` is null, `tool` is not connected or the server
    // refuses the store.
    int open(FTPTool& tool, const char* path);
    // Bytes taken (0 or more); -1 with a line naming errno on standard output
    // when there is no stream or the send fails.
    int write(FTPTool& tool, const char* buf, unsigned int len);
    // 0 when the server's final reply is positive; -1 when there is no stream
    // or it is not. The stream is forgotten either way.
    int close(FTPTool& tool);

    // While it lives, no snapshot call runs and the stream is ended (its final
    // reply read): for init, uninit and destruction, which free or replace the
    // control record that an open stream's record points at.
    class FTPDISK_SCOPED_CAPABILITY Pause {
    public:
        Pause(SnapshotStream& stream, FTPTool* tool, int line) FTPDISK_ACQUIRE(stream.snapshotLock);
        ~Pause() FTPDISK_RELEASE();

    private:
        Pause(const Pause&);
        Pause& operator=(const Pause&);

        KDMutexLocker held;
    };

private:
    SnapshotStream(const SnapshotStream&);
    SnapshotStream& operator=(const SnapshotStream&);

    // Closes an open stream on `tool` (its final reply is read) and forgets
    // it; `tool` is only used when a stream is open.
    void drop(FTPTool* tool) FTPDISK_REQUIRES(snapshotLock);

    const char* const lockSource;
    KDMutex snapshotLock;
    NetBuf* snapshotStream FTPDISK_GUARDED_BY(snapshotLock);
};

#endif  // FTPDISK_FILESYSTEM_SNAPSHOTSTREAM_H
