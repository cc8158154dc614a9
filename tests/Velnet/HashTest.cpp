#include "Velnet/Hash.h"

#include "VelnetTestSupport.h"

#include <gtest/gtest.h>

namespace {

TEST(HashTest, Fmix32MatchesThePublishedFinaliser) {
    // Constants computed outside this code base (a Python rendering of MurmurHash3's fmix32).
    EXPECT_EQ(Velnet::fmix32(0), 0u);
    EXPECT_EQ(Velnet::fmix32(1), 0x514E28B7u);
    EXPECT_EQ(Velnet::fmix32(2), 0x30F4C306u);
    EXPECT_EQ(Velnet::fmix32(0xDEADBEEF), 0x0DE5C6A9u);
    EXPECT_EQ(Velnet::fmix32(0xFFFFFFFF), 0x81F16F39u);
    // Usable at compile time, so layout-independent constants can be pinned statically.
    static_assert(Velnet::fmix32(1) == 0x514E28B7u);
    // And across the word, against a rendering that shares no code with it.
    for (U64 x = 0; x <= 0xFFFFFFFFull; x += 0x10001ull) {
        ASSERT_EQ(Velnet::fmix32(U32(x)), velnet_test::refFmix32(U32(x))) << "x=" << x;
    }
}

} // namespace
