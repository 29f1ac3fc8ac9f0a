// FTPFileSystemImpl: the store behind the exported FTPFileSystem facade.
//
// Owns the main control connection (used by every path operation), the
// credentials, the initialised flag, and the pieces it delegates to: the
// used-space account, the snapshot stream, the scan gate, the listings on the
// main connection (StoreListing) and the open-file table, whose connections
// are separate. Any host thread may call any public operation.
//
// Lock order: the scan gate's lock before opLock; opLock before the space
// account's lock or the snapshot stream's lock, which are never held together.
// The table's own locks (FtpFileHandleManager) are never taken while one of
// these is held.
//
// The helpers that expect the operation lock (baseGetFileLength, rmFTPDir,
// scanRecordDir, getFileDescriptorList) and the account's figure are private;
// tests reach them through the one friend class StoreTestAccess
// (tests/support/StoreTestAccess.h), which takes the lock first, so the lock
// analysis checks every caller.
#ifndef FTPDISK_FILESYSTEM_FTPFILESYSTEMIMPL_H
#define FTPDISK_FILESYSTEM_FTPFILESYSTEMIMPL_H

#include <stdint.h>

#include <atomic>
#include <string>
#include <vector>

#include "connections/FtpFileHandleManager.h"
#include "filesystem/ScanGate.h"
#include "filesystem/SnapshotStream.h"
#include "filesystem/SpaceAccount.h"
#include "filesystem/StoreListing.h"
#include "foundation/SafePointer.h"
#include "ftp/FTPTool.h"
#include "host/IFileScanAction.h"
#include "host/technic/KDMutex.h"
#include "listing/FTPFileDescriptor.h"

enum { kStoreServerSize = 48, kStoreUserSize = 32, kStorePasswordSize = 20 };

class FTPFileSystemImpl {
public:
    // --- Construction -------------------------------------------------------
    // No network traffic. Texts that do not pass textsFit (a null pointer
    // included) are not copied: the store keeps empty texts and is refused
    // (see isRefused).
    FTPFileSystemImpl(const char* server, const char* user, const char* password, int capacity);
    // Ends an open snapshot stream, then releases the open-file table (handles
    // still open are dropped without their final replies), the locks and the
    // main tool. Sends nothing on the main connection itself: FTPFileSystem
    // runs uninit first.
    virtual ~FTPFileSystemImpl();

    // The one rule for the texts of a store: true when server, user and
    // password fit every fixed field they are copied into (the store's and the
    // open-file table's), that is at most the lengths of location/
    // LocationLimits.h: 31, 31 and 19 characters. Null pointers do not fit.
    // The registry refuses a location whose texts fail it; the constructor
    // refuses the store.
    static bool textsFit(const char* server, const char* user, const char* password);
    // The store's TLS choice (see TlsSetting): the registry makes an ftps
    // store require it and passes the trust calls on.
    TlsSetting& tls();
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
    // Each fails (-1, or false) without traffic when a path is null or the
    // store is not initialised.
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
    // Get and Put: 0 when every byte was copied (the server's final reply is
    // read on closing but does not change the result); -1 otherwise, leaving
    // the partial destination in place.
    // The local name is UTF-8. Neither takes a lock of this object.
    int Get(const char* localFile, const char* remoteFile);
    int Put(const char* localFile, const char* remoteFile);
    // One snapshot stream on the main tool, without the operation lock (see
    // SnapshotStream). -1 when a snapshot is already open, the main tool is
    // not connected or the server refuses the store.
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

    // --- Listing retrieval (StoreListing) -------------------------------------
    bool recvData(SafePointer<FTPTool> tool, const char* path, std::string& text);
    bool getFTPFileType(const std::vector<std::string>& lines, int& type);

private:
    FTPFileSystemImpl(const FTPFileSystemImpl&);
    FTPFileSystemImpl& operator=(const FTPFileSystemImpl&);

    friend class StoreTestAccess;

    // The size listed for `path` in its directory's listing; -1 when it is
    // not a plain file there or the directory cannot be listed.
    long long baseGetFileLength(const char* path) FTPDISK_REQUIRES(opLock);
    // Removes the tree under `path`, files first. 1 on success, 0 on failure.
    int rmFTPDir(const char* path) FTPDISK_REQUIRES(opLock);
    // getTotalSize's walk: StoreListing::scanRecordDir on the main connection.
    bool scanRecordDir(const char* path, long long& size) FTPDISK_REQUIRES(opLock);
    // StoreListing::getFileDescriptorList on the main connection.
    bool getFileDescriptorList(const char* path,
                               std::vector<SafePointer<FTPConst::FTPFileDescriptor> >& entries,
                               long long& total) FTPDISK_REQUIRES(opLock);
    // Used bytes as recorded.
    long long getUsedBytes();
    // True for a store whose texts did not fit (see the constructor): init
    // returns -1 without traffic, path operations fail as uninitialised and
    // open returns -1.
    bool isRefused();

    // The opening every path operation shares. With its arguments missing it
    // takes no lock and is never ready; otherwise it holds opLock for its life
    // and is ready when the store is initialised.
    class PathOperation;

    // getFileList and getSubDirList: lists `path` under opLock and appends the
    // names of the entries of `type`. False when not initialised or not
    // listed.
    bool appendNamesListed(const char* path, int32_t type, std::vector<std::string>& names);

    // Not annotated as guarded: the pointer is set once in the constructor,
    // and the connection behind it is used under opLock by path operations
    // but, on purpose, under the snapshot lock alone by snapshot calls.
    SafePointer<FTPTool> mainTool;
    char server[kStoreServerSize];
    char user[kStoreUserSize];
    char password[kStorePasswordSize];
    // Used bytes and the space lock.
    SpaceAccount space;
    // Listings on mainTool; used under opLock only.
    StoreListing listing FTPDISK_GUARDED_BY(opLock);
    int32_t capacity;
    FtpFileHandleManager* handleManager;
    KDMutex opLock;
    ScanGate scanGate;
    // Set under opLock; reinit reads it unlocked, so it is atomic. init sets
    // it only after the account started over, so a store seen initialised
    // never shows the previous session's figure.
    std::atomic<bool> initialised;
    SnapshotStream snapshot;
    // Set in the constructor, read-only afterwards.
    bool refused;
};

#endif  // FTPDISK_FILESYSTEM_FTPFILESYSTEMIMPL_H
