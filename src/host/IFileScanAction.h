// Host contract: the visitor that FTPFileSystem::scan calls once per plain file.
// The result of the call is ignored.
#ifndef FTPDISK_HOST_IFILESCANACTION_H
#define FTPDISK_HOST_IFILESCANACTION_H

class IFileScanAction {
public:
    virtual ~IFileScanAction() {}
    virtual int onFile(const char* fileName) = 0;
};

#endif  // FTPDISK_HOST_IFILESCANACTION_H
