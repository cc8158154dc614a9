#include "Strata/StrataMap.h"

#include "Kal/Assert.h"
#include "Strata/Exception.h"
#include "Strata/FecId.h"
#include "Velnet/Hash.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Strata {

using namespace layout;

namespace {

// ---- atomic access to the mapping -------------------------------------------------------------
// Every shared word is a U32 reached through std::atomic_ref. A load of a read-only mapping is
// a plain load on every target we build for (32-bit atomics never use a locked instruction to
// read). The seqlock is written without standalone fences: the words of a slot are stored
// with release and loaded with acquire, which orders them against the generation counter
// just as the fences would (on x86 both are plain moves) and which the thread sanitizer
// understands.

inline U32 load(U32 const& w, std::memory_order order = std::memory_order_relaxed) noexcept {
    return std::atomic_ref<U32>(const_cast<U32&>(w)).load(order);
}
inline void store(U32& w, U32 v, std::memory_order order = std::memory_order_relaxed) noexcept {
    std::atomic_ref<U32>(w).store(v, order);
}

// Statistics: a relaxed load and store rather than a locked add, which would cost more than
// the lookup it counts. Increments of threads racing on one table may be lost.
inline void bump(std::atomic<U64>& counter, U64 by) noexcept {
    counter.store(counter.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

U64 nowNs() noexcept {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return U64(ts.tv_sec) * 1000000000ull + U64(ts.tv_nsec);
}

std::string errnoText(int e) { return std::strerror(e); }

std::string hex(U64 v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
    return buf;
}

std::string num(U64 v) { return std::to_string(v); }

bool validPrefix(std::string const& p) {
    if (p.empty() || p.size() > 128 || p[0] == '.' || p[0] == '-') return false;
    for (char c : p) {
        bool const ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        if (!ok) return false;
    }
    return true;
}

U8 stateOf(U32 meta) noexcept { return U8(meta & 0xFF); }

// The layout a new file gets for a capacity.
struct Plan {
    U64 fileSize = 0;
    U64 indexOffset = 0;
    U64 directWriteOffset = 0;
    U32 indexEntries = 0;
    U64 classOffset[maxClasses] = {};
    U32 slotCount[maxClasses] = {};
};

constexpr U32 maxRecordsLimit = U32(1) << 28;

Plan planFor(TableShape const& shape, Capacity const& cap, std::string const& path) {
    auto refuse = [&](std::string const& why) {
        throw Exception(ExceptionId::invalidInitialize_,
                        "invalid capacity for Strata table " + path + ": " + why);
    };
    if (cap.maxRecords == 0 || cap.maxRecords > maxRecordsLimit) {
        refuse("maxRecords " + num(cap.maxRecords) + " outside 1-" + num(maxRecordsLimit));
    }
    Plan p;
    p.indexEntries = cap.maxRecords + cap.maxRecords / 4 + 8; // at most 80% full
    U64 off = alignUp(sizeof(FileHeader), regionAlign);
    p.indexOffset = off;
    off = alignUp(off + U64(p.indexEntries) * sizeof(IndexEntry), regionAlign);
    if (shape.directWriteSize) {
        p.directWriteOffset = off;
        off = alignUp(off + shape.directWriteSize, regionAlign);
    }
    for (U32 c = 0; c < shape.classCount; ++c) {
        if (cap.classCapacity[c] > maxSlotsPerClass - 1) {
            refuse("size class " + num(c) + " capacity " + num(cap.classCapacity[c]) +
                   " above " + num(maxSlotsPerClass - 1));
        }
        p.slotCount[c] = cap.classCapacity[c] ? cap.classCapacity[c] + 1 : 0;
        p.classOffset[c] = off;
        off = alignUp(off + U64(p.slotCount[c]) * shape.slotSize[c], regionAlign);
    }
    for (U32 c = shape.classCount; c < maxClasses; ++c) {
        if (cap.classCapacity[c]) refuse("the table has no size class " + num(c));
    }
    p.fileSize = off;
    return p;
}

[[noreturn]] void throwMemory(std::string const& what) {
    throw Exception(ExceptionId::memoryResource_, what);
}

} // namespace

// ---- construction, attach, detach -------------------------------------------------------------

StrataMap::StrataMap(Kal::Name name, TableShape const& shape, TableOptions options)
    : StrataBase(std::move(name)), shape_(shape), options_(std::move(options)),
      writer_(options_.access == Access::writer_) {
    KAL_ASSERT(shape_.classCount >= 1 && shape_.classCount <= maxClasses);
    KAL_ASSERT(shape_.keySize % 4 == 0 && shape_.keySize <= 32);
    for (U32 c = 0; c < shape_.classCount; ++c) {
        KAL_ASSERT(shape_.slotSize[c] % 8 == 0 && shape_.slotSize[c] <= SlotCopy::maxWords * 4);
    }
    if (!validPrefix(options_.prefix)) {
        throw Exception(ExceptionId::invalidInitialize_,
                        "invalid Strata table prefix '" + options_.prefix +
                            "': 1-128 of [A-Za-z0-9._-], not starting with '.' or '-'");
    }
    if (options_.directory.empty()) {
        throw Exception(ExceptionId::invalidInitialize_, "empty Strata table directory");
    }
    path_ = tablePath(options_.directory, options_.prefix, shape_.suffix);
}

StrataMap::~StrataMap() { unmap(); }

std::string StrataMap::tablePath(std::string const& directory, std::string const& prefix,
                                 char const* suffix) {
    std::string p = directory;
    if (p.back() != '/') p += '/';
    return p + prefix + "-" + suffix;
}

void StrataMap::initialize() {
    if (attached_) {
        throw Exception(ExceptionId::invalidInitialize_, "Strata table " + path_ + " is attached");
    }
    for (int attempt = 0; attempt < 8; ++attempt) {
        int const fd = ::open(path_.c_str(), (writer_ ? O_RDWR : O_RDONLY) | O_CLOEXEC);
        if (fd >= 0) {
            attachExisting(fd);
            return;
        }
        int const e = errno;
        if (e != ENOENT) {
            throw Exception(ExceptionId::connection_,
                            "cannot open Strata table " + path_ + ": " + errnoText(e));
        }
        if (!writer_) {
            throw Exception(ExceptionId::connection_, "no Strata table " + path_);
        }
        if (createFile()) return;
    }
    throw Exception(ExceptionId::connection_,
                    "Strata table " + path_ + " keeps appearing and disappearing");
}

void StrataMap::attachExisting(int fd) {
    fd_ = fd;
    try {
        if (writer_) {
            struct flock lock {};
            lock.l_type = F_WRLCK;
            lock.l_whence = SEEK_SET;
            lock.l_start = 0;
            lock.l_len = 1;
            if (::fcntl(fd_, F_OFD_SETLK, &lock) != 0) {
                int const e = errno;
                if (e == EAGAIN || e == EACCES) {
                    throw Exception(ExceptionId::duplicateWriter_,
                                    "Strata table " + path_ + " already has a writer");
                }
                throw Exception(ExceptionId::connection_,
                                "cannot lock Strata table " + path_ + ": " + errnoText(e));
            }
        }
        struct stat st {};
        if (::fstat(fd_, &st) != 0) {
            throw Exception(ExceptionId::connection_,
                            "cannot stat Strata table " + path_ + ": " + errnoText(errno));
        }
        U64 const size = U64(st.st_size);
        if (size < sizeof(FileHeader)) {
            corruptionDetected("file is " + num(size) + " bytes, shorter than its " +
                               num(sizeof(FileHeader)) + "-byte header");
        }
        if (writer_) {
            // Reserve every page now, so that no later write can fault on a full tmpfs.
            int const e = ::posix_fallocate(fd_, 0, off_t(size));
            if (e != 0) {
                throwMemory("cannot reserve " + num(size) + " bytes for Strata table " + path_ +
                            ": " + errnoText(e));
            }
        }
        mapAndValidate(fd_, size);
        if (writer_) recover(true);
        attached_ = true;
    } catch (...) {
        unmap();
        throw;
    }
}

void StrataMap::mapAndValidate(int fd, U64 size) {
    if (size > U64(SIZE_MAX)) {
        throwMemory("Strata table " + path_ + " (" + num(size) + " bytes) is too large to map");
    }
    int const prot = writer_ ? PROT_READ | PROT_WRITE : PROT_READ;
    void* p = ::mmap(nullptr, std::size_t(size), prot, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) {
        throwMemory("cannot map Strata table " + path_ + " (" + num(size) +
                    " bytes): " + errnoText(errno));
    }
    base_ = static_cast<U8*>(p);
    size_ = size;
    FileHeader copy;
    std::memcpy(&copy, base_, sizeof copy);
    validateHeader(copy, size, "header");
    adoptGeometry();
}

bool StrataMap::createFile() {
    Plan const plan = planFor(shape_, options_.capacity, path_);
    if (plan.fileSize > U64(SIZE_MAX) / 2) {
        throwMemory("Strata table " + path_ + " would need " + num(plan.fileSize) +
                    " bytes, more than this process can map");
    }
    static std::atomic<U32> counter{0};
    std::string const tmp = path_ + ".tmp." + num(U64(::getpid())) + "." + num(++counter);
    int const fd = ::open(tmp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        throw Exception(ExceptionId::connection_,
                        "cannot create Strata table " + tmp + ": " + errnoText(errno));
    }
    fd_ = fd;
    bool renamed = false;
    try {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = 0;
        lock.l_len = 1;
        if (::fcntl(fd_, F_OFD_SETLK, &lock) != 0) {
            throw Exception(ExceptionId::connection_,
                            "cannot lock new Strata table " + tmp + ": " + errnoText(errno));
        }
        int const e = ::posix_fallocate(fd_, 0, off_t(plan.fileSize));
        if (e != 0) {
            throwMemory("cannot reserve " + num(plan.fileSize) + " bytes for Strata table " +
                        path_ + ": " + errnoText(e));
        }
        void* p = ::mmap(nullptr, std::size_t(plan.fileSize), PROT_READ | PROT_WRITE, MAP_SHARED,
                         fd_, 0);
        if (p == MAP_FAILED) {
            throwMemory("cannot map new Strata table " + path_ + ": " + errnoText(errno));
        }
        base_ = static_cast<U8*>(p);
        size_ = plan.fileSize;

        // The file is private until the rename: plain stores are fine here.
        FileHeader& h = writableHeader();
        h.magic = layout::magic;
        h.version = layout::version;
        h.tableKind = U32(shape_.kind);
        h.byteOrder = byteOrderMarker;
        h.headerSize = sizeof(FileHeader);
        h.keySize = shape_.keySize;
        h.viaSize = shape_.viaSize;
        h.recordSize = shape_.recordSize;
        h.adjTypePos = Fib::adjTypePos();
        h.classCount = shape_.classCount;
        h.maxRecords = options_.capacity.maxRecords;
        h.indexEntries = plan.indexEntries;
        h.directWriteSize = shape_.directWriteSize;
        h.fileSize = plan.fileSize;
        h.indexOffset = plan.indexOffset;
        h.directWriteOffset = plan.directWriteOffset;
        U64 id = 0;
        if (::getrandom(&id, sizeof id, 0) != ssize_t(sizeof id)) id = nowNs() ^ U64(::getpid());
        h.creationId = id;
        for (U32 c = 0; c < shape_.classCount; ++c) {
            h.classes[c].offset = plan.classOffset[c];
            h.classes[c].slotSize = shape_.slotSize[c];
            h.classes[c].slotCount = plan.slotCount[c];
            h.classes[c].capacity = options_.capacity.classCapacity[c];
        }
        h.checksum = headerChecksum(&h);
        h.writerPid = U32(::getpid());
        h.writerGeneration = 1;
        adoptGeometry();

        if (::renameat2(AT_FDCWD, tmp.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE) != 0) {
            int const re = errno;
            if (re == EEXIST) {
                unmap();
                ::unlink(tmp.c_str());
                return false;
            }
            if (re != EINVAL && re != ENOSYS) {
                throw Exception(ExceptionId::connection_,
                                "cannot publish Strata table " + path_ + ": " + errnoText(re));
            }
            // A file system without renameat2 flags: link() refuses an existing name too.
            if (::link(tmp.c_str(), path_.c_str()) != 0) {
                int const le = errno;
                if (le == EEXIST) {
                    unmap();
                    ::unlink(tmp.c_str());
                    return false;
                }
                throw Exception(ExceptionId::connection_,
                                "cannot publish Strata table " + path_ + ": " + errnoText(le));
            }
            ::unlink(tmp.c_str());
        }
        renamed = true;
    } catch (...) {
        unmap();
        if (!renamed) ::unlink(tmp.c_str());
        throw;
    }
    // A new table is empty: the writer's state is the empty state.
    for (U32 c = 0; c < maxClasses; ++c) {
        freeSlots_[c].clear();
        used_[c] = 0;
        highWater_[c] = 0;
    }
    count_ = 0;
    indexSeq_ = 0;
    changeSeq_ = 0;
    attached_ = true;
    return true;
}

void StrataMap::validateHeader(FileHeader const& h, U64 actualSize, char const* where) const {
    auto bad = [&](std::string const& why) { corruptionDetected(std::string(where) + ": " + why); };
    if (h.magic != layout::magic) bad("bad magic " + hex(h.magic));
    if (h.byteOrder != byteOrderMarker) {
        bad("byte order marker " + hex(h.byteOrder) + ", expected " + hex(byteOrderMarker));
    }
    if (h.version != layout::version) {
        bad("layout version " + num(h.version) + ", this build reads " + num(layout::version));
    }
    if (h.checksum != headerChecksum(&h)) {
        bad("checksum " + hex(h.checksum) + " does not match the header (" +
            hex(headerChecksum(&h)) + ")");
    }
    auto abi = [&](char const* field, U64 found, U64 expected) {
        if (found != expected) {
            bad("ABI signature differs: " + std::string(field) + " " + num(found) +
                ", this build " + num(expected));
        }
    };
    abi("table kind", h.tableKind, U32(shape_.kind));
    abi("header size", h.headerSize, sizeof(FileHeader));
    abi("key size", h.keySize, shape_.keySize);
    abi("via size", h.viaSize, shape_.viaSize);
    abi("record size", h.recordSize, shape_.recordSize);
    abi("adjTypePos", h.adjTypePos, Fib::adjTypePos());
    abi("size classes", h.classCount, shape_.classCount);
    abi("direct-write slot size", h.directWriteSize, shape_.directWriteSize);
    if (h.fileSize != actualSize) {
        bad("file is " + num(actualSize) + " bytes, the header says " + num(h.fileSize));
    }
    if (h.maxRecords == 0 || h.maxRecords > maxRecordsLimit) {
        bad("maxRecords " + num(h.maxRecords) + " outside 1-" + num(maxRecordsLimit));
    }
    if (h.indexEntries <= h.maxRecords || h.indexEntries > 2 * maxRecordsLimit) {
        bad("index of " + num(h.indexEntries) + " entries for " + num(h.maxRecords) + " records");
    }
    U64 end = alignUp(sizeof(FileHeader), regionAlign);
    auto region = [&](char const* what, U64 offset, U64 bytes) {
        if (offset % 8 != 0 || offset < end || offset > h.fileSize ||
            bytes > h.fileSize - offset) {
            bad(std::string(what) + " at " + num(offset) + " (" + num(bytes) +
                " bytes) outside the file or overlapping");
        }
        end = offset + bytes;
    };
    region("index", h.indexOffset, U64(h.indexEntries) * sizeof(IndexEntry));
    if (h.directWriteSize) region("direct-write slot", h.directWriteOffset, h.directWriteSize);
    for (U32 c = 0; c < maxClasses; ++c) {
        ClassDesc const& d = h.classes[c];
        if (c >= shape_.classCount) {
            if (d.offset || d.slotSize || d.slotCount || d.capacity || d.reserved) {
                bad("size class " + num(c) + " described beyond the table's classes");
            }
            continue;
        }
        abi("slot size", d.slotSize, shape_.slotSize[c]);
        if (d.slotCount != (d.capacity ? d.capacity + 1 : 0) || d.slotCount > maxSlotsPerClass) {
            bad("size class " + num(c) + " has " + num(d.slotCount) + " slots for capacity " +
                num(d.capacity));
        }
        region("size class", d.offset, U64(d.slotCount) * d.slotSize);
    }
}

void StrataMap::adoptGeometry() {
    FileHeader const& h = header();
    index_ = reinterpret_cast<IndexEntry*>(base_ + h.indexOffset);
    indexEntries_ = h.indexEntries;
    maxRecords_ = h.maxRecords;
    directWrite_ = h.directWriteSize ? base_ + h.directWriteOffset : nullptr;
    for (U32 c = 0; c < maxClasses; ++c) {
        ClassGeometry& g = classes_[c];
        if (c < shape_.classCount) {
            g.base = base_ + h.classes[c].offset;
            g.slotSize = h.classes[c].slotSize;
            g.slotCount = h.classes[c].slotCount;
            g.capacity = h.classes[c].capacity;
        } else {
            g = ClassGeometry();
        }
    }
}

void StrataMap::detach() { unmap(); }

void StrataMap::unmap() noexcept {
    if (base_) ::munmap(base_, std::size_t(size_));
    if (fd_ >= 0) ::close(fd_); // drops the writer's lock
    base_ = nullptr;
    fd_ = -1;
    size_ = 0;
    index_ = nullptr;
    directWrite_ = nullptr;
    indexEntries_ = 0;
    for (auto& g : classes_) g = ClassGeometry();
    for (auto& f : freeSlots_) f.clear();
    attached_ = false;
}

// ---- corruption -------------------------------------------------------------------------------

void StrataMap::corruptionDetected(std::string const& what) const {
    std::string const msg = "StrataMap::corruptionDetected() " + path_ + ": " + what;
    std::string const report = path_ + ".corruption-report";
    int const fd = ::open(report.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0) {
        std::string text = "Strata corruption report\n" + msg + "\n";
        text += "process " + num(U64(::getpid())) + ", " + (writer_ ? "writer" : "reader") +
                ", at " + num(U64(::time(nullptr))) + " (seconds since the epoch)\n";
        text += "file size " + num(size_) + "\n";
        if (base_ && size_ >= sizeof(FileHeader)) {
            text += "header bytes:\n";
            char line[8];
            for (std::size_t i = 0; i < sizeof(FileHeader); ++i) {
                std::snprintf(line, sizeof line, "%02x%c", base_[i], i % 32 == 31 ? '\n' : ' ');
                text += line;
            }
        }
        std::size_t done = 0;
        while (done < text.size()) {
            ssize_t const n = ::write(fd, text.data() + done, text.size() - done);
            if (n <= 0) break;
            done += std::size_t(n);
        }
        ::close(fd);
    }
    throw CorruptionDetectedException(msg);
}

// ---- slots and keys ---------------------------------------------------------------------------

void StrataMap::checkRef(U32 ref, char const* where) const {
    U32 const cls = refClass(ref);
    if (cls >= shape_.classCount || (ref >> refClassBits) == 0 ||
        refSlot(ref) >= classes_[cls].slotCount) {
        corruptionDetected(std::string(where) + ": slot reference " + hex(ref) +
                           " outside the table");
    }
}

StrataMap::ReadResult StrataMap::readSlot(U32 ref, SlotCopy& out) const noexcept {
    U32 const* w = slotWords(ref);
    U32 const n = classes_[refClass(ref)].slotSize / 4;
    U32 const g1 = load(w[0], std::memory_order_acquire);
    if (g1 & 1) return ReadResult::torn;
    for (U32 i = 1; i < n; ++i) out.word[i] = load(w[i], std::memory_order_acquire);
    // The acquire loads keep this load after them: a word from a write that began after the
    // first look at gen makes gen differ here.
    if (load(w[0]) != g1) return ReadResult::torn;
    out.word[0] = g1;
    out.ref = ref;
    out.cls = refClass(ref);
    out.words = n;
    return ReadResult::stable;
}

[[gnu::always_inline]] inline bool StrataMap::keyInSlotEquals(U32 ref, void const* key) const noexcept {
    // Writer only: nobody else writes slots, so plain reads see settled bytes.
    U8 const* stored = reinterpret_cast<U8 const*>(slotWords(ref)) + keyOffset;
    if (shape_.keySize == 8) { // FecId and Prefix keys: one comparison, no library call
        U64 a, b;
        std::memcpy(&a, stored, 8);
        std::memcpy(&b, key, 8);
        return a == b;
    }
    return std::memcmp(stored, key, shape_.keySize) == 0;
}

void StrataMap::backoff(U32 attempt) const noexcept {
    if (attempt < 8) return;
    if (attempt < 256) {
        ::sched_yield();
        return;
    }
    timespec const ts{0, 20000};
    ::nanosleep(&ts, nullptr);
}

bool StrataMap::readTimedOut(U32 attempt, U64 startNs) const noexcept {
    if (attempt < 64 || attempt % 16 != 0) return false;
    return nowNs() - startNs > U64(options_.readTimeoutMs) * 1000000ull;
}

void StrataMap::throwTimeout(char const* op) const {
    bump(counters_.timeouts, 1);
    throw Exception(ExceptionId::timeout_, "Strata table " + path_ + ": " + op +
                                               " found no stable copy within " +
                                               num(options_.readTimeoutMs) + " ms");
}

// ---- reading ----------------------------------------------------------------------------------

bool StrataMap::writerAlive() const noexcept {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 1;
    if (::fcntl(fd_, F_OFD_GETLK, &lock) != 0) return true; // cannot tell: assume so
    return lock.l_type != F_UNLCK;
}

bool StrataMap::find(void const* key, SlotCopy& out) const {
    if (!attached_) return false;
    bump(counters_.lookups, 1);
    U32 keyWords[8];
    std::memcpy(keyWords, key, shape_.keySize);
    U32 const nKey = shape_.keySize / 4;
    U32 const h = keyHash(keyWords, nKey);
    FileHeader const& hdr = header();
    U64 const start = nowNs();
    for (U32 attempt = 0;; ++attempt) {
        if (attempt > 0) {
            bump(counters_.retries, 1);
            if (readTimedOut(attempt, start)) throwTimeout("find");
            backoff(attempt);
        }
        // Probing goes ahead while entries move (odd seq): a hit is checked against the key
        // and is as good as any; only a miss needs the sequence to vouch for it.
        U32 const seq = load(hdr.indexSeq, std::memory_order_acquire);
        U32 pos = home(h);
        bool restart = false;
        for (U32 probes = 0; probes < indexEntries_ && !restart; ++probes) {
            IndexEntry const& e = index_[pos];
            U32 const ref = load(e.ref, std::memory_order_acquire);
            if (ref == 0) {
                // The acquire loads of the entries keep this load after them.
                if (load(hdr.indexSeq) == seq) {
                    if ((seq & 1) == 0) return false;
                    // Odd and not moving: when no writer holds the table, the last one died
                    // inside a delete. Its half-done shift leaves every other entry reachable,
                    // so the probe's answer stands. (Asked after the probe: a writer that
                    // attaches later changes nothing this probe saw.)
                    if (attempt >= 32 && !writerAlive() && load(hdr.indexSeq) == seq) {
                        return false;
                    }
                }
                restart = true;
                break;
            }
            if (load(e.tag, std::memory_order_acquire) == h) {
                checkRef(ref, "index entry");
                if (readSlot(ref, out) == ReadResult::torn) {
                    restart = true;
                    break;
                }
                bool const live = stateOf(out.word[1]) == live_;
                if (live && std::memcmp(out.word + 2, keyWords, shape_.keySize) == 0) {
                    if (char const* why = shape_.checkSlot(out.word, out.words)) {
                        corruptionDetected("slot " + hex(ref) + ": " + why);
                    }
                    return true;
                }
                // A free slot or another key: either the slot was retired or reused under us
                // (the entry moved on), or another key shares the hash. The entry naming the
                // slot again is not enough to tell: the record may have left the slot, another
                // key borrowed it, and the record come back to it, all between the two looks at
                // the entry. A slot that is still the copy we read (same generation) after the
                // entry was seen naming it did hold the other key while the entry named it.
                if (!live || load(e.ref, std::memory_order_acquire) != ref ||
                    load(slotWords(ref)[0], std::memory_order_acquire) != out.word[0]) {
                    restart = true;
                    break;
                }
            }
            pos = pos + 1 == indexEntries_ ? 0 : pos + 1;
        }
        if (restart) continue;
        if ((seq & 1) == 0 && load(hdr.indexSeq) == seq) {
            corruptionDetected("index has no empty entry");
        }
    }
}

bool StrataMap::nextLive(U32& cls, U32& slot, SlotCopy& out) const {
    if (!attached_) return false;
    FileHeader const& hdr = header();
    for (; cls < shape_.classCount; ++cls, slot = 0) {
        U32 const hw = load(hdr.classHighWater[cls], std::memory_order_acquire);
        if (hw > classes_[cls].slotCount) {
            corruptionDetected("size class " + num(cls) + " high-water mark " + num(hw) +
                               " above its " + num(classes_[cls].slotCount) + " slots");
        }
        for (; slot < hw; ++slot) {
            U32 const ref = refOf(cls, slot);
            // A slot being written is never a record's committed copy (a new copy is not
            // published yet, an old one is being retired): after a few tries it is passed
            // over, which also keeps a slot left odd by a dead writer from stopping the walk.
            ReadResult r = readSlot(ref, out);
            for (U32 attempt = 1; r == ReadResult::torn && attempt < 8; ++attempt) {
                bump(counters_.retries, 1);
                backoff(attempt + 8);
                r = readSlot(ref, out);
            }
            if (r == ReadResult::torn || stateOf(out.word[1]) != live_) continue;
            if (char const* why = shape_.checkSlot(out.word, out.words)) {
                corruptionDetected("slot " + hex(ref) + ": " + why);
            }
            return true;
        }
    }
    return false;
}

U32 StrataMap::records() const noexcept {
    return attached_ ? load(header().recordCount, std::memory_order_acquire) : 0;
}

U32 StrataMap::classCapacity(U32 cls) const noexcept {
    return attached_ && cls < shape_.classCount ? classes_[cls].capacity : 0;
}

U32 StrataMap::classUsed(U32 cls) const noexcept {
    return attached_ && cls < shape_.classCount ? load(header().classUsed[cls]) : 0;
}

U32 StrataMap::changeSeq() const noexcept {
    return attached_ ? load(header().changeSeq, std::memory_order_acquire) : 0;
}

U32 StrataMap::writerGeneration() const noexcept {
    return attached_ ? load(header().writerGeneration, std::memory_order_acquire) : 0;
}

U64 StrataMap::creationId() const noexcept { return attached_ ? header().creationId : 0; }

// ---- writing ----------------------------------------------------------------------------------

void StrataMap::throwReadOnly(char const* op) const {
    throw NoPermissionException(std::string(op) + " to read-only Strata table");
}

[[gnu::always_inline]] inline bool StrataMap::findEntry(void const* key, U32 hash, U32& pos) const {
    pos = home(hash);
    for (U32 probes = 0; probes < indexEntries_; ++probes) {
        U32 const ref = load(index_[pos].ref);
        if (ref == 0) return false;
        if (load(index_[pos].tag) == hash && keyInSlotEquals(ref, key)) return true;
        pos = pos + 1 == indexEntries_ ? 0 : pos + 1;
    }
    corruptionDetected("index has no empty entry");
}

[[gnu::always_inline]] inline U32 StrataMap::allocateSlot(U32 cls) {
    auto& freeList = freeSlots_[cls];
    if (!freeList.empty()) {
        U32 const slot = freeList.back();
        freeList.pop_back();
        return slot;
    }
    KAL_ASSERT(highWater_[cls] < classes_[cls].slotCount);
    U32 const slot = highWater_[cls]++;
    store(writableHeader().classHighWater[cls], highWater_[cls], std::memory_order_release);
    return slot;
}

[[gnu::always_inline]] inline void StrataMap::retireSlot(U32 ref) noexcept {
    U32* w = slotWords(ref);
    U32 const gen = load(w[0]);
    U32 const odd = gen | 1;
    store(w[0], odd);
    store(w[1], load(w[1]) & ~U32(0xFF), std::memory_order_release); // state free
    store(w[0], odd + 1, std::memory_order_release);
}

[[gnu::always_inline]] inline void StrataMap::beginChange() noexcept {
    KAL_DASSERT((changeSeq_ & 1) == 0);
    store(writableHeader().changeSeq, ++changeSeq_);
    // The odd value goes ahead of every store of the change (they are release stores too).
    std::atomic_thread_fence(std::memory_order_release);
}

[[gnu::always_inline]] inline void StrataMap::publishCounts(U32 clsA, U32 clsB) noexcept {
    FileHeader& h = writableHeader();
    store(h.recordCount, count_, std::memory_order_release);
    if (clsA >= maxClasses) {
        for (U32 c = 0; c < shape_.classCount; ++c) store(h.classUsed[c], used_[c]);
    } else {
        store(h.classUsed[clsA], used_[clsA]);
        if (clsB < maxClasses) store(h.classUsed[clsB], used_[clsB]);
    }
    store(h.changeSeq, ++changeSeq_, std::memory_order_release);
}

void StrataMap::throwTableFull(std::string const& what) {
    bump(counters_.tableFull, 1);
    throw Exception(ExceptionId::tableFull_, "Strata table " + path_ + " " + what);
}

void StrataMap::refuseWrite(U32 cls, bool newKey) {
    if (newKey && count_ >= maxRecords_) {
        throwTableFull("is full: " + num(maxRecords_) + " records");
    }
    throwTableFull(shape_.classCount > 1
                       ? "size class " + num(cls) + " (" + num(U64(1) << cls) +
                             (cls == 0 ? " via" : " vias") + ") is full: " +
                             num(classes_[cls].capacity) + " records"
                       : "is full: " + num(classes_[cls].capacity) + " records");
}

void StrataMap::putEncoded(U32 cls, void const* key, U32 hash, Encoder encode,
                           void const* context) {
    KAL_ASSERT(writer_ && attached_);
    KAL_ASSERT(cls < shape_.classCount);
    KAL_DASSERT([&] {
        U32 keyWords[8];
        std::memcpy(keyWords, key, shape_.keySize);
        return keyHash(keyWords, shape_.keySize / 4) == hash;
    }());
    // The slot's cache lines arrive while the index is searched.
    prefetchSlot(cls);
    ClassGeometry const& g = classes_[cls];
    U32 pos = 0;
    bool const found = findEntry(key, hash, pos);
    U32 const oldRef = found ? load(index_[pos].ref) : 0;
    bool const sameClass = found && refClass(oldRef) == cls;
    if ((!found && count_ >= maxRecords_) || (!sameClass && used_[cls] >= g.capacity)) {
        refuseWrite(cls, !found);
    }
    // Nothing can fail from here on.
    beginChange();
    U32 const slot = allocateSlot(cls);
    U32 const ref = refOf(cls, slot);
    U32* w = reinterpret_cast<U32*>(g.base + std::size_t(slot) * g.slotSize);
    U32 const gen = load(w[0]);
    KAL_DASSERT((gen & 1) == 0);
    store(w[0], gen + 1);
    encode(context, w);
    KAL_DASSERT(stateOf(load(w[1])) == live_);
    store(w[0], gen + 2, std::memory_order_release);
    IndexEntry& e = index_[pos];
    if (found) {
        // The one store that publishes the new copy; the old one is retired after it.
        store(e.ref, ref, std::memory_order_release);
        retireSlot(oldRef);
        --used_[refClass(oldRef)];
        freeSlots_[refClass(oldRef)].push_back(refSlot(oldRef));
    } else {
        store(e.tag, hash);
        store(e.ref, ref, std::memory_order_release);
        ++count_;
    }
    ++used_[cls];
    publishCounts(cls, found ? refClass(oldRef) : maxClasses);
    bump(counters_.commits, 1);
}

void StrataMap::put(U32 cls, U32 const* words) {
    KAL_ASSERT(cls < shape_.classCount);
    U32 keyWords[8];
    std::memcpy(keyWords, words + 2, shape_.keySize);
    struct Image {
        U32 const* words;
        U32 n;
    };
    Image const image{words, classes_[cls].slotSize / 4};
    auto copy = [](void const* context, U32* w) noexcept {
        auto const& img = *static_cast<Image const*>(context);
        for (U32 i = 1; i < img.n; ++i) storeWord(w[i], img.words[i]);
    };
    putEncoded(cls, keyWords, keyHash(keyWords, shape_.keySize / 4), copy, &image);
}

void StrataMap::shiftBack(U32 hole) noexcept {
    U32 i = hole;
    U32 j = hole;
    for (U32 steps = 0; steps < indexEntries_; ++steps) {
        j = j + 1 == indexEntries_ ? 0 : j + 1;
        U32 const rj = load(index_[j].ref);
        if (rj == 0) break;
        U32 const tj = load(index_[j].tag);
        U32 const k = home(tj);
        // The entry at j may stay when its home lies cyclically in (i, j].
        bool const stays = i <= j ? (i < k && k <= j) : (i < k || k <= j);
        if (stays) continue;
        store(index_[i].tag, tj, std::memory_order_release);
        store(index_[i].ref, rj, std::memory_order_release);
        i = j;
    }
    store(index_[i].ref, 0, std::memory_order_release);
    store(index_[i].tag, 0, std::memory_order_release);
}

bool StrataMap::remove(void const* key) {
    KAL_ASSERT(writer_ && attached_);
    U32 keyWords[8];
    std::memcpy(keyWords, key, shape_.keySize);
    U32 const hash = keyHash(keyWords, shape_.keySize / 4);
    U32 pos = 0;
    if (!findEntry(keyWords, hash, pos)) return false;
    U32 const ref = load(index_[pos].ref);
    beginChange();
    FileHeader& h = writableHeader();
    // Odd first; the release stores of the shift keep it ahead of every move.
    store(h.indexSeq, ++indexSeq_);
    shiftBack(pos);
    store(h.indexSeq, ++indexSeq_, std::memory_order_release);
    retireSlot(ref);
    --used_[refClass(ref)];
    freeSlots_[refClass(ref)].push_back(refSlot(ref));
    --count_;
    publishCounts(refClass(ref));
    bump(counters_.deletes, 1);
    return true;
}

// ---- recovery and validation ------------------------------------------------------------------

void StrataMap::recover(bool repair) {
    FileHeader const& hdr = header();
    U32 const seq = load(hdr.indexSeq);
    bool const interrupted = (seq & 1) != 0;
    if (interrupted && !repair) corruptionDetected("index sequence odd outside a write");
    U32 const nKey = shape_.keySize / 4;

    std::vector<std::vector<U8>> live(shape_.classCount);
    for (U32 c = 0; c < shape_.classCount; ++c) live[c].assign(classes_[c].slotCount, 0);
    std::vector<std::pair<U32, U32>> byTag; // (tag, ref) of each referenced slot
    bool rebuild = false;

    for (U32 i = 0; i < indexEntries_; ++i) {
        U32 const ref = load(index_[i].ref);
        if (ref == 0) continue;
        std::string const where = "index entry " + num(i);
        checkRef(ref, where.c_str());
        U32 const* w = slotWords(ref);
        U32 const gen = load(w[0]);
        U32 const meta = load(w[1]);
        if (gen & 1) corruptionDetected(where + " references slot " + hex(ref) + " mid-write");
        if (stateOf(meta) != live_) {
            corruptionDetected(where + " references free slot " + hex(ref));
        }
        if (char const* why = shape_.checkSlot(w, classes_[refClass(ref)].slotSize / 4)) {
            corruptionDetected("slot " + hex(ref) + ": " + why);
        }
        U32 const tag = load(index_[i].tag);
        if (keyHash(w + 2, nKey) != tag) {
            // A move of the interrupted delete stored the tag and died before the reference:
            // the reference here is the deleted record's or a copy kept elsewhere. Dropped.
            if (!interrupted) {
                corruptionDetected(where + " tag " + hex(tag) + " is not the hash of its key");
            }
            rebuild = true;
            continue;
        }
        U8& bit = live[refClass(ref)][refSlot(ref)];
        if (bit) {
            if (!interrupted) corruptionDetected("two index entries reference slot " + hex(ref));
            rebuild = true;
            continue;
        }
        bit = 1;
        byTag.emplace_back(tag, ref);
        for (U32 p = home(tag); p != i; p = p + 1 == indexEntries_ ? 0 : p + 1) {
            if (load(index_[p].ref) == 0) {
                if (!interrupted) {
                    corruptionDetected(where + " cannot be reached from its home " + num(home(tag)));
                }
                rebuild = true;
                break;
            }
        }
    }
    if (byTag.size() > maxRecords_) {
        corruptionDetected("index holds " + num(byTag.size()) + " records, capacity " +
                           num(maxRecords_));
    }
    std::sort(byTag.begin(), byTag.end());
    for (std::size_t i = 1; i < byTag.size(); ++i) {
        for (std::size_t j = i; j-- > 0 && byTag[j].first == byTag[i].first;) {
            if (std::memcmp(slotWords(byTag[i].second) + 2, slotWords(byTag[j].second) + 2,
                            shape_.keySize) == 0) {
                corruptionDetected("slots " + hex(byTag[j].second) + " and " +
                                   hex(byTag[i].second) + " hold the same key");
            }
        }
    }

    // Every slot below the high-water marks: live exactly when referenced.
    U32 used[maxClasses] = {};
    U32 highWater[maxClasses] = {};
    std::vector<U32> freeList[maxClasses];
    U64 recovered = 0;
    for (U32 c = 0; c < shape_.classCount; ++c) {
        U32 const hw = load(hdr.classHighWater[c]);
        if (hw > classes_[c].slotCount) {
            corruptionDetected("size class " + num(c) + " high-water mark " + num(hw) +
                               " above its " + num(classes_[c].slotCount) + " slots");
        }
        highWater[c] = hw;
        for (U32 s = hw; s < classes_[c].slotCount; ++s) {
            if (live[c][s]) {
                corruptionDetected("slot " + hex(refOf(c, s)) + " is referenced but above the "
                                   "high-water mark " + num(hw));
            }
        }
        for (U32 s = hw; s-- > 0;) {
            if (live[c][s]) {
                ++used[c];
                continue;
            }
            U32 const ref = refOf(c, s);
            U32* w = slotWords(ref);
            if ((load(w[0]) & 1) || stateOf(load(w[1])) != free_) {
                // Half-written, or replaced and not yet retired when the last writer died.
                if (!repair) corruptionDetected("slot " + hex(ref) + " is live outside the index");
                retireSlot(ref);
                ++recovered;
            }
            freeList[c].push_back(s); // descending: the lowest slot is reused first
        }
        if (used[c] > classes_[c].capacity) {
            corruptionDetected("size class " + num(c) + " holds " + num(used[c]) +
                               " records, capacity " + num(classes_[c].capacity));
        }
    }

    if (!repair) {
        // The writer's own bookkeeping must agree with the file.
        if (count_ != byTag.size() || load(hdr.recordCount) != count_) {
            corruptionDetected("record count " + num(load(hdr.recordCount)) + " (writer " +
                               num(count_) + "), index holds " + num(byTag.size()));
        }
        for (U32 c = 0; c < shape_.classCount; ++c) {
            std::vector<U32> mine = freeSlots_[c];
            std::sort(mine.begin(), mine.end());
            std::vector<U32> found = freeList[c];
            std::sort(found.begin(), found.end());
            if (used_[c] != used[c] || load(hdr.classUsed[c]) != used[c] ||
                highWater_[c] != highWater[c] || mine != found) {
                corruptionDetected("size class " + num(c) + " counts or free list disagree with "
                                   "its slots");
            }
        }
        return;
    }

    if (interrupted || rebuild) {
        std::vector<U32> refs;
        refs.reserve(byTag.size());
        for (auto const& [tag, ref] : byTag) refs.push_back(ref);
        rebuildIndex(refs);
        bump(counters_.indexRebuilds, 1);
    }
    indexSeq_ = load(hdr.indexSeq);
    count_ = U32(byTag.size());
    for (U32 c = 0; c < maxClasses; ++c) {
        used_[c] = used[c];
        highWater_[c] = highWater[c];
        freeSlots_[c] = std::move(freeList[c]);
    }
    bump(counters_.recoveredSlots, recovered);
    FileHeader& h = writableHeader();
    // Odd: the last writer died inside a change; the recount below ends it. Either way the
    // counter goes on to the next even value.
    changeSeq_ = load(h.changeSeq) | 1;
    store(h.writerPid, U32(::getpid()));
    store(h.writerGeneration, load(h.writerGeneration) + 1, std::memory_order_release);
    publishCounts();
}

void StrataMap::rebuildIndex(std::vector<U32> const& refs) {
    FileHeader& h = writableHeader();
    U32 seq = load(h.indexSeq);
    if ((seq & 1) == 0) store(h.indexSeq, ++seq);
    for (U32 i = 0; i < indexEntries_; ++i) {
        store(index_[i].ref, 0, std::memory_order_release);
        store(index_[i].tag, 0, std::memory_order_release);
    }
    U32 const nKey = shape_.keySize / 4;
    for (U32 ref : refs) {
        U32 const tag = keyHash(slotWords(ref) + 2, nKey);
        U32 pos = home(tag);
        while (load(index_[pos].ref) != 0) pos = pos + 1 == indexEntries_ ? 0 : pos + 1;
        store(index_[pos].tag, tag, std::memory_order_release);
        store(index_[pos].ref, ref, std::memory_order_release);
    }
    store(h.indexSeq, seq + 1, std::memory_order_release);
}

void StrataMap::validate() {
    checkWritable("validate");
    if (!attached_) return;
    recover(false);
}

void StrataMap::validateFiles() {
    checkWritable("validateFiles");
    if (!attached_) return;
    struct stat mine {};
    struct stat named {};
    if (::fstat(fd_, &mine) != 0 || ::stat(path_.c_str(), &named) != 0 ||
        mine.st_ino != named.st_ino || mine.st_dev != named.st_dev) {
        throw Exception(ExceptionId::connection_,
                        path_ + " no longer names the attached Strata table file");
    }
    FileHeader onDisk;
    ssize_t const n = ::pread(fd_, &onDisk, sizeof onDisk, 0);
    if (n != ssize_t(sizeof onDisk)) {
        corruptionDetected("file header cannot be read back (" + num(U64(n < 0 ? 0 : n)) +
                           " bytes)");
    }
    validateHeader(onDisk, U64(mine.st_size), "file header");
    if (std::memcmp(&onDisk, base_, checksummedBytes) != 0) {
        corruptionDetected("file header differs from the attached table's");
    }
}

U32 StrataMap::cleanup() {
    checkWritable("cleanup");
    std::string dir = options_.directory;
    std::string const base = options_.prefix + "-" + shape_.suffix + ".tmp.";
    DIR* d = ::opendir(dir.c_str());
    if (!d) return 0;
    U32 removed = 0;
    while (dirent* e = ::readdir(d)) {
        std::string const name = e->d_name;
        if (name.compare(0, base.size(), base) != 0) continue;
        // <name>.tmp.<pid>.<n>: left by a creator that died before publishing its file.
        long const pid = std::strtol(name.c_str() + base.size(), nullptr, 10);
        if (pid <= 0 || pid == long(::getpid())) continue;
        if (::kill(pid_t(pid), 0) == 0 || errno != ESRCH) continue;
        if (::unlinkat(::dirfd(d), name.c_str(), 0) == 0) ++removed;
    }
    ::closedir(d);
    return removed;
}

WriterCounters StrataMap::writerCounters() const {
    if (!writer_) return StrataBase::writerCounters();
    WriterCounters c;
    c.commits = counters_.commits.load(std::memory_order_relaxed);
    c.deletes = counters_.deletes.load(std::memory_order_relaxed);
    c.tableFull = counters_.tableFull.load(std::memory_order_relaxed);
    c.recoveredSlots = counters_.recoveredSlots.load(std::memory_order_relaxed);
    c.indexRebuilds = counters_.indexRebuilds.load(std::memory_order_relaxed);
    return c;
}

ReaderCounters StrataMap::readerCounters() const {
    ReaderCounters c;
    c.lookups = counters_.lookups.load(std::memory_order_relaxed);
    c.retries = counters_.retries.load(std::memory_order_relaxed);
    c.timeouts = counters_.timeouts.load(std::memory_order_relaxed);
    return c;
}

} // namespace Strata
