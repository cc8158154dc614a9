// Kal::HashMap<Member, Key>: the unordered keyed collection of the model types, with a
// stable iteration order. Kal::HashMapVTable<Member, Key> adapts a member class to the
// shared engine Kal::HashMapRaw.
//
// Design
// ------
// Members are intrusive counted objects that carry their own key and the link to the next
// member of their chain; the map owns one reference to each. All the code that walks or
// rewires chains (insert, delete, resize, findNext, copy, equality, verify) lives once, in
// HashMapRaw (HashMap.cpp), and reaches the members through a table of operations
// (HashMapOps) that HashMapVTable fills per instantiation. The typed HashMap<Member, Key> is
// a thin layer over it; only the hot paths are inlined there (the lookup, the iterator's
// plain step, forEachMember), each about the size of the call it replaces.
//
//   HashMapRaw
//     ops_          -> HashMapOps of the instantiation (typed thunks, one static table)
//     buckets_      -> bucketCount_ chain heads; a non-null head holds the map's reference to
//                      the first member (the others are held by their predecessor's link).
//                      A map with one bucket keeps it in inlineBucket_: no allocation.
//     inlineBucket_    the head of the single bucket while bucketCount_ == 1
//     occupied_     -> one bit per bucket, set when the bucket holds a member, in words of
//                      occupancyBits (the machine word); a map of at most occupancyBits
//                      buckets keeps its one word in inlineOccupied_: no allocation.
//     version_      U32, +1 per insertion and per deletion; iterators compare it
//     count_        U32, members
//     bucketCount_  U32, 2^k, k >= 0
//     shift_        31 - k; bucket of h is (h >> shift_) >> 1, the top k bits of h
//                   (0 when k == 0, without shifting a U32 by 32)
//     minBuckets_   the bucket count the map was made with; it never shrinks below it
//     floorBuckets_ the bucket count it does not shrink below now: minBuckets_, or more after
//                   reserve(), until deleteAll()
//     iterators_    the map's live iterators (see "Iterators")
//
//   buckets_[0] -> A -> B -> null        Member: PtrInterface | kal_index_ | value | fwkHmNext_
//   buckets_[1] -> null
//   buckets_[2] -> C -> null
//   buckets_[3] -> D -> E -> null
//   occupied_[0] = 0b1101                (bucket 0 is bit 0)
//
// Position. Every member has the position (h, key) with h = bitReverse(kalKeyHash(key)),
// "the hash" everywhere below. Its bucket is the top k bits of h. Invariants (verify()):
//   - bucketCount_ is a power of two and matches shift_;
//   - each member sits in the bucket named by the top bits of its hash;
//   - each chain is sorted by ascending (h, key), members with equal keys in insertion
//     order, and ends with a null link;
//   - count_ is the number of members in the chains;
//   - the occupancy bit of a bucket is set exactly when the bucket is non-empty, and the
//     bits past the last bucket are clear;
//   - count_ <= capacity(bucketCount_), and a map above its initial bucket count keeps at
//     least a quarter of the load it allows (HashMap.cpp gives the numbers and why).
// A bucket holds exactly the members whose hashes share its top bits, so buckets in index
// order, each chain in order, visit every member in one global order: ascending (h, key).
//
// Why resizing never re-sorts. Growing from 2^k to 2^(k+d) buckets splits bucket b into
// the buckets b*2^d ... b*2^d + 2^d - 1, told apart by the next d bits of h. A chain sorted
// by h holds the members of those buckets in that order, one run after another, so the
// split only cuts the chain between runs: no member moves relative to another and no link
// changes except at the cuts. Shrinking joins the chains of 2^d consecutive buckets by
// linking the end of each to the start of the next, which is again in order. The global
// order does not change, and a resize costs one pass over the members and no reference
// counting except at the joins.
//
// Lookup. operator[] scans the key's chain for the key and returns the first member that
// has it. It does not stop early at the first member past the key's position: the answer
// is the same (members sort before the key's position or have the key or come after it,
// in that order), chains are short under the load bound, and the order test, a hash
// computation and an unpredictable branch per member, made lookups up to twice as slow.
// Insertion, startAtHash and findNext do walk by position.
//
// Iterators. An iterator holds the map, the member it stands on, that member's bucket index
// (-1 at the end) and the map's version when it last moved. The bucket index is kept as the
// occupancy word of the bucket less the buckets before it and those the iterator has left
// (pending_, from bucket base_ on): the current bucket is its lowest set bit. While the
// version is unchanged a step follows fwkHmNext, or clears that bit and goes to the head of
// the bucket of the next one, a count of trailing zeros away: empty buckets cost a word per
// occupancyBits of them instead of a load and an unpredictable branch each. After any
// change it looks the successor up by position (findNext): the first member sorting
// strictly after the current one's (h, key). Deleting the member under an iterator is
// therefore safe and the walk continues with the next one; members inserted during a walk
// are seen if and only if they sort after the iterator. (A walk that had to look its
// successor up steps over later members with the same key: keys are meant to be unique,
// equal keys are only tolerated.)
//
// The iterator holds its member: by the map's reference while the member is in the map, by
// its own counted reference once the member has left it. A map keeps the list of its live
// iterators (HashMapIteratorRaw, linked in on construction and copy, unlinked on
// destruction), and before it drops its reference to a member (deleteMember, deleteAll,
// assignment, being moved from, destruction) it pins every iterator standing on that
// member: the iterator counts the member and keeps that reference until it moves on, is
// reset, is assigned or dies, so the member and its key stay valid for the findNext of its
// next step. A step through an unchanged map counts nothing and writes only the iterator;
// a pinned iterator always finds the version changed, so the plain step never runs from a
// member the map does not hold.
//
//   HashMapRaw.iterators_ -> it1 <-> it2 <-> null    (few: usually one, often none)
//   it1: map_, cur_ -> B (the map's reference, bucket 0), pending_ 0b1101, base_ 0,
//        version_ 7, pinned_ no
//   it2: map_, cur_ -> X (deleted: its own reference, was in bucket 2), pending_ 0b1100,
//        base_ 0, version_ 5, pinned_ yes
//
// A copy of an iterator registers as well and stands on the same member, with a counted
// reference of its own when the original is pinned; a moved-from iterator is left at its
// end, still an iterator of its map. After its map was moved from, an iterator's next step
// finds the end (the map is empty). An iterator must not outlive its map: destroying a map
// pins and detaches the iterators still registered with it, so a stray one that is only
// destroyed afterwards does no harm, but using it is a programming error. Read-only passes
// may also use forEachMember, which registers nothing and must not change the map.
//
// Member classes
// --------------
// A member class (generated, e.g. Ridge::Status::KalAdjacency) must:
//   - derive from Kal::PtrInterface (single, non-virtual inheritance);
//   - hold, in this order, `kal_index_` (the key), the value field, and
//     `Kal::Ptr<Member> fwkHmNext_`, and let Kal::HashMapVTable reach fwkHmNext_ (it moves
//     links without counting when it rewires chains);
//   - provide `Key const& fwkKey() const`, `Member* fwkHmNext() const`,
//     `void fwkHmNextIs(Member*)` and `bool fwkValueEquals(Member const&) const` (value
//     equality, used by operator== of maps);
//   - be copy-constructible, the copy being a new member with the same key and value and a
//     null fwkHmNext_ (map copies clone members this way).
// For example:
//
//   class KalAdjacency : public Kal::PtrInterface {
//     public:
//       KalAdjacency(U64 index, Kal::Ptr<Adjacency> adj)
//           : kal_index_(index), adjacency_(std::move(adj)) {}
//       KalAdjacency(KalAdjacency const& o)
//           : Kal::PtrInterface(o), kal_index_(o.kal_index_), adjacency_(o.adjacency_) {}
//       U64 const& fwkKey() const { return kal_index_; }
//       KalAdjacency* fwkHmNext() const { return fwkHmNext_.ptr(); }
//       void fwkHmNextIs(KalAdjacency* n) { fwkHmNext_ = n; }
//       bool fwkValueEquals(KalAdjacency const& o) const { return adjacency_ == o.adjacency_; }
//     private:
//       template <class, class> friend struct Kal::HashMapVTable;
//       U64 kal_index_;
//       Kal::Ptr<Adjacency> adjacency_;
//       Kal::Ptr<KalAdjacency> fwkHmNext_;
//   };
//
//   Kal::HashMap<KalAdjacency, U64> adjacency(1);
//   adjacency.newMember(new KalAdjacency(7, adj));
//   for (auto i = adjacency.iterator(); i; ++i) use(i.key(), i->adjacency());
//
// Keys. kalKeyHash(key) and kalKeyLessThan(a, b) give a key's 32-bit hash and its order;
// equality is operator==. For U64 the hash is (high word XOR low word) and the order the
// plain unsigned one (high word first, then low word). Any other key type defaults to
// `key.hash()` and `operator<`; a key type may instead provide its own kalKeyHash /
// kalKeyLessThan overloads in its namespace (found by argument-dependent lookup).
//
// Threads: none. A map belongs to the thread of its owner, and so do its iterators: making,
// copying and destroying one writes the map's list of iterators, even for a const map. Only
// the members' counts are atomic, which is what lets a pinned iterator or another holder
// keep a member alive.
#pragma once

#include "Kal/Assert.h"
#include "Kal/Ptr.h"
#include "Kal/PtrInterface.h"
#include "Kal/String.h"
#include "Kal/Types.h"

#include <bit>
#include <cstddef>
#include <iterator>
#include <type_traits>
#include <utility>

namespace Kal {

// Bit i of x becomes bit 31 - i.
#if defined(__has_builtin)
#if __has_builtin(__builtin_bitreverse32)
#define KAL_HAVE_BITREVERSE32 1
#endif
#endif
[[gnu::always_inline]] constexpr U32 bitReverse(U32 x) noexcept {
#ifdef KAL_HAVE_BITREVERSE32
    return __builtin_bitreverse32(x);
#else
    x = ((x >> 1) & 0x55555555u) | ((x & 0x55555555u) << 1);
    x = ((x >> 2) & 0x33333333u) | ((x & 0x33333333u) << 2);
    x = ((x >> 4) & 0x0F0F0F0Fu) | ((x & 0x0F0F0F0Fu) << 4);
    return __builtin_bswap32(x);
#endif
}

inline U32 kalKeyHash(U64 key) noexcept { return U32(key >> 32) ^ U32(key); }
inline bool kalKeyLessThan(U64 a, U64 b) noexcept { return a < b; }
// Narrower integer keys hash as their value (S64 like U64, by its bits).
inline U32 kalKeyHash(U32 key) noexcept { return key; }
inline U32 kalKeyHash(U16 key) noexcept { return key; }
inline U32 kalKeyHash(U8 key) noexcept { return key; }
inline U32 kalKeyHash(S32 key) noexcept { return U32(key); }
inline U32 kalKeyHash(S64 key) noexcept { return kalKeyHash(U64(key)); }

template <class Key>
U32 kalKeyHash(Key const& key) {
    return key.hash();
}
template <class Key>
bool kalKeyLessThan(Key const& a, Key const& b) {
    return a < b;
}

// The operations the shared engine needs from a member class, type-erased. Members are
// passed as their PtrInterface base, keys as a pointer to the Key. Filled by HashMapVTable.
struct HashMapOps {
    // The member's hash: bitReverse(kalKeyHash(key)).
    U32 (*hash)(PtrInterface const* m);
    // key == m's key; key < m's key.
    bool (*keyEquals)(void const* key, PtrInterface const* m);
    bool (*keyLessThan)(void const* key, PtrInterface const* m);
    void const* (*key)(PtrInterface const* m);
    PtrInterface* (*next)(PtrInterface const* m);
    // m's link (null) takes over a reference to next that the caller gives; nothing is
    // counted.
    void (*adoptNext)(PtrInterface* m, PtrInterface* next);
    // Gives m's link, with its reference, to the caller; m's link becomes null.
    PtrInterface* (*takeNext)(PtrInterface* m);
    // Links t (whose link is null) after pred; pred's link takes over a reference to t that
    // the caller gives. Nothing is counted.
    void (*linkAfter)(PtrInterface* pred, PtrInterface* t);
    // Unlinks pred's successor and returns it with the reference pred's link held.
    PtrInterface* (*unlinkAfter)(PtrInterface* pred);
    // A new member with m's key and value and a null link, not yet counted.
    PtrInterface* (*clone)(PtrInterface const* m);
    // Value equality of two members (keys are compared separately).
    bool (*valueEquals)(PtrInterface const* a, PtrInterface const* b);
};

// The typed operations of one instantiation, and their type-erased table `ops`.
template <class Member, class Key>
struct HashMapVTable {
    static_assert(std::is_base_of_v<PtrInterface, Member>, "a member is a counted object");
    static_assert(sizeof(Ptr<Member>) == sizeof(Member*));

    static U32 hash(Member const& m) { return bitReverse(kalKeyHash(m.fwkKey())); }
    static bool keyEquals(Key const& key, Member const& m) { return key == m.fwkKey(); }
    static bool keyLessThan(Key const& key, Member const& m) {
        return kalKeyLessThan(key, m.fwkKey());
    }
    static void adoptNext(Member& m, Member* next) {
        KAL_DASSERT(!m.fwkHmNext_);
        m.fwkHmNext_ = Ptr<Member>::kalAdopt(next);
    }
    static Member* next(Member const& m) { return m.fwkHmNext(); }
    static Member* takeNext(Member& m) { return m.fwkHmNext_.release(); }
    static void linkAfter(Member& pred, Member& t) {
        t.fwkHmNext_ = std::move(pred.fwkHmNext_);
        pred.fwkHmNext_ = Ptr<Member>::kalAdopt(&t);
    }
    static Member* unlinkAfter(Member& pred) {
        Member* t = pred.fwkHmNext_.release();
        pred.fwkHmNext_ = std::move(t->fwkHmNext_);
        return t;
    }
    static Member* clone(Member const& m) {
        Member* c = new Member(m);
        KAL_DASSERT(c->fwkHmNext() == nullptr);
        return c;
    }
    static bool valueEquals(Member const& a, Member const& b) { return a.fwkValueEquals(b); }

    static Member* down(PtrInterface* p) noexcept { return static_cast<Member*>(p); }
    static Member const* down(PtrInterface const* p) noexcept {
        return static_cast<Member const*>(p);
    }
    static Key const& keyOf(void const* k) noexcept { return *static_cast<Key const*>(k); }

    static constexpr HashMapOps ops = {
        +[](PtrInterface const* m) -> U32 { return hash(*down(m)); },
        +[](void const* k, PtrInterface const* m) -> bool { return keyEquals(keyOf(k), *down(m)); },
        +[](void const* k, PtrInterface const* m) -> bool {
            return keyLessThan(keyOf(k), *down(m));
        },
        +[](PtrInterface const* m) -> void const* { return &down(m)->fwkKey(); },
        +[](PtrInterface const* m) -> PtrInterface* { return next(*down(m)); },
        +[](PtrInterface* m, PtrInterface* n) { adoptNext(*down(m), down(n)); },
        +[](PtrInterface* m) -> PtrInterface* { return takeNext(*down(m)); },
        +[](PtrInterface* pred, PtrInterface* t) { linkAfter(*down(pred), *down(t)); },
        +[](PtrInterface* pred) -> PtrInterface* { return unlinkAfter(*down(pred)); },
        +[](PtrInterface const* m) -> PtrInterface* { return clone(*down(m)); },
        +[](PtrInterface const* a, PtrInterface const* b) -> bool {
            return valueEquals(*down(a), *down(b));
        },
    };
};

class HashMapIteratorRaw;

// The engine shared by every HashMap instantiation. Positions and hashes are as described
// at the top of this file; `h` is always a member's or key's hash (already bit-reversed).
class HashMapRaw {
  public:
    // initialSize: the starting bucket count, rounded up to a power of two (0 counts as 1).
    HashMapRaw(HashMapOps const& ops, U32 initialSize);
    // A copy of every member (clones), in the same bucket structure.
    HashMapRaw(HashMapRaw const& other);
    HashMapRaw& operator=(HashMapRaw const& other);
    // Takes the members over; other is left empty, with one bucket.
    HashMapRaw(HashMapRaw&& other) noexcept;
    HashMapRaw& operator=(HashMapRaw&& other) noexcept;
    ~HashMapRaw();

    U32 version() const noexcept { return version_; }
    U32 members() const noexcept { return count_; }
    // Whether any iterator is registered with the map.
    bool hasIterators() const noexcept { return iterators_ != nullptr; }
    U32 buckets() const noexcept { return bucketCount_; }
    U32 bucketOf(U32 h) const noexcept { return (h >> shift_) >> 1; }
    PtrInterface* head(U32 bucket) const noexcept { return buckets_[bucket]; }
    // The address of a bucket's head: for prefetching ahead of a lookup.
    PtrInterface* const* headSlot(U32 bucket) const noexcept { return &buckets_[bucket]; }

    // Occupancy: bit b % occupancyBits of word b / occupancyBits is set when bucket b holds
    // a member; the bits past the last bucket are clear. A walk skips empty buckets a word
    // at a time without reading them.
    using OccupancyWord = std::size_t;
    static constexpr U32 occupancyBits = U32(sizeof(OccupancyWord) * 8);
    U32 occupancyWords() const noexcept {
        return (bucketCount_ + occupancyBits - 1) / occupancyBits;
    }
    OccupancyWord occupancy(U32 word) const noexcept { return occupied_[word]; }

    // The head of the first non-empty bucket at or after `bucket`, its index in `found`;
    // null and -1 when there is none.
    PtrInterface* firstFrom(U32 bucket, S32& found) const noexcept {
        if (bucket < bucketCount_) {
            U32 word = bucket / occupancyBits;
            OccupancyWord bits = occupied_[word] & (~OccupancyWord(0) << (bucket % occupancyBits));
            U32 const words = occupancyWords();
            while (!bits && ++word < words) bits = occupied_[word];
            if (bits) {
                U32 const b = word * occupancyBits + U32(std::countr_zero(bits));
                found = S32(b);
                return buckets_[b];
            }
        }
        found = -1;
        return nullptr;
    }

    // Links t (link null, hash h) after every member at or before its position, counts it,
    // and grows the bucket array when the load calls for it.
    void newMember(PtrInterface* t, U32 h);
    // The same, but the map takes over a reference to t that the caller gives: nothing is
    // counted.
    void adoptMember(PtrInterface* t, U32 h);

    // Where a key stands in the map: its hash, its bucket, and the member after which a new
    // member with the key is filed (null: first in the bucket).
    struct Place {
        U32 hash;
        U32 bucket;
        PtrInterface* pred;
    };
    // The member with the key (hash h; the first, should there be several), or null with
    // `place` set to where a new member with the key goes. One walk of the chain serves the
    // lookup and the insertion that follows it (adoptAt), where operator[] and newMember
    // would walk it twice.
    PtrInterface* findOrPlace(U32 h, void const* key, Place& place) const;
    // Files t (link null, its key the one findOrPlace placed, the map unchanged since) at
    // `place`, taking over a reference to t that the caller gives; then as newMember.
    void adoptAt(PtrInterface* t, Place const& place);
    // Unlinks t and releases the map's reference, after pinning the iterators standing on
    // t; false (and nothing changes) when t is not a member. May shrink the bucket array.
    bool deleteMember(PtrInterface* t);
    // Releases every member, one at a time and without recursion, and returns to the
    // initial bucket count. Iterators standing on members are pinned first.
    void deleteAll() noexcept;
    // Room for `members` members without growing: the bucket array grows now if it must, and
    // the map keeps at least that many buckets (it does not shrink below them) until
    // deleteAll. For a caller that knows a batch of insertions is coming. No member moves
    // relative to another; a failed allocation leaves the map as it was.
    void reserve(U32 members) noexcept;

    // The first member at or after (h, key); `bucket` receives its bucket (-1 if none).
    PtrInterface* startAt(U32 h, void const* key, S32& bucket) const;
    // The first member sorting strictly after m's position; m need not be a member any
    // more (an iterator's deleted member). `bucket` receives its bucket (-1 if none).
    PtrInterface* findNext(PtrInterface const* m, S32& bucket) const;

    // Same size and every member of this one has a member of equal key and value in other.
    bool equals(HashMapRaw const& other) const;

    // Empty when every invariant holds, else a text naming the first one broken.
    String8 verify() const;

  private:
    friend class HashMapIteratorRaw;

    U64 capacity(U32 bucketCount) const noexcept;
    U32 fit(U32 members) const noexcept;
    bool belowMinimumLoad() const noexcept;
    void maybeGrow() noexcept;
    void maybeShrink() noexcept;
    void resize(U32 bucketCount) noexcept;
    PtrInterface* seek(U32 h, void const* key, bool orEqual, S32& bucket) const;
    void releaseChains() noexcept;
    void swap(HashMapRaw& other) noexcept;
    // Pins every iterator standing on m, or on any member when m is null.
    void pinIterators(PtrInterface const* m) const noexcept;

    // The live iterators of this map; never copied, moved or swapped with the members.
    // First: asked about before a map is copied, it shares a cache line with what holds the
    // map (a shared value's state reads it beside its count).
    mutable HashMapIteratorRaw* iterators_ = nullptr;
    HashMapOps const* ops_;
    PtrInterface** buckets_;
    PtrInterface* inlineBucket_ = nullptr;
    // occupancyWords() words; inlineOccupied_ while bucketCount_ <= occupancyBits.
    OccupancyWord* occupied_;
    OccupancyWord inlineOccupied_ = 0;
    U32 version_ = 0;
    U32 count_ = 0;
    U32 bucketCount_ = 1;
    U32 shift_ = 31;
    U32 minBuckets_ = 1;
    U32 floorBuckets_ = 1;
};

// The untyped part of an iterator (see "Iterators" at the top of this file): the map, the
// member it stands on (null at the end), its bucket, the map's version when it last moved,
// whether it holds a counted reference of its own (pinned), and its links in the map's
// list of iterators. Everything but the plain step lives in HashMap.cpp.
class HashMapIteratorRaw {
  public:
    // Stands on the first member of map (at the end when the map is empty).
    explicit HashMapIteratorRaw(HashMapRaw const& map) noexcept;
    // Stands on the first member at or after (h, key).
    HashMapIteratorRaw(HashMapRaw const& map, U32 h, void const* key);
    // Stands where o stands, counting the member when o is pinned.
    HashMapIteratorRaw(HashMapIteratorRaw const& o) noexcept;
    // Takes o's place and its pin over; o is left at its end, still an iterator of its map.
    HashMapIteratorRaw(HashMapIteratorRaw&& o) noexcept;
    HashMapIteratorRaw& operator=(HashMapIteratorRaw const& o);
    HashMapIteratorRaw& operator=(HashMapIteratorRaw&& o);
    ~HashMapIteratorRaw();

    // Back to the first member of the map.
    void reset();

  protected:
    // The step after the map changed: the first member sorting strictly after the current
    // one (findNext); a pin on the member it leaves is released last.
    void stepAfterChange();

    HashMapRaw const* map_; // null once the map was destroyed
    PtrInterface* cur_ = nullptr;
    // The occupancy of the occupancyBits buckets from base_ on, as the plain step sees it:
    // bit i is set for each non-empty bucket base_ + i that the iterator has not left yet,
    // and the lowest one is the current member's bucket (0 at the end). Taken from the map
    // when the iterator last looked its member up; valid while the version is unchanged.
    HashMapRaw::OccupancyWord pending_ = 0;
    U32 base_ = 0;
    U32 version_ = 0;
    bool pinned_ = false;

    // Leaves the current bucket for the next non-empty one and returns its head; null after
    // the last one. Only while the version is unchanged.
    PtrInterface* nextHead() noexcept {
        pending_ &= pending_ - 1;
        while (!pending_) [[unlikely]] {
            base_ += HashMapRaw::occupancyBits;
            if (base_ >= map_->buckets()) return nullptr;
            pending_ = map_->occupancy(base_ / HashMapRaw::occupancyBits);
        }
        return map_->head(base_ + U32(std::countr_zero(pending_)));
    }
    S32 bucket() const noexcept {
        return cur_ ? S32(base_ + U32(std::countr_zero(pending_))) : -1;
    }

  private:
    friend class HashMapRaw;
    void link() noexcept;
    void unlink() noexcept;
    // Makes this unpinned iterator stand on m, found in `bucket` (-1: the end) of the map
    // as it is now.
    void standOnBucket(PtrInterface* m, S32 bucket);
    // Makes this iterator stand on m (null: the end) with the given state, taking over
    // `pinned` counted references; the reference it held on its previous member, if any,
    // is released last.
    void standOn(PtrInterface* m, bool pinned, U32 version, HashMapRaw::OccupancyWord pending,
                 U32 base);
    void pin() noexcept;

    HashMapIteratorRaw* nextIterator_ = nullptr;
    HashMapIteratorRaw** prevLink_ = nullptr; // the link that points at this iterator
};

template <class Member, class Key>
class HashMap {
    template <bool isConst>
    class IteratorBase;

  public:
    using VTable = HashMapVTable<Member, Key>;
    using Iterator = IteratorBase<false>;
    using IteratorConst = IteratorBase<true>;

    // initialSize: the starting bucket count (rounded up to a power of two); the map never
    // shrinks below it. The model code passes 1: small maps need no bucket array at all.
    explicit HashMap(U32 initialSize = 1) : raw_(VTable::ops, initialSize) {}

    // The hash that places a key: bitReverse(kalKeyHash(key)).
    static U32 hashOf(Key const& key) { return bitReverse(kalKeyHash(key)); }

    U32 members() const noexcept { return raw_.members(); }
    U32 buckets() const noexcept { return raw_.buckets(); }
    // Whether an iterator stands in the map (made through iterator(), not forEachMember).
    bool hasIterators() const noexcept { return raw_.hasIterators(); }
    U32 version() const noexcept { return raw_.version(); }

    // The member with the key (the first inserted, should there be several), or null.
    Member* operator[](Key const& key) noexcept { return find(key); }
    Member const* operator[](Key const& key) const noexcept { return find(key); }

    // Inserts t after every member at or before its position; t must be linked to nothing
    // and belong to no map, and `hash` is hashOf(t's key). The map takes a reference to t.
    void newMember(Member* t, U32 hash) {
        KAL_ASSERT(t->fwkHmNext() == 0);
        KAL_DASSERT(hash == hashOf(t->fwkKey()));
        raw_.newMember(t, hash);
    }
    void newMember(Member* t) { newMember(t, hashOf(t->fwkKey())); }
    void newMember(Ptr<Member> const& t, U32 hash) { newMember(t.ptr(), hash); }
    void newMember(Ptr<Member> const& t) { newMember(t.ptr()); }
    // The member with the key, or null with `place` set for newMemberAt (HashMapRaw::
    // findOrPlace): a lookup followed by an insertion, in one walk of the chain.
    using Place = HashMapRaw::Place;
    Member* findOrPlace(Key const& key, Place& place) { return findOrPlace(key, hashOf(key), place); }
    // The same for a caller that has the key's hash (hashOf(key)) at hand.
    Member* findOrPlace(Key const& key, U32 hash, Place& place) {
        KAL_DASSERT(hash == hashOf(key));
        return down(raw_.findOrPlace(hash, &key, place));
    }
    // Files t, whose key findOrPlace placed in the map as it still is; the map takes over
    // t's reference. Returns the member.
    Member* newMemberAt(Ptr<Member>&& t, Place const& place) {
        KAL_ASSERT(t->fwkHmNext() == 0);
        KAL_DASSERT(place.hash == hashOf(t->fwkKey()));
        Member* const m = t.release();
        raw_.adoptAt(m, place);
        return m;
    }

    // A pointer given up moves its reference into the map: nothing is counted.
    void newMember(Ptr<Member>&& t, U32 hash) {
        KAL_ASSERT(t->fwkHmNext() == 0);
        KAL_DASSERT(hash == hashOf(t->fwkKey()));
        raw_.adoptMember(t.release(), hash);
    }
    void newMember(Ptr<Member>&& t) {
        U32 const hash = hashOf(t->fwkKey());
        newMember(std::move(t), hash);
    }

    // Removes t if it is a member (returns whether it was). t's link is null afterwards.
    bool deleteMember(Ptr<Member> const& t) { return raw_.deleteMember(t.ptr()); }
    bool deleteMember(Member* t) { return raw_.deleteMember(t); }
    void deleteAll() noexcept { raw_.deleteAll(); }
    // Room for `members` members without growing, kept until deleteAll (HashMapRaw::reserve).
    void reserve(U32 members) noexcept { raw_.reserve(members); }

    // Batched lookups. A lookup costs a dependent cache miss for the bucket, one per member
    // of the chain, and whatever the caller then touches; a batch hides them by touching
    // ahead: prefetchBucket(key) a few lookups ahead, then prefetchHead(key) a few later
    // (it reads the bucket and touches the chain's first member, which is the key's member
    // seven times in ten or more). Both are hints: they change nothing and may be skipped.
    // They are inlined always: compiled apart, the optimizer finds them free of effects
    // (a prefetch writes nothing) and drops every call whose result goes unused.
    [[gnu::always_inline]] void prefetchBucket(Key const& key) const noexcept {
        __builtin_prefetch(raw_.headSlot(raw_.bucketOf(hashOf(key))));
    }
    // The first member of the key's chain (null for an empty bucket), touched; it need not
    // have the key.
    [[gnu::always_inline]] Member const* prefetchHead(Key const& key) const noexcept {
        Member const* m = down(raw_.head(raw_.bucketOf(hashOf(key))));
        if (m) __builtin_prefetch(m);
        return m;
    }
    // The first member of the key's chain, as prefetchHead finds it, without touching it:
    // for the stage after prefetchHead, which may then read it.
    Member const* chainHead(Key const& key) const noexcept {
        return down(raw_.head(raw_.bucketOf(hashOf(key))));
    }

    // The member with the key if present, else the first member after the key's position
    // in the map's order; null after the last.
    Member* startAtHash(Key const& key) noexcept {
        S32 bucket;
        return down(raw_.startAt(hashOf(key), &key, bucket));
    }
    Member const* startAtHash(Key const& key) const noexcept {
        S32 bucket;
        return down(raw_.startAt(hashOf(key), &key, bucket));
    }
    // The first member sorting strictly after m (which need not be a member); bucketIndex
    // receives that member's bucket, -1 when there is none.
    Member* findNext(Member const* m, S32& bucketIndex) noexcept {
        return down(raw_.findNext(m, bucketIndex));
    }
    Member const* findNext(Member const* m, S32& bucketIndex) const noexcept {
        return down(raw_.findNext(m, bucketIndex));
    }

    // Same size, and every member of one has a member with equal key and value in the other.
    // Maps of the same members list them in the same global order, whatever their bucket
    // counts, so walking both side by side settles it without a lookup (inlined: value types
    // compare their collections this way). Only members with equal keys (tolerated, never
    // made by the model code) can stand in another order in two equal maps, so a difference
    // found this way is checked again by lookup.
    bool operator==(HashMap const& other) const {
        if (members() != other.members()) return false;
        S32 bucketA = 0, bucketB = 0;
        Member const* a = down(raw_.firstFrom(0, bucketA));
        Member const* b = down(other.raw_.firstFrom(0, bucketB));
        while (a && b && a->fwkKey() == b->fwkKey() && a->fwkValueEquals(*b)) {
            a = a->fwkHmNext();
            if (!a) a = down(raw_.firstFrom(U32(bucketA) + 1, bucketA));
            b = b->fwkHmNext();
            if (!b) b = down(other.raw_.firstFrom(U32(bucketB) + 1, bucketB));
        }
        return !a || raw_.equals(other.raw_);
    }

    String8 verify() const { return raw_.verify(); }

    Iterator iterator() { return Iterator(*this); }
    IteratorConst iterator() const { return IteratorConst(*this); }
    IteratorConst iteratorConst() const { return IteratorConst(*this); }
    // Range-for support: for (Member& m : map).
    Iterator begin() { return Iterator(*this); }
    IteratorConst begin() const { return IteratorConst(*this); }
    std::default_sentinel_t end() const noexcept { return {}; }

    // Calls f(member) for every member in map order, without registering an iterator: the
    // walk must not change the map (checked in debug builds). The buckets come from the
    // occupancy words, a count of trailing zeros each; empty ones cost nothing but their bit.
    template <class F>
    void forEachMember(F&& f) const {
        [[maybe_unused]] U32 const version = raw_.version();
        U32 const words = raw_.occupancyWords();
        for (U32 w = 0; w < words; ++w) {
            U32 const base = w * HashMapRaw::occupancyBits;
            for (HashMapRaw::OccupancyWord bits = raw_.occupancy(w); bits; bits &= bits - 1) {
                U32 const b = base + U32(std::countr_zero(bits));
                for (Member const* m = down(raw_.head(b)); m; m = m->fwkHmNext()) {
                    f(*m);
                    KAL_DASSERT(raw_.version() == version);
                }
            }
        }
    }

  private:
    static Member* down(PtrInterface* p) noexcept { return static_cast<Member*>(p); }
    static Member const* down(PtrInterface const* p) noexcept {
        return static_cast<Member const*>(p);
    }

    // The lookup, inlined: the first member of the key's chain that has the key (see
    // "Lookup" at the top of this file).
    Member* find(Key const& key) const noexcept {
        U32 const h = hashOf(key);
        for (Member* m = down(raw_.head(raw_.bucketOf(h))); m; m = m->fwkHmNext()) {
            if (key == m->fwkKey()) return m;
        }
        return nullptr;
    }

    HashMapRaw raw_;
};

template <class Member, class Key>
template <bool isConst>
class HashMap<Member, Key>::IteratorBase : public HashMapIteratorRaw {
  public:
    using MapType = std::conditional_t<isConst, HashMap const, HashMap>;
    using MemberType = std::conditional_t<isConst, Member const, Member>;

    // Stands on the first member of the map (at the end when the map is empty).
    explicit IteratorBase(MapType& map) noexcept : HashMapIteratorRaw(map.raw_) {}
    // Stands on the member with the key if present, else on the first one after it.
    IteratorBase(MapType& map, Key const& key) : HashMapIteratorRaw(map.raw_, hashOf(key), &key) {}
    template <bool c = isConst, class = std::enable_if_t<c>>
    IteratorBase(IteratorBase<false> const& o) noexcept : HashMapIteratorRaw(o) {}

    Key const& key() const { return member()->fwkKey(); }
    MemberType* ptr() const noexcept { return member(); }
    MemberType* operator->() const noexcept {
        KAL_DASSERT(cur_);
        return member();
    }
    MemberType& operator*() const noexcept {
        KAL_DASSERT(cur_);
        return *member();
    }
    // The bucket of the current member when the iterator last moved; -1 at the end.
    S32 bucketIndex() const noexcept { return bucket(); }

    explicit operator bool() const noexcept { return cur_ != nullptr; }
    bool isEnd() const noexcept { return cur_ == nullptr; }
    friend bool operator==(IteratorBase const& i, std::default_sentinel_t) noexcept {
        return i.cur_ == nullptr;
    }

    IteratorBase& operator++() {
        if (!cur_) return *this;
        KAL_DASSERT(map_);
        if (map_->version() == version_) [[likely]] {
            // The map holds the current member and nothing moved: its link or the head of
            // the next non-empty bucket is the successor, and nothing is counted. Most
            // members end their chain (seven in ten or more at the loads the map keeps).
            KAL_DASSERT(!pinned_);
            PtrInterface* next = member()->fwkHmNext();
            if (!next) [[likely]] next = nextHead();
            cur_ = next;
        } else {
            stepAfterChange();
        }
        return *this;
    }

  private:
    MemberType* member() const noexcept { return static_cast<MemberType*>(cur_); }
};

} // namespace Kal
