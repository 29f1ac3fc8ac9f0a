// Server addresses: "host", "host:21" or "host:service" into an IPv4 address
// and port, with the reentrant resolver calls (connections are opened from
// several threads at once). No sockets and no host classes: the ftpdisk
// command links this on its own to check the locations it is given.
#include <arpa/inet.h>
#include <netdb.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "ftp/FTPTool.h"

int ftpLookUpService(const char* name, uint16_t* port) {
    if (name == nullptr || port == nullptr) return 0;
    struct servent entry;
    struct servent* result = nullptr;
    char scratch[1024];
    if (getservbyname_r(name, "tcp", &entry, scratch, sizeof scratch, &result) != 0 ||
        result == nullptr) {
        return 0;
    }
    *port = static_cast<uint16_t>(result->s_port);
    return 1;
}

namespace {

// The first IPv4 address of a host name; false when it does not resolve.
bool lookUpHost(const char* name, struct in_addr* address) {
    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo* found = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &found) != 0 || found == nullptr) return false;
    bool ok = false;
    for (struct addrinfo* a = found; a != nullptr; a = a->ai_next) {
        if (a->ai_family == AF_INET && a->ai_addr != nullptr) {
            *address = reinterpret_cast<struct sockaddr_in*>(a->ai_addr)->sin_addr;
            ok = true;
            break;
        }
    }
    freeaddrinfo(found);
    return ok;
}

}  // namespace

int ftpResolveAddress(const char* host, struct sockaddr_in* address) {
    if (host == nullptr || address == nullptr) return 0;
    std::string name(host);
    memset(address, 0, sizeof *address);
    address->sin_family = AF_INET;

    // "host:21" takes the number (low 16 bits) without asking the services
    // database; "host:ftp" and a bare "host" look the name up.
    std::string service = "ftp";
    bool numericPort = false;
    std::string::size_type colon = name.find(':');
    if (colon != std::string::npos) {
        std::string after = name.substr(colon + 1);
        name.erase(colon);
        if (!after.empty() && after[0] >= '0' && after[0] <= '9') {
            // 64 bits on every processor: a 32-bit strtoul would stop at
            // 4294967295 and give a longer port text another low 16 bits.
            unsigned long long port = strtoull(after.c_str(), nullptr, 10);
            address->sin_port = htons(static_cast<uint16_t>(port & 0xFFFFu));
            numericPort = true;
        } else {
            service = after;
        }
    }
    if (!numericPort) {
        uint16_t port = 0;
        if (!ftpLookUpService(service.c_str(), &port)) return 0;
        address->sin_port = port;
    }

    in_addr_t dotted = inet_addr(name.c_str());
    if (dotted != INADDR_NONE) {
        address->sin_addr.s_addr = dotted;
    } else if (!lookUpHost(name.c_str(), &address->sin_addr)) {
        return 0;
    }
    return 1;
}
