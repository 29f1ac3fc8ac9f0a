// The exported store: every call goes to the one FTPFileSystemImpl it owns,
// through the exception barrier, so a failure inside (memory exhausted by a
// huge listing, say) comes back as the call's failure value instead of ending
// the recorder. A store whose implementation could not even be allocated
// fails every call.
#include "filesystem/FTPFileSystem.h"

#include <string.h>

#include <exception>

#include "filesystem/ExceptionBarrier.h"
#include "filesystem/FTPFileSystemImpl.h"

namespace {

// Runs `call` on the implementation through the barrier (see exportedCall),
// or gives `failure` when there is none.
template <typename Result, typename Call>
Result forward(FTPFileSystemImpl* impl, Result failure, Call call,
               ExportedCallKind kind = kExportedAction) {
    if (impl == nullptr) {
        lasterror::clear();
        lasterror::note(lasterror::kLocalLimit, "the store could not be allocated");
        return failure;
    }
    return exportedCall(failure, kind, call);
}

// The listing calls answer 1 or 0 as ints: the recorder reads a full int
// result, not a one-byte bool.
int asInt(bool answer) { return answer ? 1 : 0; }

}  // namespace

FTPFileSystem::FTPFileSystem(const char* server, const char* user, const char* password,
                             int capacity)
    : impl(nullptr) {
    // Texts that do not fit are refused by the implementation itself (see
    // FTPFileSystemImpl::textsFit): the store then fails every operation.
    try {
        impl = new FTPFileSystemImpl(server, user, password, capacity);
    } catch (const std::exception&) {
        // Out of memory: a store without an implementation, which fails every
        // call rather than throwing out of a constructor into the recorder.
        impl = nullptr;
    }
}

FTPFileSystem::~FTPFileSystem() {
    if (impl == nullptr) {
        return;
    }
    // A destructor must not throw into the recorder: whatever uninit meets is
    // dropped, and the implementation is released all the same.
    try {
        impl->uninit();
    } catch (const std::exception&) {
    }
    delete impl;
}

int FTPFileSystem::init() {
    return forward(impl, -1, [&] { return impl->init(); });
}

// Always 0, as uninit itself.
int FTPFileSystem::uninit() {
    return forward(
        impl, 0, [&] { return impl->uninit(); }, kExportedAlwaysSucceeds);
}

int FTPFileSystem::reinit() {
    return forward(impl, -1, [&] { return impl->reinit(); });
}

int FTPFileSystem::getDiskSpaceInfo(long& first, long& second) {
    return forward(impl, -1, [&] {
        impl->getDiskSpaceInfo(first, second);
        return 0;
    });
}

int FTPFileSystem::createDir(const char* path) {
    return forward(impl, -1, [&] { return impl->createDir(path); });
}

bool FTPFileSystem::isDirExist(const char* path) {
    return forward(
        impl, false, [&] { return impl->isDirExist(path); }, kExportedQuestion);
}

int FTPFileSystem::getFileList(const char* dir, std::vector<std::string>& names,
                               const std::string& filter) {
    return forward(impl, 0, [&] { return asInt(impl->getFileList(dir, names, filter)); });
}

int FTPFileSystem::scan(const char* dir, IFileScanAction* action, const std::string& filter) {
    return forward(impl, 0, [&] { return asInt(impl->scan(dir, action, filter)); });
}

int FTPFileSystem::getSubDirList(const char* dir, std::vector<std::string>& names,
                                 const std::string& filter) {
    return forward(impl, 0, [&] { return asInt(impl->getSubDirList(dir, names, filter)); });
}

int FTPFileSystem::getTotalSize(const char* dir, long long& total) {
    return forward(impl, 0, [&] { return asInt(impl->getTotalSize(dir, total)); });
}

int FTPFileSystem::createFile(const char* path) {
    return forward(impl, -1, [&] { return impl->createFile(path); });
}

bool FTPFileSystem::isFileExist(const char* path) {
    return forward(
        impl, false, [&] { return impl->isFileExist(path); }, kExportedQuestion);
}

int FTPFileSystem::deleteFile(const char* path) {
    return forward(impl, -1, [&] { return impl->deleteFile(path); });
}

int FTPFileSystem::moveDir(const char* from, const char* to) {
    return forward(
        impl, 0, [&] { return impl->moveDir(from, to); }, kExportedAlwaysSucceeds);
}

int FTPFileSystem::renameFile(const char* from, const char* to) {
    return forward(impl, -1, [&] { return impl->renameFile(from, to); });
}

int FTPFileSystem::open(const char* path, int mode) {
    return forward(impl, -1, [&] { return impl->open(path, mode); });
}

int FTPFileSystem::write(int handle, const char* buf, unsigned int len) {
    return forward(impl, -1, [&] { return impl->write(handle, buf, len); });
}

int FTPFileSystem::read(int handle, char* buf, unsigned int len) {
    return forward(impl, -1, [&] { return impl->read(handle, buf, len); });
}

int FTPFileSystem::close(int handle) {
    return forward(impl, -1, [&] { return impl->close(handle); });
}

long long FTPFileSystem::getFileLength(const char* path) {
    return forward(impl, -1LL, [&] { return impl->getFileLength(path); });
}

int FTPFileSystem::removeDir(const char* path) {
    return forward(impl, -1, [&] { return impl->removeDir(path); });
}

int FTPFileSystem::getFileNumber(const char* dir) {
    return forward(impl, -1, [&] { return impl->getFileNumber(dir); });
}

bool FTPFileSystem::isEmptyDir(const char* dir) {
    return forward(
        impl, false, [&] { return impl->isEmptyDir(dir); }, kExportedQuestion);
}

int FTPFileSystem::Get(const char* localFile, const char* remoteFile) {
    return forward(impl, -1, [&] { return impl->Get(localFile, remoteFile); });
}

int FTPFileSystem::Put(const char* localFile, const char* remoteFile) {
    return forward(impl, -1, [&] { return impl->Put(localFile, remoteFile); });
}

int FTPFileSystem::aioWrite(int handle, const char* buf, unsigned int len) {
    return forward(impl, -1, [&] { return impl->aioWrite(handle, buf, len); });
}

int FTPFileSystem::aioReturn(int handle, int milliseconds) {
    return forward(
        impl, -1, [&] { return impl->aioReturn(handle, milliseconds); }, kExportedWait);
}

int FTPFileSystem::snapshot_open(const char* path, int unused) {
    return forward(impl, -1, [&] { return impl->snapshot_open(path, unused); });
}

int FTPFileSystem::snapshot_write(const char* buf, unsigned int len) {
    return forward(impl, -1, [&] { return impl->snapshot_write(buf, len); });
}

int FTPFileSystem::snapshot_close() {
    return forward(impl, -1, [&] { return impl->snapshot_close(); });
}

// Nothing is buffered in the module, so there is nothing to flush; the
// recorder expects 1.
int FTPFileSystem::flush(int /*handle*/) {
    lasterror::clear();
    return 1;
}

// The exported kinds are the module's own, value for value.
static_assert(
    static_cast<int>(FTPFileSystem::kErrorRefused) == lasterror::kRefused &&
        static_cast<int>(FTPFileSystem::kErrorNoReply) == lasterror::kNoReply &&
        static_cast<int>(FTPFileSystem::kErrorConnectionLost) == lasterror::kConnectionLost &&
        static_cast<int>(FTPFileSystem::kErrorConnectRefused) == lasterror::kConnectRefused &&
        static_cast<int>(FTPFileSystem::kErrorUnreachable) == lasterror::kUnreachable &&
        static_cast<int>(FTPFileSystem::kErrorBadArgument) == lasterror::kBadArgument &&
        static_cast<int>(FTPFileSystem::kErrorLoginRefused) == lasterror::kLoginRefused &&
        static_cast<int>(FTPFileSystem::kErrorTurnedAway) == lasterror::kTurnedAway &&
        static_cast<int>(FTPFileSystem::kErrorLocalLimit) == lasterror::kLocalLimit &&
        static_cast<int>(FTPFileSystem::kErrorNotInitialised) == lasterror::kNotInitialised &&
        static_cast<int>(FTPFileSystem::kErrorLocalFile) == lasterror::kLocalFile &&
        static_cast<int>(FTPFileSystem::kErrorNotFound) == lasterror::kNotFound &&
        static_cast<int>(FTPFileSystem::kErrorUnexplained) == lasterror::kUnexplained &&
        static_cast<int>(FTPFileSystem::kErrorTls) == lasterror::kTls,
    "the exported error kinds are the module's");
static_assert(sizeof(FTPFileSystem::LastError().text) == lasterror::kTextSize,
              "the exported text holds the module's");

FTPFileSystem::LastError FTPFileSystem::getLastError() {
    LastError copy;
    copy.kind = lasterror::kind();
    const char* text = lasterror::text();
    size_t length = strlen(text);
    if (length > sizeof copy.text - 1) length = sizeof copy.text - 1;
    memcpy(copy.text, text, length);
    copy.text[length] = '\0';
    return copy;
}

const char* FTPFileSystem::errorKindName(int kind) {
    static const char* const kNames[] = {"none",
                                         "refused",
                                         "no reply",
                                         "connection lost",
                                         "connection refused",
                                         "unreachable",
                                         "bad argument",
                                         "login refused",
                                         "turned away",
                                         "local limit",
                                         "not initialised",
                                         "local file",
                                         "not found",
                                         "unexplained",
                                         "TLS failure"};
    if (kind < 0 || kind >= static_cast<int>(sizeof kNames / sizeof kNames[0])) return "unknown";
    return kNames[kind];
}
