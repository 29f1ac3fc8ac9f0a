// Arbitrary bytes as the reply to "PASV", given to ftpParsePassiveReply and
// compared with a reference reading of the six numbers through strtoull.
//
// The reference: after the first '(' up to six numbers separated by single
// commas, each read as "%u" reads it (white space, an optional sign, decimal
// digits); reading stops at the first one missing, and missing ones count as
// 0. A number whose magnitude does not fit in 32 bits has no defined value in
// that reading: its byte (and, for the port numbers, the port) is not
// compared, the rest still is.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "ftp/FTPTool.h"

namespace {

void check(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "broken: %s\n", what);
        abort();
    }
}

struct Number {
    unsigned value = 0;
    bool defined = true;
};

// One "%u" at `at`; false (nothing moved) when no digits follow the blanks
// and the sign.
bool readNumber(const char*& at, Number& number) {
    const char* p = at;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
    const bool negative = *p == '-';
    if (*p == '+' || *p == '-') ++p;
    if (*p < '0' || *p > '9') return false;
    errno = 0;
    char* end = NULL;
    const unsigned long long magnitude = strtoull(p, &end, 10);
    number.defined = errno != ERANGE && magnitude <= 0xFFFFFFFFull;
    const unsigned value = static_cast<unsigned>(magnitude);
    number.value = negative ? 0u - value : value;
    at = end;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);  // up to the first NUL
    struct sockaddr_in address;
    memset(&address, 0xA5, sizeof address);
    const struct sockaddr_in untouched = address;
    const int result = ftpParsePassiveReply(text.c_str(), &address);

    const char* open = strchr(text.c_str(), '(');
    if (open == NULL) {
        check(result == 0, "no '(' is refused");
        check(memcmp(&address, &untouched, sizeof address) == 0, "a refusal leaves the address");
        return 0;
    }
    check(result == 1, "a '(' is accepted");
    check(address.sin_family == AF_INET, "the family is IPv4");

    Number numbers[6];
    const char* at = open + 1;
    for (int i = 0; i < 6; ++i) {
        if (i > 0) {
            if (*at != ',') break;
            ++at;
        }
        if (!readNumber(at, numbers[i])) break;
    }
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&address.sin_addr);
    for (int i = 0; i < 4; ++i) {
        if (numbers[i].defined) {
            check(bytes[i] == (numbers[i].value & 0xFFu),
                  "each address byte is its number's low byte");
        }
    }
    if (numbers[4].defined && numbers[5].defined) {
        const unsigned port = (numbers[4].value & 0xFFu) * 256u + (numbers[5].value & 0xFFu);
        check(ntohs(address.sin_port) == port,
              "the port is the fifth and sixth numbers' low bytes");
    }
    struct sockaddr_in zero;
    memset(&zero, 0, sizeof zero);
    check(memcmp(address.sin_zero, zero.sin_zero, sizeof zero.sin_zero) == 0,
          "the padding is zeroed");
    return 0;
}
