#include "listing/LinuxFTPFileParser.h"

#include "listing/EntryList.h"
#include "listing/LineWords.h"
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
    FTPConst::LineWords words;
    for (std::vector<std::string>::const_iterator it = lines.begin(); it != lines.end(); ++it) {
        if (it->empty()) {
            continue;
        }
        // Read as C text: the listing has had its zero bytes turned into
        // blanks before it was cut into lines.
        words.split(*it);
        std::string name = words.word(kNameWord);
        // Hidden names, "." and ".." are no recordings: dropped before a record
        // is made, so nothing of them reaches the list or the total.
        if (!name.empty() && name[0] == '.') {
            continue;
        }
        const std::string permissions = words.word(kPermissionWord);
        const std::string sizeWord = words.word(kSizeWord);
        const int32_t size =
            FTPConst::readListingSize(sizeWord.data(), static_cast<unsigned int>(sizeWord.size()));

        FTPConst::FTPFileDescriptor* record = new FTPConst::FTPFileDescriptor;
        // The byte value, so that a non-ASCII first character gives the same
        // code whether char is signed (x86) or unsigned (ARM). A missing word
        // reads as "", whose first character is the terminator: type 0.
        record->type = static_cast<unsigned char>(permissions.c_str()[0]);
        record->size = size;
        record->name.swap(name);
        entries.push_back(SafePointer<FTPConst::FTPFileDescriptor>(record));
        total += static_cast<long long>(size);
    }
}
