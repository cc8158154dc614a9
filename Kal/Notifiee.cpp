#include "Kal/Notifiee.h"

#include <cstdio>
#include <mutex>
#include <typeinfo>

namespace Kal {

namespace {

void defaultNotificationExceptionHook(PtrInterface::NotifieeConst const& n,
                                      std::exception_ptr e) {
    char const* what = "unknown exception";
    std::string text;
    try {
        if (e) std::rethrow_exception(e);
    } catch (std::exception const& x) {
        text = x.what();
        what = text.c_str();
    } catch (...) {
    }
    std::fprintf(stderr, "Kal: exception in a notification callback of %s: %s\n",
                 typeid(n).name(), what);
}

std::mutex hookMutex;
NotificationExceptionHook& hook() {
    static NotificationExceptionHook h = defaultNotificationExceptionHook;
    return h;
}

} // namespace

NotificationExceptionHook notificationExceptionHookIs(NotificationExceptionHook h) {
    std::lock_guard lock(hookMutex);
    if (!h) h = defaultNotificationExceptionHook;
    std::swap(h, hook());
    return h;
}

PtrInterface::NotifieeConst::NotifieeConst() noexcept {
    flags_.bitIs(registerWhenActiveBit, true);
}

PtrInterface::NotifieeConst::~NotifieeConst() {
    kalRegisteredIn(nullptr, false);
    PtrInterface const* n = notifier_;
    notifier_ = nullptr;
    if (n && !isWeakReference_) n->referencesDec();
}

void PtrInterface::NotifieeConst::notifierIs(Ptr<PtrInterface const> const& notifier) {
    PtrInterface const* n = notifier.ptr();
    if (n == notifier_) return;
    if (isRegisteredNotifiee_) isRegisteredNotifieeIs(false);
    if (n && !isWeakReference_) n->referencesInc();
    PtrInterface const* old = notifier_;
    notifier_ = n;
    if (n && hasNotificationActive() && registerWhenActive()) isRegisteredNotifieeIs(true);
    if (old && !isWeakReference_) old->referencesDec();
}

void PtrInterface::NotifieeConst::hasNotificationActiveIs(bool active) {
    if (hasNotificationActive() == active) return;
    if (active) {
        PtrInterface::hasNotificationActiveIs(true);
        if (flags_.bit(registerWhenActiveBit)) isRegisteredNotifieeIs(true);
    } else {
        PtrInterface::hasNotificationActiveIs(false);
        flags_.bitIs(registerWhenActiveBit, savedRegisterWhenActive_ != 0);
        isRegisteredNotifieeIs(false);
    }
}

void PtrInterface::NotifieeConst::isRegisteredNotifieeIs(bool registered) {
    isRegisteredNotifiee_ = registered && notifier_ != nullptr;
}

void PtrInterface::NotifieeConst::kalRegisteredIn(ListRawBase* list, bool registered) noexcept {
    if (registered) {
        if (!list || !notifier_ || kalList() == list) return;
        if (isLinked()) const_cast<ListRawBase*>(kalList())->remove(this);
        list->pushBack(this);
        isRegisteredNotifiee_ = true;
    } else {
        if (isLinked()) const_cast<ListRawBase*>(kalList())->remove(this);
        isRegisteredNotifiee_ = false;
    }
}

void PtrInterface::NotifieeConst::isWeakReferenceIs(bool weak) {
    if (weak == isWeakReference_) return;
    if (weak) {
        // Flag first: releasing may destroy the notifier, which then treats us as weak.
        isWeakReference_ = true;
        if (notifier_) notifier_->referencesDec();
    } else {
        if (notifier_) notifier_->referencesInc();
        isWeakReference_ = false;
    }
}

void PtrInterface::NotifieeConst::registerWhenActiveIs(bool on) {
    flags_.bitIs(registerWhenActiveBit, on);
    savedRegisterWhenActive_ = on ? 1 : 0;
}

void PtrInterface::NotifieeConst::handleNotificationException() {
    NotificationExceptionHook h;
    {
        std::lock_guard lock(hookMutex);
        h = hook();
    }
    h(*this, std::current_exception());
}

String8 PtrInterface::NotifieeConst::name() const { return {}; }

void PtrInterface::NotifieeConst::kalNotifierGone() noexcept {
    if (isLinked()) const_cast<ListRawBase*>(kalList())->remove(this);
    notifier_ = nullptr;
    isRegisteredNotifiee_ = false;
}

} // namespace Kal
