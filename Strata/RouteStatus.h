// Strata::Fib::RouteStatus and Strata::Fib6::RouteStatus: the route tables, routes keyed by
// prefix in shared memory ("<prefix>-fib4-route" / "<prefix>-fib6-route"; Strata/StrataLayout.h
// describes the file and the protocol).
//
//   auto routes = Strata::Fib::RouteStatus::writer("sw1", Strata::RouteCapacity{1 << 20});
//   routes->routeIs(Strata::Fib::Route(prefix, Strata::Fib::FecId(40), Routing::Fib::kernel_));
//   for (auto it = routes->routeIteratorConst(); it; ++it) use(it.key(), it.fecId(), it.routeType());
//
// routeIs stores a route under its prefix (replacing any route there) and is visible to readers
// in one step; routeDel removes it (false when there was none); route(prefix) finds one. Errors
// as for every table (Strata/StrataTable.h): "write to read-only Strata table" /
// "remove to read-only Strata table" through a reader, tableFull_ beyond maxRoutes, timeout_
// and corruption on reads. The iterator visits every route once when no change runs
// concurrently, in the order of the table's slots.
#pragma once

#include "Kal/KalType.h"
#include "Kal/Ptr.h"
#include "Kal/Types.h"
#include "Strata/Route.h"
#include "Strata/StrataTable.h"

#include <optional>
#include <string>

namespace Strata {

struct RouteCapacity {
    U32 maxRoutes = 0;
};

namespace detail {

template <class RouteT>
class RouteTable : public StrataTable {
  public:
    using Route = RouteT;
    using Key = typename RouteT::Key;
    using RouteType = typename RouteT::RouteType;

    class RouteIteratorConst {
      public:
        RouteIteratorConst() = default;

        Key const& key() const noexcept { return route_.prefix(); }
        Fib::FecId fecId() const noexcept { return route_.fecId(); }
        RouteType routeType() const noexcept { return route_.routeType(); }
        RouteT const& route() const noexcept { return route_; }
        RouteT const& operator*() const noexcept { return route_; }
        RouteT const* operator->() const noexcept { return &route_; }
        RouteIteratorConst& operator++();
        explicit operator bool() const noexcept { return !end_; }
        bool isEnd() const noexcept { return end_; }

      private:
        friend class RouteTable;
        explicit RouteIteratorConst(Kal::Ptr<StrataMap const> map);
        void seek();

        Kal::Ptr<StrataMap const> map_;
        U32 cls_ = 0;
        U32 slot_ = 0;
        RouteT route_;
        bool end_ = true;
    };

    void attach(std::string const& prefix, Access access,
                RouteCapacity const& capacity = RouteCapacity{65536},
                AttachOptions const& options = {});

    void routeIs(RouteT const& route);
    bool routeDel(Key const& prefix);
    std::optional<RouteT> route(Key const& prefix) const;
    RouteIteratorConst routeIteratorConst() const;

    U32 routes() const noexcept;
    U32 routeCapacity() const noexcept;

  protected:
    RouteTable(Kal::Name name);
};

} // namespace detail

namespace Fib {

class RouteStatus final : public detail::RouteTable<Route> {
  public:
    using Ptr = Kal::Ptr<RouteStatus>;
    using PtrConst = Kal::Ptr<RouteStatus const>;

    explicit RouteStatus(Kal::Name name);

    // The table "<prefix>-fib4-route" attached for writing (created when absent) or reading.
    static Ptr writer(std::string const& prefix, RouteCapacity const& capacity = RouteCapacity{65536},
                      AttachOptions const& options = {});
    static Ptr reader(std::string const& prefix, AttachOptions const& options = {});

    static Kal::KalType const& _fwkType();
    Kal::KalType const* fwkType() const override { return &_fwkType(); }
};

} // namespace Fib

namespace Fib6 {

class RouteStatus final : public detail::RouteTable<Route> {
  public:
    using Ptr = Kal::Ptr<RouteStatus>;
    using PtrConst = Kal::Ptr<RouteStatus const>;

    explicit RouteStatus(Kal::Name name);

    // The table "<prefix>-fib6-route".
    static Ptr writer(std::string const& prefix, RouteCapacity const& capacity = RouteCapacity{65536},
                      AttachOptions const& options = {});
    static Ptr reader(std::string const& prefix, AttachOptions const& options = {});

    static Kal::KalType const& _fwkType();
    Kal::KalType const* fwkType() const override { return &_fwkType(); }
};

} // namespace Fib6

namespace detail {
extern template class RouteTable<Fib::Route>;
extern template class RouteTable<Fib6::Route>;
} // namespace detail

} // namespace Strata
