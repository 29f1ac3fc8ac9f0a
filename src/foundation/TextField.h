// copyTextField: how the module fills each of its fixed text fields (the
// store's and the open-file table's server, user and password). Any thread.
#ifndef FTPDISK_FOUNDATION_TEXTFIELD_H
#define FTPDISK_FOUNDATION_TEXTFIELD_H

#include <stddef.h>
#include <string.h>

// Zero-fills `field` (of `size` bytes, at least 1) and copies `text` into it;
// a null `text` leaves it empty. Callers refuse texts that do not fit before
// they get here; the bound only makes sure a longer one is cut, never written
// past the field.
inline void copyTextField(char* field, size_t size, const char* text) {
    memset(field, 0, size);
    if (text != nullptr) {
        strncpy(field, text, size - 1);
    }
}

#endif  // FTPDISK_FOUNDATION_TEXTFIELD_H
