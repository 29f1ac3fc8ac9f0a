// Host contract: a local file. One object is used by one thread at a time.
#ifndef FTPDISK_HOST_KDFILE_H
#define FTPDISK_HOST_KDFILE_H

#include <wchar.h>

#include "foundation/Export.h"

class FTPDISK_HOST_API KDFile {
public:
    KDFile();
    // Closes the file if it is still open.
    ~KDFile();

    // Opens `name`. Mode 98 ('b') creates or truncates the file for writing;
    // mode 1 opens an existing file for reading. Non-zero on success.
    int open_w(const wchar_t* name, unsigned char mode);
    // Bytes read (0 at end of file), negative on error.
    int read(char* buf, unsigned int len);
    // Bytes written, negative on error.
    int write(char* buf, unsigned int len);
    void close();

private:
    KDFile(const KDFile&);
    KDFile& operator=(const KDFile&);

    int fd_;
};

#endif  // FTPDISK_HOST_KDFILE_H
