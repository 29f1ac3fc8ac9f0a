#include "foundation/LastError.h"

#include <string.h>

namespace lasterror {

namespace {

// Plain data, so that the thread-local needs no constructor or destructor of
// its own on any toolchain.
struct Record {
    int kind;
    int quiet;
    char text[kTextSize];
};

thread_local Record current = {kNone, 0, {0}};

// strerror_r comes in two shapes (XSI returns int, GNU returns the text);
// these overloads take whichever the C library provides.
__attribute__((unused)) const char* errorText(int result, const char* buffer) {
    return result == 0 ? buffer : "Unknown error";
}
__attribute__((unused)) const char* errorText(const char* result, const char*) { return result; }

}  // namespace

void clear() {
    current.kind = kNone;
    current.text[0] = '\0';
}

void note(int kind, const char* text) {
    if (current.quiet > 0) return;
    current.kind = kind;
    if (text == nullptr) text = "";
    // One line: a reply's line end (and anything after it) is not part of it.
    size_t length = strcspn(text, "\r\n");
    if (length > kTextSize - 1) length = kTextSize - 1;
    memcpy(current.text, text, length);
    current.text[length] = '\0';
}

void noteError(int kind, int error) {
    char buffer[kTextSize];
    buffer[0] = '\0';
    note(kind, errorText(strerror_r(error, buffer, sizeof buffer), buffer));
}

int kind() { return current.kind; }

const char* text() { return current.text; }

Quiet::Quiet() { ++current.quiet; }

Quiet::~Quiet() { --current.quiet; }

}  // namespace lasterror
