// Seeded random operation sequences checked against std::map, across detach and re-attach of
// the writer (the recovery path on a cleanly left table) and through a reader. The seed is
// printed; STRATA_SEED=<n> replays one.
#include "StrataTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <random>

namespace {

using Strata::Fib::FecId;
using strata_test::TablePrefix;

unsigned testSeed() {
    char const* const replay = std::getenv("STRATA_SEED");
    unsigned const seed =
        replay ? unsigned(std::strtoul(replay, nullptr, 10)) : std::random_device{}();
    std::printf("seed %u\n", seed);
    return seed;
}

template <class FecT>
std::unique_ptr<FecT> randomFec(std::mt19937& rng, U64 id) {
    auto f = std::make_unique<FecT>(FecId(id));
    f->fecTypeIs(U8(rng() % 7));
    f->nexthopGroupIdIs(U16(rng()));
    U32 const shape = rng() % 10;
    U32 const n =
        shape < 5 ? 1 + rng() % 4 : shape < 8 ? 1 + rng() % 16 : shape < 9 ? rng() % 129 : 0;
    for (U32 i = 0; i < n; ++i) f->viaIs(i, strata_test::selfCheckVia<FecT>(id, U32(rng()), i));
    if (n > 2 && rng() % 4 == 0) f->viaDel(rng() % (n - 1)); // a hole
    return f;
}

// The table holds exactly the model: lookups of every key, a walk, and the counts of the
// table and of each size class.
template <class Table>
void compareFecs(Table const& t, std::map<U64, std::unique_ptr<typename Table::Fec>> const& model,
                 U64 keys) {
    ASSERT_EQ(t.fecs(), model.size());
    U32 perClass[Table::fecClasses()] = {};
    for (auto const& [k, f] : model) ++perClass[Table::fecClassOf(*f)];
    for (U32 c = 0; c < Table::fecClasses(); ++c) {
        ASSERT_EQ(t.fecClassFecs(c), perClass[c]) << "class " << c;
    }
    for (U64 k = 0; k < keys; ++k) {
        auto got = t.fec(FecId(k));
        auto const m = model.find(k);
        ASSERT_EQ(got.has_value(), m != model.end()) << "FEC " << k;
        if (got) {
            ASSERT_EQ(*got, *m->second) << "FEC " << k;
        }
    }
    std::map<U64, int> seen;
    for (auto it = t.fecIteratorConst(); it; ++it) {
        ASSERT_EQ(++seen[it.key().value()], 1) << "FEC " << it.key().value() << " walked twice";
        ASSERT_EQ(*it, *model.at(it.key().value()));
    }
    ASSERT_EQ(seen.size(), model.size());
}

template <class Table>
class StrataRandomFecOpsTest : public ::testing::Test {};
using FecTables = ::testing::Types<Strata::Fib::ForwardingStatus, Strata::Fib6::ForwardingStatus>;
TYPED_TEST_SUITE(StrataRandomFecOpsTest, FecTables);

TYPED_TEST(StrataRandomFecOpsTest, MatchesAMapAcrossDetachAndReattach) {
    using FecT = typename TypeParam::Fec;
    unsigned const seed = testSeed();
    SCOPED_TRACE("seed " + std::to_string(seed) + " (STRATA_SEED replays it)");
    std::mt19937 rng(seed);
    TablePrefix prefix;
    U64 const keys = 300;
    Strata::FecCapacity cap = strata_test::smallFecCapacity(200, 60);
    cap.classFecs[7] = 20;
    auto t = TypeParam::writer(prefix, cap);
    std::map<U64, std::unique_ptr<FecT>> model;
    int const steps = strata_test::stressRequested() ? 200000 : 6000;
    U32 full = 0;
    for (int step = 0; step < steps && !::testing::Test::HasFatalFailure(); ++step) {
        U64 const k = rng() % keys;
        U32 const op = rng() % 10;
        if (op < 5) {
            auto f = randomFec<FecT>(rng, k);
            try {
                if (op < 3) {
                    t->fecIs(*f);
                } else {
                    FecT* slot = t->fecDirectWrite(FecId(k));
                    *slot = *f;
                    t->fecCommit(slot);
                }
                model[k] = std::move(f);
            } catch (Strata::Exception const& e) {
                // Full: the table holds what it held.
                ASSERT_EQ(e.id(), Strata::ExceptionId::tableFull_) << e.msg();
                ++full;
            }
        } else if (op < 9) {
            ASSERT_EQ(t->fecDel(FecId(k)), model.erase(k) == 1) << "FEC " << k;
        } else if (rng() % 20 == 0) {
            // Close and open again: the table must be exactly what it was.
            t->detach();
            if (rng() % 2) compareFecs(*TypeParam::reader(prefix), model, keys);
            t->attach(prefix, Strata::Access::writer_);
            t->validate();
            compareFecs(*t, model, keys);
        } else {
            FecT* slot = t->fecDirectWrite(FecId(k));
            slot->viaIs(0, strata_test::selfCheckVia<FecT>(k, 1, 0));
            t->fecDirectWriteAbandon();
        }
        if (step % 1000 == 0) {
            t->validate();
            compareFecs(*t, model, keys);
        }
    }
    t->validate();
    compareFecs(*t, model, keys);
    std::printf("%d steps, %zu FECs at the end, %u writes refused as full\n", steps,
                model.size(), full);
}

template <class Table>
class StrataRandomRouteOpsTest : public ::testing::Test {};
using RouteTables = ::testing::Types<Strata::Fib::RouteStatus, Strata::Fib6::RouteStatus>;
TYPED_TEST_SUITE(StrataRandomRouteOpsTest, RouteTables);

// Deletion shifts index entries back; churn over a table two thirds full exercises every
// shape of probe run.
TYPED_TEST(StrataRandomRouteOpsTest, MatchesAMapAcrossDetachAndReattach) {
    using Route = typename TypeParam::Route;
    using Key = typename Route::Key;
    unsigned const seed = testSeed();
    SCOPED_TRACE("seed " + std::to_string(seed) + " (STRATA_SEED replays it)");
    std::mt19937 rng(seed);
    TablePrefix prefix;
    U32 const cap = 400;
    auto t = TypeParam::writer(prefix, Strata::RouteCapacity{cap});
    std::map<Key, Route> model;
    bool constexpr v4 = std::is_same_v<TypeParam, Strata::Fib::RouteStatus>;
    auto keyOf = [](U32 k) {
        if constexpr (v4) {
            return Key(Velnet::IpAddr(10, U8(k >> 8), U8(k), 0), 24 + k % 9);
        } else {
            return Key(Velnet::Ip6Addr(0x2001, 0xdb8, U16(k), 0, 0, 0, 0, 0), 48 + k % 17);
        }
    };
    auto check = [&](TypeParam const& table) {
        ASSERT_EQ(table.routes(), model.size());
        std::map<Key, Route> walked;
        for (auto it = table.routeIteratorConst(); it; ++it) walked.emplace(it.key(), *it);
        ASSERT_EQ(walked, model);
        for (auto const& [key, route] : model) ASSERT_EQ(table.route(key), route);
    };
    int const steps = strata_test::stressRequested() ? 200000 : 8000;
    for (int step = 0; step < steps && !::testing::Test::HasFatalFailure(); ++step) {
        Key const key = keyOf(rng() % 500);
        U32 const op = rng() % 10;
        if (op < 6) {
            Route const r(key, FecId(rng()), typename Route::RouteType(rng() % (v4 ? 22 : 14)));
            if (model.size() < cap || model.count(key)) {
                t->routeIs(r);
                model[key] = r;
            } else {
                EXPECT_THROW(t->routeIs(r), Strata::Exception);
            }
        } else if (op < 9) {
            ASSERT_EQ(t->routeDel(key), model.erase(key) == 1);
            ASSERT_FALSE(t->route(key).has_value());
        } else if (rng() % 10 == 0) {
            t->detach();
            check(*TypeParam::reader(prefix));
            t->attach(prefix, Strata::Access::writer_);
            t->validate();
            check(*t);
        }
        if (step % 500 == 0) t->validate();
    }
    t->validate();
    check(*t);
}

} // namespace
