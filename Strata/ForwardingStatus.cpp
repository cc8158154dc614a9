#include "Strata/ForwardingStatus.h"

#include "Kal/Assert.h"
#include "Strata/Exception.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <new>
#include <utility>

#if defined(__x86_64__)
#include <emmintrin.h>
#endif

namespace Strata {

namespace {

// How a FEC sits in a slot (Strata/StrataLayout.h gives the slot head and the protocol):
//
//   byte 0   gen (U32)
//        4   state (U8, live)   5 fecType (U8)   6 posEnd (U8, 0-128)   7 flags (bit 0: sparse)
//        8   fecId (U64)
//       16   nexthopGroupId (U16)   18 via count (U16)
//   dense (the vias sit at positions 0 .. posEnd-1):
//       20   Via[posEnd]
//   sparse (holes below posEnd):
//       20   U32 viaMask[4], bit i set when position i holds a via
//       36   Via[posEnd], the empty Via() at the holes
//
// Size class c holds the vias of positions 0 .. 2^c - 1 of a dense FEC; the largest class
// also has room for the bitmap. A FEC goes into the smallest class its bytes fit in, so a
// sparse FEC may need the class above its dense size.
template <class FecT>
struct FecCodec {
    using V = typename FecT::Via;
    static constexpr U32 viaBytes = sizeof(V);
    static constexpr U32 denseHead = 20;
    static constexpr U32 sparseHead = 36;
    static constexpr U32 classes = FecCapacity::classes;

    static constexpr U32 slotSize(U32 cls) noexcept {
        U32 const bytes = cls + 1 < classes ? denseHead + (U32(1) << cls) * viaBytes
                                            : sparseHead + FecT::maxVias * viaBytes;
        return U32(layout::alignUp(bytes, 8));
    }
    static constexpr U32 need(U32 posEnd, bool sparse) noexcept {
        return (sparse ? sparseHead : denseHead) + posEnd * viaBytes;
    }
    static U32 classFor(U32 bytes) noexcept {
        static constexpr auto sizes = [] {
            std::array<U32, classes> a{};
            for (U32 c = 0; c < classes; ++c) a[c] = slotSize(c);
            return a;
        }();
        for (U32 c = 0; c < classes; ++c) {
            if (sizes[c] >= bytes) return c;
        }
        KAL_ASSERT(bytes <= slotSize(classes - 1));
        return classes - 1;
    }
    // What encode needs to know of a FEC, worked out once.
    struct Shape {
        U32 end;   // viaEnd()
        U32 count; // vias()
        U32 cls;
    };
    [[gnu::always_inline]] static Shape shapeOf(FecT const& f) noexcept {
        U32 const end = f.viaEnd();
        // Writers fill positions densely: checking that the bitmap is exactly the positions
        // below end costs less than counting its bits, and the class follows from end alone.
        if (dense(f, end)) return Shape{end, end, denseClass(end)};
        return Shape{end, f.vias(), classFor(need(end, true))};
    }
    static U32 classOf(FecT const& f) noexcept { return shapeOf(f).cls; }
    [[gnu::always_inline]] static bool dense(FecT const& f, U32 end) noexcept {
        U32 diff = 0;
        for (U32 k = 0; k < 4; ++k) {
            U32 const lo = 32 * k;
            U32 const full = end >= lo + 32 ? ~U32(0) : end <= lo ? 0 : (U32(1) << (end - lo)) - 1;
            diff |= f.viaMaskWord(k) ^ full;
        }
        return diff == 0;
    }
    // The class of a dense FEC: the smallest whose 2^c positions hold end (a slot's padding
    // to 8 bytes is less than a via, so it never makes room for one more).
    static constexpr U32 denseClass(U32 end) noexcept {
        return end <= 1 ? 0 : U32(std::bit_width(end - 1));
    }

    // How encode stores a word of a slot in the table (a type, not a function pointer, so that
    // the store is inlined in the copy loops).
    struct SlotStore {
        void operator()(U32& w, U32 v) const noexcept { StrataMap::storeWord(w, v); }
    };
    // Writes f into the words of a slot of class cls (words 1 .. slotSize(cls)/4 - 1, zero
    // past the vias) through store, which is SlotStore for a slot in the table.
    template <class Store>
    [[gnu::always_inline]] static void encode(FecT const& f, Shape const& shape, U32* w,
                                              Store store) noexcept {
        U32 const end = shape.end;
        U32 const count = shape.count;
        U32 const cls = shape.cls;
        bool const sparse = count != end;
        store(w[1], U32(layout::live_) | U32(U8(f.fecType())) << 8 | end << 16 | U32(sparse) << 24);
        U64 const id = f.fecId().value();
        store(w[2], U32(id));
        store(w[3], U32(id >> 32));
        store(w[4], U32(f.nexthopGroupId()) | count << 16);
        U32 i = denseHead / 4;
        if (sparse) {
            for (U32 k = 0; k < 4; ++k) store(w[i++], f.viaMaskWord(k));
        }
        // The vias are stored as they sit in the FEC, a hole as the empty via.
        auto const* src = reinterpret_cast<U8 const*>(f.viaArray());
        if (!sparse) {
            for (U32 pos = 0; pos < end; ++pos, i += viaBytes / 4) {
                storeVia(src + pos * viaBytes, w + i, store);
            }
        } else {
            for (U32 pos = 0; pos < end; ++pos) {
                if ((f.viaMaskWord(pos / 32) >> (pos % 32)) & 1) {
                    storeVia(src + pos * viaBytes, w + i, store);
                } else {
                    for (U32 k = 0; k < viaBytes / 4; ++k) store(w[i + k], 0);
                }
                i += viaBytes / 4;
            }
        }
        for (U32 const n = slotSize(cls) / 4; i < n; ++i) store(w[i], 0);
    }

    // Stores the words of the via at src into w[0 ..]. The via is loaded in the pieces that a
    // copy of it is made of (x86-64: 16- and 8-byte moves, then a 4-byte one; i386: 4-byte
    // words), the way the caller's viaIs has just written it. Those stores may not have
    // reached the cache yet (behind the previous commit's stores into slot lines that were
    // not in the cache): a load of a part of a wider store cannot be served from the store
    // and waits for it to land, while a load that matches a store is served at once.
    template <class Store>
    [[gnu::always_inline]] static void storeVia(U8 const* src, U32* w, Store store) noexcept {
        U32 k = 0;
#if defined(__x86_64__)
        auto const store64 = [&](U32* to, U64 v) noexcept {
            store(to[0], U32(v));
            store(to[1], U32(v >> 32));
        };
        for (; k + 16 <= viaBytes; k += 16) {
            __m128i const x = _mm_loadu_si128(reinterpret_cast<__m128i const*>(src + k));
            store64(w + k / 4, U64(_mm_cvtsi128_si64(x)));
            store64(w + k / 4 + 2, U64(_mm_cvtsi128_si64(_mm_unpackhi_epi64(x, x))));
        }
        for (; k + 8 <= viaBytes; k += 8) {
            U64 v;
            std::memcpy(&v, src + k, 8);
            store64(w + k / 4, v);
        }
#endif
        for (; k < viaBytes; k += 4) {
            U32 v;
            std::memcpy(&v, src + k, 4);
            store(w[k / 4], v);
        }
    }

    static constexpr U32 bitCount(U32 w) noexcept {
        w = w - ((w >> 1) & 0x55555555u);
        w = (w & 0x33333333u) + ((w >> 2) & 0x33333333u);
        return (((w + (w >> 4)) & 0x0F0F0F0Fu) * 0x01010101u) >> 24;
    }

    static char const* check(U32 const* w, U32 words) noexcept {
        U32 const meta = w[1];
        U32 const end = (meta >> 16) & 0xFF;
        U32 const flags = meta >> 24;
        U32 const count = w[4] >> 16;
        if (flags & ~1u) return "unknown FEC flags";
        if (end > FecT::maxVias) return "via positions beyond 128";
        bool const sparse = flags & 1;
        if (need(end, sparse) > words * 4) return "vias beyond the end of the slot";
        if (!sparse) return count == end ? nullptr : "via count differs from the dense positions";
        U32 bits = 0;
        for (U32 k = 0; k < 4; ++k) {
            U32 const m = w[5 + k];
            bits += bitCount(m);
            U32 const lo = 32 * k;
            // Positions at or above end must be clear.
            if (end <= lo ? m != 0 : end < lo + 32 && (m >> (end - lo)) != 0) {
                return "via bitmap beyond the last position";
            }
        }
        if (bits != count) return "via bitmap disagrees with the via count";
        if (end > 0 && !((w[5 + (end - 1) / 32] >> ((end - 1) % 32)) & 1)) {
            return "last via position not in the bitmap";
        }
        return nullptr;
    }

    // f from a checked slot image.
    static void decode(U32 const* w, FecT& f) noexcept {
        f.viaDelAll();
        U32 const meta = w[1];
        U32 const end = (meta >> 16) & 0xFF;
        bool const sparse = (meta >> 24) & 1;
        Fib::FecId id;
        std::memcpy(static_cast<void*>(&id), w + 2, sizeof id);
        f.fecIdIs(id);
        f.fecTypeIs(U8(meta >> 8));
        f.nexthopGroupIdIs(U16(w[4]));
        U8 const* vias = reinterpret_cast<U8 const*>(w) + (sparse ? sparseHead : denseHead);
        for (U32 i = 0; i < end; ++i) {
            if (sparse && !((w[5 + i / 32] >> (i % 32)) & 1)) continue;
            V v;
            std::memcpy(static_cast<void*>(&v), vias + i * viaBytes, viaBytes);
            f.viaIs(i, v);
        }
    }

    static TableShape makeShape(layout::TableKind kind, char const* suffix) noexcept {
        TableShape s{};
        s.kind = kind;
        s.suffix = suffix;
        s.keySize = sizeof(Fib::FecId);
        s.viaSize = viaBytes;
        s.recordSize = sizeof(FecT);
        s.classCount = classes;
        for (U32 c = 0; c < classes; ++c) s.slotSize[c] = slotSize(c);
        s.directWriteSize = sizeof(FecT);
        s.checkSlot = &check;
        return s;
    }
};

static_assert(FecCodec<Fib::Fec>::slotSize(0) == 32, "a one-via FEC takes 32 bytes");
template <class FecT>
constexpr bool denseClassesAgree() noexcept {
    using C = FecCodec<FecT>;
    for (U32 end = 0; end <= FecT::maxVias; ++end) {
        U32 c = 0;
        while (C::slotSize(c) < C::need(end, false)) ++c;
        if (C::denseClass(end) != c) return false;
    }
    return true;
}
static_assert(denseClassesAgree<Fib::Fec>() && denseClassesAgree<Fib6::Fec>(),
              "a dense FEC's class follows from its highest position");
static_assert(FecCodec<Fib::Fec>::slotSize(7) <= SlotCopy::maxWords * 4);
static_assert(FecCodec<Fib6::Fec>::slotSize(7) <= SlotCopy::maxWords * 4);

template <class FecT>
TableShape const& fecShape();
template <>
TableShape const& fecShape<Fib::Fec>() {
    static TableShape const s = FecCodec<Fib::Fec>::makeShape(layout::TableKind::fib4Fec, "fib4-fec");
    return s;
}
template <>
TableShape const& fecShape<Fib6::Fec>() {
    static TableShape const s =
        FecCodec<Fib6::Fec>::makeShape(layout::TableKind::fib6Fec, "fib6-fec");
    return s;
}

// The index's hash of a FEC id (the key's two words, as they sit in memory).
U32 keyHashOf(Fib::FecId const& id) noexcept {
    U32 w[2];
    static_assert(sizeof id == sizeof w);
    std::memcpy(w, static_cast<void const*>(&id), sizeof w);
    return StrataMap::keyHash(w, 2);
}

[[noreturn]] void throwNoMansLand() {
    throw RuntimeException("StrataMap::directWrite() in no man's land");
}

Kal::KalType const& describeTable(char const* name) {
    auto* t = new Kal::KalType(name, &Kal::entityType());
    t->isEntityIs(true);
    if (auto* r = Kal::IntrospectionReactor::global()) r->handleType(*t, &Kal::entityType());
    return *t;
}

} // namespace

FecCapacity FecCapacity::forFecs(U32 maxFecs) {
    FecCapacity c;
    c.maxFecs = maxFecs;
    U32 const divisors[classes] = {1, 1, 1, 1, 4, 16, 64, 256};
    for (U32 i = 0; i < classes; ++i) c.classFecs[i] = std::max(maxFecs / divisors[i], U32(4));
    return c;
}

namespace detail {

template <class FecT>
FecTable<FecT>::FecTable(Kal::Name name) : StrataTable(std::move(name), fecShape<FecT>()) {}

template <class FecT>
void FecTable<FecT>::attach(std::string const& prefix, Access access, FecCapacity const& capacity,
                            AttachOptions const& options) {
    Capacity c;
    c.maxRecords = capacity.maxFecs;
    for (U32 i = 0; i < FecCapacity::classes; ++i) c.classCapacity[i] = capacity.classFecs[i];
    attachTable(prefix, access, c, options);
}

template <class FecT>
void FecTable<FecT>::fecIs(FecT const& fec) {
    store(writable("write"), fec, keyHashOf(fec.fecId()));
}

template <class FecT>
void FecTable<FecT>::store(StrataMap& m, FecT const& fec, U32 hash) {
    struct Job {
        FecT const& fec;
        typename FecCodec<FecT>::Shape shape;
    };
    Job const job{fec, FecCodec<FecT>::shapeOf(fec)};
    Fib::FecId const id = fec.fecId();
    // Encoded straight into the slot: no image to fill and copy.
    auto encode = [](void const* context, U32* w) noexcept {
        auto const& j = *static_cast<Job const*>(context);
        using Codec = FecCodec<FecT>;
        Codec::encode(j.fec, j.shape, w, typename Codec::SlotStore());
    };
    m.putEncoded(job.shape.cls, &id, hash, encode, &job);
    lastClass_ = job.shape.cls;
}

template <class FecT>
FecT* FecTable<FecT>::fecDirectWrite(Fib::FecId const& id) {
    StrataMap* m = map();
    if (m) m->checkWritable("write");
    if (!m || (directWriteSlot_ && directWriteMap_ == m)) throwNoMansLand();
    directWriteId_ = id;
    directWriteHash_ = keyHashOf(id);
    m->prefetchKey(directWriteHash_);
    m->prefetchSlot(lastClass_);
    if (directWriteMap_ != m) {
        // First use of this mapping's slot: whatever a dead writer left there is overwritten.
        directWriteSlot_ = new (m->directWriteSlot()) FecT(id);
        directWriteMap_ = m;
        return directWriteSlot_;
    }
    // The slot still holds a FEC this process made: emptying it is cheaper than making a
    // fresh one (a FEC's unused positions are already zero, only the used ones are cleared).
    FecT* f = std::launder(static_cast<FecT*>(m->directWriteSlot()));
    f->viaDelAll();
    f->fecIdIs(id);
    f->fecTypeIs(Strata::Fib::forward_);
    f->nexthopGroupIdIs(FecT::noNexthopGroupId);
    directWriteSlot_ = f;
    return f;
}

template <class FecT>
void FecTable<FecT>::fecCommit(FecT const* fec) {
    StrataMap* m = map();
    if (m) m->checkWritable("write");
    if (!m || !directWriteSlot_ || directWriteMap_ != m) {
        directWriteSlot_ = nullptr;
        throwNoMansLand();
    }
    KAL_ASSERT(fec == directWriteSlot_);
    FecT const* const slot = std::exchange(directWriteSlot_, nullptr);
    Fib::FecId const id = slot->fecId();
    store(*m, *slot, id == directWriteId_ ? directWriteHash_ : keyHashOf(id));
}

template <class FecT>
void FecTable<FecT>::fecDirectWriteAbandon() noexcept {
    directWriteSlot_ = nullptr;
}

template <class FecT>
bool FecTable<FecT>::fecDel(Fib::FecId const& id) {
    return writable("remove").remove(&id);
}

template <class FecT>
bool FecTable<FecT>::fec(Fib::FecId const& id, FecT& out) const {
    StrataMap const* m = map();
    if (!m) return false;
    SlotCopy copy;
    if (!m->find(&id, copy)) return false;
    FecCodec<FecT>::decode(copy.word, out);
    return true;
}

template <class FecT>
std::optional<FecT> FecTable<FecT>::fec(Fib::FecId const& id) const {
    std::optional<FecT> out(std::in_place);
    if (!fec(id, *out)) out.reset();
    return out;
}

template <class FecT>
typename FecTable<FecT>::FecIteratorConst FecTable<FecT>::fecIteratorConst() const {
    return FecIteratorConst(Kal::Ptr<StrataMap const>(map()));
}

template <class FecT>
U32 FecTable<FecT>::fecs() const noexcept {
    return map() ? map()->records() : 0;
}
template <class FecT>
U32 FecTable<FecT>::fecCapacity() const noexcept {
    return map() ? map()->maxRecords() : 0;
}
template <class FecT>
U32 FecTable<FecT>::fecClassCapacity(U32 cls) const noexcept {
    return map() ? map()->classCapacity(cls) : 0;
}
template <class FecT>
U32 FecTable<FecT>::fecClassFecs(U32 cls) const noexcept {
    return map() ? map()->classUsed(cls) : 0;
}
template <class FecT>
U32 FecTable<FecT>::fecClassOf(FecT const& fec) noexcept {
    return FecCodec<FecT>::classOf(fec);
}

template <class FecT>
FecTable<FecT>::FecIteratorConst::FecIteratorConst(Kal::Ptr<StrataMap const> map)
    : map_(std::move(map)) {
    seek();
}

template <class FecT>
FecTable<FecT>::FecIteratorConst::FecIteratorConst(FecIteratorConst const& o)
    : map_(o.map_), cls_(o.cls_), slot_(o.slot_),
      fec_(o.fec_ ? std::make_unique<FecT>(*o.fec_) : nullptr) {}

template <class FecT>
typename FecTable<FecT>::FecIteratorConst&
FecTable<FecT>::FecIteratorConst::operator=(FecIteratorConst const& o) {
    if (this != &o) {
        map_ = o.map_;
        cls_ = o.cls_;
        slot_ = o.slot_;
        fec_ = o.fec_ ? std::make_unique<FecT>(*o.fec_) : nullptr;
    }
    return *this;
}

template <class FecT>
typename FecTable<FecT>::FecIteratorConst& FecTable<FecT>::FecIteratorConst::operator++() {
    KAL_ASSERT(fec_);
    seek();
    return *this;
}

template <class FecT>
void FecTable<FecT>::FecIteratorConst::seek() {
    SlotCopy copy;
    if (map_ && map_->nextLive(cls_, slot_, copy)) {
        if (!fec_) fec_ = std::make_unique<FecT>();
        FecCodec<FecT>::decode(copy.word, *fec_);
        ++slot_;
        return;
    }
    fec_.reset();
    map_ = nullptr;
}

template class FecTable<Fib::Fec>;
template class FecTable<Fib6::Fec>;

} // namespace detail

namespace Fib {

ForwardingStatus::ForwardingStatus(Kal::Name name) : FecTable(std::move(name)) {}

ForwardingStatus::Ptr ForwardingStatus::writer(std::string const& prefix,
                                               FecCapacity const& capacity,
                                               AttachOptions const& options) {
    Ptr t = new ForwardingStatus(Kal::Name(prefix + "-fib4-fec"));
    t->attach(prefix, Access::writer_, capacity, options);
    return t;
}

ForwardingStatus::Ptr ForwardingStatus::reader(std::string const& prefix,
                                               AttachOptions const& options) {
    Ptr t = new ForwardingStatus(Kal::Name(prefix + "-fib4-fec"));
    t->attach(prefix, Access::reader_, FecCapacity(), options);
    return t;
}

Kal::KalType const& ForwardingStatus::_fwkType() {
    static Kal::KalType const& type = describeTable("Strata::Fib::ForwardingStatus");
    return type;
}

} // namespace Fib

namespace Fib6 {

ForwardingStatus::ForwardingStatus(Kal::Name name) : FecTable(std::move(name)) {}

ForwardingStatus::Ptr ForwardingStatus::writer(std::string const& prefix,
                                               FecCapacity const& capacity,
                                               AttachOptions const& options) {
    Ptr t = new ForwardingStatus(Kal::Name(prefix + "-fib6-fec"));
    t->attach(prefix, Access::writer_, capacity, options);
    return t;
}

ForwardingStatus::Ptr ForwardingStatus::reader(std::string const& prefix,
                                               AttachOptions const& options) {
    Ptr t = new ForwardingStatus(Kal::Name(prefix + "-fib6-fec"));
    t->attach(prefix, Access::reader_, FecCapacity(), options);
    return t;
}

Kal::KalType const& ForwardingStatus::_fwkType() {
    static Kal::KalType const& type = describeTable("Strata::Fib6::ForwardingStatus");
    return type;
}

} // namespace Fib6

} // namespace Strata
