// Strata tables beside LMDB, the usual alternative for shared-memory key-value state.
//
// Both sides hold the same records: FECs keyed by their 8-byte id, the value being the FEC's
// fields (type, next-hop-group id, vias); routes keyed by prefix. LMDB runs on /dev/shm with
// MDB_WRITEMAP | MDB_NOSYNC, one put and one commit per FEC, the way a table of independently
// published records would use it.
//
//   Commit/<vias>      write one FEC and publish it (Strata: direct-write slot filled with
//                      vias made beforehand, + fecCommit; LMDB: txn, put of a payload made
//                      beforehand, commit), cycling over 10000 ids: replacements
//   Delete             remove one FEC (refilled outside the timing when all are gone)
//   ReaderLookup       a reader in another process finds a random FEC of 4 vias and copies it
//                      out (Strata: fec(id, out); LMDB: renewed read txn, get, copy, reset);
//                      the child times batches and reports back through a pipe
//   RouteIterate       walk 1M routes (Strata: the route iterator; LMDB: a cursor in one txn)
//   BytesPerFec/<vias> shared memory per FEC of a table made for FECs of that size, against
//                      the FEC's payload (id 8 + type 1 + group id 2 + 12 per via)
//
// Targets: Strata commits at least 10x LMDB's; the reader lookup no slower than LMDB's; bytes
// per FEC within 2x of the payload for 1 to 8 vias.
#include "Strata/Strata.h"

#include <benchmark/benchmark.h>
#include <lmdb.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Strata::Fib::FecId;
using Clock = std::chrono::steady_clock;

constexpr U32 workingSet = 10000;

std::string uniquePrefix(char const* what) {
    static int n = 0;
    return std::string("stbench-") + what + "-" + std::to_string(::getpid()) + "-" + std::to_string(++n);
}

Strata::Fib::Via viaOf(U32 id, U32 i) {
    return Strata::Fib::Via(Velnet::IpAddr(10u << 24 | (id * 131 + i)),
                            Velnet::IntfId(Velnet::IntfKind::ethernet_, 1 + (id + i) % 1000), i);
}

// The payload LMDB stores for a FEC: type, group id, then the vias as they are.
std::vector<U8> payloadOf(U32 id, U32 vias) {
    std::vector<U8> p(3 + vias * sizeof(Strata::Fib::Via));
    p[0] = U8(Strata::Fib::forward_);
    U16 const nhg = U16(id);
    std::memcpy(&p[1], &nhg, 2);
    for (U32 i = 0; i < vias; ++i) {
        Strata::Fib::Via const v = viaOf(id, i);
        std::memcpy(&p[3 + i * sizeof v], &v, sizeof v);
    }
    return p;
}

std::unique_ptr<Strata::Fib::Fec> fecWithVias(U32 vias) {
    auto f = std::make_unique<Strata::Fib::Fec>();
    for (U32 i = 0; i < vias; ++i) f->viaIs(i, viaOf(0, i));
    return f;
}

// ---- LMDB ------------------------------------------------------------------------------------

void check(int rc, char const* what) {
    if (rc != MDB_SUCCESS) {
        std::fprintf(stderr, "%s: %s\n", what, mdb_strerror(rc));
        std::abort();
    }
}

class Lmdb {
  public:
    explicit Lmdb(std::string dir, bool readOnly = false, std::size_t mapSize = 1ull << 30)
        : dir_(std::move(dir)) {
        if (!readOnly) ::mkdir(dir_.c_str(), 0755);
        check(mdb_env_create(&env_), "mdb_env_create");
        check(mdb_env_set_mapsize(env_, mapSize), "mdb_env_set_mapsize");
        unsigned const flags = readOnly ? MDB_RDONLY : MDB_WRITEMAP | MDB_NOSYNC;
        check(mdb_env_open(env_, dir_.c_str(), flags, 0644), "mdb_env_open");
        MDB_txn* txn = nullptr;
        check(mdb_txn_begin(env_, nullptr, readOnly ? MDB_RDONLY : 0, &txn), "mdb_txn_begin");
        check(mdb_dbi_open(txn, nullptr, 0, &dbi_), "mdb_dbi_open");
        check(mdb_txn_commit(txn), "mdb_txn_commit");
        owner_ = !readOnly;
    }
    ~Lmdb() {
        mdb_env_close(env_);
        if (owner_) {
            std::remove((dir_ + "/data.mdb").c_str());
            std::remove((dir_ + "/lock.mdb").c_str());
            ::rmdir(dir_.c_str());
        }
    }
    MDB_env* env() const { return env_; }
    MDB_dbi dbi() const { return dbi_; }

    void put(void const* key, std::size_t keySize, void const* value, std::size_t size, MDB_txn* txn) {
        MDB_val k{keySize, const_cast<void*>(key)};
        MDB_val v{size, const_cast<void*>(value)};
        check(mdb_put(txn, dbi_, &k, &v, 0), "mdb_put");
    }
    void putCommit(void const* key, std::size_t keySize, void const* value, std::size_t size) {
        MDB_txn* txn = nullptr;
        check(mdb_txn_begin(env_, nullptr, 0, &txn), "mdb_txn_begin");
        put(key, keySize, value, size, txn);
        check(mdb_txn_commit(txn), "mdb_txn_commit");
    }

  private:
    std::string dir_;
    MDB_env* env_ = nullptr;
    MDB_dbi dbi_ = 0;
    bool owner_ = false;
};

std::string lmdbDir(char const* what) { return "/dev/shm/" + uniquePrefix(what) + ".lmdb"; }

// ---- a reader in another process ---------------------------------------------------------------

// A child process that, on each request byte, runs `batch` lookups and writes back the
// nanoseconds they took.
class ReaderChild {
  public:
    template <class Setup>
    ReaderChild(Setup setup) {
        int toChild[2], toParent[2];
        if (::pipe(toChild) != 0 || ::pipe(toParent) != 0) std::abort();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(toChild[1]);
            ::close(toParent[0]);
            auto lookups = setup(); // attach in the child, after the fork
            char c;
            while (::read(toChild[0], &c, 1) == 1) {
                U64 const ns = lookups();
                if (::write(toParent[1], &ns, sizeof ns) != sizeof ns) break;
            }
            ::_exit(0);
        }
        ::close(toChild[0]);
        ::close(toParent[1]);
        out_ = toChild[1];
        in_ = toParent[0];
    }
    ~ReaderChild() {
        ::close(out_);
        ::close(in_);
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
    // Runs one batch in the child; its duration in seconds.
    double batch() {
        char const c = 'g';
        U64 ns = 0;
        if (::write(out_, &c, 1) != 1 || ::read(in_, &ns, sizeof ns) != sizeof ns) std::abort();
        return double(ns) * 1e-9;
    }

  private:
    pid_t pid_ = -1;
    int out_ = -1;
    int in_ = -1;
};

constexpr U32 lookupBatch = 20000;

std::vector<U32> randomIds(U32 n, U32 seed) {
    std::mt19937 rng(seed);
    std::vector<U32> ids(n);
    for (auto& id : ids) id = rng() % workingSet;
    return ids;
}

// ---- FEC commits -----------------------------------------------------------------------------

void BM_StrataCommit(benchmark::State& state) {
    U32 const vias = U32(state.range(0));
    std::string const prefix = uniquePrefix("commit");
    {
        Strata::FecCapacity cap = Strata::FecCapacity::forFecs(workingSet);
        cap.classFecs[Strata::Fib::ForwardingStatus::fecClassOf(*fecWithVias(vias))] = workingSet;
        auto t = Strata::Fib::ForwardingStatus::writer(prefix, cap);
        // The vias are made beforehand, as LMDB's payloads are.
        std::vector<Strata::Fib::Via> viaTable;
        for (U32 id = 0; id < workingSet; ++id) {
            for (U32 i = 0; i < vias; ++i) viaTable.push_back(viaOf(id, i));
        }
        U32 id = 0;
        for (auto _ : state) {
            Strata::Fib::Fec* f = t->fecDirectWrite(FecId(100 + id));
            Strata::Fib::Via const* v = &viaTable[std::size_t(id) * vias];
            for (U32 i = 0; i < vias; ++i) f->viaIs(i, v[i]);
            f->nexthopGroupIdIs(U16(id));
            t->fecCommit(f);
            if (++id == workingSet) id = 0;
        }
        state.SetItemsProcessed(state.iterations());
    }
    Strata::StrataTable::removeFiles(prefix);
}
BENCHMARK(BM_StrataCommit)->Arg(1)->Arg(4)->Arg(16);

void BM_LmdbCommit(benchmark::State& state) {
    U32 const vias = U32(state.range(0));
    Lmdb db(lmdbDir("commit"));
    std::vector<std::vector<U8>> payloads;
    for (U32 id = 0; id < workingSet; ++id) payloads.push_back(payloadOf(id, vias));
    U32 id = 0;
    for (auto _ : state) {
        U64 const key = 100 + id;
        db.putCommit(&key, sizeof key, payloads[id].data(), payloads[id].size());
        if (++id == workingSet) id = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LmdbCommit)->Arg(1)->Arg(4)->Arg(16);

// ---- deletes ---------------------------------------------------------------------------------

void BM_StrataDelete(benchmark::State& state) {
    std::string const prefix = uniquePrefix("delete");
    {
        auto t = Strata::Fib::ForwardingStatus::writer(prefix, Strata::FecCapacity::forFecs(workingSet));
        auto fill = [&] {
            Strata::Fib::Fec f;
            for (U32 id = 0; id < workingSet; ++id) {
                f.fecIdIs(FecId(id));
                for (U32 i = 0; i < 4; ++i) f.viaIs(i, viaOf(id, i));
                t->fecIs(f);
            }
        };
        fill();
        U32 id = 0;
        for (auto _ : state) {
            t->fecDel(FecId(id));
            if (++id == workingSet) {
                state.PauseTiming();
                fill();
                id = 0;
                state.ResumeTiming();
            }
        }
        state.SetItemsProcessed(state.iterations());
    }
    Strata::StrataTable::removeFiles(prefix);
}
BENCHMARK(BM_StrataDelete);

void BM_LmdbDelete(benchmark::State& state) {
    Lmdb db(lmdbDir("delete"));
    auto fill = [&] {
        MDB_txn* txn = nullptr;
        check(mdb_txn_begin(db.env(), nullptr, 0, &txn), "mdb_txn_begin");
        for (U32 id = 0; id < workingSet; ++id) {
            U64 const key = id;
            auto const p = payloadOf(id, 4);
            db.put(&key, sizeof key, p.data(), p.size(), txn);
        }
        check(mdb_txn_commit(txn), "mdb_txn_commit");
    };
    fill();
    U32 id = 0;
    for (auto _ : state) {
        U64 const key = id;
        MDB_txn* txn = nullptr;
        check(mdb_txn_begin(db.env(), nullptr, 0, &txn), "mdb_txn_begin");
        MDB_val k{sizeof key, const_cast<U64*>(&key)};
        check(mdb_del(txn, db.dbi(), &k, nullptr), "mdb_del");
        check(mdb_txn_commit(txn), "mdb_txn_commit");
        if (++id == workingSet) {
            state.PauseTiming();
            fill();
            id = 0;
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LmdbDelete);

// ---- lookups by a reader in another process ---------------------------------------------------

void BM_StrataReaderLookup(benchmark::State& state) {
    std::string const prefix = uniquePrefix("lookup");
    auto t = Strata::Fib::ForwardingStatus::writer(prefix, Strata::FecCapacity::forFecs(workingSet));
    Strata::Fib::Fec f;
    for (U32 id = 0; id < workingSet; ++id) {
        f.fecIdIs(FecId(id));
        for (U32 i = 0; i < 4; ++i) f.viaIs(i, viaOf(id, i));
        t->fecIs(f);
    }
    {
        ReaderChild child([&] {
            auto r = Strata::Fib::ForwardingStatus::reader(prefix);
            auto ids = randomIds(lookupBatch, 7);
            auto out = std::make_shared<Strata::Fib::Fec>();
            return [r, ids, out] {
                auto const start = Clock::now();
                U32 found = 0;
                for (U32 id : ids) found += r->fec(FecId(id), *out);
                benchmark::DoNotOptimize(found);
                return U64(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
            };
        });
        for (auto _ : state) state.SetIterationTime(child.batch());
        state.SetItemsProcessed(state.iterations() * lookupBatch);
    }
    t = nullptr;
    Strata::StrataTable::removeFiles(prefix);
}
BENCHMARK(BM_StrataReaderLookup)->UseManualTime();

void BM_LmdbReaderLookup(benchmark::State& state) {
    std::string const dir = lmdbDir("lookup");
    Lmdb db(dir);
    {
        MDB_txn* txn = nullptr;
        check(mdb_txn_begin(db.env(), nullptr, 0, &txn), "mdb_txn_begin");
        for (U32 id = 0; id < workingSet; ++id) {
            U64 const key = id;
            auto const p = payloadOf(id, 4);
            db.put(&key, sizeof key, p.data(), p.size(), txn);
        }
        check(mdb_txn_commit(txn), "mdb_txn_commit");
    }
    {
        ReaderChild child([&] {
            auto r = std::make_shared<Lmdb>(dir, true);
            auto ids = randomIds(lookupBatch, 7);
            auto txn = std::make_shared<MDB_txn*>(nullptr);
            check(mdb_txn_begin(r->env(), nullptr, MDB_RDONLY, txn.get()), "mdb_txn_begin");
            mdb_txn_reset(*txn);
            return [r, ids, txn] {
                auto const start = Clock::now();
                U32 found = 0;
                U8 copy[512];
                for (U32 id : ids) {
                    U64 const key = id;
                    MDB_val k{sizeof key, const_cast<U64*>(&key)};
                    MDB_val v{};
                    check(mdb_txn_renew(*txn), "mdb_txn_renew");
                    if (mdb_get(*txn, r->dbi(), &k, &v) == MDB_SUCCESS) {
                        std::memcpy(copy, v.mv_data, std::min<std::size_t>(v.mv_size, sizeof copy));
                        ++found;
                    }
                    mdb_txn_reset(*txn);
                }
                benchmark::DoNotOptimize(found);
                benchmark::DoNotOptimize(copy);
                return U64(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
            };
        });
        for (auto _ : state) state.SetIterationTime(child.batch());
        state.SetItemsProcessed(state.iterations() * lookupBatch);
    }
}
BENCHMARK(BM_LmdbReaderLookup)->UseManualTime();

// ---- route iteration at 1M routes -------------------------------------------------------------

constexpr U32 millionRoutes = 1000000;

Strata::Fib::Route routeNo(U32 n) {
    return Strata::Fib::Route(Velnet::Prefix(Velnet::IpAddr(n << 8), 24), FecId(3 + n % 50000),
                              Routing::Fib::ebgp_);
}

void BM_StrataRouteIterate(benchmark::State& state) {
    std::string const prefix = uniquePrefix("routes");
    {
        auto t = Strata::Fib::RouteStatus::writer(prefix, Strata::RouteCapacity{millionRoutes});
        for (U32 n = 0; n < millionRoutes; ++n) t->routeIs(routeNo(n));
        auto r = Strata::Fib::RouteStatus::reader(prefix);
        for (auto _ : state) {
            U64 sum = 0;
            for (auto it = r->routeIteratorConst(); it; ++it) sum += it.fecId().value();
            benchmark::DoNotOptimize(sum);
        }
        state.SetItemsProcessed(state.iterations() * millionRoutes);
        state.counters["file_MB"] = double(t->fileBytes()) / 1e6;
    }
    Strata::StrataTable::removeFiles(prefix);
}
BENCHMARK(BM_StrataRouteIterate)->Unit(benchmark::kMillisecond);

void BM_LmdbRouteIterate(benchmark::State& state) {
    Lmdb db(lmdbDir("routes"));
    {
        MDB_txn* txn = nullptr;
        check(mdb_txn_begin(db.env(), nullptr, 0, &txn), "mdb_txn_begin");
        for (U32 n = 0; n < millionRoutes; ++n) {
            Strata::Fib::Route const r = routeNo(n);
            U64 const fec = r.fecId().value();
            U8 value[9];
            std::memcpy(value, &fec, 8);
            value[8] = U8(r.routeType());
            db.put(&r.prefix(), sizeof(Velnet::Prefix), value, sizeof value, txn);
        }
        check(mdb_txn_commit(txn), "mdb_txn_commit");
    }
    for (auto _ : state) {
        MDB_txn* txn = nullptr;
        check(mdb_txn_begin(db.env(), nullptr, MDB_RDONLY, &txn), "mdb_txn_begin");
        MDB_cursor* cur = nullptr;
        check(mdb_cursor_open(txn, db.dbi(), &cur), "mdb_cursor_open");
        MDB_val k{}, v{};
        U64 sum = 0;
        while (mdb_cursor_get(cur, &k, &v, MDB_NEXT) == MDB_SUCCESS) {
            U64 fec = 0;
            std::memcpy(&fec, v.mv_data, 8);
            sum += fec;
        }
        benchmark::DoNotOptimize(sum);
        mdb_cursor_close(cur);
        mdb_txn_abort(txn);
    }
    state.SetItemsProcessed(state.iterations() * millionRoutes);
}
BENCHMARK(BM_LmdbRouteIterate)->Unit(benchmark::kMillisecond);

// ---- shared memory per FEC -------------------------------------------------------------------

void BM_StrataBytesPerFec(benchmark::State& state) {
    U32 const vias = U32(state.range(0));
    U32 const fecs = 65536;
    std::string const prefix = uniquePrefix("bytes");
    Strata::Fib::Fec f;
    for (U32 i = 0; i < vias; ++i) f.viaIs(i, viaOf(1, i));
    // A table made for this many FECs of this size: their size class only.
    Strata::FecCapacity cap;
    cap.maxFecs = fecs;
    cap.classFecs[Strata::Fib::ForwardingStatus::fecClassOf(f)] = fecs;
    double bytes = 0;
    {
        auto t = Strata::Fib::ForwardingStatus::writer(prefix, cap);
        bytes = double(t->fileBytes()) / fecs;
        U32 id = 0;
        for (auto _ : state) {
            f.fecIdIs(FecId(id));
            t->fecIs(f);
            if (++id == fecs) id = 0;
        }
    }
    Strata::StrataTable::removeFiles(prefix);
    double const payload = double(sizeof(FecId) + 1 + 2 + vias * sizeof(Strata::Fib::Via));
    state.counters["shm_bytes_per_fec"] = bytes;
    state.counters["payload_bytes"] = payload;
    state.counters["ratio"] = bytes / payload;
}
BENCHMARK(BM_StrataBytesPerFec)->DenseRange(1, 8)->Iterations(65536);

} // namespace
