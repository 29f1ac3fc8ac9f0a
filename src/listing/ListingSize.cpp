#include "listing/ListingSize.h"

namespace FTPConst {

namespace {

// The white space strtol skips in the "C" locale.
bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Two's complement reading of the low 32 bits, written out because a plain
// conversion of an out-of-range value to int32_t is implementation-defined in
// C++11.
int32_t lowSigned32(uint64_t value) {
    const uint32_t low = static_cast<uint32_t>(value);
    if (low <= 0x7FFFFFFFu) {
        return static_cast<int32_t>(low);
    }
    return -static_cast<int32_t>(~low) - 1;
}

}  // namespace

int32_t readListingSize(const char* word, unsigned int length) {
    unsigned int i = 0;
    while (i < length && isSpace(word[i])) {
        ++i;
    }
    bool negative = false;
    if (i < length && (word[i] == '+' || word[i] == '-')) {
        negative = word[i] == '-';
        ++i;
    }
    // Magnitude in 64 bits, saturating like strtoll: 2^63 - 1 upwards,
    // 2^63 downwards.
    const uint64_t limit =
        negative ? (static_cast<uint64_t>(1) << 63) : (static_cast<uint64_t>(1) << 63) - 1;
    uint64_t magnitude = 0;
    bool saturated = false;
    for (; i < length && word[i] >= '0' && word[i] <= '9'; ++i) {
        if (saturated) {
            continue;
        }
        const uint64_t digit = static_cast<uint64_t>(word[i] - '0');
        if (magnitude > (limit - digit) / 10) {
            magnitude = limit;
            saturated = true;
        } else {
            magnitude = magnitude * 10 + digit;
        }
    }
    // Negation in unsigned arithmetic is the two's complement of the value,
    // whose low 32 bits are what the field keeps.
    return lowSigned32(negative ? (~magnitude + 1) : magnitude);
}

}  // namespace FTPConst
