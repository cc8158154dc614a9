// The small-object heap; the design is described in ObjectHeap.h.
#include "Kal/ObjectHeap.h"

#include "Kal/PtrInterface.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <pthread.h>
#include <sys/mman.h>

// Whether counted objects take their memory from here: not where a sanitizer should see
// each of them, nor when the build asks for the general heap.
#if defined(KAL_OBJECT_HEAP) && !KAL_OBJECT_HEAP
#define KAL_COUNTED_ON_OBJECT_HEAP 0
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KAL_COUNTED_ON_OBJECT_HEAP 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KAL_COUNTED_ON_OBJECT_HEAP 0
#endif
#endif
#ifndef KAL_COUNTED_ON_OBJECT_HEAP
#define KAL_COUNTED_ON_OBJECT_HEAP 1
#endif

namespace Kal::ObjectHeap {

namespace {

constexpr std::size_t headerBytes = 64;
constexpr unsigned classCount = unsigned(largestObject / granule);
constexpr std::size_t trimKeep = 4096;

constexpr unsigned classOf(std::size_t bytes) noexcept {
    return unsigned((bytes - 1) / granule);
}
constexpr std::size_t classBytes(unsigned c) noexcept { return (c + 1) * granule; }

struct Heap;

// Which list of its heap holds a page.
enum class Where : U8 { none, current, partial, full, empty };

// The bookkeeping at the start of every page. Only the owning heap's thread touches the
// fields other than `owner` (the orphans' under the lock); `owner` changes under the lock.
struct Page {
    void* free = nullptr; // freed objects, linked through their first word
    char* bump = nullptr; // the first never-used object
    char* end = nullptr;  // past the last whole object
    U32 used = 0;         // objects handed out and not freed into the page yet
    U16 cls = 0;
    Where where = Where::none;
    std::atomic<Heap*> owner{nullptr};
    Page* prev = nullptr;
    Page* next = nullptr;
};
static_assert(sizeof(Page) <= headerBytes);
static_assert(segmentBytes % pageBytes == 0);

Page* pageOf(void* p) noexcept {
    return reinterpret_cast<Page*>(reinterpret_cast<std::uintptr_t>(p) & ~(pageBytes - 1));
}

struct List {
    Page* head = nullptr;
    void push(Page* p) noexcept {
        p->prev = nullptr;
        p->next = head;
        if (head) head->prev = p;
        head = p;
    }
    void remove(Page* p) noexcept {
        (p->prev ? p->prev->next : head) = p->next;
        if (p->next) p->next->prev = p->prev;
        p->prev = p->next = nullptr;
    }
    Page* pop() noexcept {
        Page* p = head;
        if (p) remove(p);
        return p;
    }
};

// Never has room: a heap's current page for a class before it took a real one, so that the
// fast path needs no test for a missing page.
constinit Page exhausted;

struct Heap {
    constexpr Heap() {
        for (auto& c : current) c = &exhausted;
    }
    Page* current[classCount]{};
    List partial[classCount];
    List full[classCount];
    List empty;
    U32 emptyPages = 0;
    void* inbox = nullptr; // under the lock
    std::atomic<bool> inboxPending{false};
};

// Recursive: freeing into the orphans (lock held) may retire a page to the pool (locks).
pthread_mutex_t lock_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
Page* pool = nullptr; // linked through next
std::size_t pooledPages = 0;
std::size_t reservedBytes = 0;
constinit Heap orphans;

class Lock {
  public:
    Lock() noexcept { ::pthread_mutex_lock(&lock_); }
    ~Lock() { ::pthread_mutex_unlock(&lock_); }
    Lock(Lock const&) = delete;
    Lock& operator=(Lock const&) = delete;
};

[[gnu::tls_model("initial-exec")]] constinit thread_local Heap* threadHeap = nullptr;
// Set once the thread's heap was given up: later allocations are served from the orphans.
[[gnu::tls_model("initial-exec")]] constinit thread_local bool threadDone = false;

void releaseThreadHeap() noexcept;

// Gives the thread's heap up when the thread ends; armed when the heap is made.
struct Releaser {
    bool armed = false;
    ~Releaser() {
        if (armed) releaseThreadHeap();
    }
};
thread_local Releaser releaser;

// Lock held.
Page* poolPage() {
    if (!pool) {
        void* seg = std::aligned_alloc(pageBytes, segmentBytes);
        if (!seg) throw std::bad_alloc();
        reservedBytes += segmentBytes;
        for (std::size_t off = segmentBytes; off > 0; off -= pageBytes) {
            Page* p = new (static_cast<char*>(seg) + off - pageBytes) Page;
            p->next = pool;
            pool = p;
            ++pooledPages;
        }
    }
    Page* p = pool;
    pool = p->next;
    p->next = nullptr;
    --pooledPages;
    return p;
}

// Lock held.
void toPool(Page* p) noexcept {
    p->owner.store(nullptr, std::memory_order_relaxed);
    p->where = Where::none;
    p->prev = nullptr;
    p->next = pool;
    pool = p;
    ++pooledPages;
}

// Makes p an empty page of class c: objects are handed out from the front.
void format(Page* p, unsigned c) noexcept {
    std::size_t const size = classBytes(c);
    p->cls = U16(c);
    p->free = nullptr;
    p->used = 0;
    p->bump = reinterpret_cast<char*>(p) + headerBytes;
    p->end = p->bump + (pageBytes - headerBytes) / size * size;
}

inline void* take(Heap& h, unsigned c) noexcept {
    Page* p = h.current[c];
    if (void* obj = p->free) {
        p->free = *static_cast<void**>(obj);
        ++p->used;
        return obj;
    }
    if (p->bump != p->end) {
        void* obj = p->bump;
        p->bump += classBytes(c);
        ++p->used;
        return obj;
    }
    return nullptr;
}

// An empty page that is no longer current: kept by the heap up to keptPages, else pooled.
// The orphans keep none (their lock is held here already).
void retire(Heap& h, Page* p) {
    if (&h != &orphans && h.emptyPages < keptPages) {
        p->where = Where::empty;
        h.empty.push(p);
        ++h.emptyPages;
        return;
    }
    Lock lock;
    toPool(p);
}

// A page's lists after an object went back to it: a full page has room again, an empty one
// starts over (current) or is retired.
[[gnu::noinline]] void settle(Heap& h, Page* p) {
    unsigned const c = p->cls;
    if (p->where == Where::full) {
        h.full[c].remove(p);
        p->where = Where::partial;
        h.partial[c].push(p);
    }
    if (p->used != 0) return;
    if (p->where == Where::current) {
        format(p, c);
        return;
    }
    h.partial[c].remove(p);
    retire(h, p);
}

inline void freeInto(Heap& h, Page* p, void* obj) {
    *static_cast<void**>(obj) = p->free;
    p->free = obj;
    if (--p->used == 0 || p->where == Where::full) [[unlikely]]
        settle(h, p);
}

void drainInbox(Heap& h) {
    void* list;
    {
        Lock lock;
        list = h.inbox;
        h.inbox = nullptr;
        h.inboxPending.store(false, std::memory_order_relaxed);
    }
    while (list) {
        void* const next = *static_cast<void**>(list);
        freeInto(h, pageOf(list), list);
        list = next;
    }
}

// The current page of class c has no room: objects freed by other threads come in first,
// then the next page is one with freed objects, an empty one of the heap's, or one from the
// pool.
[[gnu::noinline]] void* refill(Heap& h, unsigned c) {
    if (h.inboxPending.load(std::memory_order_acquire)) {
        drainInbox(h);
        if (void* obj = take(h, c)) return obj;
    }
    Page* const cur = h.current[c];
    if (cur != &exhausted) {
        cur->where = Where::full;
        h.full[c].push(cur);
    }
    Page* p = h.partial[c].pop();
    if (!p) {
        p = h.empty.pop();
        if (p) {
            --h.emptyPages;
        } else {
            Lock lock;
            p = poolPage();
            p->owner.store(&h, std::memory_order_relaxed);
        }
        format(p, c);
    }
    p->where = Where::current;
    h.current[c] = p;
    return take(h, c);
}

// allocate() when the fast path failed: a larger object, no heap yet, or no room.
[[gnu::noinline]] void* allocateSlow(std::size_t bytes) {
    if (bytes - 1 >= largestObject) return ::operator new(bytes);
    unsigned const c = classOf(bytes);
    if (Heap* h = threadHeap) return refill(*h, c);
    if (!threadDone) {
        Heap* h = new Heap;
        threadHeap = h;
        releaser.armed = true;
        return refill(*h, c);
    }
    Lock lock;
    if (void* obj = take(orphans, c)) return obj;
    return refill(orphans, c);
}

// The owner's page has room: no call, no atomic operation.
inline void* allocateFast(std::size_t bytes) {
    if (bytes - 1 < largestObject) [[likely]] {
        if (Heap* h = threadHeap) [[likely]] {
            if (void* obj = take(*h, classOf(bytes))) [[likely]]
                return obj;
        }
    }
    return allocateSlow(bytes);
}

void freeRemote(Page* p, void* obj) {
    Lock lock;
    Heap* const owner = p->owner.load(std::memory_order_relaxed);
    if (owner == &orphans) {
        freeInto(orphans, p, obj);
        return;
    }
    *static_cast<void**>(obj) = owner->inbox;
    owner->inbox = obj;
    owner->inboxPending.store(true, std::memory_order_release);
}

// A page of a heap being given up: to the pool when empty, else to the orphans; lock held.
void orphan(Page* p) {
    unsigned const c = p->cls;
    if (p->used == 0) {
        toPool(p);
        return;
    }
    p->owner.store(&orphans, std::memory_order_relaxed);
    bool const room = p->free || p->bump != p->end;
    p->where = room ? Where::partial : Where::full;
    (room ? orphans.partial[c] : orphans.full[c]).push(p);
}

void releaseThreadHeap() noexcept {
    Heap* const h = threadHeap;
    threadHeap = nullptr;
    threadDone = true;
    if (!h) return;
    Lock lock;
    for (void* obj = h->inbox; obj;) {
        void* const next = *static_cast<void**>(obj);
        Page* const p = pageOf(obj);
        *static_cast<void**>(obj) = p->free;
        p->free = obj;
        --p->used;
        obj = next;
    }
    for (unsigned c = 0; c < classCount; ++c) {
        if (h->current[c] != &exhausted) orphan(h->current[c]);
        while (Page* p = h->partial[c].pop()) orphan(p);
        while (Page* p = h->full[c].pop()) orphan(p);
    }
    while (Page* p = h->empty.pop()) toPool(p);
    delete h;
}

[[gnu::noinline]] void deallocateSlow(void* p, std::size_t bytes) noexcept {
    if (!p) return;
    if (bytes - 1 >= largestObject) {
        ::operator delete(p);
        return;
    }
    freeRemote(pageOf(p), p);
}

// Back into the owner's page: no call, no atomic read-modify-write.
inline void deallocateFast(void* p, std::size_t bytes) noexcept {
    if (p && bytes - 1 < largestObject) [[likely]] {
        Page* const page = pageOf(p);
        Heap* const h = threadHeap;
        if (h && page->owner.load(std::memory_order_relaxed) == h) [[likely]] {
            freeInto(*h, page, p);
            return;
        }
    }
    deallocateSlow(p, bytes);
}

// The lock is taken across fork(), so that the child's copy of the heap is not caught in the
// middle of a change. The child's only thread is not the one that took it (a recursive lock
// knows its owner): it starts with a fresh lock instead.
void lockForFork() noexcept { ::pthread_mutex_lock(&lock_); }
void unlockInParent() noexcept { ::pthread_mutex_unlock(&lock_); }
void freshLockInChild() noexcept {
    pthread_mutex_t const fresh = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    lock_ = fresh;
}
[[maybe_unused]] int const forkHandlers =
    ::pthread_atfork(lockForFork, unlockInParent, freshLockInChild);

} // namespace

void* allocate(std::size_t bytes) { return allocateFast(bytes); }

void deallocate(void* p, std::size_t bytes) noexcept { deallocateFast(p, bytes); }

Stats stats() {
    Lock lock;
    return Stats{reservedBytes, pooledPages};
}

std::size_t trim() {
    Lock lock;
    std::size_t released = 0;
    for (Page* p = pool; p; p = p->next) {
        if (::madvise(reinterpret_cast<char*>(p) + trimKeep, pageBytes - trimKeep, MADV_DONTNEED) ==
            0) {
            released += pageBytes - trimKeep;
        }
    }
    return released;
}

} // namespace Kal::ObjectHeap

namespace Kal {

void* PtrInterface::operator new(std::size_t bytes) {
    if constexpr (KAL_COUNTED_ON_OBJECT_HEAP) return ObjectHeap::allocateFast(bytes);
    return ::operator new(bytes);
}

void PtrInterface::operator delete(void* p, std::size_t bytes) noexcept {
    if constexpr (KAL_COUNTED_ON_OBJECT_HEAP) {
        ObjectHeap::deallocateFast(p, bytes);
    } else {
        ::operator delete(p);
    }
}

} // namespace Kal
