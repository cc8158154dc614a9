// Notifiees: observers that a counted object calls back, synchronously and on its own
// thread, when one of its attributes changes.
//
// Kal::PtrInterface::NotifieeConst observes one notifier with read-only access;
// Kal::PtrInterface::Notifiee is the same with write access. A notifiee is itself counted.
// Each notifying type T nests T::NotifieeConst (derived from its base type's NotifieeConst)
// with one virtual onFoo per notifying attribute, and keeps its own typed list of them
// (Kal::ListRaw<T::NotifieeConst>), so a delivery never needs a downcast it cannot trust.
//
// State of a notifiee:
// - notifier: the observed object, counted unless the notifiee is a weak reference (then
//   the notifier clears it when it dies);
// - flag set (BitSet<27>): bit 19 is "register when active"; a saved byte holds the value
//   bit 19 takes again when notification is switched off;
// - isRegisteredNotifiee: whether it is in its notifier's list;
// - notification active: bit 29 of its own count word.
//
// hasNotificationActiveIs(true) sets bit 29 and, only if flag bit 19 is set, enters the
// notifier's list through the virtual isRegisteredNotifieeIs(true) (each type keeps its own
// typed list, so registration must go through the most derived class).
// hasNotificationActiveIs(false) clears bit 29, restores bit 19 from the saved byte and
// leaves the list. Asking for the state already held does nothing, so activating twice
// registers once.
#pragma once

#include "Kal/BitSet.h"
#include "Kal/ListRaw.h"
#include "Kal/Ptr.h"
#include "Kal/PtrInterface.h"
#include "Kal/String.h"

#include <exception>
#include <functional>

namespace Kal {

class PtrInterface::NotifieeConst : public PtrInterface, public ListRawLink {
  public:
    static constexpr int registerWhenActiveBit = 19;
    using Flags = BitSet<27, unsigned>;

    NotifieeConst() noexcept;
    NotifieeConst(NotifieeConst const&) = delete;
    NotifieeConst& operator=(NotifieeConst const&) = delete;
    ~NotifieeConst() override;

    Ptr<PtrInterface const> notifier() const { return notifier_; }
    PtrInterface const* kalRawNotifier() const noexcept { return notifier_; }
    // Points the notifiee at another object: counts the new one first, then releases the
    // old one; moves the list registration along when notification is active.
    virtual void notifierIs(Ptr<PtrInterface const> const& notifier);

    void hasNotificationActiveIs(bool active) override;

    bool isRegisteredNotifiee() const noexcept { return isRegisteredNotifiee_; }
    // Enters (true) or leaves (false) the notifier's list. The base records the state only:
    // a plain PtrInterface keeps no list. Notifiee classes of notifying types override this
    // to use their notifier's typed list and then call this version.
    virtual void isRegisteredNotifieeIs(bool registered);

    bool isWeakReference() const noexcept { return isWeakReference_; }
    // A weak notifiee does not count its notifier; switching converts the held reference.
    void isWeakReferenceIs(bool weak);

    Flags kalFlags() const noexcept { return flags_; }
    bool registerWhenActive() const { return flags_.bit(registerWhenActiveBit); }
    // Sets bit 19 and the saved byte that it returns to when notification is switched off.
    void registerWhenActiveIs(bool on);

    // Callbacks every notifiee understands. Defaults do nothing.
    virtual void onZeroReferences() {}
    virtual void onAttribute(AttributeId) {}
    virtual void onNotification() {}
    virtual void onNotificationException() {}
    virtual void onNotificationException(AttributeId) { onNotificationException(); }
    // Called inside the catch block when a callback of this notifiee threw: the policy.
    // The default reports the exception to the process-wide hook (notificationExceptionHook).
    virtual void handleNotificationException();
    // The notifier's name where it has one; empty otherwise.
    virtual String8 name() const;

    // The notifier is being destroyed while this (weak) notifiee is registered with it.
    void kalNotifierGone() noexcept;

  protected:
    // For overrides of isRegisteredNotifieeIs: the notifier as its concrete type.
    template <class N>
    N* kalNotifierAs() const noexcept {
        return const_cast<N*>(static_cast<N const*>(notifier_));
    }
    // Enters `list` (registered) or leaves whatever list holds this notifiee, and records
    // the state. A registration without a notifier or list does nothing.
    void kalRegisteredIn(ListRawBase* list, bool registered) noexcept;

  private:
    void attachTo(PtrInterface const* n);

    PtrInterface const* notifier_ = nullptr;
    Flags flags_;
    U8 savedRegisterWhenActive_ = 1;
    bool isRegisteredNotifiee_ = false;
    bool isWeakReference_ = false;
};

class PtrInterface::Notifiee : public PtrInterface::NotifieeConst {
  public:
    Ptr<PtrInterface> notifier() const {
        return const_cast<PtrInterface*>(kalRawNotifier());
    }
};

// What happens to an exception that escaped a notification callback once the notifiee's
// own hooks have run. The default writes one line to stderr naming the exception.
using NotificationExceptionHook =
    std::function<void(PtrInterface::NotifieeConst const& notifiee, std::exception_ptr)>;
// Installs a hook (an empty one restores the default) and returns the previous one.
NotificationExceptionHook notificationExceptionHookIs(NotificationExceptionHook hook);

// Runs one callback under the framework's guard: an exception that leaves it goes to the
// notifiee's onNotificationException(attr) and handleNotificationException(); it never
// leaves this function.
template <class N, class F>
void kalGuardedCall(N& notifiee, AttributeId attr, F&& call) noexcept {
    try {
        call(notifiee);
    } catch (...) {
        try {
            notifiee.onNotificationException(attr);
            notifiee.handleNotificationException();
        } catch (...) {
            // A failing exception handler must not stop the delivery to the others.
        }
    }
}

// The walk of kalNotify, kept apart: most changes have nobody to tell, and the test for
// that is then all a change pays.
template <class N, class F>
[[gnu::noinline]] void kalNotifyEach(ListRaw<N> const& list, AttributeId attr, F& call) {
    for (SnapshotIterator<N> it(list); !it.done(); it.advance()) {
        kalGuardedCall(*it.ptr(), attr, call);
    }
}

// Delivers one change to every notifiee of a list: the snapshot walk of ListRaw.h, each
// call guarded. `call` receives N& and invokes the onFoo callback.
template <class N, class F>
inline void kalNotify(ListRaw<N> const& list, AttributeId attr, F&& call) {
    if (!list.empty()) [[unlikely]]
        kalNotifyEach(list, attr, call);
}

} // namespace Kal
