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

template <class Q>
std::vector<Kal::Ptr<Item>> fileAt(Q& q, std::vector<unsigned> const& positions) {
    std::vector<Kal::Ptr<Item>> items;
    for (unsigned pos : positions) {
        items.push_back(new Item(int(pos)));
        q.insert(items.back(), pos);
    }
    return items;
}

template <class Q>
class QueueTest : public ::testing::Test {
  protected:
    void SetUp() override { Item::live = 0; }
    void TearDown() override { EXPECT_EQ(Item::live, 0) << "leaked or double-freed items"; }
};

using QueueKinds = ::testing::Types<Kal::LinkQueue<Item, unsigned>, Kal::LinkedQueue<Item, unsigned>>;
TYPED_TEST_SUITE(QueueTest, QueueKinds);

TYPED_TEST(QueueTest, DeleteItemRemovesOnlyAFiledItemWhichOutlivesItsQueue) {
    Kal::Ptr<Item> a = new Item(1), b = new Item(2), stranger = new Item(3);
    {
        TypeParam q;
        q.append(a);
        q.append(b);
        EXPECT_FALSE(q.deleteItem(stranger.ptr()));
        EXPECT_TRUE(q.deleteItem(b.ptr()));
        EXPECT_FALSE(q.deleteItem(b.ptr()));
        EXPECT_EQ(b->references(), 1u);
        EXPECT_EQ(q.verify(), "");
        EXPECT_EQ(a->references(), 2u);
        q.append(b);
        TypeParam const& cq = q; // the const view
        typename TypeParam::IteratorConst c = q.iterator(); // converted from an Iterator
        EXPECT_EQ(c.ptr(), cq.front());
        EXPECT_EQ(cq.find(1), q.find(1));
        EXPECT_EQ(cq.startAt(1)->id, 2);
        std::vector<int> ids;
        for (auto const& item : cq) ids.push_back(item.id); // range-for
        EXPECT_EQ(ids, (std::vector<int>{1, 2}));
        q.deleteItem(b.ptr());
    }
    EXPECT_EQ(a->references(), 1u);
    EXPECT_FALSE(a->fwkLqFiled());
    TypeParam other;
    other.append(a); // filed again after its queue is gone
    EXPECT_EQ(other.front(), a.ptr());
}

TYPED_TEST(QueueTest, DeleteAllReleasesALongQueueOneLinkAtATime) {
    // The chain is held link by link; releasing it recursively would run out of stack.
    constexpr int n = 300000;
    TypeParam q;
    for (int i = 0; i < n; ++i) q.append(new Item(i));
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

TYPED_TEST(QueueTest, IteratorKeepsItsItemAliveUntilItMoves) {
    TypeParam q;
    auto items = fileAt(q, {1, 2, 3, 4, 5});
    auto i = q.startAt(2);
    q.deleteAt(2);
    q.deleteAt(3);
    items.clear(); // the deleted items die now, except the one the iterator holds
    EXPECT_EQ(Item::live, 4);
    EXPECT_TRUE(i.hasBookmark());
    EXPECT_EQ((++i).position(), 4u);
    EXPECT_EQ(Item::live, 3);
    q.deleteAll();
    EXPECT_EQ(Item::live, 1);
    EXPECT_FALSE(++i);
    EXPECT_EQ(Item::live, 0);
}

template <class Q>
void runAgainstModel(U64 seed, int ops) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    Q q;
    std::vector<std::pair<U64, Item*>> model; // in queue order
    auto firstWhere = [&](auto pred) { return std::find_if(model.begin(), model.end(), pred); };
    auto firstAtLeast = [&](U64 p) { return firstWhere([&](auto& e) { return e.first >= p; }); };
    auto firstAbove = [&](U64 p) { return firstWhere([&](auto& e) { return e.first > p; }); };
    auto entryOf = [&](Item const* item) {
        return firstWhere([&](auto& e) { return e.second == item; });
    };
    auto itemAt = [&](auto it) { return it == model.end() ? nullptr : it->second; };
    auto fileNew = [&](int id) {
        U64 const pos = rng() % 40;
        Kal::Ptr<Item> item = new Item(id);
        q.insert(item, unsigned(pos));
        model.insert(firstAbove(pos), {pos, item.ptr()});
    };
    auto deleteEntry = [&](auto it) {
        ASSERT_TRUE(q.deleteItem(it->second));
        model.erase(it);
    };
    auto deleteAny = [&] {
        if (!model.empty()) deleteEntry(model.begin() + std::ptrdiff_t(rng() % model.size()));
    };
    for (int op = 0; op < ops; ++op) {
        U64 const pos = rng() % 45;
        U64 const what = rng() % 9;
        if (what < 3) {
            fileNew(op);
        } else if (what == 3 && (model.empty() || model.back().first < 60)) {
            Kal::Ptr<Item> item = new Item(op);
            U64 const expected = model.empty() ? 0 : model.back().first + 1;
            ASSERT_EQ(q.append(item), expected);
            model.push_back({expected, item.ptr()});
        } else if (what == 4) {
            Item* const expected = model.empty() ? nullptr : model.front().second;
            ASSERT_EQ(q.front(), expected);
            ASSERT_EQ(q.pop().ptr(), expected);
            if (!model.empty()) model.erase(model.begin());
        } else if (what == 5) {
            auto it = firstAtLeast(pos);
            Item* expected = it != model.end() && it->first == pos ? it->second : nullptr;
            ASSERT_EQ(q.find(unsigned(pos)), expected);
            ASSERT_EQ(q.deleteAt(unsigned(pos)).ptr(), expected);
            if (expected) model.erase(it);
        } else if (what == 6) {
            deleteAny();
        } else if (what == 7) { // walk from a position while changing the queue around the iterator
            auto i = q.startAt(unsigned(pos));
            ASSERT_EQ(i.ptr(), itemAt(firstAtLeast(pos)));
            for (int step = 0; i && step < 15; ++step) {
                Item* const at = i.ptr();
                U64 const atPos = i.position();
                U64 const change = rng() % 4;
                if (change == 0) deleteEntry(entryOf(at));
                if (change == 1) deleteAny();
                if (change == 2) fileNew(op * 100 + step);
                if (::testing::Test::HasFatalFailure()) return;
                ASSERT_EQ(q.verify(), "");
                auto self = entryOf(at);
                bool const filed = self != model.end();
                ASSERT_EQ(i.hasBookmark(), !filed);
                ++i;
                // Still filed: the item after it; gone: the first item above its position.
                ASSERT_EQ(i.ptr(), filed ? itemAt(self + 1) : itemAt(firstAbove(atPos)));
            }
        } else if (what == 8) {
            auto i = q.iterator();
            for (auto const& [p, item] : model) {
                ASSERT_EQ(i.ptr(), item);
                ASSERT_EQ(i.position(), p);
                ++i;
            }
            ASSERT_FALSE(i);
        }
        if (::testing::Test::HasFatalFailure()) return;
        ASSERT_EQ(q.verify(), "");
        ASSERT_EQ(q.size(), model.size());
    }
}

TYPED_TEST(QueueTest, RandomOperationsMatchAModel) {
    for (U64 seed : {U64(1), U64(2), U64(std::random_device()())}) {
        runAgainstModel<TypeParam>(seed, 2500);
        if (this->HasFatalFailure()) return;
        EXPECT_EQ(Item::live, 0);
    }
}

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

    // Without the link base only a LinkedQueue can file an object, as often as asked.
    Kal::LinkedQueue<Kal::PtrInterface const> c;
    Kal::Ptr<Kal::PtrInterface> t = new Kal::PtrInterface;
    c.insert(t, 1);
    c.insert(t, 4);
    c.append(t);
    EXPECT_EQ(t->references(), 4u);
    EXPECT_TRUE(c.deleteItem(t.ptr())); // the first filing
    EXPECT_EQ(c.find(1), nullptr);
    EXPECT_EQ(c.find(4), t.ptr());
    EXPECT_EQ(t->references(), 3u);
    EXPECT_EQ(c.verify(), "");
}

TEST_F(LinkQueueTest, WidePositionsKeepUnsignedOrder) {
    constexpr U64 top = 1ull << 63;
    Kal::LinkQueue<Item, U64> q;
    for (U64 pos : {top, U64(0x100000000ull), U64(7), ~0ull - 1}) q.insert(new Item(0), pos);
    std::vector<U64> positions;
    for (auto i = q.iterator(); i; ++i) positions.push_back(i.position());
    EXPECT_EQ(positions, (std::vector<U64>{7, 0x100000000ull, top, ~0ull - 1}));
    EXPECT_EQ(q.append(new Item(0)), ~0ull);
    EXPECT_DEATH(q.append(new Item(0)), "maxPosition");
    EXPECT_EQ(q.startAt(top + 1).position(), ~0ull - 1);

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

} // namespace
