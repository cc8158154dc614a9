// The route tables in one process: storing, replacing, finding, deleting and iterating routes,
// capacity, and a reader seeing the writer's routes.
#include "StrataTestSupport.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

namespace {

using Strata::Fib::FecId;
using strata_test::TablePrefix;

Strata::Fib::Route route4(char const* prefix, U64 fec, Routing::Fib::RouteType type) {
    return Strata::Fib::Route(Velnet::Prefix::fromString(prefix), FecId(fec), type);
}

TEST(StrataRouteStatusTest, RoutesAreFoundReplacedDeletedAndWalked) {
    TablePrefix prefix;
    auto t = Strata::Fib::RouteStatus::writer(prefix, Strata::RouteCapacity{16});
    auto r = Strata::Fib::RouteStatus::reader(prefix);
    EXPECT_EQ(t->routeCapacity(), 16u);
    auto const a = route4("10.0.0.0/8", 40, Routing::Fib::kernel_);
    auto const b = route4("10.0.0.0/24", 41, Routing::Fib::receive_);
    auto const c = route4("0.0.0.0/0", 90, Routing::Fib::ebgp_);
    for (auto const& x : {a, b, c}) t->routeIs(x);
    EXPECT_EQ(r->routes(), 3u);
    EXPECT_EQ(*r->route(a.prefix()), a);
    EXPECT_EQ(*r->route(b.prefix()), b) << "10.0.0.0/8 and /24 are different keys";
    EXPECT_EQ(*r->route(c.prefix()), c);
    EXPECT_FALSE(r->route(Velnet::Prefix::fromString("10.0.0.0/16")).has_value());

    auto const a2 = route4("10.0.0.0/8", 42, Routing::Fib::attached_);
    t->routeIs(a2);
    EXPECT_EQ(r->routes(), 3u);
    EXPECT_EQ(*r->route(a.prefix()), a2);

    std::map<Velnet::Prefix, Strata::Fib::Route> walked;
    for (auto it = r->routeIteratorConst(); it; ++it) {
        EXPECT_EQ(it.route().prefix(), it.key());
        EXPECT_EQ(it.fecId(), it->fecId());
        EXPECT_EQ(it.routeType(), it->routeType());
        EXPECT_TRUE(walked.emplace(it.key(), *it).second) << it.key();
    }
    EXPECT_EQ(walked, (std::map<Velnet::Prefix, Strata::Fib::Route>{
                          {a.prefix(), a2}, {b.prefix(), b}, {c.prefix(), c}}));

    EXPECT_TRUE(t->routeDel(b.prefix()));
    EXPECT_FALSE(t->routeDel(b.prefix()));
    EXPECT_FALSE(r->route(b.prefix()).has_value());
    EXPECT_EQ(r->routes(), 2u);
    t->validate();
}

TEST(StrataRouteStatusTest, Ipv6RoutesAndTheirTypes) {
    TablePrefix prefix;
    auto t = Strata::Fib6::RouteStatus::writer(prefix, Strata::RouteCapacity{8});
    Strata::Fib6::Route const x(Velnet::Ip6Prefix::fromString("2001:db8::/32"), FecId(5),
                                Routing6::Fib::attached_);
    Strata::Fib6::Route const y(Velnet::Ip6Prefix::fromString("::/0"), FecId(2),
                                Routing6::Fib::connected_);
    t->routeIs(x);
    t->routeIs(y);
    auto r = Strata::Fib6::RouteStatus::reader(prefix);
    EXPECT_EQ(*r->route(x.prefix()), x);
    EXPECT_EQ(r->route(y.prefix())->routeType(), Routing6::Fib::connected_);
    U32 n = 0;
    for (auto it = r->routeIteratorConst(); it; ++it) ++n;
    EXPECT_EQ(n, 2u);
}

TEST(StrataRouteStatusTest, FullTableRefusesNewPrefixesOnly) {
    TablePrefix prefix;
    auto t = Strata::Fib::RouteStatus::writer(prefix, Strata::RouteCapacity{2});
    t->routeIs(route4("10.1.0.0/16", 1, Routing::Fib::kernel_));
    t->routeIs(route4("10.2.0.0/16", 2, Routing::Fib::kernel_));
    try {
        t->routeIs(route4("10.3.0.0/16", 3, Routing::Fib::kernel_));
        FAIL() << "a third route in a table of two";
    } catch (Strata::Exception const& e) {
        EXPECT_EQ(e.id(), Strata::ExceptionId::tableFull_);
        EXPECT_EQ(e.msg().stringValue(),
                  "Strata table " + prefix.file("fib4-route") + " is full: 2 records");
    }
    t->routeIs(route4("10.2.0.0/16", 5, Routing::Fib::rip_));
    EXPECT_EQ(t->route(Velnet::Prefix::fromString("10.2.0.0/16"))->fecId(), FecId(5));
    t->validate();
}

TEST(StrataRouteStatusTest, ManyRoutesWithChurnKeepTheIndexSound) {
    // Deletion shifts index entries back; heavy churn over a near-full table exercises every
    // shape of probe run, checked after each step against a map.
    TablePrefix prefix;
    U32 const cap = 500;
    auto t = Strata::Fib::RouteStatus::writer(prefix, Strata::RouteCapacity{cap});
    unsigned const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    std::map<U32, U32> model; // prefix number -> version
    for (int step = 0; step < 6000; ++step) {
        U32 const k = rng() % (cap + cap / 5);
        if (rng() % 2 && (model.size() < cap || model.count(k))) {
            U32 const v = model[k] + 1;
            t->routeIs(strata_test::selfCheckRoute(k, v));
            model[k] = v;
        } else {
            EXPECT_EQ(t->routeDel(strata_test::selfCheckRoutePrefix(k)), model.erase(k) == 1);
        }
        if (step % 500 == 0) t->validate();
    }
    t->validate();
    EXPECT_EQ(t->routes(), model.size());
    for (U32 k = 0; k < cap + cap / 5; ++k) {
        auto got = t->route(strata_test::selfCheckRoutePrefix(k));
        ASSERT_EQ(got.has_value(), model.count(k) == 1) << k;
        if (got) {
            EXPECT_EQ(*got, strata_test::selfCheckRoute(k, model[k]));
        }
    }
}

} // namespace
