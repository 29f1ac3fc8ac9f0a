// Host contract: text conversions. Declared here, implemented by the
// recorder's process.
#ifndef FTPDISK_HOST_STRING_UTIL_H
#define FTPDISK_HOST_STRING_UTIL_H

#include <string>

#include "foundation/Export.h"

/// Host contract: text conversions. FTPFileSystem::Get and Put widen their
/// UTF-8 local file names with utf82wchar before handing them to KDFile.
/// Checked by the host conformance suite as string_util.utf82wchar.
namespace string_util {

/// Converts UTF-8 text to wide text (one wchar_t per code point). Invalid
/// bytes become U+FFFD. A null pointer gives an empty text.
FTPDISK_HOST_API std::wstring utf82wchar(const char* utf8);

/// The inverse: wide text to UTF-8 (the module does not call it).
FTPDISK_HOST_API std::string wchar2utf8(const wchar_t* wide);

}  // namespace string_util

#endif  // FTPDISK_HOST_STRING_UTIL_H
