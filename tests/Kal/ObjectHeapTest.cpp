// Kal::ObjectHeap: disjoint, aligned memory per size class, emptied pages handed out in
// address order again, objects freed by other threads and by ended threads taken back,
// allocation after a thread gave its heap up, fork, trim.
#include "Kal/ObjectHeap.h"
#include "Kal/Ptr.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace OH = Kal::ObjectHeap;

std::uintptr_t addr(void* p) { return reinterpret_cast<std::uintptr_t>(p); }

// Fills an object with a pattern of its own, to be checked before it is freed.
void stamp(void* p, std::size_t bytes, unsigned seed) {
    auto* b = static_cast<unsigned char*>(p);
    for (std::size_t i = 0; i < bytes; ++i) b[i] = static_cast<unsigned char>(seed * 31 + i);
}
bool stamped(void const* p, std::size_t bytes, unsigned seed) {
    auto const* b = static_cast<unsigned char const*>(p);
    for (std::size_t i = 0; i < bytes; ++i) {
        if (b[i] != static_cast<unsigned char>(seed * 31 + i)) return false;
    }
    return true;
}

struct Block {
    void* p;
    std::size_t bytes;
};

// Allocates `count` objects of each size, stamps them, checks alignment and that no two
// overlap.
std::vector<Block> allocateStamped(std::vector<std::size_t> const& sizes, std::size_t count) {
    std::vector<Block> blocks;
    for (std::size_t bytes : sizes) {
        for (std::size_t i = 0; i < count; ++i) {
            void* p = OH::allocate(bytes);
            // A type's size is a multiple of its alignment: so is the object's address, up
            // to 16 (the general heap's promise) for the larger ones, 64 for the small.
            std::size_t align = OH::granule;
            while (align < 64 && bytes % (2 * align) == 0) align *= 2;
            if (bytes > OH::largestObject) align = std::min<std::size_t>(align, 16);
            EXPECT_EQ(addr(p) % align, 0u) << bytes << " bytes";
            stamp(p, bytes, unsigned(blocks.size()));
            blocks.push_back({p, bytes});
        }
    }
    std::vector<Block> sorted = blocks;
    std::sort(sorted.begin(), sorted.end(), [](Block a, Block b) { return addr(a.p) < addr(b.p); });
    for (std::size_t i = 1; i < sorted.size(); ++i) {
        EXPECT_GE(addr(sorted[i].p), addr(sorted[i - 1].p) + sorted[i - 1].bytes)
            << "objects of " << sorted[i - 1].bytes << " and " << sorted[i].bytes
            << " bytes overlap";
    }
    return blocks;
}

void checkAndFree(std::vector<Block>& blocks, unsigned seed) {
    std::vector<std::size_t> order(blocks.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(seed));
    for (std::size_t i : order) {
        EXPECT_TRUE(stamped(blocks[i].p, blocks[i].bytes, unsigned(i)))
            << "object " << i << " of " << blocks[i].bytes << " bytes was overwritten";
        OH::deallocate(blocks[i].p, blocks[i].bytes);
    }
    blocks.clear();
}

TEST(ObjectHeapTest, EverySizeGetsDisjointAlignedMemoryAndGivesItBackForReuse) {
    // Every class, its edges, and sizes served by the general heap; more objects than one
    // page of the smallest class holds, so that classes span several pages.
    std::vector<std::size_t> sizes = {1, 8, 15, 16, 17, 24, 32, 40, 48, 64, 104, 120, 128, 129, 192, 255, 256, 257, 4000};
    std::size_t const count = OH::pageBytes / OH::granule + 100;
    auto blocks = allocateStamped(sizes, count);
    std::size_t const reserved = OH::stats().reservedBytes;
    checkAndFree(blocks, 1);
    // The same again fits in the memory already taken from the system.
    blocks = allocateStamped(sizes, count);
    EXPECT_EQ(OH::stats().reservedBytes, reserved);
    checkAndFree(blocks, 2);
}

TEST(ObjectHeapTest, AnEmptiedPageHandsOutItsObjectsInAddressOrderAgain) {
    // Objects freed in random order and made again come back one after another in address
    // order, as from a fresh page, not in the order they were freed: objects made together
    // stay together. (Pages that other objects of the process share may hand out their free
    // places first, in any order: most steps must still be steps of one object.)
    constexpr std::size_t bytes = 48;
    std::size_t const perPage = (OH::pageBytes - 64) / bytes;
    std::vector<void*> objects;
    for (std::size_t i = 0; i < 3 * perPage; ++i) objects.push_back(OH::allocate(bytes));
    std::shuffle(objects.begin(), objects.end(), std::mt19937(7));
    for (void* p : objects) OH::deallocate(p, bytes);
    objects.clear();
    for (std::size_t i = 0; i < 3 * perPage; ++i) objects.push_back(OH::allocate(bytes));
    std::size_t steps = 0;
    for (std::size_t i = 1; i < objects.size(); ++i) {
        if (addr(objects[i]) == addr(objects[i - 1]) + bytes) ++steps;
    }
    EXPECT_GE(steps, 2 * perPage) << "of " << objects.size() << " objects";
    for (void* p : objects) OH::deallocate(p, bytes);
}

TEST(ObjectHeapTest, ObjectsFreedByAnotherThreadAreReusedByTheirOwner) {
    constexpr std::size_t bytes = 112;
    constexpr std::size_t count = 20000;
    std::size_t reserved = 0;
    for (int round = 0; round < 6; ++round) {
        std::vector<void*> objects;
        for (std::size_t i = 0; i < count; ++i) {
            objects.push_back(OH::allocate(bytes));
            stamp(objects.back(), bytes, unsigned(i));
        }
        std::atomic<std::size_t> bad{0};
        std::thread([&] {
            for (std::size_t i = 0; i < count; ++i) {
                if (!stamped(objects[i], bytes, unsigned(i))) ++bad;
                OH::deallocate(objects[i], bytes);
            }
        }).join();
        EXPECT_EQ(bad.load(), 0u);
        // From the second round on, the owner gets the objects the other thread freed back
        // instead of taking more memory.
        if (round == 1) reserved = OH::stats().reservedBytes;
        if (round > 1) {
            EXPECT_EQ(OH::stats().reservedBytes, reserved) << "round " << round;
        }
    }
}

TEST(ObjectHeapTest, AnotherThreadFreesWhileTheOwnerKeepsAllocating) {
    // The owner hands objects over through a ring; the other thread checks and frees them
    // as they come, so that frees land in the owner's inbox while it allocates and drains.
    constexpr std::size_t bytes = 64;
    constexpr std::size_t total = 300000;
    constexpr std::size_t ringSize = 4096;
    std::vector<std::atomic<void*>> ring(ringSize);
    std::atomic<std::size_t> bad{0};
    std::size_t const reservedBefore = OH::stats().reservedBytes;
    std::thread freer([&] {
        for (std::size_t i = 0; i < total; ++i) {
            void* p;
            while (!(p = ring[i % ringSize].exchange(nullptr, std::memory_order_acquire))) {
                std::this_thread::yield();
            }
            if (!stamped(p, bytes, unsigned(i))) ++bad;
            OH::deallocate(p, bytes);
        }
    });
    for (std::size_t i = 0; i < total; ++i) {
        void* p = OH::allocate(bytes);
        stamp(p, bytes, unsigned(i));
        while (ring[i % ringSize].load(std::memory_order_relaxed)) std::this_thread::yield();
        ring[i % ringSize].store(p, std::memory_order_release);
    }
    freer.join();
    EXPECT_EQ(bad.load(), 0u);
    // At most a ring's worth and a page per class in flight: the memory was reused.
    EXPECT_LT(OH::stats().reservedBytes - reservedBefore, total * bytes / 4);
}

// Allocates and frees after the thread gave its heap up: constructed before the thread's
// first allocation, it is destroyed after the heap was released.
struct AllocatesWhenDestroyed {
    std::atomic<int>* ran = nullptr;
    ~AllocatesWhenDestroyed() {
        if (!ran) return;
        std::vector<void*> objects;
        for (unsigned i = 0; i < 5000; ++i) {
            objects.push_back(OH::allocate(64));
            stamp(objects.back(), 64, i);
        }
        bool ok = true;
        for (unsigned i = 0; i < objects.size(); ++i) {
            ok = ok && stamped(objects[i], 64, i);
            OH::deallocate(objects[i], 64);
        }
        Kal::Ptr<Kal::PtrInterface> counted = new Kal::PtrInterface;
        counted = nullptr;
        ran->store(ok ? 1 : 2);
    }
};
thread_local AllocatesWhenDestroyed allocatesWhenDestroyed;

TEST(ObjectHeapTest, AnEndedThreadsObjectsStayUsableAndItsPagesReturn) {
    constexpr std::size_t bytes = 80;
    std::vector<void*> objects;
    std::atomic<int> lateRan{0};
    std::thread([&] {
        allocatesWhenDestroyed.ran = &lateRan;
        for (unsigned i = 0; i < 30000; ++i) {
            objects.push_back(OH::allocate(bytes));
            stamp(objects.back(), bytes, i);
        }
    }).join();
    EXPECT_EQ(lateRan.load(), 1) << "allocation after the thread's heap was given up";
    std::size_t const pooledWhileLive = OH::stats().pooledPages;
    for (unsigned i = 0; i < objects.size(); ++i) {
        ASSERT_TRUE(stamped(objects[i], bytes, i)) << "object " << i;
        OH::deallocate(objects[i], bytes);
    }
    // The ended thread's pages went back to the pool as they emptied (30000 objects of 80
    // bytes fill more than 30 pages).
    EXPECT_GE(OH::stats().pooledPages, pooledWhileLive + 30);
}

TEST(ObjectHeapTest, AForkedChildAllocatesAndFrees) {
    std::vector<void*> held;
    for (int i = 0; i < 1000; ++i) held.push_back(OH::allocate(32));
    pid_t const child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The parent's objects are the child's too; free some, make more.
        for (int i = 0; i < 500; ++i) OH::deallocate(held[i], 32);
        std::vector<Kal::Ptr<Kal::PtrInterface>> counted;
        for (int i = 0; i < 20000; ++i) counted.push_back(new Kal::PtrInterface);
        counted.clear();
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    for (void* p : held) OH::deallocate(p, 32);
}

TEST(ObjectHeapTest, TrimReleasesThePooledPagesWhichStayUsable) {
    // More emptied pages than a thread keeps: the rest is pooled.
    constexpr std::size_t bytes = 256;
    std::size_t const count = (OH::keptPages + 8) * (OH::pageBytes / bytes);
    std::vector<void*> objects;
    for (std::size_t i = 0; i < count; ++i) objects.push_back(OH::allocate(bytes));
    for (void* p : objects) OH::deallocate(p, bytes);
    objects.clear();
    std::size_t const pooled = OH::stats().pooledPages;
    ASSERT_GE(pooled, 8u);
    EXPECT_EQ(OH::trim(), pooled * (OH::pageBytes - 4096));
    for (std::size_t i = 0; i < count; ++i) {
        objects.push_back(OH::allocate(bytes));
        stamp(objects.back(), bytes, unsigned(i));
    }
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(stamped(objects[i], bytes, unsigned(i)));
        OH::deallocate(objects[i], bytes);
    }
}

} // namespace
