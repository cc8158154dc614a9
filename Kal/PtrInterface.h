// Kal::PtrInterface: the base of every counted object of the framework (entities, values
// held by pointer, notifiees, collection members).
//
// The count word (32 bits, atomic):
//
//   bit  31      30            29                    28 ........................ 0
//      [marked] [nondestruct] [notification-active] [ number of counted references ]
//
// - bits 0-28: references held by Kal::Ptr and friends.
// - bit 29: notification active (used by notifiees; see Notifiee.h). Not part of the count.
// - bit 30: nondestructing. The zero test after a decrement masks the word with 0x5FFFFFFF,
//   so a set bit 30 keeps the object from ever looking unreferenced: it survives its last
//   reference (an entity owned by a collection slot is made so).
// - bit 31: marked for deletion (bookkeeping of the reactor machinery); ignored by the test.
// - A word whose top byte is 0x1F marks a static object (type descriptions and other
//   process-lifetime singletons): counting it and releasing it leave the word untouched,
//   and it is never destroyed. Build one with the StaticTag constructor.
//
// Counts change with atomic read-modify-write operations, so counted pointers may be copied
// and released on any thread; everything else about an object belongs to its owning thread.
#pragma once

#include "Kal/Assert.h"
#include "Kal/Types.h"

#include <atomic>
#include <cstddef>
#include <new>

namespace Kal {

class KalType;

class PtrInterface {
  public:
    static constexpr U32 countMask = 0x1FFFFFFFu;
    static constexpr U32 notificationActiveBit = 1u << 29;
    static constexpr U32 nondestructingBit = 1u << 30;
    static constexpr U32 markedForDeletionBit = 1u << 31;
    static constexpr U32 zeroTestMask = 0x5FFFFFFFu;
    static constexpr U32 staticWord = 0x1F000000u;

    struct StaticTag {};
    // Observers of a counted object; defined in Kal/Notifiee.h.
    class NotifieeConst;
    class Notifiee;

    PtrInterface() noexcept : word_(0) {}
    // A static object: its word stays 0x1F000000 for ever.
    explicit PtrInterface(StaticTag) noexcept : word_(staticWord) {}
    // The count belongs to the object, not to its value: a copy starts unreferenced.
    PtrInterface(PtrInterface const&) noexcept : word_(0) {}
    PtrInterface& operator=(PtrInterface const&) noexcept { return *this; }
    virtual ~PtrInterface();

    // Counted objects take their memory from Kal::ObjectHeap (ObjectHeap.h says why and when
    // not). Over-aligned ones, and objects built in place, are left to the general rules.
    static void* operator new(std::size_t bytes);
    static void operator delete(void* p, std::size_t bytes) noexcept;
    static void* operator new(std::size_t bytes, std::align_val_t align) {
        return ::operator new(bytes, align);
    }
    static void operator delete(void* p, std::size_t, std::align_val_t align) noexcept {
        ::operator delete(p, align);
    }
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void*, void*) noexcept {}

    void referencesInc() const noexcept {
        if (!isStatic()) word_.fetch_add(1, std::memory_order_relaxed);
    }
    // Counts the first reference to an object just made on this thread, which nothing else
    // can reach yet: a plain store where referencesInc takes an atomic read-modify-write (on
    // x86 a locked instruction, which also waits for every pending store of the thread to
    // reach the cache, a long wait while new objects are being written). Whoever makes the
    // object reachable from another thread publishes it with the synchronisation that
    // publishing needs anyway, which carries this store along.
    void kalFirstReference() const noexcept {
        U32 const word = word_.load(std::memory_order_relaxed);
        KAL_DASSERT((word & countMask) == 0 && (word >> 24) != (staticWord >> 24));
        word_.store(word + 1, std::memory_order_relaxed);
    }
    // Releases one reference. When (new word & 0x5FFFFFFF) is zero the object runs its
    // zero-references handling (handleZeroRef) and 0 is returned; otherwise the masked
    // remainder is returned.
    U32 referencesDec() const;

    U32 references() const noexcept { return word_.load(std::memory_order_relaxed) & countMask; }
    // Whether the caller's reference is the only one. The load acquires: a holder on another
    // thread that released its reference (an acq_rel decrement) is done with the object, so
    // the caller may change it in place.
    bool kalSoleReference() const noexcept {
        return (word_.load(std::memory_order_acquire) & countMask) == 1;
    }
    U32 kalCountWord() const noexcept { return word_.load(std::memory_order_relaxed); }
    bool isStatic() const noexcept {
        return (word_.load(std::memory_order_relaxed) >> 24) == (staticWord >> 24);
    }

    // Runs when the last counted reference has gone: tells the notifiees (onZeroReferences,
    // in classes that have them), then destroys the object unless it is nondestructing,
    // static, or was taken up again by a notifiee.
    virtual void handleZeroRef() const;

    // The object's type description; null for plain framework objects without one.
    virtual KalType const* fwkType() const;
    // Self-checks; return the number of problems found (0 when sound). `depth` bounds how
    // far an audit may follow references.
    virtual U32 auditErrors(unsigned depth) const;
    virtual U32 kalAuditErrors(unsigned depth) const;

    bool hasNotificationActive() const noexcept { return flag(notificationActiveBit); }
    virtual void hasNotificationActiveIs(bool active);

    bool isNondestructing() const noexcept { return flag(nondestructingBit); }
    // Clearing the flag of an object that no counted reference holds any more runs the
    // zero-references handling at once: nobody else would ever release it.
    void isNondestructingIs(bool nondestructing);

    bool kalMarkedForDeletion() const noexcept { return flag(markedForDeletionBit); }
    void kalMarkedForDeletionIs(bool marked) { flagIs(markedForDeletionBit, marked); }

    // Set while the zero-references handling runs (and after it, for nondestructing objects).
    bool zeroReferences() const noexcept { return lifecycle_ & zeroReferencesFlag; }
    void zeroReferencesIs(bool z) noexcept {
        lifecycle_ = z ? U8(lifecycle_ | zeroReferencesFlag) : U8(lifecycle_ & ~zeroReferencesFlag);
    }

  protected:
    // Hooks for classes with notifiees: the zero-references handling calls the first before
    // destruction; isNondestructingIs calls the second after a change of the flag.
    virtual void kalNotifyZeroReferences() const {}
    virtual void kalNotifyIsNondestructing() {}

    bool flag(U32 bit) const noexcept { return word_.load(std::memory_order_relaxed) & bit; }
    // Sets or clears one flag bit of the count word; a static object's word never changes.
    void flagIs(U32 bit, bool value) noexcept;

  private:
    static constexpr U8 zeroReferencesFlag = 1;
    mutable std::atomic<U32> word_;
    U8 lifecycle_ = 0;
};

} // namespace Kal
