// FEC records of both families: defaults, via positions (dense and with holes), the position
// limit, iteration and equality. (The layout is pinned by static_asserts in Strata/Fec.h.)
#include "Strata/Fec.h"

#include "Kal/Exception.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>

namespace {

using Strata::Fib::FecId;
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
    EXPECT_TRUE(f->via(127).empty());
    EXPECT_FALSE(f->hasVia(0));

    f->fecTypeIs(U8(5)); // a via set's type byte
    EXPECT_EQ(f->fecType(), Strata::Fib::nextHopGroup_);
    f->fecTypeIs(U8(200)); // a byte no FecType names is kept as it is
    EXPECT_EQ(U8(f->fecType()), 200u);
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

// Dense fills, holes, overwrites, deletes of empty positions and viaDelAll, against a map
// of positions; every way of reading the positions must agree with it.
TYPED_TEST(StrataFecBothFamiliesTest, RandomEditsMatchAMapOfPositions) {
    unsigned const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    auto f = this->make(3);
    std::map<U32, typename TypeParam::Via> model;
    for (int step = 0; step < 3000; ++step) {
        U32 const pos = rng() % 128;
        switch (rng() % 5) {
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
                ASSERT_EQ(*f, *this->make(3)) << "viaDelAll must leave no trace of the vias";
            }
            break;
        case 4:
            if (rng() % 40 == 0) {
                // Fill 0 .. n-1 densely, as writers do.
                f->viaDelAll();
                model.clear();
                for (U32 i = 0; i <= pos; ++i) {
                    f->viaIs(i, viaNo<TypeParam>(i));
                    model[i] = viaNo<TypeParam>(i);
                }
            }
            break;
        }
        U32 const end = model.empty() ? 0u : model.rbegin()->first + 1;
        ASSERT_EQ(f->vias(), model.size());
        ASSERT_EQ(f->viaEnd(), end);
        ASSERT_EQ(f->viasDense(), model.size() == end);
        auto m = model.begin();
        for (auto it = f->viaIteratorConst(); it; ++it, ++m) {
            ASSERT_NE(m, model.end());
            ASSERT_EQ(it.position().value(), m->first);
            ASSERT_EQ(it.via(), m->second);
            ASSERT_EQ(*it, m->second);
            ASSERT_EQ(it->mplsLabel(), m->second.mplsLabel());
        }
        ASSERT_EQ(m, model.end());
        for (U32 i = 0; i < 128; ++i) {
            ASSERT_EQ(f->hasVia(i), model.count(i) == 1) << i;
            ASSERT_EQ(f->via(i), model.count(i) ? model[i] : typename TypeParam::Via()) << i;
        }
    }
}

} // namespace
