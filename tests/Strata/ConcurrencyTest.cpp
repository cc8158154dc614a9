// Reader threads beside the writer's thread in one process, on the writer's own mapping and on
// a reader's: the same protocol as across processes, but where the thread sanitizer can watch
// every access (run this suite under the tsan preset).
#include "StrataTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace {

using Strata::Fib::FecId;
using strata_test::TablePrefix;

TEST(StrataConcurrencyTest, ThreadsReadWholeFecsWhileTheWriterFlipsAndDeletes) {
    TablePrefix prefix;
    U32 const fecs = 32;
    auto w = Strata::Fib::ForwardingStatus::writer(prefix, strata_test::smallFecCapacity(fecs, fecs));
    auto r = Strata::Fib::ForwardingStatus::reader(prefix);
    std::atomic<bool> stop{false};
    std::atomic<U64> reads{0}, bad{0}, writes{0};

    std::thread writer([&] {
        auto f = std::make_unique<Strata::Fib::Fec>();
        std::vector<U32> version(fecs + 1, 0);
        std::mt19937 rng(1);
        while (!stop.load(std::memory_order_relaxed)) {
            U32 const k = 1 + rng() % fecs;
            if (rng() % 8 == 0) {
                w->fecDel(FecId(k)); // deletes move index entries
                continue;
            }
            U32 const v = ++version[k];
            if (v % 2) {
                strata_test::makeSelfCheckFec(k, v, *f);
                w->fecIs(*f);
            } else {
                auto* slot = w->fecDirectWrite(FecId(k));
                strata_test::makeSelfCheckFec(k, v, *slot);
                w->fecCommit(slot);
            }
            writes.fetch_add(1, std::memory_order_relaxed);
        }
    });
    auto readLoop = [&](Strata::Fib::ForwardingStatus const& t, unsigned seed) {
        auto f = std::make_unique<Strata::Fib::Fec>();
        auto scratch = std::make_unique<Strata::Fib::Fec>();
        std::vector<U32> last(fecs + 1, 0);
        std::mt19937 rng(seed);
        while (!stop.load(std::memory_order_relaxed)) {
            U32 const k = 1 + rng() % fecs;
            U32 v = 0;
            if (t.fec(FecId(k), *f)) {
                reads.fetch_add(1, std::memory_order_relaxed);
                if (!strata_test::selfCheckFec(k, *f, *scratch, v) || v < last[k]) {
                    bad.fetch_add(1, std::memory_order_relaxed);
                }
                last[k] = v;
            }
            if (rng() % 64 == 0) {
                for (auto it = t.fecIteratorConst(); it; ++it) {
                    if (!strata_test::selfCheckFec(it.key().value(), *it, *scratch, v)) {
                        bad.fetch_add(1, std::memory_order_relaxed);
                    }
                }
            }
        }
    };
    std::vector<std::thread> readers;
    readers.emplace_back(readLoop, std::cref(*w), 2u); // the writer's own mapping
    readers.emplace_back(readLoop, std::cref(*w), 3u);
    readers.emplace_back(readLoop, std::cref(*r), 4u); // a read-only mapping
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    stop = true;
    writer.join();
    for (auto& t : readers) t.join();
    std::printf("writes %llu reads %llu\n", static_cast<unsigned long long>(writes.load()),
                static_cast<unsigned long long>(reads.load()));
    EXPECT_GT(writes.load(), 0u);
    EXPECT_GT(reads.load(), 0u);
    EXPECT_EQ(bad.load(), 0u);
    w->validate();
}

} // namespace
