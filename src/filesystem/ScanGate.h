// ScanGate: lets one scan of a store walk at a time, so two scans never
// interleave their visits. Owned by FTPFileSystemImpl; any thread.
//
// Lock order: the gate before the store's operation lock. A scan holds the
// gate for its whole walk but the operation lock only for the listing, so
// the host's visitor may call back into the store (and must not start another
// scan of it).
#ifndef FTPDISK_FILESYSTEM_SCANGATE_H
#define FTPDISK_FILESYSTEM_SCANGATE_H

#include "host/technic/KDMutex.h"

class ScanGate {
public:
    // `lockSource` is the source name the lock is taken with, for the host's
    // lock diagnostics.
    explicit ScanGate(const char* lockSource) : lockSource(lockSource) {}

    // Held by one scan from start to end.
    class FTPDISK_SCOPED_CAPABILITY Turn {
    public:
        Turn(ScanGate& gate, int line) FTPDISK_ACQUIRE(gate.scanLock)
            : held(gate.scanLock, gate.lockSource, line) {}
        ~Turn() FTPDISK_RELEASE() {}

    private:
        Turn(const Turn&);
        Turn& operator=(const Turn&);

        KDMutexLocker held;
    };

private:
    ScanGate(const ScanGate&);
    ScanGate& operator=(const ScanGate&);

    const char* const lockSource;
    KDMutex scanLock;
};

#endif  // FTPDISK_FILESYSTEM_SCANGATE_H
