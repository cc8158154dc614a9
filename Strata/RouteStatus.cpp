#include "Strata/RouteStatus.h"

#include "Kal/Assert.h"

#include <cstring>

namespace Strata {

namespace {

// How a route sits in a slot (Strata/StrataLayout.h gives the slot head and the protocol):
//
//   IPv4: byte 0 gen   4 state (live)   5 routeType   6-7 zero   8 Prefix (8)   16 FecId   24 bytes
//   IPv6: byte 0 gen   4 state (live)   5 routeType   6-7 zero   8 Ip6Prefix (20)   28 zero (4)
//         32 FecId                                                                          40 bytes
// The prefix is stored as its fixed layout (Velnet/Prefix.h), always canonical.
template <class RouteT>
struct RouteCodec {
    using Key = typename RouteT::Key;
    static constexpr U32 keyBytes = sizeof(Key);
    static constexpr U32 fecIdOffset = U32(layout::alignUp(layout::keyOffset + keyBytes, 8));
    static constexpr U32 slotBytes = fecIdOffset + 8;

    static void encode(RouteT const& r, U32* w) noexcept {
        std::memset(w, 0, slotBytes);
        w[1] = U32(layout::live_) | U32(U8(r.routeType())) << 8;
        U8* b = reinterpret_cast<U8*>(w);
        std::memcpy(b + layout::keyOffset, &r.prefix(), keyBytes);
        Fib::FecId const id = r.fecId();
        std::memcpy(b + fecIdOffset, &id, sizeof id);
    }

    static char const* check(U32 const* w, U32 words) noexcept {
        if (words * 4 < slotBytes) return "route slot too small";
        if (w[1] >> 16) return "unknown route flags";
        U8 const* b = reinterpret_cast<U8 const*>(w);
        for (U32 i = layout::keyOffset + keyBytes; i < fecIdOffset; ++i) {
            if (b[i]) return "route padding not zero";
        }
        // The key's layout (Velnet/Prefix.h): the address bytes, the length, three zero bytes.
        // Canonical: no address bit at or beyond the length, as the constructor makes it.
        U8 const* k = b + layout::keyOffset;
        constexpr U32 addrBytes = keyBytes - 4;
        U32 const len = k[addrBytes];
        if (len > Key::maxLen) return "prefix length out of range";
        if (k[addrBytes + 1] | k[addrBytes + 2] | k[addrBytes + 3]) return "prefix padding not zero";
        if constexpr (addrBytes == 4) {
            U32 addr;
            std::memcpy(&addr, k, 4); // IpAddr: one host-order word
            if (addr & ~Velnet::Prefix::maskOf(len)) return "prefix not canonical";
        } else {
            for (U32 i = len / 8; i < addrBytes; ++i) {
                U8 const allowed = i == len / 8 ? U8(0xFF00u >> (len % 8)) : 0;
                if (k[i] & ~allowed) return "prefix not canonical";
            }
        }
        return nullptr;
    }

    static void decode(U32 const* w, RouteT& r) noexcept {
        U8 const* b = reinterpret_cast<U8 const*>(w);
        Key k;
        std::memcpy(static_cast<void*>(&k), b + layout::keyOffset, keyBytes);
        Fib::FecId id;
        std::memcpy(static_cast<void*>(&id), b + fecIdOffset, sizeof id);
        r = RouteT(k, id, typename RouteT::RouteType(U8(w[1] >> 8)));
    }

    static TableShape makeShape(layout::TableKind kind, char const* suffix) noexcept {
        TableShape s{};
        s.kind = kind;
        s.suffix = suffix;
        s.keySize = keyBytes;
        s.viaSize = 0;
        s.recordSize = sizeof(RouteT);
        s.classCount = 1;
        s.slotSize[0] = slotBytes;
        s.directWriteSize = 0;
        s.checkSlot = &check;
        return s;
    }
};

static_assert(RouteCodec<Fib::Route>::slotBytes == 24);
static_assert(RouteCodec<Fib6::Route>::slotBytes == 40);

template <class RouteT>
TableShape const& routeShape();
template <>
TableShape const& routeShape<Fib::Route>() {
    static TableShape const s =
        RouteCodec<Fib::Route>::makeShape(layout::TableKind::fib4Route, "fib4-route");
    return s;
}
template <>
TableShape const& routeShape<Fib6::Route>() {
    static TableShape const s =
        RouteCodec<Fib6::Route>::makeShape(layout::TableKind::fib6Route, "fib6-route");
    return s;
}

Kal::KalType const& describeTable(char const* name) {
    auto* t = new Kal::KalType(name, &Kal::entityType());
    t->isEntityIs(true);
    if (auto* r = Kal::IntrospectionReactor::global()) r->handleType(*t, &Kal::entityType());
    return *t;
}

} // namespace

namespace detail {

template <class RouteT>
RouteTable<RouteT>::RouteTable(Kal::Name name) : StrataTable(std::move(name), routeShape<RouteT>()) {}

template <class RouteT>
void RouteTable<RouteT>::attach(std::string const& prefix, Access access,
                                RouteCapacity const& capacity, AttachOptions const& options) {
    Capacity c;
    c.maxRecords = capacity.maxRoutes;
    c.classCapacity[0] = capacity.maxRoutes;
    attachTable(prefix, access, c, options);
}

template <class RouteT>
void RouteTable<RouteT>::routeIs(RouteT const& route) {
    StrataMap& m = writable("write");
    alignas(8) U32 words[RouteCodec<RouteT>::slotBytes / 4];
    RouteCodec<RouteT>::encode(route, words);
    m.put(0, words);
}

template <class RouteT>
bool RouteTable<RouteT>::routeDel(Key const& prefix) {
    return writable("remove").remove(&prefix);
}

template <class RouteT>
std::optional<RouteT> RouteTable<RouteT>::route(Key const& prefix) const {
    StrataMap const* m = map();
    if (!m) return std::nullopt;
    SlotCopy copy;
    if (!m->find(&prefix, copy)) return std::nullopt;
    RouteT r;
    RouteCodec<RouteT>::decode(copy.word, r);
    return r;
}

template <class RouteT>
typename RouteTable<RouteT>::RouteIteratorConst RouteTable<RouteT>::routeIteratorConst() const {
    return RouteIteratorConst(Kal::Ptr<StrataMap const>(map()));
}

template <class RouteT>
U32 RouteTable<RouteT>::routes() const noexcept {
    return map() ? map()->records() : 0;
}

template <class RouteT>
U32 RouteTable<RouteT>::routeCapacity() const noexcept {
    return map() ? map()->maxRecords() : 0;
}

template <class RouteT>
RouteTable<RouteT>::RouteIteratorConst::RouteIteratorConst(Kal::Ptr<StrataMap const> map)
    : map_(std::move(map)) {
    seek();
}

template <class RouteT>
typename RouteTable<RouteT>::RouteIteratorConst& RouteTable<RouteT>::RouteIteratorConst::operator++() {
    KAL_ASSERT(!end_);
    seek();
    return *this;
}

template <class RouteT>
void RouteTable<RouteT>::RouteIteratorConst::seek() {
    SlotCopy copy;
    if (map_ && map_->nextLive(cls_, slot_, copy)) {
        RouteCodec<RouteT>::decode(copy.word, route_);
        ++slot_;
        end_ = false;
        return;
    }
    end_ = true;
    map_ = nullptr;
}

template class RouteTable<Fib::Route>;
template class RouteTable<Fib6::Route>;

} // namespace detail

namespace Fib {

RouteStatus::RouteStatus(Kal::Name name) : RouteTable(std::move(name)) {}

RouteStatus::Ptr RouteStatus::writer(std::string const& prefix, RouteCapacity const& capacity,
                                     AttachOptions const& options) {
    Ptr t = new RouteStatus(Kal::Name(prefix + "-fib4-route"));
    t->attach(prefix, Access::writer_, capacity, options);
    return t;
}

RouteStatus::Ptr RouteStatus::reader(std::string const& prefix, AttachOptions const& options) {
    Ptr t = new RouteStatus(Kal::Name(prefix + "-fib4-route"));
    t->attach(prefix, Access::reader_, RouteCapacity(), options);
    return t;
}

Kal::KalType const& RouteStatus::_fwkType() {
    static Kal::KalType const& type = describeTable("Strata::Fib::RouteStatus");
    return type;
}

} // namespace Fib

namespace Fib6 {

RouteStatus::RouteStatus(Kal::Name name) : RouteTable(std::move(name)) {}

RouteStatus::Ptr RouteStatus::writer(std::string const& prefix, RouteCapacity const& capacity,
                                     AttachOptions const& options) {
    Ptr t = new RouteStatus(Kal::Name(prefix + "-fib6-route"));
    t->attach(prefix, Access::writer_, capacity, options);
    return t;
}

RouteStatus::Ptr RouteStatus::reader(std::string const& prefix, AttachOptions const& options) {
    Ptr t = new RouteStatus(Kal::Name(prefix + "-fib6-route"));
    t->attach(prefix, Access::reader_, RouteCapacity(), options);
    return t;
}

Kal::KalType const& RouteStatus::_fwkType() {
    static Kal::KalType const& type = describeTable("Strata::Fib6::RouteStatus");
    return type;
}

} // namespace Fib6

} // namespace Strata
