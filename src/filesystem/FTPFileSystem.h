// FTPFileSystem: one remote FTP location used as a disk. Exported.
//
// A thin facade that owns exactly one FTPFileSystemImpl and forwards every call
// to it through the exception barrier. The class comment below is the contract
// a recorder relies on: threads, locks, results and limits.
#ifndef FTPDISK_FILESYSTEM_FTPFILESYSTEM_H
#define FTPDISK_FILESYSTEM_FTPFILESYSTEM_H

#include <string>
#include <vector>

#include "foundation/Export.h"
#include "host/IFileScanAction.h"

class FTPFileSystemImpl;

/// One remote FTP location used as a disk: the store a recorder writes its
/// recordings into. Exported from libftpdisk.so.1.
///
/// **Ownership.** Get stores from FTPFileSystemManager, which creates one per
/// location and hands out counted references (SafePointer); a store lives
/// until the registry and every holder have let it go.
///
/// **Threads.** Any recorder thread may call any operation at any time.
///
/// **Two roads.** *Path operations* (directories, listings, lengths, deletes,
/// renames, scans) run on the store's one main connection, one at a time
/// under the store's *operation lock*, and fail without traffic while the
/// store is not initialised. *Handle operations* (open, read, write, aioWrite,
/// aioReturn, close, and Get and Put, which use them) give every open file a
/// logged-in connection and a data connection of its own, taken from the
/// store's pool of idle connections or connected and logged in anew; they
/// take the open-file table's *table lock* only for bookkeeping, never across
/// network work, and the open file's *transfer lock* for its data connection.
/// They do not need init. The snapshot calls use the main connection under the
/// *snapshot lock* only. Each command on any connection also holds that
/// connection's own control lock for its one command and reply.
///
/// **Results.** 0 success and -1 failure for actions; true/false for the bool
/// questions; 1/0 as ints for the four listing calls; -1 for an unknown
/// length; handles of 1 or more. Nothing retries and nothing reconnects:
/// after a lost main connection the recorder calls uninit() and init(). A
/// standard exception inside a call (memory exhausted by a huge listing, for
/// one) comes back as the call's failure value; only KDRuntimeError, for a
/// misused SafePointer, is ever thrown.
///
/// **Limits on the wire.** Each reply must start within 3 s of being awaited:
/// a command whose reply has not started by then fails, and the reply stays
/// owed; the connection reads and drops it before its next command goes out,
/// and holds that command back (failing it unsent) while it still has not
/// come, so a reply is only ever judged for the command it answers. One reply
/// is abandoned after 30 s in all or 1000 lines; control sockets send and
/// receive within 10 s, data sockets within 30 s; every TCP connect gives up
/// after 10 s; a listing is abandoned after 60 s in all and logged to the
/// record error log. Data connections are passive and go to the address the
/// control connection reached, with the port of the server's 227 reply (the
/// address the reply names is not used).
///
/// **Why a call failed.** After any call of this class or of
/// FTPFileSystemManager, the calling thread can ask getLastError() what the
/// call met: a kind (ErrorKind) and the server's reply line or the system's
/// error text. Every result above is unchanged by it.
///
/// **Texts.** Create stores through FTPFileSystemManager; a direct caller
/// must keep the server and the user at most 31 characters and the password
/// at most 19 (the store's fields are 48, 32 and 20 bytes, the open-file
/// table's 32 each, all with the terminator). Longer texts, and null
/// pointers, are never copied: the store is built with empty texts and
/// refused for good, so init returns -1 without any traffic, reinit likewise,
/// path operations fail as uninitialised and open (hence Get and Put) returns
/// -1. Remote paths are the server's own, "/"-separated; listings show each
/// name only up to its first blank and leave out names starting with ".".
class FTPDISK_EXPORT FTPFileSystem {
public:
    /// What a call met, as getLastError() tells it. The values are fixed.
    enum ErrorKind {
        /// The call succeeded, or a question was answered cleanly.
        kErrorNone = 0,
        /// The server answered a command with a refusal; its reply line is the
        /// text ("550 No such file or directory"). After a question answered
        /// "no" (isDirExist, isFileExist) or "empty" (isEmptyDir): the server
        /// said so.
        kErrorRefused = 1,
        /// The server did not reply (or send data) within the module's waits,
        /// a reply was abandoned after 30 s or 1000 lines, or a command was not
        /// sent because an earlier reply still had not come.
        kErrorNoReply = 2,
        /// The connection failed or the server closed it.
        kErrorConnectionLost = 3,
        /// Nothing accepts connections at the server's address and port.
        kErrorConnectRefused = 4,
        /// No route to the server, no answer to the connect within 10 s, or a
        /// host name or service that does not resolve.
        kErrorUnreachable = 5,
        /// Refused before anything was sent: a missing argument, a path too
        /// long for one command line or holding a line end, an unknown handle
        /// or mode, a text that is not a location.
        kErrorBadArgument = 6,
        /// The server refused the user name or the password (a wrong password,
        /// an unknown user; some servers also refuse a session over their
        /// limit this way, with a text that says so).
        kErrorLoginRefused = 7,
        /// The server turned the session away: a greeting other than 2xx
        /// ("421 Too many connections"), a close before the greeting, a 421
        /// at login. Usually a server at its limit of connections.
        kErrorTurnedAway = 8,
        /// A limit of this module: as many files open as the store allows,
        /// the path already open, no free handle number, a snapshot already
        /// open, memory exhausted.
        kErrorLocalLimit = 9,
        /// A path operation of a store that is not initialised.
        kErrorNotInitialised = 10,
        /// Get's or Put's local file could not be opened, read or written.
        kErrorLocalFile = 11,
        /// The listing came whole, and the file is not in it (getFileLength).
        kErrorNotFound = 12,
        /// A failure no part of the module gave a reason for.
        kErrorUnexplained = 13,
        /// An ftps connection could not be made secure: the TLS handshake
        /// failed ("TLS handshake failed: ..."), the server's certificate was
        /// not trusted ("TLS certificate not trusted: <why>; SHA-256
        /// fingerprint AB:CD:..."), or TLS is not built into the module.
        /// Nothing was sent after the handshake.
        kErrorTls = 14
    };
    /// A kind and its text: the server's reply line (without its line end)
    /// or the system's error text, or a short text of the module's; "" with
    /// kErrorNone. Never holds a password.
    struct LastError {
        /// What happened: an ErrorKind value.
        int kind;
        /// The reply line or error text, terminated; at most 255 bytes.
        char text[256];
    };
    /// What the calling thread's last call of FTPFileSystem or
    /// FTPFileSystemManager met (getLastError itself and errorKindName
    /// excepted). Thread-local: another thread's calls never change it.
    /// Takes no lock and sends nothing. A call clears it when it begins and
    /// when it succeeds; a question (isDirExist, isFileExist, isEmptyDir)
    /// keeps what made its answer, so a "no" because the server refused the
    /// directory (kErrorRefused) can be told from a "no" because the
    /// connection failed (kErrorNoReply, kErrorConnectionLost).
    /// \return a copy, kind kErrorNone on a thread that made no call yet.
    static LastError getLastError();
    /// A short fixed name of `kind` ("refused", "no reply", ...), for logs;
    /// "unknown" for a value outside ErrorKind.
    static const char* errorKindName(int kind);

    /// Builds the store for `server` ("host", "host:port" or "host:service"),
    /// `user` and `password`. Sends nothing. Creates the open-file table with
    /// handle numbers 1 to `capacity` - 1 and an open-file limit of
    /// `capacity` (the registry passes 1024), and starts the store's pool
    /// monitor thread "detectStateThread", which wakes every 2 s and quits
    /// connections idle for 30 s. Texts that do not fit refuse the store (see
    /// the class notes); a store that cannot be allocated fails every call.
    FTPFileSystem(const char* server, const char* user, const char* password, int capacity);
    /// Runs uninit() (ends an open snapshot, sends "QUIT" on the main
    /// connection), then releases everything: files still open are dropped
    /// without their final replies (their data sockets closed, their
    /// connections sent "QUIT"), pooled connections are sent "QUIT", and the
    /// monitor thread is stopped and joined. Each "QUIT" waits for its reply
    /// within the limits above, so this can take a while on a silent server;
    /// the registry runs it under its registry lock.
    virtual ~FTPFileSystem();

    /// Connects the main connection and logs in: TCP connect (at most 10 s),
    /// the greeting (2xx), "USER", then "PASS" when the server answers 3xx. Takes the operation
    /// lock, and the snapshot lock while an open snapshot stream is ended (its final reply read)
    /// and the connection replaced. \return 0 when logged in, with the used-bytes account reset to
    /// 0 under the space lock; -1 on a failed name look-up or connect, a refused greeting, a
    /// refused login (the connection is then sent "QUIT"), or a refused store. A failure leaves the
    /// store uninitialised; nothing is retried. init() on an initialised store connects again,
    /// dropping the previous connection without "QUIT".
    int init();
    /// Marks the store uninitialised, ends an open snapshot stream (its data
    /// connection closed, its final reply read) and sends "QUIT" on the main
    /// connection, under the operation lock and then the snapshot lock. Files
    /// open by handle are not touched: they have connections of their own.
    /// \return 0, always (also when "QUIT" is not answered; that connection
    /// is then released by the next init() or the destructor).
    int uninit();
    /// init() when the store is not initialised; otherwise 0 without traffic.
    /// The flag is read without a lock, so two threads may both run init().
    /// \return what init() returns, or 0.
    int reinit();

    /// The store's space figures, from its own account only: the server is
    /// never asked and nothing is sent. Takes the space lock.
    /// \param first set to 0.
    /// \param second set to the bytes this store recorded as used since
    /// init(), in whole MiB (truncated, and held at the largest `long` where it
    /// would not fit). The account rises by what write() and Put() report as
    /// written (not by aioWrite()) and falls by the listed size of each file
    /// that deleteFile() or removeDir() deletes.
    /// \return 0; -1 only for a store that could not be allocated.
    int getDiskSpaceInfo(long& first, long& second);

    /// Creates `path` and every missing directory above it. For each prefix
    /// of the path ("/rec/", "/rec/d1/", "/rec/d1/cam1" for "/rec/d1/cam1")
    /// it sends "CWD /" and "CWD <prefix>", and "MKD <prefix>" when that CWD
    /// is refused; relative paths are taken from "/". Operation lock.
    /// \return 0 when every directory exists (also for "" and "/", which send
    /// nothing); -1 for a null path, an uninitialised store (nothing sent) or
    /// a refused MKD. Directories made before a failure stay.
    int createDir(const char* path);
    /// Whether every directory of `path` can be entered: "CWD <prefix>" for
    /// each prefix in turn, without going back to "/" between them.
    /// Operation lock.
    /// \return true when every CWD succeeded (and for "" and "/", which send
    /// nothing); false at the first refused CWD, for a null path and for an
    /// uninitialised store. The main connection is left in the last
    /// directory reached.
    bool isDirExist(const char* path);
    /// Appends to `names` the plain files of `dir`, in listing order. Lists
    /// `dir` on the main connection: "CWD /", "CWD <dir>", "TYPE I", "PASV",
    /// "LIST <dir>", the listing on the data connection, its final reply.
    /// Unix and DOS listings are understood; each name is read only up to its
    /// first blank and names starting with "." are left out. `filter` is not
    /// used: every file is returned. Operation lock.
    /// \return 1 when listed whole: the data connection ended in order and the
    /// final reply was 2xx. 0 for a null `dir`, an uninitialised store, a
    /// refused CWD, data connection or LIST, a listing cut short (a failed
    /// read, a read that waited 3 s in vain, a final reply of 4xx or 5xx or
    /// none within 3 s), or one abandoned after 60 s (logged to the record
    /// error log). `names` is only appended to on success. An int, not a bool:
    /// the recorder reads a full int.
    int getFileList(const char* dir, std::vector<std::string>& names, const std::string& filter);
    /// Lists `dir` as getFileList() does and calls `action->onFile(name)` once
    /// for each plain file, in listing order; what onFile returns is ignored.
    /// Takes the scan lock for the whole call, so two scans never interleave
    /// their visits, and the operation lock only for the listing: the visitor
    /// runs without it and may call the store. `filter` is not used.
    /// \return 1 when listed (visits done); 0, with no visit, for a null
    /// `dir` or `action`, an uninitialised store or a failed listing.
    int scan(const char* dir, IFileScanAction* action, const std::string& filter);
    /// Appends to `names` the subdirectories of `dir`, in listing order, with
    /// the same listing, traffic, lock and results as getFileList().
    int getSubDirList(const char* dir, std::vector<std::string>& names, const std::string& filter);
    /// Adds to `total` the listed size of every entry below `dir`, the
    /// directory entries' own listed sizes included, going down every
    /// subdirectory by its full path (one listing per directory, as for
    /// getFileList()). Sizes are the listings' signed 32-bit numbers: a file
    /// of 2 GiB or more adds its wrapped size. Operation lock.
    /// \return 1 when every directory was listed; 0 for a null `dir`, an
    /// uninitialised store, or at the first listing that fails, with what
    /// was added so far left in `total`. `total` is added to, never reset.
    int getTotalSize(const char* dir, long long& total);
    /// Makes an empty file at `path` unless one exists: "TYPE I", "PASV",
    /// "RETR <path>"; when the server refuses that, "TYPE I", "PASV",
    /// "STOR <path>" with no data. The data connection is closed at once and
    /// the final reply read (and not judged). Operation lock.
    /// \return 0 when either transfer started (an existing file is left as it
    /// is); -1 for a null path, an uninitialised store, or both refused.
    int createFile(const char* path);
    /// Whether the server agrees to send `path`: "TYPE I", "PASV",
    /// "RETR <path>"; the data connection is closed without reading a byte and
    /// the final reply read. Operation lock.
    /// \return true when the transfer started; false when refused (a
    /// directory or a missing file), for a null path and for an
    /// uninitialised store.
    bool isFileExist(const char* path);
    /// Deletes the file `path`: first lists its parent (as getFileLength()
    /// does) to learn its size, then "CWD /", "CWD <parent>", "DELE <name>".
    /// The listing is asked before the initialised flag is looked at.
    /// Operation lock, and the space lock for the account.
    /// \return 0 when DELE succeeded; the used-bytes account then falls by the
    /// listed size (or rises by 1 when the name was not in the listing);
    /// -1 for a null path, an uninitialised store or a refused DELE (the main
    /// connection is then left in the parent directory).
    int deleteFile(const char* path);
    /// Moving directories is not offered.
    /// \return 0, always; nothing is sent and nothing changes.
    int moveDir(const char* from, const char* to);
    /// Renames `from` to `to`: "RNFR <from>" (3xx expected), then
    /// "RNTO <to>" (2xx expected). Operation lock.
    /// \return 0 when renamed; -1 for a null argument, an uninitialised store,
    /// or either command refused (a destination too long to send, at most 248
    /// characters go out, leaves the accepted RNFR pending on the server).
    int renameFile(const char* from, const char* to);
    /// Opens the remote file `path` for one transfer and gives it a handle.
    /// `mode`: 1 read ("RETR"), 2 write ("STOR"), 3 append ("APPE"), 4 write
    /// ("STOR"). Under the table lock the lowest free handle number is
    /// reserved (checking the open-file limit and that `path` is not already
    /// open or being opened, in any mode); then, without it, an idle
    /// connection is taken from the pool, or a new one is connected and logged
    /// in ("USER", "PASS"), and "TYPE I", "PASV", "<command> <path>" are sent
    /// until the 1xx reply; the table lock is taken again to record the file.
    /// Does not need init(); takes no lock of the store itself.
    /// \return the handle (1 or more); -1 for a null path, a path of 256
    /// characters or more (nothing sent), a refused store, the open-file limit
    /// reached, `path` already open, no free number, an unknown mode, a failed
    /// connect or login, or a refused transfer. A failure after the number was
    /// reserved gives that number back. The connection of a failed open is
    /// never pooled: it is sent "QUIT" (when it got as far as a greeting and
    /// owes no reply) and released.
    int open(const char* path, int mode);
    /// Sends up to `len` bytes of `buf` on the open file's data connection, in
    /// one send once the socket is writable. Takes the table lock for a moment
    /// to find the file, then its transfer lock, then the space lock to add
    /// the result to the used-bytes account.
    /// \return the bytes taken (possibly fewer than `len`: call again with the
    /// rest); -1 for an unknown or closed handle, a handle opened for reading,
    /// a socket not writable within 3 s, or a send error. A failed send marks
    /// the file's connection unusable: close() will then quit it instead of
    /// pooling it. The handle stays open until close().
    int write(int handle, const char* buf, unsigned int len);
    /// Reads up to `len` bytes of the open file into `buf` once data is there.
    /// Table lock for a moment, then the file's transfer lock.
    /// \return the bytes read; 0 at the end of the file; -1 for an unknown or
    /// closed handle, a handle not opened for reading, nothing within 3 s, or
    /// a receive error (which marks the connection unusable, as for write()).
    int read(int handle, char* buf, unsigned int len);
    /// Ends the transfer of `handle`: under the table lock the number is
    /// freed and the file taken out of the table; then, without it and under
    /// the file's transfer lock (waiting for a read or write still running on
    /// another thread), the data connection is closed and the server's final
    /// reply read (2xx expected). A healthy connection that owes the server no
    /// reply goes back to the pool, sending nothing; any other is sent "QUIT".
    /// \return 0 when the final reply was positive and the connection pooled;
    /// also 0 for a known number that is not open (already closed); -1 for a
    /// number the store never hands out, a number whose open is still in
    /// progress (nothing changes), a final reply that is not 2xx, or a
    /// connection marked unusable. Whatever the result, a known handle is
    /// closed and its number free again; the remote file keeps what arrived.
    int close(int handle);
    /// The size of the file `path` as its parent's listing shows it: "CWD /",
    /// "CWD <parent>", "TYPE I", "PASV", "LIST <parent>" (for "/a.dat" the
    /// parent is the empty name). Only a plain file whose name matches exactly
    /// counts. Operation lock.
    /// \return the listed size, a signed 32-bit number widened to 64 bits (a
    /// file of 2 GiB or more gives its wrapped, possibly negative, size); -1
    /// for a null path, an uninitialised store, a parent that cannot be
    /// listed, or no such plain file (names with blanks never match).
    long long getFileLength(const char* path);
    /// Removes the directory `path` with everything below it, depth first:
    /// one listing per directory, and per file one listing of its parent
    /// (for its size), "CWD /", "CWD <parent>" and "DELE <name>"; per
    /// directory "CWD /" and "RMD <path>". The used-bytes account falls by the
    /// listed size of each deleted file. Operation lock.
    /// \return 0 when everything was removed; -1 for a null path, an
    /// uninitialised store, or at the first failure (a listing, a DELE, an
    /// RMD, a name with a blank), leaving what was already removed removed.
    int removeDir(const char* path);
    /// Counting files is not offered; use getFileList().
    /// \return -1, always; nothing is sent.
    int getFileNumber(const char* dir);
    /// Whether `dir` has no entries, from one listing as for getFileList().
    /// Operation lock.
    /// \return true when the listing is empty, and also when the server
    /// refuses to enter `dir` (a vanished directory counts as empty; a null
    /// `dir` is one that cannot be entered: only "CWD /" is sent); false when
    /// it has entries, when its listing did not come whole (see
    /// getFileList()) or the change into it got no answer, and for an
    /// uninitialised store (nothing sent).
    bool isEmptyDir(const char* dir);
    /// Copies the remote file `remoteFile` into the local file `localFile`
    /// (UTF-8 name, created or truncated through the host's KDFile with mode
    /// 98), through open(remoteFile, 1), read() in pieces of up to 65536
    /// bytes (a buffer allocated for the call) and close(): the same traffic
    /// and locks as those calls.
    /// \return 0 when the data connection ended cleanly and every byte that
    /// came is in the local file; the final reply is read by close() but does
    /// not change the result. -1 for a null argument, a local file that
    /// cannot be made (the line
    /// `Cannot open file "localFile"! Please check the file name!e`, with the
    /// name given, is printed on standard output and nothing is sent), a
    /// refused open, or a failed read or local write. The partial (or empty)
    /// local file is left in place.
    int Get(const char* localFile, const char* remoteFile);
    /// Copies the local file `localFile` (UTF-8 name, opened through the
    /// host's KDFile with mode 1) to the remote file `remoteFile`, through
    /// open(remoteFile, 2), write() in pieces of up to 65536 bytes (a buffer
    /// allocated for the call; raising the used-bytes account) and close().
    /// \return 0 when every byte was taken; the final reply is read by
    /// close() but does not change the result (compare getFileLength() with
    /// the local size where it matters). -1 for a null argument, a missing
    /// local file (the same line as Get() is printed; nothing is sent), a
    /// refused open, or a failed read or write. The partial remote file stays
    /// on the server.
    int Put(const char* localFile, const char* remoteFile);
    /// Hands up to `len` bytes to the open file's data socket in one
    /// non-blocking send, without waiting. Table lock for a moment, then the
    /// file's transfer lock. The used-bytes account is not raised.
    /// \return the bytes taken (possibly fewer than `len`); -1 for an unknown
    /// or closed handle, a handle opened for reading, a socket that cannot be
    /// made non-blocking, or a send that takes nothing, a full socket
    /// included: that last marks the connection unusable as for write(). Call
    /// aioReturn() first so the socket has room.
    int aioWrite(int handle, const char* buf, unsigned int len);
    /// Waits until the open file's data socket can take more data. The limit
    /// is `milliseconds` / 1000 seconds plus the remainder as microseconds
    /// (1500 waits 1 s and 500 us). Nothing is sent. Table lock for a moment,
    /// then the file's transfer lock.
    /// \return 0 when writable (also when the socket reports an error, which
    /// the next write then returns); -1 on time-out, for an unknown handle
    /// and for a closed file; -2 for a negative limit or a failed wait. The
    /// connection is never marked by this call.
    int aioReturn(int handle, int milliseconds);
    /// Opens the store's one snapshot stream on the main connection: "TYPE I",
    /// "PASV", "STOR <path>" until the 1xx reply. Takes only the snapshot lock,
    /// not the operation lock, and does not look at the initialised flag: the
    /// stream shares the main connection with path operations unguarded, so
    /// the recorder must not run path operations while a snapshot is open (a
    /// reply could reach the wrong caller). `unused` is ignored.
    /// \return 0 when the stream is open; -1 when one is already open, for a
    /// null path, a main connection that is not connected, or a refused
    /// transfer.
    int snapshot_open(const char* path, int unused);
    /// Sends up to `len` bytes on the snapshot stream in one send once the
    /// socket is writable. Snapshot lock. The used-bytes account is not
    /// raised.
    /// \return the bytes taken (possibly fewer); -1 when no stream is open,
    /// the socket is not writable within 3 s or the send fails, after printing
    /// "FTPFileSystemImpl::snapshot_write <errno>" on standard output.
    int snapshot_write(const char* buf, unsigned int len);
    /// Closes the snapshot stream and reads the server's final reply (2xx
    /// expected). Snapshot lock.
    /// \return 0 when the reply was positive; -1 when no stream was open or the
    /// reply was not 2xx. The stream is gone either way; the remote file keeps
    /// what arrived.
    int snapshot_close();
    /// Nothing is buffered in the module, so there is nothing to flush.
    /// \return 1, always; nothing is sent.
    int flush(int handle);

private:
    FTPFileSystem(const FTPFileSystem&);
    FTPFileSystem& operator=(const FTPFileSystem&);

    FTPFileSystemImpl* impl;
    // The registry passes its TLS calls on to the implementation.
    friend class FTPFileSystemManager;
};

#endif  // FTPDISK_FILESYSTEM_FTPFILESYSTEM_H
