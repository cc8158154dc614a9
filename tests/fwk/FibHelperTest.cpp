// Via sets: the hash and the order every adjacency table depends on, text, and the tables.
#include "fwk/FibHelper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

using Ridge::ViaSet;
using Strata::Fib::Via;

// An independent one-at-a-time hash over a byte string, the reference the set hash is
// checked against.
U32 oneAtATime(std::vector<U8> const& bytes) {
    U32 h = 0;
    for (U8 b : bytes) {
        h += b;
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

std::vector<U8> bytesOf(std::string const& s) { return std::vector<U8>(s.begin(), s.end()); }

void pushWord(std::vector<U8>& out, U32 w) {
    for (int i = 0; i < 4; ++i) out.push_back(U8(w >> (8 * i)));
}

Via via(char const* hop, U32 intf, U32 label = 0) {
    return Via(Velnet::IpAddr::fromString(hop), Velnet::IntfId(Velnet::IntfKind::ethernet_, intf),
               label);
}

// The set hash recomputed from the collection's own order: the bytes of each via's word,
// then type, then nhid.
U32 referenceHash(ViaSet const& s) {
    std::vector<U8> bytes;
    for (auto it = s.viaIteratorConst(); it; ++it) {
        pushWord(bytes, it.key().hop().hash() ^ it.key().intfId().hash());
    }
    bytes.push_back(s.type());
    pushWord(bytes, s.nhid());
    return oneAtATime(bytes);
}

TEST(ViaSetHash, ReferenceByteHashMatchesPublishedVectors) {
    EXPECT_EQ(oneAtATime(bytesOf("a")), 0xca2e9442u);
    EXPECT_EQ(oneAtATime(bytesOf("The quick brown fox jumps over the lazy dog")), 0x519e91f5u);
}

TEST(ViaSetHash, MatchesTheReferenceForSetsOfEverySize) {
    std::mt19937 rng(7);
    for (int n : {0, 1, 2, 4, 16, 128}) {
        ViaSet s;
        for (int i = 0; i < n; ++i) {
            s.viaIs(Via(Velnet::IpAddr(rng()), Velnet::IntfId(Velnet::IntfKind::ethernet_,
                                                               1 + rng() % 1000),
                        rng() % 100),
                    1);
        }
        s.nhidIs(rng());
        s.typeIs(U8(rng()));
        EXPECT_EQ(s.hash(), referenceHash(s)) << n << " vias";
    }
}

TEST(ViaSetHash, EdgeCases) {
    EXPECT_EQ(ViaSet().hash(), 0u) << "five zero bytes from zero stay zero";
    ViaSet t1, n1;
    t1.typeIs(1);
    n1.nhidIs(1);
    EXPECT_NE(t1.hash(), ViaSet().hash());
    EXPECT_NE(n1.hash(), ViaSet().hash());
    EXPECT_NE(t1.hash(), n1.hash()) << "type and nhid are fed at different places";
    ViaSet a, b;
    a.viaIs(via("10.0.0.1", 5, 100), 1);
    b.viaIs(via("10.0.0.1", 5, 200), 1);
    EXPECT_EQ(a.hash(), b.hash()) << "labels are not hashed";
    EXPECT_FALSE(a == b);
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(b < a) << "vias differing only in label order neither way";
}

TEST(ViaSetOrder, CountsFirstThenTheFirstDifferenceDecidesInterfaceBeforeHop) {
    ViaSet one, two;
    one.viaIs(via("255.255.255.255", 9), 1);
    two.viaIs(via("1.0.0.1", 1), 1);
    two.viaIs(via("1.0.0.2", 1), 1);
    EXPECT_TRUE(one < two);
    EXPECT_FALSE(two < one);
    ViaSet x, y;
    x.viaIs(via("10.0.0.1", 5), 1);
    y.viaIs(via("10.0.0.2", 3), 1);
    EXPECT_TRUE(y < x) << "interface ids are compared before addresses";
    EXPECT_TRUE(x > y);
    EXPECT_TRUE(y <= x);
    EXPECT_FALSE(y >= x);
    ViaSet e1, e2;
    EXPECT_EQ(e1, e2);
    EXPECT_FALSE(e1 < e2);
    EXPECT_EQ(e1.hash(), e2.hash());
    e1.typeIs(1);
    e2.nhidIs(9);
    EXPECT_TRUE(e2 < e1) << "type is compared before nhid";
}

TEST(ViaSetValue, ViaIsOverwritesAndNotIsTheDefaultTest) {
    ViaSet s;
    EXPECT_TRUE(!s);
    s.viaIs(via("10.0.0.1", 1), 1);
    s.viaIs(via("10.0.0.1", 1), 7);
    EXPECT_EQ(s.vias(), 1u);
    EXPECT_EQ(s.via(via("10.0.0.1", 1)), 7);
    EXPECT_FALSE(!s);
    s.viaDel(via("10.0.0.9", 1));
    s.viaDel(via("10.0.0.1", 1));
    EXPECT_TRUE(!s);
    s.nhidIs(1);
    EXPECT_FALSE(!s);
}

TEST(ViaSetText, PrintsAndReadsBack) {
    ViaSet s;
    s.viaIs(via("10.0.0.1", 1), 1);
    s.nhidIs(7);
    s.typeIs(1);
    Kal::String8 const text = Kal::valueToStrep(s);
    EXPECT_EQ(text, Kal::String8("Value('Ridge::ViaSet', ** {'via': None, 'nhid': 7, 'type': 1})"));
    ViaSet back(text);
    EXPECT_EQ(back.nhid(), 7u);
    EXPECT_EQ(back.type(), 1u);
    EXPECT_EQ(back.vias(), 0u);
    EXPECT_EQ(Kal::valueToStrep(Ridge::Via6Set()),
              Kal::String8("Value('Ridge::Via6Set', ** {'via': None, 'nhid': 0, 'type': 0})"));
    auto error = [](char const* t) -> std::string {
        try {
            ViaSet v{Kal::String8(t)};
        } catch (Kal::RangeException const& e) {
            return e.message().stringValue();
        }
        return "none";
    };
    EXPECT_EQ(error("Value('Ridge::ViaSet', ** {'via': None, 'nhid': 7, 'type': 1})x"),
              "junk at column 62 deserializing Value('Ridge::ViaSet', ** {'via': None, 'nhid': "
              "7, 'type': 1})x");
    EXPECT_EQ(error("Value('Ridge::ViaSet', ** {'via': None, 'nhid': 7"),
              "premature end of value type ViaSet");
    EXPECT_EQ(error("Value('Ridge::ViaSet', ** {'foo': 1})"), "ViaSet has no such attribute: foo");
}

} // namespace
