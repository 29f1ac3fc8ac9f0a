// Host contract: the visitor that FTPFileSystem::scan calls once per plain
// file. Implemented by the recorder.
#ifndef FTPDISK_HOST_IFILESCANACTION_H
#define FTPDISK_HOST_IFILESCANACTION_H

/// Host contract: the recorder's visitor for FTPFileSystem::scan. The
/// module calls it through its virtual table: the recorder's class keeps
/// exactly these virtual functions in this order.
class IFileScanAction {
public:
    virtual ~IFileScanAction() {}
    /// Called once per plain file of the scanned directory, in listing order,
    /// on the thread that called scan and without the store's operation lock
    /// (the visitor may use the store). `fileName` is the name only, valid
    /// during the call. The result is ignored.
    virtual int onFile(const char* fileName) = 0;
};

#endif  // FTPDISK_HOST_IFILESCANACTION_H
