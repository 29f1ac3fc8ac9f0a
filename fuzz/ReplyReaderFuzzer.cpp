// Arbitrary bytes as what a server sends on the control connection, read by a
// real FTPTool through Readresp (one reply, in whole lines, multi-line ones
// whole) and then
// Readline (line by line, with a buffer of any size) until the stream ends.
//
// Input: five header bytes, then the reply text.
//   0    the code Readresp expects: '1' + byte % 5
//   1-2  where the text is first split across receives (16 bits, modulo the
//        text's length + 1)
//   3    the length of every later piece (0: the rest in one piece)
//   4    Readline's buffer size: 1 to 128, then 136 to 1152 in steps of 8
// The pieces go through a SOCK_SEQPACKET pair, so that each piece is exactly
// one receive, and the write side is closed before reading: no wait ever
// blocks, and a reader that waited anyway would show up as a slow input.
//
// The bytes must come out the same however they were split: each reading is
// compared with a reference reading of the whole text, line by line. The
// line buffer's counters must stay in range after every call, the reply line
// terminated within its 256 bytes.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "ftp/FTPTool.h"
#include "ftp/NetBuf.h"

namespace {

// Unix sockets queue about 200 small messages before a send would block.
const size_t kMaxPieces = 100;
const size_t kMaxText = 16384;
const char* const kPrevious = "999 the previous reply\n";
const char* const kTooLong = "reply abandoned: not ended within 1000 lines\n";
const char* const kClosed = "connection closed by the server\n";

void check(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "broken: %s\n", what);
        abort();
    }
}

// A tool with a control record, made once: connect() needs a TCP server that
// greets, so a loopback listener of this process greets it from a thread.
// Each input then gives the record a fresh socket of its own.
FTPTool* connectedTool() {
    static FTPTool* tool = NULL;
    if (tool != NULL) return tool;
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    check(listener >= 0, "listening socket");
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    check(bind(listener, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0 &&
              listen(listener, 1) == 0 &&
              getsockname(listener, reinterpret_cast<struct sockaddr*>(&address), &length) == 0,
          "loopback listener");
    std::thread greeter([listener] {
        int session = accept(listener, NULL, NULL);
        if (session >= 0) {
            const char greeting[] = "220 fuzz\r\n";
            (void)!send(session, greeting, sizeof greeting - 1, MSG_NOSIGNAL);
            close(session);
        }
    });
    char host[32];
    snprintf(host, sizeof host, "127.0.0.1:%u", static_cast<unsigned>(ntohs(address.sin_port)));
    tool = new FTPTool;
    const int connected = tool->connect(host);
    greeter.join();
    close(listener);
    check(connected == 1 && tool->getControlBuf() != NULL, "the tool connects and is greeted");
    return tool;
}

void checkCounters(const NetBuf* c) {
    check(c->buffer != NULL, "the line buffer stays");
    check(c->readPos >= c->buffer && c->readPos <= c->writePos &&
              c->writePos <= c->buffer + kNetBufSize,
          "buffer <= readPos <= writePos <= buffer end");
    check(c->available == c->writePos - c->readPos, "available is what lies between the positions");
    check(c->spaceLeft == c->buffer + kNetBufSize - c->writePos,
          "spaceLeft is the room after writePos");
    check(memchr(c->response, '\0', kNetBufResponseSize) != NULL, "the reply line is terminated");
}

// The reference reading: the next line of `text` from `at`, at most `limit`
// bytes, through the first LF; CR LF becomes LF. False at the end.
bool referenceLine(const std::string& text, size_t& at, size_t limit, std::string& line) {
    line.clear();
    if (limit == 0) return true;
    if (at >= text.size()) return false;
    size_t take = std::min(limit, text.size() - at);
    const size_t lf = text.find('\n', at);
    if (lf != std::string::npos && lf < at + take) take = lf - at + 1;
    line.assign(text, at, take);
    at += take;
    const size_t n = line.size();
    if (n >= 2 && line[n - 1] == '\n' && line[n - 2] == '\r') line.erase(n - 2, 1);
    return true;
}

// What Readresp must leave: its result and the reply text; `at` moves past
// what it read. Replies are read in whole lines: a line's text is kept to its
// first 255 bytes (its CR LF as LF), and the rest of it is read and dropped.
// The stream's end inside a one-line reply judges what came; anywhere else
// it fails the reply.
int referenceReply(const std::string& text, char expected, size_t& at, std::string& response,
                   bool& whole) {
    whole = false;
    bool multiLine = false;
    std::string closing;
    for (int lines = 0;;) {
        if (at >= text.size()) {
            response = kClosed;
            return 0;
        }
        const size_t lf = text.find('\n', at);
        const bool ended = lf != std::string::npos;
        const std::string raw = text.substr(at, (ended ? lf : text.size()) - at);
        at = ended ? lf + 1 : text.size();
        const std::string head = raw.substr(0, 4);
        if (!ended) {
            if (multiLine) {
                response = kClosed;
                return 0;
            }
            response = raw.substr(0, kNetBufResponseSize - 1);
            whole = true;
            return response[0] == expected ? 1 : 0;
        }
        std::string content = raw;
        if (!content.empty() && content.back() == '\r') content.pop_back();
        response = (content + "\n").substr(0, kNetBufResponseSize - 1);
        ++lines;
        bool ends;
        if (!multiLine) {
            ends = !(head.size() == 4 && head[3] == '-');
            if (!ends) {
                multiLine = true;
                closing = head.substr(0, 3) + " ";
            }
        } else {
            ends = head == closing;
        }
        if (ends) {
            whole = true;
            return response[0] == expected ? 1 : 0;
        }
        if (lines >= FTPTool::kReplyLineLimit) {
            response = kTooLong;
            return 0;
        }
    }
}

// The text cut at `first`, then into pieces of `step` bytes (0: the rest at
// once), no piece empty or over the line buffer's size, at most kMaxPieces.
std::vector<std::string> piecesOf(const std::string& text, size_t first, size_t step) {
    std::vector<std::string> pieces;
    size_t at = 0;
    if (first > 0) {
        pieces.push_back(text.substr(0, std::min<size_t>(first, kNetBufSize)));
        at = pieces.back().size();
    }
    while (at < text.size()) {
        size_t take = step == 0 || pieces.size() + 1 >= kMaxPieces - kMaxText / kNetBufSize
                          ? text.size() - at
                          : step;
        take = std::min<size_t>(take, kNetBufSize);
        pieces.push_back(text.substr(at, take));
        at += take;
    }
    return pieces;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 5 || size - 5 > kMaxText) return 0;
    const char expected = static_cast<char>('1' + data[0] % 5);
    const std::string text(reinterpret_cast<const char*>(data) + 5, size - 5);
    const size_t first = (static_cast<size_t>(data[1]) << 8 | data[2]) % (text.size() + 1);
    const size_t step = data[3];
    int capacity = data[4] < 128 ? data[4] + 1 : (data[4] - 127) * 8 + 128;

    FTPTool* tool = connectedTool();
    NetBuf* control = tool->getControlBuf();
    int pair[2];
    check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) == 0, "socketpair");
    close(control->handle);
    control->handle = pair[0];
    control->readPos = control->buffer;
    control->writePos = control->buffer;
    control->available = 0;
    control->spaceLeft = kNetBufSize;
    control->idleTime.seconds = 0;
    control->idleTime.microseconds = 1000;
    snprintf(control->response, sizeof control->response, "%s", kPrevious);
    // One reply is awaited, nothing of it read yet.
    control->replies = NetBufReplyState();
    control->replies.owed = 1;

    for (const std::string& piece : piecesOf(text, first, step)) {
        check(send(pair[1], piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
                  static_cast<ssize_t>(piece.size()),
              "every piece is queued at once");
    }
    close(pair[1]);

    size_t at = 0;
    std::string reply = kPrevious;
    bool whole = false;
    const int wanted = referenceReply(text, expected, at, reply, whole);
    const int result = tool->Readresp(expected, control);
    checkCounters(control);
    check(result == wanted, "Readresp's result is the reference's");
    check(reply.size() < kNetBufResponseSize &&
              memcmp(control->response, reply.c_str(), reply.size() + 1) == 0,
          "the reply line is the reference's");
    // A first preliminary (1xx) reply keeps its command owed, as does a
    // reply not read whole.
    check(control->replies.owed == (whole && reply[0] != '1' ? 0 : 1),
          "a reply read whole is no longer owed");

    // The rest, line by line, in a buffer of exactly `capacity` bytes.
    std::vector<char> out(static_cast<size_t>(capacity));
    std::string line;
    for (size_t round = 0; round <= text.size() + 1; ++round) {
        const bool more = referenceLine(text, at, static_cast<size_t>(capacity - 1), line);
        const int n = tool->Readline(out.data(), capacity, control);
        checkCounters(control);
        if (!more) {
            check(n == -1, "the end of the stream reads as -1");
            return 0;
        }
        check(n == static_cast<int>(line.size()), "Readline returns the reference line's length");
        check(memcmp(out.data(), line.data(), line.size()) == 0 && out[line.size()] == '\0',
              "Readline stores the reference line, terminated");
        if (capacity == 1) {
            // Nothing fits: nothing is read either. The rest is read once
            // more in a buffer that holds a line.
            out.assign(kNetBufResponseSize, '\0');
            capacity = kNetBufResponseSize;
        }
    }
    check(false, "the stream ends");
    return 0;
}
