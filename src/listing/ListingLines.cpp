#include "listing/ListingLines.h"

namespace FTPConst {

namespace {

const char kLineEnd[] = "\r\n";
const size_t kLineEndLength = 2;

}  // namespace

ListingLines::ListingLines(const std::string& text) : text_(text), at_(0), done_(false) {}

bool ListingLines::next(const char** begin, size_t* length) {
    if (done_) {
        return false;
    }
    const std::string::size_type found = text_.find(kLineEnd, at_, kLineEndLength);
    *begin = text_.data() + at_;
    if (found == std::string::npos) {
        *length = text_.size() - at_;
        done_ = true;
        return true;
    }
    *length = found - at_;
    at_ = found + kLineEndLength;
    return true;
}

size_t ListingLines::count(const std::string& text) {
    size_t lines = 1;
    for (std::string::size_type at = text.find(kLineEnd, 0, kLineEndLength);
         at != std::string::npos; at = text.find(kLineEnd, at + kLineEndLength, kLineEndLength)) {
        ++lines;
    }
    return lines;
}

int detectTextStyle(const std::string& text) {
    ListingLines lines(text);
    LineWords words;
    const char* line = nullptr;
    size_t length = 0;
    // Word counts decide, line by line, as in detectListingStyle.
    while (lines.next(&line, &length)) {
        const int count = words.split(line, length);
        if (count == 4) {
            return kListingDos;
        }
        if (count == 9) {
            return kListingUnix;
        }
    }
    return kListingUnknown;
}

}  // namespace FTPConst
