#include "listing/ListingStyle.h"

#include "listing/LineWords.h"

int detectListingStyle(const std::vector<std::string>& lines) {
    FTPConst::LineWords words;
    for (std::vector<std::string>::const_iterator it = lines.begin(); it != lines.end(); ++it) {
        // Split as the parsers split, so both see the same words.
        const int count = words.split(*it);
        if (count == 4) {
            return FTPConst::kListingDos;
        }
        if (count == 9) {
            return FTPConst::kListingUnix;
        }
    }
    return FTPConst::kListingUnknown;
}
