// Kal::ObjectHeap: the memory of small counted objects (entities, collection members, values
// held by pointer). Kal::PtrInterface takes its objects' memory from here.
//
// Why not the general heap. The adjacency tables are made of many small objects that come
// and go together: an adjacency is half a dozen of them, a start-up sync makes a hundred
// thousand adjacencies in one go and a withdrawal can free as many. The general heap serves
// such a burst from wherever its free lists point after the last one, so objects made one
// after another end up scattered, and it hands whole runs of freed memory back to the kernel,
// which must fault them in again (zeroed) for the next burst. Filing a hundred thousand
// adjacencies took half as long again that way.
//
// Design. Objects of up to `largestObject` bytes are served in size classes of `granule`
// bytes from pages of `pageBytes`, aligned to their size so that an object's page is its
// address with the low bits cleared. A page holds objects of one class and has one owner: the
// heap of the thread that took it. Each thread has its own heap (made on its first
// allocation); per class it allocates from one current page, first from that page's list of
// freed objects, then from its never-used tail, so a fresh or emptied page hands out objects
// in address order. Objects freed by the owning thread go back to their own page without an
// atomic operation; a page that empties is reset (its objects handed out from the front
// again), and a heap keeps `keptPages` empty pages and gives the rest to a process-wide pool
// from which every heap takes pages. Memory taken from the system stays with the process:
// trim() lets a host give the pooled pages' memory back.
//
//   thread heap
//     current[class]  -> page being allocated from (a static exhausted page before the first)
//     partial[class]  -> pages with freed objects, taken when the current page is full
//     full[class]     -> pages without free room
//     empty           -> up to keptPages empty pages, any class
//     inbox           -> objects of its pages freed by other threads (under the lock)
//   pool              -> empty pages of no heap (under the lock), from segments of
//                        segmentBytes taken from the system
//   orphans           -> the pages of heaps whose thread ended with objects still live;
//                        used under the lock only
//
// Threads. Counted objects may be released on any thread. An object freed by a thread whose
// heap does not own its page is passed, under a process-wide lock, to the owner's inbox,
// which the owner empties into its pages the next time it needs a page; pages of a thread
// that has ended belong to the orphans and are freed into directly under the lock. A
// thread's heap is given up when the thread ends: empty pages go to the pool, pages with live
// objects to the orphans. A thread that allocates after that (a thread-local or static
// destructor) is served from the orphans, under the lock. The lock is held across fork(), so
// a child starts with the heap consistent.
//
// Builds with the address or thread sanitizer give counted objects the general heap instead
// (the sanitizer then checks each one), as does -DRIDGE_OBJECT_HEAP=OFF; the functions here
// stay available either way.
#pragma once

#include "Kal/Types.h"

#include <cstddef>

namespace Kal::ObjectHeap {

// Size classes step by 8 bytes: collection members are 40 bytes, and classes of 16 would
// give each a quarter more than it needs. An object still lands on a multiple of its own
// alignment: its size is a multiple of that, and so is its class's size (a multiple of 8 no
// larger than needed), and every object of a page starts a whole number of them after the
// page's 64-byte header.
inline constexpr std::size_t granule = 8;
inline constexpr std::size_t largestObject = 256;
inline constexpr std::size_t pageBytes = std::size_t(1) << 16;
inline constexpr std::size_t segmentBytes = std::size_t(1) << 20;
inline constexpr U32 keptPages = 16;

// Memory for an object of `bytes` bytes, aligned to `granule` (to 16 when `bytes` is a
// multiple of 16, and so on for every power of two up to 64); larger objects come from the
// general heap. Throws std::bad_alloc when the system has no memory left.
void* allocate(std::size_t bytes);
// Gives back what allocate(bytes) returned, with the same `bytes`; any thread may.
void deallocate(void* p, std::size_t bytes) noexcept;

struct Stats {
    std::size_t reservedBytes; // taken from the system for pages, in all
    std::size_t pooledPages;   // empty pages in the process-wide pool
};
Stats stats();

// Gives the memory of the pooled pages back to the system (their first 4 KiB, which hold the
// page's bookkeeping, stay); the pages are reused as they are, faulted in again on first use.
// Returns the bytes released.
std::size_t trim();

} // namespace Kal::ObjectHeap
