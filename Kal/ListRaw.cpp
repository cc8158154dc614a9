#include "Kal/ListRaw.h"

#include <string>

namespace Kal {

void ListRawBase::pushBack(ListRawLink* l) noexcept {
    KAL_ASSERT(l->list_ == nullptr);
    l->list_ = this;
    l->prev_ = tail_;
    l->next_ = nullptr;
    if (tail_) {
        tail_->next_ = l;
    } else {
        head_ = l;
    }
    tail_ = l;
    ++size_;
}

void ListRawBase::pushFront(ListRawLink* l) noexcept {
    KAL_ASSERT(l->list_ == nullptr);
    l->list_ = this;
    l->next_ = head_;
    l->prev_ = nullptr;
    if (head_) {
        head_->prev_ = l;
    } else {
        tail_ = l;
    }
    head_ = l;
    ++size_;
}

bool ListRawBase::remove(ListRawLink* l) noexcept {
    if (l->list_ != this) return false;
    if (l->prev_) {
        l->prev_->next_ = l->next_;
    } else {
        head_ = l->next_;
    }
    if (l->next_) {
        l->next_->prev_ = l->prev_;
    } else {
        tail_ = l->prev_;
    }
    l->prev_ = l->next_ = nullptr;
    l->list_ = nullptr;
    --size_;
    return true;
}

void ListRawBase::unlinkAll() noexcept {
    while (head_) remove(head_);
}

std::string ListRawBase::verify() const {
    U32 n = 0;
    ListRawLink const* prev = nullptr;
    for (ListRawLink const* l = head_; l; prev = l, l = l->next_) {
        if (l->list_ != this) return "element " + std::to_string(n) + " names another list";
        if (l->prev_ != prev) return "element " + std::to_string(n) + " has a wrong prev link";
        if (++n > size_) return "more elements than the length " + std::to_string(size_);
    }
    if (prev != tail_) return "tail is not the last element";
    if (n != size_) {
        return "length " + std::to_string(size_) + " but " + std::to_string(n) + " elements";
    }
    return {};
}

} // namespace Kal
