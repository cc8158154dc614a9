// Kal::ListRaw<T>: the plain intrusive list in which a notifier keeps its notifiees, and
// Kal::SnapshotIterator<T>, the only safe way to call them.
//
// Layout: T derives from Kal::ListRawLink (prev, next, owning list) and from
// Kal::PtrInterface. The list itself is a head, a tail and a length; it does not count its
// elements: a notifiee is owned by whoever created it (a reactor's state machine, a test),
// and unlinks itself when it is destroyed, so the list never holds a dead element.
//
// Delivery walks a snapshot, never the live list. The snapshot is a vector, reserved to the
// list's length, of counted pointers to the elements in list order. Advancing releases the
// snapshot's reference to the element just visited and then passes over every following
// element whose count (word & 0x1FFFFFFF) is exactly 1: its only holder left is the snapshot,
// because its owner dropped it during the walk, so it is released (and destroyed) without
// being visited. Elements linked during the walk are not in the snapshot and so are not
// visited; elements unlinked during the walk but still owned are still visited.
//
// Consequence for users: an element must be held by a counted pointer while it is linked.
#pragma once

#include "Kal/Assert.h"
#include "Kal/Ptr.h"
#include "Kal/Types.h"

#include <vector>

namespace Kal {

class ListRawBase;

class ListRawLink {
  public:
    ListRawLink() noexcept = default;
    // A copy is a new, unlinked element.
    ListRawLink(ListRawLink const&) noexcept {}
    ListRawLink& operator=(ListRawLink const&) noexcept { return *this; }
    ~ListRawLink();

    bool isLinked() const noexcept { return list_ != nullptr; }
    ListRawBase const* kalList() const noexcept { return list_; }

  private:
    friend class ListRawBase;
    ListRawLink* prev_ = nullptr;
    ListRawLink* next_ = nullptr;
    ListRawBase* list_ = nullptr;
};

// The untyped engine: one compiled copy for every element type.
class ListRawBase {
  public:
    ListRawBase() noexcept = default;
    ListRawBase(ListRawBase const&) = delete;
    ListRawBase& operator=(ListRawBase const&) = delete;
    ~ListRawBase() { unlinkAll(); }

    U32 size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }

    void pushBack(ListRawLink* l) noexcept;
    void pushFront(ListRawLink* l) noexcept;
    // Unlinks l if it is in this list; returns whether it was.
    bool remove(ListRawLink* l) noexcept;
    void unlinkAll() noexcept;
    // Empty when sound, else the first broken invariant.
    std::string verify() const;

  protected:
    ListRawLink* head() const noexcept { return head_; }
    static ListRawLink* next(ListRawLink const* l) noexcept { return l->next_; }

  private:
    ListRawLink* head_ = nullptr;
    ListRawLink* tail_ = nullptr;
    U32 size_ = 0;
};

inline ListRawLink::~ListRawLink() {
    if (list_) list_->remove(this);
}

template <class T>
class ListRaw : public ListRawBase {
  public:
    class IteratorConst {
      public:
        explicit IteratorConst(ListRawLink* l) : l_(l) {}
        T* ptr() const { return static_cast<T*>(l_); }
        T* operator->() const { return ptr(); }
        IteratorConst& operator++() {
            l_ = ListRawBase::next(l_);
            return *this;
        }
        bool done() const { return l_ == nullptr; }

      private:
        friend class ListRaw;
        ListRawLink* l_;
    };

    ListRaw() noexcept = default;
    // Elements still linked when the list goes are told so (a notifiee then forgets its
    // notifier) and unlinked.
    ~ListRaw() {
        while (T* t = front()) {
            if constexpr (requires { t->kalNotifierGone(); }) {
                t->kalNotifierGone();
            }
            ListRawBase::remove(t);
        }
    }

    void pushBack(T* t) noexcept { ListRawBase::pushBack(t); }
    void pushFront(T* t) noexcept { ListRawBase::pushFront(t); }
    bool remove(T* t) noexcept { return ListRawBase::remove(t); }
    T* front() const noexcept { return static_cast<T*>(head()); }
    bool contains(T const* t) const noexcept { return t->kalList() == this; }

    // Walks the live list: only for code that changes nothing while it walks.
    IteratorConst iterator() const { return IteratorConst(head()); }
};

template <class T>
class SnapshotIterator {
  public:
    explicit SnapshotIterator(ListRaw<T> const& list) {
        snapshot_.reserve(list.size());
        for (auto it = list.iterator(); !it.done(); ++it) snapshot_.emplace_back(it.ptr());
    }

    bool done() const noexcept { return pos_ >= snapshot_.size(); }
    T* ptr() const noexcept { return snapshot_[pos_].ptr(); }
    T* operator->() const noexcept { return ptr(); }
    std::size_t snapshotSize() const noexcept { return snapshot_.size(); }

    // Releases the element just visited, then passes over (releasing) every following
    // element that only the snapshot still holds.
    void advance() {
        snapshot_[pos_] = nullptr;
        ++pos_;
        while (pos_ < snapshot_.size() &&
               (snapshot_[pos_]->kalCountWord() & PtrInterface::countMask) == 1) {
            snapshot_[pos_] = nullptr;
            ++pos_;
        }
    }
    SnapshotIterator& operator++() {
        advance();
        return *this;
    }

  private:
    std::vector<Ptr<T>> snapshot_;
    std::size_t pos_ = 0;
};

} // namespace Kal
