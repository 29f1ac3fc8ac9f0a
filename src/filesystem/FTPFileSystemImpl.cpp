// FTPFileSystemImpl: construction, lifecycle, path operations on the main
// connection, the handle gates in front of the open-file table, whole-file
// copies, the snapshot calls, and the enumeration, scan and size operations,
// which take the store's locks and hand the listing itself to StoreListing.
//
// Every listing runs on the store's main connection and changes its working
// directory, so every listing call holds opLock. scan also holds the scan
// gate, taken first, and calls the host's visitor with opLock released so the
// visitor may call back into the store.
#include "filesystem/FTPFileSystemImpl.h"

#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "filesystem/PathOperation.h"
#include "foundation/LastError.h"
#include "foundation/TextField.h"
#include "host/KDFile.h"
#include "host/string_util.h"
#include "location/LocationLimits.h"

namespace {

const char* const kRefusedText = "the server, user or password is too long for the store";

// Size of the copy buffer of Get and Put: 64 KiB, so that a whole-file copy
// makes one local read and one send (Put), or one receive and one local write
// (Get), per 64 KiB rather than per 8 KiB. Allocated per call and freed before
// the call returns.
const unsigned int kCopyBufferSize = 65536;

// The host's KDFile modes: 'b' creates or truncates for writing, 1 opens an
// existing file for reading.
const unsigned char kLocalCreateMode = 98;
const unsigned char kLocalReadMode = 1;

// The limits of a location are what the store's and the open-file table's
// fields hold; a field that shrank below them would fail to compile here.
static_assert(static_cast<size_t>(kStoreServerSize) > NS_FTPPath::kMaxServerLength &&
                  static_cast<size_t>(kFtpTableTextSize) > NS_FTPPath::kMaxServerLength,
              "every server field holds the longest server address and a terminator");
static_assert(static_cast<size_t>(kStoreUserSize) > NS_FTPPath::kMaxUserLength &&
                  static_cast<size_t>(kFtpTableTextSize) > NS_FTPPath::kMaxUserLength,
              "every user field holds the longest user name and a terminator");
static_assert(static_cast<size_t>(kStorePasswordSize) > NS_FTPPath::kMaxPasswordLength &&
                  static_cast<size_t>(kFtpTableTextSize) > NS_FTPPath::kMaxPasswordLength,
              "every password field holds the longest password and a terminator");

// True when `text` is there and has at most `limit` characters.
bool fitsLimit(const char* text, size_t limit) { return text != nullptr && strlen(text) <= limit; }

// Walks the prefixes that createDir and isDirExist act on, one at a time:
// "/rec/d1/cam1" gives "/rec/", "/rec/d1/", "/rec/d1/cam1"; "a/b" gives "a/",
// "a/b"; "x//y" gives "x/", "x//", "x//y". Every prefix keeps its trailing "/"
// except the last when the path has none. The root "/" alone is never acted
// on: it always exists and cannot be made.
//
// Each prefix is the path's first characters up to and including a "/", so
// one is made only when asked for. A path of many separators (100,000 "/")
// would otherwise cost the sum of all its prefixes' lengths before the first
// command, gigabytes, while its callers stop at the first prefix too long
// for a command line.
class PathPrefixes {
public:
    explicit PathPrefixes(const char* path) : path_(path), end_(0) {}

    // The next prefix into `prefix`; false once the path is used up.
    bool next(std::string& prefix) {
        while (end_ < path_.size()) {
            const std::string::size_type slash = path_.find('/', end_);
            end_ = slash == std::string::npos ? path_.size() : slash + 1;
            if (end_ == 1 && path_[0] == '/') {
                continue;
            }
            prefix.assign(path_, 0, end_);
            return true;
        }
        return false;
    }

private:
    const std::string path_;
    std::string::size_type end_;
};

// Opens the local file of Get or Put (its UTF-8 name widened for the host) in
// `mode`; on failure prints the line the recorder's log has always shown and
// gives false.
bool openLocal(KDFile& local, const char* localFile, unsigned char mode) {
    const std::wstring wideName = string_util::utf82wchar(localFile);
    if (local.open_w(wideName.c_str(), mode) == 0) {
        printf("Cannot open file \"%s\"! Please check the file name!e\n", localFile);
        fflush(stdout);
        lasterror::note(lasterror::kLocalFile, "cannot open the local file");
        return false;
    }
    return true;
}

// The copy loop of Get and Put. Reads up to `size` bytes into `buf` with
// `readSome` and hands them to `writeSome`, again on the remainder until all
// are taken, then reads again. 0 when a read gives 0 (the end of the source);
// -1 when a read fails or a write takes nothing (an error, or a disk or
// connection that takes no more).
template <typename ReadSome, typename WriteSome>
int copyToEnd(char* buf, unsigned int size, ReadSome readSome, WriteSome writeSome) {
    for (;;) {
        const int n = readSome(buf, size);
        if (n < 0) {
            return -1;
        }
        if (n == 0) {
            return 0;
        }
        int done = 0;
        while (done < n) {
            const int w = writeSome(buf + done, static_cast<unsigned int>(n - done));
            if (w <= 0) {
                return -1;
            }
            done += w;
        }
    }
}

// Get (remoteMode kFtpModeRead: remote to local) and Put (kFtpModeWrite:
// local to remote) through the store's handle operations. The partial
// destination stays on a failure.
int copyWholeFile(FTPFileSystemImpl& store, const char* localFile, const char* remoteFile,
                  int remoteMode) {
    if (localFile == nullptr || remoteFile == nullptr) {
        lasterror::note(lasterror::kBadArgument, "no local or no remote file name");
        return -1;
    }
    const bool download = remoteMode == kFtpModeRead;
    // Allocated first: nothing is open yet should memory be short.
    std::vector<char> buffer(kCopyBufferSize);
    KDFile local;
    if (!openLocal(local, localFile, download ? kLocalCreateMode : kLocalReadMode)) {
        return -1;
    }
    const int handle = store.open(remoteFile, remoteMode);
    if (handle == -1) {
        local.close();
        return -1;
    }
    int result = -1;
    if (download) {
        result = copyToEnd(
            &buffer[0], kCopyBufferSize,
            [&](char* buf, unsigned int len) { return store.read(handle, buf, len); },
            [&](char* buf, unsigned int len) {
                const int written = local.write(buf, len);
                if (written <= 0)
                    lasterror::note(lasterror::kLocalFile, "cannot write the local file");
                return written;
            });
    } else {
        result = copyToEnd(
            &buffer[0], kCopyBufferSize,
            [&](char* buf, unsigned int len) {
                const int got = local.read(buf, len);
                if (got < 0) lasterror::note(lasterror::kLocalFile, "cannot read the local file");
                return got;
            },
            [&](char* buf, unsigned int len) { return store.write(handle, buf, len); });
    }
    local.close();
    // The result is the copy's alone: the server's final reply, read by the
    // close, does not change it. A caller who must know that an upload was
    // kept asks for the remote file's length afterwards. After a failed copy
    // the close is clean-up: the copy's reason stays the call's.
    if (result == 0) {
        store.close(handle);
    } else {
        lasterror::Quiet quiet;
        store.close(handle);
    }
    return result;
}

// The open file behind `handle`; false, noted, for a handle the table does
// not know.
bool openFile(FtpFileHandleManager* table, int handle, SafePointer<FtpFileHandler>& file) {
    if (table->getFileHandler(handle, file)) return true;
    lasterror::note(lasterror::kBadArgument, "no open file has this handle");
    return false;
}

// The open file behind `handle` when it was opened for writing; false for a
// handle the table does not know and for one opened for reading.
bool fileOpenForWriting(FtpFileHandleManager* table, int handle,
                        SafePointer<FtpFileHandler>& file) {
    if (!openFile(table, handle, file)) return false;
    if (file->getMode() == kFtpModeRead) {
        lasterror::note(lasterror::kBadArgument, "the handle is open for reading");
        return false;
    }
    return true;
}

}  // namespace

// --- Construction -------------------------------------------------------------

bool FTPFileSystemImpl::textsFit(const char* server, const char* user, const char* password) {
    return fitsLimit(server, NS_FTPPath::kMaxServerLength) &&
           fitsLimit(user, NS_FTPPath::kMaxUserLength) &&
           fitsLimit(password, NS_FTPPath::kMaxPasswordLength);
}

FTPFileSystemImpl::FTPFileSystemImpl(const char* server, const char* user, const char* password,
                                     int capacity)
    : mainTool(new FTPTool()),
      space(kStoreLockSource),
      listing(mainTool),
      capacity(capacity),
      handleManager(nullptr),
      scanGate(kStoreLockSource),
      initialised(false),
      snapshot(kStoreLockSource),
      refused(false) {
    // Nothing connects to a half-copied server name.
    if (!textsFit(server, user, password)) {
        refused = true;
        server = "";
        user = "";
        password = "";
    }
    copyTextField(this->server, sizeof(this->server), server);
    copyTextField(this->user, sizeof(this->user), user);
    copyTextField(this->password, sizeof(this->password), password);
    // Handle numbers 1 to capacity - 1 and an open-file limit of capacity: the
    // numbers run out one file before the limit is reached.
    handleManager =
        new FtpFileHandleManager(this->server, this->user, this->password, 1, capacity, capacity);
}

FTPFileSystemImpl::~FTPFileSystemImpl() {
    initialised = false;
    // A snapshot still open would keep a data socket and a record pointing at
    // the main connection's control record: end it while both still exist.
    { SnapshotStream::Pause paused(snapshot, mainTool.get(), __LINE__); }
    // Handles still open are released with the table: each handler closes
    // its data socket without waiting for the server's final reply.
    delete handleManager;
    handleManager = nullptr;
    // The locks and then the main tool go with the members.
}

bool FTPFileSystemImpl::isRefused() { return refused; }

TlsSetting& FTPFileSystemImpl::tls() { return handleManager->tls(); }

// --- Lifecycle --------------------------------------------------------------

int FTPFileSystemImpl::init() {
    KDMutexLocker guard(opLock, kStoreLockSource, __LINE__);
    if (refused) {
        lasterror::note(lasterror::kBadArgument, kRefusedText);
        return -1;
    }
    bool loggedIn = false;
    {
        // connect releases the previous control record; a snapshot opened on
        // it must not outlive it, and no snapshot call may start on it while
        // it is being replaced.
        SnapshotStream::Pause paused(snapshot, mainTool.get(), __LINE__);
        if (handleManager->tls().apply(*mainTool) && mainTool->connect(server) != 0) {
            loggedIn = mainTool->login(user, password) != 0;
            if (!loggedIn) {
                // Close the half-open connection rather than leave it to the
                // next init or the destructor.
                mainTool->quit();
            }
        }
    }
    if (!loggedIn) {
        initialised = false;
        return -1;
    }
    // The account starts over before the flag is raised: a store seen
    // initialised never shows the previous session's figure.
    space.startOver();
    initialised = true;
    return 0;
}

int FTPFileSystemImpl::uninit() {
    KDMutexLocker guard(opLock, kStoreLockSource, __LINE__);
    initialised = false;
    // QUIT frees the control record that an open snapshot's data record
    // points at; end the snapshot first so the server's closing reply is read
    // in order and no dangling record is left. A snapshot call on another
    // thread finishes first and then finds the stream gone.
    SnapshotStream::Pause paused(snapshot, mainTool.get(), __LINE__);
    if (!mainTool.isNull()) {
        mainTool->quit();
    }
    return 0;
}

int FTPFileSystemImpl::reinit() {
    // Deliberately unlocked: the check and the init that follows are not one
    // step, so two threads may both init (each under the operation lock).
    if (!initialised) {
        return init();
    }
    return 0;
}

// --- Directory and file operations ------------------------------------------

int FTPFileSystemImpl::createDir(const char* path) {
    PathOperation operation(*this, path != nullptr, __LINE__);
    if (!operation.ready()) {
        return -1;
    }
    PathPrefixes prefixes(path);
    std::string prefix;
    while (prefixes.next(prefix)) {
        // Back to the root before every test, so a relative path is taken from
        // the root and not from wherever the last operation left us. Its
        // outcome is not looked at, so it is not the call's reason either.
        {
            lasterror::Quiet quiet;
            mainTool->cd("/");
        }
        if (mainTool->cd(prefix.c_str()) == 1) {
            continue;
        }
        if (mainTool->mkdir(prefix.c_str()) == 0) {
            return -1;  // directories made so far stay
        }
    }
    return 0;
}

bool FTPFileSystemImpl::isDirExist(const char* path) {
    PathOperation operation(*this, path != nullptr, __LINE__);
    if (!operation.ready()) {
        return false;
    }
    // Unlike createDir there is no return to "/" between the prefixes: each
    // prefix is tried from where the previous one led (kept as the recorder
    // has always seen it).
    PathPrefixes prefixes(path);
    std::string prefix;
    while (prefixes.next(prefix)) {
        if (mainTool->cd(prefix.c_str()) != 1) {
            return false;
        }
    }
    return true;
}

bool FTPFileSystemImpl::isFileExist(const char* path) {
    PathOperation operation(*this, path != nullptr, __LINE__);
    if (!operation.ready()) {
        return false;
    }
    // A file exists when the server agrees to send it; no byte is read.
    NetBuf* stream = nullptr;
    if (mainTool->dataConnect(path, kFtpRetr, 'I', &stream) == 1) {
        // The transfer is cut short on purpose: whatever the server says of
        // that (426 for a file larger than the socket buffers) is not an
        // error of the answer.
        lasterror::Quiet quiet;
        mainTool->closeData(stream);
        return true;
    }
    return false;
}

int FTPFileSystemImpl::createFile(const char* path) {
    PathOperation operation(*this, path != nullptr, __LINE__);
    if (!operation.ready()) {
        return -1;
    }
    // Retrieve first, so an existing file is left as it is; only a missing one
    // is made, by storing nothing into it.
    NetBuf* stream = nullptr;
    if (mainTool->dataConnect(path, kFtpRetr, 'I', &stream) != 1) {
        stream = nullptr;
        if (mainTool->dataConnect(path, kFtpStor, 'I', &stream) != 1) {
            return -1;
        }
    }
    {
        // As for isFileExist: the closing reply is read and not judged.
        lasterror::Quiet quiet;
        mainTool->closeData(stream);
    }
    return 0;
}

long long FTPFileSystemImpl::baseGetFileLength(const char* path) {
    const std::string whole(path);
    const std::string::size_type slash = whole.rfind('/');
    std::string dir;
    std::string name;
    if (slash == std::string::npos) {
        dir = whole;
        name = whole;
    } else {
        dir = whole.substr(0, slash);
        name = whole.substr(slash + 1);
    }
    std::vector<SafePointer<FTPConst::FTPFileDescriptor> > entries;
    long long total = 0;
    if (!getFileDescriptorList(dir.c_str(), entries, total)) {
        return -1;
    }
    for (size_t i = 0; i < entries.size(); ++i) {
        // Only plain files count: a directory of the same name has no length.
        if (entries[i]->type == FTPConst::kTypePlainFile && entries[i]->name == name) {
            return static_cast<long long>(entries[i]->size);
        }
    }
    lasterror::note(lasterror::kNotFound, "no plain file of that name in its directory's listing");
    return -1;
}

long long FTPFileSystemImpl::getFileLength(const char* path) {
    PathOperation operation(*this, path != nullptr, __LINE__);
    if (!operation.ready()) {
        return -1;
    }
    return baseGetFileLength(path);
}

int FTPFileSystemImpl::deleteFile(const char* path) {
    PathOperation operation(*this, path != nullptr, __LINE__);
    if (!operation.locked()) {
        lasterror::note(lasterror::kBadArgument, "a path argument is missing");
        return -1;
    }
    // The length is asked before the flag is looked at, and a file missing from
    // the listing gives -1, which the account below then "subtracts" (raising
    // it by one). Both are kept: the recorder's space figures have always
    // behaved so.
    const long long len = baseGetFileLength(path);
    if (!operation.ready()) {
        return -1;
    }
    if (mainTool->deleteFile(path) == 0) {
        return -1;
    }
    updateSpaceInfo(len, false);
    return 0;
}

int FTPFileSystemImpl::renameFile(const char* from, const char* to) {
    PathOperation operation(*this, from != nullptr && to != nullptr, __LINE__);
    if (!operation.ready()) {
        return -1;
    }
    return mainTool->moveFile(from, to) != 0 ? 0 : -1;
}

int FTPFileSystemImpl::moveDir(const char* /*from*/, const char* /*to*/) {
    // Moving directories is not supported; the recorder treats 0 as "nothing
    // to do".
    return 0;
}

int FTPFileSystemImpl::removeDir(const char* path) {
    PathOperation operation(*this, path != nullptr, __LINE__);
    if (!operation.ready()) {
        return -1;
    }
    return rmFTPDir(path) != 0 ? 0 : -1;
}

int FTPFileSystemImpl::rmFTPDir(const char* path) {
    std::vector<SafePointer<FTPConst::FTPFileDescriptor> > entries;
    long long total = 0;
    if (!getFileDescriptorList(path, entries, total)) {
        return 0;
    }
    for (size_t i = 0; i < entries.size(); ++i) {
        // A path ending in "/" gives a doubled separator here; servers accept
        // it, so it is left alone.
        const std::string child = std::string(path) + "/" + entries[i]->name;
        if (entries[i]->type == FTPConst::kTypeDirectory) {
            if (rmFTPDir(child.c_str()) == 0) {
                return 0;
            }
            continue;
        }
        // The listing's size is a signed 32-bit number; it is what the account
        // was raised by, so it is what comes off (a file of 2 GiB or more
        // takes its wrapped size with it).
        const int32_t len = static_cast<int32_t>(baseGetFileLength(child.c_str()));
        if (len == -1) {
            return 0;
        }
        if (mainTool->deleteFile(child.c_str()) == 0) {
            return 0;
        }
        updateSpaceInfo(len, false);
    }
    // Deleting files left the connection in the files' directory; RMD is sent
    // from the root so the path means the same as in the listing.
    mainTool->cd("/");
    return mainTool->rmdir(path) != 0 ? 1 : 0;
}

// --- Enumeration, scanning and space -------------------------------------------

bool FTPFileSystemImpl::appendNamesListed(const char* path, int32_t type,
                                          std::vector<std::string>& names) {
    PathOperation operation(*this, path != nullptr, __LINE__);
    if (!operation.ready()) {
        return false;
    }
    return listing.appendNames(path, type, names);
}

bool FTPFileSystemImpl::getFileList(const char* path, std::vector<std::string>& names,
                                    const std::string& /*filter: every file is returned*/) {
    return appendNamesListed(path, FTPConst::kTypePlainFile, names);
}

bool FTPFileSystemImpl::getSubDirList(const char* path, std::vector<std::string>& names,
                                      const std::string& /*filter: every directory is returned*/) {
    return appendNamesListed(path, FTPConst::kTypeDirectory, names);
}

bool FTPFileSystemImpl::isEmptyDir(const char* path) {
    PathOperation operation(*this, true, __LINE__);
    if (!operation.ready()) {
        return false;
    }
    return listing.isEmpty(path);
}

int FTPFileSystemImpl::getFileNumber(const char* /*path*/) {
    // Counting files is not offered: callers use getFileList instead.
    lasterror::note(lasterror::kBadArgument, "counting files is not offered: use getFileList");
    return -1;
}

bool FTPFileSystemImpl::scan(const char* path, IFileScanAction* action,
                             const std::string& /*filter: every file is visited*/) {
    if (path == nullptr || action == nullptr) {
        lasterror::note(lasterror::kBadArgument, "no path or no action");
        return false;
    }
    // The gate for the whole walk, so two scans never interleave their visits;
    // opLock only for the listing itself, so the visitor may use the store.
    ScanGate::Turn turn(scanGate, __LINE__);
    if (!initialised) {
        lasterror::note(lasterror::kNotInitialised, "the store is not initialised");
        return false;
    }
    std::vector<std::string> files;
    {
        PathOperation operation(*this, true, __LINE__);
        if (!operation.ready() || !listing.appendNames(path, FTPConst::kTypePlainFile, files)) {
            return false;
        }
    }
    // What the visitor returns does not stop the walk.
    for (std::vector<std::string>::const_iterator it = files.begin(); it != files.end(); ++it) {
        action->onFile(it->c_str());
    }
    return true;
}

bool FTPFileSystemImpl::getTotalSize(const char* path, long long& size) {
    PathOperation operation(*this, path != nullptr, __LINE__);
    if (!operation.ready()) {
        return false;
    }
    return scanRecordDir(path, size);
}

bool FTPFileSystemImpl::scanRecordDir(const char* path, long long& size) {
    return listing.scanRecordDir(path, size);
}

void FTPFileSystemImpl::updateSpaceInfo(long long bytes, bool add) { space.update(bytes, add); }

void FTPFileSystemImpl::getDiskSpaceInfo(long& first, long& second) {
    space.figures(first, second);
}

long long FTPFileSystemImpl::getUsedBytes() { return space.used(); }

// --- Listing retrieval -----------------------------------------------------------

// The tool comes by value: the listing members keep their long-standing
// signatures.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
bool FTPFileSystemImpl::recvData(SafePointer<FTPTool> tool, const char* path, std::string& text) {
    return StoreListing::recvData(tool, path, text);
}

bool FTPFileSystemImpl::getFTPFileType(const std::vector<std::string>& lines, int& type) {
    return StoreListing::getFTPFileType(lines, type);
}

bool FTPFileSystemImpl::getFileDescriptorList(
    const char* path, std::vector<SafePointer<FTPConst::FTPFileDescriptor> >& entries,
    long long& total) {
    return listing.getFileDescriptorList(path, entries, total);
}

// --- Handle operations --------------------------------------------------------

int FTPFileSystemImpl::open(const char* path, int mode) {
    if (path == nullptr || refused) {
        lasterror::note(lasterror::kBadArgument, path == nullptr ? "no path" : kRefusedText);
        return -1;
    }
    return handleManager->open(path, mode);
}

int FTPFileSystemImpl::close(int handle) { return handleManager->close(handle); }

int FTPFileSystemImpl::read(int handle, char* buf, unsigned int len) {
    SafePointer<FtpFileHandler> file;
    if (!openFile(handleManager, handle, file)) {
        return -1;
    }
    if (file->getMode() != kFtpModeRead) {
        lasterror::note(lasterror::kBadArgument, "the handle is open for writing");
        return -1;
    }
    return file->read(buf, len);
}

int FTPFileSystemImpl::write(int handle, const char* buf, unsigned int len) {
    SafePointer<FtpFileHandler> file;
    if (!fileOpenForWriting(handleManager, handle, file)) {
        return -1;
    }
    const int written = file->write(buf, len);
    if (written != -1) {
        updateSpaceInfo(written, true);
    }
    return written;
}

int FTPFileSystemImpl::aioWrite(int handle, const char* buf, unsigned int len) {
    SafePointer<FtpFileHandler> file;
    if (!fileOpenForWriting(handleManager, handle, file)) {
        return -1;
    }
    // The account is not raised here: the caller learns how much was taken
    // only from this result and aioReturn.
    return file->aioWrite(buf, len);
}

int FTPFileSystemImpl::aioReturn(int handle, int milliseconds) {
    SafePointer<FtpFileHandler> file;
    if (!openFile(handleManager, handle, file)) {
        return -1;
    }
    return file->aioReturn(milliseconds);
}

// --- Whole-file transfer and snapshots ---------------------------------------

int FTPFileSystemImpl::Get(const char* localFile, const char* remoteFile) {
    return copyWholeFile(*this, localFile, remoteFile, kFtpModeRead);
}

int FTPFileSystemImpl::Put(const char* localFile, const char* remoteFile) {
    // Through write, so the used-bytes account rises with every piece taken.
    return copyWholeFile(*this, localFile, remoteFile, kFtpModeWrite);
}

int FTPFileSystemImpl::snapshot_open(const char* path, int /*unused*/) {
    return snapshot.open(*mainTool, path);
}

int FTPFileSystemImpl::snapshot_write(const char* buf, unsigned int len) {
    return snapshot.write(*mainTool, buf, len);
}

int FTPFileSystemImpl::snapshot_close() { return snapshot.close(*mainTool); }
