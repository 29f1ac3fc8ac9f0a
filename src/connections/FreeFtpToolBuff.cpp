#include "connections/FreeFtpToolBuff.h"

#include <exception>

#include "host/GThread.h"
#include "host/KDTime.h"
#include "host/KadmorTime.h"

namespace {

// Source name under which the pool's lock is taken, for the host's lock
// diagnostics.
const char* const kLockSource = "FreeFtpToolBuff";

}  // namespace

const double FreeFtpToolBuff::kIdleSeconds = 30.0;
const long FreeFtpToolBuff::kPassPauseSeconds = 2;

// --- FreeFTPInfo ------------------------------------------------------------

FreeFTPInfo::FreeFTPInfo() : beginFreeTime(0.0) {}

// Only releases the connection: whether it is quit is decided by whoever holds
// the last reference (the FTPTool destructor quits a live connection).
FreeFTPInfo::~FreeFTPInfo() {}

void FreeFTPInfo::setBeginFreeTime(double seconds) { beginFreeTime = seconds; }

double FreeFTPInfo::getBeginFreeTime() { return beginFreeTime; }

void FreeFTPInfo::setFTPTool(SafePointer<FTPTool>& tool) { ftpTool = tool; }

SafePointer<FTPTool>& FreeFTPInfo::getFTPTool() { return ftpTool; }

// --- FreeFtpToolBuff --------------------------------------------------------

FreeFtpToolBuff::FreeFtpToolBuff() : monitorThread(nullptr), paused(true) {
    // The thread is only created here; the open-file table starts it.
    monitorThread =
        new GThread(make_function(&FreeFtpToolBuff::theThread, this), "detectStateThread",
                    make_function(&GThread::emptyFun), make_function(&GThread::emptyFun));
}

FreeFtpToolBuff::~FreeFtpToolBuff() {
    // The monitor calls into this object: it must be joined before any member
    // goes. Pooled connections are not quit here; releasing the list drops the
    // last references and each FTPTool destructor quits its connection.
    stop();
    delete monitorThread;
    monitorThread = nullptr;
}

int FreeFtpToolBuff::start() {
    if (monitorThread->running() != 0) {
        return 0;
    }
    if (monitorThread->start() == 0) {
        return -1;
    }
    paused = false;
    return 0;
}

int FreeFtpToolBuff::stop() {
    // Deliberately false, not true: `paused` only ever guards the time before
    // the first successful start.
    paused = false;
    monitorThread->stop();
    return 0;
}

void FreeFtpToolBuff::addFreeFTPTool(SafePointer<FTPTool>& tool) {
    // The moment is taken before waiting for the lock, so a caller held up by a
    // slow monitor pass does not make its connection look younger.
    const double now = KDTime::getSeconds();
    SafePointer<FreeFTPInfo> info(new FreeFTPInfo);
    info->setBeginFreeTime(now);
    info->setFTPTool(tool);

    KDMutexLocker guard(lock, kLockSource, __LINE__);
    idleList.push_back(info);
}

bool FreeFtpToolBuff::getFreeFTPTool(SafePointer<FTPTool>& out) {
    KDMutexLocker guard(lock, kLockSource, __LINE__);
    if (idleList.empty()) {
        return false;
    }
    // Oldest first, handed out as it is: no test command, no idle-time check.
    out = idleList.front()->getFTPTool();
    idleList.erase(idleList.begin());
    return true;
}

int FreeFtpToolBuff::theThread() {
    if (!paused) {
        // Nothing may end the recorder's process from this thread: a failure
        // of one pass (memory, or a misused pointer) leaves the rest of the
        // list for the next pass.
        try {
            expireIdle();
        } catch (const std::exception&) {
        }
    }
    KadmorTime::wait(KadmorTime(kPassPauseSeconds, 0));
    return 0;
}

void FreeFtpToolBuff::expireIdle() {
    // Expired entries are taken off the list under the lock and quit after it
    // is released: a server that answers "QUIT" slowly, or never ends its
    // reply, then holds up only this thread, never an open or close waiting
    // for the pool. Declared before the lock, the list is also released after
    // it should anything throw.
    std::vector<SafePointer<FTPTool> > expired;
    {
        KDMutexLocker guard(lock, kLockSource, __LINE__);
        const double now = KDTime::getSeconds();
        std::vector<SafePointer<FreeFTPInfo> >::iterator entry = idleList.begin();
        while (entry != idleList.end()) {
            if (now - (*entry)->getBeginFreeTime() < kIdleSeconds) {
                ++entry;
                continue;
            }
            expired.push_back((*entry)->getFTPTool());
            entry = idleList.erase(entry);
        }
    }
    for (size_t i = 0; i < expired.size(); ++i) {
        // Its result is of no interest: the entry is gone either way. A
        // connection whose "QUIT" was refused is released by its destructor
        // when the list goes.
        expired[i]->quit();
    }
}

unsigned int FreeFtpToolBuff::idleCount() {
    KDMutexLocker guard(lock, kLockSource, __LINE__);
    return static_cast<unsigned int>(idleList.size());
}
