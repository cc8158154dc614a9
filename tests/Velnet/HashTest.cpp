#include "Velnet/Hash.h"

#include "VelnetTestSupport.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace {

using velnet_test::refFmix32;

TEST(HashTest, Fmix32MatchesThePublishedFinaliser) {
    // Constants computed outside this code base (a Python rendering of MurmurHash3's fmix32).
    EXPECT_EQ(Velnet::fmix32(0), 0u);
    EXPECT_EQ(Velnet::fmix32(1), 0x514E28B7u);
    EXPECT_EQ(Velnet::fmix32(2), 0x30F4C306u);
    EXPECT_EQ(Velnet::fmix32(0xDEADBEEF), 0x0DE5C6A9u);
    EXPECT_EQ(Velnet::fmix32(0xFFFFFFFF), 0x81F16F39u);
    // Usable at compile time, so layout-independent constants can be pinned statically.
    static_assert(Velnet::fmix32(1) == 0x514E28B7u);
}

TEST(HashTest, Fmix32AgreesWithAnIndependentRenderingAcrossTheWord) {
    for (U64 x = 0; x <= 0xFFFFFFFFull; x += 0x10001ull) {
        ASSERT_EQ(Velnet::fmix32(U32(x)), refFmix32(U32(x))) << "x=" << x;
    }
}

TEST(HashTest, Fmix32NeverMapsTwoInputsToOneOutput) {
    // A bijection: sequential inputs and inputs differing only in high bits stay distinct.
    std::unordered_set<U32> seen;
    for (U32 i = 0; i < 65536; ++i) ASSERT_TRUE(seen.insert(Velnet::fmix32(i)).second) << i;
    for (U32 i = 1; i < 65536; ++i) {
        ASSERT_TRUE(seen.insert(Velnet::fmix32(i << 16 | 0x8000u)).second) << i;
    }
}

} // namespace
