#include "support/NetLab.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace ftptest {

namespace {

using Clock = std::chrono::steady_clock;

// The loop never sleeps longer than this, so stop() and the setters are
// noticed within one tick even if a wake-up byte were lost.
constexpr int kTickMs = 50;
// Bytes one direction of a connection holds before the lab stops reading its
// sender: with latency this bounds the bytes in flight, as a TCP window does.
constexpr size_t kQueueLimit = 4u << 20;
constexpr size_t kReadChunk = 64 * 1024;
// A held reply line longer than this is not a reply the lab can rewrite; it
// is forwarded as it is.
constexpr size_t kLineLimit = 8192;
// How long a reset waits for the bytes before it to leave the lab's send
// buffer (the peer does not read) before it resets anyway.
constexpr Millis kResetDrainLimit{2000};
constexpr Millis kRequestLimit{10000};
// Accepts handled per listener and loop turn, so a burst of clients cannot
// starve the traffic of open connections.
constexpr int kAcceptBurst = 64;

constexpr int kControl = 0;
constexpr int kData = 1;
constexpr int kToServer = 0;  // bytes read from the client, written to the server
constexpr int kToClient = 1;

bool hasWay(Way set, int way) { return (static_cast<int>(set) & (1 << way)) != 0; }
bool hasTraffic(Traffic set, int traffic) { return (static_cast<int>(set) & (1 << traffic)) != 0; }

void closeFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

// Closes with SO_LINGER 0: the kernel drops what is unsent and the peer gets
// a reset instead of the end of the stream.
void resetFd(int& fd) {
    if (fd < 0) return;
    linger l{};
    l.l_onoff = 1;
    l.l_linger = 0;
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    closeFd(fd);
}

// Small writes (reply lines, pieces the sender paced) go out at once, as they
// came in: Nagle's delay would add its own latency to the lab's.
void setNoDelay(int fd) {
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

std::string addressText(const in_addr& host) {
    char text[INET_ADDRSTRLEN] = "?";
    ::inet_ntop(AF_INET, &host, text, sizeof text);
    return text;
}

// A non-blocking listening socket on host:port (0 = ephemeral); -1 with
// *why set when it cannot be opened. *bound receives the port.
int listenOn(const in_addr& host, uint16_t port, int backlog, uint16_t* bound, std::string* why) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (why != nullptr) *why = std::string("socket: ") + std::strerror(errno);
        return -1;
    }
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = host;
    address.sin_port = htons(port);
    socklen_t length = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, backlog) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (why != nullptr)
            *why = "cannot listen on " + addressText(host) + ":" + std::to_string(port) + ": " +
                   std::strerror(errno);
        ::close(fd);
        return -1;
    }
    *bound = ntohs(address.sin_port);
    return fd;
}

// "127.0.0.1:2121" or "localhost:2121" -> address; false with *why set for
// anything else, including hosts outside 127.0.0.0/8.
bool parseUpstream(const std::string& text, sockaddr_in* address, std::string* why) {
    size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 >= text.size()) {
        *why = "upstream must be host:port, got \"" + text + "\"";
        return false;
    }
    std::string host = text.substr(0, colon);
    std::string portText = text.substr(colon + 1);
    if (host == "localhost") host = "127.0.0.1";
    *address = sockaddr_in{};
    address->sin_family = AF_INET;
    if (::inet_pton(AF_INET, host.c_str(), &address->sin_addr) != 1 ||
        (ntohl(address->sin_addr.s_addr) >> 24) != 127) {
        *why = "upstream host must be a 127.x.x.x address, got \"" + host + "\"";
        return false;
    }
    char* end = nullptr;
    unsigned long port = std::strtoul(portText.c_str(), &end, 10);
    if (end == portText.c_str() || *end != '\0' || port == 0 || port > 65535) {
        *why = "upstream port must be 1..65535, got \"" + portText + "\"";
        return false;
    }
    address->sin_port = htons(static_cast<uint16_t>(port));
    return true;
}

// Where the six numbers of a passive reply stand:
//   "227 Entering Passive Mode (127,0,0,1,4,1)." -> numbers 127 0 0 1 4 1,
//   span from the '1' of "127" to the end of the final "1".
// False when the line holds no run of six comma-separated numbers of 0..255.
bool findPassiveNumbers(const std::string& line, unsigned numbers[6], size_t* begin, size_t* end) {
    for (size_t start = 3; start < line.size(); ++start) {
        if (!std::isdigit(static_cast<unsigned char>(line[start])) ||
            std::isdigit(static_cast<unsigned char>(line[start - 1])))
            continue;
        size_t at = start;
        int found = 0;
        while (found < 6) {
            size_t digits = 0;
            unsigned value = 0;
            while (at < line.size() && std::isdigit(static_cast<unsigned char>(line[at])) &&
                   digits < 4) {
                value = value * 10 + static_cast<unsigned>(line[at] - '0');
                ++at;
                ++digits;
            }
            if (digits == 0 || value > 255) break;
            numbers[found++] = value;
            if (found < 6) {
                if (at >= line.size() || line[at] != ',') break;
                ++at;
            }
        }
        if (found == 6 &&
            (at >= line.size() || !std::isdigit(static_cast<unsigned char>(line[at])))) {
            *begin = start;
            *end = at;
            return true;
        }
    }
    return false;
}

struct Settings {
    Micros latency[2][2] = {};  // [traffic][way]
    uint64_t rate[2] = {0, 0};  // [way], bytes per second
    // [traffic][way]; min() = not stalled, max() = until released.
    Clock::time_point stallUntil[2][2] = {{Clock::time_point::min(), Clock::time_point::min()},
                                          {Clock::time_point::min(), Clock::time_point::min()}};
    int maxConnections = 0;
    std::string limitReply;
    bool swallowGreeting = false;
    std::shared_ptr<const ReplyRewriter> rewriter;
    // Where control connections accepted from now on are forwarded (and the
    // address that stands in for a non-loopback passive address).
    sockaddr_in upstream{};
};

struct ResetRule {
    bool armed = false;
    bool every = false;
    Way way = Way::kBoth;
    uint64_t bytes = 0;
};

struct Chunk {
    Clock::time_point due;
    std::string bytes;
    size_t offset = 0;
};

// One direction of a forwarded connection.
struct Half {
    std::deque<Chunk> queue;
    size_t queued = 0;
    bool srcEnded = false;   // the sender's end of stream (or error) was read
    bool srcFailed = false;  // ... and it was an error
    bool dstShut = false;    // the end of stream was passed on
    bool wantWrite = false;  // the receiver's socket was full
    uint64_t delivered = 0;
    // Rate limiting: bytes the shared link has carried for this half and
    // that may be sent now, and bytes it is carrying until reservedUntil.
    uint64_t paid = 0;
    uint64_t reserved = 0;
    Clock::time_point reservedUntil;
};

// Follows server reply lines on a control connection:
//   "220-Welcome\r\n" "220 ready\r\n" is one reply (multi-line, code 220).
struct ReplyStream {
    enum Mode { kLineStart, kUndecided, kHold, kPass };
    Mode mode = kLineStart;
    std::string held;  // bytes of the current line not forwarded yet
    std::string head;  // first four bytes of the current line
    bool multiLine = false;
    std::string code;
    uint64_t finishedReplies = 0;
    bool closed = false;  // a closing edit was sent; nothing more passes
};

struct Pair {
    int traffic = kControl;
    int fd[2] = {-1, -1};  // [0] client, [1] server
    bool connecting = false;
    bool blackhole = false;
    Half half[2];  // [kToServer], [kToClient]
    bool resetArmed = false;
    Way resetWay = Way::kBoth;
    uint64_t resetBytes = 0;
    bool resetPending = false;
    Clock::time_point resetDeadline;
    bool closeAfterDrain = false;
    bool done = false;
    bool swallowGreeting = false;
    ReplyStream replies;
    int dataListenFd = -1;
    sockaddr_in dataUpstream{};
    // Where delivered bytes are copied (NetLabOptions::record); guarded by
    // the engine's recordMutex_.
    std::shared_ptr<NetLabRecording> recording;
    // Index into the poll set of this turn, -1 when not polled.
    int pollIndex[3] = {-1, -1, -1};  // client, server, data listener
};

}  // namespace

class NetLab::Engine {
public:
    Engine(int listenFd, uint16_t port, const sockaddr_in& upstream, const in_addr& host,
           const NetLabOptions& options)
        : listenFd_(listenFd),
          port_(port),
          host_(host),
          readReplies_(options.readReplies),
          record_(options.record),
          recordLimit_(options.recordLimit) {
        settings_.upstream = upstream;
        local_.upstream = upstream;
    }

    // Opens the listeners of the forwarded ports; false with *why set when
    // one cannot be opened.
    bool listenForwarded(const std::vector<uint16_t>& ports, std::string* why) {
        for (uint16_t port : ports) {
            uint16_t bound = 0;
            int fd = listenOn(host_, port, 16, &bound, why);
            if (fd < 0) {
                for (Forward& f : forwards_) closeFd(f.fd);
                forwards_.clear();
                closeFd(listenFd_);
                return false;
            }
            forwards_.push_back({fd, port, -1});
        }
        return true;
    }

    std::vector<NetLabRecording> recorded() const {
        std::lock_guard<std::mutex> lock(recordMutex_);
        std::vector<NetLabRecording> copy;
        copy.reserve(recordings_.size());
        for (const auto& r : recordings_) copy.push_back(*r);
        return copy;
    }

    ~Engine() {
        stop();
        // Left open only when the loop never ran.
        closeFd(listenFd_);
        for (Forward& f : forwards_) closeFd(f.fd);
    }

    // False with *why set when the wake-up pipe cannot be made.
    bool start(std::string* why) {
        int fds[2];
        if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
            *why = std::string("pipe: ") + std::strerror(errno);
            closeFd(listenFd_);
            return false;
        }
        wakeRead_ = fds[0];
        // The loop's first step takes mutex_, so it starts once these are set.
        std::lock_guard<std::mutex> lock(mutex_);
        wakeWrite_ = fds[1];
        thread_ = std::thread(&Engine::run, this);
        loopThread_ = thread_.get_id();
        return true;
    }

    void stop() {
        std::lock_guard<std::mutex> joinLock(joinMutex_);
        if (!thread_.joinable()) return;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            wake();
        }
        changed_.notify_all();
        thread_.join();
        std::lock_guard<std::mutex> lock(mutex_);
        closeFd(wakeRead_);
        closeFd(wakeWrite_);
    }

    template <typename Change>
    void change(Change&& apply) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            apply(settings_, resetRules_);
            ++version_;
            versionSeen_.store(version_);
            wake();
        }
    }

    enum RequestKind { kDownRefuse, kDownBlackhole, kUp, kDropAll };

    // Runs `kind` on the loop and returns its result, or `stopped` when the
    // loop is not running (or does not answer within kRequestLimit).
    int request(RequestKind kind, int stopped) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (stopping_ || loopEnded_) return stopped;
        uint64_t id = ++requested_;
        // Called by the rewriter on the loop itself: the loop carries it out
        // after the current turn; nobody can wait for that here.
        bool onLoop = std::this_thread::get_id() == loopThread_;
        requests_.push_back({id, kind, !onLoop});
        wake();
        if (onLoop) return 1;
        bool answered =
            changed_.wait_for(lock, kRequestLimit, [&] { return completed_ >= id || loopEnded_; });
        if (!answered || completed_ < id) return stopped;
        auto it = results_.find(id);
        int result = it == results_.end() ? stopped : it->second;
        if (it != results_.end()) results_.erase(it);
        return result;
    }

    NetLabCounters counters() const {
        NetLabCounters c;
        c.accepted = accepted_.load();
        c.refused = refused_.load();
        c.upstreamFailures = upstreamFailures_.load();
        c.dataConnections = dataConnections_.load();
        c.passiveRewrites = passiveRewrites_.load();
        c.blackholed = blackholed_.load();
        c.resets = resets_.load();
        c.controlToServer = bytes_[kControl][kToServer].load();
        c.controlToClient = bytes_[kControl][kToClient].load();
        c.dataToServer = bytes_[kData][kToServer].load();
        c.dataToClient = bytes_[kData][kToClient].load();
        c.openControl = open_[kControl].load();
        c.openData = open_[kData].load();
        return c;
    }

private:
    struct Request {
        uint64_t id;
        RequestKind kind;
        bool awaited;  // a caller waits for the result
    };

    // REQUIRES: mutex_ is held.
    void wake() {
        if (wakeWrite_ < 0) return;
        char byte = 1;
        // A full pipe already holds a wake-up.
        ssize_t ignored = ::write(wakeWrite_, &byte, 1);
        (void)ignored;
    }

    void run();
    void refreshSettings();
    void handleRequests();
    int execute(RequestKind kind);
    Clock::time_point buildPollSet(Clock::time_point now);
    void acceptControl();
    void acceptData(Pair& control);
    void acceptForwarded(size_t index);
    void startData(int fd, const sockaddr_in& target);
    void record(Pair& p, int way, const char* bytes, size_t length);
    Pair* addPair(int traffic, int clientFd);
    bool connectUpstream(Pair& p, const sockaddr_in& address);
    void established(Pair& p);
    ResetRule takeResetRule(int traffic);
    void service(Pair& p);
    void serviceBlackhole(Pair& p);
    void readHalf(Pair& p, int way);
    void deliver(Pair& p, int way);
    void passEnd(Pair& p, int way);
    bool stalled(const Pair& p, int way, Clock::time_point now) const;
    void checkReset(Pair& p);
    void finishIfDone(Pair& p);
    void closePair(Pair& p);
    void abortPair(Pair& p, bool counted);
    std::string feedReplies(Pair& p, const char* data, size_t length);
    void emitLine(Pair& p, const std::string& line, std::string* out);
    void endLine(ReplyStream& rs);
    std::string rewritePassive(Pair& p, const std::string& text);
    short revents(const Pair& p, int slot) const {
        return p.pollIndex[slot] < 0 ? 0 : pollSet_[p.pollIndex[slot]].revents;
    }

    // --- Shared with the callers -------------------------------------------
    std::mutex joinMutex_;  // serialises stop(); taken before mutex_
    std::thread thread_;
    int wakeRead_ = -1;  // read by the loop, closed after the join

    // Lock order: joinMutex_, then mutex_. The loop never holds mutex_ while
    // it calls the rewriter or touches a socket other than the wake-up pipe.

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::thread::id loopThread_;
    int wakeWrite_ = -1;
    bool stopping_ = false;
    bool loopEnded_ = false;
    Settings settings_;
    ResetRule resetRules_[2];
    uint64_t version_ = 0;
    std::deque<Request> requests_;
    uint64_t requested_ = 0;
    uint64_t completed_ = 0;
    std::map<uint64_t, int> results_;

    // Lets the loop skip the lock while nothing changed.
    std::atomic<uint64_t> versionSeen_{0};

    std::atomic<uint64_t> accepted_{0};
    std::atomic<uint64_t> refused_{0};
    std::atomic<uint64_t> upstreamFailures_{0};
    std::atomic<uint64_t> dataConnections_{0};
    std::atomic<uint64_t> passiveRewrites_{0};
    std::atomic<uint64_t> blackholed_{0};
    std::atomic<uint64_t> resets_{0};
    std::atomic<uint64_t> bytes_[2][2] = {};
    std::atomic<int> open_[2] = {};

    // Recordings of every connection, in the order accepted.
    mutable std::mutex recordMutex_;
    std::vector<std::shared_ptr<NetLabRecording>> recordings_;

    // --- Owned by the loop thread ------------------------------------------
    struct Forward {
        int fd;
        uint16_t port;
        int pollIndex;
    };
    int listenFd_;
    const uint16_t port_;
    const in_addr host_;
    const bool readReplies_;
    const bool record_;
    const size_t recordLimit_;
    std::vector<Forward> forwards_;
    Settings local_;
    uint64_t localVersion_ = 0;
    bool refusing_ = false;   // link down, listener closed
    bool blackhole_ = false;  // link down, dead link
    Clock::time_point linkFreeAt_[2];
    std::vector<std::unique_ptr<Pair>> pairs_;
    std::vector<pollfd> pollSet_;
    int listenIndex_ = -1;
    std::vector<char> scratch_ = std::vector<char>(kReadChunk);
};

void NetLab::Engine::run() {
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) break;
        }
        Clock::time_point now = Clock::now();
        Clock::time_point wakeAt = buildPollSet(now);
        auto wait = std::chrono::duration_cast<std::chrono::microseconds>(wakeAt - now).count();
        int timeout =
            wait <= 0 ? 0 : static_cast<int>(std::min<long long>((wait + 999) / 1000, kTickMs));
        int n = ::poll(pollSet_.data(), pollSet_.size(), timeout);
        if (n < 0 && errno != EINTR) {
            // Nothing sensible is left to wait on; keep the tick so stop()
            // is still noticed.
            std::this_thread::sleep_for(Millis(kTickMs));
            continue;
        }
        if (n < 0) continue;
        char drain[64];
        while (::read(wakeRead_, drain, sizeof drain) > 0) {
        }
        // Settings are read again before every accept, read and delivery, so
        // that a setter that returned before the bytes (or the client) it
        // concerns arrived is seen when they are handled.
        refreshSettings();
        handleRequests();
        if (listenIndex_ >= 0 && (pollSet_[listenIndex_].revents & POLLIN) != 0) acceptControl();
        for (size_t i = 0; i < forwards_.size(); ++i) {
            const Forward& f = forwards_[i];
            if (f.pollIndex >= 0 && (pollSet_[f.pollIndex].revents & POLLIN) != 0)
                acceptForwarded(i);
        }
        // acceptControl and acceptData append; the new pairs were not polled
        // (their pollIndex is -1) and are first serviced next turn.
        size_t count = pairs_.size();
        for (size_t i = 0; i < count; ++i) {
            Pair& p = *pairs_[i];
            if (!p.done && p.dataListenFd >= 0 && (revents(p, 2) & POLLIN) != 0) acceptData(p);
        }
        for (size_t i = 0; i < count; ++i) {
            if (!pairs_[i]->done) service(*pairs_[i]);
        }
        pairs_.erase(std::remove_if(pairs_.begin(), pairs_.end(),
                                    [](const std::unique_ptr<Pair>& p) { return p->done; }),
                     pairs_.end());
    }
    for (auto& p : pairs_) {
        if (!p->done) closePair(*p);
    }
    pairs_.clear();
    closeFd(listenFd_);
    for (Forward& f : forwards_) closeFd(f.fd);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        loopEnded_ = true;
    }
    changed_.notify_all();
}

void NetLab::Engine::refreshSettings() {
    if (versionSeen_.load() == localVersion_) return;
    uint64_t oldRate[2] = {local_.rate[0], local_.rate[1]};
    {
        std::lock_guard<std::mutex> lock(mutex_);
        local_ = settings_;
        localVersion_ = version_;
    }
    // A new rate starts a new link: time booked at the old rate (possibly
    // far ahead for a slow link) no longer holds anyone back.
    for (int way = 0; way < 2; ++way) {
        if (local_.rate[way] == oldRate[way]) continue;
        linkFreeAt_[way] = Clock::time_point();
        for (auto& p : pairs_) {
            p->half[way].paid = 0;
            p->half[way].reserved = 0;
        }
    }
}

void NetLab::Engine::handleRequests() {
    std::deque<Request> work;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        work.swap(requests_);
    }
    if (work.empty()) return;
    for (const Request& r : work) {
        int result = execute(r.kind);
        std::lock_guard<std::mutex> lock(mutex_);
        if (r.awaited) results_[r.id] = result;
        completed_ = r.id;
    }
    changed_.notify_all();
}

int NetLab::Engine::execute(RequestKind kind) {
    switch (kind) {
        case kDownRefuse:
            refusing_ = true;
            blackhole_ = false;
            closeFd(listenFd_);
            for (Forward& f : forwards_) closeFd(f.fd);
            for (auto& p : pairs_) {
                if (!p->done) abortPair(*p, true);
            }
            return 1;
        case kDownBlackhole: blackhole_ = true; return 1;
        case kUp: {
            blackhole_ = false;
            if (listenFd_ < 0) {
                uint16_t bound = 0;
                listenFd_ = listenOn(host_, port_, SOMAXCONN, &bound, nullptr);
                if (listenFd_ < 0) return 0;
            }
            for (Forward& f : forwards_) {
                uint16_t bound = 0;
                if (f.fd < 0) f.fd = listenOn(host_, f.port, 16, &bound, nullptr);
                if (f.fd < 0) return 0;
            }
            refusing_ = false;
            return 1;
        }
        case kDropAll: {
            int count = 0;
            for (auto& p : pairs_) {
                if (p->done) continue;
                abortPair(*p, true);
                ++count;
            }
            return count;
        }
    }
    return 0;
}

bool NetLab::Engine::stalled(const Pair& p, int way, Clock::time_point now) const {
    return blackhole_ || local_.stallUntil[p.traffic][way] > now;
}

// Fills pollSet_ for this turn and returns when the loop must look again at
// the latest: the earliest held chunk that falls due, a link reservation that
// ends, a stall that runs out, a reset waiting for its bytes to leave.
Clock::time_point NetLab::Engine::buildPollSet(Clock::time_point now) {
    pollSet_.clear();
    pollSet_.push_back({wakeRead_, POLLIN, 0});
    listenIndex_ = -1;
    if (listenFd_ >= 0) {
        listenIndex_ = static_cast<int>(pollSet_.size());
        pollSet_.push_back({listenFd_, POLLIN, 0});
    }
    for (Forward& f : forwards_) {
        f.pollIndex = -1;
        if (f.fd < 0) continue;
        f.pollIndex = static_cast<int>(pollSet_.size());
        pollSet_.push_back({f.fd, POLLIN, 0});
    }
    Clock::time_point wakeAt = now + Millis(kTickMs);
    auto add = [&](Pair& p, int slot, int fd, short events) {
        p.pollIndex[slot] = -1;
        if (fd < 0 || events == 0) return;
        p.pollIndex[slot] = static_cast<int>(pollSet_.size());
        pollSet_.push_back({fd, events, 0});
    };
    for (auto& holder : pairs_) {
        Pair& p = *holder;
        if (p.blackhole) {
            add(p, 0, p.fd[0], POLLIN);
            add(p, 1, -1, 0);
            add(p, 2, -1, 0);
            continue;
        }
        auto wantsRead = [&](int way) {
            const Half& h = p.half[way];
            if (h.srcEnded || h.queued >= kQueueLimit || p.resetPending) return false;
            return !(way == kToClient && p.closeAfterDrain);
        };
        short clientEvents = 0;
        short serverEvents = 0;
        if (wantsRead(kToServer)) clientEvents |= POLLIN;
        if (p.half[kToClient].wantWrite) clientEvents |= POLLOUT;
        if (p.connecting) {
            serverEvents = POLLOUT;
        } else {
            if (wantsRead(kToClient)) serverEvents |= POLLIN;
            if (p.half[kToServer].wantWrite) serverEvents |= POLLOUT;
        }
        add(p, 0, p.fd[0], clientEvents);
        add(p, 1, p.fd[1], serverEvents);
        add(p, 2, p.dataListenFd, POLLIN);
        if (p.resetPending) {
            wakeAt = std::min(wakeAt, now + Millis(2));
            continue;
        }
        if (p.connecting) continue;
        for (int way = 0; way < 2; ++way) {
            const Half& h = p.half[way];
            if (h.queue.empty() || h.wantWrite) continue;
            Clock::time_point until =
                blackhole_ ? Clock::time_point::max() : local_.stallUntil[p.traffic][way];
            if (until > now) {
                if (until != Clock::time_point::max()) wakeAt = std::min(wakeAt, until);
                continue;
            }
            if (h.queue.front().due > now) {
                wakeAt = std::min(wakeAt, h.queue.front().due);
            } else if (local_.rate[way] > 0 && h.reserved > 0) {
                wakeAt = std::min(wakeAt, h.reservedUntil);
            } else {
                // Due bytes that were not sent: look again soon rather than
                // spin.
                wakeAt = std::min(wakeAt, now + Millis(1));
            }
        }
    }
    return wakeAt;
}

ResetRule NetLab::Engine::takeResetRule(int traffic) {
    std::lock_guard<std::mutex> lock(mutex_);
    ResetRule rule = resetRules_[traffic];
    if (rule.armed && !rule.every) resetRules_[traffic].armed = false;
    return rule;
}

Pair* NetLab::Engine::addPair(int traffic, int clientFd) {
    pairs_.push_back(std::make_unique<Pair>());
    Pair* p = pairs_.back().get();
    p->traffic = traffic;
    p->fd[0] = clientFd;
    ++open_[traffic];
    if (record_) {
        p->recording = std::make_shared<NetLabRecording>();
        p->recording->traffic = traffic == kControl ? Traffic::kControl : Traffic::kData;
        std::lock_guard<std::mutex> lock(recordMutex_);
        recordings_.push_back(p->recording);
    }
    return p;
}

void NetLab::Engine::acceptControl() {
    for (int i = 0; i < kAcceptBurst && listenFd_ >= 0; ++i) {
        // A client whose connect returned after a setter did must meet the
        // new setting, even when it is accepted in a turn that began before.
        refreshSettings();
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        ++accepted_;
        setNoDelay(fd);
        if (blackhole_) {
            addPair(kControl, fd)->blackhole = true;
            ++blackholed_;
            continue;
        }
        if (local_.maxConnections > 0 && open_[kControl].load() >= local_.maxConnections) {
            ++refused_;
            // One short line fits any socket buffer: a single send does.
            ssize_t ignored = ::send(fd, local_.limitReply.data(), local_.limitReply.size(),
                                     MSG_NOSIGNAL | MSG_DONTWAIT);
            (void)ignored;
            ::close(fd);
            continue;
        }
        Pair* p = addPair(kControl, fd);
        p->swallowGreeting = local_.swallowGreeting;
        ResetRule rule = takeResetRule(kControl);
        p->resetArmed = rule.armed;
        p->resetWay = rule.way;
        p->resetBytes = rule.bytes;
        connectUpstream(*p, local_.upstream);
    }
}

void NetLab::Engine::acceptData(Pair& control) {
    refreshSettings();
    int fd = ::accept4(control.dataListenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    // One data connection per announced address, as a server's own passive
    // socket serves one.
    closeFd(control.dataListenFd);
    startData(fd, control.dataUpstream);
}

// A connection to a forwarded port goes to the same port of the server's
// host, as a data connection.
void NetLab::Engine::acceptForwarded(size_t index) {
    refreshSettings();
    for (int i = 0; i < kAcceptBurst && forwards_[index].fd >= 0; ++i) {
        int fd = ::accept4(forwards_[index].fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        sockaddr_in target{};
        target.sin_family = AF_INET;
        target.sin_addr = local_.upstream.sin_addr;
        target.sin_port = htons(forwards_[index].port);
        startData(fd, target);
    }
}

void NetLab::Engine::startData(int fd, const sockaddr_in& target) {
    ++dataConnections_;
    setNoDelay(fd);
    Pair* p = addPair(kData, fd);
    if (blackhole_) {
        p->blackhole = true;
        ++blackholed_;
        return;
    }
    ResetRule rule = takeResetRule(kData);
    p->resetArmed = rule.armed;
    p->resetWay = rule.way;
    p->resetBytes = rule.bytes;
    connectUpstream(*p, target);
}

// Starts a non-blocking connect; on a failure that shows at once the client
// is reset (the nearest a proxy that already accepted gets to a refusal).
bool NetLab::Engine::connectUpstream(Pair& p, const sockaddr_in& address) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        setNoDelay(fd);
        int rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        if (rc == 0 || errno == EINPROGRESS) {
            p.fd[1] = fd;
            p.connecting = rc != 0;
            if (rc == 0) established(p);
            return true;
        }
        ::close(fd);
    }
    ++upstreamFailures_;
    abortPair(p, false);
    return false;
}

void NetLab::Engine::established(Pair& p) {
    p.connecting = false;
    if (p.resetArmed && p.resetBytes == 0) {
        p.resetPending = true;
        p.resetDeadline = Clock::now() + kResetDrainLimit;
    }
}

void NetLab::Engine::service(Pair& p) {
    if (p.blackhole) {
        serviceBlackhole(p);
        return;
    }
    if (p.connecting) {
        if ((revents(p, 1) & (POLLOUT | POLLERR | POLLHUP)) != 0) {
            int error = 0;
            socklen_t length = sizeof error;
            if (::getsockopt(p.fd[1], SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
                ++upstreamFailures_;
                abortPair(p, false);
                return;
            }
            established(p);
        }
    }
    const short readable = POLLIN | POLLHUP | POLLERR;
    if ((revents(p, 0) & readable) != 0) readHalf(p, kToServer);
    if (p.done) return;
    if (!p.connecting && (revents(p, 1) & readable) != 0) readHalf(p, kToClient);
    if (p.done) return;
    if (!p.connecting && !p.resetPending) {
        deliver(p, kToServer);
        if (p.done) return;
        if (!p.resetPending) deliver(p, kToClient);
        if (p.done) return;
    }
    if (p.resetPending) {
        checkReset(p);
        return;
    }
    finishIfDone(p);
}

// A connection made while the link was dead: what the client sends is
// dropped, nothing is answered, and the lab forgets it once the client
// closes.
void NetLab::Engine::serviceBlackhole(Pair& p) {
    if ((revents(p, 0) & (POLLIN | POLLHUP | POLLERR)) == 0) return;
    ssize_t n = ::recv(p.fd[0], scratch_.data(), scratch_.size(), MSG_DONTWAIT);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
        closePair(p);
}

void NetLab::Engine::readHalf(Pair& p, int way) {
    Half& h = p.half[way];
    if (h.srcEnded) return;
    int fd = p.fd[way == kToServer ? 0 : 1];
    // Bytes may have arrived after a setter that returned during this turn.
    refreshSettings();
    ssize_t n = ::recv(fd, scratch_.data(), scratch_.size(), MSG_DONTWAIT);
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
        h.srcEnded = true;
        h.srcFailed = true;
        return;
    }
    Chunk chunk;
    chunk.due = Clock::now() + local_.latency[p.traffic][way];
    if (n == 0) {
        h.srcEnded = true;
        // A line the server cut off by closing is forwarded as it is.
        if (p.traffic == kControl && way == kToClient && !p.replies.closed &&
            !(p.swallowGreeting && p.replies.finishedReplies == 0))
            chunk.bytes.swap(p.replies.held);
    } else if (p.traffic == kControl && way == kToClient && readReplies_) {
        chunk.bytes = feedReplies(p, scratch_.data(), static_cast<size_t>(n));
    } else {
        chunk.bytes.assign(scratch_.data(), static_cast<size_t>(n));
    }
    if (chunk.bytes.empty()) return;
    h.queued += chunk.bytes.size();
    h.queue.push_back(std::move(chunk));
}

void NetLab::Engine::deliver(Pair& p, int way) {
    Half& h = p.half[way];
    int dst = p.fd[way == kToServer ? 1 : 0];
    if (h.wantWrite) {
        if ((revents(p, way == kToServer ? 1 : 0) & (POLLOUT | POLLERR | POLLHUP)) == 0) return;
        h.wantWrite = false;
    }
    refreshSettings();
    Clock::time_point now = Clock::now();
    if (!h.queue.empty() && !stalled(p, way, now)) {
        uint64_t rate = local_.rate[way];
        bool limited = p.resetArmed && hasWay(p.resetWay, way);
        while (!h.queue.empty()) {
            Chunk& c = h.queue.front();
            if (c.due > now) break;
            size_t k = c.bytes.size() - c.offset;
            if (limited) k = static_cast<size_t>(std::min<uint64_t>(k, p.resetBytes - h.delivered));
            if (k == 0) break;
            if (rate > 0) {
                if (h.reserved > 0 && now >= h.reservedUntil) {
                    h.paid += h.reserved;
                    h.reserved = 0;
                }
                if (h.paid == 0) {
                    if (h.reserved == 0) {
                        // The shared link carries the next piece: it is ready
                        // when the link would have finished sending it.
                        uint64_t quantum =
                            std::max<uint64_t>(1, std::min<uint64_t>(kReadChunk, rate / 100));
                        uint64_t piece = std::min<uint64_t>(k, quantum);
                        Clock::time_point start = std::max(now, linkFreeAt_[way]);
                        // Rounded up: the link is never faster than its rate.
                        auto busy =
                            std::chrono::nanoseconds((piece * 1000000000ull + rate - 1) / rate);
                        linkFreeAt_[way] =
                            start + std::chrono::duration_cast<Clock::duration>(busy);
                        h.reserved = piece;
                        h.reservedUntil = linkFreeAt_[way];
                    }
                    break;
                }
                k = static_cast<size_t>(std::min<uint64_t>(k, h.paid));
            } else {
                h.paid = 0;
                h.reserved = 0;
            }
            // Counted before the send so that a peer that has read the bytes
            // never sees a counter without them; what was not taken is
            // taken back at once.
            bytes_[p.traffic][way] += k;
            ssize_t n = ::send(dst, c.bytes.data() + c.offset, k, MSG_NOSIGNAL | MSG_DONTWAIT);
            bytes_[p.traffic][way] -= k - static_cast<size_t>(std::max<ssize_t>(n, 0));
            if (n < 0) {
                if (errno == EINTR) continue;
                if (errno == EAGAIN || errno == EWOULDBLOCK) {
                    h.wantWrite = true;
                    break;
                }
                // The receiver is gone: the sender learns it the same way.
                abortPair(p, false);
                return;
            }
            size_t sent = static_cast<size_t>(n);
            if (p.recording) record(p, way, c.bytes.data() + c.offset, sent);
            c.offset += sent;
            h.queued -= sent;
            h.delivered += sent;
            if (rate > 0) h.paid -= std::min<uint64_t>(h.paid, sent);
            if (c.offset == c.bytes.size()) h.queue.pop_front();
            if (limited && h.delivered >= p.resetBytes) {
                p.resetPending = true;
                p.resetDeadline = now + kResetDrainLimit;
                return;
            }
            if (sent < k) {
                h.wantWrite = true;
                break;
            }
        }
    }
    if (h.queue.empty()) passEnd(p, way);
}

void NetLab::Engine::record(Pair& p, int way, const char* bytes, size_t length) {
    std::lock_guard<std::mutex> lock(recordMutex_);
    std::string& copy = way == kToServer ? p.recording->toServer : p.recording->toClient;
    if (copy.size() < recordLimit_) copy.append(bytes, std::min(length, recordLimit_ - copy.size()));
}

// Once a sender's stream ended and its bytes were delivered, the receiver
// gets the same ending: the end of the stream, or a reset after an error.
void NetLab::Engine::passEnd(Pair& p, int way) {
    Half& h = p.half[way];
    if (!h.srcEnded || h.dstShut) return;
    if (way == kToClient && p.closeAfterDrain) return;
    if (h.srcFailed) {
        abortPair(p, false);
        return;
    }
    ::shutdown(p.fd[way == kToServer ? 1 : 0], SHUT_WR);
    h.dstShut = true;
}

// A reset waits until the bytes before it have left the lab's send buffer
// (the peer's kernel has them), so the peer reads exactly those bytes before
// it sees the reset.
void NetLab::Engine::checkReset(Pair& p) {
    if (Clock::now() < p.resetDeadline) {
        for (int way = 0; way < 2; ++way) {
            if (!hasWay(p.resetWay, way)) continue;
            int dst = p.fd[way == kToServer ? 1 : 0];
            int unsent = 0;
            if (dst >= 0 && ::ioctl(dst, TIOCOUTQ, &unsent) == 0 && unsent > 0) return;
        }
    }
    abortPair(p, true);
}

void NetLab::Engine::finishIfDone(Pair& p) {
    if (p.closeAfterDrain && p.half[kToClient].queue.empty()) {
        closePair(p);
        return;
    }
    if (p.half[kToServer].dstShut && p.half[kToClient].dstShut) closePair(p);
}

// Counters change before the sockets close, so that a peer that saw the
// close finds them up to date.
void NetLab::Engine::closePair(Pair& p) {
    if (p.done) return;
    p.done = true;
    --open_[p.traffic];
    closeFd(p.fd[0]);
    closeFd(p.fd[1]);
    closeFd(p.dataListenFd);
}

void NetLab::Engine::abortPair(Pair& p, bool counted) {
    if (p.done) return;
    p.done = true;
    --open_[p.traffic];
    if (counted) ++resets_;
    resetFd(p.fd[0]);
    resetFd(p.fd[1]);
    closeFd(p.dataListenFd);
}

// Server-to-client control bytes in, bytes to forward out. Lines that cannot
// be a "227" pass as they come; others are held to their line end.
std::string NetLab::Engine::feedReplies(Pair& p, const char* data, size_t length) {
    ReplyStream& rs = p.replies;
    std::string out;
    auto emit = [&](const std::string& bytes) {
        if (p.swallowGreeting && rs.finishedReplies == 0) return;
        out += bytes;
    };
    static const char kPassive[] = "227";
    for (size_t i = 0; i < length && !rs.closed; ++i) {
        char ch = data[i];
        if (rs.mode == ReplyStream::kLineStart) {
            rs.head.clear();
            rs.held.clear();
            rs.mode = local_.rewriter ? ReplyStream::kHold : ReplyStream::kUndecided;
        }
        if (rs.head.size() < 4) rs.head += ch;
        switch (rs.mode) {
            case ReplyStream::kPass:
                if (!(p.swallowGreeting && rs.finishedReplies == 0)) out += ch;
                break;
            case ReplyStream::kUndecided:
                rs.held += ch;
                if (rs.held.compare(0, rs.held.size(), kPassive, rs.held.size()) != 0) {
                    rs.mode = ReplyStream::kPass;
                    emit(rs.held);
                    rs.held.clear();
                } else if (rs.held.size() >= 3) {
                    rs.mode = ReplyStream::kHold;
                }
                break;
            case ReplyStream::kHold:
                rs.held += ch;
                if (ch != '\n' && rs.held.size() > kLineLimit) {
                    rs.mode = ReplyStream::kPass;
                    emit(rs.held);
                    rs.held.clear();
                }
                break;
            case ReplyStream::kLineStart: break;
        }
        if (ch == '\n') {
            if (rs.mode == ReplyStream::kHold) {
                std::string line;
                line.swap(rs.held);
                emitLine(p, line, &out);
            }
            endLine(rs);
            rs.mode = ReplyStream::kLineStart;
        }
    }
    return out;
}

void NetLab::Engine::emitLine(Pair& p, const std::string& line, std::string* out) {
    ReplyStream& rs = p.replies;
    bool swallowed = p.swallowGreeting && rs.finishedReplies == 0;
    size_t textEnd = line.size();
    if (textEnd > 0 && line[textEnd - 1] == '\n') --textEnd;
    if (textEnd > 0 && line[textEnd - 1] == '\r') --textEnd;
    std::string text = line.substr(0, textEnd);
    std::string ending = line.substr(textEnd);
    if (local_.rewriter) {
        std::optional<ReplyEdit> edit = (*local_.rewriter)(text);
        if (edit) {
            if (!swallowed) *out += edit->text;
            if (edit->close) {
                p.closeAfterDrain = true;
                rs.closed = true;
            }
            return;
        }
    }
    std::string forwarded = text.compare(0, 3, "227") == 0 ? rewritePassive(p, text) : text;
    if (!swallowed) *out += forwarded + ending;
}

// Tracks where replies end:
//   "230-Hello" opens a multi-line reply that "230 Done" closes;
//   any other line outside one ("200 OK", "garbage") is a reply of its own.
void NetLab::Engine::endLine(ReplyStream& rs) {
    const std::string& head = rs.head;
    bool coded = head.size() >= 3 && std::isdigit(static_cast<unsigned char>(head[0])) &&
                 std::isdigit(static_cast<unsigned char>(head[1])) &&
                 std::isdigit(static_cast<unsigned char>(head[2]));
    char separator = head.size() >= 4 ? head[3] : '\n';
    if (!rs.multiLine) {
        if (coded && separator == '-') {
            rs.multiLine = true;
            rs.code = head.substr(0, 3);
        } else {
            ++rs.finishedReplies;
        }
    } else if (coded && head.compare(0, 3, rs.code) == 0 && separator != '-') {
        rs.multiLine = false;
        ++rs.finishedReplies;
    }
}

// "227 Entering Passive Mode (127,0,0,1,195,80)" -> the same text naming a
// lab data listener; the line is left as it is when it names no address or
// no listener can be opened.
std::string NetLab::Engine::rewritePassive(Pair& p, const std::string& text) {
    unsigned n[6];
    size_t begin = 0;
    size_t end = 0;
    if (!findPassiveNumbers(text, n, &begin, &end)) return text;
    uint16_t labPort = 0;
    int fd = listenOn(host_, 0, 4, &labPort, nullptr);
    if (fd < 0) return text;
    closeFd(p.dataListenFd);
    p.dataListenFd = fd;
    sockaddr_in target{};
    target.sin_family = AF_INET;
    if (n[0] == 127) {
        target.sin_addr.s_addr = htonl((n[0] << 24) | (n[1] << 16) | (n[2] << 8) | n[3]);
    } else {
        // Only loopback is reached: a server announcing another address (its
        // public one, 0.0.0.0) is served where the control connection went.
        target.sin_addr = local_.upstream.sin_addr;
    }
    target.sin_port = htons(static_cast<uint16_t>(n[4] * 256 + n[5]));
    p.dataUpstream = target;
    ++passiveRewrites_;
    uint32_t host = ntohl(host_.s_addr);
    return text.substr(0, begin) + std::to_string(host >> 24) + "," +
           std::to_string((host >> 16) & 255) + "," + std::to_string((host >> 8) & 255) + "," +
           std::to_string(host & 255) + "," + std::to_string(labPort / 256) + "," +
           std::to_string(labPort % 256) + text.substr(end);
}

// --- NetLab -------------------------------------------------------------------

NetLab::NetLab(const std::string& upstream, NetLabOptions options)
    : listenAddress_(options.listenAddress) {
    sockaddr_in address{};
    if (!parseUpstream(upstream, &address, &failure_)) return;
    sockaddr_in listen{};
    if (!parseUpstream(options.listenAddress + ":1", &listen, &failure_)) {
        failure_ = "listen address must be a 127.x.x.x address, got \"" +
                   options.listenAddress + "\"";
        return;
    }
    int fd = listenOn(listen.sin_addr, options.listenPort, SOMAXCONN, &port_, &failure_);
    if (fd < 0) return;
    engine_ = std::make_unique<Engine>(fd, port_, address, listen.sin_addr, options);
    if (!engine_->listenForwarded(options.forwardPorts, &failure_) ||
        !engine_->start(&failure_)) {
        engine_.reset();
        port_ = 0;
    }
}

NetLab::~NetLab() { stop(); }

std::string NetLab::address() const { return listenAddress_ + ":" + std::to_string(port_); }

void NetLab::setLatency(Micros oneWay, Way way, Traffic traffic) {
    if (!engine_) return;
    engine_->change([&](Settings& s, ResetRule*) {
        for (int t = 0; t < 2; ++t)
            for (int w = 0; w < 2; ++w)
                if (hasTraffic(traffic, t) && hasWay(way, w)) s.latency[t][w] = oneWay;
    });
}

bool NetLab::setUpstream(const std::string& upstream, std::string* why) {
    sockaddr_in address{};
    std::string failure;
    if (!parseUpstream(upstream, &address, &failure)) {
        if (why != nullptr) *why = failure;
        return false;
    }
    if (!engine_) return false;
    engine_->change([&](Settings& s, ResetRule*) { s.upstream = address; });
    return true;
}

void NetLab::setRoundTrip(Micros roundTrip, Traffic traffic) {
    setLatency(roundTrip / 2, Way::kBoth, traffic);
}

void NetLab::setRate(uint64_t bytesPerSecond, Way way) {
    if (!engine_) return;
    engine_->change([&](Settings& s, ResetRule*) {
        for (int w = 0; w < 2; ++w)
            if (hasWay(way, w)) s.rate[w] = bytesPerSecond;
    });
}

void NetLab::stall(Traffic traffic, Way way, Millis duration) {
    if (!engine_) return;
    Clock::time_point until =
        duration.count() > 0 ? Clock::now() + duration : Clock::time_point::max();
    engine_->change([&](Settings& s, ResetRule*) {
        for (int t = 0; t < 2; ++t)
            for (int w = 0; w < 2; ++w)
                if (hasTraffic(traffic, t) && hasWay(way, w)) s.stallUntil[t][w] = until;
    });
}

void NetLab::release(Traffic traffic, Way way) {
    if (!engine_) return;
    engine_->change([&](Settings& s, ResetRule*) {
        for (int t = 0; t < 2; ++t)
            for (int w = 0; w < 2; ++w)
                if (hasTraffic(traffic, t) && hasWay(way, w))
                    s.stallUntil[t][w] = Clock::time_point::min();
    });
}

void NetLab::resetAfter(uint64_t bytes, Traffic traffic, Way way, ResetScope scope) {
    if (!engine_) return;
    engine_->change([&](Settings&, ResetRule* rules) {
        for (int t = 0; t < 2; ++t) {
            if (!hasTraffic(traffic, t)) continue;
            rules[t].armed = true;
            rules[t].every = scope == ResetScope::kEveryConnection;
            rules[t].way = way;
            rules[t].bytes = bytes;
        }
    });
}

void NetLab::clearResets() {
    if (!engine_) return;
    engine_->change([&](Settings&, ResetRule* rules) {
        rules[0] = ResetRule();
        rules[1] = ResetRule();
    });
}

void NetLab::setMaxConnections(int count, std::string reply) {
    if (!engine_) return;
    engine_->change([&](Settings& s, ResetRule*) {
        s.maxConnections = count;
        s.limitReply = std::move(reply);
    });
}

void NetLab::setSwallowGreeting(bool swallow) {
    if (!engine_) return;
    engine_->change([&](Settings& s, ResetRule*) { s.swallowGreeting = swallow; });
}

void NetLab::setReplyRewriter(ReplyRewriter rewriter) {
    if (!engine_) return;
    std::shared_ptr<const ReplyRewriter> shared;
    if (rewriter) shared = std::make_shared<const ReplyRewriter>(std::move(rewriter));
    engine_->change([&](Settings& s, ResetRule*) { s.rewriter = shared; });
}

bool NetLab::linkDown(LinkDownMode mode) {
    if (!engine_) return false;
    return engine_->request(
               mode == LinkDownMode::kRefuse ? Engine::kDownRefuse : Engine::kDownBlackhole, 0) ==
           1;
}

bool NetLab::linkUp() {
    if (!engine_) return false;
    return engine_->request(Engine::kUp, 0) == 1;
}

int NetLab::dropAll() {
    if (!engine_) return -1;
    return engine_->request(Engine::kDropAll, -1);
}

NetLabCounters NetLab::counters() const { return engine_ ? engine_->counters() : NetLabCounters(); }

std::vector<NetLabRecording> NetLab::recorded() const {
    return engine_ ? engine_->recorded() : std::vector<NetLabRecording>();
}

bool NetLab::waitFor(const std::function<bool(const NetLabCounters&)>& condition,
                     Millis limit) const {
    Clock::time_point deadline = Clock::now() + limit;
    for (;;) {
        if (condition(counters())) return true;
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(Millis(5));
    }
}

void NetLab::stop() {
    if (engine_) engine_->stop();
}

}  // namespace ftptest
