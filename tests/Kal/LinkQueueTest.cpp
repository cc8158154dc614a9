#include "Kal/LinkQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

// Reaches into a link so that the self-check can be shown a broken chain.
struct Kal::detail::LinkQueueProbe {
    static void positionIs(LinkQueueLink& l, U64 p) { l.position_ = p; }
    static void prevIs(LinkQueueLink& l, LinkQueueLink* p) { l.prev_ = p; }
    static void queueIs(LinkQueueLink& l, LinkQueueRaw const* q) { l.queue_ = q; }
    static LinkQueueRaw const* queueOf(LinkQueueLink const& l) { return l.queue_; }
};

namespace {

// A queue item that counts live objects, so that leaks and double frees fail a test. It has
// the link base, so it can be filed in both kinds of queue.
struct Item : Kal::LinkQueueLink {
    static inline int live = 0;
    int id;
    explicit Item(int i) : id(i) { ++live; }
    ~Item() override { --live; }
};

// A counted object without the link base: only a LinkedQueue can file it.
struct Thing : Kal::PtrInterface {
    int id;
    explicit Thing(int i) : id(i) {}
};

template <class Q>
std::vector<int> idsOf(Q const& q) {
    std::vector<int> ids;
    for (auto const& item : q) ids.push_back(item.id);
    return ids;
}

template <class Q>
std::vector<U64> positionsOf(Q const& q) {
    std::vector<U64> positions;
    for (auto i = q.iterator(); i; ++i) positions.push_back(i.position());
    return positions;
}

template <class Q>
class QueueTest : public ::testing::Test {
  protected:
    void SetUp() override { Item::live = 0; }
    void TearDown() override { EXPECT_EQ(Item::live, 0) << "leaked or double-freed items"; }
};

using QueueKinds = ::testing::Types<Kal::LinkQueue<Item, unsigned>, Kal::LinkedQueue<Item, unsigned>>;
TYPED_TEST_SUITE(QueueTest, QueueKinds);

// ---- Order ----------------------------------------------------------------------------

TYPED_TEST(QueueTest, EmptyQueueHasNothing) {
    TypeParam q;
    EXPECT_EQ(q.size(), 0u);
    EXPECT_EQ(q.front(), nullptr);
    EXPECT_EQ(q.pop(), nullptr);
    EXPECT_EQ(q.find(0), nullptr);
    EXPECT_EQ(q.deleteAt(0), nullptr);
    EXPECT_FALSE(q.deleteItem(nullptr));
    EXPECT_FALSE(q.iterator());
    EXPECT_FALSE(q.startAt(0));
    EXPECT_EQ(q.verify(), "");
}

TYPED_TEST(QueueTest, ItemsFollowPositionAndEqualPositionsKeepTheirFilingOrder) {
    TypeParam q;
    std::vector<std::pair<unsigned, int>> filings{{5, 1}, {1, 2}, {3, 3}, {3, 4}, {1, 5}, {3, 6}, {0, 7}};
    for (auto [pos, id] : filings) {
        q.insert(new Item(id), pos);
        ASSERT_EQ(q.verify(), "");
    }
    EXPECT_EQ(idsOf(q), (std::vector<int>{7, 2, 5, 3, 4, 6, 1}));
    EXPECT_EQ(positionsOf(q), (std::vector<U64>{0, 1, 1, 3, 3, 3, 5}));
    EXPECT_EQ(q.size(), 7u);
}

TYPED_TEST(QueueTest, AppendFilesAtTheLastPositionPlusOne) {
    TypeParam q;
    EXPECT_EQ(q.append(new Item(1)), 0u);
    EXPECT_EQ(q.append(new Item(2)), 1u);
    q.insert(new Item(3), 10);
    EXPECT_EQ(q.append(new Item(4)), 11u);
    q.insert(new Item(5), 4); // in the middle: the back is unchanged
    EXPECT_EQ(q.append(new Item(6)), 12u);
    EXPECT_EQ(idsOf(q), (std::vector<int>{1, 2, 5, 3, 4, 6}));
    EXPECT_EQ(q.verify(), "");
}

TYPED_TEST(QueueTest, StartAtFindsTheFirstPositionNotLess) {
    TypeParam q;
    for (unsigned pos : {2u, 4u, 4u, 8u}) q.insert(new Item(int(pos)), pos);
    EXPECT_EQ(q.startAt(0).position(), 2u);
    EXPECT_EQ(q.startAt(3).position(), 4u);
    auto i = q.startAt(4);
    EXPECT_EQ(i.position(), 4u);
    EXPECT_EQ(i.ptr(), q.find(4)) << "the first of the items at 4";
    EXPECT_EQ(q.startAt(8)->id, 8);
    EXPECT_FALSE(q.startAt(9));
}

// ---- Removal --------------------------------------------------------------------------

TYPED_TEST(QueueTest, FrontAndPopTakeItemsInOrder) {
    TypeParam q;
    for (int id : {3, 1, 2}) q.insert(new Item(id), unsigned(id));
    std::vector<int> popped;
    while (Kal::Ptr<Item> item = q.pop()) {
        EXPECT_EQ(item->references(), 1u) << "the queue let go of it";
        popped.push_back(item->id);
        ASSERT_EQ(q.verify(), "");
        EXPECT_EQ(q.front() ? q.front()->id : 0, popped.back() == 3 ? 0 : popped.back() + 1);
    }
    EXPECT_EQ(popped, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(q.size(), 0u);
}

TYPED_TEST(QueueTest, FindAndDeleteAtUseTheFirstItemAtAPosition) {
    TypeParam q;
    q.insert(new Item(1), 3);
    q.insert(new Item(2), 3);
    q.insert(new Item(3), 7);
    EXPECT_EQ(q.find(3)->id, 1);
    EXPECT_EQ(q.find(4), nullptr);
    Kal::Ptr<Item> gone = q.deleteAt(3);
    ASSERT_NE(gone, nullptr);
    EXPECT_EQ(gone->id, 1);
    EXPECT_EQ(q.find(3)->id, 2);
    EXPECT_EQ(q.deleteAt(4), nullptr);
    EXPECT_EQ(q.deleteAt(7)->id, 3);
    EXPECT_EQ(idsOf(q), (std::vector<int>{2}));
    EXPECT_EQ(q.verify(), "");
}

TYPED_TEST(QueueTest, DeleteItemRemovesOnlyAFiledItem) {
    TypeParam q;
    Kal::Ptr<Item> a = new Item(1), b = new Item(2), c = new Item(3), stranger = new Item(4);
    q.append(a);
    q.append(b);
    q.append(c);
    EXPECT_TRUE(q.deleteItem(b.ptr()));
    EXPECT_FALSE(q.deleteItem(b.ptr()));
    EXPECT_FALSE(q.deleteItem(stranger.ptr()));
    EXPECT_EQ(b->references(), 1u);
    EXPECT_EQ(idsOf(q), (std::vector<int>{1, 3}));
    EXPECT_TRUE(q.deleteItem(c.ptr())); // the tail
    EXPECT_TRUE(q.deleteItem(a.ptr())); // the head
    EXPECT_EQ(q.size(), 0u);
    EXPECT_EQ(q.verify(), "");
    q.append(b); // filed again after leaving
    EXPECT_EQ(idsOf(q), (std::vector<int>{2}));
}

TYPED_TEST(QueueTest, DeleteAllReleasesALongQueueOneLinkAtATime) {
    // The chain is held link by link; releasing it recursively would run out of stack.
    constexpr int n = 300000;
    TypeParam q;
    for (int i = 0; i < n; ++i) q.append(new Item(i));
    EXPECT_EQ(q.size(), U32(n));
    Kal::Ptr<Item> kept = q.find(n / 2);
    q.deleteAll();
    EXPECT_EQ(q.size(), 0u);
    EXPECT_EQ(q.front(), nullptr);
    EXPECT_EQ(q.verify(), "");
    EXPECT_EQ(Item::live, 1);
    EXPECT_EQ(kept->references(), 1u);
    {
        TypeParam big;
        for (int i = 0; i < n; ++i) big.append(new Item(i));
    }
    EXPECT_EQ(Item::live, 1);
}

TYPED_TEST(QueueTest, ItemsOutliveTheirQueue) {
    Kal::Ptr<Item> kept = new Item(1);
    {
        TypeParam q;
        q.append(kept);
        q.append(new Item(2));
        EXPECT_EQ(kept->references(), 2u);
    }
    EXPECT_EQ(kept->references(), 1u);
    EXPECT_EQ(Item::live, 1);
    EXPECT_FALSE(kept->fwkLqFiled());
    TypeParam other;
    other.append(kept);
    EXPECT_EQ(other.front(), kept.ptr());
}

// ---- Iterators and bookmarks ----------------------------------------------------------

template <class Q>
std::vector<Kal::Ptr<Item>> fileAt(Q& q, std::vector<unsigned> const& positions) {
    std::vector<Kal::Ptr<Item>> items;
    for (unsigned pos : positions) {
        items.push_back(new Item(int(pos)));
        q.insert(items.back(), pos);
    }
    return items;
}

TYPED_TEST(QueueTest, DeletingTheCurrentItemLeavesABookmark) {
    TypeParam q;
    auto items = fileAt(q, {10, 20, 30});
    auto i = q.startAt(20);
    EXPECT_FALSE(i.hasBookmark());
    q.deleteItem(items[1].ptr());
    EXPECT_TRUE(i.hasBookmark());
    EXPECT_EQ(i.position(), 20u);
    EXPECT_EQ(i.ptr(), items[1].ptr()) << "the iterator still holds the item it stood on";
    ++i;
    EXPECT_FALSE(i.hasBookmark());
    EXPECT_EQ(i.position(), 30u);
    EXPECT_EQ(q.verify(), "");
}

TYPED_TEST(QueueTest, BookmarkSurvivesDeletionOfTheItemsAfterIt) {
    TypeParam q;
    auto items = fileAt(q, {1, 2, 3, 4, 5});
    auto i = q.startAt(2);
    q.deleteAt(2);
    q.deleteAt(3);
    q.deleteItem(items[3].ptr());
    items.clear(); // the deleted items die now, except the one the iterator holds
    EXPECT_EQ(Item::live, 3);
    ++i;
    EXPECT_EQ(i.position(), 5u);
    EXPECT_EQ(Item::live, 2);
    ++i;
    EXPECT_FALSE(i);
}

TYPED_TEST(QueueTest, ItemsFiledBehindABookmarkAreSkipped) {
    TypeParam q;
    auto items = fileAt(q, {10, 20, 30});
    auto i = q.startAt(20);
    q.deleteAt(20);
    q.insert(new Item(-20), 20); // at the bookmarked position: behind the iterator
    q.insert(new Item(25), 25);  // after it: visited
    std::vector<int> rest;
    for (++i; i; ++i) rest.push_back(i->id);
    EXPECT_EQ(rest, (std::vector<int>{25, 30}));
}

TYPED_TEST(QueueTest, WithoutABookmarkTheWalkFollowsTheChain) {
    TypeParam q;
    auto items = fileAt(q, {1, 2, 2, 3});
    std::vector<int> seen;
    for (auto i = q.iterator(); i; ++i) {
        seen.push_back(i->id);
        EXPECT_FALSE(i.hasBookmark());
        if (i.ptr() == items[1].ptr()) {
            q.deleteItem(items[2].ptr()); // the next item, at the same position
            q.insert(new Item(22), 2);    // filed after every item at 2: still ahead
        }
    }
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 22, 3}));
}

TYPED_TEST(QueueTest, DeleteAllUnderAnIteratorEndsTheWalk) {
    TypeParam q;
    fileAt(q, {1, 2, 3});
    auto i = q.startAt(2);
    q.deleteAll();
    EXPECT_TRUE(i.hasBookmark());
    EXPECT_EQ(Item::live, 1);
    ++i;
    EXPECT_FALSE(i);
    EXPECT_EQ(Item::live, 0);
}

TYPED_TEST(QueueTest, ConstIteratorsWalkTheSameItems) {
    TypeParam q;
    fileAt(q, {3, 1, 2});
    TypeParam const& cq = q;
    typename TypeParam::IteratorConst c = q.iterator(); // converted from an Iterator
    std::vector<Item const*> a, b;
    for (auto i = cq.iterator(); i; ++i) a.push_back(i.ptr());
    for (; c; ++c) b.push_back(c.ptr());
    EXPECT_EQ(a, b);
    EXPECT_EQ(cq.find(2), q.find(2));
    EXPECT_EQ(cq.startAt(2)->id, 2);
    EXPECT_EQ(cq.front()->id, 1);
}

// ---- Against a model ------------------------------------------------------------------

template <class Q>
void runAgainstModel(U64 seed, int ops) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    Q q;
    std::vector<std::pair<U64, Item*>> model; // in queue order
    auto firstAtLeast = [&](U64 p) {
        return std::find_if(model.begin(), model.end(), [&](auto const& e) { return e.first >= p; });
    };
    auto firstAbove = [&](U64 p) {
        return std::find_if(model.begin(), model.end(), [&](auto const& e) { return e.first > p; });
    };
    auto itemAt = [&](auto it) { return it == model.end() ? nullptr : it->second; };
    auto fileNew = [&](int id) {
        U64 const pos = rng() % 40;
        Kal::Ptr<Item> item = new Item(id);
        q.insert(item, unsigned(pos));
        model.insert(firstAbove(pos), {pos, item.ptr()});
    };
    auto deleteEntry = [&](std::size_t index) {
        ASSERT_TRUE(q.deleteItem(model[index].second));
        model.erase(model.begin() + std::ptrdiff_t(index));
    };
    for (int op = 0; op < ops; ++op) {
        U64 const pos = rng() % 45;
        switch (rng() % 9) {
        case 0:
        case 1:
        case 2:
            fileNew(op);
            break;
        case 3:
            if (model.empty() || model.back().first < 60) {
                Kal::Ptr<Item> item = new Item(op);
                U64 const expected = model.empty() ? 0 : model.back().first + 1;
                ASSERT_EQ(q.append(item), expected);
                model.push_back({expected, item.ptr()});
            }
            break;
        case 4: {
            Kal::Ptr<Item> item = q.pop();
            ASSERT_EQ(item.ptr(), model.empty() ? nullptr : model.front().second);
            if (!model.empty()) model.erase(model.begin());
            break;
        }
        case 5: {
            auto it = firstAtLeast(pos);
            Item* expected = it != model.end() && it->first == pos ? it->second : nullptr;
            ASSERT_EQ(q.find(unsigned(pos)), expected);
            ASSERT_EQ(q.deleteAt(unsigned(pos)).ptr(), expected);
            if (expected) model.erase(it);
            break;
        }
        case 6:
            if (!model.empty()) deleteEntry(rng() % model.size());
            break;
        case 7: { // walk from a position while changing the queue around the iterator
            auto i = q.startAt(unsigned(pos));
            ASSERT_EQ(i.ptr(), itemAt(firstAtLeast(pos)));
            for (int step = 0; i && step < 15; ++step) {
                Item* const at = i.ptr();
                U64 const atPos = i.position();
                switch (rng() % 4) {
                case 0:
                    deleteEntry(std::size_t(std::find_if(model.begin(), model.end(),
                                                         [&](auto const& e) { return e.second == at; }) -
                                            model.begin()));
                    break;
                case 1:
                    if (!model.empty()) deleteEntry(rng() % model.size());
                    break;
                case 2:
                    fileNew(op * 100 + step);
                    break;
                default:
                    break;
                }
                if (::testing::Test::HasFatalFailure()) return;
                ASSERT_EQ(q.verify(), "");
                auto self = std::find_if(model.begin(), model.end(),
                                         [&](auto const& e) { return e.second == at; });
                bool const filed = self != model.end();
                ASSERT_EQ(i.hasBookmark(), !filed);
                ++i;
                // Still filed: the item after it; gone: the first item above its position.
                Item* const expected = filed ? itemAt(self + 1) : itemAt(firstAbove(atPos));
                ASSERT_EQ(i.ptr(), expected);
            }
            break;
        }
        default: {
            ASSERT_EQ(q.size(), model.size());
            auto i = q.iterator();
            for (auto const& [p, item] : model) {
                ASSERT_EQ(i.ptr(), item);
                ASSERT_EQ(i.position(), p);
                ++i;
            }
            ASSERT_FALSE(i);
            break;
        }
        }
        if (::testing::Test::HasFatalFailure()) return;
        ASSERT_EQ(q.verify(), "");
        ASSERT_EQ(q.size(), model.size());
    }
}

TYPED_TEST(QueueTest, RandomOperationsMatchAModel) {
    for (U64 seed : {U64(1), U64(2), U64(std::random_device()())}) {
        runAgainstModel<TypeParam>(seed, 3000);
        if (this->HasFatalFailure()) return;
        EXPECT_EQ(Item::live, 0);
    }
}

// ---- The two kinds apart --------------------------------------------------------------

class LinkQueueTest : public QueueTest<void> {};

TEST_F(LinkQueueTest, AnItemIsFiledInOneQueueAtATime) {
    Kal::LinkQueue<Item> a, b;
    Kal::Ptr<Item> item = new Item(1);
    a.append(item);
    EXPECT_TRUE(a.holds(item.ptr()));
    EXPECT_FALSE(b.holds(item.ptr()));
    EXPECT_DEATH(b.append(item), "fwkLqFiled");
    EXPECT_DEATH(a.insert(item, 5), "fwkLqFiled");
    EXPECT_FALSE(b.deleteItem(item.ptr()));
    EXPECT_TRUE(a.deleteItem(item.ptr()));
    b.insert(item, 5);
    EXPECT_TRUE(b.holds(item.ptr()));
    EXPECT_EQ(item->fwkLqPosition(), 5u);
}

TEST_F(LinkQueueTest, WidePositionsKeepUnsignedOrder) {
    constexpr U64 top = 1ull << 63;
    Kal::LinkQueue<Item, U64> q;
    for (U64 pos : {top, U64(0x100000000ull), U64(7), ~0ull - 1}) q.insert(new Item(int(pos % 1000)), pos);
    EXPECT_EQ(positionsOf(q), (std::vector<U64>{7, 0x100000000ull, top, ~0ull - 1}));
    EXPECT_EQ(q.append(new Item(0)), ~0ull);
    EXPECT_DEATH(q.append(new Item(0)), "maxPosition");
    EXPECT_EQ(q.startAt(top + 1).position(), ~0ull - 1);
    EXPECT_EQ(q.verify(), "");

    Kal::LinkQueue<Item, U8> narrow;
    narrow.insert(new Item(1), 255);
    EXPECT_DEATH(narrow.append(new Item(2)), "maxPosition");
}

TEST_F(LinkQueueTest, VerifyNamesTheBrokenRule) {
    using Probe = Kal::detail::LinkQueueProbe;
    Kal::LinkQueue<Item> q;
    auto items = fileAt(q, {1, 2, 3});
    ASSERT_EQ(q.verify(), "");

    Probe::positionIs(*items[1], 9);
    EXPECT_EQ(q.verify(), "positions descend at index 2");
    Probe::positionIs(*items[1], 2);

    Probe::prevIs(*items[2], items[0].ptr());
    EXPECT_EQ(q.verify(), "previous link broken at index 2");
    Probe::prevIs(*items[2], items[1].ptr());

    auto const* owner = Probe::queueOf(*items[0]);
    Probe::queueIs(*items[0], nullptr);
    EXPECT_EQ(q.verify(), "link not filed in this queue at index 0");
    Probe::queueIs(*items[0], owner);
    ASSERT_EQ(q.verify(), "");
}

class LinkedQueueTest : public QueueTest<void> {};

TEST_F(LinkedQueueTest, AnItemMayBeFiledSeveralTimes) {
    Kal::LinkedQueue<Item> a, b;
    Kal::Ptr<Item> item = new Item(1);
    a.insert(item, 1);
    a.insert(item, 4);
    b.append(item);
    EXPECT_EQ(item->references(), 4u);
    EXPECT_FALSE(item->fwkLqFiled()) << "the queues file nodes, not the item";
    EXPECT_EQ(a.find(1), item.ptr());
    EXPECT_EQ(a.find(4), item.ptr());
    EXPECT_TRUE(a.deleteItem(item.ptr())); // the first filing
    EXPECT_EQ(a.find(1), nullptr);
    EXPECT_EQ(a.find(4), item.ptr());
    EXPECT_EQ(item->references(), 3u);
    EXPECT_EQ(a.verify(), "");
}

TEST_F(LinkedQueueTest, FilesObjectsWithoutALinkOfTheirOwn) {
    Kal::LinkedQueue<Thing const> q;
    Kal::Ptr<Thing> t = new Thing(7);
    q.insert(t, 2);
    q.insert(new Thing(8), 1);
    std::vector<int> ids;
    for (auto const& thing : q) ids.push_back(thing.id);
    EXPECT_EQ(ids, (std::vector<int>{8, 7}));
    EXPECT_EQ(t->references(), 2u);
    EXPECT_TRUE(q.deleteItem(t.ptr()));
    EXPECT_EQ(t->references(), 1u);
}

} // namespace
