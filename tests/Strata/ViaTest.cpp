// Vias of both families and via positions: equality, hash, order, layout, text, and use as a
// key of the framework's hash map.
#include "Strata/Via.h"

#include "Kal/Exception.h"
#include "Kal/HashMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <random>
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

std::string const viaIndexMessage =
    "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed";

template <class F>
std::string rangeMessage(F f) {
    try {
        f();
    } catch (Kal::RangeException const& e) {
        return e.message().stringValue();
    }
    return "<no exception>";
}

// ---- ViaIndex -----------------------------------------------------------------------------

TEST(StrataViaIndexTest, AcceptsZeroTo127AndRefusesEverythingElse) {
    EXPECT_EQ(ViaIndex(0).value(), 0u);
    EXPECT_EQ(ViaIndex(127).value(), 127u);
    EXPECT_EQ(ViaIndex(U8(127)).value(), 127u);
    EXPECT_EQ(ViaIndex::min, 0u);
    EXPECT_EQ(ViaIndex::max, 127u);
    EXPECT_EQ(rangeMessage([] { (void)ViaIndex(128); }), viaIndexMessage);
    EXPECT_EQ(rangeMessage([] { (void)ViaIndex(-1); }), viaIndexMessage);
    EXPECT_EQ(rangeMessage([] { (void)ViaIndex(U8(200)); }), viaIndexMessage);
    // Wide values must not wrap into range.
    EXPECT_EQ(rangeMessage([] { (void)ViaIndex(U64(1) << 32); }), viaIndexMessage);
    EXPECT_EQ(rangeMessage([] { (void)ViaIndex(std::numeric_limits<S64>::min()); }), viaIndexMessage);
    EXPECT_LT(ViaIndex(3), ViaIndex(4));
}

// ---- Via: equality, hash, order -----------------------------------------------------------

template <class V>
V makeVia(U32 n, U32 intf, U32 label);
template <>
V4 makeVia<V4>(U32 n, U32 intf, U32 label) {
    return V4(IpAddr(n), eth(intf), label);
}
template <>
V6 makeVia<V6>(U32 n, U32 intf, U32 label) {
    return V6(Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, U16(n >> 16), U16(n)), eth(intf), label);
}

template <class V>
class StrataViaBothFamiliesTest : public ::testing::Test {};
using Families = ::testing::Types<V4, V6>;
TYPED_TEST_SUITE(StrataViaBothFamiliesTest, Families);

TYPED_TEST(StrataViaBothFamiliesTest, EqualityComparesAllThreeFields) {
    using V = TypeParam;
    V const a = makeVia<V>(1, 5, 16);
    EXPECT_EQ(a, makeVia<V>(1, 5, 16));
    EXPECT_NE(a, makeVia<V>(2, 5, 16));
    EXPECT_NE(a, makeVia<V>(1, 6, 16));
    EXPECT_NE(a, makeVia<V>(1, 5, 17));
    EXPECT_TRUE(V().empty());
    EXPECT_FALSE(a.empty());
    EXPECT_EQ(a.mplsLabel(), 16u);
    EXPECT_EQ(a.intfId(), eth(5));
    V b = a;
    b.mplsLabelIs(0);
    b.intfIdIs(eth(9));
    EXPECT_EQ(b, makeVia<V>(1, 9, 0));
}

TYPED_TEST(StrataViaBothFamiliesTest, HashIsHopHashXorInterfaceHashWithoutTheLabel) {
    using V = TypeParam;
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
    // The interface decides first, whatever the hops: (10.0.0.2, intf 3) < (10.0.0.1, intf 5).
    EXPECT_LT(makeVia<V>(2, 3, 0), makeVia<V>(1, 5, 0));
    EXPECT_FALSE(makeVia<V>(1, 5, 0) < makeVia<V>(2, 3, 0));
    // Then the hop, then the label.
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

TEST(StrataViaLayoutTest, FieldsSitAtFixedOffsets) {
    V4 const v(IpAddr(10, 0, 0, 1), IntfId(0x0100000Cu), 0xABCDu);
    U32 words[3];
    static_assert(sizeof words == sizeof v);
    std::memcpy(words, &v, sizeof v);
    EXPECT_EQ(words[0], 0x0A000001u);
    EXPECT_EQ(words[1], 0x0100000Cu);
    EXPECT_EQ(words[2], 0xABCDu);

    V6 const w(Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 0, 1), IntfId(0x02000064u), 7);
    unsigned char bytes[24];
    static_assert(sizeof bytes == sizeof w);
    std::memcpy(bytes, &w, sizeof w);
    EXPECT_EQ(bytes[0], 0x20);
    EXPECT_EQ(bytes[15], 0x01);
    U32 intf = 0, label = 0;
    std::memcpy(&intf, bytes + 16, 4);
    std::memcpy(&label, bytes + 20, 4);
    EXPECT_EQ(intf, 0x02000064u);
    EXPECT_EQ(label, 7u);
}

// ---- text -----------------------------------------------------------------------------------

TEST(StrataViaTextTest, PrintsHopPercentInterfaceAndTheLabelWhenSet) {
    EXPECT_EQ(V4(IpAddr(10, 0, 0, 1), eth(5)).toString(), Kal::String8("10.0.0.1%Ethernet5"));
    EXPECT_EQ(V4(IpAddr(10, 0, 0, 1), eth(5), 16).toString(),
              Kal::String8("10.0.0.1%Ethernet5 label 16"));
    EXPECT_EQ(V4().toString(), Kal::String8("0.0.0.0%none"));
    EXPECT_EQ(V6(Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 0, 1), IntfId(IntfKind::vlan_, 100), 4294967295u)
                  .toString(),
              Kal::String8("2001:db8::1%Vlan100 label 4294967295"));
    std::ostringstream os;
    os << V4(IpAddr(1, 2, 3, 4), IntfId(IntfKind::portChannel_, 2));
    EXPECT_EQ(os.str(), "1.2.3.4%Port-Channel2");
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
        SCOPED_TRACE(c.text);
        std::string const m = rangeMessage([&] { V4::fromString(c.text); });
        EXPECT_EQ(m.rfind(std::string("invalid Strata::Fib::Via '") + c.text + "': ", 0), 0u) << m;
        EXPECT_NE(m.find(c.reason), std::string::npos) << m;
    }
    std::string const m6 = rangeMessage([] { V6::fromString("fe80::1%eth0%Ethernet1"); });
    EXPECT_EQ(m6.rfind("invalid Strata::Fib6::Via 'fe80::1%eth0%Ethernet1': ", 0), 0u) << m6;
    std::string const bin = rangeMessage([] { V4::fromString(std::string("1.2.3.4\n%Ethernet1")); });
    EXPECT_NE(bin.find("'1.2.3.4\\x0a%Ethernet1'"), std::string::npos) << bin;
}

// ---- as a key of the framework's hash map ---------------------------------------------------

// A member keyed by a via, of the shape generated collections use (KalVia of a via set).
class KalVia : public Kal::PtrInterface {
  public:
    KalVia(V4 const& via, S32 value) : kal_index_(via), value_(value) {}
    KalVia(KalVia const& o) : Kal::PtrInterface(o), kal_index_(o.kal_index_), value_(o.value_) {}
    V4 const& fwkKey() const { return kal_index_; }
    S32 value() const { return value_; }
    KalVia* fwkHmNext() const { return fwkHmNext_.ptr(); }
    void fwkHmNextIs(KalVia* n) { fwkHmNext_ = n; }
    bool fwkValueEquals(KalVia const& o) const { return value_ == o.value_; }

  private:
    template <class, class>
    friend struct Kal::HashMapVTable;
    V4 kal_index_;
    S32 value_;
    Kal::Ptr<KalVia> fwkHmNext_;
};

TEST(StrataViaAsKeyTest, HashMapFindsViasAndIteratesByBitReversedHashThenVia) {
    Kal::HashMap<KalVia, V4> map(1);
    std::mt19937 rng(5);
    std::vector<V4> vias;
    for (int i = 0; i < 200; ++i) {
        V4 const v(IpAddr(10, 0, U8(rng() % 4), U8(rng() % 8)), eth(1 + rng() % 3), rng() % 2);
        if (map[v]) continue;
        map.newMember(new KalVia(v, i));
        vias.push_back(v);
    }
    for (V4 const& v : vias) {
        ASSERT_NE(map[v], nullptr) << v.toString();
        EXPECT_EQ(map[v]->fwkKey(), v);
    }
    // Vias that differ only in the label share a bucket hash and are told apart by order.
    std::vector<V4> expected = vias;
    std::sort(expected.begin(), expected.end(), [](V4 const& a, V4 const& b) {
        U32 const ha = Kal::bitReverse(a.hash()), hb = Kal::bitReverse(b.hash());
        return ha != hb ? ha < hb : a < b;
    });
    std::vector<V4> walked;
    for (auto it = map.iterator(); it; ++it) walked.push_back(it.key());
    EXPECT_EQ(walked, expected);
}

} // namespace
