// The registry of stores, keyed by the location text as the host gave it.
#include "filesystem/FTPFileSystemManager.h"

#include <string>
#include <vector>

#include "filesystem/ExceptionBarrier.h"
#include "filesystem/FTPFileSystemImpl.h"
#include "host/StringHandler.h"
#include "location/FTPPath.h"

namespace {

// Source name and line numbers of the registry's lock sites, as the host's
// lock diagnostics have always known them.
const char* const kLockSource = "FTPFileSystemManager";
const int kAddLockLine = 28;
const int kDeleteLockLine = 50;
const int kGetLockLine = 67;

// Every store of the registry gets this many handles' worth of open-file
// table.
const int kStoreCapacity = 1024;

void splitLocation(const std::string& location, std::vector<std::string>& parts) {
    std::string text(location);
    for (std::string::size_type i = 0; i < text.size(); ++i) {
        if (text[i] == '\\') {
            text[i] = '/';
        }
    }
    StringHandler::split(text, parts, "/");
}

// "rec(pw)@ftp://10.0.0.5/rec/a" splits into "rec(pw)@ftp:", "", "10.0.0.5",
// "rec", "a"; it covers "rec(pw)@ftp://10.0.0.5/rec/b/x" (the first four parts
// agree) but not "rec(pw2)@ftp://10.0.0.5/rec/a".
// Whether `text` names its server with "ftps://" (0), "ftp://" (1), or
// neither (-1).
int schemeOf(const std::string& text) {
    std::string userInfo;
    std::string serverInfo;
    std::string server;
    std::string path;
    bool tls = false;
    if (!NS_FTPPath::splitInfo(text, userInfo, serverInfo) ||
        !NS_FTPPath::parseServerInfo(serverInfo, server, path, &tls))
        return -1;
    return tls ? 0 : 1;
}

bool coversLocation(const std::string& registered, const std::string& location) {
    // A store in clear never serves an ftps location, nor the other way
    // round, whatever the rest of the texts say.
    const int registeredScheme = schemeOf(registered);
    const int locationScheme = schemeOf(location);
    if (registeredScheme >= 0 && locationScheme >= 0 && registeredScheme != locationScheme) {
        return false;
    }
    std::vector<std::string> r;
    std::vector<std::string> l;
    splitLocation(registered, r);
    splitLocation(location, l);
    if (r.size() > l.size()) {
        return false;
    }
    if (r.size() == 1) {
        return true;
    }
    // The registered location's last component is deliberately not compared:
    // everything that shares its parent (same credentials, server and parent
    // directories) is the same disk.
    for (size_t i = 0; i + 1 < r.size(); ++i) {
        if (r[i] != l[i]) {
            return false;
        }
    }
    return true;
}

}  // namespace

FTPFileSystemManager* FTPFileSystemManager::getInstance() {
    // Made on first use (thread-safe), destroyed at process exit, which
    // releases every registered store. Should making it fail, the answer is
    // null and the next call tries again.
    try {
        static FTPFileSystemManager instance;
        return &instance;
    } catch (const std::exception&) {
        return nullptr;
    }
}

FTPFileSystemManager::FTPFileSystemManager() {}

FTPFileSystemManager::~FTPFileSystemManager() {}

// Each map operation runs behind the exception barrier: out of memory while
// parsing or registering is the call's failure value, never an exception in the
// recorder's thread. The bodies stay inside the exported calls (as lambdas)
// so that no helper becomes one more exported symbol.
int FTPFileSystemManager::addFTPFileSystem(const std::string& location) {
    return exportedCall(-1, kExportedAction, [&]() -> int {
        KDMutexLocker guard(lock, kLockSource, kAddLockLine);
        FTPPath parsed;
        if (parsed.create(location) == 0) {
            lasterror::note(lasterror::kBadArgument, "the text is not a location");
            return -1;
        }
        const std::string server = parsed.getServerAddress();
        const std::string user = parsed.getUserName();
        const std::string password = parsed.getPassword();
        // The path is part of the key only: a store serves a whole server
        // login, and the host names its directories with full paths.
        if (!FTPFileSystemImpl::textsFit(server.c_str(), user.c_str(), password.c_str())) {
            lasterror::note(lasterror::kBadArgument,
                            "the server, user or password is too long for the store");
            return -1;
        }
        if (fileSystems.find(location) != fileSystems.end()) {
            return 0;  // already registered: no second store, no reconnection
        }
        SafePointer<FTPFileSystem> store(
            new FTPFileSystem(server.c_str(), user.c_str(), password.c_str(), kStoreCapacity));
        if (parsed.isTls() && store->impl != nullptr) store->impl->tls().require();
        fileSystems.insert(std::make_pair(location, store));
        return 0;
    });
}

FTPFileSystemImpl* FTPFileSystemManager::tlsStore(const std::string& location) {
    std::map<std::string, SafePointer<FTPFileSystem> >::iterator it = fileSystems.find(location);
    if (it == fileSystems.end() || it->second->impl == nullptr) {
        lasterror::note(lasterror::kBadArgument, "no store is registered under this text");
        return nullptr;
    }
    if (!it->second->impl->tls().required()) {
        lasterror::note(lasterror::kBadArgument, "the location is not an ftps location");
        return nullptr;
    }
    return it->second->impl;
}

int FTPFileSystemManager::setTlsPinnedFingerprint(const std::string& location,
                                                  const std::string& sha256) {
    return exportedCall(-1, kExportedAction, [&]() -> int {
        KDMutexLocker guard(lock, kLockSource, __LINE__);
        FTPFileSystemImpl* store = tlsStore(location);
        if (store == nullptr) return -1;
        const int pinned = store->tls().pin(sha256);
        if (pinned == -1) {
            lasterror::note(lasterror::kBadArgument,
                            "not a SHA-256 fingerprint (64 hexadecimal digits, colons allowed)");
            return -1;
        }
        if (pinned != 0) {
            lasterror::note(lasterror::kTls, "TLS is not built into this module");
            return -1;
        }
        return 0;
    });
}

int FTPFileSystemManager::addTlsCaFile(const std::string& location, const std::string& file) {
    return exportedCall(-1, kExportedAction, [&]() -> int {
        KDMutexLocker guard(lock, kLockSource, __LINE__);
        FTPFileSystemImpl* store = tlsStore(location);
        if (store == nullptr) return -1;
        std::string why;
        if (store->tls().addCaFile(file, &why) != 0) {
            lasterror::note(TlsContext::builtIn() ? lasterror::kLocalFile : lasterror::kTls,
                            why.c_str());
            return -1;
        }
        return 0;
    });
}

int FTPFileSystemManager::skipTlsCertificateVerification(const std::string& location) {
    return exportedCall(-1, kExportedAction, [&]() -> int {
        KDMutexLocker guard(lock, kLockSource, __LINE__);
        FTPFileSystemImpl* store = tlsStore(location);
        if (store == nullptr) return -1;
        if (store->tls().skipVerification() != 0) {
            lasterror::note(lasterror::kTls, "TLS is not built into this module");
            return -1;
        }
        return 0;
    });
}

int FTPFileSystemManager::getFTPFileSystem(const std::string& location,
                                           SafePointer<FTPFileSystem>& out) {
    return exportedCall(0, kExportedAction, [&]() -> int {
        KDMutexLocker guard(lock, kLockSource, kGetLockLine);
        // A covering test, not an exact lookup: any path below a registered
        // location finds that location's store.
        for (std::map<std::string, SafePointer<FTPFileSystem> >::iterator it = fileSystems.begin();
             it != fileSystems.end(); ++it) {
            if (coversLocation(it->first, location)) {
                out = it->second;
                return 1;
            }
        }
        lasterror::note(lasterror::kBadArgument, "no registered location covers it");
        return 0;
    });
}

int FTPFileSystemManager::deleteFileSystem(const std::string& location) {
    return exportedCall(-1, kExportedAction, [&]() -> int {
        KDMutexLocker guard(lock, kLockSource, kDeleteLockLine);
        std::map<std::string, SafePointer<FTPFileSystem> >::iterator it =
            fileSystems.find(location);
        if (it == fileSystems.end()) {
            lasterror::note(lasterror::kBadArgument, "no store is registered under this text");
            return -1;
        }
        // Dropping the registry's reference destroys the store when nobody
        // else holds it, which runs its uninit (QUIT) under this lock: the
        // registry lock comes before any store lock.
        fileSystems.erase(it);
        return 0;
    });
}

bool FTPFileSystemManager::isSameDiskDir(const std::string& registered,
                                         const std::string& location) {
    return exportedCall(false, kExportedQuestion,
                        [&] { return coversLocation(registered, location); });
}
