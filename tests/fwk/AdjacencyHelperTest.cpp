// The adjacency helpers against real shared-memory forwarding tables: every operation with
// its exact trace texts, the assertion texts, one allocator for both families, a restart
// across real processes, and a seeded random run against a reference model.
#include "fwk/AdjacencyHelper.h"

#include "Kal/Tracing.h"
#include "Strata/StrataTable.h"

#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Ridge::Adjacency;
using Ridge::ViaSet;
using Ridge::Via6Set;
using Strata::Fib::FecId;
using Strata::Fib::Via;
using Strata::Fib::ViaIndex;
using Strings = std::vector<Kal::String8>;

// A table name prefix of this test alone; its files go when the guard does.
class Prefix {
  public:
    Prefix() {
        static int n = 0;
        name_ = "adjtest-" + std::to_string(::getpid()) + "-" + std::to_string(++n);
        Strata::StrataTable::removeFiles(name_);
    }
    ~Prefix() { Strata::StrataTable::removeFiles(name_); }
    std::string const& str() const { return name_; }

  private:
    std::string name_;
};

Via via4(U32 host, U32 intf = 1, U32 label = 0) {
    return Via(Velnet::IpAddr(0x0A000000u | host), Velnet::IntfId(Velnet::IntfKind::ethernet_, intf),
               label);
}

ViaSet set4(std::vector<U32> hosts, U8 type = Strata::Fib::forward_, U32 nhid = 0) {
    ViaSet s;
    for (U32 h : hosts) s.viaIs(via4(h, 1 + h % 5), 1);
    s.typeIs(type);
    s.nhidIs(nhid);
    return s;
}

Via6Set set6(std::vector<U32> hosts, U8 type = Strata::Fib::forward_) {
    Via6Set s;
    for (U32 h : hosts) {
        s.viaIs(Strata::Fib6::Via(Velnet::Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 0, U16(h)),
                                  Velnet::IntfId(Velnet::IntfKind::vlan_, 1 + h % 9), 0),
                1);
    }
    s.typeIs(type);
    return s;
}

// The helpers of both families on fresh tables, sharing one allocator.
struct Rig {
    Prefix prefix;
    Strata::Fib::ForwardingStatus::Ptr fib4 =
        Strata::Fib::ForwardingStatus::writer(prefix.str(), Strata::FecCapacity::forFecs(4096));
    Strata::Fib::RouteStatus::Ptr routes4 =
        Strata::Fib::RouteStatus::writer(prefix.str(), Strata::RouteCapacity{8192});
    Strata::Fib6::ForwardingStatus::Ptr fib6 =
        Strata::Fib6::ForwardingStatus::writer(prefix.str(), Strata::FecCapacity::forFecs(1024));
    Strata::Fib6::RouteStatus::Ptr routes6 =
        Strata::Fib6::RouteStatus::writer(prefix.str(), Strata::RouteCapacity{1024});
    Ridge::AdjIndexAllocator::Ptr allocator = Ridge::adjIndexAllocatorFactory("alloc");
    Ridge::AdjacencyHelper::Ptr h4 = Ridge::adjacencyHelperFactory("h4");
    Ridge::Adjacency6Helper::Ptr h6 = Ridge::adjacency6HelperFactory("h6");
    Ridge::Status::Ptr status4 = Ridge::statusFactory("s4");
    Ridge::Status6::Ptr status6 = Ridge::status6Factory("s6");

    Rig() {
        h4->routeStatusIs(routes4);
        h4->statusIs(fib4);
        h4->ridgeStatusIs(status4);
        h4->adjIndexAllocatorIs(allocator);
        h6->routeStatusIs(routes6);
        h6->statusIs(fib6);
        h6->ridgeStatusIs(status6);
        h6->adjIndexAllocatorIs(allocator);
    }
};

// Every invariant between the three tables and the FEC table, for one family.
template <class Tables, class Fib>
void expectConsistent(Tables const& tables, Fib const& fib) {
    for (auto it = tables.adjacencyIteratorConst(); it; ++it) {
        U64 const index = it.key();
        Adjacency const* adj = it.ptr();
        SCOPED_TRACE("index " + std::to_string(index));
        EXPECT_EQ(adj->index(), index);
        EXPECT_GE(adj->refCount(), 1u);
        auto const viaSet = tables.adjIndexToViaSet(index);
        EXPECT_EQ(tables.viaSetToAdjacency(viaSet).ptr(), adj);
        auto const fec = fib.fec(FecId(index));
        ASSERT_TRUE(fec.has_value());
        EXPECT_EQ(fec->vias(), viaSet.vias());
    }
    EXPECT_EQ(tables.adjacencys(), tables.adjIndexToViaSets());
    EXPECT_EQ(tables.adjacencys(), tables.viaSetToAdjacencys());
}

TEST(AdjIndexAllocatorTest, AllocationSkipsTheReservedIndicesAndWrapsToThree) {
    Rig rig;
    EXPECT_EQ(rig.allocator->maxAdjIndex(), 0xFFFFFFFFu);
    EXPECT_EQ(rig.h4->doGetOrCreateHostAdjacency(set4({1}), Routing::Host::statusFactory("h")), 3u);
    rig.allocator->adjIndexIs(0xFFFFFFFFu);
    auto host = Routing::Host::statusFactory("host");
    EXPECT_EQ(rig.h4->doGetOrCreateHostAdjacency(set4({2}), host), 3u);
    rig.allocator->adjIndexIs(1);
    EXPECT_EQ(rig.h4->doGetOrCreateHostAdjacency(set4({3}), host), 3u) << "2 is reserved too";
    EXPECT_EQ(rig.allocator->maxAdjIndex(), 0xFFFFFFFFu);
}

struct AllocatorLog : Ridge::AdjIndexAllocator::NotifieeConst {
    int changes = 0;
    void onAdjIndex() override { ++changes; }
};

TEST(AdjIndexAllocatorTest, OnlyAnExplicitChangeNotifies) {
    Rig rig;
    Kal::Ptr<AllocatorLog> log = new AllocatorLog;
    log->notifierIs(rig.allocator);
    log->hasNotificationActiveIs(true);
    rig.allocator->adjIndexIs(0);
    EXPECT_EQ(log->changes, 0);
    rig.h4->doGetOrCreateFibAdjacency(set4({1}));
    EXPECT_EQ(log->changes, 0) << "allocating an index notifies nobody";
    rig.allocator->adjIndexIs(10);
    EXPECT_EQ(log->changes, 1);
}

TEST(FibAdjacencyTest, CreationTracesCommitsTheFecAndFilesTheTables) {
    Rig rig;
    Kal::TraceCapture capture("RidgeAdjacencyHelper/0-9");
    ViaSet const s = set4({1, 2}, Strata::Fib::forward_, 0x12345);
    U64 const index = rig.h4->doGetOrCreateFibAdjacency(s);
    EXPECT_EQ(index, 3u);
    auto const texts = capture.texts();
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts[0], Kal::String8("U64 Ridge::AdjacencyHelper::doGetOrCreateFibAdjacency(const "
                                     "Ridge::ViaSet&) adjType: 0"));
    EXPECT_EQ(texts[1], Kal::String8("U64 Ridge::AdjacencyHelper::doGetOrCreateFibAdjacency(const "
                                     "Ridge::ViaSet&): New adj 0x3"));
    EXPECT_EQ(texts[2].stringValue().rfind("Via: 10.0.0.", 0), 0u) << texts[2];
    auto const records = capture.records();
    EXPECT_EQ(records[0].level, 2);
    EXPECT_EQ(records[1].level, 4);
    EXPECT_EQ(records[2].level, 9);
    EXPECT_EQ(records[0].source, Kal::String8("AdjacencyHelper"));
    EXPECT_EQ(records[0].function, Kal::String8("doGetOrCreateFibAdjacency"));

    auto const fec = rig.fib4->fec(FecId(index));
    ASSERT_TRUE(fec.has_value());
    EXPECT_EQ(fec->vias(), 2u);
    EXPECT_EQ(fec->nexthopGroupId(), 0x2345u) << "the group id is the nhid cut to 16 bits";
    EXPECT_EQ(fec->fecType(), Strata::Fib::forward_);
    EXPECT_EQ(rig.status4->adjacency(index)->refCount(), 1u);
    EXPECT_EQ(rig.status4->adjIndexToViaSet(index), s);
    expectConsistent(*rig.status4, *rig.fib4);
}

TEST(FibAdjacencyTest, AskingAgainTakesAReferenceAndWritesNothing) {
    Rig rig;
    U64 const index = rig.h4->doGetOrCreateFibAdjacency(set4({1}));
    auto const fecs = rig.fib4->fecs();
    Kal::TraceCapture capture("RidgeAdjacencyHelper/0-9");
    EXPECT_EQ(rig.h4->doGetOrCreateFibAdjacency(set4({1})), index);
    EXPECT_EQ(capture.texts().back(), Kal::String8("Adjacency found. Index: 3, new refCount: 2"));
    EXPECT_EQ(rig.status4->adjacency(index)->refCount(), 2u);
    EXPECT_EQ(rig.fib4->fecs(), fecs);
}

TEST(FibAdjacencyTest, NextHopGroupSetsTakeTheGroupIndexAndLeaveTheAllocator) {
    Rig rig;
    U64 const index = rig.h4->doGetOrCreateFibAdjacency(set4({1}, Strata::Fib::nextHopGroup_, 7));
    EXPECT_EQ(index, (U64(Strata::Fib::nextHopGroupAdj_) << Strata::Fib::adjTypePos()) | 7);
    EXPECT_EQ(rig.allocator->adjIndex(), 0u);
    EXPECT_TRUE(rig.fib4->fec(FecId(index)).has_value());
    EXPECT_EQ(FecId(index).adjType(), Strata::Fib::nextHopGroupAdj_);
    // IPv6 never uses the group form.
    EXPECT_EQ(rig.h6->doGetOrCreateFibAdjacency(set6({1}, Strata::Fib::nextHopGroup_)), 3u);
}

TEST(FibAdjacencyTest, DroppingTheLastReferenceRemovesTheEntriesThenTheFec) {
    Rig rig;
    U64 const index = rig.h4->doGetOrCreateFibAdjacency(set4({1, 2}));
    rig.h4->doGetOrCreateFibAdjacency(set4({1, 2}));
    Kal::TraceCapture capture("RidgeAdjacencyHelper/4");
    rig.h4->doDropRefOnFibAdjacency(index);
    EXPECT_TRUE(rig.fib4->fec(FecId(index)).has_value()) << "one reference left";
    rig.h4->doDropRefOnFibAdjacency(index);
    EXPECT_EQ(capture.texts(),
              (Strings{"void Ridge::AdjacencyHelper::doDropRefOnFibAdjacency(const U64&) adjIndex 0x3",
                       "void Ridge::AdjacencyHelper::doDropRefOnFibAdjacency(const U64&) refCount 1",
                       "void Ridge::AdjacencyHelper::doDropRefOnFibAdjacency(const U64&) adjIndex 0x3",
                       "void Ridge::AdjacencyHelper::doDropRefOnFibAdjacency(const U64&) refCount 0"}));
    EXPECT_FALSE(rig.fib4->fec(FecId(index)).has_value());
    EXPECT_EQ(rig.status4->adjacencys(), 0u);
    EXPECT_EQ(rig.status4->viaSetToAdjacencys(), 0u);
    EXPECT_EQ(rig.status4->adjIndexToViaSets(), 0u);
}

// Watches the FEC table while the adjacency tables change: the FEC must be gone only after
// no table of ours names the index, and present before any table names a new one.
struct OrderWatch : Ridge::Status::NotifieeConst {
    Strata::Fib::ForwardingStatus::Ptr fib;
    std::vector<std::string> seen;
    void onAdjacency(U64 const& k) override {
        seen.push_back("adjacency " + std::string(fib->fec(FecId(k)) ? "fec" : "nofec"));
    }
    void onViaSetToAdjacency(ViaSet const&) override { seen.push_back("byViaSet"); }
    void onAdjIndexToViaSet(U64 const&) override { seen.push_back("viaSet"); }
};

TEST(FibAdjacencyTest, TablesAreWrittenInTheirFixedOrderAroundTheFec) {
    Rig rig;
    Kal::Ptr<OrderWatch> w = new OrderWatch;
    w->fib = rig.fib4;
    w->notifierIs(rig.status4);
    w->hasNotificationActiveIs(true);
    U64 const index = rig.h4->doGetOrCreateFibAdjacency(set4({5}));
    rig.h4->doDropRefOnFibAdjacency(index);
    EXPECT_EQ(w->seen, (std::vector<std::string>{"byViaSet", "viaSet", "adjacency fec", "byViaSet",
                                                 "viaSet", "adjacency fec"}));
}

TEST(FibAdjacencyTest, DeleteIgnoresTheCount) {
    Rig rig;
    U64 index = 0;
    for (int i = 0; i < 5; ++i) index = rig.h4->doGetOrCreateFibAdjacency(set4({9}));
    rig.h4->doDeleteFibAdjacency(index);
    EXPECT_EQ(rig.status4->adjacency(index), nullptr);
    EXPECT_FALSE(rig.fib4->fec(FecId(index)).has_value());
}

TEST(FibAdjacencyTest, TooManyViasLeaveNothingBehind) {
    Rig rig;
    ViaSet big;
    for (U32 i = 0; i < 129; ++i) big.viaIs(via4(i + 1, 1 + i % 3), 1);
    try {
        rig.h4->doGetOrCreateFibAdjacency(big);
        FAIL() << "129 vias accepted";
    } catch (Kal::RangeException const& e) {
        EXPECT_EQ(e.message(),
                  Kal::String8("ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed"));
    }
    EXPECT_EQ(rig.status4->adjacencys(), 0u);
    EXPECT_EQ(rig.fib4->fecs(), 0u);
    // The table is usable again: the abandoned slot is gone.
    ViaSet full;
    for (U32 i = 0; i < 128; ++i) full.viaIs(via4(i + 1, 1 + i % 3), 1);
    U64 const index = rig.h4->doGetOrCreateFibAdjacency(full);
    EXPECT_EQ(rig.fib4->fec(FecId(index))->vias(), 128u);
}

TEST(FibAdjacencyTest, AdoptingTheSameFecTwiceCountsTwo) {
    Rig rig;
    Strata::Fib::Fec fec{FecId(40)};
    fec.viaIs(ViaIndex(0), via4(1));
    fec.viaIs(ViaIndex(1), via4(1)); // an equal via is adopted once
    fec.viaIs(ViaIndex(2), via4(2));
    fec.nexthopGroupIdIs(11);
    fec.fecTypeIs(Strata::Fib::attached_);
    rig.fib4->fecIs(fec);
    Kal::TraceCapture capture("RidgeAdjacencyHelper/0");
    rig.h4->doContructAdj(FecId(40));
    rig.h4->doContructAdj(FecId(40));
    EXPECT_EQ(capture.texts(),
              (Strings{"void Ridge::AdjacencyHelper::doContructAdj(const Strata::Fib::FecId&)",
                       "void Ridge::AdjacencyHelper::doContructAdj(const Strata::Fib::FecId&)"}));
    auto adj = rig.status4->adjacency(40);
    ASSERT_NE(adj, nullptr);
    EXPECT_EQ(adj->refCount(), 2u);
    auto const viaSet = rig.status4->adjIndexToViaSet(40);
    EXPECT_EQ(viaSet.vias(), 2u);
    EXPECT_EQ(viaSet.nhid(), 11u);
    EXPECT_EQ(viaSet.type(), Strata::Fib::attached_);
    EXPECT_EQ(rig.status4->viaSetToAdjacency(viaSet), adj);
}

// ---- Host adjacencies ----------------------------------------------------------------------

TEST(HostAdjacencyTest, HostAdjacenciesCountWithoutTheFib) {
    Rig rig;
    auto host = Routing::Host::statusFactory("host");
    Kal::TraceCapture capture("RidgeAdjacencyHelper/0-9");
    U64 const index = rig.h4->doGetOrCreateHostAdjacency(set4({1}, Strata::Fib::nextHopGroup_, 7),
                                                         host);
    EXPECT_EQ(index, 3u) << "host adjacencies always take an allocator index";
    EXPECT_EQ(capture.texts(),
              (Strings{"U64 Ridge::AdjacencyHelper::doGetOrCreateHostAdjacency(const "
                       "Ridge::ViaSet&, const Routing::Host::Status::Ptr&) adjType: 5",
                       "U64 Ridge::AdjacencyHelper::doGetOrCreateHostAdjacency(const "
                       "Ridge::ViaSet&, const Routing::Host::Status::Ptr&): New adj 0x3"}));
    EXPECT_EQ(rig.h4->doGetOrCreateHostAdjacency(set4({1}, Strata::Fib::nextHopGroup_, 7), host),
              index);
    EXPECT_EQ(rig.fib4->fecs(), 0u);
    rig.h4->doDropRefOnHostAdjacency(host, index);
    EXPECT_EQ(host->adjacency(index)->refCount(), 1u);
    capture.sink().recordDelAll();
    rig.h4->doDropRefOnHostAdjacency(host, index);
    EXPECT_EQ(capture.texts(),
              (Strings{"void Ridge::AdjacencyHelper::doDropRefOnHostAdjacency(const "
                       "Routing::Host::Status::Ptr&, const U64&) adjIndex 0x3",
                       "void Ridge::AdjacencyHelper::doDropRefOnHostAdjacency(const "
                       "Routing::Host::Status::Ptr&, const U64&) refCount 0"}));
    EXPECT_EQ(host->adjacencys(), 0u);
    EXPECT_EQ(host->viaSetToAdjacencys(), 0u);
    EXPECT_EQ(host->adjIndexToViaSets(), 0u);
    EXPECT_EQ(rig.fib4->fecs(), 0u);
}

// ---- Start-up sync and drop adjacencies ----------------------------------------------------

TEST(SyncRoutesTest, EmptyFibInstallsTheDropAdjacencyAndRaisesTheAllocatorToTwo) {
    Rig rig;
    Kal::TraceCapture capture("RidgeAdjacencyHelper/0");
    rig.h4->doSyncRoutes();
    EXPECT_EQ(capture.texts(), (Strings{"void Ridge::AdjacencyHelper::doSyncRoutes()",
                                        "Updated AdjIndex helper: 2"}));
    auto drop = rig.status4->adjacency(1);
    ASSERT_NE(drop, nullptr);
    EXPECT_EQ(drop->refCount(), 1u);
    EXPECT_EQ(rig.status4->adjIndexToViaSet(1), ViaSet());
    auto const fec = rig.fib4->fec(FecId(Strata::Fib::ipv4DropFecId_));
    ASSERT_TRUE(fec.has_value());
    EXPECT_EQ(fec->fecType(), Strata::Fib::drop_);
    EXPECT_EQ(fec->nexthopGroupId(), 0xFFFFu);
    EXPECT_EQ(fec->vias(), 0u);
    EXPECT_EQ(rig.h4->doGetOrCreateFibAdjacency(set4({1})), 3u);
}

TEST(SyncRoutesTest, AdoptsOnlyTheFecsOfAdoptableRouteTypes) {
    Rig rig;
    for (U64 id : {40, 41, 90}) {
        Strata::Fib::Fec fec{FecId(id)};
        fec.viaIs(ViaIndex(0), via4(U32(id)));
        rig.fib4->fecIs(fec);
    }
    auto route = [&](char const* p, U64 fec, Routing::Fib::RouteType t) {
        rig.routes4->routeIs(Strata::Fib::Route(Velnet::Prefix::fromString(p), FecId(fec), t));
    };
    route("10.0.0.1/32", 40, Routing::Fib::RouteType::kernel_);
    route("10.0.0.2/32", 41, Routing::Fib::RouteType::kernel_);
    route("10.0.0.3/32", 41, Routing::Fib::RouteType::receive_);
    route("10.9.0.0/16", 90, Routing::Fib::RouteType::ebgp_);
    route("10.8.0.0/16", 1, Routing::Fib::RouteType::attached_);
    Kal::TraceCapture capture("RidgeAdjacencyHelper/0");
    rig.h4->doSyncRoutes();
    EXPECT_EQ(rig.status4->adjacency(40)->refCount(), 1u);
    EXPECT_EQ(rig.status4->adjacency(41)->refCount(), 2u) << "two routes on one FEC";
    EXPECT_EQ(rig.status4->adjacency(90), nullptr) << "a BGP route's FEC is not adopted";
    EXPECT_EQ(rig.status4->adjacency(1)->refCount(), 2u) << "a route on the drop FEC";
    EXPECT_EQ(rig.allocator->adjIndex(), 41u);
    EXPECT_EQ(capture.texts().back(), Kal::String8("Updated AdjIndex helper: 41"));
    // An allocator already past the adopted indices is left alone.
    rig.allocator->adjIndexIs(100);
    capture.sink().recordDelAll();
    rig.h4->doSyncRoutes();
    EXPECT_EQ(rig.allocator->adjIndex(), 100u);
    for (auto const& t : capture.texts()) {
        EXPECT_EQ(t.stringValue().find("Updated AdjIndex"), std::string::npos);
    }
}

TEST(SyncRoutesTest, Ipv6AdoptsItsOwnRouteTypesAndItsDropAdjacency) {
    Rig rig;
    for (U64 id : {50, 51}) {
        Strata::Fib6::Fec fec{FecId(id)};
        fec.viaIs(ViaIndex(0), set6({U32(id)}).viaIteratorConst().key());
        rig.fib6->fecIs(fec);
    }
    rig.routes6->routeIs(Strata::Fib6::Route(Velnet::Ip6Prefix::fromString("2001:db8::/64"),
                                             FecId(50), Routing6::Fib::RouteType::attached_));
    rig.routes6->routeIs(Strata::Fib6::Route(Velnet::Ip6Prefix::fromString("2001:db9::/64"),
                                             FecId(51), Routing6::Fib::RouteType::connected_));
    rig.h6->doSyncRoutes();
    EXPECT_NE(rig.status6->adjacency(50), nullptr);
    EXPECT_EQ(rig.status6->adjacency(51), nullptr) << "connected routes are not adopted";
    ASSERT_NE(rig.status6->adjacency(2), nullptr);
    EXPECT_EQ(rig.fib6->fec(FecId(Strata::Fib::ipv6DropFecId_))->fecType(), Strata::Fib::drop_);
    EXPECT_EQ(rig.allocator->adjIndex(), 50u);
}

TEST(SyncRoutesTest, OneAllocatorServesBothFamilies) {
    Rig rig;
    EXPECT_EQ(rig.h4->doGetOrCreateFibAdjacency(set4({1})), 3u);
    EXPECT_EQ(rig.h4->doGetOrCreateFibAdjacency(set4({2})), 4u);
    EXPECT_EQ(rig.h6->doGetOrCreateFibAdjacency(set6({1})), 5u);
    EXPECT_TRUE(rig.fib6->fec(FecId(5)).has_value());
    rig.h6->doDropRefOnFibAdjacency(5);
    EXPECT_FALSE(rig.fib6->fec(FecId(5)).has_value());
}

TEST(SyncRoutesTest, CreateDropAdjacencyOverwritesWithoutLooking) {
    Rig rig;
    rig.h4->doCreateDropAdjacency();
    rig.status4->adjacency(1)->refCountInc(4);
    rig.h4->doCreateDropAdjacency();
    EXPECT_EQ(rig.status4->adjacency(1)->refCount(), 1u);
}

// ---- Assertions ----------------------------------------------------------------------------

TEST(AdjacencyHelperDeathTest, BrokenPreconditionsEndTheProcessWithTheirText) {
    Rig rig;
    auto bare = Ridge::adjacencyHelperFactory("bare");
    EXPECT_DEATH(bare->doGetOrCreateFibAdjacency(set4({1})), "status\\(\\)");
    bare->statusIs(rig.fib4);
    EXPECT_DEATH(bare->doGetOrCreateFibAdjacency(set4({1})), "ridgeStatus\\(\\)");
    EXPECT_DEATH(rig.h4->doDropRefOnFibAdjacency(77), "assertion failed: adj\n");
    U64 const index = rig.h4->doGetOrCreateFibAdjacency(set4({1}));
    rig.status4->adjacency(index)->refCountIs(0);
    EXPECT_DEATH(rig.h4->doGetOrCreateFibAdjacency(set4({1})), "adj->refCount\\(\\)");
    EXPECT_DEATH(rig.h4->doDropRefOnFibAdjacency(index), "adj->refCount\\(\\)");
    rig.status4->adjacency(index)->refCountIs(1);
    rig.status4->adjacency(index)->indexIs(0);
    EXPECT_DEATH(rig.h4->doGetOrCreateFibAdjacency(set4({1})), "adj->index\\(\\)");
    ViaSet two = set4({3});
    two.viaIs(via4(3, 4), 2);
    EXPECT_DEATH(rig.h4->doGetOrCreateFibAdjacency(two), "\\*iter == 1");
    EXPECT_DEATH(rig.h4->doGetOrCreateHostAdjacency(set4({1}), nullptr), "hostStatus");
}

// ---- Restart across processes --------------------------------------------------------------

TEST(RestartTest, AdoptedFecsKeepTheirIndicesAfterTheWriterIsKilled) {
    Prefix prefix;
    int fromChild[2];
    ASSERT_EQ(::pipe(fromChild), 0);
    pid_t const pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // Process A: creates adjacencies for its routes, writes the routes, says it is done
        // and waits to be killed.
        ::close(fromChild[0]);
        auto fib = Strata::Fib::ForwardingStatus::writer(prefix.str(),
                                                         Strata::FecCapacity::forFecs(4096));
        auto routes = Strata::Fib::RouteStatus::writer(prefix.str(), Strata::RouteCapacity{8192});
        auto helper = Ridge::adjacencyHelperFactory("a");
        helper->routeStatusIs(routes);
        helper->statusIs(fib);
        helper->ridgeStatusIs(Ridge::statusFactory("a"));
        helper->adjIndexAllocatorIs(Ridge::adjIndexAllocatorFactory("a"));
        helper->doSyncRoutes();
        std::mt19937 rng(11);
        Routing::Fib::RouteType const types[] = {Routing::Fib::RouteType::kernel_,
                                                 Routing::Fib::RouteType::attached_,
                                                 Routing::Fib::RouteType::ebgp_,
                                                 Routing::Fib::RouteType::receive_};
        // Enough routes for the sync to adopt them in several batches.
        for (U32 r = 0; r < 3000; ++r) {
            U64 const index = helper->doGetOrCreateFibAdjacency(set4({U32(1 + rng() % 60)}));
            routes->routeIs(Strata::Fib::Route(
                Velnet::Prefix(Velnet::IpAddr(0x0B000000u + (r << 8)), 24), FecId(index),
                types[rng() % 4]));
        }
        char const done = 'd';
        (void)!::write(fromChild[1], &done, 1);
        for (;;) ::pause();
    }
    ::close(fromChild[1]);
    char done = 0;
    ASSERT_EQ(::read(fromChild[0], &done, 1), 1);
    ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    ::close(fromChild[0]);

    // Process B (this one): attaches and syncs.
    auto fib = Strata::Fib::ForwardingStatus::writer(prefix.str(), Strata::FecCapacity::forFecs(4096));
    auto routes = Strata::Fib::RouteStatus::writer(prefix.str(), Strata::RouteCapacity{8192});
    std::map<U64, U32> adoptable; // FEC index -> routes of adoptable types on it
    U32 highest = 2;
    for (auto it = routes->routeIteratorConst(); it; ++it) {
        auto const t = it.routeType();
        if (t == Routing::Fib::RouteType::kernel_ || t == Routing::Fib::RouteType::attached_ ||
            t == Routing::Fib::RouteType::receive_) {
            ++adoptable[it.fecId().value()];
            highest = std::max(highest, U32(it.fecId().value()));
        }
    }
    ASSERT_GT(adoptable.size(), 10u);
    ASSERT_GT(std::accumulate(adoptable.begin(), adoptable.end(), 0u,
                              [](U32 sum, auto const& e) { return sum + e.second; }),
              2048u);
    auto helper = Ridge::adjacencyHelperFactory("b");
    auto tables = Ridge::statusFactory("b");
    helper->routeStatusIs(routes);
    helper->statusIs(fib);
    helper->ridgeStatusIs(tables);
    helper->adjIndexAllocatorIs(Ridge::adjIndexAllocatorFactory("b"));
    helper->doSyncRoutes();
    for (auto const& [index, count] : adoptable) {
        auto adj = tables->adjacency(index);
        ASSERT_NE(adj, nullptr) << index;
        EXPECT_EQ(adj->refCount(), count) << index;
        EXPECT_EQ(adj->index(), index);
        auto const fec = fib->fec(FecId(index));
        ASSERT_TRUE(fec.has_value());
        EXPECT_EQ(tables->adjIndexToViaSet(index).vias(), fec->vias());
    }
    EXPECT_EQ(helper->adjIndexAllocator()->adjIndex(), highest);
    // New indices never collide with adopted ones.
    for (U32 i = 0; i < 50; ++i) {
        U64 const index = helper->doGetOrCreateFibAdjacency(set4({1000 + i}));
        EXPECT_EQ(adoptable.count(index), 0u) << index;
        EXPECT_GT(index, highest);
    }
}

// ---- Random operations against a reference model -------------------------------------------

TEST(RandomAdjacencyTest, GetsAndDropsAgreeWithAReferenceModel) {
    unsigned const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    Rig rig;
    // The model: via set (by its host list) -> (index, references).
    std::map<std::vector<U32>, std::pair<U64, U32>> model;
    std::set<U64> used;
    for (int step = 0; step < 4000; ++step) {
        std::vector<U32> hosts;
        for (U32 n = 1 + rng() % 3; n; --n) hosts.push_back(1 + rng() % 25);
        std::sort(hosts.begin(), hosts.end());
        hosts.erase(std::unique(hosts.begin(), hosts.end()), hosts.end());
        auto it = model.find(hosts);
        if (rng() % 2 == 0 || it == model.end()) {
            U64 const index = rig.h4->doGetOrCreateFibAdjacency(set4(hosts));
            if (it == model.end()) {
                EXPECT_EQ(used.count(index), 0u) << "an index handed out twice at step " << step;
                used.insert(index);
                model[hosts] = {index, 1};
            } else {
                EXPECT_EQ(index, it->second.first);
                ++it->second.second;
            }
        } else {
            rig.h4->doDropRefOnFibAdjacency(it->second.first);
            if (--it->second.second == 0) {
                used.erase(it->second.first);
                model.erase(it);
            }
        }
        if (step % 500 == 0) expectConsistent(*rig.status4, *rig.fib4);
    }
    expectConsistent(*rig.status4, *rig.fib4);
    EXPECT_EQ(rig.status4->adjacencys(), model.size());
    EXPECT_EQ(rig.fib4->fecs(), model.size());
    for (auto const& [hosts, entry] : model) {
        auto adj = rig.status4->viaSetToAdjacency(set4(hosts));
        ASSERT_NE(adj, nullptr);
        EXPECT_EQ(adj->index(), entry.first);
        EXPECT_EQ(adj->refCount(), entry.second);
    }
}

} // namespace
