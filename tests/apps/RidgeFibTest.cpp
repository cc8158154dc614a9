// ridge-fib against real tables: this process writes the FIB tables (a unique prefix per
// test, removed at the end), and runs the ridge-fib program as another process against them,
// checking its exact output, its JSON, its error messages and exit statuses, and `follow`
// seeing what this process commits while it runs.
#include "Strata/Strata.h"
#include "tests/ExecProgram.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Strata::Fib::FecId;
using Velnet::IntfId;
using Velnet::IntfKind;

// ---- processes ----------------------------------------------------------------------------

// A table prefix no other test or test run uses, "fibtest-<pid>-<n>"; its files are removed
// before use (left by a crashed run) and at the end.
class TablePrefix {
  public:
    TablePrefix() : name_("fibtest-" + std::to_string(::getpid()) + "-" + std::to_string(++counter)) {
        Strata::StrataTable::removeFiles(name_);
    }
    ~TablePrefix() { Strata::StrataTable::removeFiles(name_); }

    std::string const& str() const { return name_; }
    std::string file(char const* suffix) const {
        return std::string(Strata::defaultDirectory) + "/" + name_ + "-" + suffix;
    }

  private:
    static inline int counter = 0;
    std::string const name_;
};

// ridge-fib running as a child process, its stdout and stderr going to memory files that
// this process reads as they grow.
class FibProcess {
  public:
    explicit FibProcess(std::vector<std::string> const& args) {
        for (auto& o : outputs_) o.fd = ::memfd_create("ridge-fib-output", MFD_CLOEXEC);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(outputs_[0].fd, 1);
            ::dup2(outputs_[1].fd, 2);
            RidgeTest::execProgram(RIDGE_FIB, args);
            ::_exit(127);
        }
    }
    ~FibProcess() {
        if (pid_ > 0) ::kill(pid_, SIGKILL);
        finish();
        for (auto const& o : outputs_) ::close(o.fd);
    }

    // The next line the program writes to stdout (or stderr), without its newline; empty
    // when none comes within about 10 s (the test fails on the comparison that follows).
    std::string outLine() { return nextLine(outputs_[0]); }
    std::string errLine() { return nextLine(outputs_[1]); }

    // Waits up to about 20 s for the program to end: its exit status, or 128 + the signal
    // that ended it.
    int finish() {
        int status = 0;
        for (int waited = 0; pid_ > 0 && ::waitpid(pid_, &status, WNOHANG) == 0; ++waited) {
            if (waited == 20000) {
                ADD_FAILURE() << "ridge-fib did not finish";
                ::kill(pid_, SIGKILL);
            }
            ::usleep(1000);
        }
        if (std::exchange(pid_, -1) <= 0) return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // Sends SIGINT, as an operator's Ctrl-C does, and finishes.
    int interrupt() {
        ::kill(pid_, SIGINT);
        return finish();
    }

    std::string const& out() { return read(outputs_[0]); }
    std::string const& err() { return read(outputs_[1]); }

  private:
    struct Output {
        int fd = -1;
        std::string text;     // what the program wrote so far
        std::size_t used = 0; // what nextLine has handed out
    };

    static std::string const& read(Output& o) {
        char chunk[4096];
        for (ssize_t n; (n = ::pread(o.fd, chunk, sizeof chunk, off_t(o.text.size()))) > 0;) {
            o.text.append(chunk, std::size_t(n));
        }
        return o.text;
    }

    static std::string nextLine(Output& o) {
        for (int waited = 0; waited < 10000; ++waited) {
            auto const nl = read(o).find('\n', o.used);
            if (nl != std::string::npos) {
                std::string line = o.text.substr(o.used, nl - o.used);
                o.used = nl + 1;
                return line;
            }
            ::usleep(1000);
        }
        return {};
    }

    pid_t pid_ = -1;
    Output outputs_[2]; // stdout, stderr
};

// A run of ridge-fib to completion: its command line, exit status, stdout and stderr.
struct FibRun {
    FibRun(std::vector<std::string> a, int s, std::string o, std::string e = "")
        : args(std::move(a)), status(s), out(std::move(o)), err(std::move(e)) {}
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
};

FibRun runFib(std::vector<std::string> const& args) {
    FibProcess p(args);
    int const status = p.finish();
    return {args, status, p.out(), p.err()};
}

// Each run must end as expected, with exactly the expected output.
void expectRuns(std::vector<FibRun> const& runs) {
    for (auto const& expected : runs) {
        FibRun const r = runFib(expected.args);
        std::string shown;
        for (auto const& a : r.args) shown += " '" + a + "'";
        EXPECT_EQ(r.status, expected.status) << shown << ": " << r.err;
        EXPECT_EQ(r.out, expected.out) << shown;
        EXPECT_EQ(r.err, expected.err) << shown;
    }
}

// ---- the tables ---------------------------------------------------------------------------

Velnet::IpAddr v4(char const* text) { return Velnet::IpAddr::fromString(text); }
Velnet::Ip6Addr v6(char const* text) { return Velnet::Ip6Addr::fromString(text); }
Velnet::Prefix p4(char const* text) { return Velnet::Prefix::fromString(text); }
Velnet::Ip6Prefix p6(char const* text) { return Velnet::Ip6Prefix::fromString(text); }
IntfId eth(U32 n) { return IntfId(IntfKind::ethernet_, n); }

// FECs of up to 1, 2, 4, 8 vias: 16 each; 16: 8; 32, 64, 128: 4 each.
Strata::FecCapacity smallFecCapacity() {
    Strata::FecCapacity c;
    c.maxFecs = 64;
    c.classFecs = {16, 16, 16, 16, 8, 4, 4, 4};
    return c;
}

FecId const nhgFecId = FecId::fromAdjType(Strata::Fib::nextHopGroupAdj_, 5); // 0x2000000000005

// The writer's side: all four tables of one prefix, attached for writing.
class RidgeFibTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fec4 = Strata::Fib::ForwardingStatus::writer(prefix.str(), smallFecCapacity());
        fec6 = Strata::Fib6::ForwardingStatus::writer(prefix.str(), smallFecCapacity());
        route4 = Strata::Fib::RouteStatus::writer(prefix.str(), Strata::RouteCapacity{256});
        route6 = Strata::Fib6::RouteStatus::writer(prefix.str(), Strata::RouteCapacity{256});
    }

    // The sample FIB: the drop FEC of each family, a FEC of one via, one of ten, a
    // next-hop-group FEC, a FEC with a hole at position 1, and routes of several types
    // pointing at them.
    void writeSampleFib() {
        using Strata::Fib::Via;
        Strata::Fib::Fec drop4{FecId(Strata::Fib::ipv4DropFecId_)};
        drop4.fecTypeIs(Strata::Fib::drop_);
        fec4->fecIs(drop4);

        Strata::Fib::Fec* f = fec4->fecDirectWrite(FecId(3));
        f->viaIs(0, Via(v4("10.0.0.1"), eth(1)));
        fec4->fecCommit(f);

        f = fec4->fecDirectWrite(FecId(4));
        for (U32 i = 0; i < 10; ++i) f->viaIs(i, Via(Velnet::IpAddr(v4("10.0.1.1").value() + i), eth(i + 1)));
        fec4->fecCommit(f);

        f = fec4->fecDirectWrite(nhgFecId);
        f->fecTypeIs(Strata::Fib::nextHopGroup_);
        f->nexthopGroupIdIs(5);
        f->viaIs(0, Via(v4("10.0.2.1"), IntfId(IntfKind::portChannel_, 1), 100));
        f->viaIs(1, Via(v4("10.0.2.2"), IntfId(IntfKind::portChannel_, 2), 101));
        fec4->fecCommit(f);

        f = fec4->fecDirectWrite(FecId(7));
        f->viaIs(0, Via(v4("10.0.3.1"), IntfId(IntfKind::vlan_, 100)));
        f->viaIs(2, Via(v4("10.0.3.3"), IntfId(IntfKind::vlan_, 100)));
        fec4->fecCommit(f);

        Strata::Fib6::Fec drop6{FecId(Strata::Fib::ipv6DropFecId_)};
        drop6.fecTypeIs(Strata::Fib::drop_);
        fec6->fecIs(drop6);

        Strata::Fib6::Fec* g = fec6->fecDirectWrite(FecId(6));
        g->viaIs(0, Strata::Fib6::Via(v6("2001:db8::1"), IntfId(IntfKind::vlan_, 100), 16));
        g->viaIs(1, Strata::Fib6::Via(v6("fe80::1"), eth(2)));
        fec6->fecCommit(g);

        using namespace Routing::Fib;
        route4->routeIs(Strata::Fib::Route(p4("10.0.0.0/24"), FecId(3), ebgp_));
        route4->routeIs(Strata::Fib::Route(p4("10.1.0.0/16"), FecId(4), ospfIntraArea_));
        route4->routeIs(Strata::Fib::Route(p4("192.0.2.0/24"), nhgFecId, nexthopGroup_));
        route4->routeIs(Strata::Fib::Route(p4("198.51.100.7/32"), FecId(0), receive_));
        route4->routeIs(Strata::Fib::Route(p4("203.0.113.0/24"), FecId(1), staticConfig_));

        route6->routeIs(Strata::Fib6::Route(p6("::/0"), FecId(6), Routing6::Fib::staticConfig_));
        route6->routeIs(Strata::Fib6::Route(p6("2001:db8::/32"), FecId(6), Routing6::Fib::bgp_));
        route6->routeIs(
            Strata::Fib6::Route(p6("2001:db8:bad::/48"), FecId(2), Routing6::Fib::staticConfig_));
    }

    std::vector<std::string> args(std::vector<std::string> rest) const {
        rest.insert(rest.begin(), {"--prefix", prefix.str()});
        return rest;
    }

    TablePrefix prefix;
    Strata::Fib::ForwardingStatus::Ptr fec4;
    Strata::Fib6::ForwardingStatus::Ptr fec6;
    Strata::Fib::RouteStatus::Ptr route4;
    Strata::Fib6::RouteStatus::Ptr route6;
};

// ---- listing ------------------------------------------------------------------------------

// Lists in id or prefix order, both families unless --family says otherwise; columns as wide
// as their widest cell.
TEST_F(RidgeFibTest, ListingsOfTheSampleFibAsTextAndJson) {
    writeSampleFib();
    // Hex ids, upper or lower case, name the same FEC as decimal ones.
    std::string const nhgFec =
        "ipv4 FEC 562949953421317 (0x2000000000005)\n"
        "  adjacency type  nextHopGroup, index 5\n"
        "  FEC type        nextHopGroup\n"
        "  next-hop group  5\n"
        "  vias            2\n"
        "    0  10.0.2.1%Port-Channel1 label 100\n"
        "    1  10.0.2.2%Port-Channel2 label 101\n";
    expectRuns({
        {args({"fecs"}), 0,
         "FAMILY  ID               HEX              ADJ-TYPE      FEC-TYPE      NHG   VIAS\n"
         "ipv4    1                0x1              fib           drop          none  none\n"
         "ipv4    3                0x3              fib           forward       none  10.0.0.1%Ethernet1\n"
         "ipv4    4                0x4              fib           forward       none  "
         "10.0.1.1%Ethernet1, 10.0.1.2%Ethernet2, 10.0.1.3%Ethernet3, 10.0.1.4%Ethernet4, "
         "10.0.1.5%Ethernet5, 10.0.1.6%Ethernet6, 10.0.1.7%Ethernet7, 10.0.1.8%Ethernet8, "
         "10.0.1.9%Ethernet9, 10.0.1.10%Ethernet10\n"
         "ipv4    7                0x7              fib           forward       none  10.0.3.1%Vlan100, 10.0.3.3%Vlan100\n"
         "ipv4    562949953421317  0x2000000000005  nextHopGroup  nextHopGroup  5     "
         "10.0.2.1%Port-Channel1 label 100, 10.0.2.2%Port-Channel2 label 101\n"
         "ipv6    2                0x2              fib           drop          none  none\n"
         "ipv6    6                0x6              fib           forward       none  "
         "2001:db8::1%Vlan100 label 16, fe80::1%Ethernet2\n"},
        {args({"routes"}), 0,
         "FAMILY  PREFIX             TYPE           FEC\n"
         "ipv4    10.0.0.0/24        ebgp           3\n"
         "ipv4    10.1.0.0/16        ospfIntraArea  4\n"
         "ipv4    192.0.2.0/24       nexthopGroup   562949953421317\n"
         "ipv4    198.51.100.7/32    receive        0\n"
         "ipv4    203.0.113.0/24     staticConfig   1\n"
         "ipv6    ::/0               staticConfig   6\n"
         "ipv6    2001:db8::/32      bgp            6\n"
         "ipv6    2001:db8:bad::/48  staticConfig   2\n"},
        // A hole at position 1 shows as the positions that hold vias.
        {args({"fec", "7"}), 0,
         "ipv4 FEC 7 (0x7)\n"
         "  adjacency type  fib, index 7\n"
         "  FEC type        forward\n"
         "  next-hop group  none\n"
         "  vias            2\n"
         "    0  10.0.3.1%Vlan100\n"
         "    2  10.0.3.3%Vlan100\n"},
        {args({"fec", "562949953421317"}), 0, nhgFec},
        {args({"fec", "0x2000000000005"}), 0, nhgFec},
        {args({"fec", "0X2000000000005"}), 0, nhgFec},
        // The drop FEC and FEC 3 in <=1, the group FEC in <=2, FEC 7 (positions 0 and 2) in
        // <=4, FEC 4 (ten vias) in <=16; fills rounded down.
        {args({"--family", "4", "counts"}), 0,
         "FAMILY  TABLE   CLASS  RECORDS  CAPACITY   FILL\n"
         "ipv4    fecs    total        5        64   7.8%\n"
         "ipv4    fecs    <=1          2        16  12.5%\n"
         "ipv4    fecs    <=2          1        16   6.2%\n"
         "ipv4    fecs    <=4          1        16   6.2%\n"
         "ipv4    fecs    <=8          0        16   0.0%\n"
         "ipv4    fecs    <=16         1         8  12.5%\n"
         "ipv4    fecs    <=32         0         4   0.0%\n"
         "ipv4    fecs    <=64         0         4   0.0%\n"
         "ipv4    fecs    <=128        0         4   0.0%\n"
         "ipv4    routes  total        5       256   1.9%\n"},
        // JSON has the fields of the text.
        {args({"--family", "6", "fecs", "--json"}), 0,
         "[\n"
         "  {\"family\":\"ipv6\",\"id\":2,\"idHex\":\"0x2\",\"adjType\":\"fib\","
         "\"fecType\":\"drop\",\"nexthopGroupId\":null,\"vias\":[]},\n"
         "  {\"family\":\"ipv6\",\"id\":6,\"idHex\":\"0x6\",\"adjType\":\"fib\","
         "\"fecType\":\"forward\",\"nexthopGroupId\":null,\"vias\":["
         "{\"position\":0,\"hop\":\"2001:db8::1\",\"intf\":\"Vlan100\",\"label\":16},"
         "{\"position\":1,\"hop\":\"fe80::1\",\"intf\":\"Ethernet2\",\"label\":0}]}\n"
         "]\n"},
        {args({"--json", "fec", "0x2000000000005"}), 0,
         "[\n"
         "  {\"family\":\"ipv4\",\"id\":562949953421317,\"idHex\":\"0x2000000000005\","
         "\"adjType\":\"nextHopGroup\",\"fecType\":\"nextHopGroup\",\"nexthopGroupId\":5,"
         "\"vias\":[{\"position\":0,\"hop\":\"10.0.2.1\",\"intf\":\"Port-Channel1\","
         "\"label\":100},{\"position\":1,\"hop\":\"10.0.2.2\",\"intf\":\"Port-Channel2\","
         "\"label\":101}]}\n"
         "]\n"},
        {args({"--family", "6", "routes", "--json"}), 0,
         "[\n"
         "  {\"family\":\"ipv6\",\"prefix\":\"::/0\",\"routeType\":\"staticConfig\",\"fecId\":6},\n"
         "  {\"family\":\"ipv6\",\"prefix\":\"2001:db8::/32\",\"routeType\":\"bgp\",\"fecId\":6},\n"
         "  {\"family\":\"ipv6\",\"prefix\":\"2001:db8:bad::/48\",\"routeType\":\"staticConfig\","
         "\"fecId\":2}\n"
         "]\n"},
        // Both families in one object; options after the command, in the --opt=value form,
        // read the same. IPv6: the drop FEC in <=1, FEC 6 in <=2.
        {{"counts", "--json", "--prefix=" + prefix.str(), "--family=all"}, 0,
         "{\"ipv4\":{\"fecs\":{\"records\":5,\"capacity\":64,\"classes\":["
         "{\"maxVias\":1,\"records\":2,\"capacity\":16},"
         "{\"maxVias\":2,\"records\":1,\"capacity\":16},"
         "{\"maxVias\":4,\"records\":1,\"capacity\":16},"
         "{\"maxVias\":8,\"records\":0,\"capacity\":16},"
         "{\"maxVias\":16,\"records\":1,\"capacity\":8},"
         "{\"maxVias\":32,\"records\":0,\"capacity\":4},"
         "{\"maxVias\":64,\"records\":0,\"capacity\":4},"
         "{\"maxVias\":128,\"records\":0,\"capacity\":4}]},"
         "\"routes\":{\"records\":5,\"capacity\":256}},"
         "\"ipv6\":{\"fecs\":{\"records\":2,\"capacity\":64,\"classes\":["
         "{\"maxVias\":1,\"records\":1,\"capacity\":16},"
         "{\"maxVias\":2,\"records\":1,\"capacity\":16},"
         "{\"maxVias\":4,\"records\":0,\"capacity\":16},"
         "{\"maxVias\":8,\"records\":0,\"capacity\":16},"
         "{\"maxVias\":16,\"records\":0,\"capacity\":8},"
         "{\"maxVias\":32,\"records\":0,\"capacity\":4},"
         "{\"maxVias\":64,\"records\":0,\"capacity\":4},"
         "{\"maxVias\":128,\"records\":0,\"capacity\":4}]},"
         "\"routes\":{\"records\":3,\"capacity\":256}}}\n"},
        {{"routes", "--family=6", "--prefix=" + prefix.str()}, 0,
         "FAMILY  PREFIX             TYPE          FEC\n"
         "ipv6    ::/0               staticConfig  6\n"
         "ipv6    2001:db8::/32      bgp           6\n"
         "ipv6    2001:db8:bad::/48  staticConfig  2\n"},
    });
}

TEST_F(RidgeFibTest, AFecOfBothFamiliesEmptyTablesAndUnnamedTypes) {
    // An id in both families shows both FECs.
    Strata::Fib::Fec a{FecId(9)};
    a.viaIs(0, Strata::Fib::Via(v4("10.9.0.1"), eth(9)));
    fec4->fecIs(a);
    Strata::Fib6::Fec b{FecId(9)};
    b.fecTypeIs(Strata::Fib::receive_);
    fec6->fecIs(b);
    // A newer writer may store types this reader has no name for.
    U64 const oddAdjType = U64(7) << Strata::Fib::adjTypePos() | 1;
    Strata::Fib::Fec odd{FecId(oddAdjType)};
    odd.fecTypeIs(U8(99));
    fec4->fecIs(odd);
    Strata::Fib::Route r(p4("10.0.0.0/8"), FecId(oddAdjType), Routing::Fib::invalid_);
    r.routeTypeIs(U8(200));
    route4->routeIs(r);

    expectRuns({
        {args({"fec", "9"}), 0,
         "ipv4 FEC 9 (0x9)\n"
         "  adjacency type  fib, index 9\n"
         "  FEC type        forward\n"
         "  next-hop group  none\n"
         "  vias            1\n"
         "    0  10.9.0.1%Ethernet9\n"
         "\n"
         "ipv6 FEC 9 (0x9)\n"
         "  adjacency type  fib, index 9\n"
         "  FEC type        receive\n"
         "  next-hop group  none\n"
         "  vias            0\n"},
        {args({"--family", "4", "fecs"}), 0,
         "FAMILY  ID                HEX              ADJ-TYPE    FEC-TYPE     NHG   VIAS\n"
         "ipv4    9                 0x9              fib         forward      none  10.9.0.1%Ethernet9\n"
         "ipv4    1970324836974593  0x7000000000001  unknown(7)  unknown(99)  none  none\n"},
        {args({"--family", "4", "routes"}), 0,
         "FAMILY  PREFIX      TYPE          FEC\n"
         "ipv4    10.0.0.0/8  unknown(200)  1970324836974593\n"},
        // Empty tables list only the header.
        {args({"--family", "6", "routes"}), 0, "FAMILY  PREFIX  TYPE  FEC\n"},
        {args({"--family", "6", "routes", "--json"}), 0, "[]\n"},
    });
}

// ---- errors -------------------------------------------------------------------------------

TEST_F(RidgeFibTest, TableErrorsAndMissingFecsAreStatusOneWithOneLine) {
    writeSampleFib();
    TablePrefix none;
    // A file too short to hold a table header where the IPv4 FEC table belongs.
    TablePrefix shortFile;
    {
        int const fd = ::open(shortFile.file("fib4-fec").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        ASSERT_GE(fd, 0) << std::strerror(errno);
        std::string const junk(100, 'x');
        ASSERT_EQ(::write(fd, junk.data(), junk.size()), ssize_t(junk.size()));
        ::close(fd);
    }
    // A well-formed route table under the FEC table's name: another kind of table.
    TablePrefix wrongKind;
    Strata::Fib::RouteStatus::writer(wrongKind.str(), Strata::RouteCapacity{16})->detach();
    ASSERT_EQ(::rename(wrongKind.file("fib4-route").c_str(), wrongKind.file("fib4-fec").c_str()), 0);

    std::string const corrupt = "ridge-fib: StrataMap::corruptionDetected() ";
    expectRuns({
        {{"--prefix", none.str(), "fecs"}, 1, "",
         "ridge-fib: no Strata table " + none.file("fib4-fec") + "\n"},
        // Only the tables of the chosen family and command are needed: here the IPv6 routes.
        {{"--prefix", none.str(), "--family", "6", "routes"}, 1, "",
         "ridge-fib: no Strata table " + none.file("fib6-route") + "\n"},
        {{"--prefix", shortFile.str(), "--family", "4", "fecs"}, 1, "",
         corrupt + shortFile.file("fib4-fec") +
             ": file is 100 bytes, shorter than its 672-byte header\n"},
        {{"--prefix", wrongKind.str(), "--family", "4", "fec", "1"}, 1, "",
         corrupt + wrongKind.file("fib4-fec") +
             ": header: ABI signature differs: table kind 3, this build 1\n"},
        {args({"fec", "99"}), 1, "",
         "ridge-fib: no FEC 99 (0x63) in " + prefix.file("fib4-fec") + " or " +
             prefix.file("fib6-fec") + "\n"},
        // FEC 6 is an IPv6 FEC: not there for --family 4.
        {args({"--family", "4", "fec", "0x6"}), 1, "",
         "ridge-fib: no FEC 6 (0x6) in " + prefix.file("fib4-fec") + "\n"},
        // A prefix the table library cannot use as a file name is bad usage.
        {{"--prefix", "../etc", "fecs"}, 2, "",
         "ridge-fib: invalid Strata table prefix '../etc': 1-128 of [A-Za-z0-9._-], "
         "not starting with '.' or '-'\n"},
    });
}

TEST(RidgeFibUsageTest, BadUsageIsStatusTwoWithAMessageNamingTheFault) {
    std::string const idRule = "': a decimal number or 0x and up to 16 hex digits, at most 2^64-1";
    std::vector<FibRun> runs;
    auto usage = [&](std::vector<std::string> args, std::string const& message) {
        runs.push_back({std::move(args), 2, "", "ridge-fib: " + message + "\nTry 'ridge-fib --help'.\n"});
    };
    usage({"--prefix", "sw1", "frobnicate"},
          "unknown command 'frobnicate' (commands: fecs, fec <id>, routes, counts, follow)");
    usage({"--prefix", "sw1"}, "no command given (fecs, fec <id>, routes, counts or follow)");
    usage({"fecs"}, "--prefix <name> is required: the name prefix of the tables");
    usage({"--prefix"}, "--prefix needs a value");
    usage({"--prefix", "", "fecs"}, "--prefix needs a table name prefix, not ''");
    usage({"--prefix", "a", "--prefix", "b", "fecs"}, "--prefix given twice");
    usage({"--prefix", "sw1", "--family", "5", "fecs"}, "--family takes 4, 6 or all, not '5'");
    usage({"--prefix", "sw1", "fecs", "--verbose"}, "unknown option '--verbose'");
    usage({"--prefix", "sw1", "fecs", "extra"}, "unexpected argument 'extra'");
    usage({"--prefix", "sw1", "fecs", "--json=yes"}, "--json takes no value");
    usage({"--prefix", "sw1", "fec"}, "fec needs a FEC id, in decimal or 0x hex");
    for (char const* id : {"12abc", "0x", "0x1_0", "0x10000000000000000", "18446744073709551616"}) {
        usage({"--prefix", "sw1", "fec", id}, "invalid FEC id '" + std::string(id) + idRule);
    }
    usage({"--prefix", "sw1", "fec", "1", "2"}, "unexpected argument '2'");
    usage({"--prefix", "sw1", "routes", "--count", "3"}, "--count is an option of follow only");
    usage({"--prefix", "sw1", "counts", "--timeout", "3"}, "--timeout is an option of follow only");
    usage({"--prefix", "sw1", "follow", "--count", "0"}, "--count needs a whole number above 0, not '0'");
    for (char const* seconds : {"soon", "1.2345"}) {
        usage({"--prefix", "sw1", "follow", "--timeout", seconds},
              "--timeout needs seconds, as 10 or 2.5, not '" + std::string(seconds) + "'");
    }
    expectRuns(runs);
}

TEST(RidgeFibUsageTest, HelpDescribesEveryCommandOnStdout) {
    FibRun const r = runFib({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out.rfind("usage: ridge-fib --prefix <name> [--family 4|6|all] <command> [--json]\n", 0), 0u)
        << r.out;
    for (char const* word : {"\n  fecs ", "\n  fec <id> ", "\n  routes ", "\n  counts ",
                             "\n  follow [--count N] [--timeout S]\n", "--json", "exit status"}) {
        EXPECT_NE(r.out.find(word), std::string::npos) << word;
    }
}

// ---- follow -------------------------------------------------------------------------------

// Each change is a line as soon as it is committed, one per table in the order the tables
// are looked at, so that the lines come in this order whether the program sees them in one
// look or in several; it stops after --count changes.
TEST_F(RidgeFibTest, FollowPrintsEachChangeOfEveryTableAsItIsCommitted) {
    writeSampleFib();
    FibProcess follow(args({"follow", "--count", "5", "--timeout", "10"}));
    // The notice comes once the tables are read: what is committed from here on is a change.
    EXPECT_EQ(follow.errLine(), "ridge-fib: following " + prefix.file("fib4-fec") + ", " +
                                    prefix.file("fib4-route") + ", " + prefix.file("fib6-fec") +
                                    ", " + prefix.file("fib6-route"));

    Strata::Fib::Fec* f = fec4->fecDirectWrite(FecId(9));
    f->viaIs(0, Strata::Fib::Via(v4("10.0.9.1"), eth(9)));
    f->viaIs(1, Strata::Fib::Via(v4("10.0.9.2"), eth(10), 24));
    fec4->fecCommit(f);
    std::string const added9 = "ipv4 fec   added   9 0x9 fib forward nhg none vias "
                               "10.0.9.1%Ethernet9, 10.0.9.2%Ethernet10 label 24";
    EXPECT_EQ(follow.outLine(), added9);

    fec4->fecDel(FecId(7));
    route4->routeIs(Strata::Fib::Route(p4("10.0.0.0/24"), FecId(4), Routing::Fib::ibgp_));
    Strata::Fib6::Fec* g = fec6->fecDirectWrite(FecId(6));
    g->viaIs(0, Strata::Fib6::Via(v6("2001:db8::2"), eth(3)));
    fec6->fecCommit(g);
    route6->routeDel(p6("::/0"));
    // A sixth change, sorting after the fifth in its table: past the count.
    route6->routeIs(Strata::Fib6::Route(p6("2001:db9::/32"), FecId(6), Routing6::Fib::bgp_));

    EXPECT_EQ(follow.finish(), 0) << follow.err();
    EXPECT_EQ(follow.out(),
              added9 + "\n"
              "ipv4 fec   removed 7 0x7 fib forward nhg none vias 10.0.3.1%Vlan100, 10.0.3.3%Vlan100\n"
              "ipv4 route changed 10.0.0.0/24 ibgp fec 4\n"
              "ipv6 fec   changed 6 0x6 fib forward nhg none vias 2001:db8::2%Ethernet3\n"
              "ipv6 route removed ::/0 staticConfig fec 6\n");
}

TEST_F(RidgeFibTest, FollowEndsAtItsTimeoutOrWhenInterrupted) {
    // No count: the timeout is the planned end.
    FibRun const quiet = runFib(args({"follow", "--timeout", "0.2"}));
    EXPECT_EQ(quiet.status, 0) << quiet.err;
    EXPECT_EQ(quiet.out, "");

    // A count that is not reached in time is a failure.
    FibRun const missed = runFib(args({"follow", "--count", "2", "--timeout", "0.25"}));
    EXPECT_EQ(missed.status, 1);
    EXPECT_EQ(missed.out, "");
    EXPECT_NE(missed.err.find("\nridge-fib: follow saw 0 of 2 changes within 0.25 s\n"),
              std::string::npos)
        << missed.err;

    // JSON: one object per change and line.
    FibProcess follow(args({"--family", "4", "follow", "--json"}));
    EXPECT_EQ(follow.errLine(), "ridge-fib: following " + prefix.file("fib4-fec") + ", " +
                                    prefix.file("fib4-route"));
    Strata::Fib::Fec drop{FecId(10)};
    drop.fecTypeIs(Strata::Fib::drop_);
    fec4->fecIs(drop);
    std::string const fecLine =
        "{\"event\":\"added\",\"fec\":{\"family\":\"ipv4\",\"id\":10,\"idHex\":\"0xa\","
        "\"adjType\":\"fib\",\"fecType\":\"drop\",\"nexthopGroupId\":null,\"vias\":[]}}";
    EXPECT_EQ(follow.outLine(), fecLine);
    route4->routeIs(Strata::Fib::Route(p4("10.10.0.0/16"), FecId(10), Routing::Fib::staticConfig_));
    std::string const routeLine =
        "{\"event\":\"added\",\"route\":{\"family\":\"ipv4\",\"prefix\":\"10.10.0.0/16\","
        "\"routeType\":\"staticConfig\",\"fecId\":10}}";
    EXPECT_EQ(follow.outLine(), routeLine);
    EXPECT_EQ(follow.interrupt(), 0) << follow.err();
    EXPECT_EQ(follow.out(), fecLine + "\n" + routeLine + "\n");
}

TEST_F(RidgeFibTest, FollowUnderConstantRewritesEndsWithEachFecsLastVersion) {
    // FEC k at version v: one via at even versions, three at odd ones (so each rewrite moves
    // it between size classes, the case a walk over the slots can see twice or miss), every
    // via labelled v.
    U32 const fecs = 15;
    U32 const lastVersion = 2001;
    auto viaCount = [](U32 v) { return v % 2 ? 3u : 1u; };
    auto write = [&](U32 k, U32 v) {
        Strata::Fib::Fec f{FecId(k)};
        for (U32 i = 0; i < viaCount(v); ++i) {
            f.viaIs(i, Strata::Fib::Via(Velnet::IpAddr(v4("10.0.0.1").value() + (k << 8) + i),
                                        eth(k), v));
        }
        fec4->fecIs(f);
    };
    for (U32 k = 1; k <= fecs; ++k) write(k, 0);
    FibProcess follow(args({"--family", "4", "follow", "--timeout", "60"}));
    ASSERT_NE(follow.errLine(), "");
    for (U32 v = 1; v <= lastVersion; ++v) {
        for (U32 k = 1; k <= fecs; ++k) write(k, v);
    }
    fec4->fecIs(Strata::Fib::Fec{FecId(999)});

    // Up to the marker, the last change made, FECs were only ever rewritten: any other event
    // is a misreading of the table.
    std::string const marker = "ipv4 fec   added   999 0x3e7 fib forward nhg none vias none";
    std::string const head = "ipv4 fec   changed ";
    std::vector<std::string> last(fecs + 1);
    for (std::string line; (line = follow.outLine()) != marker;) {
        ASSERT_EQ(line.compare(0, head.size(), head), 0) << "'" << line << "'";
        U32 const k = U32(std::stoul(line.substr(head.size())));
        ASSERT_TRUE(k >= 1 && k <= fecs) << line;
        last[k] = line;
    }
    EXPECT_EQ(follow.interrupt(), 0) << follow.err();
    for (U32 k = 1; k <= fecs; ++k) {
        char hex[8];
        std::snprintf(hex, sizeof hex, "%x", k);
        std::string expected = head + std::to_string(k) + " 0x" + hex + " fib forward nhg none vias ";
        for (U32 i = 0; i < viaCount(lastVersion); ++i) {
            expected += (i ? ", 10.0." : "10.0.") + std::to_string(k) + "." + std::to_string(i + 1) +
                        "%Ethernet" + std::to_string(k) + " label " + std::to_string(lastVersion);
        }
        EXPECT_EQ(last[k], expected) << "FEC " << k;
    }
}

TEST_F(RidgeFibTest, FollowPicksUpATableMadeAgainUnderTheSameName) {
    Strata::Fib::Fec f3{FecId(3)};
    f3.viaIs(0, Strata::Fib::Via(v4("10.0.0.1"), eth(1)));
    fec4->fecIs(f3);
    FibProcess follow(args({"--family", "4", "follow", "--count", "2", "--timeout", "10"}));
    ASSERT_NE(follow.errLine(), "");

    // The tables are removed and made again (a new writer, a new FIB); the old writer's
    // tables live on unlinked until they are detached.
    Strata::StrataTable::removeFiles(prefix.str());
    auto newFec4 = Strata::Fib::ForwardingStatus::writer(prefix.str(), smallFecCapacity());
    auto newRoute4 = Strata::Fib::RouteStatus::writer(prefix.str(), Strata::RouteCapacity{16});
    Strata::Fib::Fec f5{FecId(5)};
    f5.viaIs(0, Strata::Fib::Via(v4("10.0.0.5"), eth(5)));
    newFec4->fecIs(f5);

    EXPECT_EQ(follow.finish(), 0) << follow.err();
    EXPECT_EQ(follow.out(),
              "ipv4 fec   removed 3 0x3 fib forward nhg none vias 10.0.0.1%Ethernet1\n"
              "ipv4 fec   added   5 0x5 fib forward nhg none vias 10.0.0.5%Ethernet5\n");
    EXPECT_NE(follow.err().find("ridge-fib: " + prefix.file("fib4-fec") +
                                " was made again; following the new table\n"),
              std::string::npos)
        << follow.err();
}

} // namespace
