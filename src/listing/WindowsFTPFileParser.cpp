#include "listing/WindowsFTPFileParser.h"

#include "listing/EntryList.h"
#include "listing/LineWords.h"
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
    FTPConst::LineWords words;
    for (std::vector<std::string>::const_iterator it = lines.begin(); it != lines.end(); ++it) {
        if (it->empty()) {
            continue;
        }
        // Read as C text: the listing has had its zero bytes turned into
        // blanks before it was cut into lines.
        words.split(*it);
        const std::string sizeWord = words.word(kSizeWord);

        FTPConst::FTPFileDescriptor* record = new FTPConst::FTPFileDescriptor;
        // Whole word, exact case: "<dir>" and "<DIR>x" are sizes (reading 0).
        if (sizeWord == FTPConst::DIR) {
            record->type = 'd';
            record->size = 0;
        } else {
            record->type = '-';
            record->size = FTPConst::readListingSize(sizeWord.data(),
                                                     static_cast<unsigned int>(sizeWord.size()));
        }
        record->name = words.word(kNameWord);
        const int32_t size = record->size;
        entries.push_back(SafePointer<FTPConst::FTPFileDescriptor>(record));
        total += static_cast<long long>(size);
    }
}
