// Kal::HashMap against std::unordered_map and absl::flat_hash_map with U64 keys and a U64
// value, at 1K, 64K and 1M members: building the whole map, lookups that hit and that miss,
// erasing every member, and a full walk. Keys are random 64-bit values from a fixed seed
// ("random") or consecutive integers from 3 up ("seq", the shape of adjacency indices).
//
// Names put the three maps side by side: HashMap<Op>/<keys>/<members>/<map>. Every result
// carries "op", the time of one operation (one insertion, lookup, erasure or step).
#include "Kal/HashMap.h"

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

class KalBenchEntry : public Kal::PtrInterface {
  public:
    KalBenchEntry(U64 key, U64 value) : kal_index_(key), value_(value) {}
    KalBenchEntry(KalBenchEntry const& o)
        : Kal::PtrInterface(o), kal_index_(o.kal_index_), value_(o.value_) {}
    U64 const& fwkKey() const { return kal_index_; }
    U64 value() const { return value_; }
    KalBenchEntry* fwkHmNext() const { return fwkHmNext_.ptr(); }
    void fwkHmNextIs(KalBenchEntry* n) { fwkHmNext_ = n; }
    bool fwkValueEquals(KalBenchEntry const& o) const { return value_ == o.value_; }

  private:
    template <class, class>
    friend struct Kal::HashMapVTable;
    U64 kal_index_;
    U64 value_;
    Kal::Ptr<KalBenchEntry> fwkHmNext_;
};

struct KalMap {
    static constexpr char const* name = "kal";
    Kal::HashMap<KalBenchEntry, U64> map{1};
    void insert(U64 k, U64 v) { map.newMember(new KalBenchEntry(k, v)); }
    U64 find(U64 k) const {
        KalBenchEntry const* m = map[k];
        return m ? m->value() : 0;
    }
    void erase(U64 k) { map.deleteMember(map[k]); }
    U64 sum() const {
        U64 s = 0;
        for (auto i = map.iterator(); i; ++i) s += i->value();
        return s;
    }
};

// The same map walked with forEachMember, which counts no member (read-only passes).
struct KalWalkMap : KalMap {
    static constexpr char const* name = "kal-forEach";
    U64 sum() const {
        U64 s = 0;
        map.forEachMember([&](KalBenchEntry const& m) { s += m.value(); });
        return s;
    }
};

struct StdMap {
    static constexpr char const* name = "std";
    std::unordered_map<U64, U64> map;
    void insert(U64 k, U64 v) { map.emplace(k, v); }
    U64 find(U64 k) const {
        auto const i = map.find(k);
        return i == map.end() ? 0 : i->second;
    }
    void erase(U64 k) { map.erase(k); }
    U64 sum() const {
        U64 s = 0;
        for (auto const& [k, v] : map) s += v;
        return s;
    }
};

struct AbslMap {
    static constexpr char const* name = "absl";
    absl::flat_hash_map<U64, U64> map;
    void insert(U64 k, U64 v) { map.emplace(k, v); }
    U64 find(U64 k) const {
        auto const i = map.find(k);
        return i == map.end() ? 0 : i->second;
    }
    void erase(U64 k) { map.erase(k); }
    U64 sum() const {
        U64 s = 0;
        for (auto const& [k, v] : map) s += v;
        return s;
    }
};

enum class Keys { random, seq };

struct KeySet {
    std::vector<U64> members;  // insertion order
    std::vector<U64> shuffled; // the same keys, in the order lookups and erasures use them
    std::vector<U64> absent;   // keys that are not members
};

KeySet const& keySet(Keys kind, size_t n) {
    static std::map<std::pair<Keys, size_t>, std::unique_ptr<KeySet>> cache;
    auto& slot = cache[{kind, n}];
    if (slot) return *slot;
    slot = std::make_unique<KeySet>();
    std::mt19937_64 rng(0x5EED + n);
    if (kind == Keys::seq) {
        for (size_t i = 0; i < n; ++i) slot->members.push_back(3 + i);
        for (size_t i = 0; i < n; ++i) slot->absent.push_back(3 + n + i);
    } else {
        std::unordered_set<U64> seen;
        while (slot->members.size() < n) {
            U64 const k = rng();
            if (seen.insert(k).second) slot->members.push_back(k);
        }
        while (slot->absent.size() < n) {
            U64 const k = rng();
            if (seen.insert(k).second) slot->absent.push_back(k);
        }
    }
    slot->shuffled = slot->members;
    std::shuffle(slot->shuffled.begin(), slot->shuffled.end(), rng);
    std::shuffle(slot->absent.begin(), slot->absent.end(), rng);
    return *slot;
}

template <class M>
void fill(M& m, KeySet const& keys) {
    for (U64 k : keys.members) m.insert(k, k + 1);
}

// One built map per (map type, keys, size), kept for the lookup and walk runs.
template <class M>
M const& builtMap(Keys kind, size_t n) {
    static std::map<std::pair<Keys, size_t>, std::unique_ptr<M>> cache;
    auto& slot = cache[{kind, n}];
    if (!slot) {
        slot = std::make_unique<M>();
        fill(*slot, keySet(kind, n));
    }
    return *slot;
}

void perOp(benchmark::State& state, size_t opsPerIteration) {
    state.SetItemsProcessed(state.iterations() * opsPerIteration);
    state.counters["op"] = benchmark::Counter(double(state.iterations() * opsPerIteration),
                                              benchmark::Counter::kIsRate |
                                                  benchmark::Counter::kInvert);
}

using Clock = std::chrono::steady_clock;
double seconds(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

template <class M>
void insertAll(benchmark::State& state, Keys kind, size_t n) {
    KeySet const& keys = keySet(kind, n);
    for (auto _ : state) {
        auto m = std::make_unique<M>();
        auto const start = Clock::now();
        fill(*m, keys);
        auto const stop = Clock::now();
        state.SetIterationTime(seconds(start, stop));
        m.reset();
    }
    perOp(state, n);
}

template <class M>
void lookup(benchmark::State& state, Keys kind, size_t n, bool hit) {
    KeySet const& keys = keySet(kind, n);
    M const& m = builtMap<M>(kind, n);
    std::vector<U64> const& probes = hit ? keys.shuffled : keys.absent;
    size_t i = 0;
    U64 sum = 0;
    for (auto _ : state) {
        sum += m.find(probes[i]);
        if (++i == probes.size()) i = 0;
    }
    benchmark::DoNotOptimize(sum);
    perOp(state, 1);
}

template <class M>
void eraseAll(benchmark::State& state, Keys kind, size_t n) {
    KeySet const& keys = keySet(kind, n);
    for (auto _ : state) {
        auto m = std::make_unique<M>();
        fill(*m, keys);
        auto const start = Clock::now();
        for (U64 k : keys.shuffled) m->erase(k);
        auto const stop = Clock::now();
        state.SetIterationTime(seconds(start, stop));
        m.reset();
    }
    perOp(state, n);
}

template <class M>
void walk(benchmark::State& state, Keys kind, size_t n) {
    M const& m = builtMap<M>(kind, n);
    for (auto _ : state) benchmark::DoNotOptimize(m.sum());
    perOp(state, n);
}

// Small maps, the size of the via set of an adjacency: make one, insert every member, look
// each up once, destroy it.
template <class M>
void smallMap(benchmark::State& state, size_t n) {
    KeySet const& keys = keySet(Keys::random, n);
    U64 sum = 0;
    for (auto _ : state) {
        M m;
        fill(m, keys);
        for (U64 k : keys.shuffled) sum += m.find(k);
        benchmark::DoNotOptimize(m);
    }
    benchmark::DoNotOptimize(sum);
    perOp(state, n);
}

std::string sizeName(size_t n) { return std::to_string(n); }
char const* keysName(Keys k) { return k == Keys::seq ? "seq" : "random"; }

template <class M>
void registerOne(char const* op, Keys kind, size_t n) {
    std::string const name = std::string("HashMap") + op + "/" + keysName(kind) + "/" +
                             sizeName(n) + "/" + M::name;
    bool const big = n >= (1u << 20); // whole-map runs get a fixed, small iteration count
    std::string const o = op;
    benchmark::internal::Benchmark* b = nullptr;
    if (o == "Insert") {
        b = benchmark::RegisterBenchmark(name.c_str(), insertAll<M>, kind, n)->UseManualTime();
        if (big) b->Iterations(4);
        else b->MinTime(0.2);
    } else if (o == "Erase") {
        b = benchmark::RegisterBenchmark(name.c_str(), eraseAll<M>, kind, n)->UseManualTime();
        if (big) b->Iterations(3);
        else b->MinTime(0.2);
    } else if (o == "LookupHit") {
        b = benchmark::RegisterBenchmark(name.c_str(), lookup<M>, kind, n, true)->MinTime(0.2);
    } else if (o == "LookupMiss") {
        b = benchmark::RegisterBenchmark(name.c_str(), lookup<M>, kind, n, false)->MinTime(0.2);
    } else {
        b = benchmark::RegisterBenchmark(name.c_str(), walk<M>, kind, n);
        if (big) b->Iterations(20);
        else b->MinTime(0.2);
    }
    b->Unit(benchmark::kMicrosecond);
}

int registerAll() {
    // Lookups and walks first: their maps are built once, in a heap that no earlier run has
    // churned, so that every map type starts from the same allocator state.
    for (char const* op : {"LookupHit", "LookupMiss", "Walk", "Insert", "Erase"}) {
        for (Keys kind : {Keys::random, Keys::seq}) {
            for (size_t n : {size_t(1) << 10, size_t(1) << 16, size_t(1) << 20}) {
                registerOne<KalMap>(op, kind, n);
                if (std::string(op) == "Walk") registerOne<KalWalkMap>(op, kind, n);
                registerOne<StdMap>(op, kind, n);
                registerOne<AbslMap>(op, kind, n);
            }
        }
    }
    for (size_t n : {size_t(2), size_t(4), size_t(8)}) {
        auto reg = [n](auto fn, char const* map) {
            std::string const name = "HashMapSmall/random/" + std::to_string(n) + "/" + map;
            benchmark::RegisterBenchmark(name.c_str(), fn, n)->MinTime(0.2);
        };
        reg(smallMap<KalMap>, KalMap::name);
        reg(smallMap<StdMap>, StdMap::name);
        reg(smallMap<AbslMap>, AbslMap::name);
    }
    return 0;
}

int const registered = registerAll();

} // namespace
