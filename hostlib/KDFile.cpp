#include "host/KDFile.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "host/string_util.h"

KDFile::KDFile() : fd_(-1) {}

KDFile::~KDFile() { close(); }

int KDFile::open_w(const wchar_t* name, unsigned char mode) {
    close();
    if (name == nullptr) {
        return 0;
    }
    const std::string path = string_util::wchar2utf8(name);
    int flags;
    if (mode == 'b') {
        flags = O_WRONLY | O_CREAT | O_TRUNC;
    } else if (mode == 1) {
        flags = O_RDONLY;
    } else {
        return 0;
    }
    fd_ = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
    return fd_ >= 0 ? 1 : 0;
}

int KDFile::read(char* buf, unsigned int len) {
    if (fd_ < 0 || buf == nullptr) return -1;
    ssize_t n;
    do {
        n = ::read(fd_, buf, len);
    } while (n < 0 && errno == EINTR);
#ifdef FTPDISK_PLANTED_FAULT_SHORT_READ_AS_END
    if (n >= 0 && static_cast<size_t>(n) < len) return 0;
#endif
    return static_cast<int>(n);
}

int KDFile::write(char* buf, unsigned int len) {
    if (fd_ < 0 || buf == nullptr) return -1;
    ssize_t n;
    do {
        n = ::write(fd_, buf, len);
    } while (n < 0 && errno == EINTR);
#ifdef FTPDISK_PLANTED_FAULT_WRITE_CLAIMS_WHOLE_BUFFER
    if (n > 0) return static_cast<int>(len);
#endif
    return static_cast<int>(n);
}

void KDFile::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}
