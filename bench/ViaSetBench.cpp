// Via sets: hash(), operator== and operator< at 1, 4, 16 and 128 vias, and the lookup of a
// via set among 100K in the viaSetToAdjacency table (the hot path of every route) side by
// side with std::unordered_map and absl::flat_hash_map keyed by the same sets held as a
// std::vector of vias under the same hash.
//
// Names: ViaSet<Op>/<vias>, and ViaSetLookup/<map>. Probes are separately built equal sets,
// as a routing daemon's requests are.
#include "fwk/FibHelper.h"

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include <random>
#include <unordered_map>
#include <vector>

namespace {

using Ridge::ViaSet;
using Strata::Fib::Via;

Via randomVia(std::mt19937& rng) {
    return Via(Velnet::IpAddr(rng()), Velnet::IntfId(Velnet::IntfKind::ethernet_, 1 + rng() % 4096),
               0);
}

std::vector<Via> randomVias(std::mt19937& rng, int n) {
    std::vector<Via> v;
    for (int i = 0; i < n; ++i) v.push_back(randomVia(rng));
    return v;
}

ViaSet setOf(std::vector<Via> const& vias) {
    ViaSet s;
    for (auto const& v : vias) s.viaIs(v, 1);
    return s;
}

// The via set's hash over a vector of vias (type and nhid 0): the same one-at-a-time steps.
struct VectorHash {
    std::size_t operator()(std::vector<Via> const& vias) const noexcept {
        U32 h = 0;
        auto feed = [&h](U8 b) {
            h += b;
            h += h << 10;
            h ^= h >> 6;
        };
        auto word = [&](U32 w) {
            for (int i = 0; i < 4; ++i) feed(U8(w >> (8 * i)));
        };
        for (auto const& v : vias) word(v.hop().hash() ^ v.intfId().hash());
        feed(0);
        word(0);
        h += h << 3;
        h ^= h >> 11;
        h += h << 15;
        return h;
    }
};

void ViaSetHash(benchmark::State& state) {
    std::mt19937 rng(1);
    ViaSet s = setOf(randomVias(rng, int(state.range(0))));
    U32 nhid = 0;
    for (auto _ : state) {
        // A set keeps its hash once computed; a change makes it compute the hash again.
        s.nhidIs(++nhid);
        benchmark::DoNotOptimize(s.hash());
    }
    state.counters["perVia"] = benchmark::Counter(double(state.iterations()) * state.range(0),
                                                  benchmark::Counter::kIsRate |
                                                      benchmark::Counter::kInvert);
}

void ViaSetEqual(benchmark::State& state) {
    std::mt19937 rng(2);
    auto const vias = randomVias(rng, int(state.range(0)));
    ViaSet const a = setOf(vias), b = setOf(vias);
    for (auto _ : state) benchmark::DoNotOptimize(a == b);
    state.counters["perVia"] = benchmark::Counter(double(state.iterations()) * state.range(0),
                                                  benchmark::Counter::kIsRate |
                                                      benchmark::Counter::kInvert);
}

void ViaSetLess(benchmark::State& state) {
    std::mt19937 rng(3);
    auto vias = randomVias(rng, int(state.range(0)));
    ViaSet const a = setOf(vias);
    ViaSet b = a;
    b.typeIs(1); // equal vias: the whole walk, then the trailer decides
    for (auto _ : state) benchmark::DoNotOptimize(a < b);
    state.counters["perVia"] = benchmark::Counter(double(state.iterations()) * state.range(0),
                                                  benchmark::Counter::kIsRate |
                                                      benchmark::Counter::kInvert);
}

BENCHMARK(ViaSetHash)->Arg(1)->Arg(4)->Arg(16)->Arg(128);
BENCHMARK(ViaSetEqual)->Arg(1)->Arg(4)->Arg(16)->Arg(128);
BENCHMARK(ViaSetLess)->Arg(1)->Arg(4)->Arg(16)->Arg(128);

constexpr int kSets = 100000;

// 100K distinct sets of 1 to 4 vias (ECMP widths of real tables), and probes built apart.
struct Population {
    std::vector<std::vector<Via>> vias;
    std::vector<std::size_t> probeOrder;
    Population() {
        std::mt19937 rng(4);
        for (int i = 0; i < kSets; ++i) vias.push_back(randomVias(rng, 1 + int(rng() % 4)));
        for (int i = 0; i < 1 << 16; ++i) probeOrder.push_back(rng() % kSets);
    }
    static Population const& get() {
        static Population const p;
        return p;
    }
};

void ViaSetLookupKal(benchmark::State& state) {
    auto const& pop = Population::get();
    auto status = Ridge::statusFactory("bench");
    Ridge::Adjacency::Ptr adj = new Ridge::Adjacency;
    for (auto const& v : pop.vias) status->viaSetToAdjacencyIs(setOf(v), adj);
    std::vector<ViaSet> probes;
    for (std::size_t i = 0; i < 4096; ++i) probes.push_back(setOf(pop.vias[pop.probeOrder[i]]));
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(status->viaSetToAdjacency(probes[i++ & 4095]).ptr());
    }
}

template <class Map>
void lookupIn(benchmark::State& state) {
    auto const& pop = Population::get();
    Ridge::Adjacency::Ptr adj = new Ridge::Adjacency;
    Map map;
    for (auto const& v : pop.vias) map.emplace(v, adj);
    std::vector<std::vector<Via>> probes;
    for (std::size_t i = 0; i < 4096; ++i) probes.push_back(pop.vias[pop.probeOrder[i]]);
    std::size_t i = 0;
    for (auto _ : state) {
        auto it = map.find(probes[i++ & 4095]);
        Kal::Ptr<Ridge::Adjacency> found = it == map.end() ? nullptr : it->second;
        benchmark::DoNotOptimize(found.ptr());
    }
}

void ViaSetLookupStd(benchmark::State& state) {
    lookupIn<std::unordered_map<std::vector<Via>, Kal::Ptr<Ridge::Adjacency>, VectorHash>>(state);
}
void ViaSetLookupAbsl(benchmark::State& state) {
    lookupIn<absl::flat_hash_map<std::vector<Via>, Kal::Ptr<Ridge::Adjacency>, VectorHash>>(state);
}

BENCHMARK(ViaSetLookupKal)->Name("ViaSetLookup/kal");
BENCHMARK(ViaSetLookupStd)->Name("ViaSetLookup/std");
BENCHMARK(ViaSetLookupAbsl)->Name("ViaSetLookup/absl");

} // namespace
