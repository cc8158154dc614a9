#include "Kal/LinkQueue.h"

#include <string>

namespace Kal {

LinkQueueLink::~LinkQueueLink() {
    // A queue counts the links it files, so a filed link reaches its destructor only if it
    // was deleted by hand (or is a static object torn down at exit).
    KAL_DASSERT(!queue_ || isStatic());
}

namespace detail {

namespace {

String8 problem(std::string text) { return String8(std::move(text)); }

} // namespace

void LinkQueueRaw::linkAfter(LinkQueueLink* link, LinkQueueLink* prev, U64 position) {
    KAL_ASSERT(!link->fwkLqFiled());
    KAL_DASSERT(!link->next_ && !link->prev_);
    link->position_ = position;
    link->queue_ = this;
    link->prev_ = prev;
    Ptr<LinkQueueLink>& slot = prev ? prev->next_ : head_;
    link->next_ = std::move(slot);
    if (link->next_) {
        link->next_->prev_ = link;
    } else {
        tail_ = link;
    }
    slot = link;
    ++size_;
}

void LinkQueueRaw::insert(LinkQueueLink* link, U64 position) {
    // From the tail: filing in ascending order, the common case, stops at once.
    LinkQueueLink* prev = tail_;
    while (prev && prev->position_ > position) prev = prev->prev_;
    linkAfter(link, prev, position);
}

U64 LinkQueueRaw::append(LinkQueueLink* link, U64 maxPosition) {
    U64 position = 0;
    if (tail_) {
        KAL_ASSERT(tail_->position_ < maxPosition);
        position = tail_->position_ + 1;
    }
    linkAfter(link, tail_, position);
    return position;
}

void LinkQueueRaw::remove(LinkQueueLink* link) noexcept {
    KAL_ASSERT(holds(link));
    LinkQueueLink* prev = link->prev_;
    Ptr<LinkQueueLink>& slot = prev ? prev->next_ : head_;
    // Take over the queue's reference, so the link outlives its unlinking.
    Ptr<LinkQueueLink> held = std::move(slot);
    slot = std::move(link->next_);
    if (slot) {
        slot->prev_ = prev;
    } else {
        tail_ = prev;
    }
    link->prev_ = nullptr;
    link->queue_ = nullptr;
    --size_;
    // `held` goes last: the queue is sound again if releasing it runs a destructor.
}

void LinkQueueRaw::deleteAll() noexcept {
    Ptr<LinkQueueLink> chain = std::move(head_);
    tail_ = nullptr;
    size_ = 0;
    // Unfile every link before releasing any, so that a destructor run by the releases
    // finds each remaining link unfiled and the queue empty.
    for (LinkQueueLink* l = chain.ptr(); l; l = l->next_.ptr()) {
        l->queue_ = nullptr;
        l->prev_ = nullptr;
    }
    // One link at a time: releasing a link whose next_ is already taken cannot recurse.
    while (chain) {
        Ptr<LinkQueueLink> next = std::move(chain->next_);
        chain = std::move(next);
    }
}

LinkQueueLink* LinkQueueRaw::startAt(U64 position) const noexcept {
    LinkQueueLink* l = head_.ptr();
    while (l && l->position_ < position) l = l->next_.ptr();
    return l;
}

LinkQueueLink* LinkQueueRaw::after(U64 position) const noexcept {
    LinkQueueLink* l = head_.ptr();
    while (l && l->position_ <= position) l = l->next_.ptr();
    return l;
}

LinkQueueLink* LinkQueueRaw::find(U64 position) const noexcept {
    LinkQueueLink* l = startAt(position);
    return l && l->position_ == position ? l : nullptr;
}

String8 LinkQueueRaw::verify() const {
    U32 index = 0;
    LinkQueueLink const* prev = nullptr;
    for (LinkQueueLink const* l = head_.ptr(); l; prev = l, l = l->next_.ptr(), ++index) {
        if (index >= size_) return problem("more links than the size " + std::to_string(size_));
        if (l->queue_ != this) return problem("link not filed in this queue at index " + std::to_string(index));
        if (l->prev_ != prev) return problem("previous link broken at index " + std::to_string(index));
        if (prev && l->position_ < prev->position_) {
            return problem("positions descend at index " + std::to_string(index));
        }
    }
    if (prev != tail_) return problem("tail is not the last link");
    if (index != size_) {
        return problem("size " + std::to_string(size_) + " but " + std::to_string(index) + " links");
    }
    return {};
}

void LinkQueueCursor::advance() {
    KAL_ASSERT(link_ && "iterator advanced past its end");
    LinkQueueLink* n = hasBookmark() ? queue_->after(position_) : link_->fwkLqNext();
    link_ = n;
    if (n) position_ = n->fwkLqPosition();
}

} // namespace detail

} // namespace Kal
