// Host contract: cuts a text at every occurrence of a separator. Declared
// here, implemented by the recorder's process.
#ifndef FTPDISK_HOST_STRINGHANDLER_H
#define FTPDISK_HOST_STRINGHANDLER_H

#include <string>
#include <vector>

#include "foundation/Export.h"

/// Host contract: cuts a text at every occurrence of a separator. The module
/// cuts listings into lines at "\r\n" and location texts at "/" (the
/// registry compares the parts, empty ones included). Stateless; safe from
/// any thread. Checked by the host conformance suite as
/// StringHandler.every_separator_cuts.
class FTPDISK_HOST_API StringHandler {
public:
    /// Appends the parts of `text` to `parts`: split("a\r\nb\r\n", parts,
    /// "\r\n") appends "a", "b", "". Every separator ends one part, empty
    /// parts are kept (also between two adjacent separators), and the text
    /// after the last separator is the last part. An empty text gives one
    /// empty part; an empty separator appends the whole text.
    static void split(const std::string& text, std::vector<std::string>& parts,
                      const std::string& separator);
};

#endif  // FTPDISK_HOST_STRINGHANDLER_H
