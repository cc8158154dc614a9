#include "Kal/RbTreeMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr U64 top = 1ull << 63;
constexpr U64 maxKey = ~0ull;

// A counted member that counts live objects, so that leaks and double frees fail a test.
struct Entry : Kal::PtrInterface {
    static inline int live = 0;
    U64 key;
    int value;
    explicit Entry(U64 k, int v = 0) : key(k), value(v) { ++live; }
    ~Entry() override { --live; }
    U64 const& fwkKey() const { return key; }
};

using Map = Kal::RbTreeMap<Entry, U64>;

std::vector<U64> keysOf(Map const& m) {
    std::vector<U64> keys;
    for (auto i = m.iterator(); i; ++i) keys.push_back(i.key());
    return keys;
}

class RbTreeMapTest : public ::testing::Test {
  protected:
    void SetUp() override { Entry::live = 0; }
    void TearDown() override { EXPECT_EQ(Entry::live, 0) << "leaked or double-freed members"; }
};

// ---- Order ----------------------------------------------------------------------------

TEST_F(RbTreeMapTest, EmptyMapHasNothingToFindOrIterate) {
    Map m;
    EXPECT_EQ(m.members(), 0u);
    EXPECT_FALSE(m.iterator());
    EXPECT_FALSE(m.startAt(0));
    EXPECT_EQ(m[7], nullptr);
    EXPECT_EQ(m.memberDel(7), nullptr);
    EXPECT_EQ(m.verify(), "");
    int visited = 0;
    for ([[maybe_unused]] Entry& e : m) ++visited;
    EXPECT_EQ(visited, 0);
}

TEST_F(RbTreeMapTest, KeysIterateInUnsignedAscendingOrder) {
    std::vector<U64> keys{0, 1, 2, top - 1, top, top + 1, maxKey - 1, maxKey, 1000, 0x100000000ull};
    std::mt19937 rng(7);
    std::shuffle(keys.begin(), keys.end(), rng);
    Map m;
    for (U64 k : keys) {
        EXPECT_EQ(m.memberIs(new Entry(k)), nullptr);
        ASSERT_EQ(m.verify(), "");
    }
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(keysOf(m), keys);
    EXPECT_EQ(keys.back(), maxKey);
    for (U64 k : keys) {
        ASSERT_NE(m[k], nullptr);
        EXPECT_EQ(m[k]->key, k);
    }
}

TEST_F(RbTreeMapTest, EntriesRecordedOutOfOrderIterateAscending) {
    Map m;
    m.memberIs(new Entry(30, 300));
    m.memberIs(new Entry(10, 100));
    m.memberIs(new Entry(20, 200));
    std::vector<int> values;
    for (Entry& e : m) values.push_back(e.value);
    EXPECT_EQ(values, (std::vector<int>{100, 200, 300}));
    EXPECT_EQ(keysOf(m), (std::vector<U64>{10, 20, 30}));
}

TEST_F(RbTreeMapTest, StartAtFindsTheFirstKeyNotLess) {
    Map m;
    for (U64 k : {10ull, 20ull, 30ull, top, maxKey}) m.memberIs(new Entry(k));
    EXPECT_EQ(m.startAt(0).key(), 10u);
    EXPECT_EQ(m.startAt(10).key(), 10u);
    EXPECT_EQ(m.startAt(11).key(), 20u);
    EXPECT_EQ(m.startAt(31).key(), top);
    EXPECT_EQ(m.startAt(top + 1).key(), maxKey);
    auto i = m.startAt(25);
    EXPECT_EQ(i.key(), 30u);
    ++i;
    EXPECT_EQ(i.key(), top);
    m.memberDel(maxKey);
    EXPECT_FALSE(m.startAt(top + 1));
}

// Keys of other types: the default order is operator<, a key type may declare its own
// rbTreeKeyLess beside itself, and a map may be given an order of its own.
namespace keys {
struct Rank {
    int v;
};
// Descending: found by argument-dependent lookup.
bool rbTreeKeyLess(Rank const& a, Rank const& b) { return a.v > b.v; }
} // namespace keys

template <class K>
struct Keyed : Kal::PtrInterface {
    K k;
    explicit Keyed(K key) : k(std::move(key)) {}
    K const& fwkKey() const { return k; }
};

TEST_F(RbTreeMapTest, OtherKeyTypesFollowTheirOwnOrder) {
    Kal::RbTreeMap<Keyed<S64>, S64> signedMap;
    for (S64 k : {5ll, -3ll, 0ll, -100ll}) signedMap.memberIs(new Keyed<S64>(k));
    std::vector<S64> s;
    for (auto& e : signedMap) s.push_back(e.k);
    EXPECT_EQ(s, (std::vector<S64>{-100, -3, 0, 5}));

    Kal::RbTreeMap<Keyed<Kal::String8>, Kal::String8> text;
    for (char const* k : {"vrf2", "default", "vrf10"}) text.memberIs(new Keyed<Kal::String8>(k));
    std::vector<std::string> t;
    for (auto& e : text) t.push_back(e.k.stringValue());
    EXPECT_EQ(t, (std::vector<std::string>{"default", "vrf10", "vrf2"}));

    Kal::RbTreeMap<Keyed<keys::Rank>, keys::Rank> ranks;
    for (int v : {2, 9, 4}) ranks.memberIs(new Keyed<keys::Rank>({v}));
    std::vector<int> r;
    for (auto& e : ranks) r.push_back(e.k.v);
    EXPECT_EQ(r, (std::vector<int>{9, 4, 2}));
    EXPECT_NE(ranks[keys::Rank{4}], nullptr);
    EXPECT_EQ(ranks.verify(), "");

    Kal::RbTreeMap<Entry, U64, std::greater<>> down;
    for (U64 k : {1ull, top, 3ull}) down.memberIs(new Entry(k));
    std::vector<U64> d;
    for (auto i = down.iterator(); i; ++i) d.push_back(i.key());
    EXPECT_EQ(d, (std::vector<U64>{top, 3, 1}));
    EXPECT_EQ(down.verify(), "");
}

// ---- Insert, replace, delete ----------------------------------------------------------

TEST_F(RbTreeMapTest, MemberIsReplacesTheMemberWithAnEqualKey) {
    Map m;
    Kal::Ptr<Entry> first = new Entry(5, 1);
    EXPECT_EQ(m.memberIs(first), nullptr);
    EXPECT_EQ(first->references(), 2u);

    Kal::Ptr<Entry> second = new Entry(5, 2);
    Kal::Ptr<Entry> replaced = m.memberIs(second);
    EXPECT_EQ(replaced, first);
    EXPECT_EQ(first->references(), 2u) << "the map let go of the replaced member";
    EXPECT_EQ(m.members(), 1u);
    EXPECT_EQ(m[5], second.ptr());
    EXPECT_EQ(m.verify(), "");

    // Filing the member already filed changes nothing and hands it back.
    EXPECT_EQ(m.memberIs(second), second);
    EXPECT_EQ(m.members(), 1u);
    EXPECT_EQ(second->references(), 2u);
}

TEST_F(RbTreeMapTest, MemberDelReturnsTheRemovedMemberOrNull) {
    Map m;
    for (U64 k = 0; k < 8; ++k) m.memberIs(new Entry(k, int(k)));
    Kal::Ptr<Entry> gone = m.memberDel(3);
    ASSERT_NE(gone, nullptr);
    EXPECT_EQ(gone->value, 3);
    EXPECT_EQ(gone->references(), 1u);
    EXPECT_EQ(m.memberDel(3), nullptr);
    EXPECT_EQ(m[3], nullptr);
    EXPECT_EQ(m.members(), 7u);
    EXPECT_EQ(keysOf(m), (std::vector<U64>{0, 1, 2, 4, 5, 6, 7}));
    EXPECT_EQ(m.verify(), "");
    gone = nullptr;
    EXPECT_EQ(Entry::live, 7);
}

TEST_F(RbTreeMapTest, DeleteAllReleasesEveryMemberOfALargeTree) {
    // Ascending insertion is the worst case for an unbalanced tree: verify() checks that the
    // colour rules, and so the height bound, still hold at this size.
    constexpr U64 n = 100000;
    Map m;
    for (U64 k = 0; k < n; ++k) m.memberIs(new Entry(k));
    EXPECT_EQ(m.members(), n);
    EXPECT_EQ(m.verify(), "");
    Kal::Ptr<Entry> kept = m[n / 2];
    m.deleteAll();
    EXPECT_EQ(m.members(), 0u);
    EXPECT_FALSE(m.iterator());
    EXPECT_EQ(m.verify(), "");
    EXPECT_EQ(Entry::live, 1) << "only the member still held outside survives";
    EXPECT_EQ(kept->references(), 1u);

    // The destructor takes down a large tree the same way.
    {
        Map big;
        for (U64 k = n; k > 0; --k) big.memberIs(new Entry(k));
    }
    EXPECT_EQ(Entry::live, 1);
}

TEST_F(RbTreeMapTest, DeleteAllEmptiesTheMapBeforeReleasingMembers) {
    // A member whose destruction looks at the map must find it already empty.
    struct Watcher : Entry {
        Map* map;
        U32* seen;
        Watcher(U64 k, Map* m, U32* s) : Entry(k), map(m), seen(s) {}
        ~Watcher() override { *seen = map->members() + (map->memberDel(key) ? 100 : 0); }
    };
    Map m;
    U32 seen = 99;
    m.memberIs(new Watcher(1, &m, &seen));
    m.memberIs(new Entry(2));
    m.deleteAll();
    EXPECT_EQ(seen, 0u);
}

// ---- Iterators ------------------------------------------------------------------------

TEST_F(RbTreeMapTest, DeletingTheMemberUnderAnIteratorContinuesWithTheNextKey) {
    Map m;
    for (U64 k : {10ull, 20ull, 30ull, 40ull, 50ull}) m.memberIs(new Entry(k));
    std::vector<U64> visited;
    for (auto i = m.iterator(); i; ++i) {
        visited.push_back(i.key());
        if (i.key() == 20) {
            Kal::Ptr<Entry> held = i.ptr();
            m.memberDel(20);
            // The iterator still holds the member that left the map.
            EXPECT_EQ(i.ptr(), held.ptr());
            EXPECT_EQ(held->references(), 2u);
        }
        if (i.key() == 30) {
            m.memberDel(30);
            m.memberDel(40); // the next one too
        }
    }
    EXPECT_EQ(visited, (std::vector<U64>{10, 20, 30, 50}));
    EXPECT_EQ(keysOf(m), (std::vector<U64>{10, 50}));
    EXPECT_EQ(m.verify(), "");
}

TEST_F(RbTreeMapTest, IteratorKeepsItsMemberAliveUntilItMoves) {
    Map m;
    m.memberIs(new Entry(1));
    m.memberIs(new Entry(2));
    auto i = m.iterator();
    m.memberDel(1);
    EXPECT_EQ(Entry::live, 2);
    EXPECT_EQ(i.key(), 1u);
    ++i;
    EXPECT_EQ(Entry::live, 1);
    EXPECT_EQ(i.key(), 2u);
    m.deleteAll();
    EXPECT_EQ(Entry::live, 1);
    ++i;
    EXPECT_FALSE(i);
    EXPECT_EQ(Entry::live, 0);
}

TEST_F(RbTreeMapTest, MembersInsertedDuringAWalkAreVisitedOnlyAfterTheIterator) {
    Map m;
    for (U64 k : {10ull, 20ull, 30ull}) m.memberIs(new Entry(k));
    std::vector<U64> visited;
    for (auto i = m.iterator(); i; ++i) {
        visited.push_back(i.key());
        if (i.key() == 20) {
            m.memberIs(new Entry(5));   // behind: not visited
            m.memberIs(new Entry(25));  // ahead: visited
            m.memberIs(new Entry(top)); // ahead: visited
        }
    }
    EXPECT_EQ(visited, (std::vector<U64>{10, 20, 25, 30, top}));
}

TEST_F(RbTreeMapTest, ReplacingTheMemberUnderAnIteratorKeepsTheWalkInOrder) {
    Map m;
    for (U64 k : {1ull, 2ull, 3ull}) m.memberIs(new Entry(k, 0));
    auto i = m.startAt(2);
    Kal::Ptr<Entry> old = m.memberIs(new Entry(2, 7));
    EXPECT_EQ(i.ptr(), old.ptr());
    ++i;
    EXPECT_EQ(i.key(), 3u);
    EXPECT_EQ(m[2]->value, 7);
}

TEST_F(RbTreeMapTest, ConstIteratorsWalkTheSameMembers) {
    Map m;
    for (U64 k : {3ull, 1ull, 2ull}) m.memberIs(new Entry(k));
    Map const& cm = m;
    Map::IteratorConst c = m.iterator(); // converted from an Iterator
    std::vector<Entry const*> a, b;
    for (auto i = cm.iterator(); i; ++i) a.push_back(i.ptr());
    for (; c; ++c) b.push_back(c.ptr());
    EXPECT_EQ(a, b);
    EXPECT_EQ(cm[2], m[2]);
    EXPECT_EQ(cm.startAt(2)->key, 2u);
}

// ---- Copy and equality ----------------------------------------------------------------

TEST_F(RbTreeMapTest, ACopyFilesTheSameMemberObjects) {
    Map m;
    for (U64 k = 0; k < 1000; ++k) m.memberIs(new Entry(k * 7919 % 1009));
    Map copy(m);
    EXPECT_EQ(copy.verify(), "");
    EXPECT_EQ(copy.members(), m.members());
    EXPECT_TRUE(copy == m);
    for (auto i = m.iterator(); i; ++i) {
        EXPECT_EQ(copy[i.key()], i.ptr());
        EXPECT_EQ(i->references(), 3u) << "the original, the copy and the iterator";
    }
    EXPECT_EQ(Entry::live, 1000);

    // The maps go their own ways afterwards.
    copy.memberDel(0);
    copy.memberIs(new Entry(5000));
    EXPECT_NE(m[0], nullptr);
    EXPECT_EQ(m[5000], nullptr);
    EXPECT_FALSE(copy == m);
    EXPECT_EQ(m.verify(), "");

    // Assignment replaces the old content; self-assignment keeps it.
    Map other;
    other.memberIs(new Entry(1 << 20));
    other = m;
    EXPECT_TRUE(other == m);
    EXPECT_EQ(other.verify(), "");
    auto& alias = other;
    other = alias;
    EXPECT_TRUE(other == m);

    // Moving hands the tree over; the source is left empty.
    Map moved(std::move(other));
    EXPECT_TRUE(moved == m);
    EXPECT_EQ(other.members(), 0u);
    EXPECT_EQ(other.verify(), "");
    other = std::move(moved);
    EXPECT_TRUE(other == m);
    EXPECT_EQ(moved.members(), 0u);

    Map empty;
    Map emptyCopy(empty);
    EXPECT_TRUE(empty == emptyCopy);
    EXPECT_EQ(emptyCopy.verify(), "");
}

TEST_F(RbTreeMapTest, EqualityNeedsTheSameMemberObjectsUnderTheSameKeys) {
    Map a, b;
    std::vector<Kal::Ptr<Entry>> entries;
    for (U64 k : {4ull, top, 2ull, 9ull}) entries.push_back(new Entry(k));
    for (auto& e : entries) a.memberIs(e);
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) b.memberIs(*it);
    EXPECT_TRUE(a == b) << "insertion order does not matter";

    b.memberIs(new Entry(2)); // same key, another object
    EXPECT_FALSE(a == b);
    b.memberIs(entries[2]);
    EXPECT_TRUE(a == b);
    b.memberDel(9);
    EXPECT_FALSE(a == b);
}

// ---- Self-check -----------------------------------------------------------------------

// verify() must see each broken rule; the shapes are built by hand on the untyped tree.
TEST_F(RbTreeMapTest, VerifyNamesTheBrokenRule) {
    using Kal::detail::RbNode;
    using Kal::detail::RbTree;
    auto contains = [](Kal::String8 const& text, char const* part) {
        return text.stringValue().find(part) != std::string::npos;
    };
    RbNode a, b, c, d;
    RbTree t;
    t.insert(&b, nullptr, false);
    t.insert(&a, &b, true);
    t.insert(&c, &b, false);
    ASSERT_EQ(t.verify(), "");
    ASSERT_FALSE(b.red);
    ASSERT_TRUE(a.red && c.red);

    b.red = true;
    EXPECT_EQ(t.verify(), "root is red");
    b.red = false;

    a.parent = &c;
    EXPECT_TRUE(contains(t.verify(), "parent link does not point back")) << t.verify();
    a.parent = &b;

    a.red = false;
    EXPECT_TRUE(contains(t.verify(), "black heights differ")) << t.verify();
    a.red = true;

    a.left = &d;
    d.parent = &a;
    d.red = true;
    EXPECT_TRUE(contains(t.verify(), "red node with a red child")) << t.verify();
    d.red = false;
    a.red = false;
    c.red = false;
    EXPECT_TRUE(contains(t.verify(), "more nodes than the member count 3")) << t.verify();
    a.left = nullptr;
    c.red = true;
    a.red = true;

    b.right = nullptr;
    EXPECT_EQ(t.verify(), "member count 3 but 2 nodes");
    b.right = &c;

    b.parent = &a;
    EXPECT_EQ(t.verify(), "root has a parent");
    b.parent = nullptr;
    ASSERT_EQ(t.verify(), "");

    t.erase(&a);
    t.erase(&b);
    t.erase(&c);
    EXPECT_EQ(t.verify(), "");
    EXPECT_EQ(t.root(), nullptr);
}

TEST_F(RbTreeMapTest, VerifySeesAKeyChangedWhileFiled) {
    Map m;
    for (U64 k : {1ull, 2ull, 3ull}) m.memberIs(new Entry(k));
    Kal::Ptr<Entry> middle = m[2];
    middle->key = 9; // breaks the members' contract on purpose
    EXPECT_EQ(m.verify(), "keys not strictly ascending at position 2");
    middle->key = 2;
    EXPECT_EQ(m.verify(), "");
}

// ---- Against std::map -----------------------------------------------------------------

U64 randomKey(std::mt19937_64& rng) {
    switch (rng() % 4) {
    case 0:
    case 1:
        return rng() % 300;
    case 2:
        return top - 20 + rng() % 40; // across the sign bit
    default:
        return maxKey - rng() % 20;
    }
}

void checkSameContent(Map const& m, std::map<U64, Entry*> const& model) {
    ASSERT_EQ(m.members(), model.size());
    auto i = m.iterator();
    for (auto const& [k, e] : model) {
        ASSERT_TRUE(i);
        ASSERT_EQ(i.key(), k);
        ASSERT_EQ(i.ptr(), e);
        ++i;
    }
    EXPECT_FALSE(i);
}

void runAgainstStdMap(U64 seed, int ops) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    Map m;
    std::map<U64, Entry*> model;
    for (int op = 0; op < ops; ++op) {
        U64 const k = randomKey(rng);
        auto const found = model.find(k);
        Entry* const expected = found == model.end() ? nullptr : found->second;
        switch (rng() % 8) {
        case 0:
        case 1:
        case 2: { // insert or replace
            Kal::Ptr<Entry> e = new Entry(k, op);
            Kal::Ptr<Entry> old = m.memberIs(e);
            ASSERT_EQ(old.ptr(), expected);
            model[k] = e.ptr();
            ASSERT_EQ(m.verify(), "");
            break;
        }
        case 3:
        case 4: { // delete
            Kal::Ptr<Entry> old = m.memberDel(k);
            ASSERT_EQ(old.ptr(), expected);
            model.erase(k);
            ASSERT_EQ(m.verify(), "");
            break;
        }
        case 5: { // find and startAt
            ASSERT_EQ(m[k], expected);
            auto const lb = model.lower_bound(k);
            auto const i = m.startAt(k);
            ASSERT_EQ(i.ptr(), lb == model.end() ? nullptr : lb->second);
            break;
        }
        case 6: { // walk from a key while deleting and inserting around the iterator
            auto i = m.startAt(k);
            for (int step = 0; i && step < 20; ++step) {
                U64 const at = i.key();
                switch (rng() % 4) {
                case 0:
                    m.memberDel(at);
                    model.erase(at);
                    break;
                case 1: {
                    U64 const other = randomKey(rng);
                    m.memberDel(other);
                    model.erase(other);
                    break;
                }
                case 2: {
                    U64 const other = randomKey(rng);
                    Kal::Ptr<Entry> e = new Entry(other, op);
                    m.memberIs(e);
                    model[other] = e.ptr();
                    break;
                }
                default:
                    break;
                }
                ASSERT_EQ(m.verify(), "");
                ++i;
                // The next member is the first one now filed above the key left behind.
                auto const next = model.upper_bound(at);
                ASSERT_EQ(i.ptr(), next == model.end() ? nullptr : next->second);
            }
            break;
        }
        default:
            checkSameContent(m, model);
            break;
        }
    }
    checkSameContent(m, model);
    Map copy(m);
    ASSERT_EQ(copy.verify(), "");
    ASSERT_TRUE(copy == m);
    while (m.members()) {
        U64 const k = model.begin()->first;
        m.memberDel(k);
        model.erase(k);
        ASSERT_EQ(m.verify(), "");
    }
}

TEST_F(RbTreeMapTest, RandomOperationsMatchStdMap) {
    std::vector<U64> seeds{1, 2, 3, std::random_device()()};
    for (U64 seed : seeds) {
        runAgainstStdMap(seed, 4000);
        if (HasFatalFailure()) return;
        EXPECT_EQ(Entry::live, 0);
    }
}

// ---- Promised crashes -----------------------------------------------------------------

TEST_F(RbTreeMapTest, FilingANullMemberIsAProgrammingError) {
    Map m;
    EXPECT_DEATH(m.memberIs(nullptr), "assertion failed: member");
    auto i = m.iterator();
    EXPECT_DEATH(++i, "iterator advanced past its end");
}

} // namespace
