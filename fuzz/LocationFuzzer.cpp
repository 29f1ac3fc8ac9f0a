// Arbitrary bytes as a location text, given to FTPPath::create; a parsed
// location must format to a text that parses back to the same fields.
#include <stddef.h>
#include <stdint.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "location/FTPPath.h"

namespace {

void check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "broken: %s\n", what);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    FTPPath first;
    if (first.create(text) != 1) {
        return 0;
    }
    const std::string path = first.getPath();
    check(!first.getUserName().empty(), "a parsed user name is never empty");
    check(path.empty() || path[path.size() - 1] != '/', "a parsed path never ends in a slash");
    check(path.empty() || path[0] == '/', "a parsed path starts with a slash");
    check(first.getServerAddress().find('/') == std::string::npos, "the server holds no slash");
    check((first.getServerAddress() + path).find('\\') == std::string::npos,
          "backslashes are turned into slashes");

    const std::string formatted = first.toString();
    FTPPath second;
    check(second.create(formatted) == 1, "the text of a parsed location parses");
    check(second.getUserName() == first.getUserName(), "the user name survives formatting");
    check(second.getPassword() == first.getPassword(), "the password survives formatting");
    check(second.getServerAddress() == first.getServerAddress(), "the server survives formatting");
    // Each parse folds one doubled slash, so only paths without one are fixed.
    if (path.find("//") == std::string::npos) {
        check(second.getPath() == path, "the path survives formatting");
        check(second.toString() == formatted, "formatting a reparsed location is stable");
    }
    return 0;
}
