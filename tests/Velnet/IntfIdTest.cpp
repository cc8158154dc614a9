#include "Velnet/IntfId.h"

#include "VelnetTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Velnet::IntfId;
using Velnet::IntfKind;

TEST(IntfIdTest, NamesRoundTripAtEveryKindsLimits) {
    struct Case {
        char const* text;
        U32 value;
    };
    Case const cases[] = {
        {"none", 0u},                       {"Ethernet1", 0x01000001u},
        {"Ethernet65535", 0x0100FFFFu},     {"Vlan1", 0x02000001u},
        {"Vlan4094", 0x02000FFEu},          {"Port-Channel1", 0x03000001u},
        {"Port-Channel65535", 0x0300FFFFu}, {"Loopback0", 0x04000000u},
        {"Loopback65535", 0x0400FFFFu},     {"Tunnel0", 0x05000000u},
        {"Tunnel65535", 0x0500FFFFu},       {"Null0", 0x06000000u},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.text);
        IntfId const id = IntfId::fromString(c.text);
        EXPECT_EQ(id.value(), c.value);
        EXPECT_TRUE(id.wellFormed());
        EXPECT_EQ(IntfId(id.kind(), id.number()), id);
        std::ostringstream os;
        os << id;
        EXPECT_EQ(os.str(), c.text);
    }
}

TEST(IntfIdTest, RefusesNumbersOutsideTheKindsRangeAndMalformedNames) {
    velnet_test::expectRefusals(&IntfId::fromString, {
        {"Ethernet0", "out of range 1-65535"},      {"Ethernet65536", "out of range 1-65535"},
        {"Vlan0", "out of range 1-4094"},           {"Vlan4095", "out of range 1-4094"},
        {"Port-Channel0", "out of range 1-65535"},  {"Port-Channel65536", "out of range 1-65535"},
        {"Loopback65536", "out of range 0-65535"},  {"Tunnel65536", "out of range 0-65535"},
        {"Null1", "number out of range 0"},         {"Vlan99999999999", "number out of range"},
        {"", "unknown interface kind"},                  {"ethernet1", "unknown interface kind"},
        {"Port-channel5", "unknown interface kind"},     {"None", "unknown interface kind"},
        {"none0", "unknown interface kind"},             {"Ethernet", "missing number"},
        {"Ethernet012", "leading zero"},                 {"Vlan00", "leading zero"},
        {"Ethernet-1", "not a decimal number"},          {"Ethernet1/1", "not a decimal number"},
        {"Ethernet1 ", "not a decimal number"},          {"Vlan0x10", "not a decimal number"},
    });

    auto refusal = [](IntfKind kind, U32 number) -> std::string {
        try {
            return "accepted " + IntfId(kind, number).toString().stringValue();
        } catch (Kal::RangeException const& e) {
            return e.message().stringValue();
        }
    };
    EXPECT_EQ(refusal(IntfKind::vlan_, 4095),
              "invalid interface number 4095 for Vlan: number out of range 1-4094");
    EXPECT_EQ(refusal(IntfKind::loopback_, 1u << 24),
              "invalid interface number 16777216 for Loopback: number out of range 0-65535");
    EXPECT_EQ(refusal(IntfKind::none_, 3),
              "invalid interface number 3 for none: number out of range 0");
    EXPECT_EQ(refusal(IntfKind(7), 1), "invalid interface kind 7");
}

TEST(IntfIdTest, RawValuesWithoutANameKeepAOneToOneTextForm) {
    // Ids read back from storage may use kinds or numbers this build does not name.
    for (U32 v : {0x0A000001u, 0x01000000u, 0x00000005u, 0x02000FFFu, 0x06000001u, 0xFFFFFFFFu}) {
        char text[32];
        std::snprintf(text, sizeof text, "IntfId(0x%08x)", v);
        SCOPED_TRACE(text);
        IntfId const id(v);
        EXPECT_FALSE(id.wellFormed());
        EXPECT_EQ(id.toString(), Kal::String8(text));
        EXPECT_EQ(IntfId::fromString(text), id);
    }
    velnet_test::expectRefusals(&IntfId::fromString, {
        // A named value must use its name, so no value has two texts.
        {"IntfId(0x0100000c)", "written by name"}, {"IntfId(0x00000000)", "written by name"},
        // The raw form is exact: eight lowercase hex digits in the parentheses.
        {"IntfId(0x0a000001", "raw form"},  {"IntfId(0xA0000001)", "raw form"},
        {"IntfId(0x1)", "raw form"},        {"IntfId(0x0a0000011)", "raw form"},
        {"IntfId(0x0a00000g)", "raw form"},
    });
}

TEST(IntfIdTest, OrdersByKindThenNumber) {
    std::vector<IntfId> const expected = {
        IntfId(),
        IntfId(IntfKind::ethernet_, 2),
        IntfId(IntfKind::ethernet_, 10),
        IntfId(IntfKind::vlan_, 1),
        IntfId(IntfKind::loopback_, 0),
        IntfId(IntfKind::null_, 0),
        IntfId(0x7FFFFFFFu),
        IntfId(0x80000000u),
    };
    std::vector<IntfId> v = expected;
    std::shuffle(v.begin(), v.end(), std::mt19937(3));
    std::sort(v.begin(), v.end());
    EXPECT_EQ(v, expected);
}

TEST(IntfIdTest, HashIsTheDocumentedSaltedFinaliser) {
    // Pinned: computed outside this code base from "fmix32(value ^ 0x9E3779B9)".
    EXPECT_EQ(IntfId().hash(), 0x92CA2F0Eu);
    EXPECT_EQ(IntfId::fromString("Ethernet12").hash(), 0x46FEA773u);
    EXPECT_EQ(IntfId::fromString("Vlan100").hash(), 0xDA7E5C01u);
    EXPECT_EQ(IntfId::fromString("Null0").hash(), 0x28801120u);
    for (U64 v = 0; v <= 0xFFFFFFFFull; v += 0x00FF00FFull * 5 + 3) {
        IntfId const id{U32(v)};
        ASSERT_EQ(id.hash(), velnet_test::refFmix32(U32(v) ^ 0x9E3779B9u)) << id;
        ASSERT_EQ(std::hash<IntfId>()(id), std::size_t(id.hash()));
    }
}

} // namespace
