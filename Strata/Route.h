// Strata::Fib::Route and Strata::Fib6::Route: a route record of the route tables, keyed by
// its prefix, naming the FEC that forwards it and the kind of route it is; and the route
// type enumerations of the routing layer, Routing::Fib::RouteType (IPv4) and
// Routing6::Fib::RouteType (IPv6).
//
// Layout (trivially copyable, explicit zeroed padding; the same in the 64-bit and the i386
// build):
//   Fib::Route   offset 0 Prefix prefix (8),     8 FecId fecId,  16 U8 routeType, 17 U8 pad[7]   24 bytes
//   Fib6::Route  offset 0 Ip6Prefix prefix (20), 20 U8 pad[4],   24 FecId fecId,
//                32 U8 routeType, 33 U8 pad[7]                                                   40 bytes
// A default route is 0.0.0.0/0 (::/0) with FecId 0 and route type invalid_.
// Equality compares all fields.
//
// Text form (value text of the framework, see Strata/RecordText.h), on one line:
//   Value('Strata::Fib::Route', ** {'prefix': '10.0.0.0/24',
//         'fecId': Value('Strata::Fib::FecId', ** {'value': 42}), 'routeType': 7})
// the route type as its number.
#pragma once

#include "Kal/Types.h"
#include "Strata/FecId.h"
#include "Strata/RecordText.h"
#include "Velnet/Prefix.h"

#include <cstddef>
#include <iosfwd>
#include <type_traits>

namespace Routing::Fib {

enum RouteType : U8 {
    invalid_ = 0,
    receive_ = 1,
    receiveBcast_ = 2,
    attached_ = 3,
    staticConfig_ = 4,
    kernel_ = 5,
    rip_ = 6,
    connected_ = 7,
    redirect_ = 8,
    bgpAggregate_ = 9,
    ospfAggregate_ = 10,
    ospfIntraArea_ = 11,
    ospfInterArea_ = 12,
    ospfAseE1_ = 13,
    ospfAseE2_ = 14,
    ospfNssaE1_ = 15,
    ospfNssaE2_ = 16,
    ibgp_ = 17,
    ebgp_ = 18,
    isis_ = 19,
    nexthopGroup_ = 20,
    unknown_ = 21,
};

} // namespace Routing::Fib

namespace Routing6::Fib {

enum RouteType : U8 {
    invalid_ = 0,
    receive_ = 1,
    attached_ = 2,
    staticConfig_ = 3,
    kernel_ = 4,
    rip_ = 5,
    connected_ = 6,
    redirect_ = 7,
    bgpAggregate_ = 8,
    ospfAggregate_ = 9,
    ospf_ = 10,
    bgp_ = 11,
    isis_ = 12,
    unknown_ = 13,
};

} // namespace Routing6::Fib

namespace Strata::Fib {

class Route {
  public:
    using Key = Velnet::Prefix;
    using RouteType = Routing::Fib::RouteType;

    constexpr Route() noexcept = default;
    constexpr Route(Velnet::Prefix const& prefix, FecId fecId, RouteType routeType) noexcept
        : prefix_(prefix), fecId_(fecId), routeType_(routeType) {}

    constexpr Velnet::Prefix const& prefix() const noexcept { return prefix_; }
    constexpr Velnet::Prefix const& key() const noexcept { return prefix_; }
    constexpr FecId fecId() const noexcept { return fecId_; }
    // The type byte; it may hold a value RouteType does not name (as read from a table).
    constexpr RouteType routeType() const noexcept { return routeType_; }
    void prefixIs(Velnet::Prefix const& prefix) noexcept { prefix_ = prefix; }
    void fecIdIs(FecId fecId) noexcept { fecId_ = fecId; }
    void routeTypeIs(RouteType type) noexcept { routeType_ = type; }
    void routeTypeIs(U8 type) noexcept { routeType_ = RouteType(type); }

    friend constexpr bool operator==(Route const& a, Route const& b) noexcept {
        return a.prefix_ == b.prefix_ && a.fecId_ == b.fecId_ && a.routeType_ == b.routeType_;
    }

  private:
    static constexpr void layoutChecks() noexcept {
        static_assert(offsetof(Route, prefix_) == 0);
        static_assert(offsetof(Route, fecId_) == 8);
        static_assert(offsetof(Route, routeType_) == 16);
        static_assert(offsetof(Route, pad_) == 17);
    }

    Velnet::Prefix prefix_;
    FecId fecId_;
    RouteType routeType_ = Routing::Fib::invalid_;
    [[maybe_unused]] U8 pad_[7] = {};
};

static_assert(sizeof(Route) == 24 && alignof(Route) == 8);
static_assert(std::is_trivially_copyable_v<Route> && std::is_standard_layout_v<Route>);
static_assert(std::has_unique_object_representations_v<Route>, "no implicit padding");

std::ostream& operator<<(std::ostream& os, Route const& route);

} // namespace Strata::Fib

namespace Strata::Fib6 {

class Route {
  public:
    using Key = Velnet::Ip6Prefix;
    using RouteType = Routing6::Fib::RouteType;

    constexpr Route() noexcept = default;
    constexpr Route(Velnet::Ip6Prefix const& prefix, Fib::FecId fecId, RouteType routeType) noexcept
        : prefix_(prefix), fecId_(fecId), routeType_(routeType) {}

    constexpr Velnet::Ip6Prefix const& prefix() const noexcept { return prefix_; }
    constexpr Velnet::Ip6Prefix const& key() const noexcept { return prefix_; }
    constexpr Fib::FecId fecId() const noexcept { return fecId_; }
    constexpr RouteType routeType() const noexcept { return routeType_; }
    void prefixIs(Velnet::Ip6Prefix const& prefix) noexcept { prefix_ = prefix; }
    void fecIdIs(Fib::FecId fecId) noexcept { fecId_ = fecId; }
    void routeTypeIs(RouteType type) noexcept { routeType_ = type; }
    void routeTypeIs(U8 type) noexcept { routeType_ = RouteType(type); }

    friend constexpr bool operator==(Route const& a, Route const& b) noexcept {
        return a.prefix_ == b.prefix_ && a.fecId_ == b.fecId_ && a.routeType_ == b.routeType_;
    }

  private:
    static constexpr void layoutChecks() noexcept {
        static_assert(offsetof(Route, prefix_) == 0);
        static_assert(offsetof(Route, pad0_) == 20);
        static_assert(offsetof(Route, fecId_) == 24);
        static_assert(offsetof(Route, routeType_) == 32);
        static_assert(offsetof(Route, pad_) == 33);
    }

    Velnet::Ip6Prefix prefix_;
    [[maybe_unused]] U8 pad0_[4] = {};
    Fib::FecId fecId_;
    RouteType routeType_ = Routing6::Fib::invalid_;
    [[maybe_unused]] U8 pad_[7] = {};
};

static_assert(sizeof(Route) == 40 && alignof(Route) == 8);
static_assert(std::is_trivially_copyable_v<Route> && std::is_standard_layout_v<Route>);
static_assert(std::has_unique_object_representations_v<Route>, "no implicit padding");

std::ostream& operator<<(std::ostream& os, Route const& route);

} // namespace Strata::Fib6
