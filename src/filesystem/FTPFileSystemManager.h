// FTPFileSystemManager: the process-wide registry of stores, one per location
// text 'user(password)@ftp://server[:port]/path'. Exported.
//
// All operations are safe from any thread; the registry lock is held for each
// whole map operation. Lock order: the registry lock before any store's locks
// (deleteFileSystem may destroy a store, which runs its uninit, under it).
#ifndef FTPDISK_FILESYSTEM_FTPFILESYSTEMMANAGER_H
#define FTPDISK_FILESYSTEM_FTPFILESYSTEMMANAGER_H

#include <map>
#include <string>

#include "filesystem/FTPFileSystem.h"
#include "foundation/Export.h"
#include "foundation/SafePointer.h"
#include "host/technic/KDMutex.h"

class FTPDISK_EXPORT FTPFileSystemManager {
public:
    // The single instance; null only when it could not be made (out of
    // memory), in which case the next call tries again.
    static FTPFileSystemManager* getInstance();

    // 0 when registered or already present; -1 when the location does not
    // parse or its server, user name or password would not fit the store's
    // fixed fields (no store is created then).
    int addFTPFileSystem(const std::string& location);
    // 1 and `out` set when a registered location covers `location`; else 0 and
    // `out` unchanged.
    int getFTPFileSystem(const std::string& location, SafePointer<FTPFileSystem>& out);
    // 0 when an entry with exactly this key was removed, -1 otherwise.
    int deleteFileSystem(const std::string& location);
    bool isSameDiskDir(const std::string& registered, const std::string& location);

    FTPFileSystemManager();
    ~FTPFileSystemManager();

private:
    FTPFileSystemManager(const FTPFileSystemManager&);
    FTPFileSystemManager& operator=(const FTPFileSystemManager&);

    // The three map operations and the covering rule, each behind the
    // exported call of the same purpose. The first three take `lock`.
    int addLocked(const std::string& location) FTPDISK_EXCLUDES(lock);
    int getLocked(const std::string& location, SafePointer<FTPFileSystem>& out)
        FTPDISK_EXCLUDES(lock);
    int deleteLocked(const std::string& location) FTPDISK_EXCLUDES(lock);
    static bool coveredBy(const std::string& registered, const std::string& location);

    std::map<std::string, SafePointer<FTPFileSystem> > fileSystems;  // Guarded by lock.
    KDMutex lock;
};

#endif  // FTPDISK_FILESYSTEM_FTPFILESYSTEMMANAGER_H
