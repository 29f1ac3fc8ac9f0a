// FTPFileSystemManager: the process-wide registry of stores, one per location
// text. Exported. The class comment below is the contract: threads, the
// registry lock and its place in the lock order, results.
#ifndef FTPDISK_FILESYSTEM_FTPFILESYSTEMMANAGER_H
#define FTPDISK_FILESYSTEM_FTPFILESYSTEMMANAGER_H

#include <map>
#include <string>

#include "filesystem/FTPFileSystem.h"

class FTPFileSystemImpl;
#include "foundation/Export.h"
#include "foundation/SafePointer.h"
#include "host/technic/KDMutex.h"

/// The process-wide registry of stores, one FTPFileSystem per location text
/// `user(password)@ftp://server[:port]/path`, or `...@ftps://...` for a store
/// whose connections use explicit TLS. Exported from libftpdisk.so.1.
///
/// Any thread may call any operation. addFTPFileSystem, getFTPFileSystem and
/// deleteFileSystem each hold the *registry lock* for their whole run; none
/// of them sends anything. Lock order: the registry lock before any store's
/// locks (deleteFileSystem may destroy a store, which runs its uninit, under
/// it).
class FTPDISK_EXPORT FTPFileSystemManager {
public:
    /// The single registry, made on the first call (safe from any thread) and
    /// destroyed at process exit, which releases every registered store.
    /// \return the registry; null only when it could not be made (out of
    /// memory), in which case the next call tries again.
    static FTPFileSystemManager* getInstance();

    /// Registers a store for `location`, keyed by the text exactly as given.
    /// The store is made from the server, user name and password (the path
    /// is part of the key only) with room for 1024 open files, and starts its
    /// pool monitor thread; it is not initialised: call FTPFileSystem::init()
    /// on it. Registry lock; nothing is sent.
    /// \return 0 when registered, and when the same text is already
    /// registered (nothing new is made); -1 when the location does not parse
    /// or its server (over 31 characters), user name (over 31) or password
    /// (over 19) would not fit the store's fixed fields, and when memory runs
    /// out. No store is made on -1.
    int addFTPFileSystem(const std::string& location);
    /// Finds the store that covers `location` (see isSameDiskDir), trying the
    /// registered texts in byte order. Registry lock; nothing is sent.
    /// \return 1 with a counted reference to the store in `out`; 0 when no
    /// registered location covers it, `out` unchanged.
    int getFTPFileSystem(const std::string& location, SafePointer<FTPFileSystem>& out);
    /// Drops the registry's reference to the store registered under exactly
    /// `location`. When nobody else holds the store it is destroyed at once,
    /// under the registry lock: uninit ("QUIT"), open files dropped, pooled
    /// connections quit, monitor thread joined (see ~FTPFileSystem), so other
    /// registry calls wait meanwhile. References handed out earlier stay
    /// valid until their holders release them.
    /// \return 0 when an entry was removed; -1 when no entry has exactly this
    /// text (a covered sub-path removes nothing).
    int deleteFileSystem(const std::string& location);
    /// The covering rule of getFTPFileSystem. Both texts are split at "/"
    /// (backslashes count as "/"); `registered` covers `location` when it has
    /// no more parts and every part but its last equals the part of
    /// `location` in the same place. So "rec(pw)@ftp://10.0.0.5/rec/a" covers
    /// "rec(pw)@ftp://10.0.0.5/rec/b/x" (same scheme, credentials, server and
    /// parent directories), but not the same path with another password.
    /// An "ftp://" and an "ftps://" text never cover each other.
    /// Takes no lock; nothing is sent.
    /// \return true when covered.
    bool isSameDiskDir(const std::string& registered, const std::string& location);

    // Trust of an ftps store.
    // A store registered from "user(password)@ftps://server[:port]/path"
    // makes every connection (the main one and each open file's) secure with
    // explicit TLS: "AUTH TLS" after the greeting, a TLS 1.2 or newer
    // handshake, then the login, "PBSZ 0" and "PROT P"; every data connection
    // is TLS too. By default the server's certificate must chain to the
    // system's trust store and carry the server's name or address as the
    // location gives it. These calls change that for the store registered
    // under exactly `location`; connections made after the call use the new
    // trust (pooled ones keep theirs). A certificate that fails the check
    // fails init and open: the last error is kErrorTls with the reason and
    // the certificate's SHA-256 fingerprint, and nothing is sent after the
    // handshake. Registry lock; nothing is sent.

    /// Trusts exactly the certificate whose SHA-256 fingerprint (of its DER
    /// form) is `sha256`: 64 hexadecimal digits, any case, colons between
    /// pairs allowed ("AB:CD:..." as `ftpdisk check` prints it). Its chain,
    /// names and dates are not looked at: the way to trust a NAS's own
    /// self-signed certificate. Replaces any earlier trust call.
    /// \return 0; -1 when no ftps store is registered under exactly
    /// `location` or the text is not a fingerprint (kErrorBadArgument), or
    /// when the module is built without TLS (kErrorTls).
    int setTlsPinnedFingerprint(const std::string& location, const std::string& sha256);
    /// Adds the CA certificates of the PEM file `file` to the system's trust
    /// store for this store (the name check stays). Calls add up; a pin or a
    /// skipped verification before it is replaced.
    /// \return 0; -1 when no ftps store is registered under exactly
    /// `location` (kErrorBadArgument) or the file cannot be read as PEM
    /// certificates (kErrorLocalFile; the trust is unchanged).
    int addTlsCaFile(const std::string& location, const std::string& file);
    /// Encrypts without checking who is at the other end: any certificate is
    /// accepted. Protects against listening, not against a server that poses
    /// as the recorder's; `ftpdisk check` warns when it is in use.
    /// \return 0; -1 when no ftps store is registered under exactly
    /// `location` (kErrorBadArgument).
    int skipTlsCertificateVerification(const std::string& location);

    /// An empty registry. Use getInstance(): the module keeps one per process.
    FTPFileSystemManager();
    /// Releases every registered store.
    ~FTPFileSystemManager();

private:
    FTPFileSystemManager(const FTPFileSystemManager&);
    FTPFileSystemManager& operator=(const FTPFileSystemManager&);

    // The implementation of the ftps store registered under exactly
    // `location`, or null with the last error noted. REQUIRES: lock.
    FTPDISK_LOCAL FTPFileSystemImpl* tlsStore(const std::string& location) FTPDISK_REQUIRES(lock);

    std::map<std::string, SafePointer<FTPFileSystem> > fileSystems FTPDISK_GUARDED_BY(lock);
    KDMutex lock;
};

#endif  // FTPDISK_FILESYSTEM_FTPFILESYSTEMMANAGER_H
