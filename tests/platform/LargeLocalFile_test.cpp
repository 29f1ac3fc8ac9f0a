// Local recordings of 2 GiB and more, as Get writes them and Put reads them
// through the host's KDFile. A 32-bit program built without 64-bit file
// offsets cannot even open such a file (EOVERFLOW); the recorder's own KDFile
// must be built with them, and so is the host library in every build here.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "host/KDFile.h"
#include "host/string_util.h"

namespace {

// A folder below /tmp holding one sparse file: its size costs no disk space.
class SparseFile {
public:
    SparseFile(const std::string& head, long long size) {
        char pattern[] = "/tmp/ftpdisk_platform_XXXXXX";
        if (mkdtemp(pattern) == nullptr) return;
        dir_ = pattern;
        path_ = dir_ + "/recording.mp4";
        const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) return;
        const bool written =
            ::write(fd, head.data(), head.size()) == static_cast<ssize_t>(head.size());
        const bool sized = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
        ready_ = ::close(fd) == 0 && written && sized;
    }
    ~SparseFile() {
        if (!path_.empty()) ::unlink(path_.c_str());
        if (!dir_.empty()) ::rmdir(dir_.c_str());
    }
    SparseFile(const SparseFile&) = delete;
    SparseFile& operator=(const SparseFile&) = delete;

    bool ready() const { return ready_; }
    const std::string& path() const { return path_; }

private:
    std::string dir_;
    std::string path_;
    bool ready_ = false;
};

TEST(LargeLocalFile, EveryProgramOfTheBuildIsCompiledWithSixtyFourBitFileOffsets) {
    // Checked directly because qemu-user on a 64-bit kernel hides the limits
    // of a 32-bit build without them: open and write past 2 GiB succeed
    // there, while on the recorder they fail (EOVERFLOW, EFBIG). The host
    // library and this test share the build's compile flags.
    EXPECT_EQ(sizeof(off_t), 8u);
}

TEST(LargeLocalFile, ARecordingLargerThan4GiBOpensForReadingAndReadsFromItsStart) {
    const long long sizes[] = {2147483648LL, 3221225472LL, 4294967301LL};
    for (long long size : sizes) {
        SparseFile file("ftpdisk-head", size);
        ASSERT_TRUE(file.ready()) << "size " << size;
        struct stat info;
        ASSERT_EQ(::stat(file.path().c_str(), &info), 0) << "size " << size;
        EXPECT_EQ(static_cast<long long>(info.st_size), size);

        KDFile local;
        const std::wstring name = string_util::utf82wchar(file.path().c_str());
        ASSERT_NE(local.open_w(name.c_str(), 1), 0) << "size " << size;
        char buffer[32] = {};
        EXPECT_EQ(local.read(buffer, 12), 12) << "size " << size;
        EXPECT_EQ(std::string(buffer, 12), "ftpdisk-head") << "size " << size;
        local.close();
    }
}

}  // namespace
