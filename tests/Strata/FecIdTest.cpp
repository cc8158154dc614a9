// FEC identifiers: the adjacency type field, reserved values, hash, order and layout.
#include "Strata/FecId.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace {

using Strata::Fib::AdjType;
using Strata::Fib::FecId;

// The values are stored in the tables and read by other processes.
TEST(StrataFecIdTest, EnumerationsHaveTheirPublishedValues) {
    using namespace Strata::Fib;
    AdjType const adjTypes[] = {fibAdj_, resilientEcmpAdj_, nextHopGroupAdj_, attachedAdj_,
                                adjTypeMax_};
    for (unsigned i = 0; i < std::size(adjTypes); ++i) EXPECT_EQ(unsigned(adjTypes[i]), i);
    FecType const fecTypes[] = {forward_,      drop_,         receive_, attached_,
                                receiveBcast_, nextHopGroup_, kernel_};
    for (unsigned i = 0; i < std::size(fecTypes); ++i) EXPECT_EQ(unsigned(fecTypes[i]), i);
    EXPECT_EQ(sizeof(FecType), 1u);
    EXPECT_EQ(FecId(invalidFecId_), FecId());
    EXPECT_EQ(FecId(ipv4DropFecId_).value(), 1u);
    EXPECT_EQ(FecId(ipv6DropFecId_).value(), 2u);
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

TEST(StrataFecIdTest, HashIsHighWordXorLowWordAndOrderIsNumeric) {
    std::mt19937_64 rng(20240611);
    for (int i = 0; i < 1000; ++i) {
        U64 const v = rng();
        EXPECT_EQ(FecId(v).hash(), U32(v / 4294967296ull) ^ U32(v % 4294967296ull)) << v;
    }
    EXPECT_EQ(FecId(0x0000000100000001ull).hash(), 0u);
    EXPECT_EQ(std::hash<FecId>()(FecId(0x1234567800000001ull)), 0x12345679u);

    std::set<FecId> ids{FecId(5), FecId(1), FecId(~U64(0)), FecId(U64(1) << 40), FecId(2)};
    std::vector<U64> values;
    for (FecId id : ids) values.push_back(id.value());
    EXPECT_EQ(values, (std::vector<U64>{1, 2, 5, U64(1) << 40, ~U64(0)}));
    EXPECT_LT(FecId(0xFFFFFFFFull), FecId(0x100000000ull));
    EXPECT_NE(FecId(1), FecId(2));
}

} // namespace
