#include "listing/LinuxFTPFileParser.h"

#include "host/StringParser.h"
#include "listing/EntryList.h"
#include "listing/ListingSize.h"

namespace {

enum { kPermissionWord = 0, kSizeWord = 4, kNameWord = 8 };

}  // namespace

LinuxFTPFileParser::LinuxFTPFileParser() {}
LinuxFTPFileParser::~LinuxFTPFileParser() {}

void LinuxFTPFileParser::getFileDescriptorList(
    const std::vector<std::string>& lines,
    std::vector<SafePointer<FTPConst::FTPFileDescriptor> >& entries, long long& total) {
    // Growing the list copies every SafePointer already in it, and each copy
    // takes its count's lock: one reservation up front avoids that.
    FTPConst::reserveForLines(entries, lines.size());
    StringParser parser;
    for (std::vector<std::string>::const_iterator it = lines.begin(); it != lines.end(); ++it) {
        if (it->empty()) {
            continue;
        }
        // As a C string: the listing text has had its zero bytes turned into
        // blanks before it was cut into lines.
        parser.Split(it->c_str(), " ");

        unsigned int nameLength = 0;
        const char* name = parser.getItemPointer(kNameWord, &nameLength);
        // Hidden names, "." and ".." are no recordings: dropped before a record
        // is made, so nothing of them reaches the list or the total.
        if (nameLength > 0 && name[0] == '.') {
            continue;
        }
        unsigned int length = 0;
        const char* permissions = parser.getItemPointer(kPermissionWord, &length);
        const char* sizeWord = parser.getItemPointer(kSizeWord, &length);
        const int32_t size = FTPConst::readListingSize(sizeWord, length);

        FTPConst::FTPFileDescriptor* record = new FTPConst::FTPFileDescriptor;
        // The byte value, so that a non-ASCII first character gives the same
        // code whether char is signed (x86) or unsigned (ARM). A missing word
        // reads as "", whose first character is the terminator: type 0.
        record->type = static_cast<unsigned char>(permissions[0]);
        record->size = size;
        record->name.assign(name, nameLength);
        entries.push_back(SafePointer<FTPConst::FTPFileDescriptor>(record));
        total += static_cast<long long>(size);
    }
}
