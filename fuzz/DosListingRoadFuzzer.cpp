// Arbitrary bytes as a "LIST" reply, read by the store's road and by the
// reference road (FuzzListing.h) as the style they decide and as a DOS-style
// listing; WindowsFTPFileParser's entries are also checked word by word.
#include "FuzzListing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace fuzzlisting;
    checkBothRoads(data, size, FTPConst::kListingDos);

    const std::vector<std::string> lines = referenceLines(listingText(data, size));
    Entries entries;
    long long total = -3;
    WindowsFTPFileParser parser;
    parser.getFileDescriptorList(lines, entries, total);
    checkTotal(entries, -3, total);

    FTPConst::LineWords words;
    size_t next = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].empty()) continue;
        words.split(lines[i]);
        check(next < entries.size(), "every non-empty line has an entry");
        const FTPConst::FTPFileDescriptor& entry = *entries[next++];
        const std::string marker = words.word(2);
        if (marker == "<DIR>") {
            check(entry.type == 'd' && entry.size == 0, "the marker makes a directory of size 0");
        } else {
            check(entry.type == '-', "anything else makes a file");
            check(entry.size == referenceSize(marker), "size is word 2 as strtoll reads it");
        }
        check(entry.name == words.word(3), "name is word 3");
    }
    check(next == entries.size(), "one entry per non-empty line");
    return 0;
}
