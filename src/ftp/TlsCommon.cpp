// The parts of TLS that need no TLS library: fingerprints as text.
#include <stdio.h>

#include "ftp/TlsContext.h"

namespace {
int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

bool tlsParseFingerprint(const std::string& text, std::string* raw) {
    std::string bytes;
    size_t at = 0;
    while (at < text.size()) {
        if (at + 1 >= text.size()) return false;
        const int high = hexValue(text[at]);
        const int low = hexValue(text[at + 1]);
        if (high < 0 || low < 0) return false;
        bytes.push_back(static_cast<char>(high * 16 + low));
        at += 2;
        // One colon between pairs, none at either end.
        if (at < text.size() && text[at] == ':') {
            ++at;
            if (at == text.size()) return false;
        }
    }
    if (bytes.size() != 32 || raw == nullptr) return false;
    *raw = bytes;
    return true;
}

std::string tlsFormatFingerprint(const std::string& raw) {
    std::string text;
    for (size_t i = 0; i < raw.size(); ++i) {
        char pair[4];
        snprintf(pair, sizeof pair, i == 0 ? "%02X" : ":%02X",
                 static_cast<unsigned>(static_cast<unsigned char>(raw[i])));
        text += pair;
    }
    return text;
}
