// The IPv4 routing state machine and its root.
#include "fwk/RoutingSm.h"

#include "Kal/Tracing.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Strings = std::vector<Kal::String8>;

// Counts every publication, changed or not.
class CountingInfo : public Routing::RoutingInfo {
  public:
    using Routing::RoutingInfo::RoutingInfo;
    int writes = 0;
    void routingIs(bool const& v) override {
        ++writes;
        Routing::RoutingInfo::routingIs(v);
    }
};

struct Inputs {
    Routing::Config::Ptr config = Routing::configFactory("cfg");
    Routing::Hardware::Status::Ptr hw = Routing::Hardware::statusFactory("hw");
    Kal::Ptr<CountingInfo> info = new CountingInfo("info");
    Inputs(bool routing, bool vrs) {
        config->routingIs(routing);
        hw->vrfRoutingSupportedIs(vrs);
    }
    Ridge::RoutingSm::Ptr machine(char const* vrf) const {
        return Ridge::RoutingSm::RoutingSmIs(Ip::VrfName(vrf), config, info, hw);
    }
};

TEST(RoutingSmTest, DecisionTable) {
    struct Row {
        char const* vrf;
        bool routing, vrs, published, forced;
    } const rows[] = {
        {"default", false, false, false, false}, {"default", false, true, false, false},
        {"default", true, false, true, false},   {"default", true, true, true, false},
        {"blue", false, true, false, false},     {"blue", false, false, false, true},
        {"blue", true, true, true, false},       {"blue", true, false, false, true},
    };
    for (Row const& r : rows) {
        SCOPED_TRACE(std::string(r.vrf) + " " + std::to_string(r.routing) + std::to_string(r.vrs));
        Inputs in(r.routing, r.vrs);
        in.info->routingIs(!r.published); // so that the publication is seen to change it
        in.info->writes = 0;
        Kal::TraceCapture capture("RidgeRoutingSm/0");
        auto sm = in.machine(r.vrf);
        EXPECT_EQ(in.info->routing(), r.published);
        EXPECT_EQ(in.info->writes, 1);
        EXPECT_EQ(capture.texts().back().stringValue().ends_with("forcing routing to false"),
                  r.forced);
    }
}

TEST(RoutingSmTest, ConstructionTracesAndPublishesOnce) {
    Inputs in(true, false);
    Kal::TraceCapture capture("RidgeRoutingSm/0");
    auto sm = in.machine("blue");
    EXPECT_EQ(capture.texts(),
              (Strings{"void Ridge::RoutingSm::handleRouting() for vrf blue not init!!",
                       "void Ridge::RoutingSm::handleRouting() for vrf blue not init!!",
                       "void Ridge::RoutingSm::handleInitialized() for vrf blue",
                       "void Ridge::RoutingSm::handleRouting() for vrf blue vrs is 0",
                       "void Ridge::RoutingSm::handleRouting() for vrf blue routingConfig says "
                       "routing is 1",
                       "void Ridge::RoutingSm::handleRouting() for vrf blue vrf routing not "
                       "supported, forcing routing to false"}));
    EXPECT_EQ(in.info->writes, 1);
    EXPECT_FALSE(in.info->routing());
    auto const records = capture.records();
    EXPECT_EQ(records[0].source, Kal::String8("RoutingSm"));
    EXPECT_EQ(records[0].function, Kal::String8("handleRouting"));
    EXPECT_EQ(records[0].object, Kal::String8("blue"));
}

TEST(RoutingSmTest, InputChangesRepublishWhileInitializedAndFollowTheCurrentInputs) {
    Inputs in(true, false);
    auto sm = in.machine("blue");
    in.hw->vrfRoutingSupportedIs(true);
    EXPECT_TRUE(in.info->routing());
    in.hw->vrfRoutingSupportedIs(false);
    EXPECT_FALSE(in.info->routing());
    in.config->routingIs(false);
    in.config->routingIs(false); // no change of the input: no pass
    EXPECT_EQ(in.info->writes, 4);

    // Re-pointing a reactor runs a pass against the new input, and the old one is let go.
    auto other = Routing::configFactory("other");
    other->routingIs(true);
    in.hw->vrfRoutingSupportedIs(true);
    sm->routingConfigIs(other);
    EXPECT_TRUE(in.info->routing());
    EXPECT_EQ(in.info->writes, 6);
    in.config->routingIs(true);
    EXPECT_EQ(in.info->writes, 6) << "the old config is no longer followed";
    EXPECT_EQ(in.config->references(), 1u);

    // A pass by reflection, a second handleInitialized: each publishes.
    Ridge::RoutingSm::GenericIf_ gi(sm.ptr());
    Kal::GenericValue r;
    gi.attributeOp(Kal::GenericIf::opOf(gi.attributeId("handleRouting"), Kal::GenericIf::call_),
                   {}, r);
    sm->handleInitialized();
    EXPECT_EQ(in.info->writes, 8);
    sm->initializedIs(false);
    Kal::TraceCapture capture("RidgeRoutingSm/0");
    other->routingIs(false);
    EXPECT_EQ(in.info->writes, 8);
    EXPECT_EQ(capture.texts(),
              Strings{"void Ridge::RoutingSm::handleRouting() for vrf blue not init!!"});

    sm->initializedIs(true);
    other->routingIs(true);
    EXPECT_EQ(in.info->writes, 9);
    sm = nullptr;
    other->routingIs(false);
    in.hw->vrfRoutingSupportedIs(false);
    EXPECT_EQ(in.info->writes, 9) << "a destroyed machine writes no more";
    EXPECT_EQ(other->references(), 1u);
    EXPECT_EQ(in.hw->references(), 1u);
}

struct RootLog : Ridge::RoutingSmRoot::NotifieeConst {
    int changes = 0;
    bool throws = false;
    void onRoutingSm() override {
        ++changes;
        if (throws) throw std::runtime_error("root notifiee failed");
    }
};

TEST(RoutingSmTest, RootReusesTheSameMachineAndRebuildsOnAnyChange) {
    Inputs in(true, true);
    auto root = Ridge::routingSmRootFactory("root");
    Kal::Ptr<RootLog> a = new RootLog, b = new RootLog;
    a->throws = true;
    for (auto const& n : {a, b}) n->notifierIs(root), n->hasNotificationActiveIs(true);
    auto quiet = Kal::notificationExceptionHookIs([](auto const&, auto) {});
    auto first = root->routingSmIs("blue", in.config, in.info, in.hw);
    EXPECT_EQ(a->changes + b->changes, 2) << "a throwing notifiee does not stop the next";
    EXPECT_EQ(root->routingSmIs(Ip::VrfName("blue"), in.config, in.info, in.hw), first);
    EXPECT_EQ(b->changes, 1) << "the same arguments: the same machine, nobody told";
    EXPECT_EQ(in.info->writes, 1);

    auto otherHw = Routing::Hardware::statusFactory("hw2");
    otherHw->vrfRoutingSupportedIs(true);
    auto second = root->routingSmIs("blue", in.config, in.info, otherHw);
    EXPECT_NE(second, first);
    EXPECT_EQ(root->routingSm(), second);
    EXPECT_EQ(b->changes, 2);
    EXPECT_EQ(in.info->writes, 2) << "the new machine publishes once while it is built";
    EXPECT_EQ(first->references(), 1u) << "the root released the old machine";

    root->routingSmDel();
    root->routingSmDel();
    EXPECT_EQ(root->routingSm(), nullptr);
    EXPECT_EQ(b->changes, 3);
    Kal::notificationExceptionHookIs(quiet);
}

TEST(RoutingSmTest, NotificationSwitchAndZombieArePassedToTheReactors) {
    Inputs in(true, true);
    auto sm = in.machine("default");
    sm->hasNotificationActiveIs(true);
    sm->hasNotificationActiveIs(false);
    in.config->routingIs(false);
    in.hw->vrfRoutingSupportedIs(false);
    EXPECT_EQ(in.info->writes, 1) << "both reactors were switched off";
    sm->hasNotificationActiveIs(true);
    in.config->routingIs(true);
    EXPECT_EQ(in.info->writes, 2);
    sm->kalDoZombieReactors(true);
    EXPECT_TRUE(sm->kalRoutingConfigReactor()->kalDoZombieReactors());
    EXPECT_TRUE(sm->kalRoutingHardwareStatusReactor()->kalDoZombieReactors());
    EXPECT_TRUE(sm->kalMarkedForDeletion());
    EXPECT_NE(sm->kalFwkActivity(), nullptr);
}

TEST(RoutingSmTest, TypeDescriptionsCarryTheFrameworkAttributes) {
    auto const* t = Kal::typeByName("Ridge::RoutingSm");
    ASSERT_NE(t, nullptr);
    std::vector<std::string> names;
    for (auto it = t->attributeIteratorConst(); it; ++it) names.push_back(it->name().stringValue());
    EXPECT_EQ(names, (std::vector<std::string>{"vrfName", "routingConfig", "routingInfo",
                                               "routingHardwareStatus", "handleRouting",
                                               "initialized", "handleInitialized",
                                               "kalFwkActivity", "hasNotificationActiveIs",
                                               "kalDoZombieReactors"}));
    EXPECT_EQ(t->attr("routingHardwareStatus")->type().name(),
              Kal::Name("Routing::Hardware::Status"));
}

TEST(RoutingSmDeathTest, VrfNameLimitAndPublishingWithoutInfo) {
    Inputs in(true, true);
    EXPECT_NO_THROW(in.machine(std::string(100, 'v').c_str()));
    EXPECT_THROW(in.machine(std::string(101, 'v').c_str()), Kal::RangeException);
    EXPECT_DEATH(Ridge::RoutingSm::RoutingSmIs(Ip::VrfName("default"), in.config, nullptr, in.hw),
                 "routingConfig\\(\\) && routingInfo\\(\\)");
}

} // namespace
