// The store's side of the peer benchmark: one piece of work per run, done
// through the exported registry and store exactly as a recorder does (shared
// module, shared POSIX host library). bench/peers/peers.py starts it once per
// measurement, interleaved with the peer programs, and checks the bytes that
// arrived; this program only does the work and reports on standard output one
// line of "key=value" pairs.
//
//   ftpdisk_peers_store [--ca FILE] LOCATION WORK ARGUMENTS...
//
//   stream REMOTE BYTES [warm]  open, 64 KiB writes, close
//   put LOCAL REMOTE            Put
//   get REMOTE LOCAL            Get
//   many DIR COUNT BYTES        COUNT files: open, write, close
//   list DIR NAMES_OUT          getFileList, names to NAMES_OUT
//   handles DIR COUNT           RSS with COUNT handles open
//
// LOCATION is 'user(password)@ftp://127.0.0.1:port/', or with ftps:// for
// explicit FTPS, whose server certificate is then checked against the CA
// certificate FILE (addTlsCaFile) besides the system's. `seconds` covers init
// (connect and log in on the main connection) through uninit (QUIT); `work`
// is the operation alone. Handle operations (stream, put, get, many) run on a
// connection of their own, which the first open connects and logs in: their
// `work` thus covers one login, as a peer's own timer does. With `warm`,
// stream first opens and closes an empty REMOTE.warm, so that the timed
// stream finds a logged-in connection in the pool (the transfer alone).
//
// Bytes written by stream and many: 64 KiB blocks of a fixed pattern whose
// first eight bytes hold the block's number (little-endian) counted from the
// start of the file, and for many the file's number in the next eight, so
// that a block lost, doubled or moved is seen by the check.
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "filesystem/FTPFileSystemManager.h"

namespace {

const unsigned int kBlock = 65536;

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// What the calling thread's last call met, for a failure's message.
std::string lastError() {
    const FTPFileSystem::LastError error = FTPFileSystem::getLastError();
    return std::string(FTPFileSystem::errorKindName(error.kind)) + ": " + error.text;
}

// Resident set of this process in bytes, from /proc/self/statm.
long long residentBytes() {
    std::ifstream statm("/proc/self/statm");
    long long size = 0;
    long long resident = 0;
    statm >> size >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

// The pattern of every block: bytes that do not repeat within the block.
void fillPattern(std::vector<char>& block) {
    uint32_t x = 0x9E3779B9u;
    for (size_t i = 0; i < block.size(); ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        block[i] = static_cast<char>(x & 0xFF);
    }
}

void stamp(std::vector<char>& block, uint64_t number, unsigned offset) {
    for (unsigned i = 0; i < 8; ++i) {
        block[offset + i] = static_cast<char>((number >> (8 * i)) & 0xFF);
    }
}

// Writes all `len` bytes to `handle`, again on the remainder after a short
// write. False when a write fails.
bool writeAll(FTPFileSystem& store, int handle, const char* buf, unsigned int len) {
    unsigned int done = 0;
    while (done < len) {
        const int n = store.write(handle, buf + done, len - done);
        if (n <= 0) {
            return false;
        }
        done += static_cast<unsigned int>(n);
    }
    return true;
}

bool streamFile(FTPFileSystem& store, const std::string& remote, unsigned long long bytes,
                std::vector<char>& block, uint64_t fileNumber) {
    const int handle = store.open(remote.c_str(), 2);
    if (handle == -1) {
        std::fprintf(stderr, "open %s failed (%s)\n", remote.c_str(), lastError().c_str());
        return false;
    }
    bool ok = true;
    stamp(block, fileNumber, 8);
    for (unsigned long long at = 0, number = 0; at < bytes && ok; at += kBlock, ++number) {
        stamp(block, number, 0);
        const unsigned long long left = bytes - at;
        const unsigned int len = left < kBlock ? static_cast<unsigned int>(left) : kBlock;
        ok = writeAll(store, handle, &block[0], len);
    }
    if (store.close(handle) != 0) {
        std::fprintf(stderr, "close %s failed (%s)\n", remote.c_str(), lastError().c_str());
        ok = false;
    }
    return ok;
}

int usage() {
    std::fprintf(stderr,
                 "usage: ftpdisk_peers_store [--ca FILE] LOCATION stream REMOTE BYTES [warm]\n"
                 "       ftpdisk_peers_store [--ca FILE] LOCATION put LOCAL REMOTE\n"
                 "       ftpdisk_peers_store [--ca FILE] LOCATION get REMOTE LOCAL\n"
                 "       ftpdisk_peers_store [--ca FILE] LOCATION many DIR COUNT BYTES\n"
                 "       ftpdisk_peers_store [--ca FILE] LOCATION list DIR NAMES_OUT\n"
                 "       ftpdisk_peers_store [--ca FILE] LOCATION handles DIR COUNT\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    std::string caFile;
    if (words.size() >= 2 && words[0] == "--ca") {
        caFile = words[1];
        words.erase(words.begin(), words.begin() + 2);
    }
    if (words.size() < 2) {
        return usage();
    }
    const std::string location = words[0];
    const std::string work = words[1];
    std::vector<std::string> args(words.begin() + 2, words.end());
    const bool known =
        (work == "stream" && (args.size() == 2 || (args.size() == 3 && args[2] == "warm"))) ||
        (work == "put" && args.size() == 2) || (work == "get" && args.size() == 2) ||
        (work == "many" && args.size() == 3) || (work == "list" && args.size() == 2) ||
        (work == "handles" && args.size() == 2);
    if (!known) {
        return usage();
    }

    const long long rssStart = residentBytes();
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    SafePointer<FTPFileSystem> store;
    if (registry->addFTPFileSystem(location) != 0 ||
        registry->getFTPFileSystem(location, store) != 1) {
        std::fprintf(stderr, "the registry refused %s\n", location.c_str());
        return 1;
    }
    if (!caFile.empty() && registry->addTlsCaFile(location, caFile) != 0) {
        std::fprintf(stderr, "the registry refused the CA file %s for %s\n", caFile.c_str(),
                     location.c_str());
        return 1;
    }
    std::vector<char> block(kBlock);
    fillPattern(block);

    const double started = now();
    if (store->init() != 0) {
        std::fprintf(stderr, "init failed\n");
        return 1;
    }
    bool ok = true;
    if (work == "stream" && args.size() == 3) {
        ok = streamFile(*store, args[0] + ".warm", 0, block, 0);
    }
    const double workStarted = now();
    std::string extra;
    std::vector<std::string> names;
    if (work == "stream") {
        ok = ok && streamFile(*store, args[0], std::strtoull(args[1].c_str(), NULL, 10), block, 0);
    } else if (work == "put") {
        ok = store->Put(args[0].c_str(), args[1].c_str()) == 0;
        if (!ok) std::fprintf(stderr, "Put failed (%s)\n", lastError().c_str());
    } else if (work == "get") {
        ok = store->Get(args[1].c_str(), args[0].c_str()) == 0;
        if (!ok) std::fprintf(stderr, "Get failed (%s)\n", lastError().c_str());
    } else if (work == "many") {
        const long count = std::strtol(args[1].c_str(), NULL, 10);
        const unsigned long long bytes = std::strtoull(args[2].c_str(), NULL, 10);
        char name[64];
        for (long i = 0; i < count && ok; ++i) {
            std::snprintf(name, sizeof name, "/f%06ld.bin", i);
            ok = streamFile(*store, args[0] + name, bytes, block, static_cast<uint64_t>(i));
        }
    } else if (work == "list") {
        ok = store->getFileList(args[0].c_str(), names, "") != 0;
        extra = " names=" + std::to_string(names.size());
    } else if (work == "handles") {
        // The idle store: initialised, nothing open, nothing listed.
        const long long rssIdle = residentBytes();
        const long count = std::strtol(args[1].c_str(), NULL, 10);
        std::vector<int> handles;
        char name[64];
        for (long i = 0; i < count; ++i) {
            std::snprintf(name, sizeof name, "/h%06ld.bin", i);
            const int handle = store->open((args[0] + name).c_str(), 2);
            if (handle == -1) {
                std::fprintf(stderr, "open %ld failed\n", i);
                ok = false;
                break;
            }
            handles.push_back(handle);
        }
        const long long rssOpen = residentBytes();
        for (size_t i = 0; i < handles.size(); ++i) {
            if (store->close(handles[i]) != 0) {
                ok = false;
            }
        }
        extra = " rss_start=" + std::to_string(rssStart) + " rss_idle=" + std::to_string(rssIdle) +
                " rss_open=" + std::to_string(rssOpen) + " open=" + std::to_string(handles.size());
    }
    const double workEnded = now();
    store->uninit();
    const double ended = now();
    registry->deleteFileSystem(location);
    if (work == "list") {
        // Written once the clocks are read: checking them is the script's job.
        std::ofstream out(args[1].c_str(), std::ios::binary);
        for (size_t i = 0; i < names.size(); ++i) {
            out << names[i] << '\n';
        }
    }

    std::printf("ok=%d seconds=%.6f work=%.6f%s\n", ok ? 1 : 0, ended - started,
                workEnded - workStarted, extra.c_str());
    return ok ? 0 : 1;
}
