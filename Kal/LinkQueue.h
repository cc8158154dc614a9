// Kal::LinkQueue<Item, Pos> and Kal::LinkedQueue<Item, Pos>: queues of counted items in
// ascending order of an unsigned position (the attribute list of a type description, by
// attribute index; the generic lists of reflection).
//
//   struct Attr : Kal::LinkQueueLink { ... };
//   Kal::LinkQueue<Attr> attrs;
//   attrs.insert(new Attr(...), 3);           // after any item already at position 3
//   attrs.append(new Attr(...));              // at the last position + 1
//   for (auto i = attrs.iterator(); i; ++i) use(i.position(), i.ptr());
//
// Layout. A doubly linked list. Each link holds the next link as a counted pointer (so the
// queue owns its items through the chain that starts at its head), the previous link as a
// plain pointer, its position, and the queue it is filed in:
//
//   head ──Ptr──> [link pos 0] ──Ptr──> [link pos 3] ──Ptr──> [link pos 3] ──> null
//          null <──prev──      <──prev──            <──prev──     ^ tail
//
// LinkQueue is intrusive: Item derives from Kal::LinkQueueLink, so filing an item allocates
// nothing, and an item is in at most one LinkQueue at a time. LinkedQueue holds counted
// pointers to arbitrary Kal::PtrInterface items in nodes of its own, so an item may be in
// any number of queues, or several times in one. Both are thin typed layers over one
// untyped engine (detail::LinkQueueRaw, LinkQueue.cpp), which keeps positions as U64.
//
// Invariants, checked by verify(): the head has no previous link and the tail no next one;
// each link's previous link is the one before it; every link names this queue; positions do
// not descend; the size equals the number of links. Items at equal positions keep the order
// in which they were inserted: an insertion goes after every item at its position.
//
// Costs. insert() searches from the tail, so filing in ascending order is O(1); append,
// front, pop and deleting a given item are O(1); find, startAt and deleting by position walk
// from the head. deleteAll() and the destructor release the chain one link at a time, never
// recursively, however long the queue.
//
// Iterators keep a bookmark: a counted pointer to the item they stand on and that item's
// position. While the item stays filed at that position, advancing follows its next link;
// once it has left the queue (or been filed again elsewhere) hasBookmark() is true, and the
// next advance continues with the first item whose position is greater than the bookmarked
// one. So deleting the item under an iterator, or the items after it, is safe. An item
// filed during a walk is visited when it lands after the iterator's place in the chain:
// above the bookmarked position, or at it while the item stood on is still filed (an
// insertion goes after the items at its position). An iterator must not outlive its queue.
#pragma once

#include "Kal/Assert.h"
#include "Kal/Ptr.h"
#include "Kal/PtrInterface.h"
#include "Kal/String.h"
#include "Kal/Types.h"

#include <iterator>
#include <limits>
#include <type_traits>

namespace Kal {

namespace detail {
class LinkQueueRaw;
struct LinkQueueProbe; // lets the queue tests break a chain on purpose
} // namespace detail

// The link of a queue item: the base of every LinkQueue item, and of the nodes of a
// LinkedQueue. Its fields belong to the queue that files it.
class LinkQueueLink : public PtrInterface {
  public:
    LinkQueueLink() noexcept = default;
    // A static item (a type's attribute description): never counted, never destroyed.
    explicit LinkQueueLink(StaticTag tag) noexcept : PtrInterface(tag) {}
    // A copy of an item is a new, unfiled item.
    LinkQueueLink(LinkQueueLink const& o) noexcept : PtrInterface(o) {}
    LinkQueueLink& operator=(LinkQueueLink const&) noexcept { return *this; }
    ~LinkQueueLink() override;

    // The position under which the link is (or was last) filed.
    U64 fwkLqPosition() const noexcept { return position_; }
    LinkQueueLink* fwkLqNext() const noexcept { return next_.ptr(); }
    LinkQueueLink* fwkLqPrev() const noexcept { return prev_; }
    // True while the link is filed in a queue.
    bool fwkLqFiled() const noexcept { return queue_ != nullptr; }

  private:
    friend class detail::LinkQueueRaw;
    friend struct detail::LinkQueueProbe;

    Ptr<LinkQueueLink> next_;                   // null at the tail
    LinkQueueLink* prev_ = nullptr;             // null at the head
    detail::LinkQueueRaw const* queue_ = nullptr; // the queue filing it; null when unfiled
    U64 position_ = 0;
};

namespace detail {

// The untyped queue engine shared by LinkQueue and LinkedQueue.
class LinkQueueRaw {
  public:
    LinkQueueRaw() noexcept = default;
    LinkQueueRaw(LinkQueueRaw const&) = delete;
    LinkQueueRaw& operator=(LinkQueueRaw const&) = delete;
    ~LinkQueueRaw() { deleteAll(); }

    U32 size() const noexcept { return size_; }
    LinkQueueLink* front() const noexcept { return head_.ptr(); }
    // True when `link` is filed in this queue.
    bool holds(LinkQueueLink const* link) const noexcept { return link && link->queue_ == this; }

    // Files an unfiled link after every link whose position is not greater than `position`.
    void insert(LinkQueueLink* link, U64 position);
    // Files an unfiled link at the tail, at the tail's position + 1 (0 in an empty queue),
    // which must not exceed `maxPosition`. Returns the position given.
    U64 append(LinkQueueLink* link, U64 maxPosition);
    // Unfiles a link of this queue and releases the queue's reference to it.
    void remove(LinkQueueLink* link) noexcept;
    // Unfiles every link, then releases them one by one.
    void deleteAll() noexcept;

    // The first link at `position`, or null.
    LinkQueueLink* find(U64 position) const noexcept;
    // The first link whose position is not less than (startAt) / greater than (after) `position`.
    LinkQueueLink* startAt(U64 position) const noexcept;
    LinkQueueLink* after(U64 position) const noexcept;

    // Empty when every invariant holds; otherwise names the first broken one.
    String8 verify() const;

  private:
    void linkAfter(LinkQueueLink* link, LinkQueueLink* prev, U64 position);

    Ptr<LinkQueueLink> head_;
    LinkQueueLink* tail_ = nullptr;
    U32 size_ = 0;
};

// The untyped part of a queue iterator: the bookmark.
class LinkQueueCursor {
  public:
    LinkQueueCursor() noexcept = default;
    LinkQueueCursor(LinkQueueRaw const* queue, LinkQueueLink* at) noexcept
        : queue_(queue), link_(at), position_(at ? at->fwkLqPosition() : 0) {}

    LinkQueueLink* link() const noexcept { return link_.ptr(); }
    U64 position() const noexcept { return position_; }
    // True when the link stood on is no longer filed in the queue at the bookmarked position.
    bool hasBookmark() const noexcept {
        return link_ && !(queue_->holds(link_.ptr()) && link_->fwkLqPosition() == position_);
    }
    void advance();

  private:
    LinkQueueRaw const* queue_ = nullptr;
    Ptr<LinkQueueLink> link_;
    U64 position_ = 0; // the bookmark: position of link_ when the cursor reached it
};

// Iterator over a typed queue; Queue supplies `static ItemT* itemOf(LinkQueueLink*)`.
template <class Queue, class ItemT, class Pos>
class LinkQueueIterator {
  public:
    LinkQueueIterator() noexcept = default;
    // An Iterator converts to an IteratorConst.
    template <class OtherItem, class = std::enable_if_t<std::is_same_v<ItemT, OtherItem const> &&
                                                          !std::is_same_v<ItemT, OtherItem>>>
    LinkQueueIterator(LinkQueueIterator<Queue, OtherItem, Pos> const& o) noexcept
        : cursor_(o.cursor_) {}

    // True while the iterator holds an item; false at the end.
    explicit operator bool() const noexcept { return cursor_.link() != nullptr; }
    // The item stood on; after it has been deleted from the queue, still that item.
    ItemT* ptr() const noexcept { return Queue::itemOf(cursor_.link()); }
    ItemT* operator->() const noexcept {
        KAL_DASSERT(cursor_.link());
        return ptr();
    }
    ItemT& operator*() const noexcept { return *operator->(); }
    // The position of the item when the iterator reached it.
    Pos position() const noexcept { return static_cast<Pos>(cursor_.position()); }
    bool hasBookmark() const noexcept { return cursor_.hasBookmark(); }
    LinkQueueIterator& operator++() {
        cursor_.advance();
        return *this;
    }
    friend bool operator==(LinkQueueIterator const& i, std::default_sentinel_t) noexcept {
        return !i;
    }

  private:
    friend Queue;
    template <class, class, class>
    friend class LinkQueueIterator;
    explicit LinkQueueIterator(LinkQueueCursor c) noexcept : cursor_(std::move(c)) {}

    LinkQueueCursor cursor_;
};

} // namespace detail

// Intrusive queue: Item derives (non-virtually) from Kal::LinkQueueLink.
template <class Item, class Pos = unsigned>
class LinkQueue {
    static_assert(std::is_unsigned_v<Pos> && sizeof(Pos) <= sizeof(U64),
                  "queue positions are unsigned integers");

  public:
    using Iterator = detail::LinkQueueIterator<LinkQueue, Item, Pos>;
    using IteratorConst = detail::LinkQueueIterator<LinkQueue, Item const, Pos>;

    LinkQueue() noexcept = default;
    LinkQueue(LinkQueue const&) = delete;
    LinkQueue& operator=(LinkQueue const&) = delete;

    U32 size() const noexcept { return raw_.size(); }

    // Files `item`, which must not be filed in any queue, after the items at `position`.
    void insert(Ptr<Item> item, Pos position) {
        KAL_ASSERT(item);
        raw_.insert(link(item.ptr()), position);
    }
    // Files `item` at the back, at the last position + 1 (0 when empty); returns the position.
    Pos append(Ptr<Item> item) {
        KAL_ASSERT(item);
        return static_cast<Pos>(raw_.append(link(item.ptr()), std::numeric_limits<Pos>::max()));
    }

    Item* front() noexcept { return itemOf(raw_.front()); }
    Item const* front() const noexcept { return itemOf(raw_.front()); }
    // Removes and returns the front item; null when empty.
    Ptr<Item> pop() { return removed(raw_.front()); }
    // Removes and returns the first item at `position`; null when there is none.
    Ptr<Item> deleteAt(Pos position) { return removed(raw_.find(position)); }
    // Removes `item` if this queue files it; returns whether it did.
    bool deleteItem(Item const* item) noexcept {
        if (!item || !raw_.holds(item)) return false;
        raw_.remove(const_cast<Item*>(item));
        return true;
    }
    void deleteAll() noexcept { raw_.deleteAll(); }

    // The first item at `position`, or null.
    Item* find(Pos position) noexcept { return itemOf(raw_.find(position)); }
    Item const* find(Pos position) const noexcept { return itemOf(raw_.find(position)); }
    // True when this queue files `item`.
    bool holds(Item const* item) const noexcept { return raw_.holds(item); }

    Iterator iterator() noexcept { return Iterator({&raw_, raw_.front()}); }
    IteratorConst iterator() const noexcept { return IteratorConst({&raw_, raw_.front()}); }
    // An iterator at the first item whose position is not less than `position`.
    Iterator startAt(Pos position) noexcept { return Iterator({&raw_, raw_.startAt(position)}); }
    IteratorConst startAt(Pos position) const noexcept {
        return IteratorConst({&raw_, raw_.startAt(position)});
    }
    Iterator begin() noexcept { return iterator(); }
    IteratorConst begin() const noexcept { return iterator(); }
    std::default_sentinel_t end() const noexcept { return {}; }

    String8 verify() const { return raw_.verify(); }

    static Item* itemOf(LinkQueueLink* l) noexcept { return static_cast<Item*>(l); }

  private:
    static LinkQueueLink* link(Item* item) noexcept {
        static_assert(std::is_base_of_v<LinkQueueLink, Item>,
                      "LinkQueue items derive from Kal::LinkQueueLink");
        return item;
    }
    Ptr<Item> removed(LinkQueueLink* l) noexcept {
        if (!l) return nullptr;
        Ptr<Item> item = itemOf(l);
        raw_.remove(l);
        return item;
    }

    detail::LinkQueueRaw raw_;
};

// Non-intrusive queue of counted pointers to any Kal::PtrInterface items.
template <class Item, class Pos = unsigned>
class LinkedQueue {
    static_assert(std::is_unsigned_v<Pos> && sizeof(Pos) <= sizeof(U64),
                  "queue positions are unsigned integers");

    struct Node : LinkQueueLink {
        explicit Node(Ptr<Item> i) noexcept : item(std::move(i)) {}
        Ptr<Item> item;
    };

  public:
    using Iterator = detail::LinkQueueIterator<LinkedQueue, Item, Pos>;
    using IteratorConst = detail::LinkQueueIterator<LinkedQueue, Item const, Pos>;

    LinkedQueue() noexcept = default;
    LinkedQueue(LinkedQueue const&) = delete;
    LinkedQueue& operator=(LinkedQueue const&) = delete;

    U32 size() const noexcept { return raw_.size(); }

    // Files `item` after the items at `position`.
    void insert(Ptr<Item> item, Pos position) {
        KAL_ASSERT(item);
        raw_.insert(new Node(std::move(item)), position);
    }
    // Files `item` at the back, at the last position + 1 (0 when empty); returns the position.
    Pos append(Ptr<Item> item) {
        KAL_ASSERT(item);
        return static_cast<Pos>(
            raw_.append(new Node(std::move(item)), std::numeric_limits<Pos>::max()));
    }

    Item* front() noexcept { return itemOf(raw_.front()); }
    Item const* front() const noexcept { return itemOf(raw_.front()); }
    // Removes and returns the front item; null when empty.
    Ptr<Item> pop() { return removed(raw_.front()); }
    // Removes and returns the first item at `position`; null when there is none.
    Ptr<Item> deleteAt(Pos position) { return removed(raw_.find(position)); }
    // Removes the first filing of `item`; returns whether there was one.
    bool deleteItem(Item const* item) noexcept {
        for (LinkQueueLink* l = raw_.front(); l; l = l->fwkLqNext()) {
            if (itemOf(l) == item) {
                raw_.remove(l);
                return true;
            }
        }
        return false;
    }
    void deleteAll() noexcept { raw_.deleteAll(); }

    // The first item at `position`, or null.
    Item* find(Pos position) noexcept { return itemOf(raw_.find(position)); }
    Item const* find(Pos position) const noexcept { return itemOf(raw_.find(position)); }

    Iterator iterator() noexcept { return Iterator({&raw_, raw_.front()}); }
    IteratorConst iterator() const noexcept { return IteratorConst({&raw_, raw_.front()}); }
    // An iterator at the first item whose position is not less than `position`.
    Iterator startAt(Pos position) noexcept { return Iterator({&raw_, raw_.startAt(position)}); }
    IteratorConst startAt(Pos position) const noexcept {
        return IteratorConst({&raw_, raw_.startAt(position)});
    }
    Iterator begin() noexcept { return iterator(); }
    IteratorConst begin() const noexcept { return iterator(); }
    std::default_sentinel_t end() const noexcept { return {}; }

    String8 verify() const { return raw_.verify(); }

    static Item* itemOf(LinkQueueLink* l) noexcept {
        return l ? static_cast<Node*>(l)->item.ptr() : nullptr;
    }

  private:
    Ptr<Item> removed(LinkQueueLink* l) noexcept {
        if (!l) return nullptr;
        Ptr<Item> item = itemOf(l);
        raw_.remove(l);
        return item;
    }

    detail::LinkQueueRaw raw_;
};

} // namespace Kal
