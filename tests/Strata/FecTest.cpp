// FEC records of both families: defaults, via positions (dense and with holes), the position
// limit, iteration, equality and layout.
#include "Strata/Fec.h"

#include "Kal/Exception.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>

namespace {

using Strata::Fib::FecId;
using Strata::Fib::ViaIndex;
using Velnet::IntfId;
using Velnet::IntfKind;

template <class F>
typename F::Via viaNo(U32 n) {
    using V = typename F::Via;
    if constexpr (std::is_same_v<V, Strata::Fib::Via>) {
        return V(Velnet::IpAddr(10 << 24 | n), IntfId(IntfKind::ethernet_, 1 + n % 60000), n);
    } else {
        return V(Velnet::Ip6Addr(0xfd00, 0, 0, 0, 0, 0, U16(n >> 16), U16(n)),
                 IntfId(IntfKind::ethernet_, 1 + n % 60000), n);
    }
}

template <class F>
class StrataFecBothFamiliesTest : public ::testing::Test {
  protected:
    // FECs are 1.5 and 3 KB; keep them off the test's stack frame.
    std::unique_ptr<F> make(U64 id = 0) { return std::make_unique<F>(FecId(id)); }
};
using Families = ::testing::Types<Strata::Fib::Fec, Strata::Fib6::Fec>;
TYPED_TEST_SUITE(StrataFecBothFamiliesTest, Families);

TYPED_TEST(StrataFecBothFamiliesTest, DefaultHasNoViasNoGroupAndForwardType) {
    auto f = this->make();
    EXPECT_EQ(f->fecId(), FecId());
    EXPECT_EQ(f->fecType(), Strata::Fib::forward_);
    EXPECT_EQ(f->nexthopGroupId(), 0xFFFFu);
    EXPECT_EQ(f->vias(), 0u);
    EXPECT_EQ(f->viaEnd(), 0u);
    EXPECT_TRUE(f->viasDense());
    EXPECT_FALSE(f->viaIteratorConst());
    EXPECT_TRUE(f->via(0).empty());
    EXPECT_TRUE(f->via(127).empty());
    EXPECT_FALSE(f->hasVia(0));
}

TYPED_TEST(StrataFecBothFamiliesTest, ScalarFieldsReadBackWhatWasSet) {
    auto f = this->make(42);
    EXPECT_EQ(f->fecId(), FecId(42));
    f->fecIdIs(FecId(43));
    f->fecTypeIs(Strata::Fib::drop_);
    f->nexthopGroupIdIs(7);
    EXPECT_EQ(f->fecId(), FecId(43));
    EXPECT_EQ(f->fecType(), Strata::Fib::drop_);
    EXPECT_EQ(f->nexthopGroupId(), 7u);
    f->fecTypeIs(U8(5)); // a via set's type byte
    EXPECT_EQ(f->fecType(), Strata::Fib::nextHopGroup_);
    f->fecTypeIs(U8(200)); // a byte no FecType names is kept as it is
    EXPECT_EQ(U8(f->fecType()), 200u);
}

TYPED_TEST(StrataFecBothFamiliesTest, DenseViasFillPositionsInOrder) {
    auto f = this->make(9);
    for (U32 i = 0; i < 128; ++i) f->viaIs(i, viaNo<TypeParam>(i));
    EXPECT_EQ(f->vias(), 128u);
    EXPECT_EQ(f->viaEnd(), 128u);
    EXPECT_TRUE(f->viasDense());
    U32 expect = 0;
    for (auto it = f->viaIteratorConst(); it; ++it, ++expect) {
        EXPECT_EQ(it.position().value(), expect);
        EXPECT_EQ(it.via(), viaNo<TypeParam>(expect));
        EXPECT_EQ(*it, viaNo<TypeParam>(expect));
        EXPECT_EQ(it->mplsLabel(), expect);
    }
    EXPECT_EQ(expect, 128u);
    // Overwriting a position keeps the count.
    f->viaIs(5, viaNo<TypeParam>(1000));
    EXPECT_EQ(f->vias(), 128u);
    EXPECT_EQ(f->via(5), viaNo<TypeParam>(1000));
}

TYPED_TEST(StrataFecBothFamiliesTest, DeletedMiddlePositionLeavesAHoleThatEveryReaderSees) {
    auto f = this->make(9);
    for (U32 i = 0; i < 4; ++i) f->viaIs(i, viaNo<TypeParam>(i));
    f->viaDel(1);
    EXPECT_EQ(f->vias(), 3u);
    EXPECT_EQ(f->viaEnd(), 4u);
    EXPECT_FALSE(f->viasDense());
    EXPECT_FALSE(f->hasVia(1));
    EXPECT_TRUE(f->via(1).empty());
    std::vector<U32> positions;
    for (auto it = f->viaIteratorConst(); it; ++it) positions.push_back(it.position().value());
    EXPECT_EQ(positions, (std::vector<U32>{0, 2, 3}));
    // Deleting the top position shrinks viaEnd to the next set one.
    f->viaDel(3);
    EXPECT_EQ(f->viaEnd(), 3u);
    f->viaDel(1); // already empty: no change
    EXPECT_EQ(f->vias(), 2u);
    f->viaDelAll();
    EXPECT_EQ(f->vias(), 0u);
    EXPECT_EQ(f->viaEnd(), 0u);
    EXPECT_EQ(*f, *this->make(9)) << "viaDelAll must leave no trace of the vias";
}

TYPED_TEST(StrataFecBothFamiliesTest, Position128IsRefusedAndNothingChanges) {
    auto f = this->make(9);
    for (U32 i = 0; i < 128; ++i) f->viaIs(i, viaNo<TypeParam>(i));
    auto const before = *f;
    try {
        f->viaIs(128, viaNo<TypeParam>(128));
        FAIL() << "position 128 accepted";
    } catch (Kal::RangeException const& e) {
        EXPECT_EQ(e.message(),
                  Kal::String8("ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed"));
    }
    EXPECT_THROW((void)f->via(200), Kal::RangeException);
    EXPECT_THROW(f->viaDel(-1), Kal::RangeException);
    EXPECT_EQ(*f, before);
}

TYPED_TEST(StrataFecBothFamiliesTest, EqualityLooksAtEveryFieldAndPosition) {
    auto a = this->make(1);
    a->viaIs(0, viaNo<TypeParam>(0));
    a->viaIs(1, viaNo<TypeParam>(1));
    auto b = std::make_unique<TypeParam>(*a);
    EXPECT_EQ(*a, *b);
    b->fecIdIs(FecId(2));
    EXPECT_NE(*a, *b);
    *b = *a;
    b->fecTypeIs(Strata::Fib::kernel_);
    EXPECT_NE(*a, *b);
    *b = *a;
    b->nexthopGroupIdIs(0);
    EXPECT_NE(*a, *b);
    *b = *a;
    b->viaIs(1, viaNo<TypeParam>(2));
    EXPECT_NE(*a, *b);
    // The same vias at other positions are another FEC.
    *b = *a;
    b->viaDel(1);
    b->viaIs(2, viaNo<TypeParam>(1));
    EXPECT_NE(*a, *b);
    // Deleting and setting again gives back an equal FEC.
    b->viaDel(2);
    b->viaIs(1, viaNo<TypeParam>(1));
    EXPECT_EQ(*a, *b);
}

TYPED_TEST(StrataFecBothFamiliesTest, RandomEditsMatchAMapOfPositions) {
    unsigned const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    auto f = this->make(3);
    std::map<U32, typename TypeParam::Via> model;
    for (int step = 0; step < 3000; ++step) {
        U32 const pos = rng() % 128;
        switch (rng() % 4) {
        case 0:
        case 1:
            f->viaIs(pos, viaNo<TypeParam>(U32(step)));
            model[pos] = viaNo<TypeParam>(U32(step));
            break;
        case 2:
            f->viaDel(pos);
            model.erase(pos);
            break;
        case 3:
            if (rng() % 50 == 0) {
                f->viaDelAll();
                model.clear();
            }
            break;
        }
        ASSERT_EQ(f->vias(), model.size());
        ASSERT_EQ(f->viaEnd(), model.empty() ? 0u : model.rbegin()->first + 1);
        auto m = model.begin();
        for (auto it = f->viaIteratorConst(); it; ++it, ++m) {
            ASSERT_NE(m, model.end());
            ASSERT_EQ(it.position().value(), m->first);
            ASSERT_EQ(it.via(), m->second);
        }
        ASSERT_EQ(m, model.end());
        for (U32 i = 0; i < 128; ++i) ASSERT_EQ(f->hasVia(i), model.count(i) == 1) << i;
    }
}

TEST(StrataFecLayoutTest, SameBytesInEveryBuild) {
    static_assert(sizeof(Strata::Fib::Fec) == 1568 && alignof(Strata::Fib::Fec) == 8);
    static_assert(sizeof(Strata::Fib6::Fec) == 3104 && alignof(Strata::Fib6::Fec) == 8);
    auto f = std::make_unique<Strata::Fib::Fec>(FecId(0x1122334455667788ull));
    f->fecTypeIs(Strata::Fib::receive_);
    f->nexthopGroupIdIs(0xBEEF);
    f->viaIs(33, Strata::Fib::Via(Velnet::IpAddr(1, 2, 3, 4), IntfId(0x01000002u), 99));
    unsigned char bytes[sizeof(Strata::Fib::Fec)];
    std::memcpy(bytes, f.get(), sizeof bytes);
    U64 id = 0;
    std::memcpy(&id, bytes, 8);
    EXPECT_EQ(id, 0x1122334455667788ull);
    EXPECT_EQ(bytes[8], Strata::Fib::receive_);
    U16 nhg = 0;
    std::memcpy(&nhg, bytes + 10, 2);
    EXPECT_EQ(nhg, 0xBEEFu);
    U32 mask[4];
    std::memcpy(mask, bytes + 12, 16);
    EXPECT_EQ(mask[0], 0u);
    EXPECT_EQ(mask[1], 2u); // position 33
    U32 via[3];
    std::memcpy(via, bytes + 32 + 33 * 12, 12);
    EXPECT_EQ(via[0], 0x01020304u);
    EXPECT_EQ(via[1], 0x01000002u);
    EXPECT_EQ(via[2], 99u);
}

} // namespace
