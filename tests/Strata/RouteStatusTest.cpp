// The route tables in one process: storing, replacing, finding, deleting and iterating routes,
// capacity, and a reader seeing the writer's routes. (RandomOpsTest churns both families.)
#include "StrataTestSupport.h"

#include <gtest/gtest.h>

#include <map>

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

TEST(StrataRouteStatusTest, FullTableRefusesNewPrefixesOnly) {
    TablePrefix prefix;
    auto t = Strata::Fib::RouteStatus::writer(prefix, Strata::RouteCapacity{2});
    t->routeIs(route4("10.1.0.0/16", 1, Routing::Fib::kernel_));
    t->routeIs(route4("10.2.0.0/16", 2, Routing::Fib::kernel_));
    Strata::ExceptionId id{};
    EXPECT_EQ(strata_test::raised<Strata::Exception>(
                  [&] { t->routeIs(route4("10.3.0.0/16", 3, Routing::Fib::kernel_)); }, &id),
              "Strata table " + prefix.file("fib4-route") + " is full: 2 records");
    EXPECT_EQ(id, Strata::ExceptionId::tableFull_);
    t->routeIs(route4("10.2.0.0/16", 5, Routing::Fib::rip_));
    EXPECT_EQ(t->route(Velnet::Prefix::fromString("10.2.0.0/16"))->fecId(), FecId(5));
    t->validate();
}

} // namespace
