#include "Kal/RbTreeMap.h"

#include <gtest/gtest.h>

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

class RbTreeMapTest : public ::testing::Test {
  protected:
    void SetUp() override { Entry::live = 0; }
    void TearDown() override { EXPECT_EQ(Entry::live, 0) << "leaked or double-freed members"; }
};

// Keys of other types: the default order is operator<, a key type may declare its own
// rbTreeKeyLess beside itself, and a map may be given an order of its own.
namespace keys {
struct Rank {
    int v;
    bool operator==(Rank const&) const = default;
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

template <class K, class Order = Kal::RbTreeKeyOrder>
std::vector<K> filedInOrder(std::vector<K> const& keys) {
    Kal::RbTreeMap<Keyed<K>, K, Order> m;
    for (K const& k : keys) m.memberIs(new Keyed<K>(k));
    EXPECT_EQ(m.verify(), "");
    std::vector<K> out;
    for (auto& e : m) out.push_back(e.k); // range-for
    return out;
}

TEST_F(RbTreeMapTest, OtherKeyTypesFollowTheirOwnOrder) {
    EXPECT_EQ(filedInOrder<S64>({5, -3, 0, -100}), (std::vector<S64>{-100, -3, 0, 5}));
    EXPECT_EQ(filedInOrder<Kal::String8>({"vrf2", "default", "vrf10"}),
              (std::vector<Kal::String8>{"default", "vrf10", "vrf2"}));
    EXPECT_EQ(filedInOrder<keys::Rank>({{2}, {9}, {4}}), (std::vector<keys::Rank>{{9}, {4}, {2}}));
    EXPECT_EQ((filedInOrder<U64, std::greater<>>({1, top, 3})), (std::vector<U64>{top, 3, 1}));
}

TEST_F(RbTreeMapTest, DeleteAllAndTheDestructorReleaseEveryMember) {
    // A member whose destruction looks at the map must find it already empty.
    struct Watcher : Entry {
        Map* map;
        U32* seen;
        Watcher(U64 k, Map* m, U32* s) : Entry(k), map(m), seen(s) {}
        ~Watcher() override { *seen = map->members() + (map->memberDel(key) ? 100 : 0); }
    };
    constexpr U64 n = 20000;
    Map m;
    U32 seen = 99;
    m.memberIs(new Watcher(n, &m, &seen));
    for (U64 k = 0; k < n; ++k) m.memberIs(new Entry(k)); // ascending: the worst case unbalanced
    EXPECT_EQ(m.verify(), "");
    Kal::Ptr<Entry> kept = m[n / 2];
    m.deleteAll();
    EXPECT_EQ(seen, 0u);
    EXPECT_EQ(m.members(), 0u);
    EXPECT_FALSE(m.iterator());
    EXPECT_EQ(m.verify(), "");
    EXPECT_EQ(Entry::live, 1) << "only the member still held outside survives";
    EXPECT_EQ(kept->references(), 1u);
    {
        Map big;
        for (U64 k = n; k > 0; --k) big.memberIs(new Entry(k));
    }
    EXPECT_EQ(Entry::live, 1);
}

TEST_F(RbTreeMapTest, IteratorKeepsItsMemberAliveUntilItMoves) {
    Map m;
    for (U64 k : {1, 2}) m.memberIs(new Entry(k));
    auto i = m.iterator();
    m.memberDel(1);
    EXPECT_EQ(Entry::live, 2);
    EXPECT_EQ((++i).key(), 2u);
    EXPECT_EQ(Entry::live, 1);
    m.deleteAll();
    EXPECT_EQ(Entry::live, 1);
    EXPECT_FALSE(++i);
    EXPECT_EQ(Entry::live, 0);
}

TEST_F(RbTreeMapTest, CopiesFileTheSameMemberObjectsAndGoTheirOwnWays) {
    Map m;
    for (U64 k = 0; k < 1000; ++k) m.memberIs(new Entry(k * 7919 % 1009));
    Map copy(m);
    EXPECT_EQ(copy.verify(), "");
    EXPECT_TRUE(copy == m);
    for (auto i = m.iterator(); i; ++i) {
        ASSERT_EQ(i->references(), 3u) << "the original, the copy and the iterator";
    }
    EXPECT_EQ(Entry::live, 1000);
    Map::IteratorConst c = m.iterator(); // converted from an Iterator
    EXPECT_EQ(c.ptr(), std::as_const(m).startAt(0).ptr());
    // Equal needs the same member objects under the same keys, whatever the tree's shape.
    Map rebuilt;
    for (U64 k = 1009; k-- > 0;) {
        if (m[k]) rebuilt.memberIs(m[k]);
    }
    EXPECT_TRUE(rebuilt == m);
    rebuilt.memberIs(new Entry(2)); // same key, another object
    EXPECT_FALSE(rebuilt == m);
    rebuilt.memberIs(m[2]);
    rebuilt.memberIs(new Entry(5000)); // one more
    EXPECT_FALSE(m == rebuilt);
    copy.memberDel(0);
    EXPECT_NE(m[0], nullptr) << "the copy goes its own way";

    // Assignment replaces the old content; self-assignment keeps it; moving empties the source.
    rebuilt = m;
    auto& alias = rebuilt;
    rebuilt = alias;
    EXPECT_TRUE(rebuilt == m);
    EXPECT_EQ(rebuilt.verify(), "");
    Map moved(std::move(rebuilt));
    EXPECT_EQ(rebuilt.members(), 0u);
    EXPECT_EQ(rebuilt.verify(), "");
    rebuilt = std::move(moved);
    EXPECT_TRUE(rebuilt == m);
    EXPECT_EQ(moved.members(), 0u);
}

// verify() must see each broken rule; the shapes are built by hand on the untyped tree.
TEST_F(RbTreeMapTest, VerifyNamesTheBrokenRule) {
    using Kal::detail::RbNode;
    RbNode a, b, c, d;
    Kal::detail::RbTree t;
    t.insert(&b, nullptr, false);
    t.insert(&a, &b, true);
    t.insert(&c, &b, false);
    ASSERT_EQ(t.verify(), "");
    ASSERT_TRUE(!b.red && a.red && c.red);

    b.red = true;
    EXPECT_EQ(t.verify(), "root is red");
    b.red = false;
    a.parent = &c;
    EXPECT_EQ(t.verify(), "parent link does not point back at depth 1");
    a.parent = &b;
    a.red = false;
    EXPECT_EQ(t.verify(), "black heights differ (1 and 2) below depth 1");
    a.red = true;
    a.left = &d;
    d.parent = &a;
    d.red = true;
    EXPECT_EQ(t.verify(), "red node with a red child at depth 1");
    d.red = a.red = c.red = false;
    EXPECT_EQ(t.verify(), "more nodes than the member count 3");
    a.left = nullptr;
    c.red = a.red = true;
    b.right = nullptr;
    EXPECT_EQ(t.verify(), "member count 3 but 2 nodes");
    b.right = &c;
    b.parent = &a;
    EXPECT_EQ(t.verify(), "root has a parent");
    b.parent = nullptr;
    ASSERT_EQ(t.verify(), "");
    for (RbNode* n : {&a, &b, &c}) t.erase(n);
    EXPECT_EQ(t.verify(), "");
    EXPECT_EQ(t.root(), nullptr);

    Map m;
    for (U64 k : {1ull, 2ull, 3ull}) m.memberIs(new Entry(k));
    Kal::Ptr<Entry> middle = m[2];
    middle->key = 9; // breaks the members' contract on purpose
    EXPECT_EQ(m.verify(), "keys not strictly ascending at position 2");
    middle->key = 2;
}

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
    auto modelAt = [&](auto it) { return it == model.end() ? nullptr : it->second; };
    auto fileNew = [&](U64 k, int v) {
        Kal::Ptr<Entry> e = new Entry(k, v);
        model[k] = e.ptr();
        return m.memberIs(e);
    };
    auto drop = [&](U64 k) {
        model.erase(k);
        return m.memberDel(k);
    };
    for (int op = 0; op < ops; ++op) {
        U64 const k = randomKey(rng);
        Entry* const expected = modelAt(model.find(k));
        U64 const what = rng() % 8;
        if (what < 3) {
            ASSERT_EQ(fileNew(k, op).ptr(), expected);
        } else if (what < 5) {
            ASSERT_EQ(drop(k).ptr(), expected);
        } else if (what == 5) {
            ASSERT_EQ(m[k], expected);
            ASSERT_EQ(m.startAt(k).ptr(), modelAt(model.lower_bound(k)));
        } else if (what == 6) { // walk from a key while deleting and inserting around the iterator
            auto i = m.startAt(k);
            for (int step = 0; i && step < 20; ++step) {
                U64 const at = i.key();
                U64 const change = rng() % 4;
                if (change == 0) drop(at);
                if (change == 1) drop(randomKey(rng));
                if (change == 2) fileNew(randomKey(rng), op);
                ASSERT_EQ(m.verify(), "");
                ++i;
                // The next member is the first one now filed above the key left behind.
                ASSERT_EQ(i.ptr(), modelAt(model.upper_bound(at)));
            }
        } else {
            checkSameContent(m, model);
        }
        if (::testing::Test::HasFatalFailure()) return;
        ASSERT_EQ(m.verify(), "");
    }
    checkSameContent(m, model);
    Map copy(m);
    ASSERT_EQ(copy.verify(), "");
    ASSERT_TRUE(copy == m);
    while (m.members()) {
        drop(model.begin()->first);
        ASSERT_EQ(m.verify(), "");
    }
}

TEST_F(RbTreeMapTest, RandomOperationsMatchStdMap) {
    for (U64 seed : {U64(1), U64(2), U64(3), U64(std::random_device()())}) {
        runAgainstStdMap(seed, 3000);
        if (HasFatalFailure()) return;
        EXPECT_EQ(Entry::live, 0);
    }
}

TEST_F(RbTreeMapTest, FilingANullMemberIsAProgrammingError) {
    Map m;
    EXPECT_DEATH(m.memberIs(nullptr), "assertion failed: member");
    auto i = m.iterator();
    EXPECT_DEATH(++i, "iterator advanced past its end");
}

} // namespace
