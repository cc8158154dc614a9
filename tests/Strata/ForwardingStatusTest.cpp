// The FEC tables in one process: storing, replacing, finding, deleting and iterating FECs, the
// direct-write slot, size classes running full, and the tables as framework entities.
#include "StrataTestSupport.h"

#include "Kal/KalType.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>

namespace {

using Strata::Fib::FecId;
using strata_test::smallFecCapacity;
using strata_test::TablePrefix;
using Velnet::IntfId;
using Velnet::IntfKind;

template <class FecT>
typename FecT::Via via(U32 n) {
    return strata_test::selfCheckVia<FecT>(n, 1, n);
}

// A FEC with `n` dense vias.
template <class FecT>
std::unique_ptr<FecT> fecWith(U64 id, U32 n, U16 nhg = 0xFFFF) {
    auto f = std::make_unique<FecT>(FecId(id));
    for (U32 i = 0; i < n; ++i) f->viaIs(i, via<FecT>(U32(id * 1000 + i)));
    f->nexthopGroupIdIs(nhg);
    return f;
}

template <class Table>
class StrataFecTableTest : public ::testing::Test {
  protected:
    using FecT = typename Table::Fec;
    TablePrefix prefix;
};
using Tables = ::testing::Types<Strata::Fib::ForwardingStatus, Strata::Fib6::ForwardingStatus>;
TYPED_TEST_SUITE(StrataFecTableTest, Tables);

TYPED_TEST(StrataFecTableTest, StoredFecsAreFoundReplacedAndDeleted) {
    using FecT = typename TestFixture::FecT;
    auto t = TypeParam::writer(this->prefix, smallFecCapacity(64, 16));
    EXPECT_TRUE(t->attached());
    EXPECT_FALSE(t->readOnly());
    EXPECT_EQ(t->fecs(), 0u);
    EXPECT_FALSE(t->fec(FecId(5)).has_value());

    auto a = fecWith<FecT>(5, 3, 7);
    a->fecTypeIs(Strata::Fib::kernel_);
    t->fecIs(*a);
    EXPECT_EQ(t->fecs(), 1u);
    auto got = t->fec(FecId(5));
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(*got, *a);

    // Replacing moves it to another size class; the count stays.
    auto b = fecWith<FecT>(5, 100);
    t->fecIs(*b);
    EXPECT_EQ(t->fecs(), 1u);
    EXPECT_EQ(*t->fec(FecId(5)), *b);
    EXPECT_EQ(t->fecClassFecs(TypeParam::fecClassOf(*b)), 1u);
    EXPECT_EQ(t->fecClassFecs(TypeParam::fecClassOf(*a)), 0u);

    // The drop FEC: no vias at all.
    FecT drop{FecId(Strata::Fib::ipv4DropFecId_)};
    drop.fecTypeIs(Strata::Fib::drop_);
    t->fecIs(drop);
    EXPECT_EQ(*t->fec(FecId(1)), drop);
    EXPECT_EQ(t->fecs(), 2u);

    EXPECT_TRUE(t->fecDel(FecId(5)));
    EXPECT_FALSE(t->fecDel(FecId(5)));
    EXPECT_FALSE(t->fec(FecId(5)).has_value());
    EXPECT_EQ(t->fecs(), 1u);
    FecT out;
    EXPECT_TRUE(t->fec(FecId(1), out));
    EXPECT_EQ(out, drop);
    EXPECT_FALSE(t->fec(FecId(2), out));
    t->validate();
}

TYPED_TEST(StrataFecTableTest, EveryViaCountAndHolesSurviveTheTable) {
    using FecT = typename TestFixture::FecT;
    auto t = TypeParam::writer(this->prefix, smallFecCapacity(300, 80));
    std::map<U64, std::unique_ptr<FecT>> stored;
    for (U32 n = 0; n <= 128; ++n) {
        auto f = fecWith<FecT>(100 + n, n);
        t->fecIs(*f);
        stored[100 + n] = std::move(f);
    }
    // Holes: a deleted middle position, a lone high position, every other position.
    auto holes = fecWith<FecT>(500, 10);
    holes->viaDel(4);
    auto high = std::make_unique<FecT>(FecId(501));
    high->viaIs(127, via<FecT>(127));
    auto alternate = std::make_unique<FecT>(FecId(502));
    for (U32 i = 0; i < 128; i += 2) alternate->viaIs(i, via<FecT>(i));
    for (auto* f : {holes.get(), high.get(), alternate.get()}) {
        EXPECT_FALSE(f->viasDense());
        t->fecIs(*f);
    }
    stored[500] = std::move(holes);
    stored[501] = std::move(high);
    stored[502] = std::move(alternate);
    // A single hole at either edge of a bitmap word, just below the last position and far
    // below it: each must be kept, not stored as a dense run.
    for (U32 hole : {0u, 31u, 32u, 63u, 64u, 95u, 96u}) {
        for (U32 n : {hole + 2, 128u}) {
            auto f = fecWith<FecT>(600 + hole * 1000 + n, n);
            f->viaDel(hole);
            EXPECT_FALSE(f->viasDense());
            t->fecIs(*f);
            stored[600 + hole * 1000 + n] = std::move(f);
        }
    }

    for (auto const& [id, f] : stored) {
        auto got = t->fec(FecId(id));
        ASSERT_TRUE(got.has_value()) << id;
        EXPECT_EQ(*got, *f) << id;
        EXPECT_EQ(got->vias(), f->vias()) << id;
        EXPECT_EQ(got->viaEnd(), f->viaEnd()) << id;
    }
    // The iterator visits each FEC once, whole.
    std::set<U64> seen;
    for (auto it = t->fecIteratorConst(); it; ++it) {
        EXPECT_TRUE(seen.insert(it.key().value()).second) << it.key().value();
        ASSERT_EQ(stored.count(it.key().value()), 1u);
        EXPECT_EQ(*it, *stored[it.key().value()]);
        EXPECT_EQ(it->fecId(), it.key());
    }
    EXPECT_EQ(seen.size(), stored.size());
    EXPECT_EQ(t->fecs(), stored.size());
    t->validate();
}

TYPED_TEST(StrataFecTableTest, SizeClassesFollowTheHighestViaPosition) {
    using FecT = typename TestFixture::FecT;
    EXPECT_EQ(TypeParam::fecClasses(), 8u);
    EXPECT_EQ(TypeParam::fecClassOf(*fecWith<FecT>(1, 0)), 0u);
    EXPECT_EQ(TypeParam::fecClassOf(*fecWith<FecT>(1, 1)), 0u);
    EXPECT_EQ(TypeParam::fecClassOf(*fecWith<FecT>(1, 2)), 1u);
    EXPECT_EQ(TypeParam::fecClassOf(*fecWith<FecT>(1, 3)), 2u);
    EXPECT_EQ(TypeParam::fecClassOf(*fecWith<FecT>(1, 8)), 3u);
    EXPECT_EQ(TypeParam::fecClassOf(*fecWith<FecT>(1, 9)), 4u);
    EXPECT_EQ(TypeParam::fecClassOf(*fecWith<FecT>(1, 128)), 7u);
    // A hole costs the bitmap: a FEC with vias at 0 and 127 takes the largest class.
    FecT f(FecId(1));
    f.viaIs(0, via<FecT>(0));
    f.viaIs(127, via<FecT>(1));
    EXPECT_EQ(TypeParam::fecClassOf(f), 7u);
}

TYPED_TEST(StrataFecTableTest, FullSizeClassRefusesNewFecsWhileOtherClassesWork) {
    using FecT = typename TestFixture::FecT;
    Strata::FecCapacity cap = smallFecCapacity(100, 10);
    cap.classFecs[2] = 2; // FECs of 3 or 4 vias
    auto t = TypeParam::writer(this->prefix, cap);
    EXPECT_EQ(t->fecClassCapacity(2), 2u);
    t->fecIs(*fecWith<FecT>(1, 4));
    t->fecIs(*fecWith<FecT>(2, 3));
    auto const before = t->changeSeq();
    try {
        t->fecIs(*fecWith<FecT>(3, 4));
        FAIL() << "a third FEC went into a class of two";
    } catch (Strata::Exception const& e) {
        EXPECT_EQ(e.id(), Strata::ExceptionId::tableFull_);
        EXPECT_NE(e.msg().stringValue().find("size class 2 (4 vias) is full: 2 records"),
                  std::string::npos)
            << e.msg();
        EXPECT_NE(e.msg().stringValue().find(t->path()), std::string::npos) << e.msg();
    }
    EXPECT_EQ(t->changeSeq(), before) << "a refused write changes nothing";
    EXPECT_FALSE(t->fec(FecId(3)).has_value());
    // Other classes still take FECs.
    t->fecIs(*fecWith<FecT>(3, 1));
    t->fecIs(*fecWith<FecT>(4, 16));
    // Replacing a FEC inside the full class still works (the class keeps a slot for it) ...
    t->fecIs(*fecWith<FecT>(1, 3));
    EXPECT_EQ(*t->fec(FecId(1)), *fecWith<FecT>(1, 3));
    // ... but moving another FEC into it does not, and leaves the old one as it was.
    EXPECT_THROW(t->fecIs(*fecWith<FecT>(3, 4)), Strata::Exception);
    EXPECT_EQ(*t->fec(FecId(3)), *fecWith<FecT>(3, 1));
    // Freeing a place makes room again.
    EXPECT_TRUE(t->fecDel(FecId(2)));
    t->fecIs(*fecWith<FecT>(3, 4));
    EXPECT_EQ(t->fecClassFecs(2), 2u);
    EXPECT_EQ(t->writerCounters().tableFull, 2u);
    t->validate();
}

TYPED_TEST(StrataFecTableTest, FullTableRefusesNewKeysButTakesReplacements) {
    using FecT = typename TestFixture::FecT;
    auto t = TypeParam::writer(this->prefix, smallFecCapacity(3, 10));
    for (U64 id = 1; id <= 3; ++id) t->fecIs(*fecWith<FecT>(id, 1));
    try {
        t->fecIs(*fecWith<FecT>(4, 1));
        FAIL() << "a fourth FEC in a table of three";
    } catch (Strata::Exception const& e) {
        EXPECT_EQ(e.id(), Strata::ExceptionId::tableFull_);
        EXPECT_NE(e.msg().stringValue().find("is full: 3 records"), std::string::npos) << e.msg();
    }
    t->fecIs(*fecWith<FecT>(2, 5));
    EXPECT_EQ(t->fecs(), 3u);
    EXPECT_EQ(t->fecCapacity(), 3u);
    t->validate();
}

TYPED_TEST(StrataFecTableTest, DirectWriteSlotIsFilledInPlaceAndCommittedInOneStep) {
    using FecT = typename TestFixture::FecT;
    auto t = TypeParam::writer(this->prefix, smallFecCapacity(16, 8));
    auto ro = TypeParam::reader(this->prefix);
    t->fecIs(*fecWith<FecT>(7, 5));

    // The slot starts fresh, not from the FEC already stored under the id.
    FecT* slot = t->fecDirectWrite(FecId(7));
    ASSERT_NE(slot, nullptr);
    EXPECT_TRUE(t->fecDirectWriteOutstanding());
    EXPECT_EQ(*slot, FecT(FecId(7)));
    slot->viaIs(0, via<FecT>(70));
    slot->viaIs(1, via<FecT>(71));
    slot->nexthopGroupIdIs(3);
    slot->fecTypeIs(Strata::Fib::nextHopGroup_);
    // Nothing is visible before the commit.
    EXPECT_EQ(*ro->fec(FecId(7)), *fecWith<FecT>(7, 5));
    FecT const expected = *slot;
    t->fecCommit(slot);
    EXPECT_FALSE(t->fecDirectWriteOutstanding());
    EXPECT_EQ(*ro->fec(FecId(7)), expected);
    EXPECT_EQ(*t->fec(FecId(7)), expected);
    EXPECT_EQ(t->fecs(), 1u);

    // A new FEC through the slot.
    FecT* s2 = t->fecDirectWrite(FecId(8));
    s2->viaIs(0, via<FecT>(80));
    t->fecCommit(s2);
    EXPECT_EQ(ro->fec(FecId(8))->via(0), via<FecT>(80));
    EXPECT_EQ(t->writerCounters().commits, 3u);

    // The slot is committed under the id it holds then, not the one it was handed out for.
    FecT* s3 = t->fecDirectWrite(FecId(7));
    s3->fecIdIs(FecId(9));
    s3->viaIs(0, via<FecT>(90));
    t->fecCommit(s3);
    EXPECT_EQ(*ro->fec(FecId(7)), expected);
    ASSERT_TRUE(ro->fec(FecId(9)).has_value());
    EXPECT_EQ(ro->fec(FecId(9))->via(0), via<FecT>(90));
    EXPECT_EQ(t->fecs(), 3u);
    t->validate();
}

TYPED_TEST(StrataFecTableTest, DirectWriteSlotOutsideItsStatesIsNoMansLand) {
    using FecT = typename TestFixture::FecT;
    std::string const noMansLand = "StrataMap::directWrite() in no man's land";
    auto t = TypeParam::writer(this->prefix, smallFecCapacity(16, 8));
    FecT* slot = t->fecDirectWrite(FecId(1));
    try {
        t->fecDirectWrite(FecId(2));
        FAIL() << "a second outstanding slot";
    } catch (Strata::RuntimeException const& e) {
        EXPECT_EQ(e.msg().stringValue(), noMansLand);
        EXPECT_EQ(e.id(), Strata::ExceptionId::runtime_);
        EXPECT_STREQ(e.name(), "RuntimeException");
    }
    // A caller whose filling failed gives the slot up; then the next one is handed out.
    EXPECT_THROW(slot->viaIs(128, via<FecT>(1)), Kal::RangeException);
    t->fecDirectWriteAbandon();
    EXPECT_EQ(t->fecs(), 0u) << "an abandoned slot stores nothing";
    slot = t->fecDirectWrite(FecId(2));
    t->fecCommit(slot);
    EXPECT_EQ(t->fecs(), 1u);
    // A commit without a slot.
    try {
        t->fecCommit(slot);
        FAIL() << "commit without a slot";
    } catch (Strata::RuntimeException const& e) {
        EXPECT_EQ(e.msg().stringValue(), noMansLand);
    }
    // A detached table has no slot to give.
    t->detach();
    try {
        t->fecDirectWrite(FecId(3));
        FAIL() << "a slot of a detached table";
    } catch (Strata::RuntimeException const& e) {
        EXPECT_EQ(e.msg().stringValue(), noMansLand);
    }
}

TYPED_TEST(StrataFecTableTest, DirectWriteSlotIsGoneAfterAFailedCommit) {
    using FecT = typename TestFixture::FecT;
    auto t = TypeParam::writer(this->prefix, smallFecCapacity(1, 4));
    t->fecIs(*fecWith<FecT>(1, 1));
    FecT* slot = t->fecDirectWrite(FecId(2));
    slot->viaIs(0, via<FecT>(2));
    EXPECT_THROW(t->fecCommit(slot), Strata::Exception);
    EXPECT_FALSE(t->fecDirectWriteOutstanding());
    EXPECT_FALSE(t->fec(FecId(2)).has_value());
    t->fecDel(FecId(1));
    slot = t->fecDirectWrite(FecId(2));
    t->fecCommit(slot);
    EXPECT_TRUE(t->fec(FecId(2)).has_value());
}

TYPED_TEST(StrataFecTableTest, CommittingAnotherPointerIsAProgrammingError) {
    using FecT = typename TestFixture::FecT;
    auto t = TypeParam::writer(this->prefix, smallFecCapacity(4, 4));
    FecT other(FecId(1));
    t->fecDirectWrite(FecId(1));
    EXPECT_DEATH(t->fecCommit(&other), "assertion failed: fec == directWriteSlot_");
}

TYPED_TEST(StrataFecTableTest, TablesAreFrameworkEntities) {
    auto t = TypeParam::writer(this->prefix, smallFecCapacity(4, 4));
    Kal::KalType const* type = t->fwkType();
    ASSERT_NE(type, nullptr);
    EXPECT_TRUE(type->isEntity());
    EXPECT_EQ(type->base(), &Kal::entityType());
    Strata::kalInitStrata();
    EXPECT_EQ(Kal::typeByName(type->name().stringValue()), type);
    bool const v4 = std::is_same_v<TypeParam, Strata::Fib::ForwardingStatus>;
    EXPECT_EQ(type->name().stringValue(),
              v4 ? "Strata::Fib::ForwardingStatus" : "Strata::Fib6::ForwardingStatus");
    EXPECT_EQ(t->name().stringValue(), this->prefix.str() + (v4 ? "-fib4-fec" : "-fib6-fec"));
    EXPECT_EQ(t->path(), this->prefix.file(v4 ? "fib4-fec" : "fib6-fec"));
    Kal::Ptr<Strata::StrataTable> held = t;
    EXPECT_EQ(held->references(), 2u);
}

TEST(StrataFecCapacityTest, DefaultPolicyGivesFewerBigFecs) {
    auto const c = Strata::FecCapacity::forFecs(65536);
    EXPECT_EQ(c.maxFecs, 65536u);
    EXPECT_EQ(c.classFecs[0], 65536u);
    EXPECT_EQ(c.classFecs[3], 65536u);
    EXPECT_EQ(c.classFecs[4], 16384u);
    EXPECT_EQ(c.classFecs[7], 256u);
    EXPECT_EQ(Strata::FecCapacity::forFecs(8).classFecs[7], 4u);
    EXPECT_EQ(Strata::FecCapacity::classVias(7), 128u);
}

} // namespace
