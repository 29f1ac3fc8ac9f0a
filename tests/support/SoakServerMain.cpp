// ftpdisk-soak-server: one vsftpd on 127.0.0.1 for scripts/soak.sh, started
// and stopped the way the server tests do it (RealFtpServer.h: user rec,
// password pw, a fresh root folder).
//
//   ftpdisk-soak-server [--idle-timeout SECONDS]
//   location rec(pw)@ftp://127.0.0.1:40123
//   root /tmp/ftpdisk-vsftpd-AbC123/home
//   ready
//
// It runs until SIGTERM, SIGINT or SIGHUP, then ends the server with its
// sessions and removes its folder.
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "support/RealFtpServer.h"

int main(int argc, char** argv) {
    RealFtpServerOptions options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--idle-timeout" && i + 1 < argc) {
            options.idleTimeoutSeconds = std::atoi(argv[++i]);
        } else {
            std::cerr << "usage: ftpdisk-soak-server [--idle-timeout SECONDS]\n";
            return 2;
        }
    }
    // Blocked before the server's processes exist, so that a stop signal
    // sent at any time is taken by sigwait below (the server's own processes
    // get their defaults back when spawned).
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGTERM);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGHUP);
    sigprocmask(SIG_BLOCK, &stops, nullptr);

    RealFtpServer server(FtpServerKind::kVsftpd, options);
    if (!server.ready()) {
        std::cerr << "ftpdisk-soak-server: vsftpd did not start: " << server.failure() << "\n";
        return 1;
    }
    std::cout << "location " << server.location() << "\n"
              << "root " << server.root() << "\n"
              << "ready" << std::endl;
    int signal = 0;
    sigwait(&stops, &signal);
    server.stop();
    return 0;
}
