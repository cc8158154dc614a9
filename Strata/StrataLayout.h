// The file layout of a Strata table, and the protocol by which one writer process changes it
// while reader processes read it.
//
// Files
// -----
// One file per table under /dev/shm (POSIX shared memory), named "<prefix>-fib4-fec",
// "<prefix>-fib4-route", "<prefix>-fib6-fec" or "<prefix>-fib6-route"; the host program chooses
// the prefix. A file is created under a temporary name ("<name>.tmp.<pid>.<n>"), reserved in
// full with posix_fallocate (so a full tmpfs is an error at creation, never a SIGBUS later),
// initialised, and only then renamed into place without replacing anything (renameat2
// RENAME_NOREPLACE): a reader never sees a half-made file, and two creators racing end with
// one file. Capacity is fixed at creation. Every attach checks the file's size against the
// header before mapping it, and a writer reserves the whole file again (a sparse copy of a
// table gets its pages then, not on a later write). A file that another process shrinks
// while it is mapped is beyond what a mapping can defend against (the next access to the
// lost pages faults); only processes allowed to write the table file can do that.
//
// Every field is fixed width and little-endian as the creator stored it; 64-bit fields are
// alignas(8) (the i386 ABI would otherwise align them to 4), and static_asserts pin every
// offset below, so the 64-bit and the i386 build read and write the same bytes. There are no
// pointers in the file: records are reached through 32-bit slot references, regions through
// offsets from the start of the file. Every atomic access to the file is a 32-bit one (a
// 64-bit atomic load may be a locked cmpxchg8b on i386, which faults on a read-only mapping).
//
//   offset 0            FileHeader (672 bytes; the next region starts at 704)
//                         immutable part: magic, layout version, ABI signature (byte order
//                         marker, key/record/via sizes, adjTypePos), table kind, capacities,
//                         region offsets, creation id, then a checksum over all of it;
//                         mutable part: the writer's words, read by readers with atomic loads
//                         (change sequence, index sequence, counts, high-water marks)
//   indexOffset         IndexEntry[indexEntries]: open-addressing hash of slot references
//   directWriteOffset   the direct-write slot (FEC tables: one Fec the writer fills in place)
//   classes[c].offset   size class c: slotCount slots of slotSize bytes
//
// Slots and size classes
// ----------------------
// A record lives in one slot. FEC tables have 8 size classes (FECs of up to 1, 2, 4 ... 128 vias);
// route tables have one. A slot starts with an 8-byte head, then the key, then the rest of the
// record (Strata/ForwardingStatus.cpp and RouteStatus.cpp give each record's encoding):
//   word 0   gen    generation counter: even while the slot is stable, odd while the writer
//                   writes it; +1 at the start and +1 at the end of every write
//   word 1   meta   byte 0 state (0 free, 1 live); bytes 1-3 belong to the record encoding
//   word 2.. key    keySize bytes (FecId 8, Prefix 8, Ip6Prefix 20), then the record's fields
// A slot reference is (slot index + 1) << 4 | size class; 0 is "no slot". A class holds one
// slot more than its capacity, so that replacing a record in a full class still finds a slot
// for the new copy.
//
// Index
// -----
// IndexEntry { ref, tag }: ref is a slot reference (0: empty entry), tag the 32-bit hash of
// the key (keyHash below). Linear probing from home(tag) = (tag * indexEntries) >> 32, at most
// 80% full. Deletion shifts later entries of the probe run back (no tombstones), so the index
// never degrades under churn.
//
// Invariants (StrataMap::validate checks them; a new writer's recovery restores them):
//   - every non-empty entry references a live slot whose key hashes to its tag; no two
//     entries reference the same slot or hold the same key; every entry is reachable from its
//     home without crossing an empty entry;
//   - a slot is live exactly when an entry references it (outside a write in progress);
//   - recordCount = non-empty entries; classUsed[c] = live slots of class c <= capacity;
//     classHighWater[c] bounds the slots ever used, and slots above it are all zero.
//
// Publication (one writer)
// ------------------------
// Copy-on-write per record. To store a record the writer takes a free slot, writes it under
// its generation counter (gen+1 with a relaxed store, the words with release stores, gen+1
// with a release store; no standalone fences), and then publishes it with ONE release store of
// the slot reference into the index entry (the key's existing entry, or a free one whose tag
// was stored first). Only then is the old slot retired: a write under its generation counter
// that sets its state to free, after which it goes back on the writer's free list.
// A delete first removes the key's entry from the index (below), then retires the slot.
// changeSeq is odd while a change is under way: the writer makes it odd before the change's
// first store and even again (release) after its last, so it moves by 2 per change. A reader
// that read the same even value before and after a walk saw no change at all.
//
// Deleting from the index moves entries: the writer makes indexSeq odd, shifts the entries of
// the probe run back over the hole (each move a release store of the tag, then of the
// reference, which keeps the odd indexSeq ahead of it), empties the last one, and makes
// indexSeq even again (release).
//
// Readers
// -------
// Readers map the file read-only and never write. A lookup reads indexSeq (acquire), probes
// from home(hash): for an entry whose tag matches it reads the slot optimistically: gen
// (acquire), the words (acquire loads, which keep the next load after them), gen again; the
// copy counts only if both reads of gen are equal and even (a word of a write that began
// after the first look at gen was stored after that write's odd gen, so gen differs on the
// second look). Then it compares the key in the copy.
//   - Found: the record is one that was committed, and current at the moment the entry was
//     loaded. A stale read (the writer replaced the record right after that load) is harmless:
//     the value read was the table's value at a moment inside the lookup, the same answer the
//     lookup would have given a moment earlier; the copy itself is never torn, because a
//     write in progress makes gen odd or changes it.
//   - The slot was free, or held another key, and the entry no longer holds the reference
//     read: the slot was retired or reused under the reader; the lookup starts over.
//   - An empty entry ends the probe run: absent, if indexSeq is unchanged and even (no entry
//     moved during the probe); otherwise the lookup starts over. (Probing itself goes on
//     while indexSeq is odd: a hit is checked against the key either way.) An odd indexSeq
//     that stays put while no process holds the writer lock was left by a writer that died
//     inside a delete; a half-done shift leaves every other entry reachable, so a miss then
//     stands too.
//   - Iteration passes over a slot that stays odd: a slot being written is never a record's
//     committed copy.
// Every reference, size and count read from the file is checked against the mapping before
// use; a failed check on a stable copy is corruption. A lookup retries, yielding the
// processor, for at most the reader's timeout (1 s unless the table is attached with another),
// then raises timeout_ (only a slot or index the writer keeps changing, or a corrupt file,
// gets there).
// The counts in the header (recordCount, classUsed) are written after the change they count:
// a reader may see them one change behind, and after a writer died inside a change they stay
// so until the next writer's recovery recounts.
// Iteration walks the slots of each class up to its high-water mark and yields the stable,
// live ones; a record replaced during the walk may be seen twice (old and new copy) or, if
// it moved behind the walk, not at all; a walk is whole when changeSeq was even before it and
// unchanged after it.
//
// One writer
// ----------
// A writer holds an open-file-description lock (F_OFD_SETLK, write lock on byte 0) for as long
// as it is attached; a second writer is refused with duplicateWriter_. The kernel drops the
// lock when the writer's file description closes, also when the process dies.
//
// Recovery (every writer attach)
// ------------------------------
// The header is validated (magic, version, ABI, kind, checksum, file size, region bounds).
// Then the index is scanned: each reference must name a live, stable slot inside its class
// whose key matches the tag. If indexSeq is odd (the last writer died while moving entries),
// a duplicate entry, an entry out of reach of its home, and an entry whose tag is not its
// key's (a move that stored the tag and not yet the reference: its reference is the deleted
// record's, or one kept elsewhere) are expected; such entries are dropped and the index is
// rebuilt from the set of referenced slots, under an odd indexSeq, so readers retry
// meanwhile. With an even indexSeq any of them is corruption.
// Then every slot below the high-water marks is classified: referenced slots are live; any
// other slot (half-written, odd gen; or replaced but not yet retired) is freed with an even
// generation. Counts, high-water marks and the free lists are rebuilt from that scan, and
// writerGeneration and changeSeq are advanced. Nothing committed is lost: a record is
// committed exactly when its reference is in the index, and a referenced slot is never
// written.
//
// Corruption
// ----------
// Anything impossible (bad magic, version, ABI, checksum, a size or reference outside the
// file, a count that does not add up, a record that does not decode) raises
// CorruptionDetectedException whose message starts with "StrataMap::corruptionDetected() ",
// after a report (the message, the process, the time and the header bytes) has been written
// to "<table file>.corruption-report" beside the table. Nothing is dereferenced before it is
// checked, so a corrupt file never crashes the process.
#pragma once

#include "Kal/Types.h"

#include <atomic>
#include <cstddef>
#include <type_traits>

namespace Strata::layout {

inline constexpr U64 magic = 0x31304154'41525453ull; // "STRATA01" as little-endian bytes
inline constexpr U32 version = 1;
inline constexpr U32 byteOrderMarker = 0x01020304u;
inline constexpr U32 maxClasses = 16;
inline constexpr U32 slotHeadSize = 8; // gen + meta
inline constexpr U32 keyOffset = 8;
inline constexpr U32 regionAlign = 64;
// Slot references: (index + 1) << refClassBits | class.
inline constexpr U32 refClassBits = 4;
inline constexpr U32 maxSlotsPerClass = (U32(1) << (32 - refClassBits)) - 2;

enum class TableKind : U32 {
    fib4Fec = 1,
    fib6Fec = 2,
    fib4Route = 3,
    fib6Route = 4,
};

enum SlotState : U8 {
    free_ = 0,
    live_ = 1,
};

struct ClassDesc {
    alignas(8) U64 offset; // of the class's first slot
    U32 slotSize;          // bytes, a multiple of 8
    U32 slotCount;         // capacity + 1
    U32 capacity;          // records of this class the table holds
    U32 reserved;          // 0
};
static_assert(sizeof(ClassDesc) == 24 && alignof(ClassDesc) == 8);

struct FileHeader {
    // ---- immutable after creation; covered by the checksum ----
    alignas(8) U64 magic;          //   0
    U32 version;                   //   8
    U32 tableKind;                 //  12 TableKind
    U32 byteOrder;                 //  16 byteOrderMarker as the creator stored it
    U32 headerSize;                //  20 sizeof(FileHeader)
    U32 keySize;                   //  24
    U32 viaSize;                   //  28 sizeof(Via) of a FEC table, 0 for routes
    U32 recordSize;                //  32 sizeof(Fec) / sizeof(Route)
    U32 adjTypePos;                //  36 Strata::Fib::adjTypePos() of the creator
    U32 classCount;                //  40
    U32 maxRecords;                //  44
    U32 indexEntries;              //  48
    U32 directWriteSize;           //  52 0 when the table has no direct-write slot
    alignas(8) U64 fileSize;       //  56
    alignas(8) U64 indexOffset;    //  64
    alignas(8) U64 directWriteOffset; // 72
    alignas(8) U64 creationId;     //  80 random, new for every file made
    ClassDesc classes[maxClasses]; //  88 .. 472
    alignas(8) U64 checksum;       // 472 FNV-1a 64 of bytes [0, 472)
    U8 reserved0[32];              // 480 zero

    // ---- mutable: written by the writer (atomic stores), read by readers (atomic loads) ----
    U32 changeSeq;                     // 512 odd during a change, +2 per change (wraps)
    U32 indexSeq;                      // 516 odd while index entries move
    U32 recordCount;                   // 520
    U32 writerPid;                     // 524 the last writer to attach
    U32 writerGeneration;              // 528 +1 per writer attach
    U32 reserved1[3];                  // 532 zero
    U32 classUsed[maxClasses];         // 544 live slots per class
    U32 classHighWater[maxClasses];    // 608 slots [0, hw) have been used
};                                     // 672

inline constexpr std::size_t checksummedBytes = 472;

// The header's checksum: FNV-1a 64 of its first checksummedBytes bytes.
inline U64 headerChecksum(void const* header) noexcept {
    U64 h = 0xcbf29ce484222325ull;
    auto const* p = static_cast<unsigned char const*>(header);
    for (std::size_t i = 0; i < checksummedBytes; ++i) {
        h ^= p[i];
        h *= 0x100000001b3ull;
    }
    return h;
}

static_assert(offsetof(FileHeader, version) == 8);
static_assert(offsetof(FileHeader, fileSize) == 56);
static_assert(offsetof(FileHeader, creationId) == 80);
static_assert(offsetof(FileHeader, classes) == 88);
static_assert(offsetof(FileHeader, checksum) == checksummedBytes);
static_assert(offsetof(FileHeader, changeSeq) == 512);
static_assert(offsetof(FileHeader, classUsed) == 544);
static_assert(offsetof(FileHeader, classHighWater) == 608);
static_assert(sizeof(FileHeader) == 672 && alignof(FileHeader) == 8);
static_assert(std::is_trivially_copyable_v<FileHeader> && std::is_standard_layout_v<FileHeader>);

struct IndexEntry {
    U32 ref; // slot reference; 0: empty
    U32 tag; // keyHash of the key
};
static_assert(sizeof(IndexEntry) == 8);

static_assert(std::atomic_ref<U32>::is_always_lock_free,
              "shared-memory words must be lock-free (address-free) atomics");

constexpr U64 alignUp(U64 v, U64 a) noexcept { return (v + a - 1) / a * a; }

constexpr U32 refOf(U32 cls, U32 slot) noexcept { return (slot + 1) << refClassBits | cls; }
constexpr U32 refClass(U32 ref) noexcept { return ref & ((1u << refClassBits) - 1); }
constexpr U32 refSlot(U32 ref) noexcept { return (ref >> refClassBits) - 1; }

} // namespace Strata::layout
