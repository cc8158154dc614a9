// Route records of both families and the route type enumerations. (The layout is pinned by
// static_asserts in Strata/Route.h; the route tables store the fields one by one.)
#include "Strata/Route.h"

#include <gtest/gtest.h>


namespace {

using Strata::Fib::FecId;

// The values are stored in the route tables and read by other processes.
TEST(StrataRouteTypeTest, ValuesAreThePublishedOnes) {
    {
        using namespace Routing::Fib;
        RouteType const all[] = {invalid_,       receive_,       receiveBcast_,  attached_,
                                 staticConfig_,  kernel_,        rip_,           connected_,
                                 redirect_,      bgpAggregate_,  ospfAggregate_, ospfIntraArea_,
                                 ospfInterArea_, ospfAseE1_,     ospfAseE2_,     ospfNssaE1_,
                                 ospfNssaE2_,    ibgp_,          ebgp_,          isis_,
                                 nexthopGroup_,  unknown_};
        for (unsigned i = 0; i < std::size(all); ++i) EXPECT_EQ(unsigned(all[i]), i);
    }
    using namespace Routing6::Fib;
    RouteType const all[] = {invalid_,       receive_, attached_, staticConfig_, kernel_,
                             rip_,           connected_, redirect_, bgpAggregate_,
                             ospfAggregate_, ospf_,     bgp_,      isis_,         unknown_};
    for (unsigned i = 0; i < std::size(all); ++i) EXPECT_EQ(unsigned(all[i]), i);
}

template <class Route>
void expectAccessorsAndEquality(Route const& r, typename Route::Key const& other) {
    Route s = r;
    EXPECT_EQ(s.key(), r.prefix());
    EXPECT_EQ(r, s);
    s.fecIdIs(FecId(r.fecId().value() + 1));
    EXPECT_EQ(s.fecId(), FecId(r.fecId().value() + 1));
    EXPECT_NE(r, s);
    s = r;
    s.routeTypeIs(typename Route::RouteType(r.routeType() + 1));
    EXPECT_NE(r, s);
    s = r;
    s.prefixIs(other);
    EXPECT_EQ(s.prefix(), other);
    EXPECT_NE(r, s);
    EXPECT_EQ(Route().fecId(), FecId());
    EXPECT_EQ(Route().prefix(), typename Route::Key());
    EXPECT_EQ(unsigned(Route().routeType()), 0u) << "invalid_";
}

TEST(StrataRouteTest, DefaultAccessorsAndEqualityOfAllFields) {
    Strata::Fib::Route r(Velnet::Prefix::fromString("10.1.0.0/16"), FecId(40),
                         Routing::Fib::kernel_);
    EXPECT_EQ(r.prefix(), Velnet::Prefix::fromString("10.1.0.0/16"));
    EXPECT_EQ(r.fecId(), FecId(40));
    EXPECT_EQ(r.routeType(), Routing::Fib::kernel_);
    expectAccessorsAndEquality(r, Velnet::Prefix::fromString("10.1.0.0/17"));
    Strata::Fib::Route s = r;
    s.routeTypeIs(U8(5)); // the raw byte of kernel_
    EXPECT_EQ(r, s);

    Strata::Fib6::Route r6(Velnet::Ip6Prefix::fromString("2001:db8::/32"), FecId(7),
                           Routing6::Fib::attached_);
    EXPECT_EQ(r6.routeType(), Routing6::Fib::attached_);
    expectAccessorsAndEquality(r6, Velnet::Ip6Prefix::fromString("2001:db8::/33"));
}

} // namespace
