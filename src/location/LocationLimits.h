// The longest server address, user name and password a location may carry
// into a store, in characters. A store keeps its server in 48 bytes, its user
// in 32 and its password in 20, and the open-file table keeps each of the three
// in 32; every field holds its text and a terminator, so the smaller field of
// each pair sets the limit. FTPFileSystemImpl::textsFit applies them; the
// store's and the table's fields are checked against them when the module is
// compiled. Constants only; any thread.
#ifndef FTPDISK_LOCATION_LOCATIONLIMITS_H
#define FTPDISK_LOCATION_LOCATIONLIMITS_H

#include <stddef.h>

namespace NS_FTPPath {

const size_t kMaxServerLength = 31;
const size_t kMaxUserLength = 31;
const size_t kMaxPasswordLength = 19;

}  // namespace NS_FTPPath

#endif  // FTPDISK_LOCATION_LOCATIONLIMITS_H
