// FEC identifiers: the adjacency type field, reserved values, hash, order and layout.
#include "Strata/FecId.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>

namespace {

using Strata::Fib::AdjType;
using Strata::Fib::FecId;

TEST(StrataFecIdTest, EnumerationsHaveTheirPublishedValues) {
    EXPECT_EQ(Strata::Fib::fibAdj_, 0);
    EXPECT_EQ(Strata::Fib::resilientEcmpAdj_, 1);
    EXPECT_EQ(Strata::Fib::nextHopGroupAdj_, 2);
    EXPECT_EQ(Strata::Fib::attachedAdj_, 3);
    EXPECT_EQ(Strata::Fib::adjTypeMax_, 4);

    EXPECT_EQ(Strata::Fib::forward_, 0);
    EXPECT_EQ(Strata::Fib::drop_, 1);
    EXPECT_EQ(Strata::Fib::receive_, 2);
    EXPECT_EQ(Strata::Fib::attached_, 3);
    EXPECT_EQ(Strata::Fib::receiveBcast_, 4);
    EXPECT_EQ(Strata::Fib::nextHopGroup_, 5);
    EXPECT_EQ(Strata::Fib::kernel_, 6);
    EXPECT_EQ(sizeof(Strata::Fib::FecType), 1u);

    EXPECT_EQ(FecId(Strata::Fib::invalidFecId_).value(), 0u);
    EXPECT_EQ(FecId(Strata::Fib::ipv4DropFecId_).value(), 1u);
    EXPECT_EQ(FecId(Strata::Fib::ipv6DropFecId_).value(), 2u);
    EXPECT_EQ(FecId(), FecId(Strata::Fib::invalidFecId_));
}

TEST(StrataFecIdTest, AdjacencyTypeSitsAtTheReportedPosition) {
    U32 const pos = Strata::Fib::adjTypePos();
    ASSERT_GT(pos, 32u) << "next-hop-group ids and allocator indices need room below the type";
    ASSERT_LT(pos, 62u) << "the type field needs room for adjTypeMax_";

    // The next-hop-group form the adjacency helper builds: (2 << pos) | group id.
    FecId const nhg(U64(Strata::Fib::nextHopGroupAdj_) << pos | 7u);
    EXPECT_EQ(nhg, FecId::fromAdjType(Strata::Fib::nextHopGroupAdj_, 7));
    EXPECT_EQ(nhg.adjType(), Strata::Fib::nextHopGroupAdj_);
    EXPECT_EQ(nhg.adjTypeIndex(), 7u);
    EXPECT_EQ(nhg.adjTypeField(), 2u);

    for (AdjType t : {Strata::Fib::fibAdj_, Strata::Fib::resilientEcmpAdj_,
                      Strata::Fib::nextHopGroupAdj_, Strata::Fib::attachedAdj_}) {
        U64 const index = (U64(1) << pos) - 1; // the largest index of the type
        FecId const id = FecId::fromAdjType(t, index);
        EXPECT_EQ(id.adjType(), t);
        EXPECT_EQ(id.adjTypeIndex(), index);
    }
    // Allocator indices are plain FIB adjacencies.
    EXPECT_EQ(FecId(3).adjType(), Strata::Fib::fibAdj_);
    EXPECT_EQ(FecId(3).adjTypeIndex(), 3u);
    // A field that names no type reads as adjTypeMax_, the raw field stays available.
    FecId const odd(U64(9) << pos | 1u);
    EXPECT_EQ(odd.adjType(), Strata::Fib::adjTypeMax_);
    EXPECT_EQ(odd.adjTypeField(), 9u);
    EXPECT_EQ(FecId(~U64(0)).adjType(), Strata::Fib::adjTypeMax_);
}

TEST(StrataFecIdTest, IndexReachingTheTypeFieldIsAProgrammingError) {
    U64 const tooBig = U64(1) << Strata::Fib::adjTypePos();
    EXPECT_DEATH(FecId::fromAdjType(Strata::Fib::fibAdj_, tooBig),
                 "assertion failed: index >> adjTypePos\\(\\) == 0");
}

TEST(StrataFecIdTest, HashIsHighWordXorLowWord) {
    std::mt19937_64 rng(20240611);
    for (int i = 0; i < 1000; ++i) {
        U64 const v = rng();
        U32 const hi = U32(v / 4294967296ull);
        U32 const lo = U32(v % 4294967296ull);
        EXPECT_EQ(FecId(v).hash(), hi ^ lo) << v;
    }
    EXPECT_EQ(FecId(0).hash(), 0u);
    EXPECT_EQ(FecId(0x0000000100000001ull).hash(), 0u);
    EXPECT_EQ(std::hash<FecId>()(FecId(0x1234567800000001ull)), 0x12345679u);
}

TEST(StrataFecIdTest, OrderIsNumeric) {
    std::set<FecId> ids{FecId(5), FecId(1), FecId(~U64(0)), FecId(U64(1) << 40), FecId(2)};
    std::vector<U64> values;
    for (FecId id : ids) values.push_back(id.value());
    EXPECT_EQ(values, (std::vector<U64>{1, 2, 5, U64(1) << 40, ~U64(0)}));
    EXPECT_LT(FecId(0xFFFFFFFFull), FecId(0x100000000ull));
    EXPECT_NE(FecId(1), FecId(2));
}

TEST(StrataFecIdTest, LayoutIsOneEightByteAlignedWord) {
    // alignas(8) keeps records holding a FecId identical in the 64-bit and the i386 build.
    static_assert(sizeof(FecId) == 8 && alignof(FecId) == 8);
    struct Holder {
        U32 before;
        FecId id;
    };
    static_assert(offsetof(Holder, id) == 8);
    FecId const id(0x0102030405060708ull);
    U64 raw = 0;
    std::memcpy(&raw, &id, sizeof raw);
    EXPECT_EQ(raw, 0x0102030405060708ull);
}

} // namespace
