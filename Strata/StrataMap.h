// Strata::StrataMap: the table kind that keeps a table in a shared-memory file. It knows
// slots, keys (as bytes) and the index; the typed tables (Strata/ForwardingStatus.h,
// Strata/RouteStatus.h) encode their records into slot images and decode them again.
// Strata/StrataLayout.h describes the file and the writer/reader protocol.
//
// Threads and processes. Any number of processes may attach a table for reading; one may
// attach it for writing. Within a process, the lookups and iteration of one StrataMap (find,
// nextLive, the counts) may run on several threads at once, also beside the writer's thread;
// writes (put, remove), attach and detach belong to one thread, and detach must not race
// with anything.
#pragma once

#include "Strata/StrataBase.h"
#include "Strata/StrataLayout.h"

#include "Kal/Assert.h"
#include "Kal/Types.h"
#include "Velnet/Hash.h"

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

namespace Strata {

inline constexpr char const* defaultDirectory = "/dev/shm";

// What a typed table tells the engine about its records.
struct TableShape {
    layout::TableKind kind;
    char const* suffix;  // of the file name: "fib4-fec"
    U32 keySize;         // bytes of the key at slot offset 8, a multiple of 4
    U32 viaSize;         // sizeof(Via) of a FEC table, 0 otherwise
    U32 recordSize;      // sizeof the record type
    U32 classCount;      // 1 .. layout::maxClasses
    U32 slotSize[layout::maxClasses]; // bytes, multiples of 8
    U32 directWriteSize; // bytes of the direct-write slot; 0: none
    // Checks a stable copy of a live slot (slotWords words): null when it decodes, otherwise
    // a text saying what is wrong.
    char const* (*checkSlot)(U32 const* words, U32 slotWords);
};

struct Capacity {
    U32 maxRecords = 0;                      // records at once, all classes together
    U32 classCapacity[layout::maxClasses] = {}; // records per size class
};

struct TableOptions {
    std::string directory = defaultDirectory;
    std::string prefix;
    Access access = Access::reader_;
    Capacity capacity;        // used only when a writer creates the file
    U32 readTimeoutMs = 1000; // how long a read keeps retrying before timeout_
};

// A stable copy of one slot, as find() and nextLive() deliver it.
struct SlotCopy {
    static constexpr U32 maxWords = 1024;
    U32 ref = 0;
    U32 cls = 0;
    U32 words = 0; // valid words in word[]
    alignas(8) U32 word[maxWords];
};

class StrataMap final : public StrataBase {
  public:
    // Raises invalidInitialize_ for an unusable prefix or directory.
    StrataMap(Kal::Name name, TableShape const& shape, TableOptions options);
    ~StrataMap() override;

    // Attaches the file: creates it first when a writer finds none. Raises connection_,
    // duplicateWriter_, memoryResource_, invalidInitialize_ (capacity) or corruption.
    void initialize() override;
    void detach() override;
    bool attached() const noexcept override { return attached_; }
    bool readOnly() const noexcept override { return !writer_; }

    U32 cleanup() override;
    void validateFiles() override;
    void validate() override;
    WriterCounters writerCounters() const override;
    ReaderCounters readerCounters() const override;

    std::string const& path() const noexcept { return path_; }
    TableShape const& shape() const noexcept { return shape_; }

    // ---- reading (any thread) -----------------------------------------------------------
    // The record with this key (keySize bytes): true and its stable copy in `out`.
    bool find(void const* key, SlotCopy& out) const;
    // The first live slot at or after (cls, slot) in class order: true with (cls, slot)
    // moved to it and its copy in `out`; false at the end.
    bool nextLive(U32& cls, U32& slot, SlotCopy& out) const;

    U32 records() const noexcept;
    U32 maxRecords() const noexcept { return maxRecords_; }
    U32 classCount() const noexcept { return shape_.classCount; }
    U32 classCapacity(U32 cls) const noexcept;
    U32 classUsed(U32 cls) const noexcept;
    U32 changeSeq() const noexcept;
    U32 writerGeneration() const noexcept;
    U64 creationId() const noexcept;
    U64 fileSize() const noexcept { return size_; }
    U32 indexEntries() const noexcept { return indexEntries_; }

    // ---- writing (the writer's thread) ----------------------------------------------------
    // Stores the slot image `words` (the class's slotSize / 4 words; word 0 is ignored, the
    // key sits at byte 8, the state byte of word 1 is live_) as the record of its key,
    // replacing any record with that key. tableFull_ (nothing changed) when the table or the
    // class is full.
    void put(U32 cls, U32 const* words);
    // The same for an encoder that writes the slot in place rather than through an image:
    // takes a free slot of the class, makes its generation odd, has encode(context, words)
    // store words 1 .. slotSize/4 - 1 with storeWord (word 1's state byte live_, the key at
    // byte 8), and publishes the slot. tableFull_ leaves everything as it was and does not
    // call encode. hash is keyHash of the key's words.
    using Encoder = void (*)(void const* context, U32* words) noexcept;
    void putEncoded(U32 cls, void const* key, U32 hash, Encoder encode, void const* context);
    static void storeWord(U32& w, U32 v) noexcept {
        std::atomic_ref<U32>(w).store(v, std::memory_order_release);
    }
    // Hints for a writer that knows some time ahead what it will write; they change nothing.
    // Starts fetching the index entry where the search for a key with this hash begins.
    void prefetchKey(U32 hash) const noexcept {
        if (index_) __builtin_prefetch(index_ + home(hash), 1);
    }
    // Starts fetching, for writing, the slot that the next write into class cls takes (the
    // top of the free list, else the next unused one): slots are written copy-on-write, so a
    // new copy's lines are not the ones most recently written.
    void prefetchSlot(U32 cls) const noexcept {
        if (cls >= shape_.classCount) return;
        ClassGeometry const& g = classes_[cls];
        U32 const next = freeSlots_[cls].empty() ? highWater_[cls] : freeSlots_[cls].back();
        if (next >= g.slotCount) return;
        U8 const* p = g.base + std::size_t(next) * g.slotSize;
        for (U32 off = 0; off < g.slotSize; off += 64) __builtin_prefetch(p + off, 1);
    }
    // Removes the record with this key; false when there was none.
    bool remove(void const* key);
    // The direct-write slot (directWriteSize bytes of the writer's mapping).
    void* directWriteSlot() noexcept {
        KAL_ASSERT(writer_ && attached_);
        return directWrite_;
    }

    // Raises NoPermissionException "<op> to read-only Strata table" on a reader.
    void checkWritable(char const* op) const {
        if (!writer_) throwReadOnly(op);
    }
    // Writes the corruption report and raises CorruptionDetectedException.
    [[noreturn]] void corruptionDetected(std::string const& what) const;

    // The hash of a key (keySize bytes) that the index is keyed by.
    static U32 keyHash(U32 const* keyWords, U32 nWords) noexcept {
        U32 h = 0x9E3779B9u ^ nWords;
        for (U32 i = 0; i < nWords; ++i) h = Velnet::fmix32(h ^ keyWords[i]);
        return h;
    }
    // The file name of a table: <directory>/<prefix>-<suffix>.
    static std::string tablePath(std::string const& directory, std::string const& prefix,
                                 char const* suffix);

  private:
    enum class ReadResult { torn, stable };
    struct ClassGeometry {
        U8* base = nullptr;
        U32 slotSize = 0;
        U32 slotCount = 0;
        U32 capacity = 0;
    };
    struct Geometry;

    void attachExisting(int fd);
    bool createFile(); // false: someone else created it first
    void mapAndValidate(int fd, U64 size);
    void validateHeader(layout::FileHeader const& h, U64 actualSize, char const* where) const;
    void adoptGeometry();
    void recover(bool repair);
    void rebuildIndex(std::vector<U32> const& refs);
    void unmap() noexcept;

    U32* slotWords(U32 ref) const noexcept {
        ClassGeometry const& g = classes_[layout::refClass(ref)];
        return reinterpret_cast<U32*>(g.base + std::size_t(layout::refSlot(ref)) * g.slotSize);
    }
    void checkRef(U32 ref, char const* where) const;
    ReadResult readSlot(U32 ref, SlotCopy& out) const noexcept;
    bool keyInSlotEquals(U32 ref, void const* key) const noexcept;
    // The entry where the probe run of a hash begins.
    U32 home(U32 hash) const noexcept { return U32((U64(hash) * indexEntries_) >> 32); }
    // Writer: the index position of the key's entry, or of the empty entry ending its run.
    bool findEntry(void const* key, U32 hash, U32& pos) const;
    U32 allocateSlot(U32 cls);
    void retireSlot(U32 ref) noexcept;
    void shiftBack(U32 hole) noexcept;
    // Makes changeSeq odd: a change is under way (before its first store to the file).
    void beginChange() noexcept;
    // Stores the counts (all classes, or the one or two a change touched) and advances
    // changeSeq to the next even value: the change is finished.
    void publishCounts(U32 clsA = layout::maxClasses, U32 clsB = layout::maxClasses) noexcept;
    [[noreturn]] void throwReadOnly(char const* op) const;
    void backoff(U32 attempt) const noexcept;
    // True unless no process holds the table's writer lock.
    bool writerAlive() const noexcept;
    bool readTimedOut(U32 attempt, U64 startNs) const noexcept;
    [[noreturn]] void throwTimeout(char const* op) const;
    [[noreturn]] void throwTableFull(std::string const& what);
    // tableFull_ for a write of a new key (newKey) or into a full class.
    [[noreturn]] void refuseWrite(U32 cls, bool newKey);
    layout::FileHeader const& header() const noexcept {
        return *reinterpret_cast<layout::FileHeader const*>(base_);
    }
    layout::FileHeader& writableHeader() noexcept {
        return *reinterpret_cast<layout::FileHeader*>(base_);
    }

    TableShape shape_;
    TableOptions options_;
    std::string path_;
    bool writer_;
    bool attached_ = false;
    int fd_ = -1;
    U8* base_ = nullptr;
    U64 size_ = 0;

    // Geometry copied from the validated header: a later change of the file cannot move
    // what this process reads.
    layout::IndexEntry* index_ = nullptr;
    U32 indexEntries_ = 0;
    U32 maxRecords_ = 0;
    U8* directWrite_ = nullptr;
    ClassGeometry classes_[layout::maxClasses];

    // Writer only: what recovery rebuilt and every write keeps.
    std::vector<U32> freeSlots_[layout::maxClasses];
    U32 used_[layout::maxClasses] = {};
    U32 highWater_[layout::maxClasses] = {};
    U32 count_ = 0;
    U32 indexSeq_ = 0;
    U32 changeSeq_ = 0;

    struct AtomicCounters {
        std::atomic<U64> commits{0}, deletes{0}, tableFull{0}, recoveredSlots{0},
            indexRebuilds{0}, lookups{0}, retries{0}, timeouts{0};
    };
    mutable AtomicCounters counters_;
};

} // namespace Strata
