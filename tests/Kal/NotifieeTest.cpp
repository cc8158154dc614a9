// Notification delivery: registration rules, the snapshot walk, exceptions, weak notifiees.
#include "Kal/Entity.h"
#include "Kal/Notifiee.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

// A notifying entity written the way generated model types are: its own typed notifiee
// list, a compare-first setter and a guarded snapshot delivery.
class Gauge : public Kal::Entity {
  public:
    class NotifieeConst;
    explicit Gauge(Kal::Name n) : Kal::Entity(std::move(n)) {}
    int level() const { return level_; }
    void levelIs(int v);

  protected:
    // Entity-level callbacks reach this type's own list too.
    void kalNotifyZeroReferences() const override;

  private:
    friend class NotifieeConst;
    int level_ = 0;
    Kal::ListRaw<NotifieeConst> notifiees_;
};

class Gauge::NotifieeConst : public Kal::Entity::NotifieeConst {
  public:
    void notifierIs(Kal::Ptr<Kal::PtrInterface const> const& n) override {
        Kal::PtrInterface::NotifieeConst::notifierIs(
            Kal::Ptr<Kal::PtrInterface const>(dynamic_cast<Gauge const*>(n.ptr())));
    }
    void isRegisteredNotifieeIs(bool r) override {
        Gauge* g = kalNotifierAs<Gauge>();
        kalRegisteredIn(g ? &g->notifiees_ : nullptr, r);
    }
    virtual void onLevel() {}
};

void Gauge::kalNotifyZeroReferences() const {
    Kal::kalNotify(notifiees_, 0, [](NotifieeConst& n) { n.onZeroReferences(); });
    Kal::Entity::kalNotifyZeroReferences();
}

void Gauge::levelIs(int v) {
    if (v == level_) return;
    level_ = v;
    Kal::kalNotify(notifiees_, 7, [](NotifieeConst& n) { n.onLevel(); });
}

struct Log {
    std::vector<std::string> calls;
};

// A notifiee that records its calls and can run an action from its callback.
class Watcher : public Gauge::NotifieeConst {
  public:
    static inline int live = 0;
    Watcher(std::string tag, Log* log) : tag_(std::move(tag)), log_(log) { ++live; }
    ~Watcher() override { --live; }
    std::function<void()> action;
    int exceptions = 0;
    Kal::AttributeId failedAttr = 0;

    void onLevel() override {
        log_->calls.push_back(tag_);
        if (action) action();
    }
    void onZeroReferences() override { log_->calls.push_back(tag_ + ":zero"); }
    void onNotificationException(Kal::AttributeId a) override {
        ++exceptions;
        failedAttr = a;
    }

  private:
    std::string tag_;
    Log* log_;
};

Kal::Ptr<Watcher> watch(Kal::Ptr<Gauge> const& g, std::string tag, Log* log) {
    Kal::Ptr<Watcher> w = new Watcher(std::move(tag), log);
    w->notifierIs(g);
    w->hasNotificationActiveIs(true);
    return w;
}

class NotifieeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Watcher::live = 0;
        // Keep stderr quiet and record what reaches the process-wide hook.
        previous_ = Kal::notificationExceptionHookIs(
            [this](Kal::PtrInterface::NotifieeConst const&, std::exception_ptr e) {
                try {
                    std::rethrow_exception(e);
                } catch (std::exception const& x) {
                    hooked_.push_back(x.what());
                }
            });
    }
    void TearDown() override { Kal::notificationExceptionHookIs(previous_); }
    Kal::NotificationExceptionHook previous_;
    std::vector<std::string> hooked_;
    Log log_;
    Kal::Ptr<Gauge> gauge_ = new Gauge("g");
};

TEST_F(NotifieeTest, ActivationRegistersOnceAndDeactivationLeaves) {
    Kal::Ptr<Watcher> w = new Watcher("a", &log_);
    w->notifierIs(gauge_);
    EXPECT_EQ(gauge_->references(), 2u) << "a notifiee counts its notifier";
    gauge_->levelIs(1);
    EXPECT_TRUE(log_.calls.empty()) << "not active yet, so not registered";

    w->hasNotificationActiveIs(true);
    w->hasNotificationActiveIs(true);
    EXPECT_TRUE(w->isRegisteredNotifiee());
    EXPECT_EQ(w->kalCountWord() & Kal::PtrInterface::notificationActiveBit,
              Kal::PtrInterface::notificationActiveBit);
    gauge_->levelIs(2);
    gauge_->levelIs(2); // the compare-first setter does not notify
    EXPECT_EQ(log_.calls, std::vector<std::string>{"a"}) << "registered twice?";

    w->hasNotificationActiveIs(false);
    EXPECT_FALSE(w->isRegisteredNotifiee());
    gauge_->levelIs(3);
    EXPECT_EQ(log_.calls.size(), 1u);
    // A destroyed notifiee leaves the list.
    w->hasNotificationActiveIs(true);
    auto b = watch(gauge_, "b", &log_);
    w = nullptr;
    gauge_->levelIs(4);
    EXPECT_EQ(log_.calls, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(Watcher::live, 1);
}

TEST_F(NotifieeTest, RegisterWhenActiveBitGatesRegistrationAndIsRestoredWhenSwitchedOff) {
    Kal::Ptr<Watcher> w = new Watcher("a", &log_);
    w->notifierIs(gauge_);
    w->registerWhenActiveIs(false);
    w->hasNotificationActiveIs(true);
    EXPECT_FALSE(w->isRegisteredNotifiee());

    // Bit 19 changed behind the saved byte's back comes back to the saved value when
    // notification is switched off.
    Kal::Ptr<Watcher> v = new Watcher("b", &log_);
    v->notifierIs(gauge_);
    v->hasNotificationActiveIs(true);
    EXPECT_TRUE(v->isRegisteredNotifiee());
    v->registerWhenActiveIs(false);
    v->registerWhenActiveIs(true);
    v->hasNotificationActiveIs(false);
    EXPECT_TRUE(v->kalFlags().bit(Watcher::registerWhenActiveBit));
}

TEST_F(NotifieeTest, NotifierChangeMovesTheRegistrationAndTheCount) {
    Kal::Ptr<Gauge> other = new Gauge("h");
    auto w = watch(gauge_, "a", &log_);
    w->notifierIs(other);
    EXPECT_EQ(gauge_->references(), 1u);
    EXPECT_EQ(other->references(), 2u);
    gauge_->levelIs(1);
    other->levelIs(1);
    EXPECT_EQ(log_.calls, std::vector<std::string>{"a"});
    // A foreign notifier counts as none.
    w->notifierIs(Kal::Ptr<Kal::PtrInterface const>(new Kal::Entity("plain")));
    EXPECT_EQ(w->notifier(), nullptr);
    EXPECT_FALSE(w->isRegisteredNotifiee());
}

TEST_F(NotifieeTest, DeliveryFollowsListOrderAndSkipsNotifieesDroppedDuringTheWalk) {
    auto a = watch(gauge_, "a", &log_);
    auto b = watch(gauge_, "b", &log_);
    auto c = watch(gauge_, "c", &log_);
    a->action = [&] { b = nullptr; }; // b's owner lets go while a runs
    gauge_->levelIs(1);
    EXPECT_EQ(log_.calls, (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(Watcher::live, 2) << "b must be destroyed when the walk passes it";
    log_.calls.clear();
    gauge_->levelIs(2);
    EXPECT_EQ(log_.calls, (std::vector<std::string>{"a", "c"}));
}

// The walk is over a snapshot: notifiees added during it wait for the next change, and one
// unregistered but still owned is called for the change in progress.
TEST_F(NotifieeTest, NotifieesAddedOrUnregisteredDuringTheWalk) {
    auto a = watch(gauge_, "a", &log_);
    auto b = watch(gauge_, "b", &log_);
    Kal::Ptr<Watcher> late;
    a->action = [&] {
        b->hasNotificationActiveIs(false);
        if (!late) late = watch(gauge_, "late", &log_);
    };
    gauge_->levelIs(1);
    EXPECT_EQ(log_.calls, (std::vector<std::string>{"a", "b"}));
    gauge_->levelIs(2);
    EXPECT_EQ(log_.calls, (std::vector<std::string>{"a", "b", "a", "late"}));
}

TEST_F(NotifieeTest, ThrowingNotifieeIsReportedAndTheOthersAreStillCalled) {
    auto a = watch(gauge_, "a", &log_);
    auto b = watch(gauge_, "b", &log_);
    auto c = watch(gauge_, "c", &log_);
    b->action = [] { throw std::runtime_error("b broke"); };
    EXPECT_NO_THROW(gauge_->levelIs(1));
    EXPECT_EQ(log_.calls, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(b->exceptions, 1);
    EXPECT_EQ(b->failedAttr, 7u);
    EXPECT_EQ(a->exceptions + c->exceptions, 0);
    EXPECT_EQ(hooked_, std::vector<std::string>{"b broke"});
}

TEST_F(NotifieeTest, WeakNotifieeDoesNotKeepItsNotifierAndHearsItsEnd) {
    auto w = watch(gauge_, "w", &log_);
    w->isWeakReferenceIs(true);
    EXPECT_EQ(gauge_->references(), 1u);
    gauge_ = nullptr;
    EXPECT_EQ(log_.calls, std::vector<std::string>{"w:zero"});
    EXPECT_EQ(w->notifier(), nullptr);
    EXPECT_FALSE(w->isRegisteredNotifiee());
}

TEST_F(NotifieeTest, NotifieeTakingUpItsDyingNotifierKeepsItAlive) {
    Kal::Ptr<Gauge> rescued;
    auto w = watch(gauge_, "w", &log_);
    w->isWeakReferenceIs(true);
    struct Rescuer : Watcher {
        using Watcher::Watcher;
        Kal::Ptr<Gauge>* into = nullptr;
        void onZeroReferences() override {
            *into = const_cast<Gauge*>(static_cast<Gauge const*>(kalRawNotifier()));
        }
    };
    Kal::Ptr<Rescuer> r = new Rescuer("r", &log_);
    r->into = &rescued;
    r->notifierIs(gauge_);
    r->isWeakReferenceIs(true);
    r->hasNotificationActiveIs(true);
    Gauge* raw = gauge_.ptr();
    gauge_ = nullptr;
    ASSERT_EQ(rescued.ptr(), raw);
    EXPECT_EQ(rescued->references(), 1u);
    EXPECT_FALSE(rescued->zeroReferences());
}

TEST(BitSetDeathTest, BitsTheirValuesAndPositionsOutsideTheSet) {
    Kal::BitSet<27, unsigned> b;
    b.bitIs(0, true);
    b.bitIs(19, true);
    b.bitIs(26, true);
    EXPECT_EQ(b.value(), (1u << 0) | (1u << 19) | (1u << 26));
    b.bitIs(19, false);
    EXPECT_FALSE(b.bit(19));
    EXPECT_TRUE(b.bit(26));
    b.valueIs(0xFFFFFFFFu);
    EXPECT_EQ(b.value(), (1u << 27) - 1) << "bits beyond 27 must not be stored";
    EXPECT_DEATH(b.bitIs(27, true), "pos>=0 && pos<bits");
    EXPECT_DEATH((void)b.bit(-1), "pos>=0 && pos<bits");
}

} // namespace
