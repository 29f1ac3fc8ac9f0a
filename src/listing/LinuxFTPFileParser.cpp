#include "listing/LinuxFTPFileParser.h"

#include "listing/EntryList.h"
#include "listing/LineWords.h"
#include "listing/ListingSize.h"

namespace {

enum { kPermissionWord = 0, kSizeWord = 4, kNameWord = 8 };

// The record of one Unix line, or NULL for a name starting with '.'.
FTPConst::FTPFileDescriptor* unixRecord(FTPConst::LineWords& words) {
    std::string name = words.word(kNameWord);
    // Hidden names, "." and ".." are no recordings: dropped before a record
    // is made, so nothing of them reaches the list or the total.
    if (!name.empty() && name[0] == '.') {
        return NULL;
    }
    const std::string permissions = words.word(kPermissionWord);
    const std::string sizeWord = words.word(kSizeWord);

    FTPConst::FTPFileDescriptor* record = new FTPConst::FTPFileDescriptor;
    // The byte value, so that a non-ASCII first character gives the same
    // code whether char is signed (x86) or unsigned (ARM). A missing word
    // reads as "", whose first character is the terminator: type 0.
    record->type = static_cast<unsigned char>(permissions.c_str()[0]);
    record->size =
        FTPConst::readListingSize(sizeWord.data(), static_cast<unsigned int>(sizeWord.size()));
    record->name.swap(name);
    return record;
}

}  // namespace

LinuxFTPFileParser::LinuxFTPFileParser() {}
LinuxFTPFileParser::~LinuxFTPFileParser() {}

void LinuxFTPFileParser::getFileDescriptorList(
    const std::vector<std::string>& lines,
    std::vector<SafePointer<FTPConst::FTPFileDescriptor> >& entries, long long& total) {
    FTPConst::appendRecords(lines, unixRecord, entries, total);
}
