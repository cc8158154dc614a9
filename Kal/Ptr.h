// Kal::Ptr<T>: counted pointer to a Kal::PtrInterface object; Kal::Ptr<T const> for
// read-only access. Kal::ValidPtr<T>: the flavour that is never null.
//
//   Kal::Ptr<Foo> a = new Foo;   // Foo's count 0 -> 1
//   Kal::Ptr<Foo> b = a;         // 2
//   a = nullptr;                 // 1
//   b = b;                       // unchanged: assigning the held object does nothing
//
// Rules: copying counts the target; destruction and reassignment release the old target
// after the new one has been counted, so releasing (and possibly destroying) the old object
// can never see this pointer half-assigned. Moving transfers the reference without counting.
// Dereferencing a null Ptr is a programming error (checked in debug builds).
#pragma once

#include "Kal/Assert.h"
#include "Kal/Exception.h"
#include "Kal/PtrInterface.h"

#include <compare>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace Kal {

template <class T>
class Ptr {
  public:
    using element_type = T;

    Ptr() noexcept : p_(nullptr) {}
    Ptr(std::nullptr_t) noexcept : p_(nullptr) {}
    Ptr(T* p) noexcept : p_(p) { inc(p_); }
    Ptr(Ptr const& o) noexcept : p_(o.p_) { inc(p_); }
    Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ptr(Ptr<U> const& o) noexcept : p_(o.ptr()) {
        inc(p_);
    }
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
    ~Ptr() { dec(p_); }

    Ptr& operator=(Ptr const& o) { return assign(o.p_); }
    Ptr& operator=(Ptr&& o) {
        if (this != &o) {
            T* old = p_;
            p_ = o.p_;
            o.p_ = nullptr;
            dec(old);
        }
        return *this;
    }
    Ptr& operator=(T* p) { return assign(p); }
    Ptr& operator=(std::nullptr_t) { return assign(nullptr); }
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ptr& operator=(Ptr<U> const& o) {
        return assign(o.ptr());
    }

    T* ptr() const noexcept { return p_; }
    T* operator->() const noexcept {
        KAL_DASSERT(p_);
        return p_;
    }
    T& operator*() const noexcept {
        KAL_DASSERT(p_);
        return *p_;
    }
    explicit operator bool() const noexcept { return p_ != nullptr; }

    // Gives up the reference without releasing it; the caller owns one count.
    T* release() noexcept { return std::exchange(p_, nullptr); }
    // The reverse: a pointer that takes over one reference the caller holds (as release()
    // or PtrInterface::kalFirstReference left it); nothing is counted.
    static Ptr kalAdopt(T* p) noexcept {
        Ptr r;
        r.p_ = p;
        return r;
    }

    template <class U>
    friend bool operator==(Ptr const& a, Ptr<U> const& b) noexcept {
        return a.ptr() == b.ptr();
    }
    template <class U>
    friend bool operator==(Ptr const& a, U* b) noexcept {
        return a.ptr() == b;
    }
    friend bool operator==(Ptr const& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }
    template <class U>
    friend auto operator<=>(Ptr const& a, Ptr<U> const& b) noexcept {
        return std::compare_three_way()(static_cast<void const*>(a.ptr()),
                                        static_cast<void const*>(b.ptr()));
    }

  private:
    static void inc(T* p) noexcept {
        if (p) p->referencesInc();
    }
    static void dec(T* p) {
        if (p) p->referencesDec();
    }
    Ptr& assign(T* p) {
        if (p != p_) {
            inc(p);
            T* old = p_;
            p_ = p;
            dec(old);
        }
        return *this;
    }

    T* p_;
};

template <class T, class U>
Ptr<T> staticPtrCast(Ptr<U> const& p) noexcept {
    return Ptr<T>(static_cast<T*>(p.ptr()));
}
template <class T, class U>
Ptr<T> dynamicPtrCast(Ptr<U> const& p) noexcept {
    return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}
template <class T, class U>
Ptr<T> constPtrCast(Ptr<U> const& p) noexcept {
    return Ptr<T>(const_cast<T*>(p.ptr()));
}

// A new T made from `args`, held by the returned pointer. Its first reference is counted
// with a plain store (PtrInterface::kalFirstReference) where `Ptr<T> p = new T` takes an
// atomic increment: for code that makes many objects in a row.
template <class T, class... Args>
Ptr<T> kalNew(Args&&... args) {
    T* p = new T(std::forward<Args>(args)...);
    p->kalFirstReference();
    return Ptr<T>::kalAdopt(p);
}

[[noreturn]] void throwNullValidPtr();

// A counted pointer that is never null: constructing one from null, or dereferencing one
// that was moved from, raises Kal::RangeException "null ValidPtr". Accessors that hand out
// a member that must exist return it this way.
template <class T>
class ValidPtr {
  public:
    ValidPtr(T* p) : p_(p) { check(); }
    ValidPtr(Ptr<T> p) : p_(std::move(p)) { check(); }
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    ValidPtr(Ptr<U> const& p) : p_(p) {
        check();
    }
    ValidPtr(std::nullptr_t) { throwNullValidPtr(); }

    T* ptr() const { return p_.ptr(); }
    T* operator->() const {
        check();
        return p_.ptr();
    }
    T& operator*() const {
        check();
        return *p_;
    }
    operator Ptr<T> const&() const noexcept { return p_; }
    Ptr<T> const& toPtr() const noexcept { return p_; }

    template <class U>
    friend bool operator==(ValidPtr const& a, U const& b) noexcept {
        return a.p_ == b;
    }

  private:
    void check() const {
        if (!p_) throwNullValidPtr();
    }
    Ptr<T> p_;
};

} // namespace Kal

template <class T>
struct std::hash<Kal::Ptr<T>> {
    std::size_t operator()(Kal::Ptr<T> const& p) const noexcept {
        return std::hash<T*>()(p.ptr());
    }
};
