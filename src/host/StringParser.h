// Host contract: splits one line into words. Declared here, implemented by
// the recorder's process.
#ifndef FTPDISK_HOST_STRINGPARSER_H
#define FTPDISK_HOST_STRINGPARSER_H

#include <string>
#include <vector>

#include "foundation/Export.h"

/// Host contract: splits one listing line into words.
///
/// Split("01-15-20  10:30AM       512 a.dat", " ") gives 4 words: "01-15-20",
/// "10:30AM", "512", "a.dat". A run of separators counts as one, and leading
/// or trailing separators give no empty words. The module always passes " ",
/// and the blanks are that character only: a tab, like any other character
/// that is not the separator, is part of a word ("a\tb c" gives "a\tb" and
/// "c"). The listing code counts words to tell a Unix line (9) from a DOS
/// line (4), so a listing whose columns are tabs has lines of one word and
/// lists as empty on every host. The signatures are the
/// recorder's own: Split takes writable text and may use it in place, so the
/// caller keeps the text unchanged and alive until it has read the words. The
/// module embeds these objects in its own, at the size this header gives (a
/// string and two vectors), so the recorder's class keeps that layout. One
/// object is used by one thread at a time. Checked by the host conformance
/// suite as StringParser.blanks_tabs_runs.
class FTPDISK_HOST_API StringParser {
public:
    /// A parser with no words.
    StringParser();
    ~StringParser();

    /// Splits the zero-terminated `text` at every occurrence of `separator`
    /// (a whole string; an empty or null separator splits at blanks).
    /// \return the number of words; a null text gives none.
    int Split(char* text, char* separator);

    /// \return the number of words of the last Split.
    unsigned int Getcount();
    /// \return the word at `index`; an empty word past the last one.
    std::string getItem(unsigned int index);

private:
    std::string buffer_;
    std::vector<unsigned int> starts_;
    std::vector<unsigned int> lengths_;
};

#endif  // FTPDISK_HOST_STRINGPARSER_H
