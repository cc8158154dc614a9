// The via set's hash and ordering. Both decide the key order of every adjacency table (the
// via-set collections are hashed by hash() and ordered by operator< within a hash), so both
// are fixed: changing either reorders the tables and the text of every walk over them.
//
// Both walk the members in place, in the collection's own iteration order, without counting
// or allocating.
#include "fwk/FibHelper.h"

namespace Ridge {

namespace {

// One step of the one-at-a-time byte hash.
inline void feed(U32& h, U8 byte) {
    h += byte;
    h += h << 10;
    h ^= h >> 6;
}

inline void feedWord(U32& h, U32 word) {
    feed(h, U8(word));
    feed(h, U8(word >> 8));
    feed(h, U8(word >> 16));
    feed(h, U8(word >> 24));
}

inline U32 finish(U32 h) {
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

// The hash: each via's (hop hash XOR interface hash), least significant byte first, in the
// collection's order; then the type byte; then nhid, least significant byte first. type comes
// before nhid although nhid is declared first: the order is part of the value.
template <class Map>
U32 viaSetHash(Map const& vias, U8 type, U32 nhid) {
    U32 h = 0;
    vias.forEachMember(
        [&h](auto const& m) { feedWord(h, m.fwkKey().hop().hash() ^ m.fwkKey().intfId().hash()); });
    feed(h, type);
    feedWord(h, nhid);
    return finish(h);
}

// a < b: fewer vias first; else the first position (in each set's own iteration order) where
// the vias differ in any field decides alone, interface before hop; vias that differ only in
// their label therefore order neither way. Equal walks fall back to type, then nhid.
template <class Map>
bool viaSetLess(Map const& a, U8 aType, U32 aNhid, Map const& b, U8 bType, U32 bNhid) {
    if (a.members() != b.members()) return a.members() < b.members();
    auto i = a.iteratorConst();
    auto j = b.iteratorConst();
    for (; i && j; ++i, ++j) {
        auto const& x = i.key();
        auto const& y = j.key();
        if (x != y) {
            if (x.intfId() < y.intfId()) return true;
            if (x.intfId() != y.intfId()) return false;
            return x.hop() < y.hop();
        }
    }
    if (aType < bType) return true;
    if (aType != bType) return false;
    return aNhid < bNhid;
}

} // namespace

// Kept once computed (the sets are declared hashcache): a set is hashed on every lookup and
// insertion, and on every step of a table's chain walk past it. Copies that share their
// state share the kept hash too.
U32 ViaSet::hash() const {
    return kalHashCache().get([this] { return viaSetHash(kalVia(), type(), nhid()); });
}
U32 Via6Set::hash() const {
    return kalHashCache().get([this] { return viaSetHash(kalVia(), type(), nhid()); });
}

bool ViaSet::operator<(ViaSet const& o) const {
    return viaSetLess(kalVia(), type(), nhid(), o.kalVia(), o.type(), o.nhid());
}
bool Via6Set::operator<(Via6Set const& o) const {
    return viaSetLess(kalVia(), type(), nhid(), o.kalVia(), o.type(), o.nhid());
}

} // namespace Ridge
