// Host contract: a local file. Declared here, implemented by the recorder's
// process.
#ifndef FTPDISK_HOST_KDFILE_H
#define FTPDISK_HOST_KDFILE_H

#include <wchar.h>

#include "foundation/Export.h"

/// Host contract: one local file, used by FTPFileSystem::Get (to write) and
/// FTPFileSystem::Put (to read). The module makes these objects on its stack
/// at the size this header gives (one int), so the recorder's class keeps
/// that layout. One object is used by one thread at a time. Recordings of
/// 2 GiB and more need 64-bit file offsets in the implementation. Checked by
/// the host conformance suite as KDFile.short_reads and KDFile.short_writes.
class FTPDISK_HOST_API KDFile {
public:
    /// A closed file.
    KDFile();
    /// Closes the file if it is still open.
    ~KDFile();

    /// Opens `name`. Mode 98 ('b') creates or truncates the file for writing;
    /// mode 1 opens an existing file for reading.
    /// \return non-zero on success.
    int open_w(const wchar_t* name, unsigned char mode);
    /// \return bytes read, possibly fewer than `len` (Put reads again); 0
    /// only at the end of the file, where Put stops; negative on error.
    int read(char* buf, unsigned int len);
    /// \return the bytes the file took, possibly fewer than `len` (Get hands
    /// over the rest again), never more; negative on an error such as a full
    /// disk. Get takes 0 as a failure too.
    int write(char* buf, unsigned int len);
    /// Closes the file; harmless when it is not open.
    void close();

private:
    KDFile(const KDFile&);
    KDFile& operator=(const KDFile&);

    int fd_;
};

#endif  // FTPDISK_HOST_KDFILE_H
