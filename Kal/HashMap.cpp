#include "Kal/HashMap.h"

#include <memory>
#include <new>
#include <string>
#include <utility>

#include <sys/mman.h>

namespace Kal {

namespace {

// Sizing. A bucket array of B buckets holds up to capacity(B) = max(smallMapMembers,
// B * maxLoad) members; one more and it grows to the smallest power of two that holds the
// new count (a doubling, back to half the maximum load). It shrinks when the load falls
// below a quarter of the maximum, to a size at most half loaded again, so that a map
// hovering around one size does not resize back and forth.
//
// maxLoad 3/4, so the load stays between 3/8 and 3/4. Measured with bench/HashMapBench.cpp
// (random U64 keys, x86-64, medians of runs that scatter by about 10%):
// - a lookup costs a dependent cache miss per member it visits and a mispredicted branch
//   whenever the first member is not the one: at 1M members a hit took about 97 ns at
//   load 1.0 (std::unordered_map 94), 91 ns at load 3/4 (std 86), 85 ns at 1/2 (std 89);
//   a maximum of 2 cost a third more than 1;
// - a walk pays for empty buckets: a full walk of 1K members took 1.7 ns per member at
//   load 1.0 and 2.9 ns at 1/2 (measured before walks skipped empty buckets through the
//   occupancy bits, which made the load matter much less to them);
// - bucket pointers cost 4/3 to 8/3 words per member, and their occupancy bits 1/64 of
//   that; a member is five words or more.
// 3/4 is the compromise; lower loads buy little lookup time for memory and slower walks.
//
// smallMapMembers 8: a map of a few members (the vias of a via set) stays in its inline
// bucket as one sorted chain and allocates no bucket array. Building and probing maps of
// 2, 4 and 8 members ran 8% to 33% faster than with the load rule alone.
constexpr U32 maxLoadNum = 3;
constexpr U32 maxLoadDen = 4;
constexpr U32 smallMapMembers = 8;
constexpr U32 maxBucketCount = 1u << 30;

U32 log2OfPowerOfTwo(U32 x) noexcept {
    U32 k = 0;
    while ((1u << k) < x) ++k;
    return k;
}

bool isPowerOfTwo(U32 x) noexcept { return x != 0 && (x & (x - 1)) == 0; }

U32 bucketIn(U32 h, U32 shift) noexcept { return (h >> shift) >> 1; }

// Bucket arrays, zeroed. A large one is mapped straight from the system with its pages in
// place (MAP_POPULATE): a bucket array is written or read all over right after it is made,
// and the kernel fills the pages in one pass for less than a fault per page costs (two for
// a page read before it is written), while the zeroing of a general heap block is saved.
constexpr std::size_t mappedBucketBytes = std::size_t(256) << 10;

std::size_t bucketBytes(U32 count) noexcept { return std::size_t(count) * sizeof(PtrInterface*); }

// Null when there is no memory.
PtrInterface** allocateBuckets(U32 count) noexcept {
    if (bucketBytes(count) >= mappedBucketBytes) {
        void* const p = ::mmap(nullptr, bucketBytes(count), PROT_READ | PROT_WRITE,
                               MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
        return p == MAP_FAILED ? nullptr : static_cast<PtrInterface**>(p);
    }
    return new (std::nothrow) PtrInterface*[count]();
}

void freeBuckets(PtrInterface** buckets, U32 count) noexcept {
    if (bucketBytes(count) >= mappedBucketBytes) {
        ::munmap(buckets, bucketBytes(count));
    } else {
        delete[] buckets;
    }
}

// A bucket array of `count` buckets owned until released.
class BucketArray {
  public:
    explicit BucketArray(U32 count) : count_(count), buckets_(allocateBuckets(count)) {
        if (!buckets_) throw std::bad_alloc();
    }
    BucketArray(BucketArray const&) = delete;
    BucketArray& operator=(BucketArray const&) = delete;
    ~BucketArray() {
        if (buckets_) freeBuckets(buckets_, count_);
    }
    PtrInterface** release() noexcept { return std::exchange(buckets_, nullptr); }

  private:
    U32 count_;
    PtrInterface** buckets_;
};

using OccupancyWord = HashMapRaw::OccupancyWord;
constexpr U32 occupancyBits = HashMapRaw::occupancyBits;

U32 occupancyWordsFor(U32 buckets) noexcept {
    return (buckets + occupancyBits - 1) / occupancyBits;
}

// A map keeps its occupancy in its inline word up to occupancyBits buckets.
bool occupancyInline(U32 buckets) noexcept { return buckets <= occupancyBits; }

void occupy(OccupancyWord* bits, U32 bucket) noexcept {
    bits[bucket / occupancyBits] |= OccupancyWord(1) << (bucket % occupancyBits);
}

void vacate(OccupancyWord* bits, U32 bucket) noexcept {
    bits[bucket / occupancyBits] &= ~(OccupancyWord(1) << (bucket % occupancyBits));
}

std::string text(U32 n) { return std::to_string(n); }

} // namespace

HashMapRaw::HashMapRaw(HashMapOps const& ops, U32 initialSize)
    : ops_(&ops), buckets_(&inlineBucket_), occupied_(&inlineOccupied_) {
    U32 n = 1;
    while (n < initialSize && n < maxBucketCount) n <<= 1;
    if (n > 1) {
        BucketArray fresh(n);
        if (!occupancyInline(n)) occupied_ = new OccupancyWord[occupancyWordsFor(n)]();
        buckets_ = fresh.release();
        bucketCount_ = n;
        shift_ = 31 - log2OfPowerOfTwo(n);
    }
    minBuckets_ = n;
    floorBuckets_ = n;
}

HashMapRaw::HashMapRaw(HashMapRaw const& other) : HashMapRaw(*other.ops_, other.minBuckets_) {
    // This object is complete from here on: if a clone throws, the destructor releases the
    // members copied so far.
    if (other.bucketCount_ != bucketCount_) {
        BucketArray fresh(other.bucketCount_);
        OccupancyWord* bits = &inlineOccupied_;
        if (!occupancyInline(other.bucketCount_)) {
            bits = new OccupancyWord[occupancyWordsFor(other.bucketCount_)]();
        }
        if (buckets_ != &inlineBucket_) freeBuckets(buckets_, bucketCount_);
        if (occupied_ != &inlineOccupied_) delete[] occupied_;
        buckets_ = fresh.release();
        occupied_ = bits;
        bucketCount_ = other.bucketCount_;
        shift_ = other.shift_;
    }
    floorBuckets_ = other.floorBuckets_;
    for (U32 b = 0; b < other.bucketCount_; ++b) {
        PtrInterface* tail = nullptr;
        for (PtrInterface* m = other.buckets_[b]; m; m = ops_->next(m)) {
            // A clone is new and this thread's alone: its one reference is counted without
            // an atomic operation.
            PtrInterface* c = ops_->clone(m);
            c->kalFirstReference();
            if (tail) {
                ops_->adoptNext(tail, c);
            } else {
                buckets_[b] = c;
                occupy(occupied_, b);
            }
            tail = c;
            ++count_;
            ++version_;
        }
    }
}

HashMapRaw& HashMapRaw::operator=(HashMapRaw const& other) {
    if (this == &other) return *this;
    HashMapRaw copy(other);
    // The old members go with copy: this map's iterators keep theirs.
    pinIterators(nullptr);
    // Every old member is deleted and every new one inserted.
    U32 const version = version_ + count_ + copy.count_;
    swap(copy);
    version_ = version;
    return *this;
}

// A map's versions only grow (short of wrapping around), so an iterator that has seen a
// change never mistakes the map for unchanged. A moved-from map counts the members that left
// it, so its iterators, pinned on members another map now holds, take the careful step.
// The members change hands without a swap: this map is new, other is left as a new map
// with one bucket would be. (Values holding maps are moved into collection members all the
// time.)
HashMapRaw::HashMapRaw(HashMapRaw&& other) noexcept
    : ops_(other.ops_),
      buckets_(other.buckets_ == &other.inlineBucket_ ? &inlineBucket_ : other.buckets_),
      inlineBucket_(other.inlineBucket_),
      occupied_(other.occupied_ == &other.inlineOccupied_ ? &inlineOccupied_ : other.occupied_),
      inlineOccupied_(other.inlineOccupied_), version_(other.version_), count_(other.count_),
      bucketCount_(other.bucketCount_), shift_(other.shift_), minBuckets_(other.minBuckets_),
      floorBuckets_(other.floorBuckets_) {
    if (other.iterators_) other.pinIterators(nullptr);
    other.version_ += other.count_;
    other.buckets_ = &other.inlineBucket_;
    other.inlineBucket_ = nullptr;
    other.occupied_ = &other.inlineOccupied_;
    other.inlineOccupied_ = 0;
    other.count_ = 0;
    other.bucketCount_ = 1;
    other.shift_ = 31;
    other.minBuckets_ = 1;
    other.floorBuckets_ = 1;
}

HashMapRaw& HashMapRaw::operator=(HashMapRaw&& other) noexcept {
    if (this == &other) return *this;
    pinIterators(nullptr);
    other.pinIterators(nullptr);
    U32 const version = version_ + count_ + other.count_;
    U32 const otherVersion = other.version_ + other.count_;
    swap(other);
    version_ = version;
    other.version_ = otherVersion;
    // The members this map held are released, not handed to other.
    other.deleteAll();
    other.resize(1);
    other.minBuckets_ = 1;
    other.floorBuckets_ = 1;
    return *this;
}

HashMapRaw::~HashMapRaw() {
    // Iterators that outlive the map (they must not be used) keep their members and forget
    // the map, so that destroying them later touches neither.
    if (iterators_) {
        pinIterators(nullptr);
        for (HashMapIteratorRaw* i = iterators_; i;) {
            HashMapIteratorRaw* const next = i->nextIterator_;
            i->map_ = nullptr;
            i->nextIterator_ = nullptr;
            i->prevLink_ = nullptr;
            i = next;
        }
        iterators_ = nullptr;
    }
    if (count_) releaseChains();
    if (buckets_ != &inlineBucket_) freeBuckets(buckets_, bucketCount_);
    if (occupied_ != &inlineOccupied_) delete[] occupied_;
}

void HashMapRaw::swap(HashMapRaw& other) noexcept {
    bool const thisInline = buckets_ == &inlineBucket_;
    bool const otherInline = other.buckets_ == &other.inlineBucket_;
    std::swap(ops_, other.ops_);
    std::swap(buckets_, other.buckets_);
    std::swap(inlineBucket_, other.inlineBucket_);
    if (thisInline) other.buckets_ = &other.inlineBucket_;
    if (otherInline) buckets_ = &inlineBucket_;
    bool const thisBitsInline = occupied_ == &inlineOccupied_;
    bool const otherBitsInline = other.occupied_ == &other.inlineOccupied_;
    std::swap(occupied_, other.occupied_);
    std::swap(inlineOccupied_, other.inlineOccupied_);
    if (thisBitsInline) other.occupied_ = &other.inlineOccupied_;
    if (otherBitsInline) occupied_ = &inlineOccupied_;
    std::swap(version_, other.version_);
    std::swap(count_, other.count_);
    std::swap(bucketCount_, other.bucketCount_);
    std::swap(shift_, other.shift_);
    std::swap(minBuckets_, other.minBuckets_);
    std::swap(floorBuckets_, other.floorBuckets_);
}

// Inlined: every insertion asks.
[[gnu::always_inline]] inline U64 HashMapRaw::capacity(U32 bucketCount) const noexcept {
    U64 const byLoad = U64(bucketCount) * maxLoadNum / maxLoadDen;
    return byLoad > smallMapMembers ? byLoad : smallMapMembers;
}

U32 HashMapRaw::fit(U32 members) const noexcept {
    U32 b = floorBuckets_;
    while (capacity(b) < members && b < maxBucketCount) b <<= 1;
    return b;
}

bool HashMapRaw::belowMinimumLoad() const noexcept {
    // count / bucketCount < maxLoad / 4
    return U64(count_) * 4 * maxLoadDen < U64(bucketCount_) * maxLoadNum;
}

void HashMapRaw::maybeGrow() noexcept {
    if (count_ > capacity(bucketCount_) && bucketCount_ < maxBucketCount) resize(fit(count_));
}

void HashMapRaw::maybeShrink() noexcept {
    if (bucketCount_ > floorBuckets_ && belowMinimumLoad()) resize(fit(2 * count_));
}

void HashMapRaw::reserve(U32 members) noexcept {
    U32 const b = fit(members);
    if (b <= floorBuckets_) return;
    if (b > bucketCount_) resize(b);
    // Only a reservation that took hold becomes the floor: a failed allocation leaves the map
    // as it was, rules included.
    if (bucketCount_ >= b) floorBuckets_ = b;
}

// Splits or joins chains into the new bucket array; see "Why resizing never re-sorts". No
// reference changes hands except at the joins, where a chain head held by the bucket array
// becomes held by the previous chain's last link. A failed allocation leaves the map as it
// was: over- or under-loaded, but sound.
void HashMapRaw::resize(U32 newCount) noexcept {
    if (newCount == bucketCount_) return;
    PtrInterface** fresh = &inlineBucket_;
    if (newCount > 1) {
        fresh = allocateBuckets(newCount);
        if (!fresh) return;
    }
    // The new occupancy, built with the new chains.
    OccupancyWord freshInlineBits = 0;
    OccupancyWord* bits = &freshInlineBits;
    if (!occupancyInline(newCount)) {
        bits = new (std::nothrow) OccupancyWord[occupancyWordsFor(newCount)]();
        if (!bits) {
            if (fresh != &inlineBucket_) freeBuckets(fresh, newCount);
            return;
        }
    }
    U32 const newShift = 31 - log2OfPowerOfTwo(newCount);
    PtrInterface** old = buckets_;
    if (newCount > bucketCount_) {
        for (U32 b = 0; b < bucketCount_; ++b) {
            PtrInterface* m = old[b];
            old[b] = nullptr;
            if (!m) continue;
            U32 nb = bucketIn(ops_->hash(m), newShift);
            while (m) {
                // m starts a run of members for bucket nb: find its end.
                fresh[nb] = m;
                occupy(bits, nb);
                PtrInterface* last = m;
                PtrInterface* n = ops_->next(last);
                U32 nextNb = nb;
                while (n && (nextNb = bucketIn(ops_->hash(n), newShift)) == nb) {
                    last = n;
                    n = ops_->next(last);
                }
                m = n ? ops_->takeNext(last) : nullptr;
                nb = nextNb;
            }
        }
    } else {
        U32 const joined = bucketCount_ / newCount;
        for (U32 nb = 0; nb < newCount; ++nb) {
            PtrInterface* tail = nullptr;
            PtrInterface* first = nullptr;
            for (U32 b = nb * joined; b < (nb + 1) * joined; ++b) {
                PtrInterface* m = old[b];
                old[b] = nullptr;
                if (!m) continue;
                if (tail) {
                    // The bucket array's reference moves to tail's link.
                    ops_->adoptNext(tail, m);
                } else {
                    first = m;
                }
                tail = m;
                while (PtrInterface* n = ops_->next(tail)) tail = n;
            }
            fresh[nb] = first;
            if (first) occupy(bits, nb);
        }
    }
    if (old != &inlineBucket_) freeBuckets(old, bucketCount_);
    buckets_ = fresh;
    if (occupied_ != &inlineOccupied_) delete[] occupied_;
    if (bits == &freshInlineBits) {
        inlineOccupied_ = freshInlineBits;
        occupied_ = &inlineOccupied_;
    } else {
        occupied_ = bits;
    }
    bucketCount_ = newCount;
    shift_ = newShift;
}

void HashMapRaw::newMember(PtrInterface* t, U32 h) {
    t->referencesInc();
    adoptMember(t, h);
}

void HashMapRaw::adoptMember(PtrInterface* t, U32 h) {
    void const* key = ops_->key(t);
    Place place{h, bucketOf(h), nullptr};
    for (PtrInterface* m = buckets_[place.bucket]; m; m = ops_->next(m)) {
        U32 const mh = ops_->hash(m);
        if (mh > h || (mh == h && ops_->keyLessThan(key, m))) break;
        place.pred = m;
    }
    adoptAt(t, place);
}

PtrInterface* HashMapRaw::findOrPlace(U32 h, void const* key, Place& place) const {
    place = Place{h, bucketOf(h), nullptr};
    bool placed = false;
    for (PtrInterface* m = buckets_[place.bucket]; m; m = ops_->next(m)) {
        U32 const mh = ops_->hash(m);
        // Later members sort after the key's hash: none of them has the key.
        if (mh > h) break;
        if (mh == h && ops_->keyEquals(key, m)) return m;
        // The place is after every member at or before the key's position; members of the
        // same hash after it are still looked at for the key (equal keys are tolerated
        // anywhere among them).
        if (!placed) {
            if (mh == h && ops_->keyLessThan(key, m))
                placed = true;
            else
                place.pred = m;
        }
    }
    return nullptr;
}

void HashMapRaw::adoptAt(PtrInterface* t, Place const& place) {
    if (place.pred) {
        ops_->linkAfter(place.pred, t);
    } else {
        if (PtrInterface* head = buckets_[place.bucket]) {
            // t's link takes over the bucket array's reference to the old head.
            ops_->adoptNext(t, head);
        } else {
            occupy(occupied_, place.bucket);
        }
        buckets_[place.bucket] = t;
    }
    ++count_;
    ++version_;
    if (count_ > capacity(bucketCount_)) [[unlikely]]
        maybeGrow();
}

bool HashMapRaw::deleteMember(PtrInterface* t) {
    if (!t) return false;
    // Our own reference for the duration: t survives the release of the map's reference
    // until the map is consistent again.
    Ptr<PtrInterface const> const hold(t);
    U32 const b = bucketOf(ops_->hash(t));
    PtrInterface* head = buckets_[b];
    if (head == t) {
        buckets_[b] = ops_->takeNext(t);
        if (!buckets_[b]) vacate(occupied_, b);
    } else {
        PtrInterface* pred = head;
        while (pred && ops_->next(pred) != t) pred = ops_->next(pred);
        if (!pred) return false;
        ops_->unlinkAfter(pred);
    }
    --count_;
    ++version_;
    if (iterators_) pinIterators(t);
    t->referencesDec();
    maybeShrink();
    return true;
}

void HashMapRaw::releaseChains() noexcept {
    // Each chain is detached from its bucket before any of it is released, and each member
    // is unlinked from its successor before its reference goes: the map stays consistent
    // whatever a member's destructor does, and releasing a member never releases the next
    // one from inside its destructor (no recursion along a chain, however long).
    for (U32 b = 0; b < bucketCount_; ++b) {
        PtrInterface* m = buckets_[b];
        if (!m) continue;
        buckets_[b] = nullptr;
        vacate(occupied_, b);
        while (m) {
            PtrInterface* next = ops_->takeNext(m);
            --count_;
            ++version_;
            m->referencesDec();
            m = next;
        }
    }
}

void HashMapRaw::deleteAll() noexcept {
    pinIterators(nullptr);
    releaseChains();
    floorBuckets_ = minBuckets_;
    resize(minBuckets_);
}

void HashMapRaw::pinIterators(PtrInterface const* m) const noexcept {
    for (HashMapIteratorRaw* i = iterators_; i; i = i->nextIterator_) {
        if (!m || i->cur_ == m) i->pin();
    }
}

// Iterators. The map's list links every live iterator through nextIterator_; prevLink_ is
// the link that points at the iterator (the map's iterators_ or the previous iterator's
// nextIterator_), so that an iterator leaves the list in constant time.

HashMapIteratorRaw::HashMapIteratorRaw(HashMapRaw const& map) noexcept : map_(&map) {
    S32 bucket;
    PtrInterface* const first = map.firstFrom(0, bucket);
    standOnBucket(first, bucket);
    link();
}

HashMapIteratorRaw::HashMapIteratorRaw(HashMapRaw const& map, U32 h, void const* key)
    : map_(&map) {
    S32 bucket;
    PtrInterface* const start = map.startAt(h, key, bucket);
    standOnBucket(start, bucket);
    link();
}

HashMapIteratorRaw::HashMapIteratorRaw(HashMapIteratorRaw const& o) noexcept
    : map_(o.map_), cur_(o.cur_), pending_(o.pending_), base_(o.base_), version_(o.version_),
      pinned_(o.pinned_) {
    if (pinned_) cur_->referencesInc();
    link();
}

HashMapIteratorRaw::HashMapIteratorRaw(HashMapIteratorRaw&& o) noexcept
    : map_(o.map_), cur_(std::exchange(o.cur_, nullptr)), pending_(std::exchange(o.pending_, 0)),
      base_(o.base_), version_(o.version_), pinned_(std::exchange(o.pinned_, false)) {
    link();
}

// Same map, same version: o's pending occupancy holds for this iterator too.
HashMapIteratorRaw& HashMapIteratorRaw::operator=(HashMapIteratorRaw const& o) {
    if (this == &o) return *this;
    if (o.pinned_) o.cur_->referencesInc();
    if (map_ != o.map_) {
        unlink();
        map_ = o.map_;
        link();
    }
    standOn(o.cur_, o.pinned_, o.version_, o.pending_, o.base_);
    return *this;
}

HashMapIteratorRaw& HashMapIteratorRaw::operator=(HashMapIteratorRaw&& o) {
    if (this == &o) return *this;
    if (map_ != o.map_) {
        unlink();
        map_ = o.map_;
        link();
    }
    bool const pinned = std::exchange(o.pinned_, false);
    OccupancyWord const pending = std::exchange(o.pending_, 0);
    standOn(std::exchange(o.cur_, nullptr), pinned, o.version_, pending, o.base_);
    return *this;
}

HashMapIteratorRaw::~HashMapIteratorRaw() {
    unlink();
    if (pinned_) cur_->referencesDec();
}

void HashMapIteratorRaw::reset() {
    KAL_DASSERT(map_);
    S32 bucket;
    PtrInterface* const first = map_->firstFrom(0, bucket);
    standOnBucket(first, bucket);
}

void HashMapIteratorRaw::stepAfterChange() {
    KAL_DASSERT(map_);
    KAL_DASSERT(cur_);
    // cur_ is held by the map or by the pin: its hash and key are there to search from.
    S32 bucket;
    PtrInterface* const next = map_->findNext(cur_, bucket);
    standOnBucket(next, bucket);
}

void HashMapIteratorRaw::standOnBucket(PtrInterface* m, S32 bucket) {
    OccupancyWord pending = 0;
    U32 base = 0;
    if (bucket >= 0) {
        U32 const b = U32(bucket);
        base = b - b % occupancyBits;
        pending = map_->occupancy(b / occupancyBits) & (~OccupancyWord(0) << (b % occupancyBits));
    }
    standOn(m, false, map_->version_, pending, base);
}

void HashMapIteratorRaw::standOn(PtrInterface* m, bool pinned, U32 version, OccupancyWord pending,
                                 U32 base) {
    PtrInterface* const old = cur_;
    bool const oldPinned = pinned_;
    cur_ = m;
    pinned_ = pinned;
    version_ = version;
    pending_ = pending;
    base_ = base;
    // Last: releasing the old member may destroy it, and its destructor may do anything.
    if (oldPinned) old->referencesDec();
}

void HashMapIteratorRaw::pin() noexcept {
    if (cur_ && !pinned_) {
        cur_->referencesInc();
        pinned_ = true;
    }
}

void HashMapIteratorRaw::link() noexcept {
    if (!map_) return; // a copy of an iterator whose map is gone
    nextIterator_ = map_->iterators_;
    prevLink_ = &map_->iterators_;
    if (nextIterator_) nextIterator_->prevLink_ = &nextIterator_;
    map_->iterators_ = this;
}

void HashMapIteratorRaw::unlink() noexcept {
    if (!prevLink_) return;
    *prevLink_ = nextIterator_;
    if (nextIterator_) nextIterator_->prevLink_ = prevLink_;
    nextIterator_ = nullptr;
    prevLink_ = nullptr;
}

PtrInterface* HashMapRaw::seek(U32 h, void const* key, bool orEqual, S32& bucket) const {
    U32 const b = bucketOf(h);
    for (PtrInterface* m = buckets_[b]; m; m = ops_->next(m)) {
        U32 const mh = ops_->hash(m);
        if (mh < h) continue;
        if (mh > h || ops_->keyLessThan(key, m) || (orEqual && ops_->keyEquals(key, m))) {
            bucket = S32(b);
            return m;
        }
    }
    return firstFrom(b + 1, bucket);
}

PtrInterface* HashMapRaw::startAt(U32 h, void const* key, S32& bucket) const {
    return seek(h, key, true, bucket);
}

PtrInterface* HashMapRaw::findNext(PtrInterface const* m, S32& bucket) const {
    return seek(ops_->hash(m), ops_->key(m), false, bucket);
}

bool HashMapRaw::equals(HashMapRaw const& other) const {
    if (count_ != other.count_) return false;
    for (U32 b = 0; b < bucketCount_; ++b) {
        for (PtrInterface* m = buckets_[b]; m; m = ops_->next(m)) {
            U32 const h = ops_->hash(m);
            void const* key = ops_->key(m);
            // Members with m's key sit together in one chain of the other map.
            PtrInterface* o = other.buckets_[other.bucketOf(h)];
            while (o && !ops_->keyEquals(key, o)) o = ops_->next(o);
            bool found = false;
            for (; o && ops_->keyEquals(key, o); o = ops_->next(o)) {
                if (ops_->valueEquals(m, o)) {
                    found = true;
                    break;
                }
            }
            if (!found) return false;
        }
    }
    return true;
}

String8 HashMapRaw::verify() const {
    if (!isPowerOfTwo(bucketCount_)) {
        return String8("bucket count " + text(bucketCount_) + " is not a power of two");
    }
    if (shift_ > 31 || (1u << (31 - shift_)) != bucketCount_) {
        return String8("bucket shift " + text(shift_) + " does not match bucket count " +
                       text(bucketCount_));
    }
    if ((bucketCount_ == 1) != (buckets_ == &inlineBucket_)) {
        return String8("bucket array and bucket count " + text(bucketCount_) + " disagree");
    }
    if (occupancyInline(bucketCount_) != (occupied_ == &inlineOccupied_)) {
        return String8("occupancy words and bucket count " + text(bucketCount_) + " disagree");
    }
    for (U32 b = 0; b < bucketCount_; ++b) {
        bool const bit = (occupied_[b / occupancyBits] >> (b % occupancyBits)) & 1;
        if (bit != (buckets_[b] != nullptr)) {
            return String8("occupancy bit of bucket " + text(b) + (bit ? " set" : " clear") +
                           " but the bucket is " + (bit ? "empty" : "not empty"));
        }
    }
    if (U32 const used = bucketCount_ % occupancyBits) {
        if (occupied_[bucketCount_ / occupancyBits] >> used) {
            return String8("occupancy bits set past the last bucket " + text(bucketCount_ - 1));
        }
    }
    U32 seen = 0;
    for (U32 b = 0; b < bucketCount_; ++b) {
        PtrInterface const* prev = nullptr;
        U32 prevHash = 0;
        for (PtrInterface const* m = buckets_[b]; m; m = ops_->next(m)) {
            ++seen;
            U32 const h = ops_->hash(m);
            U32 const home = bucketOf(h);
            if (home != b) {
                if (prev) {
                    return String8("chain of bucket " + text(b) +
                                   " does not end with a null link: it runs into bucket " +
                                   text(home));
                }
                return String8("member in bucket " + text(b) + " belongs in bucket " +
                               text(home));
            }
            bool const outOfOrder =
                prev && (h < prevHash || (h == prevHash && ops_->keyLessThan(ops_->key(m), prev)));
            if (outOfOrder) {
                return String8("chain of bucket " + text(b) +
                               " is out of (hash, key) order at member " + text(seen));
            }
            if (seen > count_) {
                return String8("chains hold more than the member count " + text(count_) +
                               " (a cycle or a stray link, in bucket " + text(b) + ")");
            }
            if (m->references() == 0) {
                return String8("member " + text(seen) + " in bucket " + text(b) +
                               " holds no reference");
            }
            prev = m;
            prevHash = h;
        }
    }
    if (seen != count_) {
        return String8("member count " + text(count_) + " but " + text(seen) +
                       " members in the chains");
    }
    if (count_ > capacity(bucketCount_) && bucketCount_ < maxBucketCount) {
        return String8("load above bounds: " + text(count_) + " members in " +
                       text(bucketCount_) + " buckets");
    }
    if (bucketCount_ > floorBuckets_ && belowMinimumLoad()) {
        return String8("load below bounds: " + text(count_) + " members in " +
                       text(bucketCount_) + " buckets");
    }
    return String8();
}

} // namespace Kal
