// The exported store: every call goes to the one FTPFileSystemImpl it owns.
#include "filesystem/FTPFileSystem.h"

#include "filesystem/FTPFileSystemImpl.h"

FTPFileSystem::FTPFileSystem(const char* server, const char* user, const char* password,
                             int capacity)
    : impl(NULL) {
    // Texts that would overflow the fixed fields never reach them: the store
    // is built with empty texts and refused, so it fails every operation
    // instead of corrupting memory or connecting somewhere unintended.
    if (FTPFileSystemImpl::textsFit(server, user, password)) {
        impl = new FTPFileSystemImpl(server, user, password, capacity);
    } else {
        impl = new FTPFileSystemImpl("", "", "", capacity);
        impl->markRefused();
    }
}

FTPFileSystem::~FTPFileSystem() {
    impl->uninit();
    delete impl;
}

int FTPFileSystem::init() { return impl->init(); }
int FTPFileSystem::uninit() { return impl->uninit(); }
int FTPFileSystem::reinit() { return impl->reinit(); }

int FTPFileSystem::getDiskSpaceInfo(long& first, long& second) {
    impl->getDiskSpaceInfo(first, second);
    return 0;
}

int FTPFileSystem::createDir(const char* path) { return impl->createDir(path); }
bool FTPFileSystem::isDirExist(const char* path) { return impl->isDirExist(path); }

int FTPFileSystem::getFileList(const char* dir, std::vector<std::string>& names,
                                const std::string& filter) {
    return impl->getFileList(dir, names, filter) ? 1 : 0;
}

int FTPFileSystem::scan(const char* dir, IFileScanAction* action, const std::string& filter) {
    return impl->scan(dir, action, filter) ? 1 : 0;
}

int FTPFileSystem::getSubDirList(const char* dir, std::vector<std::string>& names,
                                  const std::string& filter) {
    return impl->getSubDirList(dir, names, filter) ? 1 : 0;
}

int FTPFileSystem::getTotalSize(const char* dir, long long& total) {
    return impl->getTotalSize(dir, total) ? 1 : 0;
}

int FTPFileSystem::createFile(const char* path) { return impl->createFile(path); }
bool FTPFileSystem::isFileExist(const char* path) { return impl->isFileExist(path); }
int FTPFileSystem::deleteFile(const char* path) { return impl->deleteFile(path); }
int FTPFileSystem::moveDir(const char* from, const char* to) { return impl->moveDir(from, to); }

int FTPFileSystem::renameFile(const char* from, const char* to) {
    return impl->renameFile(from, to);
}

int FTPFileSystem::open(const char* path, int mode) { return impl->open(path, mode); }

int FTPFileSystem::write(int handle, const char* buf, unsigned int len) {
    return impl->write(handle, buf, len);
}

int FTPFileSystem::read(int handle, char* buf, unsigned int len) {
    return impl->read(handle, buf, len);
}

int FTPFileSystem::close(int handle) { return impl->close(handle); }
long long FTPFileSystem::getFileLength(const char* path) { return impl->getFileLength(path); }
int FTPFileSystem::removeDir(const char* path) { return impl->removeDir(path); }
int FTPFileSystem::getFileNumber(const char* dir) { return impl->getFileNumber(dir); }
bool FTPFileSystem::isEmptyDir(const char* dir) { return impl->isEmptyDir(dir); }

int FTPFileSystem::Get(const char* localFile, const char* remoteFile) {
    return impl->Get(localFile, remoteFile);
}

int FTPFileSystem::Put(const char* localFile, const char* remoteFile) {
    return impl->Put(localFile, remoteFile);
}

int FTPFileSystem::aioWrite(int handle, const char* buf, unsigned int len) {
    return impl->aioWrite(handle, buf, len);
}

int FTPFileSystem::aioReturn(int handle, int milliseconds) {
    return impl->aioReturn(handle, milliseconds);
}

int FTPFileSystem::snapshot_open(const char* path, int unused) {
    return impl->snapshot_open(path, unused);
}

int FTPFileSystem::snapshot_write(const char* buf, unsigned int len) {
    return impl->snapshot_write(buf, len);
}

int FTPFileSystem::snapshot_close() { return impl->snapshot_close(); }

// Nothing is buffered in the module, so there is nothing to flush; the
// recorder expects 1.
int FTPFileSystem::flush(int /*handle*/) { return 1; }
