#include "Kal/HashMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <unordered_map>
#include <vector>

namespace {

// Live member objects of every test member class, and how many were made by copying. A
// test ends with no live members; only map copies may copy members.
int liveMembers = 0;
int memberCopies = 0;

// A member class of the shape the model code generates: key, value, chain link.
template <class Key>
class KalEntry : public Kal::PtrInterface {
  public:
    KalEntry(Key key, U64 value) : kal_index_(std::move(key)), value_(value) { ++liveMembers; }
    KalEntry(KalEntry const& o)
        : Kal::PtrInterface(o), kal_index_(o.kal_index_), value_(o.value_) {
        ++liveMembers;
        ++memberCopies;
    }
    KalEntry& operator=(KalEntry const&) = delete;
    ~KalEntry() override {
        if (alive_ != aliveMark) ADD_FAILURE() << "member destroyed twice";
        alive_ = 0;
        --liveMembers;
    }

    Key const& fwkKey() const { return kal_index_; }
    U64 value() const { return value_; }
    void valueIs(U64 v) { value_ = v; }
    KalEntry* fwkHmNext() const { return fwkHmNext_.ptr(); }
    void fwkHmNextIs(KalEntry* n) { fwkHmNext_ = n; }
    bool fwkValueEquals(KalEntry const& o) const { return value_ == o.value_; }

  private:
    template <class, class>
    friend struct Kal::HashMapVTable;
    static constexpr U32 aliveMark = 0xA11CE;

    Key kal_index_;
    U64 value_;
    Kal::Ptr<KalEntry> fwkHmNext_;
    U32 alive_ = aliveMark;
};

// Every key has the same hash: all members share one chain, ordered by key alone.
struct CollidingKey {
    U32 id;
    U32 hash() const { return 0x9E3779B9u; }
    friend bool operator==(CollidingKey, CollidingKey) = default;
    friend bool operator<(CollidingKey a, CollidingKey b) { return a.id < b.id; }
};

using Entry = KalEntry<U64>;
using Map = Kal::HashMap<Entry, U64>;
using CollidingEntry = KalEntry<CollidingKey>;
using CollidingMap = Kal::HashMap<CollidingEntry, CollidingKey>;

// The map order, derived from the rules rather than from the map: ascending (reversed hash,
// key).
bool sortsBefore(U64 a, U64 b) {
    U32 const ha = Kal::bitReverse(Kal::kalKeyHash(a));
    U32 const hb = Kal::bitReverse(Kal::kalKeyHash(b));
    return ha != hb ? ha < hb : a < b;
}

std::vector<U64> inMapOrder(std::vector<U64> keys) {
    std::sort(keys.begin(), keys.end(), sortsBefore);
    return keys;
}

template <class M>
auto keysOf(M const& map) {
    std::vector<std::decay_t<decltype(map.begin()->fwkKey())>> keys;
    for (auto i = map.iterator(); i; ++i) keys.push_back(i.key());
    return keys;
}

Kal::Ptr<Entry> insert(Map& map, U64 key, U64 value = 0) {
    Kal::Ptr<Entry> e = new Entry(key, value);
    map.newMember(e);
    return e;
}

std::vector<U64> randomKeys(std::mt19937_64& rng, size_t n) {
    std::set<U64> seen;
    std::vector<U64> keys;
    while (keys.size() < n) {
        U64 const k = rng();
        if (seen.insert(k).second) keys.push_back(k);
    }
    return keys;
}

U32 bucketCountLog2(U32 buckets) {
    U32 k = 0;
    while ((1u << k) < buckets) ++k;
    return k;
}

class HashMapTest : public ::testing::Test {
  protected:
    void SetUp() override {
        liveMembers = 0;
        memberCopies = 0;
    }
    void TearDown() override {
        EXPECT_EQ(liveMembers, 0) << "members leaked or destroyed twice";
    }
};

TEST(HashMapHashTest, BitReverseMovesBitIToBit31MinusI) {
    auto slow = [](U32 x) {
        U32 r = 0;
        for (int i = 0; i < 32; ++i) {
            if (x & (1u << i)) r |= 1u << (31 - i);
        }
        return r;
    };
    for (int i = 0; i < 32; ++i) EXPECT_EQ(Kal::bitReverse(1u << i), 1u << (31 - i)) << i;
    std::mt19937 rng(7);
    for (int i = 0; i < 10000; ++i) {
        U32 const x = rng();
        ASSERT_EQ(Kal::bitReverse(x), slow(x)) << std::hex << x;
    }
    static_assert(Kal::bitReverse(0x00000001u) == 0x80000000u);
}

TEST(HashMapHashTest, U64KeyHashIsHighXorLowAndOrderIsHighWordFirst) {
    EXPECT_EQ(Kal::kalKeyHash(0x1'00000000ull), 1u);
    EXPECT_EQ(Kal::kalKeyHash(0x1ull), 1u);
    EXPECT_EQ(Kal::kalKeyHash(0x12345678'9ABCDEF0ull), 0x12345678u ^ 0x9ABCDEF0u);
    EXPECT_EQ(Map::hashOf(0x2'00000003ull), Kal::bitReverse(1));
    EXPECT_TRUE(Kal::kalKeyLessThan(0x0'FFFFFFFFull, 0x1'00000000ull));
    EXPECT_FALSE(Kal::kalKeyLessThan(0x1'00000000ull, 0x0'FFFFFFFFull));
    EXPECT_FALSE(Kal::kalKeyLessThan(0x5ull, 0x5ull));
}

TEST_F(HashMapTest, EmptyMapIteratesNothingAndFindsNothing) {
    Map map;
    EXPECT_EQ(map.members(), 0u);
    EXPECT_EQ(map.buckets(), 1u);
    auto i = map.iterator();
    EXPECT_TRUE(i.isEnd());
    EXPECT_EQ(i.bucketIndex(), -1);
    ++i;
    EXPECT_TRUE(i.isEnd());
    EXPECT_EQ(map.startAtHash(42), nullptr);
    EXPECT_EQ(map[42], nullptr);
    int visited = 0;
    for ([[maybe_unused]] Entry& e : map) ++visited;
    EXPECT_EQ(visited, 0);
    map.deleteAll();
    EXPECT_EQ(map.verify(), "");

    // Emptied again after use, and with a bucket array of its own.
    Map big(64);
    EXPECT_EQ(big.buckets(), 64u);
    insert(big, 1);
    insert(big, 2);
    big.deleteAll();
    EXPECT_TRUE(big.iterator().isEnd());
    EXPECT_EQ(big.startAtHash(1), nullptr);
    EXPECT_EQ(big.buckets(), 64u);
    EXPECT_EQ(big.verify(), "");
}

TEST_F(HashMapTest, OneBucketHoldsEveryMemberInOneChainInHashThenKeyOrder) {
    // A small map stays in its single bucket. Reversed hashes: 2 -> 0x40000000,
    // 1 and 0x1_00000000 -> 0x80000000 (equal, so by key), 3 -> 0xC0000000.
    Map map;
    for (U64 k : {3ull, 0x1'00000000ull, 2ull, 1ull}) insert(map, k, k);
    ASSERT_EQ(map.buckets(), 1u);
    std::vector<U64> chain;
    for (Entry* m = map.startAtHash(0); m; m = m->fwkHmNext()) chain.push_back(m->fwkKey());
    std::vector<U64> const expected = {2, 1, 0x1'00000000ull, 3};
    EXPECT_EQ(chain, expected);
    EXPECT_EQ(keysOf(map), expected);
    for (auto i = map.iterator(); i; ++i) EXPECT_EQ(i.bucketIndex(), 0);
    EXPECT_EQ(map.verify(), "");
}

TEST_F(HashMapTest, MembersLandInTheBucketOfTheTopBitsOfTheirHash) {
    std::mt19937_64 rng(11);
    Map map;
    auto const keys = randomKeys(rng, 300);
    for (U64 k : keys) insert(map, k);
    U32 const k = bucketCountLog2(map.buckets());
    ASSERT_GT(k, 0u);
    for (auto i = map.iterator(); i; ++i) {
        EXPECT_EQ(U32(i.bucketIndex()), Map::hashOf(i.key()) >> (32 - k));
    }
    EXPECT_EQ(keysOf(map), inMapOrder(keys));
}

TEST_F(HashMapTest, OrderIsTheSameBeforeAndAfterGrowthAndShrink) {
    std::mt19937_64 rng(3);
    auto const keys = randomKeys(rng, 500);
    auto const extra = randomKeys(rng, 5000);
    auto const expected = inMapOrder(keys);

    Map map;
    for (U64 k : keys) insert(map, k);
    U32 const grownFrom = map.buckets();
    EXPECT_EQ(keysOf(map), expected);

    // Grow well past the key set, then delete the extra keys again: the map shrinks back.
    for (U64 k : extra) insert(map, k);
    U32 const grownTo = map.buckets();
    EXPECT_GT(grownTo, grownFrom);
    for (U64 k : extra) {
        if (std::find(keys.begin(), keys.end(), k) == keys.end()) map.deleteMember(map[k]);
    }
    EXPECT_LT(map.buckets(), grownTo);
    EXPECT_EQ(keysOf(map), expected);
    EXPECT_EQ(map.verify(), "");

    // Same keys, inserted backwards into a map that starts with far more buckets.
    Map wide(1 << 14);
    for (auto it = keys.rbegin(); it != keys.rend(); ++it) insert(wide, *it);
    EXPECT_NE(wide.buckets(), map.buckets());
    EXPECT_EQ(keysOf(wide), expected);
}

TEST_F(HashMapTest, AReservationHoldsUntilDeleteAllAndKeepsTheOrder) {
    std::mt19937_64 rng(4);
    auto const keys = randomKeys(rng, 3000);
    Map map;
    for (U64 k : std::vector<U64>(keys.begin(), keys.begin() + 100)) insert(map, k);
    map.reserve(3000);
    U32 const reserved = map.buckets();
    EXPECT_GE(reserved * 3 / 4, 3000u);
    EXPECT_EQ(map.verify(), "");
    // Filling the room does not grow the map; emptying it again does not shrink it.
    for (U64 k : std::vector<U64>(keys.begin() + 100, keys.end())) insert(map, k);
    EXPECT_EQ(map.buckets(), reserved);
    EXPECT_EQ(keysOf(map), inMapOrder(keys));
    for (size_t i = 10; i < keys.size(); ++i) map.deleteMember(map[keys[i]]);
    EXPECT_EQ(map.buckets(), reserved);
    EXPECT_EQ(map.verify(), "");
    // A copy keeps the room; a smaller reservation changes nothing; deleteAll ends it.
    Map copy(map);
    EXPECT_EQ(copy.buckets(), reserved);
    EXPECT_EQ(copy.verify(), "");
    map.reserve(5);
    EXPECT_EQ(map.buckets(), reserved);
    map.deleteAll();
    EXPECT_EQ(map.buckets(), 1u);
    insert(map, keys[0]);
    insert(map, keys[1]);
    map.deleteMember(map[keys[0]]);
    EXPECT_EQ(map.verify(), "");
}

TEST_F(HashMapTest, CollidingU64KeysAreBothFoundAndOrderedHighWordFirst) {
    // All four keys have high XOR low == 1.
    std::vector<U64> const keys = {0x3'00000002ull, 0x1ull, 0x2'00000003ull, 0x1'00000000ull};
    for (U32 initial : {1u, 1024u}) {
        Map map(initial);
        for (U64 k : keys) insert(map, k, k + 1);
        for (U64 k : keys) {
            ASSERT_NE(map[k], nullptr) << std::hex << k;
            EXPECT_EQ(map[k]->value(), k + 1);
        }
        std::vector<U64> const expected = {0x1ull, 0x1'00000000ull, 0x2'00000003ull,
                                           0x3'00000002ull};
        EXPECT_EQ(keysOf(map), expected);
        EXPECT_EQ(map[0x1'00000001ull], nullptr);
        map.deleteMember(map[0x1'00000000ull]);
        EXPECT_EQ(map[0x1'00000000ull], nullptr);
        EXPECT_NE(map[0x1ull], nullptr);
        EXPECT_NE(map[0x2'00000003ull], nullptr);
        EXPECT_EQ(map.verify(), "");
    }
}

TEST_F(HashMapTest, StartAtHashAndFindNextFollowTheGlobalOrder) {
    std::mt19937_64 rng(5);
    auto keys = randomKeys(rng, 400);
    Map map;
    for (U64 k : keys) insert(map, k);
    auto const order = inMapOrder(keys);

    // Present keys start at themselves; absent ones at the next member in order, possibly
    // in a later bucket; after the last member there is nothing.
    auto probes = randomKeys(rng, 400);
    probes.insert(probes.end(), keys.begin(), keys.begin() + 100);
    probes.push_back(order.back());
    for (U64 p : probes) {
        auto const at = std::lower_bound(order.begin(), order.end(), p, sortsBefore);
        Entry* m = map.startAtHash(p);
        if (at == order.end()) {
            EXPECT_EQ(m, nullptr);
        } else {
            ASSERT_NE(m, nullptr);
            EXPECT_EQ(m->fwkKey(), *at);
        }
    }
    U32 const k = bucketCountLog2(map.buckets());
    for (size_t i = 0; i < order.size(); ++i) {
        S32 bucket = 99;
        Entry* next = map.findNext(map[order[i]], bucket);
        if (i + 1 == order.size()) {
            EXPECT_EQ(next, nullptr);
            EXPECT_EQ(bucket, -1);
        } else {
            ASSERT_NE(next, nullptr);
            EXPECT_EQ(next->fwkKey(), order[i + 1]);
            EXPECT_EQ(U32(bucket), Map::hashOf(order[i + 1]) >> (32 - k));
        }
    }
}

TEST_F(HashMapTest, DeletingTheMemberUnderAnIteratorContinuesWithTheNext) {
    std::mt19937_64 rng(9);
    auto const keys = randomKeys(rng, 64);
    auto const order = inMapOrder(keys);
    Map map;
    for (U64 k : keys) insert(map, k);

    auto i = map.iterator();
    for (int n = 0; n < 10; ++n) ++i;
    Entry* doomed = i.ptr();
    map.deleteMember(doomed);
    // The iterator keeps the deleted member alive, unlinked.
    EXPECT_EQ(liveMembers, 64);
    EXPECT_EQ(doomed->fwkHmNext(), nullptr);
    EXPECT_EQ(map[order[10]], nullptr);
    ++i;
    EXPECT_EQ(liveMembers, 63);
    ASSERT_FALSE(i.isEnd());
    EXPECT_EQ(i.key(), order[11]);

    // Deleting every member as the walk reaches it, across shrinks, visits the rest in order.
    std::vector<U64> visited = {order[0]};
    for (auto j = map.iterator(); j; ++j) {
        if (j.key() == order[0]) continue;
        visited.push_back(j.key());
        map.deleteMember(j.ptr());
        EXPECT_EQ(map.verify(), "");
    }
    std::vector<U64> expected = order;
    expected.erase(expected.begin() + 10);
    EXPECT_EQ(visited, expected);
    EXPECT_EQ(map.members(), 1u);
}

TEST_F(HashMapTest, DeletingTheNextMemberDuringAWalkSkipsIt) {
    std::mt19937_64 rng(10);
    auto const keys = randomKeys(rng, 40);
    auto const order = inMapOrder(keys);
    Map map;
    for (U64 k : keys) insert(map, k);
    std::vector<U64> visited;
    size_t pos = 0;
    for (auto i = map.iterator(); i; ++i, ++pos) {
        visited.push_back(i.key());
        // Every third member deletes the one after it.
        if (pos % 3 == 0 && pos + 1 < order.size()) {
            map.deleteMember(map[order[pos + 1]]);
            ++pos;
        }
    }
    std::vector<U64> expected;
    for (size_t p = 0; p < order.size(); ++p) {
        if (p % 3 != 1) expected.push_back(order[p]);
    }
    EXPECT_EQ(visited, expected);
}

TEST_F(HashMapTest, MembersInsertedDuringAWalkAreVisitedIffTheySortAfterIt) {
    std::mt19937_64 rng(12);
    auto const keys = randomKeys(rng, 200);
    auto const added = randomKeys(rng, 300);
    Map map;
    for (U64 k : keys) insert(map, k);

    std::vector<U64> visited;
    std::set<U64> expectVisited(keys.begin(), keys.end());
    size_t next = 0;
    for (auto i = map.iterator(); i; ++i) {
        visited.push_back(i.key());
        // Three insertions per step for a while: the map grows under the iterator.
        for (int n = 0; n < 3 && next < added.size(); ++n, ++next) {
            U64 const k = added[next];
            insert(map, k);
            if (sortsBefore(i.key(), k)) expectVisited.insert(k);
        }
    }
    EXPECT_EQ(std::set<U64>(visited.begin(), visited.end()), expectVisited);
    EXPECT_EQ(visited.size(), expectVisited.size()) << "a member was visited twice";
    EXPECT_TRUE(std::is_sorted(visited.begin(), visited.end(), sortsBefore));
    EXPECT_EQ(map.verify(), "");
}

// Iterators count nothing while their member is in the map. Deleting the member under two
// of them makes each hold it by a reference of its own, which each releases when it moves on:
// the member lives until the last one has left it.
TEST_F(HashMapTest, TwoIteratorsOnADeletedMemberEachHoldItUntilTheyMoveOn) {
    std::mt19937_64 rng(40);
    auto const keys = randomKeys(rng, 32);
    auto const order = inMapOrder(keys);
    Map map;
    for (U64 k : keys) insert(map, k);

    auto i = map.iterator();
    for (int n = 0; n < 5; ++n) ++i;
    Map::Iterator j(map, order[5]);
    ASSERT_EQ(i.ptr(), j.ptr());
    Entry* const doomed = i.ptr();
    EXPECT_EQ(doomed->references(), 1u) << "only the map counts a member under iterators";

    EXPECT_TRUE(map.deleteMember(doomed));
    EXPECT_EQ(liveMembers, 32);
    EXPECT_EQ(doomed->references(), 2u);
    EXPECT_EQ(i.key(), order[5]);
    EXPECT_EQ(j->fwkKey(), order[5]);

    ++i;
    ASSERT_FALSE(i.isEnd());
    EXPECT_EQ(i.key(), order[6]);
    EXPECT_EQ(liveMembers, 32) << "j still holds the deleted member";
    EXPECT_EQ(doomed->references(), 1u);
    EXPECT_EQ(j.key(), order[5]);
    ++j;
    EXPECT_EQ(liveMembers, 31);
    ASSERT_FALSE(j.isEnd());
    EXPECT_EQ(j.key(), order[6]);
    EXPECT_EQ(i.ptr()->references(), 1u);

    std::vector<U64> rest;
    for (; j; ++j) rest.push_back(j.key());
    EXPECT_EQ(rest, std::vector<U64>(order.begin() + 6, order.end()));
    EXPECT_EQ(i.key(), order[6]);
    EXPECT_EQ(map.verify(), "");
}

// A member that only a pinned iterator holds any more is destroyed once, when the iterator
// steps off it, is reset or dies; deleting a member the iterator already holds (deleted,
// inserted again, deleted again) adds no second reference.
TEST_F(HashMapTest, AMemberHeldOnlyByAPinnedIteratorIsReleasedOnceWhenItMovesOn) {
    std::mt19937_64 rng(41);
    auto const keys = randomKeys(rng, 50);
    auto const order = inMapOrder(keys);
    Map map;
    for (U64 k : keys) insert(map, k);

    Map::Iterator i(map, order[7]);
    map.deleteMember(i.ptr());
    EXPECT_EQ(liveMembers, 50);
    ++i;
    EXPECT_EQ(liveMembers, 49);
    EXPECT_EQ(i.key(), order[8]);
    for (; i; ++i) EXPECT_EQ(liveMembers, 49);
    ++i;
    EXPECT_EQ(liveMembers, 49);

    // Deleted, inserted again and deleted again under the same iterator.
    Map::Iterator j(map, order[20]);
    Entry* const x = j.ptr();
    map.deleteMember(x);
    EXPECT_EQ(x->references(), 1u);
    map.newMember(x);
    EXPECT_EQ(x->references(), 2u);
    EXPECT_EQ(map.verify(), "");
    map.deleteMember(x);
    EXPECT_EQ(x->references(), 1u);
    EXPECT_EQ(liveMembers, 49);
    ++j;
    EXPECT_EQ(liveMembers, 48);
    EXPECT_EQ(j.key(), order[21]);

    // reset() and destruction release a pin too.
    Map::Iterator k(map, order[30]);
    map.deleteMember(k.ptr());
    k.reset();
    EXPECT_EQ(liveMembers, 47);
    EXPECT_EQ(k.key(), order[0]);
    {
        Map::Iterator scoped(map, order[31]);
        map.deleteMember(scoped.ptr());
        EXPECT_EQ(liveMembers, 47);
    }
    EXPECT_EQ(liveMembers, 46);
    EXPECT_EQ(map.members(), 46u);
    EXPECT_EQ(map.verify(), "");
}

// Copies of an iterator, const conversions and moves: every iterator standing on a deleted
// member holds it once, assignment and reset release what the iterator held, and a
// moved-from iterator is at its end.
TEST_F(HashMapTest, CopiesOfAnIteratorEachHoldADeletedMemberOnce) {
    std::mt19937_64 rng(42);
    auto const keys = randomKeys(rng, 40);
    auto const order = inMapOrder(keys);
    Map map;
    for (U64 k : keys) insert(map, k);

    Map::Iterator i(map, order[3]);
    Map::Iterator j(i); // a copy made before the deletion
    Entry* const doomed = i.ptr();
    map.deleteMember(doomed);
    EXPECT_EQ(doomed->references(), 2u);
    {
        Map::Iterator k = j; // a copy of a pinned iterator
        EXPECT_EQ(doomed->references(), 3u);
        Map::IteratorConst c = k;
        EXPECT_EQ(doomed->references(), 4u);
        EXPECT_EQ(c.key(), order[3]);
        Map::Iterator m(std::move(k));
        EXPECT_EQ(doomed->references(), 4u);
        EXPECT_TRUE(k.isEnd());
        ++k;
        EXPECT_TRUE(k.isEnd());
        EXPECT_EQ(m.key(), order[3]);
        ++m;
        EXPECT_EQ(m.key(), order[4]);
        EXPECT_EQ(doomed->references(), 3u);
        // A moved-from iterator is still one of its map: it can start over.
        k.reset();
        EXPECT_EQ(k.key(), order[0]);
        ++c;
        EXPECT_EQ(c.key(), order[4]);
        EXPECT_EQ(doomed->references(), 2u);
    }
    j = map.iterator();
    EXPECT_EQ(doomed->references(), 1u);
    EXPECT_EQ(j.key(), order[0]);
    EXPECT_EQ(liveMembers, 40);

    // Move-assigning the pinned iterator hands its reference over.
    j = std::move(i);
    EXPECT_TRUE(i.isEnd());
    EXPECT_EQ(doomed->references(), 1u);
    EXPECT_EQ(j.key(), order[3]);
    // Copy-assigning an iterator over itself changes nothing.
    Map::Iterator& alias = j;
    j = alias;
    EXPECT_EQ(doomed->references(), 1u);
    ++j;
    EXPECT_EQ(liveMembers, 39);
    EXPECT_EQ(j.key(), order[4]);

    // Copies of iterators of two maps swap places without losing track of either map.
    Map other;
    insert(other, 5);
    Map::Iterator o = other.iterator();
    Map::Iterator p = o;
    o = j;
    j = p;
    EXPECT_EQ(o.key(), order[4]);
    EXPECT_EQ(j.key(), 5u);
    map.deleteMember(o.ptr());
    other.deleteMember(j.ptr());
    EXPECT_EQ(liveMembers, 40);
    ++o;
    EXPECT_EQ(liveMembers, 39);
    EXPECT_EQ(o.key(), order[5]);
    ++j;
    EXPECT_TRUE(j.isEnd());
    EXPECT_EQ(liveMembers, 39) << "p still stands on the member of the other map";
    p.reset();
    EXPECT_EQ(liveMembers, 38);
    EXPECT_TRUE(p.isEnd());
}

// deleteAll releases every member but those under iterators; each iterator goes on with
// the members that sort after its position, here inserted after the deletion.
TEST_F(HashMapTest, DeleteAllLeavesIteratorsTheirMembers) {
    std::mt19937_64 rng(43);
    auto const keys = randomKeys(rng, 100);
    auto const order = inMapOrder(keys);
    auto const fresh = randomKeys(rng, 50);
    Map map(16);
    for (U64 k : keys) insert(map, k);

    auto i = map.iterator();
    Map::Iterator j(map, order[40]);
    Map::Iterator k(map, order[40]);
    Map::IteratorConst atEnd(map, order.back());
    ++atEnd;
    ASSERT_TRUE(atEnd.isEnd());

    map.deleteAll();
    EXPECT_EQ(map.members(), 0u);
    EXPECT_EQ(liveMembers, 2);
    EXPECT_EQ(i.key(), order[0]);
    EXPECT_EQ(j.key(), order[40]);
    EXPECT_EQ(map.verify(), "");

    for (U64 f : fresh) insert(map, f);
    auto after = [&](U64 position) {
        std::vector<U64> expected;
        for (U64 f : inMapOrder(fresh)) {
            if (sortsBefore(position, f)) expected.push_back(f);
        }
        return expected;
    };
    std::vector<U64> seen;
    for (++i; i; ++i) seen.push_back(i.key());
    EXPECT_EQ(seen, after(order[0]));
    EXPECT_EQ(liveMembers, 50 + 1);
    ++j;
    EXPECT_EQ(liveMembers, 50 + 1) << "k still holds the member";
    ++k;
    EXPECT_EQ(liveMembers, 50);
    seen.clear();
    for (; k; ++k) seen.push_back(k.key());
    EXPECT_EQ(seen, after(order[40]));
    ++atEnd;
    EXPECT_TRUE(atEnd.isEnd());
}

// Assignment replaces every member: the iterators of the assigned map keep theirs and go on
// with the new members after their position; the iterators of a moved-from map keep theirs
// too and find the end.
TEST_F(HashMapTest, AssignmentLeavesIteratorsTheirMembers) {
    std::mt19937_64 rng(44);
    auto const a = randomKeys(rng, 60);
    auto const b = randomKeys(rng, 40);
    auto const c = randomKeys(rng, 30);
    auto const orderA = inMapOrder(a), orderB = inMapOrder(b), orderC = inMapOrder(c);
    auto firstAfter = [](std::vector<U64> const& order, U64 position) {
        auto const at = std::upper_bound(order.begin(), order.end(), position, sortsBefore);
        return at == order.end() ? std::optional<U64>() : std::optional<U64>(*at);
    };
    auto keyOf = [](Map::Iterator const& it) {
        return it ? std::optional<U64>(it.key()) : std::optional<U64>();
    };

    Map map;
    for (U64 k : a) insert(map, k);
    Map::Iterator i(map, orderA[10]);
    Map::Iterator walking = map.iterator();

    // Self-assignment changes nothing: the iterators step on as before.
    Map& alias = map;
    map = alias;
    ++walking;
    EXPECT_EQ(walking.key(), orderA[1]);

    // Copy-assignment.
    Map other;
    for (U64 k : b) insert(other, k);
    map = other;
    EXPECT_EQ(liveMembers, 40 + 40 + 2);
    EXPECT_EQ(i.key(), orderA[10]);
    ++i;
    EXPECT_EQ(keyOf(i), firstAfter(orderB, orderA[10]));
    ++walking;
    EXPECT_EQ(keyOf(walking), firstAfter(orderB, orderA[1]));
    EXPECT_EQ(liveMembers, 40 + 40);

    // Move-assignment, with iterators on both maps.
    Map source;
    for (U64 k : c) insert(source, k);
    Map::Iterator onSource(source, orderC[1]);
    Map::Iterator onTarget = map.iterator();
    map = std::move(source);
    EXPECT_EQ(source.members(), 0u);
    // onTarget, i and walking stand on members of the replaced copy.
    EXPECT_EQ(liveMembers, 40 + 30 + 3);
    EXPECT_EQ(onSource.key(), orderC[1]);
    EXPECT_EQ(onTarget.key(), orderB[0]);
    // The target holds onSource's member now, and may delete it.
    map.deleteMember(map[orderC[1]]);
    EXPECT_EQ(liveMembers, 40 + 30 + 3);
    EXPECT_EQ(onSource.key(), orderC[1]);
    ++onSource;
    EXPECT_TRUE(onSource.isEnd()) << "the moved-from map is empty";
    EXPECT_EQ(liveMembers, 40 + 29 + 3);
    ++onTarget;
    EXPECT_EQ(keyOf(onTarget), firstAfter(orderC, orderB[0]));
    EXPECT_EQ(liveMembers, 40 + 29 + 2);
    EXPECT_EQ(map.verify(), "");
    EXPECT_EQ(source.verify(), "");

    // Clearing by assigning an empty map.
    Map::Iterator last(map, orderC.back());
    ASSERT_TRUE(onTarget);
    map = Map();
    EXPECT_EQ(liveMembers, 40 + 2 + 2);
    ++last;
    EXPECT_TRUE(last.isEnd());
    ++onTarget;
    EXPECT_TRUE(onTarget.isEnd());
    EXPECT_EQ(liveMembers, 40 + 2);
    ++i;
    ++walking;
    EXPECT_TRUE(i.isEnd());
    EXPECT_TRUE(walking.isEnd());
    EXPECT_EQ(liveMembers, 40);
}

// Moving a map hands its members to another map; its own iterators keep theirs, and their
// next step finds the end of the emptied map, even when the versions of the two maps would
// have lined up.
TEST_F(HashMapTest, MovingAMapLeavesItsIteratorsTheirMembers) {
    Map map;
    for (U64 k = 1; k <= 6; ++k) insert(map, k);
    auto const order = inMapOrder({1, 2, 3, 4, 5, 6});
    Map::Iterator i(map, order[2]);
    Map moved(std::move(map));
    moved.deleteMember(moved[order[2]]);
    EXPECT_EQ(liveMembers, 6);
    EXPECT_EQ(i.key(), order[2]);
    ++i;
    EXPECT_TRUE(i.isEnd());
    EXPECT_EQ(liveMembers, 5);

    // Move-assignment: the source, at version 6, gets the target's three members to release
    // (the target was at version 3): a version it must not mistake for its own.
    Map source;
    for (U64 k = 1; k <= 6; ++k) insert(source, k);
    Map target;
    for (U64 k = 7; k <= 9; ++k) insert(target, k);
    Map::Iterator j(source, order[0]);
    target = std::move(source);
    target.deleteMember(target[order[0]]);
    EXPECT_EQ(liveMembers, 5 + 6);
    ++j;
    EXPECT_TRUE(j.isEnd());
    EXPECT_EQ(liveMembers, 5 + 5);
    EXPECT_EQ(target.verify(), "");
}

// An iterator must not outlive its map; one that does anyway keeps its member, and only
// destroying it (the one thing allowed) releases that member.
TEST_F(HashMapTest, AnIteratorLeftBehindByItsMapOnlyReleasesItsMember) {
    auto map = std::make_unique<Map>();
    for (U64 k = 1; k <= 10; ++k) insert(*map, k);
    std::optional<Map::Iterator> i(map->iterator());
    ++*i;
    std::optional<Map::IteratorConst> atEnd(std::in_place, std::as_const(*map));
    while (*atEnd) ++*atEnd;
    map.reset();
    EXPECT_EQ(liveMembers, 1);
    atEnd.reset();
    i.reset();
    EXPECT_EQ(liveMembers, 0);
}

// A map that never shrinks below 4096 buckets, with members at the edges of the occupancy
// words (of 32 or 64 buckets) and long empty stretches between them: walks, starts and
// lookups of the successor find the next non-empty bucket across them, before and after
// buckets empty again.
TEST_F(HashMapTest, WalksCrossEmptyStretchesOfBuckets) {
    constexpr U32 log2Buckets = 12;
    Map map(1u << log2Buckets);
    // The key whose (reversed) hash puts it first in bucket b.
    auto keyIn = [](U32 b) { return U64(Kal::bitReverse(b << (32 - log2Buckets))); };
    std::vector<U32> buckets = {0, 1, 31, 32, 33, 63, 64, 65, 95, 96, 127, 128, 2047, 4095};
    for (U32 b : buckets) insert(map, keyIn(b), b);
    // A second member in bucket 64: same top bits, a later hash.
    insert(map, keyIn(64) | (U64(1) << (31 - log2Buckets)), 64);
    ASSERT_EQ(map.buckets(), 1u << log2Buckets);
    ASSERT_EQ(map.verify(), "");

    auto walk = [&] {
        std::vector<U32> seen;
        for (auto i = map.iterator(); i; ++i) {
            EXPECT_EQ(U32(i.bucketIndex()), U32(i->value()));
            seen.push_back(U32(i->value()));
        }
        return seen;
    };
    std::vector<U32> expected = buckets;
    expected.insert(std::find(expected.begin(), expected.end(), 64u), 64u);
    EXPECT_EQ(walk(), expected);

    // Starting in an empty bucket lands on the next non-empty one, possibly words later.
    for (U32 empty : {2u, 34u, 66u, 129u, 2048u}) {
        Map::Iterator i(map, keyIn(empty));
        U32 const next = *std::upper_bound(buckets.begin(), buckets.end(), empty);
        ASSERT_FALSE(i.isEnd()) << empty;
        EXPECT_EQ(i.bucketIndex(), S32(next));
        EXPECT_EQ(map.startAtHash(keyIn(empty))->value(), next);
    }
    // A key of the last bucket that sorts after its member (a lower bit of the hash set).
    EXPECT_TRUE(Map::Iterator(map, keyIn(4095) | (U64(1) << 31)).isEnd());

    // Emptied buckets are skipped: deleting the members of buckets 32 to 2047 leaves 0, 1,
    // 31 and 4095, and the member of bucket 31 is followed by the one of 4095.
    Map::Iterator at31(map, keyIn(31));
    for (U32 b : buckets) {
        if (b >= 32 && b <= 2047) map.deleteMember(map[keyIn(b)]);
    }
    map.deleteMember(map[keyIn(64) | (U64(1) << (31 - log2Buckets))]);
    EXPECT_EQ(map.verify(), "");
    EXPECT_EQ(walk(), (std::vector<U32>{0, 1, 31, 4095}));
    ++at31;
    EXPECT_EQ(at31.bucketIndex(), 4095);
    S32 bucket = 0;
    EXPECT_EQ(map.findNext(map[keyIn(31)], bucket)->value(), 4095u);
    EXPECT_EQ(bucket, 4095);
    map.deleteMember(map[keyIn(4095)]);
    EXPECT_EQ(map.findNext(map[keyIn(31)], bucket), nullptr);
    EXPECT_EQ(bucket, -1);
    map.deleteAll();
    EXPECT_TRUE(map.iterator().isEnd());
    EXPECT_EQ(map.verify(), "");
}

TEST_F(HashMapTest, AllCollidingHashKeepsOneChainOrderedByKey) {
    std::mt19937 rng(4);
    std::vector<U32> ids(1200);
    for (U32 i = 0; i < ids.size(); ++i) ids[i] = i * 2;
    std::shuffle(ids.begin(), ids.end(), rng);
    CollidingMap map;
    for (U32 id : ids) map.newMember(new CollidingEntry({id}, id));
    EXPECT_GT(map.buckets(), 1u);
    EXPECT_EQ(map.verify(), "");

    U32 expectedId = 0;
    S32 bucket = -2;
    for (auto i = map.iterator(); i; ++i, expectedId += 2) {
        ASSERT_EQ(i.key().id, expectedId);
        if (bucket == -2) bucket = i.bucketIndex();
        EXPECT_EQ(i.bucketIndex(), bucket) << "all members share one bucket";
    }
    EXPECT_EQ(expectedId, 2400u);
    for (U32 id = 0; id < 2400; ++id) {
        CollidingEntry const* m = map[{id}];
        if (id % 2) {
            EXPECT_EQ(m, nullptr);
            CollidingEntry const* after = map.startAtHash({id});
            if (id == 2399) {
                EXPECT_EQ(after, nullptr);
            } else {
                ASSERT_NE(after, nullptr);
                EXPECT_EQ(after->fwkKey().id, id + 1);
            }
        } else {
            ASSERT_NE(m, nullptr);
            EXPECT_EQ(m->value(), id);
        }
    }
    for (U32 id = 0; id < 2400; id += 4) map.deleteMember(map[{id}]);
    EXPECT_EQ(map.members(), 600u);
    EXPECT_EQ(map.verify(), "");
    EXPECT_EQ(map[{4}], nullptr);
    EXPECT_NE(map[{2}], nullptr);
}

TEST_F(HashMapTest, EqualKeysInsertedTwiceKeepInsertionOrder) {
    Map map;
    insert(map, 10, 1);
    insert(map, 7, 0);
    insert(map, 10, 2);
    insert(map, 10, 3);
    EXPECT_EQ(map.members(), 4u);
    EXPECT_EQ(map.verify(), "");
    std::vector<U64> values;
    for (Entry& e : map) {
        if (e.fwkKey() == 10) values.push_back(e.value());
    }
    EXPECT_EQ(values, (std::vector<U64>{1, 2, 3}));
    EXPECT_EQ(map[10]->value(), 1u);
    map.deleteMember(map[10]);
    EXPECT_EQ(map[10]->value(), 2u);
    EXPECT_EQ(map.verify(), "");
}

TEST_F(HashMapTest, DeletingANonMemberChangesNothing) {
    Map map;
    insert(map, 1);
    insert(map, 2);
    Kal::Ptr<Entry> stranger = new Entry(1, 0);
    U32 const version = map.version();
    EXPECT_FALSE(map.deleteMember(stranger));
    EXPECT_FALSE(map.deleteMember(Kal::Ptr<Entry>()));
    EXPECT_EQ(map.version(), version);
    EXPECT_EQ(map.members(), 2u);
    EXPECT_TRUE(map.deleteMember(map[1]));
    EXPECT_EQ(map.version(), version + 1);
}

TEST_F(HashMapTest, VersionCountsInsertionsAndDeletions) {
    Map map;
    U32 v = map.version();
    insert(map, 1);
    EXPECT_EQ(map.version(), ++v);
    insert(map, 2);
    insert(map, 3);
    EXPECT_EQ(map.version(), v += 2);
    map.deleteMember(map[2]);
    EXPECT_EQ(map.version(), ++v);
    map.deleteAll();
    EXPECT_EQ(map.version(), v += 2);
}

using HashMapDeathTest = HashMapTest;

TEST_F(HashMapDeathTest, InsertingALinkedMemberIsAnAssertion) {
    Map map;
    Kal::Ptr<Entry> a = new Entry(1, 0);
    Kal::Ptr<Entry> b = new Entry(2, 0);
    a->fwkHmNextIs(b.ptr());
    EXPECT_DEATH(map.newMember(a), "t->fwkHmNext\\(\\) == 0");
    a->fwkHmNextIs(nullptr);
}

TEST_F(HashMapTest, CopiesAreMadeOfNewMembersInTheSameStructure) {
    std::mt19937_64 rng(21);
    auto const keys = randomKeys(rng, 700);
    Map map;
    for (U64 k : keys) insert(map, k, k ^ 0xFF);
    ASSERT_EQ(memberCopies, 0);

    Map copy(map);
    EXPECT_EQ(memberCopies, 700);
    EXPECT_EQ(liveMembers, 1400);
    EXPECT_EQ(copy.buckets(), map.buckets());
    EXPECT_EQ(copy.verify(), "");
    EXPECT_EQ(keysOf(copy), keysOf(map));
    for (U64 k : keys) {
        ASSERT_NE(copy[k], nullptr);
        EXPECT_NE(copy[k], map[k]);
        EXPECT_EQ(copy[k]->value(), k ^ 0xFF);
        EXPECT_EQ(copy[k]->references(), 1u);
    }
    EXPECT_TRUE(copy == map);

    // Independent from here on.
    copy.deleteMember(copy[keys[0]]);
    EXPECT_NE(map[keys[0]], nullptr);
    EXPECT_FALSE(copy == map);
    EXPECT_FALSE(map == copy);

    // Assignment releases the members it replaces and counts as their deletion.
    Map target;
    insert(target, 5);
    insert(target, 6);
    U32 const version = target.version();
    target = copy;
    EXPECT_EQ(target.members(), 699u);
    EXPECT_EQ(target.verify(), "");
    EXPECT_EQ(target[5], nullptr);
    EXPECT_NE(target.version(), version);
    EXPECT_TRUE(target == copy);
    EXPECT_EQ(liveMembers, 700 + 699 + 699);

    // A small map (single inline bucket) copies and assigns too.
    Map small;
    insert(small, 1, 1);
    Map smallCopy(small);
    target = small;
    EXPECT_EQ(keysOf(target), std::vector<U64>{1});
    EXPECT_EQ(target.buckets(), 1u);
    EXPECT_EQ(target.verify(), "");
    EXPECT_TRUE(smallCopy == small);
    Map& alias = target;
    target = alias;
    EXPECT_EQ(target.members(), 1u);
    EXPECT_EQ(target.verify(), "");
}

TEST_F(HashMapTest, MovingAMapTakesItsMembersOverWithoutCopies) {
    std::mt19937_64 rng(23);
    auto const keys = randomKeys(rng, 100);
    for (U32 initial : {1u, 256u}) {
        Map map(initial);
        for (U64 k : keys) insert(map, k, k);
        Entry* first = map.iterator().ptr();
        Map moved(std::move(map));
        EXPECT_EQ(memberCopies, 0);
        EXPECT_EQ(moved.iterator().ptr(), first);
        EXPECT_EQ(keysOf(moved), inMapOrder(keys));
        EXPECT_EQ(moved.verify(), "");
        EXPECT_EQ(map.members(), 0u);
        EXPECT_EQ(map.verify(), "");
        insert(map, 1); // the moved-from map is usable

        // Move-assignment releases what the target held.
        Map target;
        for (U64 k = 0; k < 20; ++k) insert(target, k);
        EXPECT_EQ(liveMembers, 100 + 1 + 20);
        target = std::move(moved);
        EXPECT_EQ(liveMembers, 100 + 1);
        EXPECT_EQ(keysOf(target), inMapOrder(keys));
        EXPECT_EQ(target.verify(), "");
        EXPECT_EQ(moved.members(), 0u);
        EXPECT_EQ(moved.buckets(), 1u);
        EXPECT_EQ(moved.verify(), "");
    }
}

TEST_F(HashMapTest, EqualityIgnoresInsertionOrderButNotValues) {
    std::mt19937_64 rng(22);
    auto keys = randomKeys(rng, 300);
    Map a;
    for (U64 k : keys) insert(a, k, k % 7);
    std::shuffle(keys.begin(), keys.end(), rng);
    Map b(4096);
    for (U64 k : keys) insert(b, k, k % 7);
    EXPECT_TRUE(a == b);
    EXPECT_TRUE(b == a);

    b[keys[17]]->valueIs(keys[17] % 7 + 1);
    EXPECT_FALSE(a == b);
    EXPECT_FALSE(b == a);
    b[keys[17]]->valueIs(keys[17] % 7);

    // Same size, one key swapped for another.
    b.deleteMember(b[keys[3]]);
    insert(b, keys[3] + 1, 0);
    EXPECT_FALSE(a == b);

    Map empty1, empty2(64);
    EXPECT_TRUE(empty1 == empty2);
    EXPECT_FALSE(empty1 == a);

    // Equal keys (tolerated) with their values inserted in another order are still equal.
    Map c, d;
    for (U64 v : {1, 2}) insert(c, 5, v);
    for (U64 v : {2, 1}) insert(d, 5, v);
    insert(c, 6, 0);
    insert(d, 6, 0);
    EXPECT_TRUE(c == d);
    d[6]->valueIs(1);
    EXPECT_FALSE(c == d);
}

TEST_F(HashMapTest, KeysOfOtherTypesUseTheirOwnHashAndOrder) {
    using NameEntry = KalEntry<Kal::String8>;
    Kal::HashMap<NameEntry, Kal::String8> map;
    std::vector<Kal::String8> names;
    for (int i = 0; i < 50; ++i) names.emplace_back("intf" + std::to_string(i));
    for (auto const& n : names) map.newMember(new NameEntry(n, n.charCount()));
    std::sort(names.begin(), names.end(), [](Kal::String8 const& a, Kal::String8 const& b) {
        U32 const ha = Kal::bitReverse(a.hash()), hb = Kal::bitReverse(b.hash());
        return ha != hb ? ha < hb : a < b;
    });
    EXPECT_EQ(keysOf(map), names);
    ASSERT_NE(map[Kal::String8("intf7")], nullptr);
    EXPECT_EQ(map[Kal::String8("intf7")]->value(), 5u);
    EXPECT_EQ(map[Kal::String8("intf70")], nullptr);
}

TEST_F(HashMapTest, ConstIteratorsAndIteratorsStartingAtAKey) {
    std::mt19937_64 rng(30);
    auto const keys = randomKeys(rng, 100);
    auto const order = inMapOrder(keys);
    Map map;
    for (U64 k : keys) insert(map, k);
    Map const& cmap = map;
    std::vector<U64> seen;
    for (Map::IteratorConst i(cmap, order[40]); i; ++i) seen.push_back(i.key());
    EXPECT_EQ(seen, std::vector<U64>(order.begin() + 40, order.end()));
    Map::IteratorConst fromMutable = map.iterator();
    EXPECT_EQ(fromMutable.key(), order[0]);
}

TEST_F(HashMapTest, ForEachMemberVisitsEveryMemberInMapOrderWithoutCounting) {
    std::mt19937_64 rng(31);
    // From one bucket (and one occupancy word) to many words.
    for (size_t n : {0, 3, 20, 1000}) {
        auto const keys = randomKeys(rng, n);
        Map map;
        for (U64 k : keys) insert(map, k);
        std::vector<U64> seen;
        map.forEachMember([&](Entry const& e) {
            seen.push_back(e.fwkKey());
            EXPECT_EQ(e.references(), 1u);
        });
        EXPECT_EQ(seen, inMapOrder(keys)) << n << " members in " << map.buckets() << " buckets";
    }
}

TEST_F(HashMapTest, VerifyNamesTheBrokenInvariant) {
    Map map;
    auto a = insert(map, 2);
    auto b = insert(map, 3);
    ASSERT_EQ(map.verify(), "");
    // 1 sorts before 3 (reversed hashes 0x80000000 < 0xC0000000): out of order after 3.
    Kal::Ptr<Entry> stray = new Entry(1, 0);
    b->fwkHmNextIs(stray.ptr());
    EXPECT_NE(map.verify().stringValue().find("out of (hash, key) order"), std::string::npos)
        << map.verify();
    b->fwkHmNextIs(nullptr);
    // A member the count does not know about, in order this time.
    Kal::Ptr<Entry> extra = new Entry(7, 0);
    b->fwkHmNextIs(extra.ptr());
    EXPECT_NE(map.verify().stringValue().find("more than the member count"), std::string::npos)
        << map.verify();
    b->fwkHmNextIs(nullptr);
    EXPECT_EQ(map.verify(), "");

    // In a map with several buckets, a chain whose end links into another bucket.
    Map wide(8);
    auto low = insert(wide, 2);  // bucket 2 of 8 (reversed hash 0x40000000)
    auto high = insert(wide, 3); // bucket 6 of 8 (0xC0000000)
    ASSERT_EQ(wide.verify(), "");
    low->fwkHmNextIs(high.ptr());
    EXPECT_NE(wide.verify().stringValue().find("does not end with a null link"),
              std::string::npos)
        << wide.verify();
    low->fwkHmNextIs(nullptr);
    EXPECT_EQ(wide.verify(), "");
}

// A seeded random sequence of insertions, deletions, lookups and walks, checked against
// std::map (contents) and std::unordered_map (lookups), with verify() after every change.
TEST_F(HashMapTest, RandomOperationsMatchStandardContainers) {
    for (U64 seed : {1ull, 2ull, 0xC0FFEEull}) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        std::mt19937_64 rng(seed);
        // A key pool with colliding pairs (high and low words swapped) and small integers.
        std::vector<U64> pool = randomKeys(rng, 600);
        for (size_t i = 0; i < 200; ++i) pool.push_back((pool[i] << 32) | (pool[i] >> 32));
        for (U64 k = 0; k < 200; ++k) pool.push_back(k);
        auto anyKey = [&] { return pool[rng() % pool.size()]; };

        Map map;
        std::map<U64, U64> ref;
        std::unordered_map<U64, Entry*> where;
        auto check = [&] {
            ASSERT_EQ(map.verify(), "");
            ASSERT_EQ(map.members(), ref.size());
        };
        auto walk = [&] {
            std::vector<U64> expected;
            for (auto const& [k, v] : ref) expected.push_back(k);
            ASSERT_EQ(keysOf(map), inMapOrder(expected));
        };
        // Grow, shrink nearly to nothing, then churn around a middle size.
        struct Phase {
            int ops;
            unsigned insertPercent;
        };
        for (Phase phase : {Phase{2500, 85}, Phase{2500, 12}, Phase{1500, 50}}) {
            for (int op = 0; op < phase.ops; ++op) {
                unsigned const dice = rng() % 100;
                U64 const k = anyKey();
                if (dice < 70) {
                    bool const doInsert = rng() % 100 < phase.insertPercent;
                    auto const found = ref.find(k);
                    if (doInsert && found == ref.end()) {
                        U64 const v = rng();
                        where[k] = insert(map, k, v).ptr();
                        ref[k] = v;
                    } else if (!doInsert && found != ref.end()) {
                        ASSERT_TRUE(map.deleteMember(map[k]));
                        ref.erase(found);
                        where.erase(k);
                    }
                    check();
                } else if (dice < 90) {
                    Entry* m = map[k];
                    auto const w = where.find(k);
                    if (w == where.end()) {
                        ASSERT_EQ(m, nullptr) << std::hex << k;
                    } else {
                        ASSERT_EQ(m, w->second) << std::hex << k;
                        ASSERT_EQ(m->value(), ref[k]);
                    }
                } else if (dice < 97) {
                    walk();
                } else {
                    // A walk that deletes a few of the members it stands on: the others are
                    // still visited, in order.
                    std::vector<U64> all;
                    for (auto const& [key, v] : ref) all.push_back(key);
                    std::vector<U64> visited;
                    for (auto i = map.iterator(); i; ++i) {
                        visited.push_back(i.key());
                        if (rng() % 8 == 0) {
                            ref.erase(i.key());
                            where.erase(i.key());
                            map.deleteMember(i.ptr());
                            check();
                        }
                    }
                    ASSERT_EQ(visited, inMapOrder(all));
                }
                if (HasFatalFailure()) return;
            }
            walk();
        }
    }
}

// Several iterators live through a seeded random sequence of insertions, deletions (of
// members under iterators too), steps, copies, moves, resets, deleteAll and assignments.
// Each iterator is checked against a model: its next member is the first present one that
// sorts after its position. The live members are exactly those of the map and those the
// iterators stand on.
TEST_F(HashMapTest, InterleavedIteratorsFollowTheModelThroughRandomChanges) {
    for (U64 seed : {4ull, 5ull, 0xBEEFull}) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        std::mt19937_64 rng(seed);
        std::vector<U64> pool = randomKeys(rng, 300);
        for (size_t i = 0; i < 100; ++i) pool.push_back((pool[i] << 32) | (pool[i] >> 32));
        for (U64 k = 0; k < 50; ++k) pool.push_back(k);
        auto anyKey = [&] { return pool[rng() % pool.size()]; };

        Map map;
        // The members in map order, and which object holds each key.
        std::map<U64, Entry*, bool (*)(U64, U64)> present(sortsBefore);
        struct Walker {
            std::optional<Map::Iterator> it;
            Entry* at = nullptr; // null: at the end
            U64 key = 0;
        };
        std::vector<Walker> walkers(5);

        auto place = [&](Walker& w, auto found) {
            w.at = found == present.end() ? nullptr : found->second;
            w.key = w.at ? found->first : 0;
        };
        auto relearn = [&] {
            present.clear();
            map.forEachMember([&](Entry const& e) {
                present[e.fwkKey()] = const_cast<Entry*>(&e);
            });
        };
        auto check = [&] {
            ASSERT_EQ(map.verify(), "");
            ASSERT_EQ(map.members(), present.size());
            std::set<Entry const*> live;
            for (auto const& [k, e] : present) live.insert(e);
            for (Walker const& w : walkers) {
                if (!w.it) continue;
                if (!w.at) {
                    ASSERT_TRUE(w.it->isEnd());
                    continue;
                }
                ASSERT_FALSE(w.it->isEnd());
                ASSERT_EQ(w.it->ptr(), w.at);
                ASSERT_EQ(w.it->key(), w.key);
                live.insert(w.at);
            }
            ASSERT_EQ(liveMembers, int(live.size()));
        };

        for (int op = 0; op < 6000; ++op) {
            Walker& w = walkers[rng() % walkers.size()];
            Walker& v = walkers[rng() % walkers.size()];
            unsigned const dice = rng() % 100;
            if (dice < 25) {
                U64 const k = anyKey();
                if (!present.count(k) && present.size() < 250) {
                    present[k] = insert(map, k, k).ptr();
                }
            } else if (dice < 40) {
                auto const found = present.find(anyKey());
                if (found != present.end()) {
                    ASSERT_TRUE(map.deleteMember(found->second));
                    present.erase(found);
                }
            } else if (dice < 50) {
                // The member under an iterator, when the map still holds it.
                auto const found = w.at ? present.find(w.key) : present.end();
                if (found != present.end() && found->second == w.at) {
                    ASSERT_TRUE(map.deleteMember(w.at));
                    present.erase(found);
                }
            } else if (dice < 75) {
                if (w.it && w.at) {
                    place(w, present.upper_bound(w.key));
                    ++*w.it;
                } else if (w.it) {
                    ++*w.it;
                }
            } else if (dice < 80) {
                if (rng() % 2) {
                    w.it.emplace(map);
                    place(w, present.begin());
                } else {
                    U64 const k = anyKey();
                    w.it.emplace(map, k);
                    place(w, present.lower_bound(k));
                }
            } else if (dice < 85) {
                if (&v != &w && v.it) {
                    if (w.it) *w.it = *v.it;
                    else w.it.emplace(*v.it);
                    w.at = v.at;
                    w.key = v.key;
                }
            } else if (dice < 90) {
                if (&v != &w && v.it) {
                    if (w.it) *w.it = std::move(*v.it);
                    else w.it.emplace(std::move(*v.it));
                    w.at = v.at;
                    w.key = v.key;
                    v.at = nullptr;
                }
            } else if (dice < 93) {
                w.it.reset();
                w.at = nullptr;
            } else if (dice < 96) {
                if (w.it) {
                    w.it->reset();
                    place(w, present.begin());
                }
            } else if (dice < 97) {
                map.deleteAll();
                present.clear();
            } else if (dice < 98) {
                Map other;
                for (int n = 0; n < 40; ++n) {
                    U64 const k = anyKey();
                    if (!other[k]) insert(other, k, k);
                }
                map = other;
                relearn();
            } else if (dice < 99) {
                Map other;
                for (int n = 0; n < 40; ++n) {
                    U64 const k = anyKey();
                    if (!other[k]) insert(other, k, k);
                }
                map = std::move(other);
                relearn();
            } else {
                std::vector<U64> expected;
                for (auto const& [k, e] : present) expected.push_back(k);
                ASSERT_EQ(keysOf(map), expected);
            }
            check();
            if (HasFatalFailure()) return;
        }
        walkers.clear();
        EXPECT_EQ(liveMembers, int(map.members()));
    }
}

// Releasing a chain of members must not recurse through the links: a chain this long
// would overflow the stack of any recursive release.
TEST_F(HashMapTest, LongChainsAreReleasedWithoutRecursion) {
    constexpr U32 chainLength = 1'000'000;
    {
        CollidingMap map(1u << 20);
        // Descending keys: each new member becomes the head of the single chain.
        for (U32 id = chainLength; id > 0; --id) map.newMember(new CollidingEntry({id}, 0));
        EXPECT_EQ(map.members(), chainLength);
        EXPECT_EQ(liveMembers, int(chainLength));
        map.deleteAll();
        EXPECT_EQ(liveMembers, 0);
        EXPECT_EQ(map.members(), 0u);
        for (U32 id = chainLength; id > 0; --id) map.newMember(new CollidingEntry({id}, 0));
    } // destruction
    EXPECT_EQ(liveMembers, 0);
}

} // namespace
