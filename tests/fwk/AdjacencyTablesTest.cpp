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

ViaSet setOf(std::vector<U32> hosts, U32 nhid = 0) {
    ViaSet s;
    for (U32 h : hosts) {
        s.viaIs(Via(Velnet::IpAddr(0x0A000000u | h),
                    Velnet::IntfId(Velnet::IntfKind::ethernet_, h % 7 + 1), 0), 1);
    }
    s.nhidIs(nhid);
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

using Calls = std::vector<std::string>;

// A notifiee of type N, registered with `notifier`.
template <class N, class Notifier>
Kal::Ptr<N> listener(Notifier const& notifier) {
    Kal::Ptr<N> n = new N;
    n->notifierIs(notifier);
    n->hasNotificationActiveIs(true);
    return n;
}

TEST(StatusTest, WriteRulesOfTheTablesAndAThrowingNotifiee) {
    Ridge::Status::Ptr status = Ridge::statusFactory("v4");
    auto log = listener<StatusLog>(status), second = listener<StatusLog>(status);
    auto calls = [&] { return std::exchange(log->calls, {}); };
    Adjacency::Ptr a = new Adjacency;
    status->adjacencyIs(5, nullptr);
    EXPECT_TRUE(calls().empty()) << "a null value on an absent key does nothing";
    status->adjacencyIs(5, a);
    status->adjacencyIs(5, a);
    EXPECT_EQ(calls(), Calls{"adjacency 5"}) << "the same adjacency twice notifies once";
    status->adjacencyIs(5, nullptr);
    EXPECT_EQ(calls(), Calls{"adjacency 5"});
    EXPECT_EQ(status->adjacency(5), nullptr);
    status->adjacencyDel(7);
    EXPECT_TRUE(calls().empty());
    EXPECT_EQ(a->references(), 1u) << "removing an entry does not keep the adjacency";

    // Via set values are replaced whole and found by equal sets.
    ViaSet s = setOf({1, 2}, 1), changed = setOf({1, 2}, 2);
    status->adjIndexToViaSetIs(5, s);
    status->adjIndexToViaSetIs(5, changed);
    status->adjIndexToViaSetIs(5, changed);
    EXPECT_EQ(calls(), (Calls{"viaSet 5", "viaSet 5"}));
    EXPECT_EQ(status->adjIndexToViaSet(5), changed);
    EXPECT_EQ(status->adjIndexToViaSet(6), ViaSet()) << "absent: the default set";
    status->viaSetToAdjacencyIs(s, a);
    EXPECT_EQ(calls(), Calls{"byViaSet 1"});
    EXPECT_EQ(status->viaSetToAdjacency(setOf({2, 1}, 1)), a) << "a separately built equal set";
    EXPECT_EQ(status->viaSetToAdjacency(changed), nullptr);

    // A throwing notifiee does not stop the others.
    log->throws = true;
    second->calls.clear();
    auto previous = Kal::notificationExceptionHookIs([](auto const&, auto) {});
    status->adjacencyIs(1, new Adjacency);
    EXPECT_EQ(second->calls, Calls{"adjacency 1"});
    Kal::notificationExceptionHookIs(previous);

    // Counts wrap silently.
    a = new Adjacency;
    EXPECT_EQ(a->index() + a->refCount(), 0u);
    a->refCountDec(1);
    EXPECT_EQ(a->refCount(), 4294967295u);
    a->refCountInc(2);
    EXPECT_EQ(a->refCount(), 1u);
}

TEST(ViaSetTableOrder, KeyOrderIsTheSameBeforeAndAfterGrowth) {
    Ridge::Status::Ptr status = Ridge::statusFactory("order");
    Adjacency::Ptr a = new Adjacency;
    auto order = [&] {
        std::vector<U32> out;
        for (auto it = status->viaSetToAdjacencyIteratorConst(); it; ++it)
            out.push_back(it.key().nhid());
        return out;
    };
    for (U32 i = 0; i < 8; ++i) status->viaSetToAdjacencyIs(setOf({i, i + 100}, i), a);
    auto const small = order();
    U32 const smallBuckets = status->kalViaSetToAdjacency().buckets();
    for (U32 i = 8; i < 40; ++i) status->viaSetToAdjacencyIs(setOf({i, i + 100}, i), a);
    ASSERT_GT(status->kalViaSetToAdjacency().buckets(), smallBuckets) << "the table did not grow";
    // The first eight keep their relative order among all forty.
    auto big = order();
    std::erase_if(big, [](U32 n) { return n >= 8; });
    EXPECT_EQ(big, small);
    EXPECT_EQ(status->kalViaSetToAdjacency().verify(), "");
    // Order by (bit-reversed hash, key).
    U32 previous = 0;
    for (auto it = status->viaSetToAdjacencyIteratorConst(); it; ++it) {
        U32 const h = Kal::bitReverse(it.key().hash());
        EXPECT_LE(previous, h);
        previous = h;
    }
}

struct SeqLog : Ridge::SeqInfo::NotifieeConst {
    std::vector<std::string> calls;
    void onSeqToVtime(U64 const& k) override { calls.push_back("seq " + std::to_string(k)); }
    void onLastSeq() override { calls.push_back("lastSeq"); }
};

TEST(SeqInfoTest, RecordsPairsInUnsignedOrderAndRefusesAnotherVtime) {
    auto info = Ridge::seqInfoFactory("seq");
    auto log = listener<SeqLog>(info);
    auto e = info->seqToVtimeIs(10, 100);
    EXPECT_EQ(info->seqToVtimeIs(10, 100), e);
    EXPECT_EQ(log->calls, Calls{"seq 10"});
    try {
        info->seqToVtimeIs(10, 101);
        ADD_FAILURE() << "another vtime accepted";
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

struct HostLog : Routing::Host::Status::NotifieeConst {
    int routes = 0;
    void onRoute(Velnet::Prefix const&) override { ++routes; }
};

TEST(HostRouteTest, RouteWritesAndRemovals) {
    auto host = Routing::Host::statusFactory("host");
    auto log = listener<HostLog>(host);
    auto const p = Velnet::Prefix::fromString("10.1.2.3/32");
    auto route = [&](U64 fec) {
        return Strata::Fib::Route(p, Strata::Fib::FecId(fec), Routing::Fib::RouteType::receive_);
    };
    host->routeIs(route(7));
    host->routeIs(route(7));
    EXPECT_EQ(log->routes, 1);
    Strata::Fib::Route const other = route(8);
    host->routeIs(other);
    EXPECT_EQ(log->routes, 2);
    EXPECT_EQ(host->route(p), other);
    EXPECT_EQ(host->routeDel(p), other);
    EXPECT_EQ(host->routeDel(p), Strata::Fib::Route()) << "absent: a default route";
    EXPECT_EQ(log->routes, 3);

    auto host6 = Routing6::Host::statusFactory("host6");
    auto const p6 = Velnet::Ip6Prefix::fromString("2001:db8::1/128");
    host6->routeIs(Strata::Fib6::Route(p6, Strata::Fib::FecId(9),
                                       Routing6::Fib::RouteType::attached_));
    EXPECT_EQ(host6->route(p6).fecId(), Strata::Fib::FecId(9));
}

} // namespace
