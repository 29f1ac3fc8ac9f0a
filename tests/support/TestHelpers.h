// Small helpers every test folder shares: bounded polling, deterministic test
// bytes, and lists of lines joined, cut and sorted. Header-only; any thread.
#ifndef FTPDISK_TESTS_SUPPORT_TESTHELPERS_H
#define FTPDISK_TESTS_SUPPORT_TESTHELPERS_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace ftptest {

// Polls `condition` every millisecond until it holds; false once `limit` has
// passed without it. The limit only keeps a broken build from hanging: no
// test relies on it passing.
template <class F>
bool eventually(F condition, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// `n` bytes of every value 0..255, the same for the same seed (std::mt19937).
inline std::string randomBytes(std::size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string bytes(n, '\0');
    for (char& c : bytes) c = static_cast<char>(gen() & 0xFF);
    return bytes;
}

// Bytes that differ at every position and between seeds (xorshift), so a
// shifted, dropped or repeated piece never compares equal.
inline std::string patternBytes(std::size_t size, uint32_t seed) {
    std::string bytes(size, '\0');
    uint32_t x = seed * 2654435761u + 1u;
    for (std::size_t i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        bytes[i] = static_cast<char>(x & 0xFF);
    }
    return bytes;
}

// The most bytes one loopback TCP connection can hold between a sender's
// write and the receiver's read: the largest send buffer plus the largest
// receive buffer the kernel may grow to (the third figure of tcp_wmem and
// tcp_rmem). An upload larger than this, cut by the receiver, must meet a
// failed write however the threads are scheduled; smaller ones may fit whole
// in the buffers before the receiver closes.
inline std::size_t loopbackBytesInFlight() {
    std::size_t total = 0;
    const char* const files[] = {"/proc/sys/net/ipv4/tcp_wmem", "/proc/sys/net/ipv4/tcp_rmem"};
    for (const char* name : files) {
        std::ifstream in(name);
        unsigned long long low = 0, initial = 0, most = 0;
        if (in >> low >> initial >> most) {
            total += static_cast<std::size_t>(most);
        } else {
            total += 64u * 1024 * 1024;  // no /proc: a bound larger than any default
        }
    }
    return total;
}

// The lines with `separator` between them: ({"a", "b"}, ",") gives "a,b".
inline std::string joined(const std::vector<std::string>& lines,
                          const std::string& separator = " | ") {
    std::string text;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i > 0) text += separator;
        text += lines[i];
    }
    return text;
}

// The elements of `all` from index `from` on (none when `from` is past the
// end): the commands a server received after a mark, say.
inline std::vector<std::string> tail(const std::vector<std::string>& all, std::size_t from) {
    if (from >= all.size()) return std::vector<std::string>();
    return std::vector<std::string>(all.begin() + static_cast<std::ptrdiff_t>(from), all.end());
}

// The lines in byte order.
inline std::vector<std::string> sorted(std::vector<std::string> lines) {
    std::sort(lines.begin(), lines.end());
    return lines;
}

}  // namespace ftptest

#endif  // FTPDISK_TESTS_SUPPORT_TESTHELPERS_H
