// Arbitrary bytes as a "LIST" reply, read by the store's road and by the
// reference road (FuzzListing.h) as the style they decide and as a Unix-style
// listing; LinuxFTPFileParser's entries are also checked word by word.
#include "FuzzListing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace fuzzlisting;
    checkBothRoads(data, size, FTPConst::kListingUnix);

    const std::vector<std::string> lines = referenceLines(listingText(data, size));
    Entries entries;
    long long total = 17;
    LinuxFTPFileParser parser;
    parser.getFileDescriptorList(lines, entries, total);
    checkTotal(entries, 17, total);

    // Walk the lines again and match each kept one to its entry.
    FTPConst::LineWords words;
    size_t next = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].empty()) continue;
        words.split(lines[i]);
        const std::string name = words.word(8);
        if (!name.empty() && name[0] == '.') continue;
        check(next < entries.size(), "every kept line has an entry");
        const FTPConst::FTPFileDescriptor& entry = *entries[next++];
        const std::string permissions = words.word(0);
        const int type = permissions.empty() ? 0 : static_cast<unsigned char>(permissions[0]);
        check(entry.type == type, "type is the first byte of word 0");
        check(entry.size == referenceSize(words.word(4)), "size is word 4 as strtoll reads it");
        check(entry.name == name, "name is word 8");
        check(entry.name.find(' ') == std::string::npos, "names hold no blank");
    }
    check(next == entries.size(), "no entry without a line");
    return 0;
}
