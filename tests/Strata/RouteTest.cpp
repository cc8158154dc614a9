// Route records of both families and the route type enumerations.
#include "Strata/Route.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Strata::Fib::FecId;

TEST(StrataRouteTypeTest, Ipv4ValuesAreThePublishedOnes) {
    using namespace Routing::Fib;
    RouteType const all[] = {invalid_,       receive_,       receiveBcast_,  attached_,
                             staticConfig_,  kernel_,        rip_,           connected_,
                             redirect_,      bgpAggregate_,  ospfAggregate_, ospfIntraArea_,
                             ospfInterArea_, ospfAseE1_,     ospfAseE2_,     ospfNssaE1_,
                             ospfNssaE2_,    ibgp_,          ebgp_,          isis_,
                             nexthopGroup_,  unknown_};
    for (unsigned i = 0; i < sizeof all / sizeof all[0]; ++i) EXPECT_EQ(unsigned(all[i]), i);
    EXPECT_EQ(sizeof(RouteType), 1u);
}

TEST(StrataRouteTypeTest, Ipv6ValuesAreThePublishedOnes) {
    using namespace Routing6::Fib;
    RouteType const all[] = {invalid_,      receive_,       attached_, staticConfig_, kernel_,
                             rip_,          connected_,     redirect_, bgpAggregate_,
                             ospfAggregate_, ospf_,         bgp_,      isis_,         unknown_};
    for (unsigned i = 0; i < sizeof all / sizeof all[0]; ++i) EXPECT_EQ(unsigned(all[i]), i);
    EXPECT_EQ(sizeof(RouteType), 1u);
}

TEST(StrataRouteTest, DefaultAccessorsAndEqualityOfAllFields) {
    Strata::Fib::Route const d;
    EXPECT_EQ(d.prefix(), Velnet::Prefix());
    EXPECT_EQ(d.fecId(), FecId());
    EXPECT_EQ(d.routeType(), Routing::Fib::invalid_);

    auto const p = Velnet::Prefix::fromString("10.1.0.0/16");
    Strata::Fib::Route r(p, FecId(40), Routing::Fib::kernel_);
    EXPECT_EQ(r.prefix(), p);
    EXPECT_EQ(r.key(), p);
    EXPECT_EQ(r.fecId(), FecId(40));
    EXPECT_EQ(r.routeType(), Routing::Fib::kernel_);
    Strata::Fib::Route s = r;
    EXPECT_EQ(r, s);
    s.fecIdIs(FecId(41));
    EXPECT_NE(r, s);
    s = r;
    s.routeTypeIs(Routing::Fib::ebgp_);
    EXPECT_NE(r, s);
    s = r;
    s.prefixIs(Velnet::Prefix::fromString("10.1.0.0/17"));
    EXPECT_NE(r, s);
    s = r;
    s.routeTypeIs(U8(5));
    EXPECT_EQ(r, s);
}

TEST(StrataRouteTest, Ipv6AccessorsAndEquality) {
    auto const p = Velnet::Ip6Prefix::fromString("2001:db8::/32");
    Strata::Fib6::Route r(p, FecId(7), Routing6::Fib::attached_);
    EXPECT_EQ(r.prefix(), p);
    EXPECT_EQ(r.fecId(), FecId(7));
    EXPECT_EQ(r.routeType(), Routing6::Fib::attached_);
    Strata::Fib6::Route s = r;
    EXPECT_EQ(r, s);
    s.routeTypeIs(Routing6::Fib::connected_);
    EXPECT_NE(r, s);
    EXPECT_EQ(Strata::Fib6::Route().routeType(), Routing6::Fib::invalid_);
}

TEST(StrataRouteTest, LayoutIsFixed) {
    Strata::Fib::Route const r(Velnet::Prefix::fromString("10.0.0.0/8"), FecId(0x0102030405060708ull),
                               Routing::Fib::isis_);
    unsigned char b[24];
    static_assert(sizeof b == sizeof r);
    std::memcpy(b, &r, sizeof b);
    U32 addr = 0;
    std::memcpy(&addr, b, 4);
    EXPECT_EQ(addr, 0x0A000000u);
    EXPECT_EQ(b[4], 8);
    U64 id = 0;
    std::memcpy(&id, b + 8, 8);
    EXPECT_EQ(id, 0x0102030405060708ull);
    EXPECT_EQ(b[16], Routing::Fib::isis_);
    for (int i = 17; i < 24; ++i) EXPECT_EQ(b[i], 0) << i;

    Strata::Fib6::Route const r6(Velnet::Ip6Prefix::fromString("fd00::/8"), FecId(5),
                                 Routing6::Fib::kernel_);
    unsigned char b6[40];
    static_assert(sizeof b6 == sizeof r6);
    std::memcpy(b6, &r6, sizeof b6);
    EXPECT_EQ(b6[0], 0xfd);
    EXPECT_EQ(b6[16], 8);
    std::memcpy(&id, b6 + 24, 8);
    EXPECT_EQ(id, 5u);
    EXPECT_EQ(b6[32], Routing6::Fib::kernel_);
}

} // namespace
