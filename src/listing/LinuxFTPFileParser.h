// LinuxFTPFileParser: turns the lines of a Unix-style long listing into entry
// records. No state: each call uses its own word splitter, so any number of
// threads may call one object at once, each with its own entry list.
//
//   "-rw-r--r--   1 ftp  ftp  1048576 Jan 15 10:30 ch01_20200115.mp4"
//     -> type '-', size 1048576, name "ch01_20200115.mp4"; total += 1048576
//
// Columns: permissions, link count, owner, group, size, month, day, time or
// year, name. Only words 0, 4 and 8 are read.
#ifndef FTPDISK_LISTING_LINUXFTPFILEPARSER_H
#define FTPDISK_LISTING_LINUXFTPFILEPARSER_H

#include <string>
#include <vector>

#include "foundation/SafePointer.h"
#include "listing/FTPFileDescriptor.h"
#include "listing/LineWords.h"

namespace FTPConst {

// One line of a Unix listing, already cut into `words`, read into `record`
// (type, size and name as getFileDescriptorList below describes them). False,
// with `record` unchanged, for a name starting with '.': the line is dropped.
bool readUnixLine(LineWords& words, FTPFileDescriptor& record);

}  // namespace FTPConst

class LinuxFTPFileParser {
public:
    LinuxFTPFileParser();
    ~LinuxFTPFileParser();

    // For every non-empty line, in order: type = the byte value of the first
    // character of word 0 ('d', '-', 'l', ...), size = word 4 read as
    // readListingSize reads it (2 GiB and more wrap to 32 bits), name = word 8
    // alone, so a name with blanks keeps only its first word. A name starting
    // with '.' (".", "..", dot-files) is dropped. Kept entries are appended to
    // `entries` and their sizes, directories' included, added to `total`
    // (never reset here). Word counts are not checked: a line of fewer words
    // still gives an entry, with "" for the missing words (a "total 12" line
    // gives type 't', size 0, name ""). Nothing is reported.
    void getFileDescriptorList(const std::vector<std::string>& lines,
                               std::vector<SafePointer<FTPConst::FTPFileDescriptor> >& entries,
                               long long& total);

private:
    LinuxFTPFileParser(const LinuxFTPFileParser&);
    LinuxFTPFileParser& operator=(const LinuxFTPFileParser&);
};

#endif  // FTPDISK_LISTING_LINUXFTPFILEPARSER_H
