#include "ftp/TlsSetting.h"

#include "foundation/LastError.h"
#include "ftp/FTPTool.h"

namespace {
const char* const kLockSource = "TlsSetting.cpp";
}

TlsSetting::TlsSetting() : wanted(false) {}

void TlsSetting::require() {
    KDMutexLocker guard(lock, kLockSource, __LINE__);
    if (wanted) return;
    wanted = true;
    // The context is made at once, so the first connect does not pay for it
    // and a build without TLS says so from the first call on.
    (void)remake(trust, &problem);
}

bool TlsSetting::required() {
    KDMutexLocker guard(lock, kLockSource, __LINE__);
    return wanted;
}

int TlsSetting::pin(const std::string& sha256) {
    TlsTrust next;
    next.mode = TlsTrust::kPinned;
    if (!tlsParseFingerprint(sha256, &next.pinnedSha256)) return -1;
    KDMutexLocker guard(lock, kLockSource, __LINE__);
    std::string why;
    return remake(next, &why) == 0 ? 0 : -2;
}

int TlsSetting::addCaFile(const std::string& file, std::string* why) {
    KDMutexLocker guard(lock, kLockSource, __LINE__);
    TlsTrust next = trust;
    if (next.mode != TlsTrust::kSystemStore) next = TlsTrust();
    next.caFiles.push_back(file);
    return remake(next, why);
}

int TlsSetting::skipVerification() {
    TlsTrust next;
    next.mode = TlsTrust::kUnverified;
    KDMutexLocker guard(lock, kLockSource, __LINE__);
    std::string why;
    return remake(next, &why);
}

int TlsSetting::remake(const TlsTrust& next, std::string* why) {
    std::string reason;
    std::shared_ptr<TlsContext> made = TlsContext::make(next, &reason);
    if (!made) {
        if (why != nullptr) *why = reason;
        // Nothing usable yet: the reason is what every connect will say.
        if (!context) problem = reason;
        return -1;
    }
    trust = next;
    context = made;
    problem.clear();
    return 0;
}

bool TlsSetting::apply(FTPTool& tool) {
    std::shared_ptr<TlsContext> current;
    std::string why;
    bool needed;
    {
        KDMutexLocker guard(lock, kLockSource, __LINE__);
        needed = wanted;
        current = context;
        why = problem;
    }
    tool.useTls(needed ? current : std::shared_ptr<TlsContext>());
    if (needed && !current) {
        lasterror::note(lasterror::kTls, why.empty() ? "TLS cannot start" : why.c_str());
        return false;
    }
    return true;
}
