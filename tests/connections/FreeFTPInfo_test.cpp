// The idle pool's entry record and its two time constants: plain values, no
// monitor thread (the pool's passes are in FreeFtpToolBuff_test.cpp).
#include <gtest/gtest.h>

#include "connections/FreeFtpToolBuff.h"

namespace {

TEST(FreeFTPInfo, StartsEmptyAndKeepsWhatItIsGiven) {
    FreeFTPInfo info;
    EXPECT_EQ(0.0, info.getBeginFreeTime());
    EXPECT_TRUE(info.getFTPTool().isNull());
    info.setBeginFreeTime(1234.5);
    EXPECT_EQ(1234.5, info.getBeginFreeTime());
    SafePointer<FTPTool> tool(new FTPTool);
    info.setFTPTool(tool);
    EXPECT_EQ(tool.get(), info.getFTPTool().get());
}

TEST(FreeFtpToolBuffConstants, IdleLimitAndPauseAreThirtyAndTwoSeconds) {
    EXPECT_EQ(30.0, FreeFtpToolBuff::kIdleSeconds);
    EXPECT_EQ(2, FreeFtpToolBuff::kPassPauseSeconds);
}

}  // namespace
