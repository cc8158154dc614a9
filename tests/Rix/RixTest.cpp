// VRF names, the routing-support entities and writing kernel settings.
#include "Rix/ProcSys.h"
#include "Rix/Routing.h"
#include "Rix/VrfName.h"

#include "Kal/SerDes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

std::string readFile(std::string const& path) {
    std::ifstream f(path);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

TEST(VrfNameTest, HundredBytesAreTheLimit) {
    EXPECT_EQ(Ip::VrfName(std::string(100, 'v')).bytes(), 100u);
    try {
        Ip::VrfName(std::string(101, 'v'));
        FAIL() << "101 bytes accepted";
    } catch (Kal::RangeException const& e) {
        EXPECT_EQ(e.message(), Kal::String8("VrfName::bytes > 100 not allowed"));
    }
    EXPECT_TRUE(Ip::VrfName().isDefault());
    EXPECT_FALSE(Ip::VrfName("blue").isDefault());
    EXPECT_EQ(Ip::VrfName("default"), Ip::VrfName());
}

TEST(VrfNameTest, TextFormIsAQuotedNameAndRefusesLongOnes) {
    EXPECT_EQ(Kal::valueToStrep(Ip::VrfName("blue")), Kal::String8("'blue'"));
    EXPECT_EQ(Kal::strepToValue<Ip::VrfName>("'red'"), Ip::VrfName("red"));
    EXPECT_THROW(Kal::strepToValue<Ip::VrfName>("'" + std::string(101, 'x') + "'"),
                 Kal::RangeException);
    EXPECT_EQ(Kal::kalTypeOf<Ip::VrfName>().name(), Kal::Name("Ip::VrfName"));
}

struct ConfigWatcher : Routing::Config::NotifieeConst {
    int routings = 0;
    void onRouting() override { ++routings; }
};

struct HardwareWatcher : Routing::Hardware::Status::NotifieeConst {
    int supported = 0;
    void onVrfRoutingSupported() override { ++supported; }
};

TEST(RoutingEntitiesTest, FlagsNotifyOnChangeOnly) {
    auto config = Routing::configFactory("blue");
    Kal::Ptr<ConfigWatcher> w = new ConfigWatcher;
    w->notifierIs(config);
    w->hasNotificationActiveIs(true);
    config->routingIs(true);
    config->routingIs(true);
    config->routingIs(false);
    EXPECT_EQ(w->routings, 2);

    auto hw = Routing::Hardware::statusFactory("hw");
    Kal::Ptr<HardwareWatcher> h = new HardwareWatcher;
    h->notifierIs(hw);
    h->hasNotificationActiveIs(true);
    hw->vrfRoutingSupportedIs(true);
    EXPECT_EQ(h->supported, 1);

    auto info6 = Routing6::routingInfoFactory("v6");
    info6->routingIs(true);
    EXPECT_TRUE(info6->routing());
    for (char const* name : {"Routing::Config", "Routing::RoutingInfo", "Routing::Hardware::Status",
                             "Routing6::Config", "Routing6::RoutingInfo"}) {
        auto const* t = Kal::typeByName(name);
        ASSERT_NE(t, nullptr) << name;
        EXPECT_TRUE(t->isEntity());
    }
}

class ProcSysTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/ridge-procsys-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        previous_ = Rix::procSysRootIs(dir_);
    }
    void TearDown() override {
        Rix::procSysRootIs(previous_);
        std::filesystem::remove_all(dir_);
    }
    std::string dir_, previous_;
};

TEST_F(ProcSysTest, WritesTheValueUnderTheRoot) {
    char const* path = "/proc/sys/net/ipv6/conf/all/forwarding";
    EXPECT_TRUE(Rix::writeProcSys(path, "1"));
    EXPECT_EQ(readFile(dir_ + path), "1");
    EXPECT_TRUE(Rix::writeProcSys(path, "0"));
    EXPECT_EQ(readFile(dir_ + path), "0") << "a write replaces the setting, it does not append";
}

TEST_F(ProcSysTest, AFailedWriteReportsFalse) {
    // A directory where the file should be cannot be written.
    std::filesystem::create_directories(dir_ + "/proc/sys/blocked");
    EXPECT_FALSE(Rix::writeProcSys("/proc/sys/blocked", "1"));
}

} // namespace
