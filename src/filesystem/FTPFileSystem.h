// FTPFileSystem: one remote FTP location used as a disk. Exported.
//
// A thin facade that owns exactly one FTPFileSystemImpl and forwards every call
// to it. Any host thread may call any operation. Results: 0 success and -1
// failure for actions, 1/0 for yes/no questions, -1 for an unknown length,
// handles of 1 or more. Nothing throws except SafePointer misuse.
//
// Create stores through FTPFileSystemManager; a direct caller must keep the
// server and the user at most 31 characters and the password at most 19 (the
// store's fields are 48, 32 and 20 bytes, the open-file table's 32 each, all
// with the terminator). Longer texts, and null pointers, are never copied: the
// store is built with empty texts and refused for good, so init returns -1
// without any traffic, reinit likewise, path operations fail as uninitialised
// and open (hence Get and Put) returns -1.
#ifndef FTPDISK_FILESYSTEM_FTPFILESYSTEM_H
#define FTPDISK_FILESYSTEM_FTPFILESYSTEM_H

#include <string>
#include <vector>

#include "foundation/Export.h"
#include "host/IFileScanAction.h"

class FTPFileSystemImpl;

class FTPDISK_EXPORT FTPFileSystem {
public:
    // No network traffic. `capacity` sizes the open-file table (1024 from the
    // registry).
    FTPFileSystem(const char* server, const char* user, const char* password, int capacity);
    // Runs uninit (QUIT on the main connection), then releases everything.
    virtual ~FTPFileSystem();

    int init();
    int uninit();
    int reinit();

    // first = 0; second = bytes this store recorded as used, in MiB.
    int getDiskSpaceInfo(long& first, long& second);

    int createDir(const char* path);
    bool isDirExist(const char* path);
    // The four listing calls answer 1 on success and 0 on failure as ints: the
    // recorder reads a full int result, not a one-byte bool.
    int getFileList(const char* dir, std::vector<std::string>& names, const std::string& filter);
    int scan(const char* dir, IFileScanAction* action, const std::string& filter);
    int getSubDirList(const char* dir, std::vector<std::string>& names, const std::string& filter);
    int getTotalSize(const char* dir, long long& total);
    int createFile(const char* path);
    bool isFileExist(const char* path);
    int deleteFile(const char* path);
    int moveDir(const char* from, const char* to);
    int renameFile(const char* from, const char* to);
    int open(const char* path, int mode);
    int write(int handle, const char* buf, unsigned int len);
    int read(int handle, char* buf, unsigned int len);
    int close(int handle);
    long long getFileLength(const char* path);
    int removeDir(const char* path);
    int getFileNumber(const char* dir);
    bool isEmptyDir(const char* dir);
    int Get(const char* localFile, const char* remoteFile);
    int Put(const char* localFile, const char* remoteFile);
    int aioWrite(int handle, const char* buf, unsigned int len);
    int aioReturn(int handle, int milliseconds);
    int snapshot_open(const char* path, int unused);
    int snapshot_write(const char* buf, unsigned int len);
    int snapshot_close();
    int flush(int handle);

private:
    FTPFileSystem(const FTPFileSystem&);
    FTPFileSystem& operator=(const FTPFileSystem&);

    FTPFileSystemImpl* impl;
};

#endif  // FTPDISK_FILESYSTEM_FTPFILESYSTEM_H
