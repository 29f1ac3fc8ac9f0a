#include "listing/LinuxFTPFileParser.h"

#include "listing/EntryList.h"
#include "listing/LineWords.h"
#include "listing/ListingSize.h"

namespace {

enum { kPermissionWord = 0, kSizeWord = 4, kNameWord = 8 };

// The record of one Unix line, or nullptr for a name starting with '.'.
FTPConst::FTPFileDescriptor* unixRecord(FTPConst::LineWords& words) {
    FTPConst::FTPFileDescriptor parsed;
    if (!FTPConst::readUnixLine(words, parsed)) {
        return nullptr;
    }
    FTPConst::FTPFileDescriptor* record = new FTPConst::FTPFileDescriptor;
    record->type = parsed.type;
    record->size = parsed.size;
    record->name.swap(parsed.name);
    return record;
}

}  // namespace

bool FTPConst::readUnixLine(LineWords& words, FTPFileDescriptor& record) {
    std::string name = words.word(kNameWord);
    // Hidden names, "." and ".." are no recordings: dropped before anything
    // else is read, so nothing of them reaches the list or the total.
    if (!name.empty() && name[0] == '.') {
        return false;
    }
    const std::string permissions = words.word(kPermissionWord);
    const std::string sizeWord = words.word(kSizeWord);
    // The byte value, so that a non-ASCII first character gives the same
    // code whether char is signed (x86) or unsigned (ARM). A missing word
    // reads as "", whose first character is the terminator: type 0.
    record.type = static_cast<unsigned char>(permissions.c_str()[0]);
    record.size = readListingSize(sizeWord.data(), static_cast<unsigned int>(sizeWord.size()));
    record.name.swap(name);
    return true;
}

LinuxFTPFileParser::LinuxFTPFileParser() {}
LinuxFTPFileParser::~LinuxFTPFileParser() {}

void LinuxFTPFileParser::getFileDescriptorList(
    const std::vector<std::string>& lines,
    std::vector<SafePointer<FTPConst::FTPFileDescriptor> >& entries, long long& total) {
    FTPConst::appendRecords(lines, unixRecord, entries, total);
}
