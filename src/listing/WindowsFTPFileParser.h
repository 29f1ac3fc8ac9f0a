// WindowsFTPFileParser: turns the lines of a DOS-style listing into entry
// records. No state: each call uses its own word splitter, so any number of
// threads may call one object at once, each with its own entry list.
//
//   "01-15-20  10:30AM       <DIR>          rec"
//     -> type 'd', size 0, name "rec"
//   "01-15-20  10:30AM              1048576 ch01.mp4"
//     -> type '-', size 1048576, name "ch01.mp4"; total += 1048576
//
// Columns: date, time, either the marker "<DIR>" or the size, name. The date
// and time are not read.
#ifndef FTPDISK_LISTING_WINDOWSFTPFILEPARSER_H
#define FTPDISK_LISTING_WINDOWSFTPFILEPARSER_H

#include <string>
#include <vector>

#include "foundation/SafePointer.h"
#include "listing/FTPFileDescriptor.h"
#include "listing/LineWords.h"

namespace FTPConst {

// The directory marker of the size column, "<DIR>". Kept in this namespace so
// that it cannot collide with the DIR type of <dirent.h>.
extern const char DIR[6];

// One line of a DOS listing, already cut into `words`, read into `record`
// (type, size and name as getFileDescriptorList below describes them). No
// line is dropped.
void readDosLine(LineWords& words, FTPFileDescriptor& record);

}  // namespace FTPConst

class WindowsFTPFileParser {
public:
    WindowsFTPFileParser();
    ~WindowsFTPFileParser();

    // For every non-empty line, in order: when word 2 is exactly "<DIR>"
    // (case-sensitive, so "<dir>" is a file) type = 'd' and size = 0; otherwise
    // type = '-' and size = word 2 read as readListingSize reads it ("2,048"
    // gives 2). name = word 3 alone, so a name with blanks keeps only its first
    // word; "." and dot-files are kept. Every entry is appended to `entries`
    // and its size added to `total` (never reset here). Word counts are not
    // checked: missing words read as "". Nothing is reported.
    void getFileDescriptorList(const std::vector<std::string>& lines,
                               std::vector<SafePointer<FTPConst::FTPFileDescriptor> >& entries,
                               long long& total);

private:
    WindowsFTPFileParser(const WindowsFTPFileParser&);
    WindowsFTPFileParser& operator=(const WindowsFTPFileParser&);
};

#endif  // FTPDISK_LISTING_WINDOWSFTPFILEPARSER_H
