// A KDMutex for one test program that records every Lock and Unlock with the
// source name and line the caller gave, and what the calling thread already
// held. Linking RecordingMutex.cpp into a test replaces the host library's
// KDMutex in that program only, so lock sites and lock order become
// observable.
#ifndef FTPDISK_TESTS_FILESYSTEM_RECORDINGMUTEX_H
#define FTPDISK_TESTS_FILESYSTEM_RECORDINGMUTEX_H

#include <string>
#include <vector>

namespace lockrecord {

struct Held {
    const void* mutex;
    std::string file;  // the source name it was locked with
};

struct Event {
    const void* mutex;
    std::string file;
    int line;
    bool lock;                 // false for Unlock
    std::vector<Held> before;  // what this thread held just before a Lock
};

// Starts a fresh recording (all threads).
void start();
// Stops recording and returns the events in the order they happened.
std::vector<Event> stop();

// Whether some thread holds, at this moment, a mutex it locked with the source
// name `file`. Tracked whether or not a recording runs.
bool heldAnywhere(const std::string& file);

}  // namespace lockrecord

#endif  // FTPDISK_TESTS_FILESYSTEM_RECORDINGMUTEX_H
