// The generated type code of the test model, through its accessors and through reflection.
#include "kalgen/GenTest.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <sstream>
#include <thread>
#include <atomic>
#include <string>
#include <utility>
#include <vector>

namespace KalTest {
extern int bagHashComputations;
}

namespace {

using Kal::GenericIf;
using Kal::GenericValue;
using Kal::String8;
using KalTest::Bag;
using KalTest::Index;
using KalTest::Leaf;
using KalTest::Point;
using KalTest::Tree;
using KalTest::Watcher;

// The E that f throws, if it throws one.
template <class E = Kal::RangeException, class F>
std::optional<E> thrown(F f) {
    try {
        f();
    } catch (E const& e) {
        return e;
    }
    return std::nullopt;
}

// The message of the E that f throws; "no exception" when it throws none.
template <class E = Kal::RangeException, class F>
std::string messageOf(F f) {
    auto const e = thrown<E>(f);
    return e ? e->message().stringValue() : "no exception";
}

// Records every callback of a Tree as a short text, in order.
class TreeLog : public Tree::NotifieeConst {
  public:
    std::vector<std::string> calls;
    void onLeafByIndex(U64 const& k) override { calls.push_back("leaf " + std::to_string(k)); }
    void onLeafByIndexkalImmediate() override { calls.push_back("leaf immediate"); }
    void onLeafByIndex() override { calls.push_back("leaf all"); }
    void onPointByIndex(U64 const& k) override { calls.push_back("point " + std::to_string(k)); }
    void onLeafByBag(Bag const&) override { calls.push_back("bag"); }
    void onPointByX(U32 const& k) override { calls.push_back("x " + std::to_string(k)); }
    void onStamps(U64 const& k) override { calls.push_back("stamp " + std::to_string(k)); }
    void onMark() override { calls.push_back("mark"); }
    void onTicks() override { calls.push_back("ticks"); }
    void onOwner() override { calls.push_back("owner"); }
    void onIsNondestructing() override { calls.push_back("nondestructing"); }
};

class GeneratedTypes : public ::testing::Test {
  protected:
    GeneratedTypes() {
        log_->notifierIs(tree_);
        log_->hasNotificationActiveIs(true);
    }
    std::vector<std::string> calls() { return std::exchange(log_->calls, {}); }
    Tree::Ptr tree_ = KalTest::treeFactory("t");
    Kal::Ptr<TreeLog> log_ = new TreeLog;
};

using Calls = std::vector<std::string>;

// ---- Accessors and notification --------------------------------------------------------

TEST_F(GeneratedTypes, PlainSettersCompareFirstAndNotifyOnChange) {
    tree_->markIs(5);
    tree_->markIs(5);
    tree_->markIs(6);
    EXPECT_EQ(calls(), (Calls{"mark", "mark"}));
    tree_->ticksInc(2);
    EXPECT_EQ(tree_->ticks(), 2u);
    EXPECT_TRUE(calls().empty()) << "counting notifies nobody";
    tree_->ticksIs(2);
    tree_->ticksIs(3);
    EXPECT_EQ(calls(), Calls{"ticks"});
    EXPECT_EQ(tree_->maxMark(), 0xFFFFFFFFu);
    tree_->ownerIs(tree_);
    tree_->ownerIs(tree_);
    tree_->peerIs(tree_); // silent
    EXPECT_EQ(calls(), Calls{"owner"});
    tree_->ownerIs(nullptr); // break the cycle: a change like any other
    tree_->peerIs(nullptr);
    tree_->isNondestructingIs(true);
    EXPECT_EQ(calls(), (Calls{"owner", "nondestructing"}));
    tree_->isNondestructingIs(false);
    // Whether anyone listens follows registration.
    EXPECT_TRUE(tree_->kalHasNotifiees());
    log_->hasNotificationActiveIs(false);
    EXPECT_FALSE(tree_->kalHasNotifiees());
    log_->hasNotificationActiveIs(true);

    // The counters of a quiet entity wrap silently.
    Kal::Ptr<Leaf> leaf = new Leaf("l");
    leaf->countDec(1);
    EXPECT_EQ(leaf->count(), 0xFFFFFFFFu);
    leaf->countInc(3);
    EXPECT_EQ(leaf->count(), 2u);
}

TEST_F(GeneratedTypes, CollectionWriteRulesAndIterators) {
    Kal::Ptr<Leaf> a = new Leaf("a"), b = new Leaf("b");
    tree_->leafByIndexIs(5, nullptr); // absent + null: nothing
    EXPECT_EQ(tree_->leafByIndexs(), 0u);
    tree_->leafByIndexIs(5, a);
    tree_->leafByIndexIs(5, a); // same object: nothing
    EXPECT_EQ(calls(), Calls{"leaf 5"});
    tree_->leafByIndexIs(5, b);
    EXPECT_EQ(tree_->leafByIndex(5), b);
    tree_->leafByIndexIs(5, nullptr); // present + null: removes
    EXPECT_EQ(tree_->leafByIndex(5), nullptr);
    tree_->leafByIndexDel(7); // absent: nobody hears of it
    EXPECT_EQ(calls(), (Calls{"leaf 5", "leaf 5"}));
    EXPECT_EQ(a->references(), 1u) << "the table released its reference";

    // Iterators walk in the order of the underlying map and reach the values.
    for (U64 i : {9ull, 1ull, 5ull}) tree_->leafByIndexIs(i, a);
    auto it = tree_->leafByIndexIteratorConst();
    for (auto m = tree_->kalLeafByIndex().iterator(); m; ++m, ++it) {
        ASSERT_TRUE(it);
        EXPECT_EQ(it.key(), m.key());
        EXPECT_EQ(it->name(), Kal::Name("a"));
    }
    EXPECT_FALSE(it);

    // DelAll says so once, and nothing when already empty.
    calls();
    tree_->leafByIndexDelAll();
    tree_->leafByIndexDelAll();
    EXPECT_EQ(calls(), (Calls{"leaf immediate", "leaf all"}));
    EXPECT_EQ(tree_->leafByIndexs(), 0u);

    // Value collections.
    tree_->pointByIndexIs(1, Point(1, 2));
    tree_->pointByIndexIs(1, Point(1, 2));
    tree_->pointByIndexIs(1, Point(1, 3));
    EXPECT_EQ(tree_->pointByIndex(1), Point(1, 3));
    EXPECT_EQ(tree_->pointByIndex(9), Point()) << "absent gives the default value";
    EXPECT_EQ(calls(), (Calls{"point 1", "point 1"}));

    // A key-field collection takes its key from the value.
    tree_->pointByXIs(Point(4, -1));
    tree_->pointByXIs(Point(4, -1));
    tree_->pointByXIs(Point(4, 2));
    EXPECT_EQ(tree_->pointByX(4), Point(4, 2));
    EXPECT_EQ(tree_->pointByXDel(4), Point(4, 2));
    EXPECT_EQ(tree_->pointByXDel(4), Point()) << "absent: a default value";
    EXPECT_EQ(calls(), (Calls{"x 4", "x 4", "x 4"}));
}

// A member made ahead of filing (a loader's path) has the outcome of the plain setter: a new
// key files the member itself, a key already there takes its value (or goes, for a null
// one), the value already held changes nothing; the members the table does not take are
// released.
TEST_F(GeneratedTypes, AMemberMadeAheadIsFiledAsTheSetterWouldFileItsKeyAndValue) {
    using Member = Tree::KalLeafByBag;
    using Map = Tree::KalLeafByBagMap;
    Kal::Ptr<Leaf> a = new Leaf("a"), b = new Leaf("b");
    Bag bag;
    bag.itemsIs(1, 2);
    auto fileAhead = [&](Bag const& key, Kal::Ptr<Leaf> const& value) {
        Kal::Ptr<Member> m = Kal::kalNew<Member>(key, value);
        Member const* const raw = m.ptr();
        tree_->kalLeafByBagMemberIs(std::move(m), Map::hashOf(key));
        return raw;
    };

    Member const* const first = fileAhead(bag, a);
    EXPECT_EQ(tree_->kalLeafByBag()[bag], first) << "a new key files the member made";
    EXPECT_TRUE(tree_->kalLeafByBag()[bag]->fwkValue()->name() == Kal::Name("a"));
    fileAhead(bag, a); // the value held: nothing
    fileAhead(bag, b);
    EXPECT_EQ(tree_->kalLeafByBag()[bag], first) << "the key's member takes the new value";
    EXPECT_EQ(tree_->leafByBag(bag), b);
    EXPECT_EQ(calls(), (Calls{"bag", "bag"}));
    EXPECT_EQ(a->references(), 1u) << "the members not taken were released";

    Bag other;
    other.itemsIs(3, 4);
    fileAhead(other, nullptr); // absent + null: nothing
    EXPECT_EQ(tree_->leafByBags(), 1u);
    fileAhead(bag, nullptr); // present + null: removes
    EXPECT_EQ(tree_->leafByBags(), 0u);
    EXPECT_EQ(calls(), Calls{"bag"});
    EXPECT_EQ(b->references(), 1u);

    // Filed among others, a member lands where the setter would put it.
    for (S32 i = 0; i < 40; ++i) {
        Bag k;
        k.itemsIs(U64(i), i);
        if (i % 2)
            fileAhead(k, a);
        else
            tree_->leafByBagIs(k, a);
    }
    EXPECT_EQ(tree_->kalLeafByBag().verify(), "");
    EXPECT_EQ(tree_->leafByBags(), 40u);
}

TEST_F(GeneratedTypes, OrderedCollectionCreatesMembersAndRefusesReinstantiation) {
    auto s = tree_->stampsIs(30, 300);
    EXPECT_EQ(tree_->stampsIs(30, 300), s) << "same parameters: the same entry";
    tree_->stampsIs(10, 100);
    tree_->stampsIs(20, 200);
    EXPECT_EQ(calls(), (Calls{"stamp 30", "stamp 10", "stamp 20"}));
    std::vector<U64> order;
    for (auto it = tree_->stampsIteratorConst(); it; ++it) order.push_back(it.key());
    EXPECT_EQ(order, (std::vector<U64>{10, 20, 30}));
    EXPECT_EQ(s->name(), Kal::Name("30"));
    auto const refused = thrown<Kal::Exception>([&] { tree_->stampsIs(30, 301); });
    ASSERT_TRUE(refused) << "reinstantiation accepted";
    EXPECT_EQ(refused->message(), String8("Reinstantiating the entity with name 30 where constructor "
                                          "parameter attribute _time has a different value of 301 "
                                          "than the current value of 300 not allowed"));
    EXPECT_TRUE(refused->hasId(Kal::ExceptionId::nameInUse_));
    EXPECT_EQ(tree_->stamps(30)->time(), 300u);
    tree_->stampsDel(99);
    tree_->stampsDel(10);
    EXPECT_EQ(calls(), Calls{"stamp 10"});
}

TEST_F(GeneratedTypes, ValueTypeCollectionsAndEquality) {
    Bag a, b;
    a.itemsIs(1, 10);
    a.itemsIs(2, 20);
    b.itemsIs(2, 20);
    b.itemsIs(1, 11);
    EXPECT_NE(a, b);
    b.itemsIs(1, 10); // overwrites in place
    EXPECT_EQ(b.itemCount(), 2u);
    EXPECT_EQ(a, b) << "same members inserted in another order";
    EXPECT_FALSE(!a);
    EXPECT_TRUE(!Bag());
    a.itemsDel(1);
    a.itemsDel(1);
    EXPECT_EQ(a.items(1), 0);
    a.itemsDelAll();
    a.labelIs("");
    EXPECT_TRUE(!a);
    EXPECT_TRUE(Point(1, 2) < Point(1, 3));
    EXPECT_TRUE(Point(1, 9) < Point(2, 0));
    EXPECT_TRUE(Point(2, 0) >= Point(1, 9));
}

TEST_F(GeneratedTypes, ACachedHashIsComputedOnceAndForgottenByEveryChange) {
    Bag a;
    a.itemsIs(1, 10);
    int const before = KalTest::bagHashComputations;
    U32 const first = a.hash();
    EXPECT_EQ(a.hash(), first);
    EXPECT_EQ(KalTest::bagHashComputations, before + 1) << "the second hash comes from the cache";
    // After each change the hash is that of the same value built afresh.
    auto const afresh = [](Bag const& b) {
        Bag c;
        for (auto it = b.itemsIteratorConst(); it; ++it) c.itemsIs(it.key(), it.value());
        c.labelIs(b.label());
        c.flagIs(b.flag());
        c.spotIs(b.spot());
        return c.hash();
    };
    std::vector<std::pair<char const*, std::function<void(Bag&)>>> const changes = {
        {"itemsIs, new key", [](Bag& b) { b.itemsIs(3, 30); }},
        {"newItems", [](Bag& b) { b.newItems(4, 40); }},
        {"itemsDel", [](Bag& b) { b.itemsDel(3); }},
        {"labelIs", [](Bag& b) { b.labelIs("x"); }},
        {"flagIs", [](Bag& b) { b.flagIs(true); }},
        {"spotIs", [](Bag& b) { b.spotIs(Point(1, 2)); }},
        {"itemsDelAll", [](Bag& b) { b.itemsDelAll(); }},
    };
    for (auto const& [what, change] : changes) {
        a.hash();
        change(a);
        EXPECT_EQ(a.hash(), afresh(a)) << what;
    }
    // A copy keeps the hash; a moved-from value hashes what it still holds.
    a.itemsIs(5, 50);
    U32 const h = a.hash();
    Bag copy = a;
    int const computed = KalTest::bagHashComputations;
    EXPECT_EQ(copy.hash(), h);
    Bag moved = std::move(a);
    EXPECT_EQ(moved.hash(), h);
    EXPECT_EQ(KalTest::bagHashComputations, computed);
    // NOLINTNEXTLINE(bugprone-use-after-move): a moved-from value is valid, its items gone
    EXPECT_EQ(a.hash(), afresh(a));
    // Equality: known different hashes reject; equal values stay equal with their hashes known.
    EXPECT_NE(copy, Bag());
    EXPECT_EQ(copy, moved);

    // A collection keyed by bags finds an equal key built separately.
    Kal::Ptr<Leaf> leaf = new Leaf("leaf");
    tree_->leafByBagIs(copy, leaf);
    Bag same;
    same.newItems(5, 50);
    same.labelIs("x");
    same.flagIs(true);
    same.spotIs(Point(1, 2));
    EXPECT_EQ(tree_->leafByBag(same), leaf);
    same.itemsIs(5, 51);
    EXPECT_EQ(tree_->leafByBag(same), nullptr);
}

// Copies of a value with collections share its state until one changes; a state with an
// iterator standing in it is never shared, so every copy behaves as an independent value.
// (Sharing shows as the same collection address.)
TEST_F(GeneratedTypes, CopiesShareTheirStateUntilOneChangesAndIteratorsKeepValueSemantics) {
    auto sameState = [](Bag const& x, Bag const& y) { return &x.kalItems() == &y.kalItems(); };
    Bag a;
    a.itemsIs(1, 10);
    a.labelIs("a");
    Bag const original = a;
    EXPECT_TRUE(sameState(a, original));
    // Every kind of change leaves the other copies as they were.
    std::vector<std::pair<char const*, std::function<void(Bag&)>>> const changes = {
        {"itemsIs", [](Bag& b) { b.itemsIs(1, 11); }},
        {"newItems", [](Bag& b) { b.newItems(2, 20); }},
        {"itemsDel", [](Bag& b) { b.itemsDel(1); }},
        {"itemsDelAll", [](Bag& b) { b.itemsDelAll(); }},
        {"labelIs", [](Bag& b) { b.labelIs("b"); }},
        {"itemsIterator", [](Bag& b) { *b.itemsIterator() = 12; }},
    };
    for (auto const& [what, change] : changes) {
        Bag b = a;
        change(b);
        EXPECT_FALSE(sameState(a, b)) << what;
        EXPECT_NE(a, b) << what;
        EXPECT_EQ(a, original) << what;
        EXPECT_EQ(a.items(1), 10) << what;
    }
    // New values share one empty state; the first change gives a value its own.
    Bag x, y;
    EXPECT_TRUE(sameState(x, y));
    x.itemsIs(7, 70);
    EXPECT_EQ(y.itemCount(), 0u);

    // A copy made while an iterator stands in the original gets a state of its own: changing
    // the original through the iterator leaves the copy alone.
    {
        auto it = a.itemsIterator();
        Bag copy = a;
        EXPECT_FALSE(sameState(a, copy));
        *it = 13;
        EXPECT_EQ(a.items(1), 13);
        EXPECT_EQ(copy.items(1), 10);
    }
    // A state reference (a loader's copy, kept apart from any value) follows the copy rule
    // and gives a value that takes the state over: shared while no iterator stands in it.
    {
        Bag::KalState kept = a.kalShare();
        Bag later(std::move(kept));
        EXPECT_TRUE(sameState(a, later));
        EXPECT_EQ(later, a);
        auto it = a.itemsIterator();
        Bag::KalState copied = a.kalShare();
        Bag apart(std::move(copied));
        EXPECT_FALSE(sameState(a, apart)) << "a state with an iterator is copied";
        *it = 14;
        EXPECT_EQ(a.items(1), 14);
        EXPECT_EQ(apart.items(1), 13);
        Bag empty{Bag::KalState()};
        EXPECT_TRUE(sameState(empty, Bag())) << "an empty reference gives the empty state";
        Bag::KalState unused = a.kalShare(); // released unused (the leak check sees to it)
    }
    // An iterator made through a copy that shares stands in that copy alone.
    {
        Bag b = a;
        auto it = b.itemsIteratorConst();
        EXPECT_FALSE(sameState(a, b));
        EXPECT_EQ(b, a);
    }
    // Assigning to a value with an iterator in it changes its collection in place: the
    // iterator steps on through the new members. Moving from one leaves its collection
    // empty under the iterator.
    Bag many;
    for (U64 k = 1; k <= 5; ++k) many.itemsIs(k, S32(k));
    {
        Bag target = a;
        auto it = target.itemsIteratorConst();
        target = many;
        EXPECT_EQ(target, many);
        std::size_t steps = 0;
        for (; it; ++it) ++steps;
        EXPECT_LE(steps, 5u);
    }
    {
        Bag source = many;
        auto it = source.itemsIteratorConst();
        ASSERT_TRUE(it);
        Bag moved = std::move(source);
        EXPECT_EQ(moved, many);
        ++it;
        EXPECT_FALSE(it) << "the moved-from collection is empty";
        // NOLINTNEXTLINE(bugprone-use-after-move): a moved-from value is valid and empty
        EXPECT_EQ(source.itemCount(), 0u);
    }
}

// A shared state is read by copies on several threads at once: hashing and comparing them
// agrees everywhere, and the last copy to go frees it.
TEST_F(GeneratedTypes, CopiesOnSeveralThreadsReadTheirSharedStateAlike) {
    Bag a;
    for (U64 k = 1; k <= 20; ++k) a.itemsIs(k, S32(k));
    a.labelIs("shared");
    U32 const expected = Bag(a).hash(); // computed on a copy's own state
    Bag fresh = a;
    fresh.labelIs("shared"); // same value; hash not kept yet in this state
    std::vector<std::thread> threads;
    std::atomic<int> bad{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, copy = fresh] {
            for (int i = 0; i < 2000; ++i) {
                Bag mine = copy;
                if (mine.hash() != expected || !(mine == a)) ++bad;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(bad.load(), 0);
}

TEST_F(GeneratedTypes, RangeConstraintsNameTheViolatedCondition) {
    EXPECT_NO_THROW(Index(0));
    EXPECT_NO_THROW(Index(127));
    EXPECT_EQ(messageOf([] { Index(128); }), "Index::value < Index::min or > Index::max not allowed");
    Index i(5);
    EXPECT_THROW(i.valueIs(200), Kal::RangeException);
    EXPECT_EQ(i.value(), 5u) << "a refused value leaves the old one";
    EXPECT_NO_THROW(KalTest::Limited(0x3f));
    EXPECT_EQ(messageOf([] { KalTest::Limited(0x40); }), "Limited::value > 0x3f not allowed");
    EXPECT_EQ(Index::_fwkType().constraint("max"), String8("127"));
    // The introspection flags of the framework's own model are six bits.
    EXPECT_EQ(Kal::KalAttrIntrospectionFlags(0x3f).value(), 0x3f);
    EXPECT_EQ(messageOf([] { Kal::KalAttrIntrospectionFlags(0x40); }),
              "KalAttrIntrospectionFlags::value > 0x3f not allowed");
}

// ---- Reactors ----------------------------------------------------------------------------

TEST_F(GeneratedTypes, ReactorFollowsItsInputAndRepointing) {
    Kal::Ptr<Watcher> w = new Watcher("w");
    Tree::Ptr out = new Tree("out");
    w->outIs(out);
    w->treeIs(tree_);
    EXPECT_EQ(w->passes(), 1u) << "a new non-null input runs the handler once";
    tree_->markIs(7);
    EXPECT_EQ(w->passes(), 2u);
    EXPECT_EQ(out->mark(), 7u);
    tree_->ticksIs(1);
    EXPECT_EQ(w->passes(), 3u);
    tree_->pointByIndexIs(1, Point(1, 1)); // not followed
    EXPECT_EQ(w->passes(), 3u);

    Tree::Ptr other = new Tree("other");
    w->treeIs(other);
    EXPECT_EQ(w->passes(), 4u);
    EXPECT_EQ(w->tree(), other);
    tree_->markIs(8);
    EXPECT_EQ(w->passes(), 4u) << "the old input is no longer followed";
    w->treeIs(other);
    EXPECT_EQ(w->passes(), 4u) << "the same input again: nothing";

    // Passing the zombie flag on is checked with the framework's own reactors.
    w->kalDoZombieReactors(true);
    w->treeIs(tree_);
    EXPECT_EQ(w->passes(), 4u) << "a reactor being torn down does not run the handler";
    w->kalDoZombieReactors(false);

    w->treeDel();
    EXPECT_EQ(w->tree(), nullptr);
    tree_->markIs(9);
    EXPECT_EQ(w->passes(), 4u);
}

// ---- Type registry -------------------------------------------------------------------------

TEST(GeneratedRegistry, TypesAreFoundByNameWithAttributesInDeclarationOrder) {
    Kal::KalType const* t = Kal::typeByName("KalTest::Tree");
    ASSERT_NE(t, nullptr);
    EXPECT_TRUE(t->isEntity());
    EXPECT_FALSE(t->isValue());
    EXPECT_TRUE(t->hasGenericIfSupport());
    EXPECT_EQ(t->base(), &Kal::entityType());
    std::vector<std::string> names;
    for (auto it = t->attributeIteratorConst(); it; ++it) {
        EXPECT_EQ(it->id(), names.size());
        names.push_back(it->name().stringValue());
    }
    EXPECT_EQ(names, (std::vector<std::string>{
                         "isNondestructing", "zeroReferences", "leafByIndex", "pointByIndex",
                         "leafByBag", "pointByX", "stamps", "mark", "ticks", "maxMark", "owner",
                         "peer", "doGrow", "doGraft", "weight", "ticksInc"}));
    Kal::KalAttr const* leaf = t->attr("leafByIndex");
    EXPECT_EQ(&leaf->type(), &Leaf::_fwkType());
    EXPECT_EQ(leaf->keyType(), &Kal::u64Type());
    EXPECT_TRUE(leaf->flags().has(Kal::AttrFlags::collection_));
    EXPECT_TRUE(leaf->flags().has(Kal::AttrFlags::ptr_));
    EXPECT_TRUE(t->attr("doGrow")->introspectionFlags().has(
        Kal::KalAttrIntrospectionFlags::isFunction_));
    EXPECT_TRUE(t->attr("weight")->flags().has(Kal::AttrFlags::constFunction_));
    EXPECT_TRUE(t->attr("maxMark")->flags().has(Kal::AttrFlags::constant_));
    EXPECT_FALSE(t->attr("peer")->flags().has(Kal::AttrFlags::notifying_));

    Kal::KalType const* w = Kal::typeByName("KalTest::Watcher");
    ASSERT_NE(w, nullptr);
    std::vector<std::string> tail;
    for (auto it = w->attributeIteratorConst(); it; ++it) tail.push_back(it->name().stringValue());
    EXPECT_EQ(tail, (std::vector<std::string>{"name", "tree", "out", "passes", "handleTree",
                                              "kalFwkActivity", "hasNotificationActiveIs",
                                              "kalDoZombieReactors"}));
    EXPECT_TRUE(w->attr("tree")->flags().has(Kal::AttrFlags::reactorInput_));
    EXPECT_TRUE(w->attr("name")->flags().has(Kal::AttrFlags::ctorParam_));
    EXPECT_TRUE(Kal::typeByName("KalTest::Point")->isValue());
    EXPECT_EQ(Kal::typeByName("KalTest::Nowhere"), nullptr);
}

// ---- Reflection ------------------------------------------------------------------------

// Reflection: one operation on the named attribute of the tree, its result in r.
class GeneratedReflection : public GeneratedTypes {
  protected:
    GenericValue const& op(char const* attr, U32 operation, GenericValue const& arg = {}) {
        gi_.attributeOp(GenericIf::opOf(gi_.attributeId(attr), operation), arg, r_);
        return r_;
    }
    Tree::GenericIf_ gi_{tree_.ptr()};
    GenericValue r_;
};

TEST_F(GeneratedReflection, ReadsWritesAndCalls) {
    op("mark", GenericIf::write_, GenericValue::of(U64(42)));
    EXPECT_EQ(tree_->mark(), 42u);
    EXPECT_EQ(op("mark", GenericIf::read_).as<U64>("x"), 42u);
    EXPECT_EQ(gi_.attributeString(gi_.attributeId("mark")), String8("42"));
    EXPECT_EQ(op("doGrow", GenericIf::call_, GenericValue::of(U64(8))).as<U64>("x"), 50u);
    Kal::Ptr<Leaf> leaf = new Leaf("l");
    op("doGraft", GenericIf::call_,
       GenericValue::ofArgs({{Kal::Name("leaf"), GenericValue::ofPtr(leaf)},
                             {Kal::Name("index"), GenericValue::of(U64(3))}}));
    EXPECT_EQ(tree_->leafByIndex(3), leaf);

    op("pointByIndex", GenericIf::insert_,
       GenericValue::ofArgs({{Kal::Name("kal_index"), GenericValue::of(U64(2))},
                             {Kal::Name("pointByIndex"), GenericValue::of(Point(5, 6))}}));
    EXPECT_EQ(tree_->pointByIndex(2), Point(5, 6));
    EXPECT_EQ(op("pointByIndex", GenericIf::lookup_, GenericValue::of(U64(2))).as<Point>("x"),
              Point(5, 6));
    EXPECT_EQ(op("pointByIndex", GenericIf::size_).as<U32>("x"), 1u);
    op("pointByIndex", GenericIf::erase_, GenericValue::of(U64(2)));
    EXPECT_EQ(tree_->pointByIndexs(), 0u);
    EXPECT_EQ(gi_.attributeString(gi_.attributeId("pointByIndex")), String8("None"));
    EXPECT_EQ(op("weight", GenericIf::callConst_).as<U32>("x"), 1u);
}

TEST_F(GeneratedReflection, Errors) {
    tree_->markIs(1);
    Tree::GenericIf_ ro(static_cast<Tree const*>(tree_.ptr()));
    auto const mark = ro.attributeId("mark");
    EXPECT_EQ(messageOf<Kal::Exception>([&] {
                  ro.attributeOp(GenericIf::opOf(mark, GenericIf::write_), GenericValue::of(U64(2)), r_);
              }),
              "attempting to modify a const instance");
    EXPECT_EQ(tree_->mark(), 1u);
    // The const check comes first, even before the attribute id is looked at.
    EXPECT_THROW(ro.attributeOp(GenericIf::opOf(999, GenericIf::write_), {}, r_), Kal::Exception);

    auto expectId = [&](auto&& f, Kal::ExceptionId id, char const* text) {
        auto const e = thrown<Kal::Exception>(f);
        ASSERT_TRUE(e) << "no exception for " << text;
        EXPECT_TRUE(e->hasId(id)) << e->what();
        EXPECT_NE(e->message().stringValue().find(text), std::string::npos) << e->what();
    };
    expectId([&] { op("mark", 128, GenericValue::of(U32(2))); }, Kal::ExceptionId::type_, "kalOpArg");
    expectId([&] { gi_.attributeOp(GenericIf::opOf(999, 0), {}, r_); }, Kal::ExceptionId::badIndex_,
             "999");
    expectId([&] { op("maxMark", 128); }, Kal::ExceptionId::opNotSupported_, "maxMark");
    expectId([&] {
        op("doGraft", 132, GenericValue::ofArgs({{Kal::Name("leaf"), GenericValue()},
                                                 {Kal::Name("branch"), GenericValue::of(U64(1))}}));
    }, Kal::ExceptionId::unknownArg_, "branch");
    expectId([&] {
        op("pointByIndex", 129,
           GenericValue::ofArgs({{Kal::Name("kal_index"), GenericValue::of(U32(2))},
                                 {Kal::Name("pointByIndex"), GenericValue::of(Point(5, 6))}}));
    }, Kal::ExceptionId::type_, "kal_index");
    EXPECT_THROW(gi_.attributeId("nope"), Kal::RangeException);
}

TEST_F(GeneratedReflection, AttributeIteratorSurvivesDeletionAndTheAdapterHearsChanges) {
    for (U64 i = 0; i < 6; ++i) tree_->pointByIndexIs(i, Point(U32(i), 0));
    std::vector<U64> seen;
    for (auto it = gi_.attributeIterator(gi_.attributeId("pointByIndex")); it.nonNull();
         it.iterInc()) {
        seen.push_back(it.iterKey().as<U64>("k"));
        EXPECT_EQ(it.iterObj().as<Point>("v").x(), U32(seen.back()));
        it.iterDel();
    }
    EXPECT_EQ(seen.size(), 6u);
    EXPECT_EQ(tree_->pointByIndexs(), 0u);

    // The generic adapter hears every change by attribute id.
    std::vector<Kal::AttributeId> heard;
    auto adapter = gi_.doAddNotifiee([&](Kal::AttributeId id) { heard.push_back(id); });
    tree_->markIs(3);
    tree_->leafByIndexIs(1, new Leaf("x"));
    EXPECT_EQ(heard, (std::vector<Kal::AttributeId>{gi_.attributeId("mark"),
                                                    gi_.attributeId("leafByIndex")}));
}

// ---- Text form -------------------------------------------------------------------------

TEST(GeneratedText, ValuesAndEntityReferencesPrintAndReadBack) {
    Bag b;
    b.itemsIs(1, 2);
    b.labelIs("it's");
    b.flagIs(true);
    b.spotIs(Point(7, -3));
    String8 const text = Kal::valueToStrep(b);
    EXPECT_EQ(text, String8("Value('KalTest::Bag', ** {'items': None, 'label': 'it\\'s', 'flag': "
                            "True, 'spot': Value('KalTest::Point', ** {'x': 7, 'y': -3})})"));
    Bag back(text);
    EXPECT_EQ(back.label(), b.label());
    EXPECT_EQ(back.spot(), b.spot());
    EXPECT_TRUE(back.flag());
    EXPECT_EQ(back.itemCount(), 0u) << "collections print as None and read back empty";
    std::ostringstream os;
    os << Point(1, 2);
    EXPECT_EQ(os.str(), "Value('KalTest::Point', ** {'x': 1, 'y': 2})");
    EXPECT_EQ(Kal::strepToValue<Point>("Value('KalTest::Point', ** {})"), Point());

    // Network values print as quoted text.
    KalTest::Hop h(Velnet::IpAddr(10, 0, 0, 1), Velnet::IntfId(Velnet::IntfKind::ethernet_, 5),
                   Velnet::Prefix::fromString("10.1.0.0/16"));
    String8 const hopText = Kal::valueToStrep(h);
    EXPECT_EQ(hopText, String8("Value('KalTest::Hop', ** {'addr': '10.0.0.1', 'intf': "
                               "'Ethernet5', 'net': '10.1.0.0/16'})"));
    EXPECT_EQ(KalTest::Hop(hopText), h);
    EXPECT_EQ(Kal::typeByName("KalTest::Hop")->attr("net")->type().name(),
              Kal::Name("Velnet::Prefix"));

    // Entity references name their entity.
    Tree::Ptr t = KalTest::treeFactory("oak");
    EXPECT_EQ(Kal::valueToStrep(t), String8("Ptr('KalTest::Tree', 'oak')"));
    EXPECT_EQ(Kal::valueToStrep(Tree::Ptr()), String8("None"));
    EXPECT_EQ(Kal::strepToValue<Tree::Ptr>("None"), nullptr);
    Tree::Ptr elm = Kal::strepToValue<Tree::Ptr>("Ptr('KalTest::Tree', 'elm')");
    ASSERT_NE(elm, nullptr);
    EXPECT_EQ(elm->name(), Kal::Name("elm"));
    EXPECT_THROW(Kal::strepToValue<Tree::Ptr>("Ptr('KalTest::Leaf', 'elm')"), Kal::RangeException);
    EXPECT_THROW(Kal::strepToValue<Kal::Ptr<Leaf>>("Ptr('KalTest::Leaf', 'l')"),
                 Kal::RangeException)
        << "Leaf has no name factory";
    EXPECT_EQ(messageOf([] { Kal::strepToValue<Tree::Ptr>("Ptr('KalTest::Tree', 'elm'"); }),
              "premature end of value type Tree");
}

TEST(GeneratedText, ParseErrorsNameWhatWasWrong) {
    auto pointError = [](char const* text) {
        return messageOf([&] { Kal::strepToValue<Point>(text); });
    };
    EXPECT_EQ(pointError("Value('KalTest::Point', ** {'x': 1, 'y': 2})x"),
              "junk at column 44 deserializing Value('KalTest::Point', ** {'x': 1, 'y': 2})x");
    EXPECT_EQ(pointError("Value('KalTest::Point', ** {'x': 1"), "premature end of value type Point");
    EXPECT_EQ(pointError("Value('KalTest::Point', ** {'x': 1, 'z': 2})"),
              "Point has no such attribute: z");
    EXPECT_EQ(pointError("Value('KalTest::Poi"), "premature end of value type Point");
    // An error inside one attribute's value names the attribute and the text.
    std::string const inner = pointError("Value('KalTest::Point', ** {'x': 99999999999, 'y': 2})");
    EXPECT_NE(inner.find("U32 out of range: 99999999999"), std::string::npos) << inner;
    EXPECT_NE(inner.find("'x'"), std::string::npos) << inner;
    std::string const hop =
        messageOf([] { KalTest::Hop(String8("Value('KalTest::Hop', ** {'addr': '10.0.0.256'})")); });
    EXPECT_NE(hop.find("10.0.0.256"), std::string::npos) << hop;
    EXPECT_NE(hop.find("'addr'"), std::string::npos) << hop;
    // Nested values report the outermost type when the text ends inside them.
    EXPECT_EQ(messageOf([] {
                  Kal::strepToValue<Bag>("Value('KalTest::Bag', ** {'spot': Value('KalTest::Point', ** {");
              }),
              "premature end of value type Bag");
    EXPECT_THROW(Index(String8("Value('KalTest::Index', ** {'value': 128})")),
                 Kal::RangeException);
}

} // namespace
