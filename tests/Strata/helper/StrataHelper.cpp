// The other processes of the Strata cross-process tests, one command each:
//
//   flip-writer <prefix> <4|6> <fecs> <ms>    rewrites FECs 1..fecs with ever newer self-checking
//                                             versions (fecIs and the direct-write slot in turn)
//                                             for <ms> ms; prints "writes <n>"
//   verify-reader <prefix> <4|6> <fecs> <ms>  reads those FECs (lookups and walks) for <ms> ms and
//                                             checks every one; prints "reads <n> bad <n>";
//                                             exit 1 when any was bad
//   swap-writer <prefix> <ms>                 rewrites FECs 1 and 2 for <ms> ms so that they
//                                             keep lending each other a slot; prints "writes <n>"
//   churn <prefix> <seed> <journal>           random FEC and route writes and deletes until killed,
//                                             each logged to <journal> before ("B ...") and after
//                                             ("E") it runs
//   hold-writer <prefix>                      attaches the IPv4 FEC table for writing, prints
//                                             "ready" and waits until killed
//   reader-errors <prefix>                    attaches for reading and prints what each write
//                                             through the reader raises, one line each
//
// Exit status 0 on success, 1 for a failed check, 2 for a usage or table error.
#include "Strata/Strata.h"
#include "helper/SelfCheck.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace strata_test;
using Strata::Fib::FecId;
using Clock = std::chrono::steady_clock;

template <class Table>
int flipWriter(std::string const& prefix, U32 fecs, int ms) {
    using FecT = typename Table::Fec;
    auto t = Table::writer(prefix);
    std::vector<U32> version(fecs + 1, 0);
    auto f = std::make_unique<FecT>();
    U64 writes = 0;
    auto const end = Clock::now() + std::chrono::milliseconds(ms);
    while (Clock::now() < end) {
        for (U32 k = 1; k <= fecs; ++k) {
            U32 const v = ++version[k];
            if (v % 2) {
                makeSelfCheckFec(k, v, *f);
                t->fecIs(*f);
            } else {
                FecT* slot = t->fecDirectWrite(FecId(k));
                makeSelfCheckFec(k, v, *slot);
                t->fecCommit(slot);
            }
            ++writes;
        }
    }
    std::printf("writes %llu\n", static_cast<unsigned long long>(writes));
    return 0;
}

// FECs 1 and 2 moved between the 1-via and the 128-via size class so that FEC 2 borrows FEC 1's
// slot and gives it back before FEC 1 returns to it, again and again: a reader that looked at
// FEC 1's index entry before the borrow and at the slot during it must not take FEC 2's copy
// for a different key that shares FEC 1's hash. Versions 1 mod 4 have 128 vias, even ones 1.
int swapWriter(std::string const& prefix, int ms) {
    auto t = Strata::Fib::ForwardingStatus::writer(prefix);
    auto f = std::make_unique<Strata::Fib::Fec>();
    auto write = [&](U64 k, U32 v) {
        makeSelfCheckFec(k, v, *f);
        t->fecIs(*f);
    };
    write(1, 2);
    write(2, 1);
    U64 writes = 2;
    auto const end = Clock::now() + std::chrono::milliseconds(ms);
    for (U32 big = 5; Clock::now() < end; big += 4, writes += 4) {
        write(1, big);     // FEC 1 leaves its small slot S for a new big one
        write(2, big - 3); // FEC 2 takes S
        write(2, big);     // and gives it back
        write(1, big + 1); // FEC 1 returns to S: its index entry names S again
    }
    std::printf("writes %llu\n", static_cast<unsigned long long>(writes));
    return 0;
}

template <class Table>
int verifyReader(std::string const& prefix, U32 fecs, int ms) {
    using FecT = typename Table::Fec;
    auto t = Table::reader(prefix);
    auto f = std::make_unique<FecT>();
    auto scratch = std::make_unique<FecT>();
    std::vector<U32> lastSeen(fecs + 1, 0);
    std::mt19937 rng{U32(::getpid())};
    U64 reads = 0, bad = 0;
    auto const end = Clock::now() + std::chrono::milliseconds(ms);
    auto report = [&](U64 k, char const* what) {
        if (++bad <= 5) std::fprintf(stderr, "FEC %llu: %s\n", static_cast<unsigned long long>(k), what);
    };
    while (Clock::now() < end) {
        for (int i = 0; i < 256; ++i) {
            U32 const k = 1 + rng() % fecs;
            if (!t->fec(FecId(k), *f)) {
                // The writer never deletes: a FEC read once is there from then on, whichever
                // slots its copies move through.
                if (lastSeen[k]) report(k, "FEC seen before is missing");
                continue;
            }
            ++reads;
            U32 v = 0;
            if (!selfCheckFec(k, *f, *scratch, v)) {
                report(k, "torn or foreign FEC");
            } else if (v < lastSeen[k]) {
                report(k, "version went backwards");
            } else {
                lastSeen[k] = v;
            }
        }
        for (auto it = t->fecIteratorConst(); it; ++it) {
            ++reads;
            U64 const k = it.key().value();
            U32 v = 0;
            if (k < 1 || k > fecs || !selfCheckFec(k, *it, *scratch, v)) report(k, "torn FEC in a walk");
        }
    }
    std::printf("reads %llu bad %llu\n", static_cast<unsigned long long>(reads),
                static_cast<unsigned long long>(bad));
    return bad ? 1 : 0;
}

void journal(int fd, std::string const& line) {
    std::string const l = line + "\n";
    if (::write(fd, l.data(), l.size()) != ssize_t(l.size())) std::_Exit(2);
}

// Random changes forever; the parent kills us. Journal lines: the table's state when attached
// (above), then "B <op> <key> <version>" before an operation and "E" after it; ops: f (FEC
// stored by fecIs), d (FEC stored through the direct-write slot), x (FEC deleted), r (route
// stored), y (route deleted).
int churn(std::string const& prefix, U32 seed, std::string const& journalPath) {
    int const jfd = ::open(journalPath.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
    if (jfd < 0) return 2;
    Strata::FecCapacity capacity;
    capacity.maxFecs = 128;
    capacity.classFecs.fill(128); // any of the 128 keys may take any size
    auto fecs = Strata::Fib::ForwardingStatus::writer(prefix, capacity);
    auto routes = Strata::Fib::RouteStatus::writer(prefix, Strata::RouteCapacity{256});
    std::mt19937 rng(seed);
    // Versions continue from what the table holds, so that they keep increasing. What the
    // table holds now is journaled too ("R", a line "S f|r <key> <version>" per record, "A"):
    // it settles how the operation in flight when the last writer died turned out.
    std::vector<U32> fecVersion(129, 0), routeVersion(129, 0);
    auto scratch = std::make_unique<Strata::Fib::Fec>();
    std::string state = "R\n";
    for (auto it = fecs->fecIteratorConst(); it; ++it) {
        U32 v = 0;
        if (!selfCheckFec(it.key().value(), *it, *scratch, v)) return 1;
        fecVersion[it.key().value()] = v;
        state += "S f " + std::to_string(it.key().value()) + " " + std::to_string(v) + "\n";
    }
    for (auto it = routes->routeIteratorConst(); it; ++it) {
        U32 const k = (it.key().address().value() >> 8) & 0xFFFF;
        U32 v = 0;
        if (k >= routeVersion.size() || !selfCheckRouteOk(k, *it, v)) return 1;
        routeVersion[k] = v;
        state += "S r " + std::to_string(k) + " " + std::to_string(v) + "\n";
    }
    state += "A";
    journal(jfd, state);
    auto f = std::make_unique<Strata::Fib::Fec>();
    for (;;) {
        U32 const op = rng() % 10;
        U32 const k = 1 + rng() % 128;
        if (op < 4) {
            U32 const v = fecVersion[k] + 1 + rng() % 3;
            bool const direct = op % 2;
            journal(jfd, std::string("B ") + (direct ? "d " : "f ") + std::to_string(k) + " " +
                             std::to_string(v));
            if (direct) {
                auto* slot = fecs->fecDirectWrite(FecId(k));
                makeSelfCheckFec(k, v, *slot);
                fecs->fecCommit(slot);
            } else {
                makeSelfCheckFec(k, v, *f);
                fecs->fecIs(*f);
            }
            fecVersion[k] = v;
        } else if (op < 6) {
            journal(jfd, "B x " + std::to_string(k) + " 0");
            fecs->fecDel(FecId(k));
        } else if (op < 9) {
            U32 const v = routeVersion[k] + 1;
            journal(jfd, "B r " + std::to_string(k) + " " + std::to_string(v));
            routes->routeIs(selfCheckRoute(k, v));
            routeVersion[k] = v;
        } else {
            journal(jfd, "B y " + std::to_string(k) + " 0");
            routes->routeDel(selfCheckRoutePrefix(k));
        }
        journal(jfd, "E");
    }
}

int holdWriter(std::string const& prefix) {
    auto t = Strata::Fib::ForwardingStatus::writer(prefix, Strata::FecCapacity::forFecs(16));
    std::printf("ready\n");
    std::fflush(stdout);
    for (;;) ::pause(); // until killed
}

int readerErrors(std::string const& prefix) {
    auto t = Strata::Fib::ForwardingStatus::reader(prefix);
    auto r = Strata::Fib::RouteStatus::reader(prefix);
    auto f = std::make_unique<Strata::Fib::Fec>(FecId(1));
    auto attempt = [](char const* what, auto op) {
        try {
            op();
            std::printf("%s: accepted\n", what);
        } catch (Strata::Exception const& e) {
            std::printf("%s: %s %s\n", what, e.name(), e.msg().charPtr());
        }
    };
    attempt("fecIs", [&] { t->fecIs(*f); });
    attempt("fecDirectWrite", [&] { t->fecDirectWrite(FecId(1)); });
    attempt("fecCommit", [&] { t->fecCommit(f.get()); });
    attempt("fecDel", [&] { t->fecDel(FecId(1)); });
    attempt("routeIs", [&] { r->routeIs(selfCheckRoute(1, 1)); });
    attempt("routeDel", [&] { r->routeDel(selfCheckRoutePrefix(1)); });
    attempt("cleanup", [&] { t->cleanup(); });
    attempt("validateFiles", [&] { t->validateFiles(); });
    attempt("validate", [&] { t->validate(); });
    attempt("writerCounters", [&] { t->writerCounters(); });
    std::printf("fecs %u\n", t->fecs());
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> a(argv + 1, argv + argc);
    try {
        if (a.size() == 5 && a[0] == "flip-writer") {
            U32 const n = U32(std::stoul(a[3]));
            int const ms = std::stoi(a[4]);
            return a[2] == "6" ? flipWriter<Strata::Fib6::ForwardingStatus>(a[1], n, ms)
                               : flipWriter<Strata::Fib::ForwardingStatus>(a[1], n, ms);
        }
        if (a.size() == 5 && a[0] == "verify-reader") {
            U32 const n = U32(std::stoul(a[3]));
            int const ms = std::stoi(a[4]);
            return a[2] == "6" ? verifyReader<Strata::Fib6::ForwardingStatus>(a[1], n, ms)
                               : verifyReader<Strata::Fib::ForwardingStatus>(a[1], n, ms);
        }
        if (a.size() == 3 && a[0] == "swap-writer") return swapWriter(a[1], std::stoi(a[2]));
        if (a.size() == 4 && a[0] == "churn") return churn(a[1], U32(std::stoul(a[2])), a[3]);
        if (a.size() == 2 && a[0] == "hold-writer") return holdWriter(a[1]);
        if (a.size() == 2 && a[0] == "reader-errors") return readerErrors(a[1]);
    } catch (Strata::Exception const& e) {
        std::fprintf(stderr, "strata-helper: %s: %s\n", e.name(), e.msg().charPtr());
        return 2;
    }
    std::fprintf(stderr, "strata-helper: unknown command\n");
    return 2;
}
