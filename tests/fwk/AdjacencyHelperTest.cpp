// The adjacency helpers against real shared-memory forwarding tables: every operation with
// its exact trace texts, the assertion texts, one allocator for both families, a restart
// across real processes, and a seeded random run against a reference model.
#include "fwk/AdjacencyHelper.h"

#include "Kal/Tracing.h"
#include "Strata/StrataTable.h"

#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Ridge::Adjacency;
using Ridge::ViaSet;
using Ridge::Via6Set;
using Strata::Fib::FecId;
using Strata::Fib::ViaIndex;
using Strings = std::vector<Kal::String8>;
using RouteType = Routing::Fib::RouteType;

// A table name prefix of this test alone; its files go when the guard does.
struct Prefix {
    static inline int n = 0;
    std::string const name = "adjtest-" + std::to_string(::getpid()) + "-" + std::to_string(++n);
    Prefix() { Strata::StrataTable::removeFiles(name); }
    ~Prefix() { Strata::StrataTable::removeFiles(name); }
    std::string const& str() const { return name; }
};

Strata::Fib::Via via4(U32 host, U32 intf = 1) {
    return Strata::Fib::Via(Velnet::IpAddr(0x0A000000u | host),
               Velnet::IntfId(Velnet::IntfKind::ethernet_, intf), 0);
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
                                  Velnet::IntfId(Velnet::IntfKind::vlan_, 1 + h % 9), 0), 1);
    }
    s.typeIs(type);
    return s;
}

template <class Helper, class Routes, class Fib, class Tables>
void wire(Helper const& h, Routes const& routes, Fib const& fib, Tables const& tables,
          Ridge::AdjIndexAllocator::Ptr const& allocator) {
    h->routeStatusIs(routes);
    h->statusIs(fib);
    h->ridgeStatusIs(tables);
    h->adjIndexAllocatorIs(allocator);
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
        wire(h4, routes4, fib4, status4, allocator);
        wire(h6, routes6, fib6, status6, allocator);
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

// Create, find again, drop twice: traces and their levels, the FEC, the counts, and the
// fixed order of the table writes around the FEC commit and removal.
TEST(FibAdjacencyTest, LifecycleTracesCountsAndWriteOrderAroundTheFec) {
    Rig rig;
    Kal::Ptr<OrderWatch> w = new OrderWatch;
    w->fib = rig.fib4;
    w->notifierIs(rig.status4);
    w->hasNotificationActiveIs(true);
    Kal::TraceCapture capture("RidgeAdjacencyHelper/0-9");
    ViaSet const s = set4({1, 2}, Strata::Fib::forward_, 0x12345);
    U64 const index = rig.h4->doGetOrCreateFibAdjacency(s);
    EXPECT_EQ(index, 3u);
    Kal::String8 const get(
        "U64 Ridge::AdjacencyHelper::doGetOrCreateFibAdjacency(const Ridge::ViaSet&)");
    auto texts = capture.texts();
    auto records = capture.records();
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts[0], get + " adjType: 0");
    EXPECT_EQ(texts[1], get + ": New adj 0x3");
    EXPECT_EQ(texts[2].stringValue().rfind("Via: 10.0.0.", 0), 0u) << texts[2];
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
    EXPECT_EQ(rig.status4->adjIndexToViaSet(index), s);
    expectConsistent(*rig.status4, *rig.fib4);

    // Asking again takes a reference and writes nothing.
    capture.sink().recordDelAll();
    EXPECT_EQ(rig.h4->doGetOrCreateFibAdjacency(ViaSet(s)), index);
    EXPECT_EQ(capture.texts().back(), Kal::String8("Adjacency found. Index: 3, new refCount: 2"));
    EXPECT_EQ(capture.records().back().level, 2);
    EXPECT_EQ(rig.status4->adjacency(index)->refCount(), 2u);
    EXPECT_EQ(rig.fib4->fecs(), 1u);

    // The last reference removes the entries, then the FEC.
    capture.sink().recordDelAll();
    rig.h4->doDropRefOnFibAdjacency(index);
    EXPECT_TRUE(rig.fib4->fec(FecId(index)).has_value()) << "one reference left";
    rig.h4->doDropRefOnFibAdjacency(index);
    Kal::String8 const drop("void Ridge::AdjacencyHelper::doDropRefOnFibAdjacency(const U64&)");
    EXPECT_EQ(capture.texts(), (Strings{drop + " adjIndex 0x3", drop + " refCount 1",
                                        drop + " adjIndex 0x3", drop + " refCount 0"}));
    for (auto const& r : capture.records()) EXPECT_EQ(r.level, 4) << r.text;
    EXPECT_FALSE(rig.fib4->fec(FecId(index)).has_value());
    EXPECT_EQ(rig.status4->adjacencys() + rig.status4->viaSetToAdjacencys() +
                  rig.status4->adjIndexToViaSets(), 0u);
    EXPECT_EQ(w->seen, (std::vector<std::string>{"byViaSet", "viaSet", "adjacency fec", "byViaSet",
                                                 "viaSet", "adjacency fec"}));
}

TEST(FibAdjacencyTest, GroupIndicesOneAllocatorForBothFamiliesAndDelete) {
    Rig rig;
    U64 const group = rig.h4->doGetOrCreateFibAdjacency(set4({1}, Strata::Fib::nextHopGroup_, 7));
    EXPECT_EQ(group, (U64(Strata::Fib::nextHopGroupAdj_) << Strata::Fib::adjTypePos()) | 7);
    EXPECT_EQ(FecId(group).adjType(), Strata::Fib::nextHopGroupAdj_);
    EXPECT_TRUE(rig.fib4->fec(FecId(group)).has_value());
    EXPECT_EQ(rig.allocator->adjIndex(), 0u) << "a group index leaves the allocator alone";
    EXPECT_EQ(rig.h4->doGetOrCreateFibAdjacency(set4({1})), 3u);
    // IPv6 never uses the group form, and draws from the same allocator.
    EXPECT_EQ(rig.h6->doGetOrCreateFibAdjacency(set6({1}, Strata::Fib::nextHopGroup_)), 4u);
    EXPECT_EQ(rig.h4->doGetOrCreateFibAdjacency(set4({2})), 5u);
    EXPECT_TRUE(rig.fib6->fec(FecId(4)).has_value());
    EXPECT_FALSE(rig.fib4->fec(FecId(4)).has_value());
    rig.h6->doDropRefOnFibAdjacency(4);
    EXPECT_FALSE(rig.fib6->fec(FecId(4)).has_value());
    // Deleting ignores the count.
    for (int i = 0; i < 5; ++i) rig.h4->doGetOrCreateFibAdjacency(set4({2}));
    rig.h4->doDeleteFibAdjacency(5);
    EXPECT_EQ(rig.status4->adjacency(5), nullptr);
    EXPECT_EQ(rig.status4->viaSetToAdjacency(set4({2})), nullptr);
    EXPECT_EQ(rig.status4->adjIndexToViaSet(5), ViaSet());
    EXPECT_FALSE(rig.fib4->fec(FecId(5)).has_value());
    expectConsistent(*rig.status4, *rig.fib4);
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
    big.viaDel(big.viaIteratorConst().key());
    EXPECT_EQ(rig.fib4->fec(FecId(rig.h4->doGetOrCreateFibAdjacency(big)))->vias(), 128u);
}

struct AllocatorLog : Ridge::AdjIndexAllocator::NotifieeConst {
    int changes = 0;
    void onAdjIndex() override { ++changes; }
};

TEST(HostAdjacencyTest, CountedWithoutTheFibOnAllocatorIndicesThatSkipTheReservedOnes) {
    Rig rig;
    Kal::Ptr<AllocatorLog> log = new AllocatorLog;
    log->notifierIs(rig.allocator);
    log->hasNotificationActiveIs(true);
    auto host = Routing::Host::statusFactory("host");
    Kal::TraceCapture capture("RidgeAdjacencyHelper/0-9");
    ViaSet const s = set4({1}, Strata::Fib::nextHopGroup_, 7);
    U64 const index = rig.h4->doGetOrCreateHostAdjacency(s, host);
    EXPECT_EQ(index, 3u) << "host adjacencies always take an allocator index";
    Kal::String8 const get("U64 Ridge::AdjacencyHelper::doGetOrCreateHostAdjacency(const "
                           "Ridge::ViaSet&, const Routing::Host::Status::Ptr&)");
    EXPECT_EQ(capture.texts(), (Strings{get + " adjType: 5", get + ": New adj 0x3"}));
    EXPECT_EQ(capture.records()[0].level, 2);
    EXPECT_EQ(capture.records()[1].level, 4);
    EXPECT_EQ(rig.h4->doGetOrCreateHostAdjacency(s, host), index);
    EXPECT_EQ(rig.fib4->fecs(), 0u);
    rig.h4->doDropRefOnHostAdjacency(host, index);
    EXPECT_EQ(host->adjacency(index)->refCount(), 1u);
    capture.sink().recordDelAll();
    rig.h4->doDropRefOnHostAdjacency(host, index);
    Kal::String8 const drop("void Ridge::AdjacencyHelper::doDropRefOnHostAdjacency(const "
                            "Routing::Host::Status::Ptr&, const U64&)");
    EXPECT_EQ(capture.texts(), (Strings{drop + " adjIndex 0x3", drop + " refCount 0"}));
    EXPECT_EQ(host->adjacencys() + host->viaSetToAdjacencys() + host->adjIndexToViaSets(), 0u);
    EXPECT_EQ(rig.fib4->fecs(), 0u);

    EXPECT_EQ(rig.allocator->maxAdjIndex(), 0xFFFFFFFFu);
    EXPECT_EQ(rig.h4->doGetOrCreateHostAdjacency(s, host), 4u);
    EXPECT_EQ(log->changes, 0) << "allocating an index notifies nobody";
    rig.allocator->adjIndexIs(0xFFFFFFFFu);
    EXPECT_EQ(rig.h4->doGetOrCreateHostAdjacency(set4({2}), host), 3u);
    rig.allocator->adjIndexIs(1);
    EXPECT_EQ(rig.h4->doGetOrCreateHostAdjacency(set4({3}), host), 3u) << "2 is reserved too";
    EXPECT_EQ(log->changes, 2);
    rig.allocator->adjIndexIs(3);
    EXPECT_EQ(log->changes, 2) << "an unchanged value notifies nobody";
}

TEST(SyncRoutesTest, InstallsTheDropAdjacencyAndAdoptsTheFecsOfAdoptableRouteTypes) {
    Rig rig;
    Kal::TraceCapture capture("RidgeAdjacencyHelper/0");
    Kal::String8 const sync("void Ridge::AdjacencyHelper::doSyncRoutes()");
    rig.h4->doSyncRoutes();
    EXPECT_EQ(capture.texts(), (Strings{sync, "Updated AdjIndex helper: 2"}));
    EXPECT_EQ(rig.allocator->adjIndex(), 2u);
    EXPECT_EQ(rig.status4->adjacency(1)->refCount(), 1u);
    EXPECT_EQ(rig.status4->adjIndexToViaSet(1), ViaSet());
    auto const drop = rig.fib4->fec(FecId(Strata::Fib::ipv4DropFecId_));
    ASSERT_TRUE(drop.has_value());
    EXPECT_EQ(drop->fecType(), Strata::Fib::drop_);
    EXPECT_EQ(drop->nexthopGroupId(), 0xFFFFu);
    EXPECT_EQ(drop->vias(), 0u);

    for (U64 id : {40, 41, 90}) {
        Strata::Fib::Fec fec{FecId(id)};
        fec.viaIs(ViaIndex(0), via4(U32(id)));
        fec.viaIs(ViaIndex(1), via4(U32(id))); // an equal via is adopted once
        fec.viaIs(ViaIndex(2), via4(2));
        fec.nexthopGroupIdIs(U16(id + 1));
        fec.fecTypeIs(Strata::Fib::attached_);
        rig.fib4->fecIs(fec);
    }
    auto route = [&](char const* p, U64 fec, RouteType t) {
        rig.routes4->routeIs(Strata::Fib::Route(Velnet::Prefix::fromString(p), FecId(fec), t));
    };
    route("10.0.0.1/32", 40, RouteType::kernel_);
    route("10.0.0.2/32", 41, RouteType::kernel_);
    route("10.0.0.3/32", 41, RouteType::receive_);
    route("10.9.0.0/16", 90, RouteType::ebgp_);
    route("10.8.0.0/16", 1, RouteType::attached_);
    capture.sink().recordDelAll();
    rig.h4->doSyncRoutes();
    Kal::String8 const construct(
        "void Ridge::AdjacencyHelper::doContructAdj(const Strata::Fib::FecId&)");
    EXPECT_EQ(capture.texts(), (Strings{sync, construct, construct, construct, construct,
                                        "Updated AdjIndex helper: 41"}));
    EXPECT_EQ(rig.status4->adjacency(40)->refCount(), 1u);
    EXPECT_EQ(rig.status4->adjacency(41)->refCount(), 2u) << "two routes on one FEC";
    EXPECT_EQ(rig.status4->adjacency(90), nullptr) << "a BGP route's FEC is not adopted";
    EXPECT_EQ(rig.status4->adjacency(1)->refCount(), 2u) << "rebuilt, then a route on it";
    auto const viaSet = rig.status4->adjIndexToViaSet(41);
    EXPECT_EQ(viaSet.vias(), 2u);
    EXPECT_EQ(viaSet.nhid(), 42u);
    EXPECT_EQ(viaSet.type(), Strata::Fib::attached_);
    EXPECT_EQ(rig.status4->viaSetToAdjacency(viaSet), rig.status4->adjacency(41));
    // An allocator already past the adopted indices is left alone.
    rig.allocator->adjIndexIs(100);
    capture.sink().recordDelAll();
    rig.h4->doSyncRoutes();
    EXPECT_EQ(rig.allocator->adjIndex(), 100u);
    EXPECT_EQ(capture.texts().size(), 5u) << "no update of the allocator";

    // IPv6 adopts its own route types onto its own drop adjacency.
    using R6 = Routing6::Fib::RouteType;
    for (auto [id, type] : {std::pair{50u, R6::attached_}, std::pair{51u, R6::connected_}}) {
        Strata::Fib6::Fec fec{FecId(id)};
        fec.viaIs(ViaIndex(0), set6({id}).viaIteratorConst().key());
        rig.fib6->fecIs(fec);
        rig.routes6->routeIs(Strata::Fib6::Route(
            Velnet::Ip6Prefix(Velnet::Ip6Addr(0x2001, 0xdb8, U16(id), 0, 0, 0, 0, 0), 48),
            FecId(id), type));
    }
    rig.allocator->adjIndexIs(0);
    rig.h6->doSyncRoutes();
    EXPECT_NE(rig.status6->adjacency(50), nullptr);
    EXPECT_EQ(rig.status6->adjacency(51), nullptr) << "connected routes are not adopted";
    ASSERT_NE(rig.status6->adjacency(2), nullptr);
    EXPECT_EQ(rig.fib6->fec(FecId(Strata::Fib::ipv6DropFecId_))->fecType(), Strata::Fib::drop_);
    EXPECT_EQ(rig.allocator->adjIndex(), 50u);
}

// Everything a family's adjacency tables hold, in their iteration order, as text.
template <class Tables> Strings contents(Tables const& t) {
    Strings out;
    auto text = [](auto const&... parts) {
        std::ostringstream os;
        ((os << parts << ' '), ...);
        return Kal::String8(os.str());
    };
    for (auto it = t.viaSetToAdjacencyIteratorConst(); it; ++it)
        out.push_back(text("byViaSet", it.key(), it.ptr()->index(), it.ptr()->refCount()));
    for (auto it = t.adjIndexToViaSetIteratorConst(); it; ++it)
        out.push_back(text("viaSet", it.key(), it.value()));
    for (auto it = t.adjacencyIteratorConst(); it; ++it)
        out.push_back(text("adjacency", it.key(), it.ptr()->index(), it.ptr()->refCount()));
    return out;
}

// Counts the table changes it hears; while it listens, the sync adopts route by route.
struct Listener : Ridge::Status::NotifieeConst {
    std::vector<std::string> heard;
    void onViaSetToAdjacency(ViaSet const&) override { heard.push_back("byViaSet"); }
    void onAdjIndexToViaSet(U64 const& k) override { heard.push_back("viaSet " + std::to_string(k)); }
    void onAdjacency(U64 const& k) override { heard.push_back("adjacency " + std::to_string(k)); }
};

// Nobody listening and tracing off, the sync adopts in bulk; a listener sees it adopt route
// by route. Both must leave the same tables: counts, equal via sets in different FECs (the
// via-set table names the adjacency made last), indices whose hashes tie, routes on missing
// FECs and on the drop FEC, a second sync on top of the first, and FEC tables where few or
// most FECs are named.
TEST(SyncRoutesTest, AdoptionInBulkLeavesWhatRouteByRouteAdoptionLeaves) {
    unsigned const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    for (U32 const unnamed : {0u, 3000u}) {
        SCOPED_TRACE("FECs no route names: " + std::to_string(unnamed));
        Prefix prefix;
        auto fib = Strata::Fib::ForwardingStatus::writer(prefix.str(),
                                                         Strata::FecCapacity::forFecs(8192));
        auto routes = Strata::Fib::RouteStatus::writer(prefix.str(), Strata::RouteCapacity{8192});
        std::vector<U64> ids;
        U64 const group = U64(Strata::Fib::nextHopGroupAdj_) << Strata::Fib::adjTypePos();
        for (U64 i = 3; i < 400; ++i) {
            ids.push_back(i);
            if (i % 7 == 0) ids.push_back((U64(1) << 32) | (i ^ 1)); // hashes like i
            if (i % 11 == 0) ids.push_back(group | i);
        }
        auto fecOf = [&](U64 id) {
            Strata::Fib::Fec fec{FecId(id)};
            // Few distinct vias: equal via sets in different FECs, repeated vias in one.
            for (U32 v = 0, n = rng() % 4; v < n; ++v)
                fec.viaIs(ViaIndex(v), via4(1 + rng() % 3, 1 + rng() % 2));
            fec.nexthopGroupIdIs(U16(rng() % 2));
            fec.fecTypeIs(rng() % 2 ? Strata::Fib::forward_ : Strata::Fib::attached_);
            fib->fecIs(fec);
        };
        for (U64 id : ids) fecOf(id);
        for (U32 i = 0; i < unnamed; ++i) fecOf(100000 + i);
        RouteType const types[] = {RouteType::kernel_, RouteType::attached_, RouteType::ebgp_,
                                   RouteType::receive_, RouteType::nexthopGroup_,
                                   RouteType::receiveBcast_};
        for (U32 r = 0; r < 3000; ++r) {
            U64 fec = ids[rng() % ids.size()];
            if (r % 50 == 0) fec = 1;           // the drop FEC
            if (r % 70 == 0) fec = 5000 + r;    // no such FEC
            routes->routeIs(Strata::Fib::Route(Velnet::Prefix(Velnet::IpAddr(0x0B000000u + (r << 8)), 24),
                                               FecId(fec), types[rng() % 6]));
        }
        auto helper = [&](char const* name) {
            auto h = Ridge::adjacencyHelperFactory(name);
            wire(h, routes, fib, Ridge::statusFactory(name), Ridge::adjIndexAllocatorFactory(name));
            return h;
        };
        auto bulk = helper("bulk");
        auto literal = helper("literal");
        Kal::Ptr<Listener> const listener = new Listener;
        listener->notifierIs(literal->ridgeStatus());
        listener->hasNotificationActiveIs(true);
        for (int round = 1; round <= 2; ++round) {
            SCOPED_TRACE("sync " + std::to_string(round));
            bulk->doSyncRoutes();
            literal->doSyncRoutes();
            Strings const built = contents(*bulk->ridgeStatus());
            ASSERT_EQ(built, contents(*literal->ridgeStatus()));
            EXPECT_GT(built.size(), 3 * 300u);
            EXPECT_EQ(bulk->adjIndexAllocator()->adjIndex(), literal->adjIndexAllocator()->adjIndex());
            for (auto it = bulk->ridgeStatus()->adjacencyIteratorConst(); it; ++it) {
                EXPECT_EQ(bulk->ridgeStatus()->adjIndexToViaSet(it.key()),
                          literal->ridgeStatus()->adjIndexToViaSet(it.key()));
            }
        }
        // The listener heard each adjacency made, its three tables in their order.
        ASSERT_GE(listener->heard.size(), 6u);
        EXPECT_EQ(listener->heard[0], "byViaSet") << "the drop adjacency";
        EXPECT_EQ(listener->heard[1], "viaSet 1");
        EXPECT_EQ(listener->heard[2], "adjacency 1");
        EXPECT_EQ(listener->heard[3], "byViaSet");
        EXPECT_EQ(listener->heard[4].substr(0, 7), "viaSet ");
        EXPECT_EQ(listener->heard[5], "adjacency " + listener->heard[4].substr(7));
    }
}

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

TEST(RestartTest, AdoptedFecsKeepTheirIndicesAfterTheWriterIsKilled) {
    Prefix prefix;
    auto attach = [&](char const* name) {
        auto helper = Ridge::adjacencyHelperFactory(name);
        wire(helper, Strata::Fib::RouteStatus::writer(prefix.str(), Strata::RouteCapacity{8192}),
             Strata::Fib::ForwardingStatus::writer(prefix.str(),
                                                   Strata::FecCapacity::forFecs(4096)),
             Ridge::statusFactory(name), Ridge::adjIndexAllocatorFactory(name));
        return helper;
    };
    int fromChild[2];
    ASSERT_EQ(::pipe(fromChild), 0);
    pid_t const pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // Process A: creates adjacencies for its routes, writes the routes, says it is done
        // and waits to be killed. Enough routes for the sync to adopt them in several batches.
        auto helper = attach("a");
        helper->doSyncRoutes();
        std::mt19937 rng(11);
        RouteType const types[] = {RouteType::kernel_, RouteType::attached_, RouteType::ebgp_,
                                   RouteType::receive_};
        for (U32 r = 0; r < 3000; ++r) {
            U64 const index = helper->doGetOrCreateFibAdjacency(set4({U32(1 + rng() % 60)}));
            helper->routeStatus()->routeIs(Strata::Fib::Route(
                Velnet::Prefix(Velnet::IpAddr(0x0B000000u + (r << 8)), 24), FecId(index),
                types[rng() % 4]));
        }
        (void)!::write(fromChild[1], "d", 1);
        for (;;) ::pause();
    }
    ::close(fromChild[1]);
    char done = 0;
    ASSERT_EQ(::read(fromChild[0], &done, 1), 1);
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    ::close(fromChild[0]);

    // Process B (this one): attaches and syncs.
    auto helper = attach("b");
    std::map<U64, U32> adoptable; // FEC index -> routes of adoptable types on it
    U32 highest = 2, routes = 0;
    for (auto it = helper->routeStatus()->routeIteratorConst(); it; ++it) {
        auto const t = it.routeType();
        if (t == RouteType::kernel_ || t == RouteType::attached_ || t == RouteType::receive_) {
            ++adoptable[it.fecId().value()];
            ++routes;
            highest = std::max(highest, U32(it.fecId().value()));
        }
    }
    ASSERT_GT(adoptable.size(), 10u);
    ASSERT_GT(routes, 2048u) << "too few routes for several batches";
    helper->doSyncRoutes();
    expectConsistent(*helper->ridgeStatus(), *helper->status());
    EXPECT_EQ(helper->ridgeStatus()->adjacencys(), adoptable.size() + 1) << "and the drop one";
    for (auto const& [index, count] : adoptable) {
        auto adj = helper->ridgeStatus()->adjacency(index);
        ASSERT_NE(adj, nullptr) << index;
        EXPECT_EQ(adj->refCount(), count) << index;
    }
    EXPECT_EQ(helper->adjIndexAllocator()->adjIndex(), highest);
    // New indices never collide with adopted ones.
    for (U32 i = 0; i < 50; ++i) {
        EXPECT_GT(helper->doGetOrCreateFibAdjacency(set4({1000 + i})), highest);
    }
}

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
            auto [entry, fresh] = model.try_emplace(hosts, index, 0);
            if (fresh) {
                EXPECT_TRUE(used.insert(index).second) << "given twice, step " << step;
            }
            EXPECT_EQ(index, entry->second.first);
            ++entry->second.second;
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
