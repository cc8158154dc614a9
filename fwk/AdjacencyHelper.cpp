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
#include <ios>

KAL_TRACE_HANDLE("RidgeAdjacencyHelper", "AdjacencyHelper");

namespace Ridge {

namespace {

struct V4 {
    using Helper = AdjacencyHelper;
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
    Adjacency::Ptr adj = new Adjacency;
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

template <class T> void contructAdj(typename T::Helper &h, Strata::Fib::FecId const &fecId) {
    KAL_TRACE_IN("doContructAdj", 0, T::contructAdj);
    auto &tables = *h.ridgeStatus();
    // Looked up without counting: the table holds the adjacency throughout.
    if (auto const *mem = tables.kalAdjacency()[fecId.value()]) {
        // Each further route on the same FEC is one more reference.
        mem->fwkValue()->refCountInc(1);
        return;
    }
    Adjacency::Ptr adj = new Adjacency;
    typename T::ViaSetT viaSet;
    typename T::Fec fec;
    if (!h.status()->fec(fecId, fec)) {
        // A route names a FEC the table does not hold: nothing to adopt.
        KAL_TRACE_IN("doContructAdj", 0,
                     T::contructAdj << " no FEC 0x" << std::hex << fecId.value());
        return;
    }
    for (auto it = fec.viaIteratorConst(); it; ++it) {
        if (!viaSet.kalVia()[*it])
            viaSet.newVia(*it, 1);
    }
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
    Adjacency::Ptr adj = new Adjacency;
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
// batch touches those places a few routes ahead so that the misses overlap.
template <class T> void adoptBatch(typename T::Helper &h, U64 const *ids, std::size_t n) {
    auto const &tables = *h.ridgeStatus();
    auto const &adjacencies = tables.kalAdjacency();
    auto const &viaSets = tables.kalAdjIndexToViaSet();
    constexpr std::size_t ahead = 16; // routes between two stages of touching ahead
    for (std::size_t i = 0; i < n; ++i) {
        if (i + 3 * ahead < n)
            adjacencies.prefetchBucket(ids[i + 3 * ahead]);
        if (i + 2 * ahead < n) {
            U64 const id = ids[i + 2 * ahead];
            auto const *head = adjacencies.prefetchHead(id);
            // Most likely an adjacency still to make: its index goes into a second table.
            if (!head || head->fwkKey() != id)
                viaSets.prefetchBucket(id);
        }
        if (i + ahead < n) {
            U64 const id = ids[i + ahead];
            auto const *head = adjacencies.prefetchHead(id);
            if (head && head->fwkKey() == id)
                __builtin_prefetch(head->fwkValue().ptr());
            else
                viaSets.prefetchHead(id);
        }
        h.doContructAdj(Strata::Fib::FecId(ids[i]));
    }
}

// The route table is walked in batches of adoptable routes, each adopted before the walk
// goes on (adoptBatch). The tables are given room for every FEC first, so that they do not
// grow while they fill, a pass over all their members each time.
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
        adoptBatch<T>(h, ids, n);
    }
    auto &allocator = *h.adjIndexAllocator();
    if (allocator.adjIndex() < highest) {
        KAL_TRACE_IN("doSyncRoutes", 0, "Updated AdjIndex helper: " << highest);
        allocator.adjIndexIs(highest);
    }
}

template <class T> void createDropAdjacency(typename T::Helper &h) {
    Adjacency::Ptr adj = new Adjacency;
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
