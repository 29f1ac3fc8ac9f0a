// The loopback ceiling of the peer benchmark: how fast plain TCP moves bytes
// from one process to another on this machine when the sender writes blocks of
// a given size and the receiver reads 64 KiB at a time and keeps nothing. No
// FTP, no files: what any client and server on loopback stay below.
//
//   ftpdisk_peers_tcp BYTES WRITE_SIZE
//
// Forks a receiver, connects to it on 127.0.0.1, sends BYTES in blocks of
// WRITE_SIZE and prints "ok=1 seconds=S received=N" once the receiver has
// counted every byte (seconds from connect to the receiver's count). The
// receiver reports its count through a pipe; a short count gives ok=0.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Counts what arrives on `fd` until the sender closes; -1 on an error.
long long drain(int fd) {
    std::vector<char> buf(65536);
    long long total = 0;
    for (;;) {
        const ssize_t n = recv(fd, &buf[0], buf.size(), 0);
        if (n == 0) {
            return total;
        }
        if (n < 0) {
            return -1;
        }
        total += n;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: ftpdisk_peers_tcp BYTES WRITE_SIZE\n");
        return 2;
    }
    const long long bytes = std::strtoll(argv[1], NULL, 10);
    const long size = std::strtol(argv[2], NULL, 10);
    if (bytes < 0 || size <= 0) {
        std::fprintf(stderr, "BYTES must be 0 or more and WRITE_SIZE 1 or more\n");
        return 2;
    }

    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 ||
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::perror("listen");
        return 1;
    }
    int report[2];
    if (pipe(report) != 0) {
        std::perror("pipe");
        return 1;
    }
    const pid_t receiver = fork();
    if (receiver < 0) {
        std::perror("fork");
        return 1;
    }
    if (receiver == 0) {
        close(report[0]);
        const int fd = accept(listener, NULL, NULL);
        const long long got = fd < 0 ? -1 : drain(fd);
        const ssize_t put = write(report[1], &got, sizeof got);
        _exit(put == static_cast<ssize_t>(sizeof got) ? 0 : 1);
    }
    close(report[1]);
    close(listener);

    std::vector<char> block(static_cast<size_t>(size), 'x');
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const double started = now();
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        std::perror("connect");
        return 1;
    }
    bool sent = true;
    for (long long at = 0; at < bytes && sent;) {
        const long long left = bytes - at;
        const size_t len = left < size ? static_cast<size_t>(left) : static_cast<size_t>(size);
        const ssize_t n = send(fd, &block[0], len, MSG_NOSIGNAL);
        if (n <= 0) {
            sent = false;
        } else {
            at += n;
        }
    }
    close(fd);
    long long received = -1;
    const bool heard =
        read(report[0], &received, sizeof received) == static_cast<ssize_t>(sizeof received);
    const double ended = now();
    int status = 0;
    waitpid(receiver, &status, 0);
    const bool ok = sent && heard && received == bytes;
    std::printf("ok=%d seconds=%.6f received=%lld\n", ok ? 1 : 0, ended - started, received);
    return ok ? 0 : 1;
}
