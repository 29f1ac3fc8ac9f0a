// FTPConst::FTPFileDescriptor: one entry of a directory listing, shared through
// SafePointer. Plain data; no lock.
#ifndef FTPDISK_LISTING_FTPFILEDESCRIPTOR_H
#define FTPDISK_LISTING_FTPFILEDESCRIPTOR_H

#include <stdint.h>

#include <string>

namespace FTPConst {

// The two entry types the module acts on. Every other type (a Unix listing's
// 'l', say) is neither a file nor a directory to the store.
const int32_t kTypeDirectory = 'd';
const int32_t kTypePlainFile = '-';

class FTPFileDescriptor {
public:
    FTPFileDescriptor() : type(0), size(0) {}
    virtual ~FTPFileDescriptor() {}

    // kTypeDirectory, kTypePlainFile; from Unix listings also 'l' and other
    // letters of the permission field, stored as the byte value (0 to 255) so
    // that it does not depend on whether char is signed.
    int32_t type;
    // Bytes as the listing states them; 2 GiB and more wrap (signed 32 bits).
    int32_t size;
    // One blank-free word.
    std::string name;
};

}  // namespace FTPConst

#endif  // FTPDISK_LISTING_FTPFILEDESCRIPTOR_H
