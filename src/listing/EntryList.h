// Room-making for the parsers' entry lists. Stateless; any thread may call it
// on a list it owns.
#ifndef FTPDISK_LISTING_ENTRYLIST_H
#define FTPDISK_LISTING_ENTRYLIST_H

#include <vector>

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

}  // namespace FTPConst

#endif  // FTPDISK_LISTING_ENTRYLIST_H
