#include "listing/WindowsFTPFileParser.h"

#include <cstring>

#include "host/StringParser.h"
#include "listing/EntryList.h"
#include "listing/ListingSize.h"

namespace FTPConst {

const char DIR[6] = "<DIR>";

}  // namespace FTPConst

namespace {

enum { kSizeWord = 2, kNameWord = 3 };

}  // namespace

WindowsFTPFileParser::WindowsFTPFileParser() {}
WindowsFTPFileParser::~WindowsFTPFileParser() {}

void WindowsFTPFileParser::getFileDescriptorList(
    const std::vector<std::string>& lines,
    std::vector<SafePointer<FTPConst::FTPFileDescriptor> >& entries, long long& total) {
    // Growing the list copies every SafePointer already in it, and each copy
    // takes its count's lock: one reservation up front avoids that.
    FTPConst::reserveForLines(entries, lines.size());
    const unsigned int markerLength = static_cast<unsigned int>(sizeof(FTPConst::DIR) - 1);
    StringParser parser;
    for (std::vector<std::string>::const_iterator it = lines.begin(); it != lines.end(); ++it) {
        if (it->empty()) {
            continue;
        }
        // As a C string: the listing text has had its zero bytes turned into
        // blanks before it was cut into lines.
        parser.Split(it->c_str(), " ");

        unsigned int sizeLength = 0;
        const char* sizeWord = parser.getItemPointer(kSizeWord, &sizeLength);
        unsigned int nameLength = 0;
        const char* name = parser.getItemPointer(kNameWord, &nameLength);

        FTPConst::FTPFileDescriptor* record = new FTPConst::FTPFileDescriptor;
        // Whole word, exact case: "<dir>" and "<DIR>x" are sizes (reading 0).
        if (sizeLength == markerLength && std::memcmp(sizeWord, FTPConst::DIR, markerLength) == 0) {
            record->type = 'd';
            record->size = 0;
        } else {
            record->type = '-';
            record->size = FTPConst::readListingSize(sizeWord, sizeLength);
        }
        record->name.assign(name, nameLength);
        const int32_t size = record->size;
        entries.push_back(SafePointer<FTPConst::FTPFileDescriptor>(record));
        total += static_cast<long long>(size);
    }
}
