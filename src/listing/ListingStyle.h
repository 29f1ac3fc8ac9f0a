// Decides whether the lines of a "LIST" reply are a Unix-style or a DOS-style
// listing. Stateless; any thread may call it.
//
//   "-rw-r--r-- 1 ftp ftp 512 Jan 01 10:00 a.dat"   9 words -> kListingUnix
//   "01-15-20  10:30AM       512 a.dat"              4 words -> kListingDos
#ifndef FTPDISK_LISTING_LISTINGSTYLE_H
#define FTPDISK_LISTING_LISTINGSTYLE_H

#include <string>
#include <vector>

namespace FTPConst {

// Listing style codes, as FTPFileSystemImpl::getFTPFileType reports them.
enum {
    kListingUnix = 0,    // LinuxFTPFileParser
    kListingDos = 1,     // WindowsFTPFileParser
    kListingUnknown = 2  // no parser: the entry list stays empty
};

}  // namespace FTPConst

// Looks at the lines in order and splits each at blanks (a run of blanks is
// one separator). The first line of exactly 4 words gives kListingDos, the
// first of exactly 9 words kListingUnix; lines of any other count (a "total 12"
// header, a blank line) are passed over. No lines, or no line of 4 or 9 words,
// gives kListingUnknown. Only word counts are looked at, never the words.
int detectListingStyle(const std::vector<std::string>& lines);

#endif  // FTPDISK_LISTING_LISTINGSTYLE_H
