// Vias of both families and via positions: equality, hash, order and text.
#include "Strata/Via.h"

#include "Kal/Exception.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Strata::Fib::ViaIndex;
using Velnet::IntfId;
using Velnet::IntfKind;
using Velnet::Ip6Addr;
using Velnet::IpAddr;
using V4 = Strata::Fib::Via;
using V6 = Strata::Fib6::Via;

IntfId eth(U32 n) { return IntfId(IntfKind::ethernet_, n); }

template <class F>
std::string rangeMessage(F f) {
    try {
        f();
    } catch (Kal::RangeException const& e) {
        return e.message().stringValue();
    }
    return "<no exception>";
}

TEST(StrataViaIndexTest, AcceptsZeroTo127AndRefusesEverythingElse) {
    EXPECT_EQ(ViaIndex(0).value(), 0u);
    EXPECT_EQ(ViaIndex(U8(127)).value(), 127u);
    EXPECT_LT(ViaIndex(3), ViaIndex(4));
    // Wide values must not wrap into range.
    for (auto make : {+[] { (void)ViaIndex(128); }, +[] { (void)ViaIndex(-1); },
                      +[] { (void)ViaIndex(U8(200)); }, +[] { (void)ViaIndex(U64(1) << 32); },
                      +[] { (void)ViaIndex(std::numeric_limits<S64>::min()); }}) {
        EXPECT_EQ(rangeMessage(make),
                  "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed");
    }
}

template <class V>
V makeVia(U32 n, U32 intf, U32 label) {
    if constexpr (std::is_same_v<V, V4>) {
        return V4(IpAddr(n), eth(intf), label);
    } else {
        return V6(Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, U16(n >> 16), U16(n)), eth(intf), label);
    }
}

template <class V>
class StrataViaBothFamiliesTest : public ::testing::Test {};
using Families = ::testing::Types<V4, V6>;
TYPED_TEST_SUITE(StrataViaBothFamiliesTest, Families);

TYPED_TEST(StrataViaBothFamiliesTest, EqualityComparesAllFieldsAndTheHashLeavesOutTheLabel) {
    using V = TypeParam;
    V const a = makeVia<V>(1, 5, 16);
    EXPECT_EQ(a, makeVia<V>(1, 5, 16));
    EXPECT_NE(a, makeVia<V>(2, 5, 16));
    EXPECT_NE(a, makeVia<V>(1, 6, 16));
    EXPECT_NE(a, makeVia<V>(1, 5, 17));
    EXPECT_TRUE(V().empty());
    EXPECT_FALSE(a.empty());
    V b = a;
    b.mplsLabelIs(0);
    b.intfIdIs(eth(9));
    EXPECT_EQ(b, makeVia<V>(1, 9, 0));
    EXPECT_EQ(b.intfId(), eth(9));

    // hop.hash() ^ intfId.hash(): the via sets' buckets are derived from this exact rule.
    std::mt19937 rng(7);
    for (int i = 0; i < 500; ++i) {
        V const v = makeVia<V>(rng(), 1 + rng() % 65535, rng());
        EXPECT_EQ(v.hash(), v.hop().hash() ^ v.intfId().hash());
        V w = v;
        w.mplsLabelIs(v.mplsLabel() + 1);
        EXPECT_EQ(w.hash(), v.hash()) << "the label must not be hashed";
        EXPECT_EQ(std::hash<V>()(v), v.hash());
    }
}

TYPED_TEST(StrataViaBothFamiliesTest, OrderIsInterfaceThenHopThenLabel) {
    using V = TypeParam;
    // The interface decides first, whatever the hops; then the hop, then the label.
    EXPECT_LT(makeVia<V>(2, 3, 0), makeVia<V>(1, 5, 0));
    EXPECT_FALSE(makeVia<V>(1, 5, 0) < makeVia<V>(2, 3, 0));
    EXPECT_LT(makeVia<V>(1, 5, 9), makeVia<V>(2, 5, 0));
    EXPECT_LT(makeVia<V>(1, 5, 0), makeVia<V>(1, 5, 1));
    EXPECT_FALSE(makeVia<V>(1, 5, 1) < makeVia<V>(1, 5, 1));

    // Against a tuple ordering over many random vias.
    std::mt19937 rng(11);
    std::vector<V> vias;
    for (int i = 0; i < 300; ++i) vias.push_back(makeVia<V>(rng() % 8, 1 + rng() % 4, rng() % 3));
    std::vector<V> byTuple = vias;
    std::sort(byTuple.begin(), byTuple.end(), [](V const& a, V const& b) {
        return std::make_tuple(a.intfId().value(), a.hop(), a.mplsLabel()) <
               std::make_tuple(b.intfId().value(), b.hop(), b.mplsLabel());
    });
    std::sort(vias.begin(), vias.end());
    EXPECT_EQ(vias, byTuple);
}

TYPED_TEST(StrataViaBothFamiliesTest, TextRoundTrips) {
    using V = TypeParam;
    std::mt19937 rng(3);
    for (int i = 0; i < 300; ++i) {
        V const v = makeVia<V>(rng(), 1 + rng() % 65535, i % 3 ? rng() : 0);
        EXPECT_EQ(V::fromString(v.toString().stringValue()), v) << v.toString();
    }
    EXPECT_EQ(V::fromString(makeVia<V>(1, 2, 0).toString().stringValue() + " label 0"),
              makeVia<V>(1, 2, 0));
}

TEST(StrataViaTextTest, PrintsHopPercentInterfaceAndTheLabelWhenSet) {
    EXPECT_EQ(V4(IpAddr(10, 0, 0, 1), eth(5)).toString(), Kal::String8("10.0.0.1%Ethernet5"));
    EXPECT_EQ(V4(IpAddr(10, 0, 0, 1), eth(5), 1).toString(),
              Kal::String8("10.0.0.1%Ethernet5 label 1"));
    EXPECT_EQ(V4().toString(), Kal::String8("0.0.0.0%none"));
    EXPECT_EQ(V6(Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 0, 1), IntfId(IntfKind::vlan_, 100),
                 4294967295u)
                  .toString(),
              Kal::String8("2001:db8::1%Vlan100 label 4294967295"));
    std::ostringstream os;
    os << V4(IpAddr(1, 2, 3, 4), IntfId(IntfKind::portChannel_, 2));
    EXPECT_EQ(os.str(), "1.2.3.4%Port-Channel2");
}

TEST(StrataViaTextTest, RefusesMalformedTextNamingIt) {
    struct Case {
        char const* text;
        char const* reason;
    };
    for (Case c : {Case{"10.0.0.1", "expected <hop>%<interface>"},
                   Case{"", "expected <hop>%<interface>"},
                   Case{"10.0.0.256%Ethernet1", "invalid IPv4 address '10.0.0.256'"},
                   Case{"10.0.0.1%ethernet1", "invalid interface"},
                   Case{"10.0.0.1%Ethernet1 label", "invalid interface"},
                   Case{"10.0.0.1%Ethernet1 label x", "label is not a decimal number"},
                   Case{"10.0.0.1%Ethernet1 label 4294967296", "label is not a decimal number"},
                   Case{"10.0.0.1%Ethernet1 label 016", "label is not a decimal number"},
                   Case{"10.0.0.1%Ethernet1 label -1", "label is not a decimal number"},
                   Case{"10.0.0.1%%Ethernet1", "invalid interface"},
                   Case{" 10.0.0.1%Ethernet1", "invalid IPv4 address"}}) {
        std::string const m = rangeMessage([&] { V4::fromString(c.text); });
        EXPECT_EQ(m.rfind(std::string("invalid Strata::Fib::Via '") + c.text + "': ", 0), 0u) << m;
        EXPECT_NE(m.find(c.reason), std::string::npos) << m;
    }
    std::string const m6 = rangeMessage([] { V6::fromString("fe80::1%eth0%Ethernet1"); });
    EXPECT_EQ(m6.rfind("invalid Strata::Fib6::Via 'fe80::1%eth0%Ethernet1': ", 0), 0u) << m6;
    std::string const bin = rangeMessage([] { V4::fromString("1.2.3.4\n%Ethernet1"); });
    EXPECT_NE(bin.find("'1.2.3.4\\x0a%Ethernet1'"), std::string::npos) << bin;
}

} // namespace
