// The types the recorder and the server see are the same width on every
// processor the module is built for: 32-bit fields of the connection record and
// of listing entries, 64-bit lengths and totals, double clocks. The recorder's
// own `long` (space figures) follows the processor. These tests pin each of
// those down at run time so a change that widens or narrows one fails in the
// native and in the 32-bit ARM run alike.
#include <gtest/gtest.h>

#include <stdint.h>

#include <cstddef>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "filesystem/FTPFileSystem.h"
#include "ftp/NetBuf.h"
#include "ftpdisk_host/HostControl.h"
#include "host/KDTime.h"
#include "listing/FTPFileDescriptor.h"

namespace {

template <class Field>
bool isSigned32(const Field&) {
    return std::is_same<Field, int32_t>::value;
}

TEST(BoundaryTypes, EveryCountingFieldOfTheConnectionRecordIsASigned32BitInteger) {
    NetBuf record{};
    struct Field {
        const char* name;
        bool signed32;
    };
    const Field fields[] = {
        {"handle", isSigned32(record.handle)},
        {"available", isSigned32(record.available)},
        {"spaceLeft", isSigned32(record.spaceLeft)},
        {"direction", isSigned32(record.direction)},
        {"connectionMode", isSigned32(record.connectionMode)},
        {"idleTime.seconds", isSigned32(record.idleTime.seconds)},
        {"idleTime.microseconds", isSigned32(record.idleTime.microseconds)},
        {"transferred", isSigned32(record.transferred)},
        {"callbackBytes", isSigned32(record.callbackBytes)},
        {"sinceCallback", isSigned32(record.sinceCallback)},
    };
    for (const Field& field : fields) {
        EXPECT_TRUE(field.signed32) << "NetBuf::" << field.name;
    }
}

TEST(BoundaryTypes, TheConnectionRecordKeepsA256ByteReplyAndAnEightByteWaitTime) {
    NetBuf record{};
    EXPECT_EQ(sizeof(record.response), 256u);
    EXPECT_EQ(sizeof(record.idleTime), 8u);
    EXPECT_EQ(static_cast<int>(kNetBufSize), 8192);
}

TEST(BoundaryTypes, TheProgressCallbackReceivesTheByteCountAsSigned32Bits) {
    EXPECT_TRUE((std::is_same<NetBufProgressCallback, int (*)(NetBuf*, int32_t, void*)>::value));
}

TEST(BoundaryTypes, AListingEntryHoldsTypeAndSizeAsSigned32BitIntegers) {
    FTPConst::FTPFileDescriptor entry;
    EXPECT_TRUE(isSigned32(entry.type));
    EXPECT_TRUE(isSigned32(entry.size));
    EXPECT_EQ(entry.type, 0);
    EXPECT_EQ(entry.size, 0);
    EXPECT_EQ(entry.name, "");
}

TEST(BoundaryTypes, TheStoreReportsLengthsAndTotalsIn64BitsAndSpaceInTheRecordersLong) {
    // The facade's signatures are what the recorder compiled against: a change
    // of width here is a change of the binary interface.
    EXPECT_TRUE((std::is_same<decltype(&FTPFileSystem::getFileLength),
                              long long (FTPFileSystem::*)(const char*)>::value));
    EXPECT_TRUE((std::is_same<decltype(&FTPFileSystem::getTotalSize),
                              int (FTPFileSystem::*)(const char*, long long&)>::value));
    EXPECT_TRUE((std::is_same<decltype(&FTPFileSystem::getFileList),
                              int (FTPFileSystem::*)(const char*, std::vector<std::string>&,
                                                     const std::string&)>::value));
    EXPECT_TRUE((std::is_same<decltype(&FTPFileSystem::getSubDirList),
                              int (FTPFileSystem::*)(const char*, std::vector<std::string>&,
                                                     const std::string&)>::value));
    EXPECT_TRUE((std::is_same<decltype(&FTPFileSystem::scan),
                              int (FTPFileSystem::*)(const char*, IFileScanAction*,
                                                     const std::string&)>::value));
    EXPECT_TRUE((std::is_same<decltype(&FTPFileSystem::isDirExist),
                              bool (FTPFileSystem::*)(const char*)>::value));
    EXPECT_TRUE((std::is_same<decltype(&FTPFileSystem::getDiskSpaceInfo),
                              int (FTPFileSystem::*)(long&, long&)>::value));
    EXPECT_TRUE((std::is_same<decltype(&FTPFileSystem::read),
                              int (FTPFileSystem::*)(int, char*, unsigned int)>::value));
    EXPECT_EQ(sizeof(long long), 8u);
    EXPECT_GE(sizeof(long), 4u);
    EXPECT_EQ(sizeof(long), sizeof(void*)) << "the recorder's long follows its pointer width";
}

class ManualClock : public ::testing::Test {
protected:
    void TearDown() override { hostcontrol::useSystemClock(); }
};

TEST_F(ManualClock, ClockReadingsAreDoublesThatKeepFractionsPastTheYear2038) {
    // 2100-01-01 00:00:00 UTC: past the last second a 32-bit time_t holds. The
    // module does arithmetic on these readings (idle times, stall limits), so
    // they must survive as doubles on a processor whose time_t is 32 bits.
    const double wall2100 = 4102444800.0;
    const double upBeyond32Bits = 4294967296.5;
    hostcontrol::useManualClock(wall2100, upBeyond32Bits);
    EXPECT_TRUE((std::is_same<decltype(KDTime::getSeconds()), double>::value));
    EXPECT_TRUE((std::is_same<decltype(KDTime::getUpTime()), double>::value));
    EXPECT_EQ(KDTime::getSeconds(), wall2100);
    EXPECT_EQ(KDTime::getUpTime(), upBeyond32Bits);

    hostcontrol::advanceClock(30.25);
    EXPECT_EQ(KDTime::getSeconds() - wall2100, 30.25);
    EXPECT_EQ(KDTime::getUpTime() - upBeyond32Bits, 30.25);
}

TEST(SystemClock, WallClockReadingIsAfter2020AndHasSubSecondResolution) {
    // 2020-01-01 00:00:00 UTC. A reading truncated to whole seconds would show
    // up as identical readings across many calls.
    const double first = KDTime::getSeconds();
    EXPECT_GT(first, 1577836800.0);
    bool sawFraction = false;
    for (int i = 0; i < 1000 && !sawFraction; ++i) {
        const double reading = KDTime::getSeconds();
        sawFraction = reading != static_cast<double>(static_cast<long long>(reading));
    }
    EXPECT_TRUE(sawFraction);
}

}  // namespace
