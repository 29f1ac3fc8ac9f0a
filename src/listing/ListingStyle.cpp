#include "listing/ListingStyle.h"

#include "host/StringParser.h"

int detectListingStyle(const std::vector<std::string>& lines) {
    StringParser parser;
    for (std::vector<std::string>::const_iterator it = lines.begin(); it != lines.end(); ++it) {
        // The line is handed over as a C string, as the parsers do, so both
        // see the same words.
        const int words = parser.Split(it->c_str(), " ");
        if (words == 4) {
            return FTPConst::kListingDos;
        }
        if (words == 9) {
            return FTPConst::kListingUnix;
        }
    }
    return FTPConst::kListingUnknown;
}
