#include "Kal/PtrInterface.h"

#include "Kal/Assert.h"

namespace Kal {

PtrInterface::~PtrInterface() = default;

U32 PtrInterface::referencesDec() const {
    if (isStatic()) return word_.load(std::memory_order_relaxed) & zeroTestMask;
    KAL_DASSERT((word_.load(std::memory_order_relaxed) & countMask) != 0);
    U32 const word = word_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if ((word & zeroTestMask) == 0) {
        handleZeroRef();
        return 0;
    }
    return word & zeroTestMask;
}

void PtrInterface::handleZeroRef() const {
    auto* self = const_cast<PtrInterface*>(this);
    self->zeroReferencesIs(true);
    // Hold a guard reference while notifiees run: one that takes a counted pointer and
    // drops it again must not start a second zero-references pass underneath this one.
    word_.fetch_add(1, std::memory_order_relaxed);
    kalNotifyZeroReferences();
    U32 const word = word_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if ((word & zeroTestMask) != 0) {
        // Taken up again by a notifiee, or made nondestructing meanwhile.
        if (word & countMask) self->zeroReferencesIs(false);
        return;
    }
    delete this;
}

KalType const* PtrInterface::fwkType() const { return nullptr; }

U32 PtrInterface::auditErrors(unsigned depth) const { return kalAuditErrors(depth); }

U32 PtrInterface::kalAuditErrors(unsigned) const {
    U32 const word = kalCountWord();
    if (isStatic()) return word == staticWord ? 0 : 1;
    U32 errors = 0;
    // A count that has run into the static range is a leak of counted references or a
    // corrupted word.
    if ((word & countMask) >= staticWord) ++errors;
    return errors;
}

void PtrInterface::hasNotificationActiveIs(bool active) { flagIs(notificationActiveBit, active); }

void PtrInterface::isNondestructingIs(bool nondestructing) {
    if (isStatic() || isNondestructing() == nondestructing) return;
    flagIs(nondestructingBit, nondestructing);
    kalNotifyIsNondestructing();
    if (!nondestructing && (word_.load(std::memory_order_acquire) & zeroTestMask) == 0) {
        handleZeroRef();
    }
}

void PtrInterface::flagIs(U32 bit, bool value) noexcept {
    if (isStatic()) return;
    if (value) {
        word_.fetch_or(bit, std::memory_order_relaxed);
    } else {
        word_.fetch_and(~bit, std::memory_order_relaxed);
    }
}

} // namespace Kal
