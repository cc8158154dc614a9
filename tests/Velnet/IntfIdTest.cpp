#include "Velnet/IntfId.h"

#include "Velnet/IpAddr.h"
#include "VelnetTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Velnet::IntfId;
using Velnet::IntfKind;
using velnet_test::refFmix32;
using velnet_test::refuses;

// ---- layout -------------------------------------------------------------------------------

static_assert(sizeof(IntfId) == 4 && alignof(IntfId) == 4);
static_assert(std::is_trivially_copyable_v<IntfId> && std::is_standard_layout_v<IntfId>);
static_assert(std::has_unique_object_representations_v<IntfId>);

TEST(IntfIdTest, KindInTheTopByteNumberBelow) {
    IntfId const e12(IntfKind::ethernet_, 12);
    U32 word = 0;
    std::memcpy(&word, &e12, sizeof word);
    EXPECT_EQ(word, 0x0100000Cu);
    EXPECT_EQ(e12.value(), 0x0100000Cu);
    EXPECT_EQ(e12.kind(), IntfKind::ethernet_);
    EXPECT_EQ(e12.number(), 12u);
    EXPECT_EQ(IntfId(0x02000064u), IntfId(IntfKind::vlan_, 100));
    EXPECT_EQ(IntfId(IntfKind::portChannel_, 5).value(), 0x03000005u);
    EXPECT_EQ(IntfId(IntfKind::loopback_, 0).value(), 0x04000000u);
    EXPECT_EQ(IntfId(IntfKind::tunnel_, 7).value(), 0x05000007u);
    EXPECT_EQ(IntfId(IntfKind::null_, 0).value(), 0x06000000u);
    EXPECT_EQ(IntfId(IntfKind::none_, 0), IntfId());
    EXPECT_TRUE(IntfId().empty());
    EXPECT_FALSE(e12.empty());
}

// ---- text ---------------------------------------------------------------------------------

TEST(IntfIdTest, NamesRoundTripAtEveryKindsLimits) {
    struct Case {
        char const* text;
        U32 value;
    };
    for (Case c : {Case{"none", 0u}, Case{"Ethernet1", 0x01000001u},
                   Case{"Ethernet12", 0x0100000Cu}, Case{"Ethernet65535", 0x0100FFFFu},
                   Case{"Vlan1", 0x02000001u}, Case{"Vlan100", 0x02000064u},
                   Case{"Vlan4094", 0x02000FFEu}, Case{"Port-Channel1", 0x03000001u},
                   Case{"Port-Channel65535", 0x0300FFFFu}, Case{"Loopback0", 0x04000000u},
                   Case{"Loopback65535", 0x0400FFFFu}, Case{"Tunnel0", 0x05000000u},
                   Case{"Tunnel65535", 0x0500FFFFu}, Case{"Null0", 0x06000000u}}) {
        SCOPED_TRACE(c.text);
        IntfId const id = IntfId::fromString(c.text);
        EXPECT_EQ(id.value(), c.value);
        EXPECT_TRUE(id.wellFormed());
        EXPECT_EQ(id.toString(), Kal::String8(c.text));
        EXPECT_EQ(IntfId(id.kind(), id.number()), id);
        std::ostringstream os;
        os << id;
        EXPECT_EQ(os.str(), c.text);
    }
}

TEST(IntfIdTest, RefusesNumbersOutsideTheKindsRange) {
    ASSERT_TRUE(IntfId::numberRange(IntfKind::vlan_).has_value());
    EXPECT_EQ(IntfId::numberRange(IntfKind::vlan_)->min, 1u);
    EXPECT_EQ(IntfId::numberRange(IntfKind::vlan_)->max, 4094u);
    EXPECT_FALSE(IntfId::numberRange(IntfKind(7)).has_value());

    auto const parse = &IntfId::fromString;
    EXPECT_TRUE(refuses(parse, "Ethernet0", "number out of range 1-65535"));
    EXPECT_TRUE(refuses(parse, "Ethernet65536", "number out of range 1-65535"));
    EXPECT_TRUE(refuses(parse, "Vlan0", "number out of range 1-4094"));
    EXPECT_TRUE(refuses(parse, "Vlan4095", "number out of range 1-4094"));
    EXPECT_TRUE(refuses(parse, "Port-Channel0", "number out of range 1-65535"));
    EXPECT_TRUE(refuses(parse, "Loopback65536", "number out of range 0-65535"));
    EXPECT_TRUE(refuses(parse, "Tunnel65536", "number out of range 0-65535"));
    EXPECT_TRUE(refuses(parse, "Null1", "number out of range 0"));
    EXPECT_TRUE(refuses(parse, "Vlan99999999999", "number out of range"));

    struct Bad {
        IntfKind kind;
        U32 number;
        char const* message;
    };
    for (Bad b : {Bad{IntfKind::vlan_, 4095, "invalid interface number 4095 for Vlan: number "
                                             "out of range 1-4094"},
                  Bad{IntfKind::ethernet_, 0, "invalid interface number 0 for Ethernet"},
                  Bad{IntfKind::ethernet_, 0x1000001, "invalid interface number 16777217"},
                  Bad{IntfKind::null_, 1, "invalid interface number 1 for Null"},
                  Bad{IntfKind::none_, 3, "invalid interface number 3 for none"},
                  Bad{IntfKind(7), 1, "invalid interface kind 7"},
                  Bad{IntfKind(255), 0, "invalid interface kind 255"}}) {
        try {
            IntfId const id(b.kind, b.number);
            ADD_FAILURE() << "accepted " << id;
        } catch (Kal::RangeException const& e) {
            EXPECT_NE(e.message().stringValue().find(b.message), std::string::npos)
                << e.message();
        }
    }
}

TEST(IntfIdTest, RefusesMalformedNames) {
    auto const parse = &IntfId::fromString;
    for (char const* text : {"", "Eth1", "ethernet1", "ETHERNET1", "PortChannel5", "Port-channel5",
                             "None", "Ethernet1x"}) {
        EXPECT_TRUE(refuses(parse, text));
    }
    EXPECT_TRUE(refuses(parse, "Eth1", "unknown interface kind"));
    EXPECT_TRUE(refuses(parse, "none0", "unknown interface kind"));
    EXPECT_TRUE(refuses(parse, " Ethernet1", "unknown interface kind"));
    EXPECT_TRUE(refuses(parse, "Ethernet", "missing number"));
    EXPECT_TRUE(refuses(parse, "Port-Channel", "missing number"));
    EXPECT_TRUE(refuses(parse, "Ethernet012", "leading zero"));
    EXPECT_TRUE(refuses(parse, "Vlan00", "leading zero"));
    for (char const* text : {"Ethernet 1", "Ethernet+1", "Ethernet-1", "Ethernet1/1",
                             "Ethernet1.100", "Ethernet1 ", "Vlan0x10"}) {
        EXPECT_TRUE(refuses(parse, text, "not a decimal number"));
    }
}

TEST(IntfIdTest, RawValuesWithoutANameKeepAOneToOneTextForm) {
    // Ids read back from storage may use kinds or numbers this build does not name.
    struct Case {
        U32 value;
        char const* text;
    };
    for (Case c : {Case{0x0A000001u, "IntfId(0x0a000001)"}, Case{0x01000000u, "IntfId(0x01000000)"},
                   Case{0x00000005u, "IntfId(0x00000005)"}, Case{0x02000FFFu, "IntfId(0x02000fff)"},
                   Case{0x06000001u, "IntfId(0x06000001)"}, Case{0xFFFFFFFFu, "IntfId(0xffffffff)"},
                   Case{0x0101ABCDu, "IntfId(0x0101abcd)"}}) {
        SCOPED_TRACE(c.text);
        IntfId const id(c.value);
        EXPECT_FALSE(id.wellFormed());
        EXPECT_EQ(id.toString(), Kal::String8(c.text));
        EXPECT_EQ(IntfId::fromString(c.text), id);
    }
    EXPECT_EQ(IntfId(0x0A000001u).kind(), IntfKind(10));
    EXPECT_EQ(IntfId(0x0A000001u).number(), 1u);

    auto const parse = &IntfId::fromString;
    // A named value must use its name, so no value has two texts.
    EXPECT_TRUE(refuses(parse, "IntfId(0x0100000c)", "written by name"));
    EXPECT_TRUE(refuses(parse, "IntfId(0x00000000)", "written by name"));
    // The raw form is exact: eight lowercase hex digits in the parentheses.
    for (char const* text : {"IntfId(0x0a000001", "IntfId(0xA0000001)", "IntfId(0x1)",
                             "IntfId(0x0a0000011)", "IntfId(0x0a00000g)", "IntfId(0x)"}) {
        EXPECT_TRUE(refuses(parse, text, "raw form"));
    }
}

// ---- order --------------------------------------------------------------------------------

TEST(IntfIdTest, OrdersByKindThenNumber) {
    std::vector<IntfId> const expected = {
        IntfId(),
        IntfId::fromString("Ethernet1"),
        IntfId::fromString("Ethernet2"),
        IntfId::fromString("Ethernet10"),
        IntfId::fromString("Ethernet65535"),
        IntfId::fromString("Vlan1"),
        IntfId::fromString("Vlan4094"),
        IntfId::fromString("Port-Channel1"),
        IntfId::fromString("Loopback0"),
        IntfId::fromString("Tunnel0"),
        IntfId::fromString("Null0"),
        IntfId(0x0A000001u),
    };
    std::vector<IntfId> v = expected;
    std::mt19937 rng(3);
    std::shuffle(v.begin(), v.end(), rng);
    std::sort(v.begin(), v.end());
    EXPECT_EQ(v, expected);
    EXPECT_LT(IntfId(0x7FFFFFFFu), IntfId(0x80000000u));
    EXPECT_EQ(IntfId::fromString("Vlan5") <=> IntfId(IntfKind::vlan_, 5),
              std::strong_ordering::equal);
}

// ---- hash ---------------------------------------------------------------------------------

TEST(IntfIdTest, HashIsTheDocumentedSaltedFinaliser) {
    // Pinned: computed outside this code base from "fmix32(value ^ 0x9E3779B9)".
    EXPECT_EQ(IntfId().hash(), 0x92CA2F0Eu);
    EXPECT_EQ(IntfId::fromString("Ethernet12").hash(), 0x46FEA773u);
    EXPECT_EQ(IntfId::fromString("Vlan100").hash(), 0xDA7E5C01u);
    EXPECT_EQ(IntfId::fromString("Null0").hash(), 0x28801120u);
    for (U64 v = 0; v <= 0xFFFFFFFFull; v += 0x00FF00FFull * 5 + 3) {
        IntfId const id{U32(v)};
        ASSERT_EQ(id.hash(), refFmix32(U32(v) ^ 0x9E3779B9u)) << id;
        ASSERT_EQ(std::hash<IntfId>()(id), std::size_t(id.hash()));
    }
}

TEST(IntfIdTest, HashDiffersFromTheAddressWithTheSameWord) {
    // A via hashes as hop.hash() ^ intfId.hash(): with one function for both, a hop whose
    // value equals the id's (1.0.0.12 and Ethernet12) would cancel to 0, and swapped pairs
    // would collide.
    for (U32 n = 1; n <= 4096; ++n) {
        IntfId const id(IntfKind::ethernet_, n);
        Velnet::IpAddr const sameWord(id.value());
        ASSERT_NE(id.hash() ^ sameWord.hash(), 0u) << id;
        Velnet::IpAddr const other(0x0A000001u);
        ASSERT_NE(Velnet::IpAddr(id.value()).hash() ^ IntfId(other.value()).hash(),
                  other.hash() ^ id.hash())
            << id;
    }
}

TEST(IntfIdTest, HashSpreadsSequentialInterfaces) {
    std::vector<U32> ethernets, mixed;
    for (U32 n = 1; n <= 65535; ++n) ethernets.push_back(IntfId(IntfKind::ethernet_, n).hash());
    for (IntfKind k : {IntfKind::ethernet_, IntfKind::vlan_, IntfKind::portChannel_,
                       IntfKind::loopback_, IntfKind::tunnel_}) {
        for (U32 n = 1; n <= 4094; ++n) mixed.push_back(IntfId(k, n).hash());
    }
    EXPECT_TRUE(velnet_test::wellSpread(ethernets));
    EXPECT_TRUE(velnet_test::wellSpread(mixed));
}

} // namespace
