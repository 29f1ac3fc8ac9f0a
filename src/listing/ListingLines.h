// ListingLines: the lines of a whole "LIST" reply, seen in place.
//
//   "-rw-r--r-- 1 u g 5 Jan 01 10:00 a\r\ntotal 1\r\n" -> "-rw-...a", "total 1", ""
//
// Cuts the text exactly as StringHandler::split cuts it at "\r\n" (every
// separator ends a line, empty lines are kept, the text after the last
// separator is the last line, an empty text is one empty line) but copies
// nothing: a listing of 100,000 entries would otherwise cost 100,000 strings
// before a single word is read. forEachListedEntry then decides the style and
// parses line by line as detectListingStyle and the two parsers do over a
// vector of lines, with one scratch record instead of a shared record per
// entry. The text must stay unchanged while it is read. One object is used by
// one thread at a time.
#ifndef FTPDISK_LISTING_LISTINGLINES_H
#define FTPDISK_LISTING_LISTINGLINES_H

#include <stddef.h>

#include <string>

#include "listing/FTPFileDescriptor.h"
#include "listing/LineWords.h"
#include "listing/LinuxFTPFileParser.h"
#include "listing/ListingStyle.h"
#include "listing/WindowsFTPFileParser.h"

namespace FTPConst {

class ListingLines {
public:
    explicit ListingLines(const std::string& text);

    // The next line as `*length` bytes at `*begin` (no terminator, separator
    // left out); false once every line was handed out.
    bool next(const char** begin, size_t* length);

    // How many lines `text` holds: one more than its separators.
    static size_t count(const std::string& text);

private:
    const std::string& text_;
    std::string::size_type at_;
    bool done_;
};

// detectListingStyle over the lines of `text`, as StringHandler::split would
// have cut them.
int detectTextStyle(const std::string& text);

// For every line of `text` in order, when `style` is kListingUnix or
// kListingDos: the line cut into words and read by that style's parser
// (readUnixLine, readDosLine); every entry the parser keeps is handed to
// `sink(record)`. Empty lines are skipped, as the parsers skip them; an
// unknown style hands out nothing. `record` is one scratch object reused for
// every line: the sink may take its name (swap) but must not keep the
// reference. A sink returning false stops the walk.
template <typename Sink>
void forEachListedEntry(const std::string& text, int style, Sink& sink) {
    if (style != kListingUnix && style != kListingDos) {
        return;
    }
    ListingLines lines(text);
    LineWords words;
    FTPFileDescriptor record;
    const char* line = nullptr;
    size_t length = 0;
    while (lines.next(&line, &length)) {
        if (length == 0) {
            continue;
        }
        words.split(line, length);
        if (style == kListingUnix) {
            if (!readUnixLine(words, record)) {
                continue;
            }
        } else {
            readDosLine(words, record);
        }
        if (!sink(record)) {
            return;
        }
    }
}

}  // namespace FTPConst

#endif  // FTPDISK_LISTING_LISTINGLINES_H
