// Readers in other processes while a writer in yet another process rewrites FECs: every FEC a
// reader sees must be whole (one self-checking version, never a mix) and versions must never
// go backwards for a reader's lookups.
#include "StrataTestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using strata_test::smallFecCapacity;
using strata_test::TablePrefix;

struct FlipRun {
    std::string family;
    int ms;
    int readers;
};

// Starts the writer and the readers together, waits for all, and checks their reports.
void flipAndVerify(TablePrefix const& prefix, FlipRun const& run, U32 fecs) {
    std::vector<std::pair<pid_t, int>> children;
    int wout = -1;
    pid_t const writer = strata_test::spawnHelper(
        {"flip-writer", prefix, run.family, std::to_string(fecs), std::to_string(run.ms)}, &wout);
    for (int i = 0; i < run.readers; ++i) {
        int out = -1;
        pid_t const p = strata_test::spawnHelper(
            {"verify-reader", prefix, run.family, std::to_string(fecs), std::to_string(run.ms)},
            &out);
        children.emplace_back(p, out);
    }
    std::string const wtext = strata_test::drain(wout);
    EXPECT_EQ(strata_test::waitChild(writer), 0) << wtext;
    unsigned long long writes = 0;
    ASSERT_EQ(std::sscanf(wtext.c_str(), "writes %llu", &writes), 1) << wtext;
    EXPECT_GT(writes, fecs) << "the writer must have rewritten every FEC at least once";
    for (auto [pid, out] : children) {
        std::string const text = strata_test::drain(out);
        EXPECT_EQ(strata_test::waitChild(pid), 0) << "reader " << pid << ": " << text;
        unsigned long long reads = 0, bad = 0;
        ASSERT_EQ(std::sscanf(text.c_str(), "reads %llu bad %llu", &reads, &bad), 2) << text;
        EXPECT_GT(reads, 0u);
        EXPECT_EQ(bad, 0u);
        std::printf("reader %d: %s", int(pid), text.c_str());
    }
    std::printf("writer: %s", wtext.c_str());
}

TEST(StrataCrossProcessTest, ReadersSeeOnlyWholeFecsWhileTheWriterFlips) {
    // Each table is made here, then let go, so that the writer process attaches it existing.
    {
        TablePrefix prefix;
        Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(24, 24))->detach();
        flipAndVerify(prefix, FlipRun{"4", 1200, 3}, 24);
        auto t = Strata::Fib::ForwardingStatus::writer(prefix);
        t->validate();
        EXPECT_EQ(t->fecs(), 24u);
    }
    TablePrefix prefix;
    Strata::Fib6::ForwardingStatus::writer(prefix, smallFecCapacity(16, 16))->detach();
    flipAndVerify(prefix, FlipRun{"6", 800, 2}, 16);
    auto t = Strata::Fib6::ForwardingStatus::writer(prefix);
    t->validate();
    EXPECT_EQ(t->fecs(), 16u);
}

// A key whose slot another key borrows and gives back between a reader's look at the index
// and its look at the slot is still found: the reader notices that the slot changed under it.
TEST(StrataCrossProcessTest, ReadersFindARecordWhoseSlotAnotherKeyBorrowsAndGivesBack) {
    TablePrefix prefix;
    Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(2, 2))->detach();
    int wout = -1;
    pid_t const writer = strata_test::spawnHelper({"swap-writer", prefix, "1500"}, &wout);
    std::vector<std::pair<pid_t, int>> readers;
    for (int i = 0; i < 2; ++i) {
        int out = -1;
        pid_t const p = strata_test::spawnHelper({"verify-reader", prefix, "4", "2", "1500"}, &out);
        readers.emplace_back(p, out);
    }
    std::string const wtext = strata_test::drain(wout);
    EXPECT_EQ(strata_test::waitChild(writer), 0) << wtext;
    for (auto [pid, out] : readers) {
        std::string const text = strata_test::drain(out);
        EXPECT_EQ(strata_test::waitChild(pid), 0) << "reader " << pid << ": " << text;
        std::printf("reader %d: %s", int(pid), text.c_str());
    }
    std::printf("writer: %s", wtext.c_str());
}

TEST(StrataCrossProcessTest, LongFlipStress) {
    if (!strata_test::stressRequested()) GTEST_SKIP() << "set STRATA_STRESS=1 for the long run";
    TablePrefix prefix;
    U32 const fecs = 64;
    Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(fecs, fecs))->detach();
    flipAndVerify(prefix, FlipRun{"4", 20000, 4}, fecs);
}

} // namespace
