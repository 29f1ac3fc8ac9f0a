// Host contract: text conversions.
#ifndef FTPDISK_HOST_STRING_UTIL_H
#define FTPDISK_HOST_STRING_UTIL_H

#include <string>

#include "foundation/Export.h"

namespace string_util {

// Converts UTF-8 text to wide text (one wchar_t per code point). Invalid bytes
// become U+FFFD. A null pointer gives an empty text.
FTPDISK_HOST_API std::wstring utf82wchar(const char* utf8);

// The inverse: wide text to UTF-8.
FTPDISK_HOST_API std::string wchar2utf8(const wchar_t* wide);

}  // namespace string_util

#endif  // FTPDISK_HOST_STRING_UTIL_H
