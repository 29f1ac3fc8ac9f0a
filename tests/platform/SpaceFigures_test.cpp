// The space figures the recorder reads are its own `long` (32 bits on the
// recorder, 64 on a development machine) while the account behind them is
// 64-bit on both: an account past 4 GiB must give the same mebibyte figure on
// both, and only an account beyond what a 32-bit long can show differs.
#include <gtest/gtest.h>

#include <climits>

#include "filesystem/FTPFileSystemImpl.h"
#include "support/StoreTestAccess.h"

namespace {

const long long kMiB = 1048576;

struct SpaceCase {
    const char* what;
    long long added;       // passed to updateSpaceInfo(bytes, true)
    long long subtracted;  // then to updateSpaceInfo(bytes, false)
    long mebibytes;        // the second figure
};

const SpaceCase kSpaceCases[] = {
    {"nothing recorded", 0, 0, 0},
    {"one byte short of 1 MiB", kMiB - 1, 0, 0},
    {"3 MiB added, 1 MiB removed", 3 * kMiB, kMiB, 2},
    {"just under 2 GiB", 2147483647LL, 0, 2047},
    {"4 GiB: past 32 bits of bytes", 4294967296LL, 0, 4096},
    {"a day of recordings, 250 GiB", 250 * 1024 * kMiB, 0, 256000},
    {"3 TiB", 3LL * 1024 * 1024 * kMiB, 0, 3145728},
    {"more removed than added: toward zero", 0, kMiB - 1, 0},
    {"5 GiB removed from nothing", 0, 5 * 1024 * kMiB, -5120},
    {"the largest figure a 32-bit long shows", 2147483647LL * kMiB, 0, 2147483647L},
};

// The store is never initialised: the account works without a server, and
// nothing here touches the network.
class SpaceFigures : public ::testing::Test {
protected:
    FTPFileSystemImpl store{"127.0.0.1:21", "rec", "pw", 1024};
};

TEST_F(SpaceFigures, TheRecordedBytesGiveTheSameMebibyteFigureOnEveryProcessor) {
    for (const SpaceCase& c : kSpaceCases) {
        store.updateSpaceInfo(StoreTestAccess::usedBytes(store), false);  // back to zero
        ASSERT_EQ(StoreTestAccess::usedBytes(store), 0) << c.what;
        store.updateSpaceInfo(c.added, true);
        store.updateSpaceInfo(c.subtracted, false);
        EXPECT_EQ(StoreTestAccess::usedBytes(store), c.added - c.subtracted) << c.what;
        long first = -1;
        long second = -1;
        store.getDiskSpaceInfo(first, second);
        EXPECT_EQ(first, 0) << c.what;
        EXPECT_EQ(second, c.mebibytes) << c.what;
    }
}

TEST_F(SpaceFigures, AnAccountBeyondA32BitLongShowsItsLargestValueOnTheRecorder) {
    // 2^31 MiB (2 PiB): a development machine's long holds it; the recorder's
    // cannot, and gets the largest figure it can show rather than a wrapped,
    // negative one.
    store.updateSpaceInfo(2147483648LL * kMiB, true);
    long first = -1;
    long second = -1;
    store.getDiskSpaceInfo(first, second);
    EXPECT_EQ(first, 0);
    if (sizeof(long) == 4) {
        EXPECT_EQ(second, LONG_MAX);
    } else {
        EXPECT_EQ(static_cast<long long>(second), 2147483648LL);
    }

    // -2^31 MiB is still within a 32-bit long: the same on both.
    store.updateSpaceInfo(2 * 2147483648LL * kMiB, false);
    store.getDiskSpaceInfo(first, second);
    EXPECT_EQ(static_cast<long long>(second), -2147483648LL);
}

}  // namespace
