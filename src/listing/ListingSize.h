// Reads the size column of a listing line into the entry record's signed
// 32-bit size field. Stateless; any thread may call it.
//
//   "4096" -> 4096     "2,048" -> 2     "<dir>" -> 0     "-12" -> -12
//   "2147483647" -> 2147483647          "2147483648" -> -2147483648
//   "4294967296" -> 0                   "6442450944" -> -2147483648 (6 GiB)
//
// The word is read the way strtol reads it in base 10 (leading white space,
// an optional sign, then the leading digits; no digits gives 0) and the
// number is then cut to its low 32 bits, as storing strtol's result in the
// 32-bit field does on a 64-bit host. The reading is done here with 64 bits on
// every platform: on a 32-bit host strtol itself would stop at 2147483647, so
// calling it directly would give a 3 GiB file a different size on the
// recorder than on a 64-bit build. Numbers beyond 64 bits saturate as strtoll
// does (to 2^63 - 1, whose low 32 bits read -1; to -2^63, which reads 0).
#ifndef FTPDISK_LISTING_LISTINGSIZE_H
#define FTPDISK_LISTING_LISTINGSIZE_H

#include <stdint.h>

namespace FTPConst {

// `word` need not be terminated: exactly `length` bytes are read.
int32_t readListingSize(const char* word, unsigned int length);

}  // namespace FTPConst

#endif  // FTPDISK_LISTING_LISTINGSIZE_H
