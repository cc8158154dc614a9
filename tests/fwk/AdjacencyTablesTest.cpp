// The adjacency tables, the host-route tables and sequence/vtime tracking.
#include "fwk/FibHelper.h"
#include "fwk/HostRoute.h"
#include "fwk/HostRoute6.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Ridge::Adjacency;
using Ridge::ViaSet;
using Strata::Fib::Via;

Via via(U32 host, U32 intf, U32 label = 0) {
    return Via(Velnet::IpAddr(0x0A000000u | host),
               Velnet::IntfId(Velnet::IntfKind::ethernet_, intf), label);
}

ViaSet setOf(std::vector<U32> hosts, U32 nhid = 0, U8 type = 0) {
    ViaSet s;
    for (U32 h : hosts) s.viaIs(via(h, h % 7 + 1), 1);
    s.nhidIs(nhid);
    s.typeIs(type);
    return s;
}

struct StatusLog : Ridge::Status::NotifieeConst {
    std::vector<std::string> calls;
    bool throws = false;
    void onAdjacency(U64 const& k) override {
        calls.push_back("adjacency " + std::to_string(k));
        if (throws) throw std::runtime_error("notifiee failed");
    }
    void onAdjIndexToViaSet(U64 const& k) override {
        calls.push_back("viaSet " + std::to_string(k));
    }
    void onViaSetToAdjacency(ViaSet const& s) override {
        calls.push_back("byViaSet " + std::to_string(s.nhid()));
    }
};

class StatusTest : public ::testing::Test {
  protected:
    StatusTest() {
        log_->notifierIs(status_);
        log_->hasNotificationActiveIs(true);
    }
    std::vector<std::string> calls() { return std::exchange(log_->calls, {}); }
    Ridge::Status::Ptr status_ = Ridge::statusFactory("v4");
    Kal::Ptr<StatusLog> log_ = new StatusLog;
};

using Calls = std::vector<std::string>;

TEST_F(StatusTest, WriteRulesOfThePointerTables) {
    Adjacency::Ptr a = new Adjacency;
    status_->adjacencyIs(5, nullptr);
    EXPECT_TRUE(calls().empty()) << "a null value on an absent key does nothing";
    status_->adjacencyIs(5, a);
    status_->adjacencyIs(5, a);
    EXPECT_EQ(calls(), Calls{"adjacency 5"}) << "the same adjacency twice notifies once";
    status_->adjacencyIs(5, nullptr);
    EXPECT_EQ(calls(), Calls{"adjacency 5"});
    EXPECT_EQ(status_->adjacency(5), nullptr);
    status_->adjacencyDel(7);
    EXPECT_TRUE(calls().empty());
    EXPECT_EQ(a->references(), 1u) << "removing an entry does not keep the adjacency";
}

TEST_F(StatusTest, ViaSetValuesAreReplacedWholeAndFoundByEqualSets) {
    ViaSet s = setOf({1, 2}, 1);
    ViaSet changed = s;
    changed.nhidIs(2);
    status_->adjIndexToViaSetIs(5, s);
    status_->adjIndexToViaSetIs(5, changed);
    status_->adjIndexToViaSetIs(5, changed);
    EXPECT_EQ(calls(), (Calls{"viaSet 5", "viaSet 5"}));
    EXPECT_EQ(status_->adjIndexToViaSet(5), changed);
    EXPECT_EQ(status_->adjIndexToViaSet(6), ViaSet()) << "absent: the default set";

    Adjacency::Ptr a = new Adjacency;
    status_->viaSetToAdjacencyIs(s, a);
    EXPECT_EQ(status_->viaSetToAdjacency(setOf({2, 1}, 1)), a) << "a separately built equal set";
    EXPECT_EQ(status_->viaSetToAdjacency(changed), nullptr);
}

TEST_F(StatusTest, ThrowingNotifieeDoesNotStopTheOthers) {
    Kal::Ptr<StatusLog> second = new StatusLog;
    second->notifierIs(status_);
    second->hasNotificationActiveIs(true);
    log_->throws = true;
    auto previous = Kal::notificationExceptionHookIs([](auto const&, auto) {});
    status_->adjacencyIs(1, new Adjacency);
    EXPECT_EQ(second->calls, Calls{"adjacency 1"});
    Kal::notificationExceptionHookIs(previous);
}

TEST(AdjacencyTest, CountsWrapSilently) {
    Adjacency::Ptr a = new Adjacency;
    EXPECT_EQ(a->index(), 0u);
    EXPECT_EQ(a->refCount(), 0u);
    a->refCountDec(1);
    EXPECT_EQ(a->refCount(), 4294967295u);
    a->refCountInc(2);
    EXPECT_EQ(a->refCount(), 1u);
}

TEST(ViaSetTableOrder, KeyOrderIsTheSameBeforeAndAfterGrowth) {
    Ridge::Status::Ptr status = Ridge::statusFactory("order");
    std::vector<ViaSet> sets;
    for (U32 i = 0; i < 40; ++i) sets.push_back(setOf({i, i + 100}, i));
    Adjacency::Ptr a = new Adjacency;
    auto order = [&] {
        std::vector<U32> out;
        for (auto it = status->viaSetToAdjacencyIteratorConst(); it; ++it)
            out.push_back(it.key().nhid());
        return out;
    };
    for (std::size_t i = 0; i < 8; ++i) status->viaSetToAdjacencyIs(sets[i], a);
    auto const small = order();
    U32 const smallBuckets = status->kalViaSetToAdjacency().buckets();
    for (std::size_t i = 8; i < sets.size(); ++i) status->viaSetToAdjacencyIs(sets[i], a);
    ASSERT_GT(status->kalViaSetToAdjacency().buckets(), smallBuckets) << "the table did not grow";
    auto big = order();
    // The first eight keep their relative order among all forty.
    std::vector<U32> firstEight;
    for (U32 n : big) {
        if (n < 8) firstEight.push_back(n);
    }
    EXPECT_EQ(firstEight, small);
    EXPECT_EQ(status->kalViaSetToAdjacency().verify(), "");
    // Order by (bit-reversed hash, key).
    U32 previous = 0;
    for (auto it = status->viaSetToAdjacencyIteratorConst(); it; ++it) {
        U32 const h = Kal::bitReverse(it.key().hash());
        EXPECT_LE(previous, h);
        previous = h;
    }
}

// ---- Sequence and vtime tracking ---------------------------------------------------------

struct SeqLog : Ridge::SeqInfo::NotifieeConst {
    std::vector<std::string> calls;
    void onSeqToVtime(U64 const& k) override { calls.push_back("seq " + std::to_string(k)); }
    void onLastSeq() override { calls.push_back("lastSeq"); }
};

TEST(SeqInfoTest, RecordsPairsInUnsignedOrderAndRefusesAnotherVtime) {
    auto info = Ridge::seqInfoFactory("seq");
    Kal::Ptr<SeqLog> log = new SeqLog;
    log->notifierIs(info);
    log->hasNotificationActiveIs(true);
    auto e = info->seqToVtimeIs(10, 100);
    EXPECT_EQ(info->seqToVtimeIs(10, 100), e);
    EXPECT_EQ(log->calls, Calls{"seq 10"});
    try {
        info->seqToVtimeIs(10, 101);
        FAIL();
    } catch (Kal::Exception const& x) {
        EXPECT_EQ(x.message(), Kal::String8("Reinstantiating the entity with name 10 where "
                                            "constructor parameter attribute _vtime has a "
                                            "different value of 101 than the current value of "
                                            "100 not allowed"));
    }
    EXPECT_EQ(info->seqToVtime(10)->vtime(), 100u);
    info->seqToVtimeIs(30, 1);
    info->seqToVtimeIs(1ull << 63, 2);
    info->seqToVtimeIs(20, 3);
    std::vector<U64> keys;
    for (auto it = info->seqToVtimeIteratorConst(); it; ++it) keys.push_back(it.key());
    EXPECT_EQ(keys, (std::vector<U64>{10, 20, 30, 1ull << 63}));
    log->calls.clear();
    info->seqToVtimeDel(99);
    info->lastSeqIs(5);
    info->lastSeqIs(5);
    EXPECT_EQ(log->calls, Calls{"lastSeq"});
    EXPECT_EQ(info->lastSeq(), 5u);
    EXPECT_EQ(info->maxVtime(), 0u) << "recording a pair leaves the marks alone";
}

// ---- Host route tables -------------------------------------------------------------------

struct HostLog : Routing::Host::Status::NotifieeConst {
    int routes = 0;
    void onRoute(Velnet::Prefix const&) override { ++routes; }
};

TEST(HostRouteTest, RouteWritesAndRemovals) {
    auto host = Routing::Host::statusFactory("host");
    Kal::Ptr<HostLog> log = new HostLog;
    log->notifierIs(host);
    log->hasNotificationActiveIs(true);
    auto const p = Velnet::Prefix::fromString("10.1.2.3/32");
    Strata::Fib::Route r(p, Strata::Fib::FecId(7), Routing::Fib::RouteType::receive_);
    host->routeIs(r);
    host->routeIs(r);
    EXPECT_EQ(log->routes, 1);
    Strata::Fib::Route other(p, Strata::Fib::FecId(8), Routing::Fib::RouteType::receive_);
    host->routeIs(other);
    EXPECT_EQ(log->routes, 2);
    EXPECT_EQ(host->route(p), other);
    EXPECT_EQ(host->routeDel(p), other);
    EXPECT_EQ(host->routeDel(p), Strata::Fib::Route()) << "absent: a default route";
    EXPECT_EQ(log->routes, 3);
    EXPECT_EQ(Kal::typeByName("Routing::Host::Status")->attr("route")->keyType()->name(),
              Kal::Name("Velnet::Prefix"));

    auto host6 = Routing6::Host::statusFactory("host6");
    auto const p6 = Velnet::Ip6Prefix::fromString("2001:db8::1/128");
    host6->routeIs(Strata::Fib6::Route(p6, Strata::Fib::FecId(9),
                                       Routing6::Fib::RouteType::attached_));
    EXPECT_EQ(host6->route(p6).fecId(), Strata::Fib::FecId(9));
    Ridge::Via6Set s6;
    s6.viaIs(Strata::Fib6::Via(Velnet::Ip6Addr::fromString("fe80::1"),
                               Velnet::IntfId(Velnet::IntfKind::vlan_, 10), 0),
             1);
    Adjacency::Ptr a = new Adjacency;
    host6->viaSetToAdjacencyIs(s6, a);
    EXPECT_EQ(host6->viaSetToAdjacency(s6), a);
}

} // namespace
