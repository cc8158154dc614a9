// ridge-fib's view of the FIB tables: it attaches them as a reader (read-only mapping, never a
// write), and reads them into ordered snapshots that the report prints and `follow` compares.
//
// Consistency. A walk over a table's slots is not atomic: a record the writer replaces during
// the walk may be seen twice (old and new copy) or, when its new copy lands behind the walk,
// not at all. A listing therefore walks until the table's change counter is even (no change
// under way) before the walk and the same after it (stableWalk). `follow` also confirms every
// difference it is about to report with a lookup by key, which goes through the table's index,
// where a record is committed exactly when its reference is stored (Follow.cpp): a writer
// that dies inside a change leaves the counter odd until the next writer attaches.
#pragma once

#include "Strata/Strata.h"

#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace RidgeFib {

enum class Family : U8 { ipv4, ipv6 };

// "ipv4" / "ipv6".
char const* familyName(Family family) noexcept;

struct FamilySet {
    bool ipv4 = true;
    bool ipv6 = true;
};

// A FEC as read from a table, without the record's fixed array of 128 via positions: only
// the positions that hold a via, ascending.
template <class ViaT>
struct FecEntry {
    Strata::Fib::FecId id;
    U8 fecType = 0;
    U16 nexthopGroupId = 0xFFFF;
    std::vector<std::pair<U32, ViaT>> vias; // (position, via)

    friend bool operator==(FecEntry const&, FecEntry const&) = default;
};

template <class FecT>
FecEntry<typename FecT::Via> fecEntry(FecT const& fec) {
    FecEntry<typename FecT::Via> e;
    e.id = fec.fecId();
    e.fecType = U8(fec.fecType());
    e.nexthopGroupId = fec.nexthopGroupId();
    e.vias.reserve(fec.vias());
    for (auto it = fec.viaIteratorConst(); it; ++it) e.vias.emplace_back(it.position().value(), *it);
    return e;
}

using Fec4Map = std::map<Strata::Fib::FecId, FecEntry<Strata::Fib::Via>>;
using Fec6Map = std::map<Strata::Fib::FecId, FecEntry<Strata::Fib6::Via>>;
using Route4Map = std::map<Velnet::Prefix, Strata::Fib::Route>;
using Route6Map = std::map<Velnet::Ip6Prefix, Strata::Fib6::Route>;

// What each table kind is keyed by and holds in a snapshot.
template <class Table>
struct TableTraits;

template <>
struct TableTraits<Strata::Fib::ForwardingStatus> {
    using Map = Fec4Map;
    static constexpr Family family = Family::ipv4;
};
template <>
struct TableTraits<Strata::Fib6::ForwardingStatus> {
    using Map = Fec6Map;
    static constexpr Family family = Family::ipv6;
};
template <>
struct TableTraits<Strata::Fib::RouteStatus> {
    using Map = Route4Map;
    static constexpr Family family = Family::ipv4;
};
template <>
struct TableTraits<Strata::Fib6::RouteStatus> {
    using Map = Route6Map;
    static constexpr Family family = Family::ipv6;
};

// One pass over the table's slots (see the consistency note above); a key met twice keeps
// the copy met last.
template <class FecT>
void walkInto(Strata::detail::FecTable<FecT> const& table,
              std::map<Strata::Fib::FecId, FecEntry<typename FecT::Via>>& out) {
    for (auto it = table.fecIteratorConst(); it; ++it) out.insert_or_assign(it.key(), fecEntry(*it));
}
template <class RouteT>
void walkInto(Strata::detail::RouteTable<RouteT> const& table,
              std::map<typename RouteT::Key, RouteT>& out) {
    for (auto it = table.routeIteratorConst(); it; ++it) out.insert_or_assign(it.key(), *it);
}

// The committed record under a key, looked up through the table's index.
template <class FecT>
std::optional<FecEntry<typename FecT::Via>> lookup(Strata::detail::FecTable<FecT> const& table,
                                                   Strata::Fib::FecId id) {
    FecT fec;
    if (!table.fec(id, fec)) return std::nullopt;
    return fecEntry(fec);
}
template <class RouteT>
std::optional<RouteT> lookup(Strata::detail::RouteTable<RouteT> const& table,
                             typename RouteT::Key const& prefix) {
    return table.route(prefix);
}

// Walks a listing takes at most before it settles for one that a change overlapped.
inline constexpr int maxWalks = 100;

template <class Map>
struct Snapshot {
    Map records;
    // The change counter read before the walk that made `records`: every change finished
    // before that read is in the snapshot, so a counter that differs from it means "look again".
    U32 changeSeq = 0;
    // False when every walk overlapped a change (the table kept changing).
    bool settled = false;
};

template <class Table>
Snapshot<typename TableTraits<Table>::Map> stableWalk(Table const& table) {
    Snapshot<typename TableTraits<Table>::Map> s;
    for (int walk = 0; walk < maxWalks; ++walk) {
        s.records.clear();
        s.changeSeq = table.changeSeq();
        walkInto(table, s.records);
        // The walk's loads come before the second look at the counter.
        std::atomic_thread_fence(std::memory_order_acquire);
        if ((s.changeSeq & 1) == 0 && table.changeSeq() == s.changeSeq) {
            s.settled = true;
            break;
        }
    }
    return s;
}

// The tables of one prefix that a command reads; a table not asked for stays null.
struct Tables {
    std::string prefix;
    Strata::Fib::ForwardingStatus::Ptr fec4;
    Strata::Fib6::ForwardingStatus::Ptr fec6;
    Strata::Fib::RouteStatus::Ptr route4;
    Strata::Fib6::RouteStatus::Ptr route6;
};

// Attaches the FEC tables (when `fecs`) and the route tables (when `routes`) of the chosen
// families as a reader. A missing table raises the library's connection_ error naming the
// file; an incompatible or corrupt one its corruption error.
Tables openTables(std::string const& prefix, FamilySet families, bool fecs, bool routes);

// Fill of one FEC size class (FECs of up to maxVias vias) or of a whole table.
struct ClassFill {
    U32 maxVias = 0;
    U32 records = 0;
    U32 capacity = 0;
};

struct TableFill {
    Family family = Family::ipv4;
    char const* table = "";       // "fecs" or "routes"
    U32 records = 0;
    U32 capacity = 0;
    std::vector<ClassFill> classes; // FEC tables only, smallest class first
};

// The fill of every table in `tables`: IPv4 FECs, IPv4 routes, IPv6 FECs, IPv6 routes.
std::vector<TableFill> readFill(Tables const& tables);

} // namespace RidgeFib
