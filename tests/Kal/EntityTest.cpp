#include "Kal/Entity.h"
#include "Kal/ListRaw.h"

#include <gtest/gtest.h>

namespace {

struct ParentWatcher : Kal::Entity::NotifieeConst {
    int parents = 0, nondestructing = 0;
    void onParent() override { ++parents; }
    void onIsNondestructing() override { ++nondestructing; }
};

TEST(EntityTest, NamesAndPaths) {
    Kal::Ptr<Kal::Entity> root = new Kal::Entity("sys");
    Kal::Ptr<Kal::Entity> mid = new Kal::Entity("ridge");
    Kal::Ptr<Kal::Entity> leaf = new Kal::Entity("status v4/a b");
    mid->parentIs(root);
    leaf->parentIs(mid);
    EXPECT_EQ(leaf->fullName(), Kal::String8("sys/ridge/status v4/a b"));
    EXPECT_EQ(leaf->uriPath(), Kal::String8("/sys/ridge/status%20v4%2Fa%20b"));
    EXPECT_EQ(root->fullName(), Kal::String8("sys"));
    EXPECT_EQ(leaf->parent(), mid);
    // The parent link is not counted.
    EXPECT_EQ(mid->references(), 1u);
}

TEST(EntityTest, ParentChangeAndNondestructingNotify) {
    Kal::Ptr<Kal::Entity> e = new Kal::Entity("e");
    Kal::Ptr<Kal::Entity> p = new Kal::Entity("p");
    Kal::Ptr<ParentWatcher> w = new ParentWatcher;
    w->notifierIs(e);
    w->hasNotificationActiveIs(true);
    e->parentIs(p);
    e->parentIs(p);
    EXPECT_EQ(w->parents, 1);
    e->isNondestructingIs(true);
    e->isNondestructingIs(true);
    EXPECT_EQ(w->nondestructing, 1);
    EXPECT_EQ(w->name(), Kal::String8("e"));
    e->isNondestructingIs(false);
}

TEST(EntityTest, AttributeStringWithoutReflectionIsARangeError) {
    Kal::Ptr<Kal::Entity> e = new Kal::Entity("e");
    EXPECT_THROW(e->attributeString(3), Kal::RangeException);
}

struct Item : Kal::PtrInterface, Kal::ListRawLink {
    int id;
    explicit Item(int i) : id(i) {}
};

TEST(ListRawTest, LinksUnlinksAndVerifies) {
    Kal::ListRaw<Item> list;
    Kal::Ptr<Item> a = new Item(1), b = new Item(2), c = new Item(3);
    list.pushBack(a.ptr());
    list.pushBack(b.ptr());
    list.pushFront(c.ptr());
    EXPECT_EQ(list.verify(), "");
    std::vector<int> ids;
    for (auto it = list.iterator(); !it.done(); ++it) ids.push_back(it->id);
    EXPECT_EQ(ids, (std::vector<int>{3, 1, 2}));
    EXPECT_TRUE(list.remove(a.ptr()));
    EXPECT_FALSE(list.remove(a.ptr()));
    EXPECT_EQ(list.verify(), "");
    b = nullptr; // a destroyed element unlinks itself
    EXPECT_EQ(list.size(), 1u);
    EXPECT_EQ(list.verify(), "");
    EXPECT_EQ(list.front(), c.ptr());
}

TEST(ListRawTest, SnapshotOfAnEmptyListIsDone) {
    Kal::ListRaw<Item> list;
    Kal::SnapshotIterator<Item> it(list);
    EXPECT_TRUE(it.done());
}

} // namespace
