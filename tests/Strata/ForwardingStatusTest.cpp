// The FEC tables in one process: every via count and hole stored and found, the direct-write
// slot, size classes running full, and the tables as framework entities. (RandomOpsTest
// stores, replaces, deletes and walks FECs against a map.)
#include "StrataTestSupport.h"

#include "Kal/Exception.h"
#include "Kal/KalType.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>

namespace {

using Strata::Fib::FecId;
using strata_test::raised;
using strata_test::smallFecCapacity;
using strata_test::TablePrefix;

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

TYPED_TEST(StrataFecTableTest, EveryViaCountAndHolesSurviveTheTable) {
    using FecT = typename TestFixture::FecT;
    auto t = TypeParam::writer(this->prefix, smallFecCapacity(300, 80));
    std::map<U64, std::unique_ptr<FecT>> stored;
    auto store = [&](std::unique_ptr<FecT> f) {
        t->fecIs(*f);
        U64 const id = f->fecId().value();
        stored[id] = std::move(f);
    };
    for (U32 n = 0; n <= 128; ++n) store(fecWith<FecT>(100 + n, n));
    // Holes: a lone high position, every other position; and a single hole at either edge of
    // a bitmap word, just below the last position and far below it: each must be kept, not
    // stored as a dense run.
    auto high = std::make_unique<FecT>(FecId(501));
    high->viaIs(127, via<FecT>(127));
    store(std::move(high));
    auto alternate = std::make_unique<FecT>(FecId(502));
    for (U32 i = 0; i < 128; i += 2) alternate->viaIs(i, via<FecT>(i));
    store(std::move(alternate));
    for (U32 hole : {0u, 4u, 31u, 32u, 63u, 64u, 95u, 96u}) {
        for (U32 n : {hole + 2, 128u}) {
            auto f = fecWith<FecT>(600 + hole * 1000 + n, n);
            f->viaDel(hole);
            store(std::move(f));
        }
    }
    for (auto const& [id, f] : stored) {
        auto got = t->fec(FecId(id));
        ASSERT_TRUE(got.has_value()) << id;
        EXPECT_EQ(*got, *f) << id;
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
    for (auto [vias, cls] :
         {std::pair{0u, 0u}, {1u, 0u}, {2u, 1u}, {3u, 2u}, {8u, 3u}, {9u, 4u}, {128u, 7u}}) {
        EXPECT_EQ(TypeParam::fecClassOf(*fecWith<FecT>(1, vias)), cls) << vias << " vias";
    }
    // A hole costs the bitmap: a FEC with vias at 0 and 127 takes the largest class.
    FecT f(FecId(1));
    f.viaIs(0, via<FecT>(0));
    f.viaIs(127, via<FecT>(1));
    EXPECT_EQ(TypeParam::fecClassOf(f), 7u);
}

TYPED_TEST(StrataFecTableTest, FullTableOrSizeClassRefusesNewFecsButTakesReplacements) {
    using FecT = typename TestFixture::FecT;
    Strata::FecCapacity cap = smallFecCapacity(5, 10);
    cap.classFecs[2] = 2; // FECs of 3 or 4 vias
    auto t = TypeParam::writer(this->prefix, cap);
    EXPECT_EQ(t->fecCapacity(), 5u);
    EXPECT_EQ(t->fecClassCapacity(2), 2u);
    t->fecIs(*fecWith<FecT>(1, 4));
    t->fecIs(*fecWith<FecT>(2, 3));
    auto const before = t->changeSeq();
    Strata::ExceptionId id{};
    EXPECT_EQ(raised<Strata::Exception>([&] { t->fecIs(*fecWith<FecT>(3, 4)); }, &id),
              "Strata table " + t->path() + " size class 2 (4 vias) is full: 2 records");
    EXPECT_EQ(id, Strata::ExceptionId::tableFull_);
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

    // The whole table full: a new key is refused, a replacement in any class is taken.
    t->fecIs(*fecWith<FecT>(5, 1));
    t->fecIs(*fecWith<FecT>(6, 2));
    EXPECT_EQ(raised<Strata::Exception>([&] { t->fecIs(*fecWith<FecT>(7, 1)); }, &id),
              "Strata table " + t->path() + " is full: 5 records");
    EXPECT_EQ(id, Strata::ExceptionId::tableFull_);
    t->fecIs(*fecWith<FecT>(6, 5));
    EXPECT_EQ(t->fecs(), 5u);
    EXPECT_EQ(t->writerCounters().tableFull, 3u);
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
    EXPECT_EQ(t->fecs(), 1u);

    // A new FEC through the slot, which starts fresh again.
    FecT* s2 = t->fecDirectWrite(FecId(8));
    EXPECT_EQ(*s2, FecT(FecId(8)));
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
    using RE = Strata::RuntimeException;
    auto t = TypeParam::writer(this->prefix, smallFecCapacity(2, 4));
    FecT* slot = t->fecDirectWrite(FecId(1));
    EXPECT_EQ(raised<RE>([&] { t->fecDirectWrite(FecId(2)); }), noMansLand) << "a second slot";
    // A caller whose filling failed gives the slot up; then the next one is handed out.
    EXPECT_THROW(slot->viaIs(128, via<FecT>(1)), Kal::RangeException);
    t->fecDirectWriteAbandon();
    EXPECT_EQ(t->fecs(), 0u) << "an abandoned slot stores nothing";
    slot = t->fecDirectWrite(FecId(2));
    t->fecCommit(slot);
    EXPECT_EQ(t->fecs(), 1u);
    EXPECT_EQ(raised<RE>([&] { t->fecCommit(slot); }), noMansLand) << "a commit without a slot";

    // A commit that fails (the table is full) takes the slot with it.
    t->fecIs(*fecWith<FecT>(3, 1));
    slot = t->fecDirectWrite(FecId(4));
    EXPECT_THROW(t->fecCommit(slot), Strata::Exception);
    EXPECT_FALSE(t->fecDirectWriteOutstanding());
    EXPECT_FALSE(t->fec(FecId(4)).has_value());
    t->fecDel(FecId(3));
    t->fecCommit(t->fecDirectWrite(FecId(4)));
    EXPECT_TRUE(t->fec(FecId(4)).has_value());

    // A detached table has no slot to give.
    t->detach();
    EXPECT_EQ(raised<RE>([&] { t->fecDirectWrite(FecId(5)); }), noMansLand) << "detached";
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
    EXPECT_EQ(c.classFecs,
              (std::array<U32, 8>{65536, 65536, 65536, 65536, 16384, 4096, 1024, 256}));
    EXPECT_EQ(Strata::FecCapacity::forFecs(8).classFecs[7], 4u);
    EXPECT_EQ(Strata::FecCapacity::classVias(7), 128u);
}

} // namespace
