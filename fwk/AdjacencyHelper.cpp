// The adjacency helpers: reference-counted adjacencies for via sets, kept in step in three
// places under one index: the adjacency record, the via-set/index tables of the adjacency
// status, and (for FIB adjacencies) a FEC in the forwarding table whose id is the index.
//
// Context: every operation runs on the owning activity's thread; the forwarding table's
// readers are other processes, which see a FEC only once it is committed. Nothing is locked.
//
// Ownership: the status tables hold the adjacencies (counted); an operation holds its own
// counted pointer while it works, so removing table entries never destroys an adjacency
// under it. A via set is copied before the entries that hold it are removed.
//
// Order of writes, the same everywhere: a new FEC is committed before any table names its
// index (a failed creation leaves nothing behind); tables are written via set to adjacency,
// index to via set, index to adjacency; on removal the same order, and the FEC goes last,
// once no table of ours names it.
//
// The IPv4 and IPv6 helpers differ only in their types, their signature texts and a few
// rules (next-hop-group indices and route types adopted at sync, IPv4 only or per family);
// one implementation serves both through a traits class.
#include "fwk/AdjacencyHelper.h"

#include "Kal/Tracing.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <ios>
#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <vector>

KAL_TRACE_HANDLE("RidgeAdjacencyHelper", "AdjacencyHelper");

namespace Ridge {

namespace {

struct V4 {
    using Helper = AdjacencyHelper;
    using Tables = Status;
    using ViaSetT = ViaSet;
    using Via = Strata::Fib::Via;
    using Fec = Strata::Fib::Fec;
    using HostStatus = Routing::Host::Status;
    static constexpr char getOrCreateFib[] =
        "U64 Ridge::AdjacencyHelper::doGetOrCreateFibAdjacency(const Ridge::ViaSet&)";
    static constexpr char contructAdj[] =
        "void Ridge::AdjacencyHelper::doContructAdj(const Strata::Fib::FecId&)";
    static constexpr char dropRefFib[] =
        "void Ridge::AdjacencyHelper::doDropRefOnFibAdjacency(const U64&)";
    static constexpr char getOrCreateHost[] =
        "U64 Ridge::AdjacencyHelper::doGetOrCreateHostAdjacency(const Ridge::ViaSet&, const "
        "Routing::Host::Status::Ptr&)";
    static constexpr char dropRefHost[] =
        "void Ridge::AdjacencyHelper::doDropRefOnHostAdjacency(const Routing::Host::Status::Ptr&, "
        "const U64&)";
    static constexpr char syncRoutes[] = "void Ridge::AdjacencyHelper::doSyncRoutes()";
    // IPv4 FIB adjacencies of next-hop-group via sets take their index from the group id.
    static constexpr bool groupIndex = true;
    static constexpr U64 dropIndex = Strata::Fib::ipv4DropFecId_;
    // The route types whose FECs are adopted at start-up.
    static bool adoptable(Routing::Fib::RouteType t) {
        using R = Routing::Fib::RouteType;
        return t == R::receive_ || t == R::receiveBcast_ || t == R::attached_ || t == R::kernel_ ||
               t == R::nexthopGroup_;
    }
};

struct V6 {
    using Helper = Adjacency6Helper;
    using Tables = Status6;
    using ViaSetT = Via6Set;
    using Via = Strata::Fib6::Via;
    using Fec = Strata::Fib6::Fec;
    using HostStatus = Routing6::Host::Status;
    static constexpr char getOrCreateFib[] =
        "U64 Ridge::Adjacency6Helper::doGetOrCreateFibAdjacency(const Ridge::Via6Set&)";
    static constexpr char contructAdj[] =
        "void Ridge::Adjacency6Helper::doContructAdj(const Strata::Fib::FecId&)";
    static constexpr char dropRefFib[] =
        "void Ridge::Adjacency6Helper::doDropRefOnFibAdjacency(const U64&)";
    static constexpr char getOrCreateHost[] =
        "U64 Ridge::Adjacency6Helper::doGetOrCreateHostAdjacency(const Ridge::Via6Set&, const "
        "Routing6::Host::Status::Ptr&)";
    static constexpr char dropRefHost[] =
        "void Ridge::Adjacency6Helper::doDropRefOnHostAdjacency(const "
        "Routing6::Host::Status::Ptr&, const U64&)";
    static constexpr char syncRoutes[] = "void Ridge::Adjacency6Helper::doSyncRoutes()";
    static constexpr bool groupIndex = false;
    static constexpr U64 dropIndex = Strata::Fib::ipv6DropFecId_;
    static bool adoptable(Routing6::Fib::RouteType t) {
        using R = Routing6::Fib::RouteType;
        return t == R::receive_ || t == R::attached_ || t == R::kernel_;
    }
};

// The allocation step: the next index after the allocator's, where 0, 1 and 2 (wrapping past
// 0xFFFFFFFF included) become 3; stored without notification.
U64 allocateIndex(AdjIndexAllocator &allocator) {
    U32 const current = allocator.adjIndex();
    U32 next = current + 1;
    if (next <= 2)
        next = 3;
    allocator.adjIndexInc(next - current);
    return next;
}

// Files an adjacency in the three tables of `tables`, in their fixed order.
template <class Tables, class ViaSetT>
void fileAdjacency(Tables &tables, ViaSetT const &viaSet, U64 index, Adjacency::Ptr const &adj) {
    tables.viaSetToAdjacencyIs(viaSet, adj);
    tables.adjIndexToViaSetIs(index, viaSet);
    tables.adjacencyIs(index, adj);
}

// Removes the three entries of an index, in the same order; the via set is copied first.
template <class Tables> void unfileAdjacency(Tables &tables, U64 index) {
    auto const viaSet = tables.adjIndexToViaSet(index);
    tables.viaSetToAdjacencyDel(viaSet);
    tables.adjIndexToViaSetDel(index);
    tables.adjacencyDel(index);
}

template <class T> U64 getOrCreateFib(typename T::Helper &h, typename T::ViaSetT const &viaSet) {
    KAL_TRACE_IN("doGetOrCreateFibAdjacency", 2,
                 T::getOrCreateFib << " adjType: " << unsigned(viaSet.type()));
    KAL_ASSERT_AS(h.status(), "status()");
    KAL_ASSERT_AS(h.ridgeStatus(), "ridgeStatus()");
    auto &tables = *h.ridgeStatus();
    // Looked up without counting: the table holds the adjacency throughout.
    if (auto const *mem = tables.kalViaSetToAdjacency()[viaSet]) {
        Adjacency *const adj = mem->fwkValue().ptr();
        KAL_ASSERT_AS(adj->index(), "adj->index()");
        KAL_ASSERT_AS(adj->refCount(), "adj->refCount()");
        adj->refCountInc(1);
        KAL_TRACE_IN("doGetOrCreateFibAdjacency", 2,
                     "Adjacency found. Index: " << adj->index()
                                                << ", new refCount: " << adj->refCount());
        return adj->index();
    }
    U64 index;
    if (T::groupIndex && viaSet.type() == Strata::Fib::nextHopGroup_) {
        index = (U64(Strata::Fib::nextHopGroupAdj_) << Strata::Fib::adjTypePos()) | viaSet.nhid();
    } else {
        index = allocateIndex(*h.adjIndexAllocator());
    }
    KAL_TRACE_IN("doGetOrCreateFibAdjacency", 4,
                 T::getOrCreateFib << ": New adj 0x" << std::hex << index);
    Adjacency::Ptr adj = Kal::kalNew<Adjacency>();
    auto &fib = *h.status();
    typename T::Fec *fec = fib.fecDirectWrite(Strata::Fib::FecId(index));
    try {
        U32 position = 0;
        for (auto iter = viaSet.viaIteratorConst(); iter; ++iter) {
            KAL_ASSERT(*iter == 1);
            KAL_TRACE_IN("doGetOrCreateFibAdjacency", 9,
                         "Via: " << iter.key().hop() << " " << iter.key().intfId());
            // Position 128 is refused here, before anything is committed.
            fec->viaIs(Strata::Fib::ViaIndex(position++), iter.key());
        }
        fec->nexthopGroupIdIs(U16(viaSet.nhid()));
        fec->fecTypeIs(viaSet.type());
    } catch (...) {
        fib.fecDirectWriteAbandon();
        throw;
    }
    fib.fecCommit(fec);
    // Only now that the FEC is published do our tables name the index.
    adj->indexIs(index);
    adj->refCountIs(1);
    fileAdjacency(tables, viaSet, index, adj);
    return index;
}

// One via of a FEC being adopted, added to its via set unless an equal via is there (whose
// value, 1 as for every via of a FEC, stays as it is).
template <class ViaSetT, class Via> void adoptVia(ViaSetT &viaSet, Via const &via) {
    viaSet.viaIs(via, 1);
}

template <class T> void contructAdj(typename T::Helper &h, Strata::Fib::FecId const &fecId) {
    KAL_TRACE_IN("doContructAdj", 0, T::contructAdj);
    auto &tables = *h.ridgeStatus();
    // Looked up without counting: the table holds the adjacency throughout.
    if (auto const *mem = tables.kalAdjacency()[fecId.value()]) {
        // Each further route on the same FEC is one more reference.
        mem->fwkValue()->refCountInc(1);
        return;
    }
    Adjacency::Ptr adj = Kal::kalNew<Adjacency>();
    typename T::ViaSetT viaSet;
    typename T::Fec fec;
    if (!h.status()->fec(fecId, fec)) {
        // A route names a FEC the table does not hold: nothing to adopt.
        KAL_TRACE_IN("doContructAdj", 0,
                     T::contructAdj << " no FEC 0x" << std::hex << fecId.value());
        return;
    }
    for (auto it = fec.viaIteratorConst(); it; ++it)
        adoptVia(viaSet, *it);
    viaSet.nhidIs(fec.nexthopGroupId());
    viaSet.typeIs(U8(fec.fecType()));
    adj->indexIs(fecId.value());
    adj->refCountIs(1);
    fileAdjacency(tables, viaSet, fecId.value(), adj);
}

template <class T> void dropRefOnFib(typename T::Helper &h, U64 index) {
    KAL_TRACE_IN("doDropRefOnFibAdjacency", 4,
                 T::dropRefFib << " adjIndex 0x" << std::hex << index);
    auto &tables = *h.ridgeStatus();
    Adjacency::Ptr adj = tables.adjacency(index);
    KAL_ASSERT_AS(adj, "adj");
    KAL_ASSERT_AS(adj->refCount(), "adj->refCount()");
    adj->refCountDec(1);
    KAL_TRACE_IN("doDropRefOnFibAdjacency", 4, T::dropRefFib << " refCount " << adj->refCount());
    if (adj->refCount() != 0)
        return;
    unfileAdjacency(tables, index);
    h.status()->fecDel(Strata::Fib::FecId(index));
}

template <class T>
U64 getOrCreateHost(typename T::Helper &h, typename T::ViaSetT const &viaSet,
                    Kal::Ptr<typename T::HostStatus> const &hostStatus) {
    KAL_TRACE_IN("doGetOrCreateHostAdjacency", 2,
                 T::getOrCreateHost << " adjType: " << unsigned(viaSet.type()));
    KAL_ASSERT_AS(hostStatus, "hostStatus");
    if (auto const *mem = hostStatus->kalViaSetToAdjacency()[viaSet]) {
        Adjacency *const adj = mem->fwkValue().ptr();
        KAL_ASSERT_AS(adj->index(), "adj->index()");
        KAL_ASSERT_AS(adj->refCount(), "adj->refCount()");
        adj->refCountInc(1);
        KAL_TRACE_IN("doGetOrCreateHostAdjacency", 2,
                     "Adjacency found. Index: " << adj->index()
                                                << ", new refCount: " << adj->refCount());
        return adj->index();
    }
    // Host adjacencies always draw from the allocator, whatever the via set's type.
    U64 const index = allocateIndex(*h.adjIndexAllocator());
    KAL_TRACE_IN("doGetOrCreateHostAdjacency", 4,
                 T::getOrCreateHost << ": New adj 0x" << std::hex << index);
    Adjacency::Ptr adj = Kal::kalNew<Adjacency>();
    adj->indexIs(index);
    adj->refCountIs(1);
    fileAdjacency(*hostStatus, viaSet, index, adj);
    return index;
}

template <class T>
void dropRefOnHost(Kal::Ptr<typename T::HostStatus> const &hostStatus, U64 index) {
    KAL_TRACE_IN("doDropRefOnHostAdjacency", 4,
                 T::dropRefHost << " adjIndex 0x" << std::hex << index);
    Adjacency::Ptr adj = hostStatus->adjacency(index);
    KAL_ASSERT_AS(adj, "adj");
    KAL_ASSERT_AS(adj->refCount(), "adj->refCount()");
    adj->refCountDec(1);
    KAL_TRACE_IN("doDropRefOnHostAdjacency", 4, T::dropRefHost << " refCount " << adj->refCount());
    if (adj->refCount() == 0)
        unfileAdjacency(*hostStatus, index);
}

// Adopts the FECs of a batch of adoptable routes, in order. Each adoption is a lookup at a
// random place in the adjacency table (three dependent cache misses: bucket, member,
// adjacency) and, for a new adjacency, an insertion at a random place in each table; the
// batch touches those places ahead, one dependent step per stage, so that the misses of
// many routes overlap. A stage reads only what an earlier stage touched: reading what it
// touches itself would wait for the miss it means to hide.
template <class T> void adoptBatch(typename T::Helper &h, U64 const *ids, std::size_t n) {
    auto const &tables = *h.ridgeStatus();
    auto const &adjacencies = tables.kalAdjacency();
    auto const &viaSets = tables.kalAdjIndexToViaSet();
    constexpr std::size_t ahead = 16; // routes between two stages of touching ahead
    for (std::size_t i = 0; i < n; ++i) {
        if (i + 3 * ahead < n)
            adjacencies.prefetchBucket(ids[i + 3 * ahead]);
        if (i + 2 * ahead < n)
            adjacencies.prefetchHead(ids[i + 2 * ahead]);
        if (i + ahead < n) {
            U64 const id = ids[i + ahead];
            auto const *head = adjacencies.chainHead(id);
            if (head && head->fwkKey() == id)
                __builtin_prefetch(head->fwkValue().ptr());
            else // most likely an adjacency still to make: its index goes into a second table
                viaSets.prefetchBucket(id);
        }
        h.doContructAdj(Strata::Fib::FecId(ids[i]));
    }
}

// Adoption in bulk. What route-by-route adoption leaves behind depends only on which FECs
// the adoptable routes name, how many routes name each, and, where two FECs hold equal via
// sets, which of them a route named first: every table is ordered by its keys whatever the
// order of insertion, and an adjacency changes silently. When nobody can watch the sync
// (no notifiee on the adjacency status, level 0 of this file's trace off, no coverage
// stream), the same tables are built in bulk, without a lookup per route:
//   1. the walk tallies the routes per FEC id (RouteTally), noting the rank of each id's
//      first appearance;
//   2. ids that already have an adjacency are set aside: they only take references;
//   3. the FECs of the other ids are read, in the FEC table's own order when they are many
//      (a walk beats a lookup each), by a lookup each otherwise;
//   4. the references of step 2 are taken, and the new adjacencies made, each with as many
//      references as routes name it, and filed in the order of each table's positions, so
//      that every insertion lands beside the previous one. Equal via sets are filed in the
//      order in which their FECs first appeared: the via-set table keeps the last one,
//      which is the adjacency that route-by-route adoption makes last.
// Steps 1 to 3 only read; a table error there leaves the adjacency tables as they were.
template <class T> class BulkAdoption {
  public:
    // `room`: the number of distinct FEC ids to expect.
    BulkAdoption(typename T::Helper &h, U32 room)
        : h_(h), tables_(*h.ridgeStatus()), tally_(room) {}

    // Whether the bulk path leaves no trace that route-by-route adoption would leave.
    static bool unobserved(typename T::Helper const &h) {
        return !h.ridgeStatus()->kalHasNotifiees() && !_defaultTraceHandle().enabled(0) &&
               !Kal::coverageStream_.load(std::memory_order_relaxed);
    }

    // Step 1 for one batch of ids of adoptable routes, in walk order.
    void tally(U64 const *ids, std::size_t n) {
        constexpr std::size_t ahead = 16;
        for (std::size_t i = 0; i < n; ++i) {
            if (i + ahead < n)
                tally_.prefetch(ids[i + ahead]);
            tally_.bump(ids[i]);
        }
    }

    // Steps 2 to 4.
    void adopt() {
        std::vector<std::pair<Adjacency *, U32>> found;
        for (auto it = tables_.adjacencyIterator(); it; ++it) {
            if (auto *e = tally_.find(it.key())) {
                found.emplace_back(it.value().ptr(), e->count);
                e->first = RouteTally::taken;
            }
        }
        readFecs(tally_.distinct() - found.size());
        for (auto const &[adj, count] : found)
            adj->refCountInc(count);
        file();
    }

  private:
    // Per FEC id: the routes that name it, and the rank of its first appearance. Ids below
    // a limit (the allocator's indices of a table of this size, the usual case) are counted
    // in an array by id, the rest in a hash table; both stay small enough to stay cached.
    class RouteTally {
      public:
        struct Entry {
            U32 count; // 0: not named
            U32 first;
        };
        static constexpr U32 taken = 0xFFFFFFFF; // `first` of an id that has its adjacency

        // Room for `ids` distinct ids.
        explicit RouteTally(U32 ids)
            : denseSize_(std::size_t(ids) * 2 + 16),
              dense_(static_cast<Entry *>(std::calloc(denseSize_, sizeof(Entry)))) {
            if (!dense_)
                throw std::bad_alloc();
            while ((std::size_t(1) << (64 - shift_)) < std::size_t(ids) / 4)
                --shift_;
            slots_.resize(std::size_t(1) << (64 - shift_));
        }

        void bump(U64 id) {
            Entry *e;
            if (id < denseSize_) {
                e = &dense_[std::size_t(id)];
            } else {
                Slot &s = slot(id);
                s.id = id;
                e = &s.entry;
            }
            if (e->count++)
                return;
            e->first = distinct_++;
            if (id >= denseSize_ && ++hashed_ > slots_.size() / 2)
                grow();
        }
        // The distinct ids counted.
        U32 distinct() const noexcept { return distinct_; }
        // Calls fn(id, entry) for every id counted, in no particular order.
        template <class Fn> void forEach(Fn &&fn) {
            for (std::size_t id = 0; id < denseSize_; ++id) {
                if (dense_[id].count)
                    fn(U64(id), dense_[id]);
            }
            for (Slot &s : slots_) {
                if (s.entry.count)
                    fn(s.id, s.entry);
            }
        }
        Entry *find(U64 id) {
            Entry *e = id < denseSize_ ? &dense_[std::size_t(id)] : &slot(id).entry;
            return e->count ? e : nullptr;
        }
        void prefetch(U64 id) const {
            if (id < denseSize_)
                __builtin_prefetch(&dense_[std::size_t(id)]);
            else
                __builtin_prefetch(&slots_[place(id)]);
        }

      private:
        struct Slot {
            U64 id;
            Entry entry;
        };
        std::size_t place(U64 id) const {
            return std::size_t((id * 0x9E3779B97F4A7C15ull) >> shift_);
        }
        Slot &slot(U64 id) {
            std::size_t i = place(id);
            while (slots_[i].entry.count && slots_[i].id != id)
                i = (i + 1) & (slots_.size() - 1);
            return slots_[i];
        }
        void grow() {
            std::vector<Slot> old(slots_.size() * 2);
            old.swap(slots_);
            --shift_;
            for (Slot const &s : old) {
                if (s.entry.count)
                    slot(s.id) = s;
            }
        }

        // Zeroed by calloc: a large one comes straight from the system, already zero, and
        // only the pages of ids that occur are ever touched.
        struct Free {
            void operator()(Entry *e) const { std::free(e); }
        };
        std::size_t denseSize_;
        std::unique_ptr<Entry[], Free> dense_;
        std::vector<Slot> slots_;
        unsigned shift_ = 64 - 4;
        U32 distinct_ = 0;
        std::size_t hashed_ = 0;
    };

    // A FEC to adopt, as read, with its routes and the rank of its first appearance (from
    // the tally: looking them up while the adjacencies are made was slower, and its time
    // scattered from sync to sync by half). Its vias are vias_[vias, vias + viaCount).
    struct Fresh {
        U64 id;
        U32 count;
        U32 first;
        U32 vias;
        U8 viaCount; // a FEC holds at most 128
        U8 type;
        U16 nhid;
    };

    void take(U64 id, U32 count, U32 first, typename T::Fec const &fec) {
        U32 const vias = U32(vias_.size());
        for (auto it = fec.viaIteratorConst(); it; ++it)
            vias_.push_back(*it);
        fresh_.push_back(Fresh{id, count, first, vias, U8(vias_.size() - vias),
                               U8(fec.fecType()), fec.nexthopGroupId()});
    }

    void readFecs(std::size_t pending) {
        auto const &fib = *h_.status();
        if (pending * 4 >= fib.fecs()) {
            // Many to read: every FEC in the table's order, then the ones no route names
            // (or whose adjacency exists) are dropped again.
            try {
                fresh_.reserve(fib.fecs());
                vias_.reserve(fib.fecs());
                for (auto it = fib.fecIteratorConst(); it; ++it)
                    take(it.key().value(), 0, 0, *it);
                keepNamed();
                return;
            } catch (...) {
                // A record no route names may be what failed: look up only the ones named.
                fresh_.clear();
                vias_.clear();
            }
        }
        typename T::Fec fec;
        tally_.forEach([&](U64 id, typename RouteTally::Entry const &e) {
            if (e.first != RouteTally::taken && fib.fec(Strata::Fib::FecId(id), fec))
                take(id, e.count, e.first, fec);
        });
    }

    // Completes the records of a walk from the tally, keeping those still to adopt.
    void keepNamed() {
        constexpr std::size_t ahead = 16;
        std::size_t kept = 0;
        for (std::size_t i = 0; i < fresh_.size(); ++i) {
            if (i + ahead < fresh_.size())
                tally_.prefetch(fresh_[i + ahead].id);
            auto const *e = tally_.find(fresh_[i].id);
            if (!e || e->first == RouteTally::taken)
                continue;
            fresh_[kept] = fresh_[i];
            fresh_[kept].count = e->count;
            fresh_[kept].first = e->first;
            ++kept;
        }
        fresh_.resize(kept);
    }

    // Fills an empty via set from a record's FEC, as doContructAdj adopts one.
    void build(typename T::ViaSetT &viaSet, Fresh const &f) const {
        for (U32 v = f.vias; v < f.vias + f.viaCount; ++v)
            adoptVia(viaSet, vias_[v]);
        viaSet.nhidIs(f.nhid);
        viaSet.typeIs(f.type);
    }

    // Sorts records by a 32-bit key, stably: least significant digit first, 11 bits at a
    // time, three passes after one that counts all three digits. The records themselves
    // move, so that the pass that follows reads them in order: its long loop body waits for
    // every miss it takes, and a record read out of order is one.
    template <class R, class Key> static void sortByKey(std::vector<R> &v, Key key) {
        constexpr unsigned bits = 11;
        constexpr U32 digits = 1u << bits;
        constexpr U32 mask = digits - 1;
        std::vector<U32> start(3 * digits);
        for (auto const &r : v) {
            U32 const k = key(r);
            ++start[k & mask];
            ++start[digits + ((k >> bits) & mask)];
            ++start[2 * digits + (k >> 2 * bits)];
        }
        std::vector<R> scratch(v.size());
        for (unsigned pass = 0; pass < 3; ++pass) {
            U32 *const first = &start[pass * digits];
            U32 sum = 0;
            for (U32 d = 0; d < digits; ++d)
                sum += std::exchange(first[d], sum);
            unsigned const shift = pass * bits;
            for (auto &r : v)
                scratch[first[(key(r) >> shift) & mask]++] = std::move(r);
            v.swap(scratch);
        }
    }

    using ViaSetMember = typename T::Tables::KalViaSetToAdjacency;

    // An entry of the via-set table, noted while its set and adjacency were at hand, with a
    // reference to each taken then; its member is made when it is filed, in that table's
    // order, from those references: neither the set's state nor the adjacency is touched
    // again. `first`: the rank of its FEC's first appearance.
    struct Filed {
        U32 hash;
        U32 first;
        typename T::ViaSetT::KalState viaSet;
        Adjacency::Ptr adj;
    };

    // The via-set table's order for its entries: by hash, equal hashes (equal via sets
    // among them) by first appearance, so that of equal sets the table keeps the last.
    static void sortFiled(std::vector<Filed> &filed) {
        sortByKey(filed, [](Filed const &r) { return r.hash; });
        for (std::size_t i = 0; i < filed.size();) {
            std::size_t j = i + 1;
            while (j < filed.size() && filed[j].hash == filed[i].hash)
                ++j;
            if (j - i > 1) {
                std::sort(filed.begin() + std::ptrdiff_t(i), filed.begin() + std::ptrdiff_t(j),
                          [](Filed const &a, Filed const &b) { return a.first < b.first; });
            }
            i = j;
        }
    }

    // Each via set is made once and shared by its three entries. The index tables are
    // filed in their order as the records come; the via-set table's entries wait for
    // theirs. Every member is made as it is filed, so that the members of a table lie in
    // memory in its order.
    void file() {
        using IndexMap = typename T::Tables::KalAdjacencyMap;
        using ViaSetMap = typename T::Tables::KalViaSetToAdjacencyMap;
        sortByKey(fresh_, [](Fresh const &f) { return IndexMap::hashOf(f.id); });
        std::vector<Filed> filed;
        filed.reserve(fresh_.size());
        constexpr std::size_t ahead = 8;
        for (std::size_t i = 0; i < fresh_.size(); ++i) {
            if (i + ahead < fresh_.size())
                __builtin_prefetch(&vias_[fresh_[i + ahead].vias]);
            Fresh const &f = fresh_[i];
            Adjacency::Ptr adj = Kal::kalNew<Adjacency>();
            adj->indexIs(f.id);
            adj->refCountIs(f.count);
            typename T::ViaSetT viaSet;
            build(viaSet, f);
            filed.push_back(Filed{ViaSetMap::hashOf(viaSet), f.first, viaSet.kalShare(), adj});
            tables_.adjIndexToViaSetIs(f.id, std::move(viaSet));
            tables_.adjacencyIs(f.id, std::move(adj));
        }
        // The records are done with: their memory can serve the sort.
        std::vector<Fresh>().swap(fresh_);
        std::vector<typename T::Via>().swap(vias_);
        sortFiled(filed);
        // Filing one reads the hash of the set before it in its chain, if any: a state not
        // touched since it was made, touched ahead here.
        for (std::size_t i = 0; i < filed.size(); ++i) {
            if (i + ahead < filed.size())
                filed[i + ahead].viaSet.kalPrefetch();
            Filed &r = filed[i];
            tables_.kalViaSetToAdjacencyMemberIs(
                Kal::kalNew<ViaSetMember>(std::move(r.viaSet), std::move(r.adj)), r.hash);
        }
    }

    typename T::Helper &h_;
    typename T::Tables &tables_;
    RouteTally tally_;
    std::vector<Fresh> fresh_;
    std::vector<typename T::Via> vias_;
};

// The route table is walked in batches of adoptable routes. Each batch is adopted before
// the walk goes on: route by route (adoptBatch), or tallied for adoption in bulk when
// nobody watches (BulkAdoption). The tables are given room for every FEC first, so that
// they do not grow while they fill, a pass over all their members each time.
template <class T> void syncRoutes(typename T::Helper &h) {
    KAL_TRACE_IN("doSyncRoutes", 0, T::syncRoutes);
    h.doCreateDropAdjacency();
    U32 highest = 2;
    auto const &routes = *h.routeStatus();
    auto &tables = *h.ridgeStatus();
    // At most one adjacency per FEC, and the drop adjacency.
    U32 const room = std::min(routes.routes(), h.status()->fecs()) + 1;
    tables.viaSetToAdjacencyReserve(room);
    tables.adjIndexToViaSetReserve(room);
    tables.adjacencyReserve(room);
    std::optional<BulkAdoption<T>> bulk;
    if (BulkAdoption<T>::unobserved(h))
        bulk.emplace(h, room);
    constexpr std::size_t batch = 1024;
    U64 ids[batch];
    for (auto it = routes.routeIteratorConst(); it;) {
        std::size_t n = 0;
        for (; it && n < batch; ++it) {
            if (!T::adoptable(it.routeType()))
                continue;
            ids[n++] = it.fecId().value();
            highest = std::max(highest, U32(it.fecId().value()));
        }
        if (bulk)
            bulk->tally(ids, n);
        else
            adoptBatch<T>(h, ids, n);
    }
    if (bulk)
        bulk->adopt();
    auto &allocator = *h.adjIndexAllocator();
    if (allocator.adjIndex() < highest) {
        KAL_TRACE_IN("doSyncRoutes", 0, "Updated AdjIndex helper: " << highest);
        allocator.adjIndexIs(highest);
    }
}

template <class T> void createDropAdjacency(typename T::Helper &h) {
    Adjacency::Ptr adj = Kal::kalNew<Adjacency>();
    adj->indexIs(T::dropIndex);
    adj->refCountIs(1);
    typename T::ViaSetT const empty;
    fileAdjacency(*h.ridgeStatus(), empty, T::dropIndex, adj);
    typename T::Fec fec{Strata::Fib::FecId(T::dropIndex)};
    fec.fecTypeIs(Strata::Fib::drop_);
    fec.nexthopGroupIdIs(0xFFFF);
    h.status()->fecIs(fec);
}

} // namespace

// ---- IPv4 ----------------------------------------------------------------------------------

U64 AdjacencyHelper::doGetOrCreateFibAdjacency(ViaSet const &viaSet) {
    return getOrCreateFib<V4>(*this, viaSet);
}

void AdjacencyHelper::doContructAdj(Strata::Fib::FecId const &fecId) {
    contructAdj<V4>(*this, fecId);
}

void AdjacencyHelper::doDropRefOnFibAdjacency(U64 const &adjIndex) {
    dropRefOnFib<V4>(*this, adjIndex);
}

void AdjacencyHelper::doDeleteFibAdjacency(U64 const &adjIndex) {
    KAL_TRACE(4, "void Ridge::AdjacencyHelper::doDeleteFibAdjacency(const U64&)"
                     << " adjIndex 0x" << std::hex << adjIndex);
    // Whatever the count: the entries, then the FEC.
    unfileAdjacency(*ridgeStatus(), adjIndex);
    status()->fecDel(Strata::Fib::FecId(adjIndex));
}

U64 AdjacencyHelper::doGetOrCreateHostAdjacency(ViaSet const &viaSet,
                                                Kal::Ptr<Routing::Host::Status> const &hostStatus) {
    return getOrCreateHost<V4>(*this, viaSet, hostStatus);
}

void AdjacencyHelper::doDropRefOnHostAdjacency(Kal::Ptr<Routing::Host::Status> const &hostStatus,
                                               U64 const &adjIndex) {
    dropRefOnHost<V4>(hostStatus, adjIndex);
}

void AdjacencyHelper::doSyncRoutes() { syncRoutes<V4>(*this); }

void AdjacencyHelper::doCreateDropAdjacency() { createDropAdjacency<V4>(*this); }

// ---- IPv6 ----------------------------------------------------------------------------------

U64 Adjacency6Helper::doGetOrCreateFibAdjacency(Via6Set const &viaSet) {
    return getOrCreateFib<V6>(*this, viaSet);
}

void Adjacency6Helper::doContructAdj(Strata::Fib::FecId const &fecId) {
    contructAdj<V6>(*this, fecId);
}

void Adjacency6Helper::doDropRefOnFibAdjacency(U64 const &adjIndex) {
    dropRefOnFib<V6>(*this, adjIndex);
}

U64 Adjacency6Helper::doGetOrCreateHostAdjacency(
    Via6Set const &viaSet, Kal::Ptr<Routing6::Host::Status> const &hostStatus) {
    return getOrCreateHost<V6>(*this, viaSet, hostStatus);
}

void Adjacency6Helper::doDropRefOnHostAdjacency(Kal::Ptr<Routing6::Host::Status> const &hostStatus,
                                                U64 const &adjIndex) {
    dropRefOnHost<V6>(hostStatus, adjIndex);
}

void Adjacency6Helper::doSyncRoutes() { syncRoutes<V6>(*this); }

void Adjacency6Helper::doCreateDropAdjacency() { createDropAdjacency<V6>(*this); }

} // namespace Ridge
