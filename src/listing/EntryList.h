// The loop the listing parsers share, and room-making for their entry lists.
// Stateless; any thread may call them on a list it owns.
#ifndef FTPDISK_LISTING_ENTRYLIST_H
#define FTPDISK_LISTING_ENTRYLIST_H

#include <stddef.h>

#include <string>
#include <vector>

#include "foundation/SafePointer.h"
#include "listing/FTPFileDescriptor.h"
#include "listing/LineWords.h"

namespace FTPConst {

// Makes room for `lines` more elements. When the list must grow, its capacity
// at least doubles: reserving exactly size + lines would reallocate, and copy
// every element already in it, on each call of a caller that appends listing
// after listing to one list.
template <typename T>
void reserveForLines(std::vector<T>& entries, typename std::vector<T>::size_type lines) {
    const typename std::vector<T>::size_type wanted = entries.size() + lines;
    if (wanted <= entries.capacity()) {
        return;
    }
    const typename std::vector<T>::size_type doubled = 2 * entries.capacity();
    entries.reserve(wanted > doubled ? wanted : doubled);
}

// Makes the record of one line from its words, or returns nullptr to drop the
// line (nothing of it then reaches the list or the total).
typedef FTPFileDescriptor* (*RecordOfLine)(LineWords& words);

// For every non-empty line, in order: splits it at blanks and hands the words
// to `recordOf`; a record it returns is appended to `entries` and its size
// added to `total` (never reset here).
inline void appendRecords(const std::vector<std::string>& lines, RecordOfLine recordOf,
                          std::vector<SafePointer<FTPFileDescriptor> >& entries, long long& total) {
    // Growing the list copies every SafePointer already in it, and each copy
    // takes its count's lock: one reservation up front avoids that.
    reserveForLines(entries, lines.size());
    LineWords words;
    for (std::vector<std::string>::const_iterator it = lines.begin(); it != lines.end(); ++it) {
        if (it->empty()) {
            continue;
        }
        // Read as C text: the listing has had its zero bytes turned into
        // blanks before it was cut into lines.
        words.split(*it);
        FTPFileDescriptor* record = recordOf(words);
        if (record == nullptr) {
            continue;
        }
        const int32_t size = record->size;
        // Built in place: a temporary pointer copied in would lock its count
        // twice more per entry.
        entries.emplace_back(record);
        total += static_cast<long long>(size);
    }
}

}  // namespace FTPConst

#endif  // FTPDISK_LISTING_ENTRYLIST_H
