// The IPv6 routing state machine, its root, and the kernel's IPv6 forwarding switch.
#include "fwk/Routing6Sm.h"

#include "Kal/Tracing.h"
#include "Rix/ProcSys.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

char const switchPath[] = "/proc/sys/net/ipv6/conf/all/forwarding";

std::string contentOf(std::string const& path) {
    std::ifstream f(path);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

class CountingInfo6 : public Routing6::RoutingInfo {
  public:
    using Routing6::RoutingInfo::RoutingInfo;
    int writes = 0;
    // What the switch held when the flag was written: the switch must come first.
    std::string switchAtWrite, root;
    void routingIs(bool const& v) override {
        ++writes;
        switchAtWrite = contentOf(root + switchPath);
        Routing6::RoutingInfo::routingIs(v);
    }
};

class Routing6SmTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/ridge-routing6-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        previous_ = Rix::procSysRootIs(dir_);
        info_->root = dir_;
    }
    void TearDown() override {
        Rix::procSysRootIs(previous_);
        std::filesystem::remove_all(dir_);
    }
    std::string kernelSwitch() const { return contentOf(dir_ + switchPath); }
    std::string dir_, previous_;
    Routing6::Config::Ptr config_ = Routing6::configFactory("cfg6");
    Kal::Ptr<CountingInfo6> info_ = new CountingInfo6("info6");
};

TEST_F(Routing6SmTest, EveryPassWritesTheSwitchThenPublishes) {
    config_->routingIs(true);
    Kal::TraceCapture capture("RidgeRouting6Sm/0");
    auto sm = Ridge::Routing6Sm::Routing6SmIs(config_, info_);
    EXPECT_EQ(kernelSwitch(), "1");
    EXPECT_EQ(info_->switchAtWrite, "1");
    EXPECT_TRUE(info_->routing());
    EXPECT_EQ(info_->writes, 1);
    ASSERT_EQ(capture.texts(),
              (std::vector<Kal::String8>{"void Ridge::Routing6Sm::handleRouting() enabled: 1"}));
    auto const r = capture.records()[0];
    EXPECT_EQ(r.object, Kal::String8("<unknown>"));
    EXPECT_EQ(r.function, Kal::String8("handleRouting"));
    EXPECT_EQ(r.source, Kal::String8("Routing6Sm"));

    config_->routingIs(false);
    EXPECT_EQ(kernelSwitch(), "0");
    EXPECT_EQ(info_->switchAtWrite, "0");
    EXPECT_FALSE(info_->routing());
    std::filesystem::remove(dir_ + switchPath);
    sm->handleRouting(); // the same value again still writes and publishes
    EXPECT_EQ(info_->writes, 3);
    EXPECT_EQ(kernelSwitch(), "0") << "written again, not only on change";

    // Initialization happens once and gates everything, a pass by reflection included.
    sm->handleInitialized();
    EXPECT_EQ(info_->writes, 3) << "a second handleInitialized does nothing";
    sm->initializedIs(false);
    std::filesystem::remove(dir_ + switchPath);
    capture.sink().recordDelAll();
    Ridge::Routing6Sm::GenericIf_ gi(sm.ptr());
    Kal::GenericValue result;
    gi.attributeOp(Kal::GenericIf::opOf(gi.attributeId("handleRouting"), Kal::GenericIf::call_),
                   {}, result);
    EXPECT_EQ(info_->writes, 3);
    EXPECT_TRUE(capture.texts().empty()) << "no trace before initialization";
    EXPECT_FALSE(std::filesystem::exists(dir_ + switchPath));
}

TEST_F(Routing6SmTest, RootReusesByIdentity) {
    auto root = Ridge::routing6SmRootFactory("root6");
    auto first = root->routing6SmIs(config_, info_);
    EXPECT_EQ(root->routing6SmIs(config_, info_), first);
    auto second = root->routing6SmIs(Routing6::configFactory("other"), info_);
    EXPECT_NE(second, first);
    EXPECT_EQ(info_->writes, 2);
    root->routing6SmDel();
    EXPECT_EQ(root->routing6Sm(), nullptr);
}

// The real switch, in a private network namespace so the machine's own stays untouched.
// The child reports: 0 all read back as written, 1 a mismatch, 77 no namespace or no
// writable switch here (with the reason on stderr).
TEST(Routing6SmKernelTest, SwitchesTheRealForwardingSettingInAPrivateNamespace) {
    int pipeFd[2];
    ASSERT_EQ(::pipe(pipeFd), 0);
    pid_t const pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::close(pipeFd[0]);
        auto report = [&](int code, std::string const& why) {
            (void)!::write(pipeFd[1], why.data(), why.size());
            ::_exit(code);
        };
        if (::unshare(CLONE_NEWNET) != 0) report(77, std::string("unshare ") + strerror(errno));
        if (int fd = ::open(switchPath, O_WRONLY); fd >= 0) {
            ::close(fd);
        } else {
            report(77, std::string("open ") + switchPath + ": " + std::strerror(errno));
        }
        Rix::procSysRootIs("");
        auto expect = [&](char const* value, char const* when) {
            if (contentOf(switchPath) != value + std::string("\n")) {
                report(1, std::string(when) + ": " + contentOf(switchPath));
            }
        };
        auto config = Routing6::configFactory("cfg");
        config->routingIs(true);
        auto sm = Ridge::Routing6Sm::Routing6SmIs(config, Routing6::routingInfoFactory("info"));
        expect("1", "after construction with routing on");
        config->routingIs(false);
        expect("0", "after turning routing off");
        config->routingIs(true);
        expect("1", "after turning routing on again");
        report(0, "");
    }
    ::close(pipeFd[1]);
    std::string why;
    char buf[256];
    for (ssize_t n; (n = ::read(pipeFd[0], buf, sizeof buf)) > 0;) why.append(buf, std::size_t(n));
    ::close(pipeFd[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no private network namespace here: " << why;
    EXPECT_EQ(WEXITSTATUS(status), 0) << why;
}

} // namespace
