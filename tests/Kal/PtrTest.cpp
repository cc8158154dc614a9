#include "Kal/Ptr.h"

#include <gtest/gtest.h>

namespace {

// Counts constructions and destructions so that tests catch leaks and double frees.
struct Tracked : Kal::PtrInterface {
    static inline int live = 0;
    int value;
    explicit Tracked(int v = 0) : value(v) { ++live; }
    Tracked(Tracked const& o) : Kal::PtrInterface(o), value(o.value) { ++live; }
    ~Tracked() override { --live; }
};

struct DerivedTracked : Tracked {
    using Tracked::Tracked;
};

class PtrTest : public ::testing::Test {
  protected:
    void SetUp() override { Tracked::live = 0; }
    void TearDown() override { EXPECT_EQ(Tracked::live, 0) << "leaked or double-freed objects"; }
};

TEST_F(PtrTest, CountsFollowCopiesMovesAndResets) {
    Kal::Ptr<Tracked> a = new Tracked(1);
    EXPECT_EQ(a->references(), 1u);
    {
        Kal::Ptr<Tracked> b = a;
        EXPECT_EQ(a->references(), 2u);
        Kal::Ptr<Tracked> c = std::move(b);
        EXPECT_EQ(a->references(), 2u);
        EXPECT_EQ(b, nullptr);
        Kal::Ptr<Tracked const> k = c;
        EXPECT_EQ(a->references(), 3u);
    }
    EXPECT_EQ(a->references(), 1u);
    a = nullptr;
    EXPECT_EQ(Tracked::live, 0);
}

TEST_F(PtrTest, SelfAssignmentAndSameTargetLeaveTheCountAlone) {
    Kal::Ptr<Tracked> a = new Tracked;
    Kal::Ptr<Tracked> b = a;
    auto& alias = a;
    a = alias;
    EXPECT_EQ(a->references(), 2u);
    a = b;
    EXPECT_EQ(a->references(), 2u);
    a = a.ptr();
    EXPECT_EQ(a->references(), 2u);
    a = std::move(alias);
    EXPECT_EQ(b->references(), 2u);
}

TEST_F(PtrTest, ReassignmentCountsTheNewTargetBeforeReleasingTheOld) {
    // The old object owns the only reference to the new one: releasing the old first would
    // destroy the new one before it is counted.
    struct Holder : Tracked {
        Kal::Ptr<Tracked> inner;
    };
    Kal::Ptr<Holder> h = new Holder;
    h->inner = new Tracked(7);
    Kal::Ptr<Tracked> p = h;
    p = h->inner;
    h = nullptr; // Holder dies now; p must still hold the inner object.
    ASSERT_EQ(p->value, 7);
    EXPECT_EQ(Tracked::live, 1);
}

TEST_F(PtrTest, CountWordFlagsAreNotPartOfTheCount) {
    Kal::Ptr<Tracked> a = new Tracked;
    a->hasNotificationActiveIs(true);
    a->kalMarkedForDeletionIs(true);
    EXPECT_EQ(a->references(), 1u);
    EXPECT_EQ(a->kalCountWord(), 0xA0000001u);
    // Bits 29 and 31 are ignored by the zero test: releasing the last reference destroys.
    a = nullptr;
    EXPECT_EQ(Tracked::live, 0);
}

TEST_F(PtrTest, NondestructingObjectSurvivesItsLastReference) {
    auto* raw = new Tracked;
    raw->isNondestructingIs(true);
    {
        Kal::Ptr<Tracked> a = raw;
        Kal::Ptr<Tracked> b = a;
    }
    EXPECT_EQ(Tracked::live, 1);
    EXPECT_EQ(raw->kalCountWord(), 0x40000000u);
    // Clearing the flag of an object nobody holds lets it go.
    raw->isNondestructingIs(false);
    EXPECT_EQ(Tracked::live, 0);
}

// kalNew counts the first reference by a plain store: the result must be indistinguishable
// from `Ptr p = new T`, flags set by the constructor included, and a reference given up with
// release() must come back whole through kalAdopt.
TEST_F(PtrTest, KalNewAndAdoptHoldExactlyOneReference) {
    Kal::Ptr<Tracked> a = Kal::kalNew<Tracked>(7);
    EXPECT_EQ(a->kalCountWord(), 1u);
    EXPECT_EQ(a->value, 7);
    Kal::Ptr<Tracked> b = a;
    EXPECT_EQ(a->references(), 2u);
    b = nullptr;
    Tracked* raw = a.release();
    EXPECT_EQ(raw->references(), 1u);
    Kal::Ptr<Tracked> c = Kal::Ptr<Tracked>::kalAdopt(raw);
    EXPECT_EQ(c->references(), 1u);
    c = nullptr;
    EXPECT_EQ(Tracked::live, 0);

    struct BornNondestructing : Tracked {
        BornNondestructing() { isNondestructingIs(true); }
    };
    Kal::Ptr<BornNondestructing> n = Kal::kalNew<BornNondestructing>();
    EXPECT_EQ(n->kalCountWord(), 0x40000001u);
    BornNondestructing* kept = n.ptr();
    n = nullptr;
    EXPECT_EQ(Tracked::live, 1);
    kept->isNondestructingIs(false);
    EXPECT_EQ(Tracked::live, 0);
}

TEST_F(PtrTest, StaticObjectNeverChangesItsWord) {
    struct Static : Kal::PtrInterface {
        Static() : Kal::PtrInterface(StaticTag{}) {}
    };
    static Static s;
    for (int i = 0; i < 3; ++i) {
        Kal::Ptr<Static> a = &s;
        Kal::Ptr<Static> b = a;
        a = nullptr;
    }
    s.hasNotificationActiveIs(true);
    s.isNondestructingIs(true);
    EXPECT_EQ(s.kalCountWord(), 0x1F000000u);
    EXPECT_TRUE(s.isStatic());
    EXPECT_EQ(s.referencesDec(), 0x1F000000u);
}

TEST_F(PtrTest, ReferencesDecReturnsTheMaskedRemainder) {
    Kal::Ptr<Tracked> a = new Tracked;
    a->referencesInc();
    a->referencesInc();
    a->hasNotificationActiveIs(true);
    EXPECT_EQ(a->referencesDec(), 2u);
    a->isNondestructingIs(true);
    EXPECT_EQ(a->referencesDec(), 0x40000001u);
    a->isNondestructingIs(false);
}

TEST_F(PtrTest, CopiedObjectStartsUnreferenced) {
    Kal::Ptr<Tracked> a = new Tracked(3);
    Kal::Ptr<Tracked> b = new Tracked(*a);
    EXPECT_EQ(b->references(), 1u);
    EXPECT_EQ(b->value, 3);
}

TEST_F(PtrTest, ConversionsAndCasts) {
    Kal::Ptr<DerivedTracked> d = new DerivedTracked(4);
    Kal::Ptr<Tracked> base = d;
    EXPECT_EQ(base, d);
    auto back = Kal::staticPtrCast<DerivedTracked>(base);
    EXPECT_EQ(back->value, 4);
    EXPECT_EQ(d->references(), 3u);
    Kal::Ptr<Tracked> plain = new Tracked;
    EXPECT_EQ(Kal::dynamicPtrCast<DerivedTracked>(plain), nullptr);
}

TEST_F(PtrTest, ValidPtrRefusesNull) {
    try {
        Kal::ValidPtr<Tracked> v(Kal::Ptr<Tracked>{});
        FAIL() << "null accepted";
    } catch (Kal::RangeException const& e) {
        EXPECT_STREQ(e.what(), "null ValidPtr");
        EXPECT_TRUE(e.hasId(Kal::ExceptionId::range_));
    }
    Kal::ValidPtr<Tracked> v(new Tracked(9));
    EXPECT_EQ(v->value, 9);
}

} // namespace
