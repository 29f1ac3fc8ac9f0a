// FTPFileSystemImpl: the store behind the exported FTPFileSystem facade.
//
// Owns the main control connection (used by every path operation), the
// credentials, the used-bytes account and the open-file table, whose
// connections are separate. Any host thread may call any operation.
//
// Lock order: scanLock before opLock before spaceLock, and opLock before
// snapshotLock; spaceLock and snapshotLock are never held together. The
// table's own locks (FtpFileHandleManager) are never taken while one of these
// is held.
#ifndef FTPDISK_FILESYSTEM_FTPFILESYSTEMIMPL_H
#define FTPDISK_FILESYSTEM_FTPFILESYSTEMIMPL_H

#include <stdint.h>

#include <atomic>
#include <string>
#include <vector>

#include "connections/FtpFileHandleManager.h"
#include "foundation/SafePointer.h"
#include "ftp/FTPTool.h"
#include "host/IFileScanAction.h"
#include "host/technic/KDMutex.h"
#include "listing/FTPFileDescriptor.h"

enum {
    kStoreServerSize = 48,
    kStoreUserSize = 32,
    kStorePasswordSize = 20
};

class FTPFileSystemImpl {
public:
    // No network traffic. The caller keeps server, user and password shorter
    // than their fields (48, 32 and 20 characters with the terminator, and 32
    // for the open-file table); FTPFileSystem refuses longer texts before
    // constructing this. Should a text (or a null pointer) still arrive, none
    // of the three is copied: the store keeps empty texts and is refused (see
    // markRefused).
    FTPFileSystemImpl(const char* server, const char* user, const char* password, int capacity);
    // Ends an open snapshot stream, then releases the open-file table (handles
    // still open are dropped without their final replies), the locks and the
    // main tool. Sends nothing on the main connection itself: FTPFileSystem
    // runs uninit first.
    virtual ~FTPFileSystemImpl();

    // True when server, user and password fit every field they are copied
    // into: server and user at most 31 characters, password at most 19. Null
    // pointers do not fit.
    static bool textsFit(const char* server, const char* user, const char* password);
    // Marks the store as refused for good: init returns -1 without traffic,
    // path operations fail as uninitialised and open returns -1. Call before
    // the store is shared with other threads (FTPFileSystem's constructor).
    void markRefused();
    bool isRefused();

    // --- Lifecycle ----------------------------------------------------------
    // 0 when the main tool connected and logged in (used bytes reset to 0);
    // -1 on a failed connect, a refused login (the connection is quit) or a
    // refused store, each leaving the store uninitialised. A second init
    // without uninit connects again on the same tool.
    int init();
    // Always 0: marks the store uninitialised, ends an open snapshot stream,
    // sends QUIT.
    int uninit();
    // init when not initialised, else 0 without traffic. Reads the flag
    // without a lock.
    int reinit();

    // --- Directory and file operations (main connection, opLock) -----------
    int createDir(const char* path);
    bool isDirExist(const char* path);
    bool isFileExist(const char* path);
    int createFile(const char* path);
    int deleteFile(const char* path);
    int renameFile(const char* from, const char* to);
    int moveDir(const char* from, const char* to);
    int removeDir(const char* path);
    long long getFileLength(const char* path);

    // --- Handle operations (open-file table, no lock here) -------------------
    int open(const char* path, int mode);
    int close(int handle);
    int read(int handle, char* buf, unsigned int len);
    int write(int handle, const char* buf, unsigned int len);
    int aioWrite(int handle, const char* buf, unsigned int len);
    int aioReturn(int handle, int milliseconds);

    // --- Whole-file transfer and snapshots -----------------------------------
    // Get and Put: 0 when every byte was copied and the server's final reply
    // was positive; -1 otherwise, leaving the partial destination in place.
    // The local name is UTF-8. Neither takes a lock of this object.
    int Get(const char* localFile, const char* remoteFile);
    int Put(const char* localFile, const char* remoteFile);
    // One snapshot stream on the main tool, deliberately without the
    // operation lock: it shares the main connection with the path operations
    // unguarded. snapshotLock only keeps init, uninit and destruction from
    // closing the stream, or replacing the connection, under a snapshot call
    // running on another thread. -1 when a snapshot is already open, the main
    // tool is not connected or the server refuses the store.
    int snapshot_open(const char* path, int unused);
    int snapshot_write(const char* buf, unsigned int len);
    int snapshot_close();

    // --- Enumeration, scanning and space (listing members) ------------------
    bool getFileList(const char* path, std::vector<std::string>& names, const std::string& filter);
    bool getSubDirList(const char* path, std::vector<std::string>& names,
                       const std::string& filter);
    bool isEmptyDir(const char* path);
    int getFileNumber(const char* path);
    bool scan(const char* path, IFileScanAction* action, const std::string& filter);
    bool getTotalSize(const char* path, long long& size);
    void updateSpaceInfo(long long bytes, bool add);
    void getDiskSpaceInfo(long& first, long& second);

    // REQUIRES: opLock is held.
    bool scanRecordDir(const char* path, long long& size);
    // REQUIRES: opLock is held.
    long long baseGetFileLength(const char* path);
    // REQUIRES: opLock is held. 1 on success, 0 on failure.
    int rmFTPDir(const char* path);

    // --- Listing retrieval ----------------------------------------------------
    bool recvData(SafePointer<FTPTool> tool, const char* path, std::string& text);
    bool getFTPFileType(const std::vector<std::string>& lines, int& type);
    // REQUIRES: opLock is held.
    bool getFileDescriptorList(const char* path,
                               std::vector<SafePointer<FTPConst::FTPFileDescriptor> >& entries,
                               long long& total);

    // Used bytes as recorded (tests and diagnostics).
    long long getUsedBytes();
    // The open-file table (tests and diagnostics).
    FtpFileHandleManager* getHandleManager();

private:
    FTPFileSystemImpl(const FTPFileSystemImpl&);
    FTPFileSystemImpl& operator=(const FTPFileSystemImpl&);

    // getFileList and getSubDirList: lists `path` under opLock and appends the
    // names of the entries of `type` ('-' or 'd'). False when not initialised
    // or not listed.
    bool appendNamesListed(const char* path, int32_t type, std::vector<std::string>& names);

    // Sets the flag under spaceLock. REQUIRES: opLock is held.
    void setInitialised(bool value);
    // Closes an open snapshot stream (its final reply is read) and forgets
    // it. REQUIRES: snapshotLock is held.
    void dropSnapshotStream() FTPDISK_REQUIRES(snapshotLock);

    SafePointer<FTPTool> mainTool;  // Guarded by opLock (snapshots excepted).
    char server[kStoreServerSize];
    char user[kStoreUserSize];
    char password[kStorePasswordSize];
    int64_t usedBytes FTPDISK_GUARDED_BY(spaceLock);
    int32_t capacity;
    FtpFileHandleManager* handleManager;
    KDMutex spaceLock;
    KDMutex opLock;
    KDMutex scanLock;
    std::atomic<bool> initialised;  // Set under opLock (and spaceLock in init); reinit reads it unlocked.
    // Held by every snapshot call for its whole run, and by init and uninit
    // (after opLock) while they end the stream and connect or quit the main
    // tool: a writer on one thread never uses a record that another thread
    // has freed.
    KDMutex snapshotLock;
    NetBuf* snapshotStream FTPDISK_GUARDED_BY(snapshotLock);
    // Set before the store is shared (constructor or markRefused), read-only
    // afterwards.
    bool refused;
};

#endif  // FTPDISK_FILESYSTEM_FTPFILESYSTEMIMPL_H
