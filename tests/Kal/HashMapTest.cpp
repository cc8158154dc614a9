#include "Kal/HashMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
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

// Inserts n random keys drawn with `seed`; returns them in map order.
std::vector<U64> fillRandom(Map& map, U64 seed, size_t n) {
    std::mt19937_64 rng(seed);
    auto const keys = randomKeys(rng, n);
    for (U64 k : keys) insert(map, k);
    return inMapOrder(keys);
}

// The bucket the rules give a key in a map of map.buckets() buckets: the top bits of its hash.
U32 homeBucket(Map const& map, U64 key) {
    U32 k = 0;
    while ((1u << k) < map.buckets()) ++k;
    return k ? Map::hashOf(key) >> (32 - k) : 0;
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
    std::mt19937 rng(7);
    for (int n = 0; n < 10000; ++n) {
        U32 const x = rng();
        U32 slow = 0;
        for (int i = 0; i < 32; ++i) slow |= ((x >> i) & 1u) << (31 - i);
        ASSERT_EQ(Kal::bitReverse(x), slow) << std::hex << x;
    }
    static_assert(Kal::bitReverse(0x00000001u) == 0x80000000u);
}

TEST_F(HashMapTest, EmptyMapsIterateAndFindNothing) {
    // One never used, and one emptied by deleteAll, which keeps the bucket count it was made
    // with.
    Map fresh;
    Map emptied(64);
    insert(emptied, 1);
    insert(emptied, 2);
    emptied.deleteAll();
    for (Map* map : {&fresh, &emptied}) {
        EXPECT_EQ(map->members(), 0u);
        auto i = map->iterator();
        EXPECT_TRUE(i.isEnd());
        EXPECT_EQ(i.bucketIndex(), -1);
        ++i;
        EXPECT_TRUE(i.isEnd());
        EXPECT_EQ(map->startAtHash(1), nullptr);
        EXPECT_EQ((*map)[1], nullptr);
        for ([[maybe_unused]] Entry& e : *map) ADD_FAILURE() << "visited a member";
        EXPECT_EQ(map->verify(), "");
    }
    EXPECT_EQ(fresh.buckets(), 1u);
    EXPECT_EQ(emptied.buckets(), 64u);
}

// A U64 key hashes as high XOR low word and sorts high word first.
TEST_F(HashMapTest, EqualHashesAreOrderedByKeyInOneBucketOrMany) {
    // Reversed hashes: 2 -> 0x40000000; 1, 0x1_00000000, 0x2_00000003 and 0x3_00000002 ->
    // 0x80000000 (high XOR low is 1 for each: equal, so by key); 3 -> 0xC0000000.
    std::vector<U64> const keys = {3, 0x3'00000002ull, 0x1'00000000ull, 2, 0x2'00000003ull, 1};
    std::vector<U64> const expected = {2, 1, 0x1'00000000ull, 0x2'00000003ull, 0x3'00000002ull, 3};
    for (U32 initial : {1u, 1024u}) {
        Map map(initial);
        for (U64 k : keys) insert(map, k, k + 1);
        EXPECT_EQ(keysOf(map), expected);
        if (initial == 1) {
            // A small map stays in its single bucket: one chain.
            ASSERT_EQ(map.buckets(), 1u);
            std::vector<U64> chain;
            for (Entry* m = map.startAtHash(0); m; m = m->fwkHmNext()) chain.push_back(m->fwkKey());
            EXPECT_EQ(chain, expected);
        }
        for (U64 k : keys) {
            ASSERT_NE(map[k], nullptr) << std::hex << k;
            EXPECT_EQ(map[k]->value(), k + 1);
        }
        EXPECT_EQ(map[0x1'00000001ull], nullptr);
        map.deleteMember(map[0x1'00000000ull]);
        EXPECT_EQ(map[0x1'00000000ull], nullptr);
        EXPECT_NE(map[0x1ull], nullptr);
        EXPECT_NE(map[0x2'00000003ull], nullptr);
        EXPECT_EQ(map.verify(), "");
    }
}

// Growing and shrinking never reorder members and leave each in the bucket of the top bits
// of its hash. A reservation makes the room at once and holds until deleteAll.
TEST_F(HashMapTest, OrderAndBucketsHoldThroughGrowthShrinkAndReservations) {
    std::mt19937_64 rng(3);
    auto const keys = randomKeys(rng, 3000);
    std::vector<U64> const base(keys.begin(), keys.begin() + 500);
    Map map;
    auto check = [&](std::vector<U64> const& present) {
        EXPECT_EQ(keysOf(map), inMapOrder(present));
        for (auto i = map.iterator(); i; ++i) {
            ASSERT_EQ(U32(i.bucketIndex()), homeBucket(map, i.key())) << map.buckets();
        }
        EXPECT_EQ(map.verify(), "");
    };
    for (U64 k : base) insert(map, k);
    U32 const grownFrom = map.buckets();
    check(base);
    for (size_t i = 500; i < keys.size(); ++i) insert(map, keys[i]);
    U32 const grownTo = map.buckets();
    EXPECT_GT(grownTo, grownFrom);
    check(keys);
    for (size_t i = 500; i < keys.size(); ++i) map.deleteMember(map[keys[i]]);
    EXPECT_LT(map.buckets(), grownTo);
    check(base);

    // Filling the reserved room does not grow the map; emptying it again does not shrink it.
    map.reserve(3000);
    U32 const reserved = map.buckets();
    EXPECT_GE(reserved * 3 / 4, 3000u);
    check(base);
    for (size_t i = 500; i < keys.size(); ++i) insert(map, keys[i]);
    EXPECT_EQ(map.buckets(), reserved);
    check(keys);
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
    for (U64 k : base) insert(map, k);
    EXPECT_EQ(map.buckets(), grownFrom) << "the reservation ended with deleteAll";

    // The same keys, inserted backwards into a map that starts with far more buckets.
    Map wide(1 << 14);
    for (auto it = base.rbegin(); it != base.rend(); ++it) insert(wide, *it);
    EXPECT_EQ(keysOf(wide), inMapOrder(base));
}

TEST_F(HashMapTest, StartAtHashAndFindNextFollowTheGlobalOrder) {
    Map map;
    auto const order = fillRandom(map, 5, 400);
    // Present keys start at themselves; absent ones at the next member in order, possibly
    // in a later bucket; after the last member there is nothing.
    std::mt19937_64 rng(6);
    auto probes = randomKeys(rng, 400);
    probes.insert(probes.end(), order.begin(), order.begin() + 100);
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
    for (size_t i = 0; i < order.size(); ++i) {
        S32 bucket = 99;
        Entry* next = map.findNext(map[order[i]], bucket);
        if (i + 1 == order.size()) {
            EXPECT_EQ(next, nullptr);
            EXPECT_EQ(bucket, -1);
        } else {
            ASSERT_NE(next, nullptr);
            EXPECT_EQ(next->fwkKey(), order[i + 1]);
            EXPECT_EQ(U32(bucket), homeBucket(map, order[i + 1]));
        }
    }
}


// A walk goes on with the next member when the one it stands on is deleted, the map
// shrinking under it, and skips a successor deleted before it gets there.
TEST_F(HashMapTest, AWalkContinuesPastTheMembersItDeletes) {
    Map map;
    auto const order = fillRandom(map, 9, 64);
    std::vector<U64> visited, expected;
    size_t pos = 0;
    for (auto i = map.iterator(); i; ++i, ++pos) {
        visited.push_back(i.key());
        // Each member deletes itself; every third one deletes the one after it first.
        if (pos % 3 == 0 && pos + 1 < order.size()) map.deleteMember(map[order[pos + 1]]);
        map.deleteMember(i.ptr());
        ASSERT_EQ(map.verify(), "");
        if (pos % 3 == 0) ++pos;
    }
    for (size_t p = 0; p < order.size(); ++p) {
        if (p % 3 != 1) expected.push_back(order[p]);
    }
    EXPECT_EQ(visited, expected);
    EXPECT_EQ(map.buckets(), 1u);
}

// An iterator assigned one of another map joins that map's iterators: deleting the member
// under it pins it, whichever map it started in.
TEST_F(HashMapTest, IteratorsOfTwoMapsTradePlaces) {
    Map map, other;
    auto const order = fillRandom(map, 42, 10);
    insert(other, 5);
    Map::Iterator j(map, order[4]);
    Map::Iterator o = other.iterator();
    Map::Iterator p = o;
    o = j;
    j = p;
    EXPECT_EQ(o.key(), order[4]);
    EXPECT_EQ(j.key(), 5u);
    map.deleteMember(o.ptr());
    other.deleteMember(j.ptr());
    EXPECT_EQ(liveMembers, 11);
    ++o;
    EXPECT_EQ(liveMembers, 10);
    EXPECT_EQ(o.key(), order[5]);
    ++j;
    EXPECT_TRUE(j.isEnd());
    EXPECT_EQ(liveMembers, 10) << "p still stands on the member of the other map";
    p.reset();
    EXPECT_EQ(liveMembers, 9);
    EXPECT_TRUE(p.isEnd());
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
    // The key whose (reversed) hash puts it first in bucket b, and a second one of bucket 64.
    auto keyIn = [](U32 b) { return U64(Kal::bitReverse(b << (32 - log2Buckets))); };
    U64 const second64 = keyIn(64) | (U64(1) << (31 - log2Buckets));
    std::vector<U32> buckets = {0, 1, 31, 32, 33, 63, 64, 65, 95, 96, 127, 128, 2047, 4095};
    for (U32 b : buckets) insert(map, keyIn(b), b);
    insert(map, second64, 64);
    ASSERT_EQ(map.buckets(), 1u << log2Buckets);

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

    // Emptied buckets are skipped: with the members of buckets 32 to 2047 deleted, the member
    // of bucket 31 is followed by the one of 4095.
    for (U32 b : buckets) {
        if (b >= 32 && b <= 2047) map.deleteMember(map[keyIn(b)]);
    }
    map.deleteMember(map[second64]);
    EXPECT_EQ(map.verify(), "");
    EXPECT_EQ(walk(), (std::vector<U32>{0, 1, 31, 4095}));
    S32 bucket = 0;
    EXPECT_EQ(map.findNext(map[keyIn(31)], bucket)->value(), 4095u);
    EXPECT_EQ(bucket, 4095);
    map.deleteMember(map[keyIn(4095)]);
    EXPECT_EQ(map.findNext(map[keyIn(31)], bucket), nullptr);
    EXPECT_EQ(bucket, -1);
}

TEST_F(HashMapTest, KeysThatAllShareAHashStayInOneChainOrderedByKeyAsTheMapGrows) {
    std::vector<U32> ids(1200);
    for (U32 i = 0; i < ids.size(); ++i) ids[i] = i * 2;
    std::shuffle(ids.begin(), ids.end(), std::mt19937(4));
    CollidingMap map;
    // Half filed by newMember, half where a lookup of the absent key placed them.
    for (U32 id : ids) {
        if (id % 4) {
            map.newMember(new CollidingEntry({id}, id));
        } else {
            CollidingMap::Place place;
            ASSERT_EQ(map.findOrPlace({id}, place), nullptr);
            map.newMemberAt(Kal::kalNew<CollidingEntry>(CollidingKey{id}, id), place);
        }
    }
    EXPECT_GT(map.buckets(), 1u);
    EXPECT_EQ(map.verify(), "");
    std::vector<U32> walked;
    std::set<S32> bucketsSeen;
    for (auto i = map.iterator(); i; ++i) {
        walked.push_back(i.key().id);
        bucketsSeen.insert(i.bucketIndex());
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(walked, ids);
    EXPECT_EQ(bucketsSeen.size(), 1u) << "all members share one bucket";
    // Even ids are found; odd ones are not, and start at the next id.
    for (U32 id = 0; id < 2400; ++id) {
        CollidingEntry const* m = map[{id}];
        EXPECT_EQ(m ? S64(m->value()) : -1, id % 2 ? -1 : S64(id));
        CollidingMap::Place place;
        EXPECT_EQ(map.findOrPlace({id}, place), m);
        CollidingEntry const* at = map.startAtHash({id});
        EXPECT_EQ(at ? S64(at->fwkKey().id) : -1, id == 2399 ? -1 : S64(id + id % 2));
    }
}

TEST_F(HashMapTest, VersionCountsInsertionsAndDeletionsOfMembersOnly) {
    Map map;
    for (U64 k : {1, 2, 3}) insert(map, k);
    U32 const v = map.version();
    // An object with a member's key is not that member.
    Kal::Ptr<Entry> stranger = new Entry(1, 0);
    EXPECT_FALSE(map.deleteMember(stranger));
    EXPECT_FALSE(map.deleteMember(Kal::Ptr<Entry>()));
    EXPECT_EQ(map.version(), v);
    EXPECT_EQ(map.members(), 3u);
    EXPECT_TRUE(map.deleteMember(map[2]));
    EXPECT_EQ(map.version(), v + 1);
    map.deleteAll();
    EXPECT_EQ(map.version(), v + 3);
    EXPECT_EQ(v, 3u);
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
    // Independent from here on.
    copy.deleteMember(copy[keys[0]]);
    EXPECT_NE(map[keys[0]], nullptr);

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

    // A small map (single inline bucket) is assigned too, also over itself.
    Map small;
    insert(small, 1, 1);
    target = small;
    EXPECT_EQ(keysOf(target), std::vector<U64>{1});
    EXPECT_EQ(target.buckets(), 1u);
    Map& alias = target;
    target = alias;
    EXPECT_EQ(target.members(), 1u);
    EXPECT_EQ(target.verify(), "");
}

// Moving a map hands its members over without copies and leaves it empty and usable; a
// move-assigned map releases the members it held. Iterators of a moved-from map keep their
// members, and their next step finds the end of the emptied map, even when the versions of
// the two maps would have lined up; iterators of the target go on with the members it takes.
TEST_F(HashMapTest, MovingAMapTakesItsMembersOverWithoutCopies) {
    std::mt19937_64 rng(23);
    auto const keys = randomKeys(rng, 100);
    auto const order = inMapOrder(keys);
    std::vector<U64> const rest(order.begin() + 2, order.end());
    for (U32 initial : {1u, 256u}) {
        Map map(initial);
        for (U64 k : keys) insert(map, k, k);
        Map::Iterator i(map, order[1]);
        Map moved(std::move(map));
        Map::Iterator j(moved, order[0]); // at version 100
        EXPECT_EQ(memberCopies, 0);
        EXPECT_EQ(moved[order[1]], i.ptr());
        EXPECT_EQ(keysOf(moved), order);
        EXPECT_EQ(moved.verify(), "");
        EXPECT_EQ(map.members(), 0u);
        EXPECT_EQ(map.verify(), "");
        moved.deleteMember(moved[order[1]]);
        EXPECT_EQ(liveMembers, 100);
        ++i;
        EXPECT_TRUE(i.isEnd());
        EXPECT_EQ(liveMembers, 99);
        insert(map, 1); // the moved-from map is usable

        // The source gets the target's 50 members to release, which would take it to version
        // 50 + 50 had it not counted the members that left it.
        Map target;
        for (U64 k = 0; k < 50; ++k) insert(target, k);
        Map::Iterator t(target, 8);
        target = std::move(moved);
        EXPECT_EQ(liveMembers, 99 + 1 + 1);
        target.deleteMember(target[order[0]]);
        ++j;
        EXPECT_TRUE(j.isEnd());
        EXPECT_EQ(liveMembers, 98 + 1 + 1);
        ++t;
        auto const after8 = std::upper_bound(rest.begin(), rest.end(), 8, sortsBefore);
        EXPECT_EQ(t ? t.key() : 0, after8 == rest.end() ? 0 : *after8);
        EXPECT_EQ(liveMembers, 98 + 1);
        EXPECT_EQ(keysOf(target), rest);
        EXPECT_EQ(target.verify(), "");
        EXPECT_EQ(moved.members(), 0u);
        EXPECT_EQ(moved.buckets(), 1u);
        EXPECT_EQ(moved.verify(), "");
    }
}

TEST_F(HashMapTest, EqualityIgnoresInsertionOrderAndBucketsButNotKeysOrValues) {
    std::mt19937_64 rng(22);
    auto keys = randomKeys(rng, 300);
    Map a;
    for (U64 k : keys) insert(a, k, k % 7);
    std::shuffle(keys.begin(), keys.end(), rng);
    Map b(4096);
    for (U64 k : keys) insert(b, k, k % 7);
    auto expectEqual = [](Map const& x, Map const& y, bool equal) {
        EXPECT_EQ(x == y, equal);
        EXPECT_EQ(y == x, equal);
    };
    expectEqual(a, b, true);
    b[keys[17]]->valueIs(keys[17] % 7 + 1);
    expectEqual(a, b, false);
    b[keys[17]]->valueIs(keys[17] % 7);
    // Same size, one key swapped for another.
    b.deleteMember(b[keys[3]]);
    insert(b, keys[3] + 1, 0);
    expectEqual(a, b, false);
    expectEqual(Map(), Map(64), true);
    expectEqual(Map(), a, false);

    // Equal keys are tolerated: they keep their insertion order, a lookup finds the first,
    // and maps holding them with their values in another order are still equal.
    Map c, d;
    insert(c, 5, 1);
    insert(c, 6, 0); // sorts before 5, in the same chain
    insert(c, 5, 2);
    insert(c, 5, 3);
    for (U64 v : {3, 1, 2}) insert(d, 5, v);
    insert(d, 6, 0);
    EXPECT_EQ(c.verify(), "");
    std::vector<U64> values;
    for (Entry& e : c) values.push_back(e.value());
    EXPECT_EQ(values, (std::vector<U64>{0, 1, 2, 3}));
    expectEqual(c, d, true);
    d[6]->valueIs(1);
    expectEqual(c, d, false);
    EXPECT_EQ(c[5]->value(), 1u);
    c.deleteMember(c[5]);
    EXPECT_EQ(c[5]->value(), 2u);
    EXPECT_EQ(c.verify(), "");
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
    auto expectBroken = [](Map const& map, char const* what) {
        EXPECT_NE(map.verify().stringValue().find(what), std::string::npos) << map.verify();
    };
    Map map;
    insert(map, 2);
    auto three = insert(map, 3);
    ASSERT_EQ(map.verify(), "");
    // 1 sorts before 3 (reversed hashes 0x80000000 < 0xC0000000): out of order after 3.
    Kal::Ptr<Entry> stray = new Entry(1, 0);
    three->fwkHmNextIs(stray.ptr());
    expectBroken(map, "out of (hash, key) order");
    // A member the count does not know about, in order this time.
    Kal::Ptr<Entry> extra = new Entry(7, 0);
    three->fwkHmNextIs(extra.ptr());
    expectBroken(map, "more than the member count");
    three->fwkHmNextIs(nullptr);
    EXPECT_EQ(map.verify(), "");

    // In a map with several buckets, a chain whose end links into another bucket.
    Map wide(8);
    auto low = insert(wide, 2);  // bucket 2 of 8 (reversed hash 0x40000000)
    auto high = insert(wide, 3); // bucket 6 of 8 (0xC0000000)
    ASSERT_EQ(wide.verify(), "");
    low->fwkHmNextIs(high.ptr());
    expectBroken(wide, "does not end with a null link");
    low->fwkHmNextIs(nullptr);
    EXPECT_EQ(wide.verify(), "");
}

// A seeded random sequence of insertions, deletions, lookups and walks, checked against
// std::map, with verify() after every change.
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
        auto check = [&] {
            ASSERT_EQ(map.verify(), "");
            ASSERT_EQ(map.members(), ref.size());
        };
        auto refOrder = [&] {
            std::vector<U64> keys;
            for (auto const& [k, v] : ref) keys.push_back(k);
            return inMapOrder(keys);
        };
        // Grow, shrink nearly to nothing, then churn around a middle size.
        std::pair<int, unsigned> const phases[] = {{2500, 85}, {2500, 12}, {1500, 50}};
        for (auto [ops, insertPercent] : phases) {
            for (int op = 0; op < ops; ++op) {
                unsigned const dice = rng() % 100;
                U64 const k = anyKey();
                if (dice < 70) {
                    bool const doInsert = rng() % 100 < insertPercent;
                    auto const found = ref.find(k);
                    if (doInsert && found == ref.end()) {
                        // The three ways in: a counted insertion, a pointer given up, and
                        // the place found by a lookup that came up empty.
                        U64 const v = rng();
                        switch (rng() % 3) {
                        case 0:
                            insert(map, k, v);
                            break;
                        case 1:
                            map.newMember(Kal::kalNew<Entry>(k, v));
                            break;
                        default: {
                            Map::Place place;
                            ASSERT_EQ(map.findOrPlace(k, place), nullptr);
                            Entry* const added = map.newMemberAt(Kal::kalNew<Entry>(k, v), place);
                            ASSERT_EQ(added->fwkKey(), k);
                        }
                        }
                        ref[k] = v;
                    } else if (!doInsert && found != ref.end()) {
                        ASSERT_TRUE(map.deleteMember(map[k]));
                        ref.erase(found);
                    }
                    check();
                } else if (dice < 90) {
                    Entry const* m = map[k];
                    Map::Place place;
                    ASSERT_EQ(map.findOrPlace(k, place), m);
                    auto const found = ref.find(k);
                    ASSERT_EQ(m ? m->value() : 0, found == ref.end() ? 0 : found->second)
                        << std::hex << k;
                    ASSERT_EQ(m != nullptr, found != ref.end());
                } else if (dice < 97) {
                    ASSERT_EQ(keysOf(map), refOrder());
                } else {
                    // A walk that deletes a few of the members it stands on: the others are
                    // still visited, in order.
                    auto const all = refOrder();
                    std::vector<U64> visited;
                    for (auto i = map.iterator(); i; ++i) {
                        visited.push_back(i.key());
                        if (rng() % 8 == 0) {
                            ref.erase(i.key());
                            map.deleteMember(i.ptr());
                            check();
                        }
                    }
                    ASSERT_EQ(visited, all);
                }
                if (HasFatalFailure()) return;
            }
            ASSERT_EQ(keysOf(map), refOrder());
        }
    }
}

// Several iterators live through a seeded random sequence of insertions, deletions (of
// members under iterators too), insertions again of such deleted members, steps, copies,
// moves, resets, deleteAll and assignments. Each iterator is checked against a model: its
// next member is the first present one that sorts after its position. A member is held by
// the map while in it, and by each iterator that stood on it when the map let it go, until
// that iterator leaves it; by nothing else (iterators on members of the map count nothing).
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
            bool pinned = false; // holds a reference of its own
        };
        std::vector<Walker> walkers(5);

        auto place = [&](Walker& w, auto found) {
            w.at = found == present.end() ? nullptr : found->second;
            w.key = w.at ? found->first : 0;
            w.pinned = false;
        };
        // The map lets go of m, or of every member when m is null.
        auto letGo = [&](Entry const* m) {
            for (Walker& x : walkers) x.pinned |= x.at && (!m || x.at == m);
        };
        auto check = [&] {
            ASSERT_EQ(map.verify(), "");
            ASSERT_EQ(map.members(), present.size());
            std::map<Entry const*, U32> holders;
            for (auto const& [k, e] : present) ++holders[e];
            for (Walker const& w : walkers) {
                if (!w.it) continue;
                ASSERT_EQ(w.it->isEnd(), !w.at);
                if (!w.at) continue;
                ASSERT_EQ(w.it->ptr(), w.at);
                ASSERT_EQ(w.it->key(), w.key);
                holders[w.at] += w.pinned;
            }
            ASSERT_EQ(liveMembers, int(holders.size()));
            for (auto const& [e, n] : holders) ASSERT_EQ(e->references(), n) << e->fwkKey();
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
                    letGo(found->second);
                    present.erase(found);
                }
            } else if (dice < 50) {
                // The member under an iterator: deleted while the map holds it, else inserted
                // again when its key is free.
                auto const found = w.at ? present.find(w.key) : present.end();
                if (found != present.end() && found->second == w.at) {
                    ASSERT_TRUE(map.deleteMember(w.at));
                    letGo(w.at);
                    present.erase(found);
                } else if (w.at && found == present.end()) {
                    map.newMember(w.at);
                    present[w.key] = w.at;
                }
            } else if (dice < 75) {
                if (w.at) place(w, present.upper_bound(w.key));
                if (w.it) ++*w.it;
            } else if (dice < 80) {
                if (rng() % 2) {
                    w.it.emplace(map);
                    place(w, present.begin());
                } else {
                    U64 const k = anyKey();
                    w.it.emplace(map, k);
                    place(w, present.lower_bound(k));
                }
            } else if (dice < 90) {
                // v copied or moved into w, by construction or by assignment; v may be w.
                bool const move = dice >= 85;
                if (v.it) {
                    if (w.it && move) *w.it = std::move(*v.it);
                    else if (w.it) *w.it = *v.it;
                    else if (move) w.it.emplace(std::move(*v.it));
                    else w.it.emplace(*v.it);
                }
                if (v.it && &v != &w) {
                    w.at = v.at;
                    w.key = v.key;
                    w.pinned = v.pinned;
                    if (move) {
                        v.at = nullptr;
                        v.pinned = false;
                    }
                }
            } else if (dice < 93) {
                w.it.reset();
                w.at = nullptr;
                w.pinned = false;
            } else if (dice < 96) {
                if (w.it) {
                    w.it->reset();
                    place(w, present.begin());
                }
            } else if (dice < 97) {
                map.deleteAll();
                letGo(nullptr);
                present.clear();
            } else {
                // Copy- or move-assignment of another map.
                Map other;
                for (int n = 0; n < 40; ++n) {
                    U64 const k = anyKey();
                    if (!other[k]) insert(other, k, k);
                }
                if (dice < 98) {
                    map = other;
                } else {
                    map = std::move(other);
                }
                letGo(nullptr);
                present.clear();
                map.forEachMember([&](Entry const& e) {
                    present[e.fwkKey()] = const_cast<Entry*>(&e);
                });
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
