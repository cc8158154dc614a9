// Self-checking records for the cross-process tests: a FEC or a route whose every field is a
// function of its key and a version number, so that a reader can tell from the record alone
// whether it is one the writer stored (and which), or a torn or foreign one.
//
// FEC k at version v: the number of vias changes with the version (1, 128, or something
// between, sometimes with a hole), so successive versions move the record between size
// classes. Via 0's label holds v itself; every other field is derived from (k, v, position).
#pragma once

#include "Strata/Fec.h"
#include "Strata/Route.h"
#include "Velnet/IntfId.h"

namespace strata_test {

inline U32 mix(U64 a, U64 b, U64 c) {
    U64 h = a * 0x9E3779B97F4A7C15ull ^ (b + 0x632BE59BD9B4E019ull) * 0xBF58476D1CE4E5B9ull ^
            (c + 7) * 0x94D049BB133111EBull;
    h ^= h >> 31;
    h *= 0xD6E8FEB86659FD93ull;
    h ^= h >> 32;
    return U32(h);
}

// Even versions have 1 via, versions 1 mod 4 have 128, versions 3 mod 4 between 2 and 127.
inline U32 viasOfVersion(U64 k, U32 v) {
    if (v % 2 == 0) return 1;
    if (v % 4 == 1) return 128;
    return 2 + mix(k, v, 5) % 126;
}
// Versions 7 mod 8 with more than two vias have a hole at position 1.
inline bool holeOfVersion(U64 k, U32 v) { return v % 8 == 7 && viasOfVersion(k, v) > 2; }

template <class FecT>
typename FecT::Via selfCheckVia(U64 k, U32 v, U32 i) {
    using V = typename FecT::Via;
    U32 const m = mix(k, v, i);
    Velnet::IntfId const intf(Velnet::IntfKind::ethernet_, 1 + m % 60000);
    U32 const label = i == 0 ? v : m;
    if constexpr (std::is_same_v<V, Strata::Fib::Via>) {
        return V(Velnet::IpAddr(m), intf, label);
    } else {
        return V(Velnet::Ip6Addr(0xfd00, U16(k), U16(v), 0, U16(m >> 16), U16(m), U16(i), 1), intf,
                 label);
    }
}

// Fills `f` with FEC k at version v.
template <class FecT>
void makeSelfCheckFec(U64 k, U32 v, FecT& f) {
    f.viaDelAll();
    f.fecIdIs(Strata::Fib::FecId(k));
    f.fecTypeIs(U8(mix(k, v, 999) % 7));
    f.nexthopGroupIdIs(U16(v));
    for (U32 i = 0; i < viasOfVersion(k, v); ++i) f.viaIs(i, selfCheckVia<FecT>(k, v, i));
    if (holeOfVersion(k, v)) f.viaDel(1);
}

// True when `f` is FEC k at some version (which is stored in `v`). `scratch` is a work FEC.
template <class FecT>
bool selfCheckFec(U64 k, FecT const& f, FecT& scratch, U32& v) {
    if (f.fecId() != Strata::Fib::FecId(k) || !f.hasVia(0)) return false;
    v = f.via(0).mplsLabel();
    makeSelfCheckFec(k, v, scratch);
    return scratch == f;
}

// Route for prefix number k at version v: the FEC id and route type follow from (k, v).
inline Strata::Fib::Route selfCheckRoute(U32 k, U32 v) {
    Velnet::Prefix const p(Velnet::IpAddr(10u << 24 | k << 8), 24);
    return Strata::Fib::Route(p, Strata::Fib::FecId(U64(v) << 32 | mix(k, v, 1)),
                              Routing::Fib::RouteType(mix(k, v, 2) % 22));
}
inline Velnet::Prefix selfCheckRoutePrefix(U32 k) {
    return Velnet::Prefix(Velnet::IpAddr(10u << 24 | k << 8), 24);
}
inline bool selfCheckRouteOk(U32 k, Strata::Fib::Route const& r, U32& v) {
    v = U32(r.fecId().value() >> 32);
    return r == selfCheckRoute(k, v);
}

} // namespace strata_test
