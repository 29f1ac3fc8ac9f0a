// TlsSetting: a store's choice of TLS, shared by the threads that make its
// connections (the main connection's init, each open file's connect) and the
// registry's trust calls. Holds whether the store is ftps, how it trusts the
// server, and the context made from that trust; connections made after a
// change use the new context, those already made keep theirs.
#ifndef FTPDISK_FTP_TLSSETTING_H
#define FTPDISK_FTP_TLSSETTING_H

#include <memory>
#include <string>

#include "foundation/ThreadAnnotations.h"
#include "ftp/TlsContext.h"
#include "host/technic/KDMutex.h"

class FTPTool;

class TlsSetting {
public:
    TlsSetting();

    // Makes every later connection speak TLS, with the trust given so far
    // (the system's store by default).
    void require();
    bool required();
    // Replaces the trust: a pinned fingerprint, the system's store with one
    // more CA file, or no verification. 0 when a context could be made from
    // it; -1 with the reason in *why otherwise (the previous trust stays).
    // pin gives -1 for a text that is not a fingerprint and -2 when no
    // context can be made (TLS not built in).
    int pin(const std::string& sha256);
    int addCaFile(const std::string& file, std::string* why);
    int skipVerification();
    // Readies `tool` for its next connect: TLS with the current context, or
    // in clear. False, with the thread's last error noted (kind TLS), when
    // TLS is required and no context could be made (not built in).
    bool apply(FTPTool& tool);

private:
    TlsSetting(const TlsSetting&);
    TlsSetting& operator=(const TlsSetting&);

    // A context for `next`; on success both become current. REQUIRES: lock.
    int remake(const TlsTrust& next, std::string* why) FTPDISK_REQUIRES(lock);

    KDMutex lock;
    bool wanted FTPDISK_GUARDED_BY(lock);
    TlsTrust trust FTPDISK_GUARDED_BY(lock);
    std::shared_ptr<TlsContext> context FTPDISK_GUARDED_BY(lock);
    std::string problem FTPDISK_GUARDED_BY(lock);
};

#endif  // FTPDISK_FTP_TLSSETTING_H
