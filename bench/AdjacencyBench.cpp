// The adjacency helper's paths against their floors, in one run:
//   Adjacency/Hit/<vias>        doGetOrCreateFibAdjacency of an existing set (1 and 4 vias)
//   Adjacency/HitFloor/<vias>   the bare viaSetToAdjacency lookup of the same set
//   Adjacency/Create            allocation, FEC fill and commit, three table writes
//   Adjacency/CreateParts/...   each of those parts alone (allocation, FEC commit, tables)
//   Adjacency/DropToZero        the last drop: three table removals and the FEC removal
//   Adjacency/Sync              doSyncRoutes over 1M routes pointing at 100K FECs (after a
//                               first, untimed one: reported as firstSyncMs)
//   Adjacency/SyncFloor         a bare walk of the same route table
#include "fwk/AdjacencyHelper.h"

#include "Strata/StrataTable.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Ridge::ViaSet;
using Strata::Fib::FecId;
using Strata::Fib::Via;

struct Tables {
    std::string prefix;
    Strata::Fib::ForwardingStatus::Ptr fib;
    Strata::Fib::RouteStatus::Ptr routes;
    Ridge::AdjacencyHelper::Ptr helper = Ridge::adjacencyHelperFactory("bench");
    Ridge::Status::Ptr status = Ridge::statusFactory("bench");
    Tables(U32 fecs, U32 routeCount) {
        static int n = 0;
        prefix = "adjbench-" + std::to_string(::getpid()) + "-" + std::to_string(++n);
        Strata::StrataTable::removeFiles(prefix);
        fib = Strata::Fib::ForwardingStatus::writer(prefix, Strata::FecCapacity::forFecs(fecs));
        routes = Strata::Fib::RouteStatus::writer(prefix, Strata::RouteCapacity{routeCount});
        helper->routeStatusIs(routes);
        helper->statusIs(fib);
        helper->ridgeStatusIs(status);
        helper->adjIndexAllocatorIs(Ridge::adjIndexAllocatorFactory("bench"));
    }
    ~Tables() {
        helper = nullptr;
        fib = nullptr;
        routes = nullptr;
        Strata::StrataTable::removeFiles(prefix);
    }
};

ViaSet setOf(U32 seed, int vias) {
    ViaSet s;
    for (int i = 0; i < vias; ++i) {
        s.viaIs(Via(Velnet::IpAddr(0x0A000000u + seed * 8 + U32(i)),
                    Velnet::IntfId(Velnet::IntfKind::ethernet_, 1 + (seed + U32(i)) % 64), 0),
                1);
    }
    return s;
}

void AdjacencyHit(benchmark::State& state) {
    int const vias = int(state.range(0));
    Tables t(1 << 12, 16);
    ViaSet const s = setOf(1, vias);
    t.helper->doGetOrCreateFibAdjacency(s);
    for (auto _ : state) benchmark::DoNotOptimize(t.helper->doGetOrCreateFibAdjacency(s));
}

void AdjacencyHitFloor(benchmark::State& state) {
    int const vias = int(state.range(0));
    Tables t(1 << 12, 16);
    ViaSet const s = setOf(1, vias);
    t.helper->doGetOrCreateFibAdjacency(s);
    for (auto _ : state) benchmark::DoNotOptimize(t.status->viaSetToAdjacency(s).ptr());
}

BENCHMARK(AdjacencyHit)->Arg(1)->Arg(4)->Name("Adjacency/Hit");
BENCHMARK(AdjacencyHitFloor)->Arg(1)->Arg(4)->Name("Adjacency/HitFloor");

constexpr U32 kCreateBatch = 1 << 14;

// Builds kCreateBatch distinct 2-via sets once, and runs `body` over fresh tables in batches
// (table set-up and tear-down outside the timing).
template <class Body>
void inBatches(benchmark::State& state, Body body) {
    std::vector<ViaSet> sets;
    for (U32 i = 0; i < kCreateBatch; ++i) sets.push_back(setOf(i, 2));
    while (state.KeepRunningBatch(kCreateBatch)) {
        state.PauseTiming();
        auto t = std::make_unique<Tables>(kCreateBatch + 16, 16);
        state.ResumeTiming();
        body(*t, sets);
        state.PauseTiming();
        t.reset();
        state.ResumeTiming();
    }
}

void AdjacencyCreate(benchmark::State& state) {
    inBatches(state, [](Tables& t, std::vector<ViaSet> const& sets) {
        for (auto const& s : sets) benchmark::DoNotOptimize(t.helper->doGetOrCreateFibAdjacency(s));
    });
}

void AdjacencyCreatePartAllocate(benchmark::State& state) {
    auto allocator = Ridge::adjIndexAllocatorFactory("parts");
    for (auto _ : state) {
        U32 const current = allocator->adjIndex();
        U32 next = current + 1;
        if (next <= 2) next = 3;
        allocator->adjIndexInc(next - current);
        benchmark::DoNotOptimize(next);
    }
}

void AdjacencyCreatePartFec(benchmark::State& state) {
    inBatches(state, [](Tables& t, std::vector<ViaSet> const& sets) {
        U64 index = 3;
        for (auto const& s : sets) {
            auto* fec = t.fib->fecDirectWrite(FecId(index++));
            U32 position = 0;
            for (auto it = s.viaIteratorConst(); it; ++it) {
                fec->viaIs(Strata::Fib::ViaIndex(position++), it.key());
            }
            fec->nexthopGroupIdIs(U16(s.nhid()));
            fec->fecTypeIs(s.type());
            t.fib->fecCommit(fec);
        }
    });
}

void AdjacencyCreatePartTables(benchmark::State& state) {
    inBatches(state, [](Tables& t, std::vector<ViaSet> const& sets) {
        U64 index = 3;
        for (auto const& s : sets) {
            Ridge::Adjacency::Ptr adj = new Ridge::Adjacency;
            adj->indexIs(index);
            adj->refCountIs(1);
            t.status->viaSetToAdjacencyIs(s, adj);
            t.status->adjIndexToViaSetIs(index, s);
            t.status->adjacencyIs(index, adj);
            ++index;
        }
    });
}

void AdjacencyDropToZero(benchmark::State& state) {
    std::vector<ViaSet> sets;
    for (U32 i = 0; i < kCreateBatch; ++i) sets.push_back(setOf(i, 2));
    while (state.KeepRunningBatch(kCreateBatch)) {
        state.PauseTiming();
        auto t = std::make_unique<Tables>(kCreateBatch + 16, 16);
        std::vector<U64> indices;
        for (auto const& s : sets) indices.push_back(t->helper->doGetOrCreateFibAdjacency(s));
        state.ResumeTiming();
        for (U64 index : indices) t->helper->doDropRefOnFibAdjacency(index);
        state.PauseTiming();
        t.reset();
        state.ResumeTiming();
    }
}

BENCHMARK(AdjacencyCreate)->Name("Adjacency/Create");
BENCHMARK(AdjacencyCreatePartAllocate)->Name("Adjacency/CreateParts/allocate");
BENCHMARK(AdjacencyCreatePartFec)->Name("Adjacency/CreateParts/fecCommit");
BENCHMARK(AdjacencyCreatePartTables)->Name("Adjacency/CreateParts/tables");
BENCHMARK(AdjacencyDropToZero)->Name("Adjacency/DropToZero");

constexpr U32 kSyncRoutes = 1 << 20;
constexpr U32 kSyncFecs = 100000;

// 1M kernel routes over 100K FECs, written once per run and removed when the run ends.
// The first sync of the process runs here, outside the timing: its adjacencies take memory
// fresh from the system (faulted in page by page), which later syncs reuse; its time is
// reported beside the others as the cold start a daemon pays once.
double firstSyncMs = 0;

Tables& syncTables() {
    static Tables* t = [] {
        auto* tables = new Tables(kSyncFecs + 16, kSyncRoutes + 16);
        static std::string const prefix = tables->prefix;
        std::atexit([] { Strata::StrataTable::removeFiles(prefix); });
        for (U32 f = 0; f < kSyncFecs; ++f) {
            Strata::Fib::Fec fec{FecId(3 + f)};
            fec.viaIs(Strata::Fib::ViaIndex(0),
                      Via(Velnet::IpAddr(0x0A000000u + f),
                          Velnet::IntfId(Velnet::IntfKind::ethernet_, 1 + f % 64), 0));
            tables->fib->fecIs(fec);
        }
        for (U32 r = 0; r < kSyncRoutes; ++r) {
            tables->routes->routeIs(Strata::Fib::Route(
                Velnet::Prefix(Velnet::IpAddr(0x0B000000u + (r << 4)), 28),
                FecId(3 + r % kSyncFecs), Routing::Fib::RouteType::kernel_));
        }
        auto const start = std::chrono::steady_clock::now();
        tables->helper->doSyncRoutes();
        firstSyncMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() -
                                                                start)
                          .count();
        return tables;
    }();
    return *t;
}

void AdjacencySync(benchmark::State& state) {
    Tables& t = syncTables();
    for (auto _ : state) {
        state.PauseTiming();
        t.status->adjacencyDelAll();
        t.status->viaSetToAdjacencyDelAll();
        t.status->adjIndexToViaSetDelAll();
        state.ResumeTiming();
        t.helper->doSyncRoutes();
    }
    state.counters["routes"] = kSyncRoutes;
    state.counters["firstSyncMs"] = firstSyncMs;
}

void AdjacencySyncFloor(benchmark::State& state) {
    Tables& t = syncTables();
    for (auto _ : state) {
        U64 sum = 0;
        for (auto it = t.routes->routeIteratorConst(); it; ++it) {
            sum += it.fecId().value() + U64(it.routeType());
        }
        benchmark::DoNotOptimize(sum);
    }
    state.counters["routes"] = kSyncRoutes;
}

BENCHMARK(AdjacencySync)->Name("Adjacency/Sync")->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(AdjacencySyncFloor)
    ->Name("Adjacency/SyncFloor")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);

} // namespace
