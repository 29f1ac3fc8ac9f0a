// NetLab: a TCP proxy on 127.0.0.1 that puts slow, lossy or hostile network
// conditions between an FTP client and an FTP server, for tests and
// benchmarks (the kernel here has no traffic shaping, so it is done in user
// space). Plain C++17 and POSIX; no test framework, so benchmarks link it too.
//
// What passes: every control connection accepted on port() is forwarded to
// the upstream server (a loopback address). Server replies are watched line by
// line: a "227 ... (h1,h2,h3,h4,p1,p2)" line (the six numbers may also stand
// without parentheses) is rewritten to name a data listener the lab opens for
// it on its listen address (127.0.0.1 unless set), and the client's data connection to it is forwarded to the
// address the server announced (127.0.0.1 stands in for an address outside
// 127/8), so data connections meet the same conditions. Every other byte goes
// through unchanged. Lines that cannot be a "227" are forwarded as their bytes
// arrive; a line starting "227" (or any line, while a rewriter is set) is
// held until its line end. Port mode ("PORT") and "EPSV" are not rewritten:
// their data connections bypass the lab. An end of stream from one side
// reaches the other after the bytes held before it; a reset (or a failed
// write) on one side resets the other; a client whose server connection
// cannot be made is reset.
//
// Threads: one thread runs a poll loop over every socket of the lab
// (listeners, both sockets of every forwarded connection, data listeners). All
// public members are thread-safe and may be called while traffic flows.
// Condition setters take effect for bytes the loop handles after the call
// returns; linkDown, linkUp and dropAll wait (at most 10 s) until the loop
// has carried them out. The rewriter runs on the loop thread: it may call the
// setters (linkDown, linkUp and dropAll called there are carried out after
// the current turn and return at once, reporting success) but must not block,
// and must not call stop().
// stop() and the destructor end the loop within one poll tick (at most 50 ms
// plus the work in hand), close every descriptor the lab opened and join.
//
// Conditions, each per direction (client to server, server to client) and,
// where it says so, per traffic kind (control or data connections):
// - latency (per traffic kind): every byte is delivered a fixed time after the lab read it, in
//   read order. A round trip of R is R/2 each way.
// - rate: a shared link per direction for every connection of the lab (control
//   and data alike), in bytes/s, 0 = unlimited. It sends at most 10 ms worth
//   of bytes at a time and those bytes leave only when the link would have
//   finished carrying them, so N bytes never take less than N/rate.
// - stall (per traffic kind): nothing is delivered, bytes are held (read up to
//   the queue limit, then the sender is held back by TCP), until released or
//   for a duration.
// - reset after N bytes (per traffic kind): the next connection (or every
//   one) of that kind accepted afterwards gets exactly N bytes through in the
//   chosen direction, then, once those bytes have left the lab's send buffer,
//   both of its sockets are closed with SO_LINGER 0 so the peers see a reset.
// - connection limit: while N control connections are open, a new client gets
//   one reply line (default "421 Too many connections (lab)") and is closed;
//   it never reaches the server.
// - swallow greeting: the first reply of every control connection accepted
//   while it is set is dropped; later replies pass.
// - reply rewriter: sees every server reply line and may replace it (and then
//   close the connection); a replaced line is sent as given, without the 227
//   rewrite, so a test can announce any address.
// - link down, kRefuse (the server machine is gone): the listener is closed so
//   new connections are refused, pending data listeners are closed and every
//   open connection is reset.
// - link down, kBlackhole (a dead link): new connections (control and data)
//   are accepted and get nothing, their bytes are read and dropped, they never
//   reach the server, and they stay that way until the client closes them.
//   Open connections are stalled both ways (bytes held, as TCP would retransmit
//   them after the link returns).
// - link up: the listener is opened again on the same port, held bytes flow.
// - drop all: every open connection is reset now.
//
// Options fixed at construction:
// - listen address: the lab may listen on another loopback address than
//   127.0.0.1 (127.0.0.2, say). A client that takes the data port from a 227
//   reply and connects to the address its control connection reached then
//   reaches the lab, not the server, for ports the lab forwards (below).
// - forwarded ports: the lab also listens on these ports of its address and
//   forwards each connection to the same port of the upstream host, as data
//   traffic. This is how data connections go through the lab when it cannot
//   read the 227 replies (TLS on the control connection): the server is told
//   to announce passive ports from a fixed range, and the lab listens on them.
// - replies not read: server replies pass as they come, without the 227
//   rewrite (and without the rewriter and the swallowed greeting), for
//   control connections that turn into TLS.
// - recording: the lab keeps a copy of every byte it delivers, per
//   connection and direction, for tests that look at what went over the wire.
//
// Limits: each direction of a connection queues at most 4 MiB before the lab
// stops reading from its sender. The lab serves hundreds of connections at
// once (each needs two descriptors, plus one per announced data listener).
#ifndef FTPDISK_TESTS_SUPPORT_NETLAB_H
#define FTPDISK_TESTS_SUPPORT_NETLAB_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ftptest {

using Millis = std::chrono::milliseconds;
using Micros = std::chrono::microseconds;

// Which way bytes travel. kBoth applies a setting to each direction.
enum class Way { kClientToServer = 1, kServerToClient = 2, kBoth = 3 };

// Which connections a setting applies to. kAll applies it to both kinds.
enum class Traffic { kControl = 1, kData = 2, kAll = 3 };

enum class LinkDownMode { kRefuse, kBlackhole };

enum class ResetScope { kNextConnection, kEveryConnection };

// What the rewriter puts in place of a server reply line.
struct ReplyEdit {
    // Bytes sent instead of the line, line end included: "421 Bye\r\n". An
    // empty text drops the line; a text may hold several lines.
    std::string text;
    // After the text is delivered, close both sockets of the connection (the
    // client sees the text, then the end of the stream).
    bool close = false;
};

// Called with each server reply line without its line end
// ("227 Entering Passive Mode (127,0,0,1,4,1)"); nothing keeps the line.
using ReplyRewriter = std::function<std::optional<ReplyEdit>(const std::string& line)>;

struct NetLabCounters {
    uint64_t accepted = 0;          // control connections accepted
    uint64_t refused = 0;           // of those, turned away by the connection limit
    uint64_t upstreamFailures = 0;  // connections to the server that failed
    uint64_t dataConnections = 0;   // data connections accepted on lab data listeners
    uint64_t passiveRewrites = 0;   // 227 lines rewritten to a lab data listener
    uint64_t blackholed = 0;        // connections accepted while the link was a blackhole
    uint64_t resets = 0;            // connections the lab reset (rule, drop all, link down)
    // Bytes delivered (written to the receiving peer).
    uint64_t controlToServer = 0;
    uint64_t controlToClient = 0;
    uint64_t dataToServer = 0;
    uint64_t dataToClient = 0;
    // Connections open now.
    int openControl = 0;
    int openData = 0;
};

struct NetLabOptions {
    // Port to listen on; 0 takes an ephemeral one.
    uint16_t listenPort = 0;
    // Address to listen on (for control connections, data listeners and
    // forwarded ports); a 127.x.x.x address.
    std::string listenAddress = "127.0.0.1";
    // Ports of listenAddress whose connections go to the same port of the
    // upstream host, counted as data connections.
    std::vector<uint16_t> forwardPorts;
    // False: server replies pass unread (no 227 rewrite, no rewriter, no
    // swallowed greeting).
    bool readReplies = true;
    // Keep a copy of every delivered byte (see recorded()); at most
    // recordLimit bytes per direction of a connection are kept.
    bool record = false;
    size_t recordLimit = 64u << 20;
};

// The bytes one connection carried through the lab, as delivered.
struct NetLabRecording {
    Traffic traffic = Traffic::kControl;  // kControl or kData
    std::string toServer;
    std::string toClient;
};

class NetLab {
public:
    // Starts listening and the loop thread. `upstream` is "host:port" with a
    // host in 127.0.0.0/8 ("localhost" too). When it cannot start, ok() is
    // false, failure() says why and every other call does nothing.
    explicit NetLab(const std::string& upstream, NetLabOptions options = NetLabOptions());
    ~NetLab();

    NetLab(const NetLab&) = delete;
    NetLab& operator=(const NetLab&) = delete;

    bool ok() const { return failure_.empty(); }
    const std::string& failure() const { return failure_; }

    uint16_t port() const { return port_; }
    // "<listen address>:<port>", ready for FTPTool::connect.
    std::string address() const;

    // --- Conditions -----------------------------------------------------------
    // Forwards control connections accepted from now on to another server
    // (same rules as the constructor's `upstream`); connections already open
    // stay with the old one. False, with *why set when given, for an address
    // the constructor would refuse, or when the lab is not running.
    bool setUpstream(const std::string& upstream, std::string* why = nullptr);
    void setLatency(Micros oneWay, Way way = Way::kBoth, Traffic traffic = Traffic::kAll);
    // Half of `roundTrip` each way.
    void setRoundTrip(Micros roundTrip, Traffic traffic = Traffic::kAll);
    void setRate(uint64_t bytesPerSecond, Way way = Way::kBoth);
    // Holds bytes for `duration`, or until release() when it is zero.
    void stall(Traffic traffic, Way way, Millis duration = Millis(0));
    void release(Traffic traffic = Traffic::kAll, Way way = Way::kBoth);
    // Arms a reset for connections of `traffic` accepted from now on: after
    // `bytes` bytes delivered in `way` (kBoth: in either way), or at once
    // when `bytes` is 0. kNextConnection disarms after one connection.
    void resetAfter(uint64_t bytes, Traffic traffic, Way way,
                    ResetScope scope = ResetScope::kNextConnection);
    void clearResets();
    // 0 = no limit. `reply` is sent as given (line end included).
    void setMaxConnections(int count, std::string reply = "421 Too many connections (lab)\r\n");
    void setSwallowGreeting(bool swallow);
    // An empty function removes the rewriter.
    void setReplyRewriter(ReplyRewriter rewriter);

    // --- Events ---------------------------------------------------------------
    // True once the loop carried it out. linkUp is false when the port could
    // not be listened on again (the lab stays down).
    bool linkDown(LinkDownMode mode);
    bool linkUp();
    // Resets every open connection; returns how many (-1 when stopped).
    int dropAll();

    // --- Observing ------------------------------------------------------------
    NetLabCounters counters() const;
    // With NetLabOptions::record: every connection accepted so far, in the
    // order accepted, with the bytes delivered up to now; empty otherwise.
    std::vector<NetLabRecording> recorded() const;
    // Polls counters() until `condition` holds or `limit` passes.
    bool waitFor(const std::function<bool(const NetLabCounters&)>& condition,
                 Millis limit = Millis(5000)) const;

    // Ends the loop, closes every connection and descriptor, joins. Idempotent.
    void stop();

private:
    class Engine;

    std::string failure_;
    std::string listenAddress_;
    uint16_t port_ = 0;
    std::unique_ptr<Engine> engine_;
};

}  // namespace ftptest

#endif  // FTPDISK_TESTS_SUPPORT_NETLAB_H
