#include "listing/WindowsFTPFileParser.h"

#include "listing/EntryList.h"
#include "listing/LineWords.h"
#include "listing/ListingSize.h"

namespace FTPConst {

const char DIR[6] = "<DIR>";

}  // namespace FTPConst

namespace {

enum { kSizeWord = 2, kNameWord = 3 };

// The record of one DOS line; no line is dropped.
FTPConst::FTPFileDescriptor* dosRecord(FTPConst::LineWords& words) {
    FTPConst::FTPFileDescriptor* record = new FTPConst::FTPFileDescriptor;
    FTPConst::readDosLine(words, *record);
    return record;
}

}  // namespace

void FTPConst::readDosLine(LineWords& words, FTPFileDescriptor& record) {
    const std::string sizeWord = words.word(kSizeWord);
    // Whole word, exact case: "<dir>" and "<DIR>x" are sizes (reading 0).
    if (sizeWord == DIR) {
        record.type = kTypeDirectory;
        record.size = 0;
    } else {
        record.type = kTypePlainFile;
        record.size = readListingSize(sizeWord.data(), static_cast<unsigned int>(sizeWord.size()));
    }
    record.name = words.word(kNameWord);
}

WindowsFTPFileParser::WindowsFTPFileParser() {}
WindowsFTPFileParser::~WindowsFTPFileParser() {}

void WindowsFTPFileParser::getFileDescriptorList(
    const std::vector<std::string>& lines,
    std::vector<SafePointer<FTPConst::FTPFileDescriptor> >& entries, long long& total) {
    FTPConst::appendRecords(lines, dosRecord, entries, total);
}
