// ridge-fib against real tables: this process writes the FIB tables (a unique prefix per
// test, removed at the end), and runs the ridge-fib program as another process against them,
// checking its exact output, its JSON, its error messages and exit statuses, and `follow`
// seeing what this process commits while it runs.
#include "Strata/Strata.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
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
    TablePrefix() {
        static int counter = 0;
        name_ = "fibtest-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
        Strata::StrataTable::removeFiles(name_);
    }
    ~TablePrefix() { Strata::StrataTable::removeFiles(name_); }
    TablePrefix(TablePrefix const&) = delete;
    TablePrefix& operator=(TablePrefix const&) = delete;

    std::string const& str() const { return name_; }
    std::string file(char const* suffix) const {
        return std::string(Strata::defaultDirectory) + "/" + name_ + "-" + suffix;
    }

  private:
    std::string name_;
};

// ridge-fib running as a child process, its stdout and stderr on pipes.
class FibProcess {
  public:
    explicit FibProcess(std::vector<std::string> const& args) {
        int out[2];
        int err[2];
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "pipe: " << std::strerror(errno);
            ended_[0] = ended_[1] = true;
            return;
        }
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(out[1], 1);
            ::dup2(err[1], 2);
            std::vector<char*> argv;
            static char program[] = RIDGE_FIB;
            argv.push_back(program);
            for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            ::execv(program, argv.data());
            ::_exit(127);
        }
        ::close(out[1]);
        ::close(err[1]);
        out_ = out[0];
        err_ = err[0];
    }
    ~FibProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            wait();
        }
        if (out_ >= 0) ::close(out_);
        if (err_ >= 0) ::close(err_);
    }
    FibProcess(FibProcess const&) = delete;
    FibProcess& operator=(FibProcess const&) = delete;

    // The next line the program writes to stdout (or stderr), without its newline; empty
    // when none comes within the time (the test fails on the comparison that follows).
    std::string outLine(int timeoutMs = 10000) { return readLine(out_, outBuf_, timeoutMs); }
    std::string errLine(int timeoutMs = 10000) { return readLine(err_, errBuf_, timeoutMs); }

    // Reads both pipes to their end and waits for the program: its exit status, or 128 +
    // the signal that ended it.
    int finish() {
        while (!ended_[0] || !ended_[1]) {
            pollfd fds[2];
            int n = 0;
            if (!ended_[0]) fds[n++] = {out_, POLLIN, 0};
            if (!ended_[1]) fds[n++] = {err_, POLLIN, 0};
            int const ready = ::poll(fds, nfds_t(n), 20000);
            if (ready < 0 && errno == EINTR) continue;
            if (ready <= 0) {
                ADD_FAILURE() << "ridge-fib did not finish";
                if (pid_ > 0) ::kill(pid_, SIGKILL);
                break;
            }
            for (int i = 0; i < n; ++i) {
                if (fds[i].revents) drainOnce(fds[i].fd, fds[i].fd == out_ ? outBuf_ : errBuf_);
            }
        }
        return wait();
    }

    // Sends SIGINT, as an operator's Ctrl-C does, and finishes.
    int interrupt() {
        if (pid_ > 0) ::kill(pid_, SIGINT);
        return finish();
    }

    std::string const& out() const { return outBuf_; }
    std::string const& err() const { return errBuf_; }

  private:
    bool atEnd(int fd) const { return ended_[fd == out_ ? 0 : 1]; }

    // One read; false at the end of the pipe.
    bool drainOnce(int fd, std::string& buf) {
        char chunk[4096];
        ssize_t const n = ::read(fd, chunk, sizeof chunk);
        if (n > 0) {
            buf.append(chunk, std::size_t(n));
            return true;
        }
        if (n < 0 && errno == EINTR) return true;
        ended_[fd == out_ ? 0 : 1] = true;
        return false;
    }

    std::string readLine(int fd, std::string& buf, int timeoutMs) {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        std::size_t const start = consumed(fd);
        for (;;) {
            auto const nl = buf.find('\n', start);
            if (nl != std::string::npos) {
                consumed(fd) = nl + 1;
                return buf.substr(start, nl - start);
            }
            auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || atEnd(fd)) return {};
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, int(left.count())) > 0) drainOnce(fd, buf);
        }
    }
    std::size_t& consumed(int fd) { return fd == out_ ? outUsed_ : errUsed_; }

    int wait() {
        int status = 0;
        pid_t const pid = std::exchange(pid_, -1);
        if (pid <= 0 || ::waitpid(pid, &status, 0) != pid) return -1;
        if (WIFEXITED(status)) return WEXITSTATUS(status);
        if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
        return -1;
    }

    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    std::string outBuf_;
    std::string errBuf_;
    std::size_t outUsed_ = 0;
    std::size_t errUsed_ = 0;
    bool ended_[2] = {false, false};
};

struct Result {
    int status;
    std::string out;
    std::string err;
};

Result runFib(std::vector<std::string> const& args) {
    FibProcess p(args);
    int const status = p.finish();
    return {status, p.out(), p.err()};
}

// ---- a JSON syntax check ------------------------------------------------------------------

// Recursive descent over RFC 8259 JSON; true when `text` is one value and nothing else but
// white space.
class JsonCheck {
  public:
    static bool valid(std::string_view text) {
        JsonCheck c(text);
        return c.value() && (c.ws(), c.p_ == c.s_.size());
    }

  private:
    explicit JsonCheck(std::string_view s) : s_(s) {}

    void ws() {
        while (p_ < s_.size() && (s_[p_] == ' ' || s_[p_] == '\n' || s_[p_] == '\t' || s_[p_] == '\r')) ++p_;
    }
    bool eat(char c) {
        ws();
        if (p_ < s_.size() && s_[p_] == c) {
            ++p_;
            return true;
        }
        return false;
    }
    bool literal(std::string_view w) {
        if (s_.substr(p_, w.size()) != w) return false;
        p_ += w.size();
        return true;
    }
    bool digits() {
        std::size_t const b = p_;
        while (p_ < s_.size() && s_[p_] >= '0' && s_[p_] <= '9') ++p_;
        return p_ > b;
    }
    bool number() {
        if (p_ < s_.size() && s_[p_] == '-') ++p_;
        if (p_ < s_.size() && s_[p_] == '0') {
            ++p_;
        } else if (!digits()) {
            return false;
        }
        if (p_ < s_.size() && s_[p_] == '.' && (++p_, !digits())) return false;
        if (p_ < s_.size() && (s_[p_] == 'e' || s_[p_] == 'E')) {
            ++p_;
            if (p_ < s_.size() && (s_[p_] == '+' || s_[p_] == '-')) ++p_;
            if (!digits()) return false;
        }
        return true;
    }
    bool string() {
        if (!eat('"')) return false;
        while (p_ < s_.size()) {
            unsigned char const c = static_cast<unsigned char>(s_[p_++]);
            if (c == '"') return true;
            if (c < 0x20) return false;
            if (c == '\\') {
                if (p_ >= s_.size()) return false;
                char const e = s_[p_++];
                if (e == 'u') {
                    for (int i = 0; i < 4; ++i, ++p_) {
                        if (p_ >= s_.size() || !std::isxdigit(static_cast<unsigned char>(s_[p_]))) return false;
                    }
                } else if (std::string_view("\"\\/bfnrt").find(e) == std::string_view::npos) {
                    return false;
                }
            }
        }
        return false;
    }
    template <class Item>
    bool sequence(char close, Item item) {
        if (eat(close)) return true;
        do {
            if (!item()) return false;
        } while (eat(','));
        return eat(close);
    }
    bool value() {
        if (++depth_ > 64) return false;
        ws();
        bool ok = false;
        if (p_ >= s_.size()) {
            ok = false;
        } else if (s_[p_] == '{') {
            ++p_;
            ok = sequence('}', [&] { return string() && eat(':') && value(); });
        } else if (s_[p_] == '[') {
            ++p_;
            ok = sequence(']', [&] { return value(); });
        } else if (s_[p_] == '"') {
            ok = string();
        } else if (s_[p_] == 't') {
            ok = literal("true");
        } else if (s_[p_] == 'f') {
            ok = literal("false");
        } else if (s_[p_] == 'n') {
            ok = literal("null");
        } else {
            ok = number();
        }
        --depth_;
        return ok;
    }

    std::string_view s_;
    std::size_t p_ = 0;
    int depth_ = 0;
};

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
        Strata::Fib::Fec drop4{FecId(Strata::Fib::ipv4DropFecId_)};
        drop4.fecTypeIs(Strata::Fib::drop_);
        fec4->fecIs(drop4);

        Strata::Fib::Fec* f = fec4->fecDirectWrite(FecId(3));
        f->viaIs(0, Strata::Fib::Via(v4("10.0.0.1"), eth(1)));
        fec4->fecCommit(f);

        f = fec4->fecDirectWrite(FecId(4));
        for (U32 i = 0; i < 10; ++i) {
            f->viaIs(i, Strata::Fib::Via(Velnet::IpAddr(v4("10.0.1.1").value() + i), eth(i + 1)));
        }
        fec4->fecCommit(f);

        f = fec4->fecDirectWrite(nhgFecId);
        f->fecTypeIs(Strata::Fib::nextHopGroup_);
        f->nexthopGroupIdIs(5);
        f->viaIs(0, Strata::Fib::Via(v4("10.0.2.1"), IntfId(IntfKind::portChannel_, 1), 100));
        f->viaIs(1, Strata::Fib::Via(v4("10.0.2.2"), IntfId(IntfKind::portChannel_, 2), 101));
        fec4->fecCommit(f);

        f = fec4->fecDirectWrite(FecId(7));
        f->viaIs(0, Strata::Fib::Via(v4("10.0.3.1"), IntfId(IntfKind::vlan_, 100)));
        f->viaIs(2, Strata::Fib::Via(v4("10.0.3.3"), IntfId(IntfKind::vlan_, 100)));
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

TEST_F(RidgeFibTest, FecsListsEveryFecOfBothFamiliesInIdOrder) {
    writeSampleFib();
    Result const r = runFib(args({"fecs"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out,
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
              "2001:db8::1%Vlan100 label 16, fe80::1%Ethernet2\n");
}

TEST_F(RidgeFibTest, FamilyChoosesTheTablesRead) {
    writeSampleFib();
    Result const r6 = runFib(args({"--family", "6", "fecs"}));
    EXPECT_EQ(r6.status, 0) << r6.err;
    EXPECT_EQ(r6.out,
              "FAMILY  ID  HEX  ADJ-TYPE  FEC-TYPE  NHG   VIAS\n"
              "ipv6    2   0x2  fib       drop      none  none\n"
              "ipv6    6   0x6  fib       forward   none  2001:db8::1%Vlan100 label 16, fe80::1%Ethernet2\n");

    // Options after the command, in the --opt=value form, read the same.
    Result const r4 = runFib({"routes", "--family=4", "--prefix=" + prefix.str()});
    EXPECT_EQ(r4.status, 0) << r4.err;
    EXPECT_EQ(r4.out,
              "FAMILY  PREFIX           TYPE           FEC\n"
              "ipv4    10.0.0.0/24      ebgp           3\n"
              "ipv4    10.1.0.0/16      ospfIntraArea  4\n"
              "ipv4    192.0.2.0/24     nexthopGroup   562949953421317\n"
              "ipv4    198.51.100.7/32  receive        0\n"
              "ipv4    203.0.113.0/24   staticConfig   1\n");
}

TEST_F(RidgeFibTest, RoutesListsBothFamiliesInPrefixOrder) {
    writeSampleFib();
    Result const r = runFib(args({"routes"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "FAMILY  PREFIX             TYPE           FEC\n"
              "ipv4    10.0.0.0/24        ebgp           3\n"
              "ipv4    10.1.0.0/16        ospfIntraArea  4\n"
              "ipv4    192.0.2.0/24       nexthopGroup   562949953421317\n"
              "ipv4    198.51.100.7/32    receive        0\n"
              "ipv4    203.0.113.0/24     staticConfig   1\n"
              "ipv6    ::/0               staticConfig   6\n"
              "ipv6    2001:db8::/32      bgp            6\n"
              "ipv6    2001:db8:bad::/48  staticConfig   2\n");
}

TEST_F(RidgeFibTest, FecShowsOneFecWithItsViaPositions) {
    writeSampleFib();
    // A hole at position 1 shows as the positions that hold vias.
    Result const sparse = runFib(args({"fec", "7"}));
    EXPECT_EQ(sparse.status, 0) << sparse.err;
    EXPECT_EQ(sparse.out,
              "ipv4 FEC 7 (0x7)\n"
              "  adjacency type  fib, index 7\n"
              "  FEC type        forward\n"
              "  next-hop group  none\n"
              "  vias            2\n"
              "    0  10.0.3.1%Vlan100\n"
              "    2  10.0.3.3%Vlan100\n");

    // Hex ids, upper or lower case, name the same FEC as decimal ones.
    std::string const nhgText =
        "ipv4 FEC 562949953421317 (0x2000000000005)\n"
        "  adjacency type  nextHopGroup, index 5\n"
        "  FEC type        nextHopGroup\n"
        "  next-hop group  5\n"
        "  vias            2\n"
        "    0  10.0.2.1%Port-Channel1 label 100\n"
        "    1  10.0.2.2%Port-Channel2 label 101\n";
    for (std::string id : {"562949953421317", "0x2000000000005", "0X2000000000005"}) {
        Result const r = runFib(args({"fec", id}));
        EXPECT_EQ(r.status, 0) << id << ": " << r.err;
        EXPECT_EQ(r.out, nhgText) << id;
    }

    Result const ten = runFib(args({"fec", "4", "--family", "4"}));
    EXPECT_EQ(ten.status, 0) << ten.err;
    EXPECT_EQ(ten.out,
              "ipv4 FEC 4 (0x4)\n"
              "  adjacency type  fib, index 4\n"
              "  FEC type        forward\n"
              "  next-hop group  none\n"
              "  vias            10\n"
              "    0  10.0.1.1%Ethernet1\n"
              "    1  10.0.1.2%Ethernet2\n"
              "    2  10.0.1.3%Ethernet3\n"
              "    3  10.0.1.4%Ethernet4\n"
              "    4  10.0.1.5%Ethernet5\n"
              "    5  10.0.1.6%Ethernet6\n"
              "    6  10.0.1.7%Ethernet7\n"
              "    7  10.0.1.8%Ethernet8\n"
              "    8  10.0.1.9%Ethernet9\n"
              "    9  10.0.1.10%Ethernet10\n");

    Result const drop6 = runFib(args({"fec", "2"}));
    EXPECT_EQ(drop6.status, 0) << drop6.err;
    EXPECT_EQ(drop6.out,
              "ipv6 FEC 2 (0x2)\n"
              "  adjacency type  fib, index 2\n"
              "  FEC type        drop\n"
              "  next-hop group  none\n"
              "  vias            0\n");
}

TEST_F(RidgeFibTest, FecWithAnIdInBothFamiliesShowsBoth) {
    Strata::Fib::Fec a{FecId(9)};
    a.viaIs(0, Strata::Fib::Via(v4("10.9.0.1"), eth(9)));
    fec4->fecIs(a);
    Strata::Fib6::Fec b{FecId(9)};
    b.fecTypeIs(Strata::Fib::receive_);
    fec6->fecIs(b);

    Result const r = runFib(args({"fec", "9"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
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
              "  vias            0\n");
}

TEST_F(RidgeFibTest, CountsShowsRecordsCapacityAndTheFillOfEachSizeClass) {
    writeSampleFib();
    Result const r = runFib(args({"counts"}));
    EXPECT_EQ(r.status, 0) << r.err;
    // IPv4: the drop FEC (no via) and FEC 3 in <=1, the group FEC in <=2, FEC 7 (positions 0
    // and 2) in <=4, FEC 4 (ten vias) in <=16. IPv6: the drop FEC in <=1, FEC 6 in <=2.
    EXPECT_EQ(r.out,
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
              "ipv4    routes  total        5       256   1.9%\n"
              "ipv6    fecs    total        2        64   3.1%\n"
              "ipv6    fecs    <=1          1        16   6.2%\n"
              "ipv6    fecs    <=2          1        16   6.2%\n"
              "ipv6    fecs    <=4          0        16   0.0%\n"
              "ipv6    fecs    <=8          0        16   0.0%\n"
              "ipv6    fecs    <=16         0         8   0.0%\n"
              "ipv6    fecs    <=32         0         4   0.0%\n"
              "ipv6    fecs    <=64         0         4   0.0%\n"
              "ipv6    fecs    <=128        0         4   0.0%\n"
              "ipv6    routes  total        3       256   1.1%\n");
}

TEST_F(RidgeFibTest, EmptyTablesListOnlyTheHeader) {
    Result const text = runFib(args({"fecs"}));
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out, "FAMILY  ID  HEX  ADJ-TYPE  FEC-TYPE  NHG  VIAS\n");
    Result const json = runFib(args({"routes", "--json"}));
    EXPECT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(json.out, "[]\n");
}

TEST_F(RidgeFibTest, TypeNumbersWithoutANameListAsUnknown) {
    // A newer writer may store types this reader has no name for.
    U64 const oddAdjType = U64(7) << Strata::Fib::adjTypePos() | 1;
    Strata::Fib::Fec f{FecId(oddAdjType)};
    f.fecTypeIs(U8(99));
    fec4->fecIs(f);
    Strata::Fib::Route r(p4("10.0.0.0/8"), FecId(oddAdjType), Routing::Fib::invalid_);
    r.routeTypeIs(U8(200));
    route4->routeIs(r);

    Result const fecs = runFib(args({"--family", "4", "fecs"}));
    EXPECT_EQ(fecs.status, 0) << fecs.err;
    EXPECT_EQ(fecs.out,
              "FAMILY  ID                HEX              ADJ-TYPE    FEC-TYPE     NHG   VIAS\n"
              "ipv4    1970324836974593  0x7000000000001  unknown(7)  unknown(99)  none  none\n");
    Result const routes = runFib(args({"--family", "4", "routes"}));
    EXPECT_EQ(routes.status, 0) << routes.err;
    EXPECT_EQ(routes.out,
              "FAMILY  PREFIX      TYPE          FEC\n"
              "ipv4    10.0.0.0/8  unknown(200)  1970324836974593\n");
}

// ---- JSON ---------------------------------------------------------------------------------

TEST(JsonCheckTest, TheCheckUsedBelowRefusesMalformedJson) {
    EXPECT_TRUE(JsonCheck::valid("[]"));
    EXPECT_TRUE(JsonCheck::valid(" {\"a\": [1, -2.5e3, null, true, \"x\\\"y\"]}\n"));
    for (char const* bad : {"", "[1,]", "{\"a\"}", "{\"a\":1,}", "[1 2]", "\"\n\"", "{a:1}",
                            "01", "[] []", "[\"\\x\"]", "nul"}) {
        EXPECT_FALSE(JsonCheck::valid(bad)) << bad;
    }
}

TEST_F(RidgeFibTest, JsonIsTheSameFieldsAsTheText) {
    writeSampleFib();
    Result const fecs6 = runFib(args({"--family", "6", "fecs", "--json"}));
    EXPECT_EQ(fecs6.status, 0) << fecs6.err;
    EXPECT_EQ(fecs6.out,
              "[\n"
              "  {\"family\":\"ipv6\",\"id\":2,\"idHex\":\"0x2\",\"adjType\":\"fib\","
              "\"fecType\":\"drop\",\"nexthopGroupId\":null,\"vias\":[]},\n"
              "  {\"family\":\"ipv6\",\"id\":6,\"idHex\":\"0x6\",\"adjType\":\"fib\","
              "\"fecType\":\"forward\",\"nexthopGroupId\":null,\"vias\":["
              "{\"position\":0,\"hop\":\"2001:db8::1\",\"intf\":\"Vlan100\",\"label\":16},"
              "{\"position\":1,\"hop\":\"fe80::1\",\"intf\":\"Ethernet2\",\"label\":0}]}\n"
              "]\n");

    Result const nhg = runFib(args({"--json", "fec", "0x2000000000005"}));
    EXPECT_EQ(nhg.status, 0) << nhg.err;
    EXPECT_EQ(nhg.out,
              "[\n"
              "  {\"family\":\"ipv4\",\"id\":562949953421317,\"idHex\":\"0x2000000000005\","
              "\"adjType\":\"nextHopGroup\",\"fecType\":\"nextHopGroup\",\"nexthopGroupId\":5,"
              "\"vias\":[{\"position\":0,\"hop\":\"10.0.2.1\",\"intf\":\"Port-Channel1\","
              "\"label\":100},{\"position\":1,\"hop\":\"10.0.2.2\",\"intf\":\"Port-Channel2\","
              "\"label\":101}]}\n"
              "]\n");

    Result const routes6 = runFib(args({"--family", "6", "routes", "--json"}));
    EXPECT_EQ(routes6.status, 0) << routes6.err;
    EXPECT_EQ(routes6.out,
              "[\n"
              "  {\"family\":\"ipv6\",\"prefix\":\"::/0\",\"routeType\":\"staticConfig\",\"fecId\":6},\n"
              "  {\"family\":\"ipv6\",\"prefix\":\"2001:db8::/32\",\"routeType\":\"bgp\",\"fecId\":6},\n"
              "  {\"family\":\"ipv6\",\"prefix\":\"2001:db8:bad::/48\",\"routeType\":\"staticConfig\","
              "\"fecId\":2}\n"
              "]\n");

    Result const counts6 = runFib(args({"--family", "6", "counts", "--json"}));
    EXPECT_EQ(counts6.status, 0) << counts6.err;
    EXPECT_EQ(counts6.out,
              "{\"ipv6\":{\"fecs\":{\"records\":2,\"capacity\":64,\"classes\":["
              "{\"maxVias\":1,\"records\":1,\"capacity\":16},"
              "{\"maxVias\":2,\"records\":1,\"capacity\":16},"
              "{\"maxVias\":4,\"records\":0,\"capacity\":16},"
              "{\"maxVias\":8,\"records\":0,\"capacity\":16},"
              "{\"maxVias\":16,\"records\":0,\"capacity\":8},"
              "{\"maxVias\":32,\"records\":0,\"capacity\":4},"
              "{\"maxVias\":64,\"records\":0,\"capacity\":4},"
              "{\"maxVias\":128,\"records\":0,\"capacity\":4}]},"
              "\"routes\":{\"records\":3,\"capacity\":256}}}\n");

    // Everything the other commands print as JSON parses too.
    for (auto const& command : std::vector<std::vector<std::string>>{
             {"fecs", "--json"}, {"routes", "--json"}, {"counts", "--json"},
             {"fec", "7", "--json"}, {"fec", "1", "--json"}}) {
        Result const r = runFib(args(command));
        EXPECT_EQ(r.status, 0) << command[0] << ": " << r.err;
        EXPECT_TRUE(JsonCheck::valid(r.out)) << command[0] << ":\n" << r.out;
    }
}

// ---- errors -------------------------------------------------------------------------------

TEST(RidgeFibErrorTest, AMissingTableIsNamed) {
    TablePrefix none;
    Result const r = runFib({"--prefix", none.str(), "fecs"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ridge-fib: no Strata table " + none.file("fib4-fec") + "\n");

    // Only the tables of the chosen family and command are needed: here the IPv6 routes.
    Result const routes6 = runFib({"--prefix", none.str(), "--family", "6", "routes"});
    EXPECT_EQ(routes6.status, 1);
    EXPECT_EQ(routes6.err, "ridge-fib: no Strata table " + none.file("fib6-route") + "\n");
}

TEST(RidgeFibErrorTest, ACorruptOrIncompatibleTableGivesTheLibrarysMessage) {
    TablePrefix p;
    {
        // A file too short to hold a table header where the IPv4 FEC table belongs.
        int const fd = ::open(p.file("fib4-fec").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        ASSERT_GE(fd, 0) << std::strerror(errno);
        std::string const junk(100, 'x');
        ASSERT_EQ(::write(fd, junk.data(), junk.size()), ssize_t(junk.size()));
        ::close(fd);
    }
    Result const shortFile = runFib({"--prefix", p.str(), "--family", "4", "fecs"});
    EXPECT_EQ(shortFile.status, 1);
    EXPECT_EQ(shortFile.out, "");
    EXPECT_EQ(shortFile.err, "ridge-fib: StrataMap::corruptionDetected() " + p.file("fib4-fec") +
                                 ": file is 100 bytes, shorter than its 672-byte header\n");

    // A well-formed route table under the FEC table's name: another kind of table.
    TablePrefix q;
    Strata::Fib::RouteStatus::writer(q.str(), Strata::RouteCapacity{16})->detach();
    ASSERT_EQ(::rename(q.file("fib4-route").c_str(), q.file("fib4-fec").c_str()), 0);
    Result const wrongKind = runFib({"--prefix", q.str(), "--family", "4", "fec", "1"});
    EXPECT_EQ(wrongKind.status, 1);
    EXPECT_EQ(wrongKind.err, "ridge-fib: StrataMap::corruptionDetected() " + q.file("fib4-fec") +
                                 ": header: ABI signature differs: table kind 3, this build 1\n");
}

TEST_F(RidgeFibTest, AFecThatIsNotThereIsAnErrorNamingTheTablesSearched) {
    writeSampleFib();
    Result const r = runFib(args({"fec", "99"}));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ridge-fib: no FEC 99 (0x63) in " + prefix.file("fib4-fec") + " or " +
                         prefix.file("fib6-fec") + "\n");

    // FEC 6 is an IPv6 FEC: not there for --family 4.
    Result const r4 = runFib(args({"--family", "4", "fec", "0x6"}));
    EXPECT_EQ(r4.status, 1);
    EXPECT_EQ(r4.err, "ridge-fib: no FEC 6 (0x6) in " + prefix.file("fib4-fec") + "\n");
}

TEST(RidgeFibUsageTest, BadUsageIsStatusTwoWithAMessageNamingTheFault) {
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    std::string const idRule = "': a decimal number or 0x and up to 16 hex digits, at most 2^64-1";
    std::vector<Case> const cases = {
        {{"--prefix", "sw1", "frobnicate"},
         "unknown command 'frobnicate' (commands: fecs, fec <id>, routes, counts, follow)"},
        {{"--prefix", "sw1"}, "no command given (fecs, fec <id>, routes, counts or follow)"},
        {{"fecs"}, "--prefix <name> is required: the name prefix of the tables"},
        {{"--prefix"}, "--prefix needs a value"},
        {{"--prefix", "", "fecs"}, "--prefix needs a table name prefix, not ''"},
        {{"--prefix", "a", "--prefix", "b", "fecs"}, "--prefix given twice"},
        {{"--prefix", "sw1", "--family", "5", "fecs"}, "--family takes 4, 6 or all, not '5'"},
        {{"--prefix", "sw1", "fecs", "--verbose"}, "unknown option '--verbose'"},
        {{"--prefix", "sw1", "fecs", "extra"}, "unexpected argument 'extra'"},
        {{"--prefix", "sw1", "fecs", "--json=yes"}, "--json takes no value"},
        {{"--prefix", "sw1", "fec"}, "fec needs a FEC id, in decimal or 0x hex"},
        {{"--prefix", "sw1", "fec", "12abc"}, "invalid FEC id '12abc" + idRule},
        {{"--prefix", "sw1", "fec", "0x"}, "invalid FEC id '0x" + idRule},
        {{"--prefix", "sw1", "fec", "0x1_0"}, "invalid FEC id '0x1_0" + idRule},
        {{"--prefix", "sw1", "fec", "0x10000000000000000"}, "invalid FEC id '0x10000000000000000" + idRule},
        {{"--prefix", "sw1", "fec", "18446744073709551616"}, "invalid FEC id '18446744073709551616" + idRule},
        {{"--prefix", "sw1", "fec", "1", "2"}, "unexpected argument '2'"},
        {{"--prefix", "sw1", "routes", "--count", "3"}, "--count is an option of follow only"},
        {{"--prefix", "sw1", "counts", "--timeout", "3"}, "--timeout is an option of follow only"},
        {{"--prefix", "sw1", "follow", "--count", "0"}, "--count needs a whole number above 0, not '0'"},
        {{"--prefix", "sw1", "follow", "--timeout", "soon"},
         "--timeout needs seconds, as 10 or 2.5, not 'soon'"},
        {{"--prefix", "sw1", "follow", "--timeout", "1.2345"},
         "--timeout needs seconds, as 10 or 2.5, not '1.2345'"},
    };
    for (auto const& c : cases) {
        Result const r = runFib(c.args);
        std::string shown;
        for (auto const& a : c.args) shown += " '" + a + "'";
        EXPECT_EQ(r.status, 2) << shown;
        EXPECT_EQ(r.out, "") << shown;
        EXPECT_EQ(r.err, "ridge-fib: " + c.message + "\nTry 'ridge-fib --help'.\n") << shown;
    }

    // A prefix the table library cannot use as a file name is bad usage as well.
    Result const r = runFib({"--prefix", "../etc", "fecs"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "ridge-fib: invalid Strata table prefix '../etc': 1-128 of [A-Za-z0-9._-], "
                     "not starting with '.' or '-'\n");
}

TEST(RidgeFibUsageTest, HelpDescribesEveryCommandOnStdout) {
    Result const r = runFib({"--help"});
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

TEST_F(RidgeFibTest, FollowPrintsAFecCommittedAfterItStarted) {
    writeSampleFib();
    FibProcess follow(args({"follow", "--count", "1", "--timeout", "10"}));
    // The notice comes once the tables are read: what is committed from here on is a change.
    EXPECT_EQ(follow.errLine(), "ridge-fib: following " + prefix.file("fib4-fec") + ", " +
                                    prefix.file("fib4-route") + ", " + prefix.file("fib6-fec") +
                                    ", " + prefix.file("fib6-route"));

    Strata::Fib::Fec* f = fec4->fecDirectWrite(FecId(9));
    f->viaIs(0, Strata::Fib::Via(v4("10.0.9.1"), eth(9)));
    f->viaIs(1, Strata::Fib::Via(v4("10.0.9.2"), eth(10), 24));
    fec4->fecCommit(f);

    EXPECT_EQ(follow.outLine(),
              "ipv4 fec   added   9 0x9 fib forward nhg none vias 10.0.9.1%Ethernet9, "
              "10.0.9.2%Ethernet10 label 24");
    EXPECT_EQ(follow.finish(), 0) << follow.err();
    EXPECT_EQ(follow.out(),
              "ipv4 fec   added   9 0x9 fib forward nhg none vias 10.0.9.1%Ethernet9, "
              "10.0.9.2%Ethernet10 label 24\n")
        << "nothing after the one change asked for";
}

TEST_F(RidgeFibTest, FollowPrintsChangesAndRemovalsOfEveryTable) {
    writeSampleFib();
    FibProcess follow(args({"follow", "--count", "4", "--timeout", "10"}));
    ASSERT_NE(follow.errLine(), "");

    // One change per table, in the order the tables are looked at, so that the lines come in
    // this order whether the program sees them in one look or in several.
    fec4->fecDel(FecId(7));
    route4->routeIs(Strata::Fib::Route(p4("10.0.0.0/24"), FecId(4), Routing::Fib::ibgp_));
    Strata::Fib6::Fec* g = fec6->fecDirectWrite(FecId(6));
    g->viaIs(0, Strata::Fib6::Via(v6("2001:db8::2"), eth(3)));
    fec6->fecCommit(g);
    route6->routeDel(p6("::/0"));

    EXPECT_EQ(follow.finish(), 0) << follow.err();
    EXPECT_EQ(follow.out(),
              "ipv4 fec   removed 7 0x7 fib forward nhg none vias 10.0.3.1%Vlan100, 10.0.3.3%Vlan100\n"
              "ipv4 route changed 10.0.0.0/24 ibgp fec 4\n"
              "ipv6 fec   changed 6 0x6 fib forward nhg none vias 2001:db8::2%Ethernet3\n"
              "ipv6 route removed ::/0 staticConfig fec 6\n");
}

TEST_F(RidgeFibTest, FollowJsonIsOneObjectPerChange) {
    writeSampleFib();
    FibProcess follow(args({"--family", "4", "follow", "--json", "--count", "2", "--timeout", "10"}));
    EXPECT_EQ(follow.errLine(), "ridge-fib: following " + prefix.file("fib4-fec") + ", " +
                                    prefix.file("fib4-route"));

    Strata::Fib::Fec drop{FecId(10)};
    drop.fecTypeIs(Strata::Fib::drop_);
    fec4->fecIs(drop);
    route4->routeIs(Strata::Fib::Route(p4("10.10.0.0/16"), FecId(10), Routing::Fib::staticConfig_));

    EXPECT_EQ(follow.finish(), 0) << follow.err();
    EXPECT_EQ(follow.out(),
              "{\"event\":\"added\",\"fec\":{\"family\":\"ipv4\",\"id\":10,\"idHex\":\"0xa\","
              "\"adjType\":\"fib\",\"fecType\":\"drop\",\"nexthopGroupId\":null,\"vias\":[]}}\n"
              "{\"event\":\"added\",\"route\":{\"family\":\"ipv4\",\"prefix\":\"10.10.0.0/16\","
              "\"routeType\":\"staticConfig\",\"fecId\":10}}\n");
    std::string_view rest = follow.out();
    for (auto nl = rest.find('\n'); nl != rest.npos; rest.remove_prefix(nl + 1), nl = rest.find('\n')) {
        EXPECT_TRUE(JsonCheck::valid(rest.substr(0, nl))) << rest.substr(0, nl);
    }
}

TEST_F(RidgeFibTest, FollowEndsAtItsTimeout) {
    writeSampleFib();
    // No count: the timeout is the planned end.
    Result const quiet = runFib(args({"follow", "--timeout", "0.2"}));
    EXPECT_EQ(quiet.status, 0) << quiet.err;
    EXPECT_EQ(quiet.out, "");

    // A count that is not reached in time is a failure.
    Result const missed = runFib(args({"follow", "--count", "2", "--timeout", "0.25"}));
    EXPECT_EQ(missed.status, 1);
    EXPECT_EQ(missed.out, "");
    EXPECT_NE(missed.err.find("\nridge-fib: follow saw 0 of 2 changes within 0.25 s\n"),
              std::string::npos)
        << missed.err;
}

TEST_F(RidgeFibTest, FollowStopsCleanlyWhenInterrupted) {
    FibProcess follow(args({"follow"}));
    ASSERT_NE(follow.errLine(), "");
    Strata::Fib::Fec f{FecId(3)};
    fec4->fecIs(f);
    EXPECT_EQ(follow.outLine(), "ipv4 fec   added   3 0x3 fib forward nhg none vias none");
    EXPECT_EQ(follow.interrupt(), 0) << follow.err();
    EXPECT_EQ(follow.out(), "ipv4 fec   added   3 0x3 fib forward nhg none vias none\n");
}

TEST_F(RidgeFibTest, FollowUnderConstantRewritesEndsWithEachFecsLastVersion) {
    // FEC k at version v: one via at even versions, three at odd ones (so each rewrite moves
    // it between size classes, the case a walk over the slots can see twice or miss), every
    // via labelled v from version 1 on.
    auto fecOf = [](U32 k, U32 v) {
        Strata::Fib::Fec f{FecId(k)};
        for (U32 i = 0; i < (v % 2 ? 3u : 1u); ++i) {
            f.viaIs(i, Strata::Fib::Via(Velnet::IpAddr(v4("10.0.0.1").value() + (k << 8) + i),
                                        eth(k), v));
        }
        return f;
    };
    auto lineOf = [](U32 k, U32 v) {
        std::string s = "ipv4 fec   changed " + std::to_string(k) + " 0x" +
                        (k < 10 ? std::to_string(k) : std::string(1, char('a' + k - 10))) +
                        " fib forward nhg none vias ";
        for (U32 i = 0; i < (v % 2 ? 3u : 1u); ++i) {
            s += (i ? ", " : "") + std::string("10.0.") + std::to_string(k) + "." +
                 std::to_string(i + 1) + "%Ethernet" + std::to_string(k) +
                 (v ? " label " + std::to_string(v) : "");
        }
        return s;
    };
    U32 const fecs = 15;
    U32 const lastVersion = 2001;
    for (U32 k = 1; k <= fecs; ++k) fec4->fecIs(fecOf(k, 0));

    FibProcess follow(args({"--family", "4", "follow", "--timeout", "60"}));
    ASSERT_NE(follow.errLine(), "");
    for (U32 v = 1; v <= lastVersion; ++v) {
        for (U32 k = 1; k <= fecs; ++k) fec4->fecIs(fecOf(k, v));
    }
    Strata::Fib::Fec marker{FecId(999)};
    fec4->fecIs(marker);

    // Read up to the marker, the last change made.
    std::string const markerLine = "ipv4 fec   added   999 0x3e7 fib forward nhg none vias none";
    std::vector<std::string> lines;
    for (std::string line; (line = follow.outLine()) != "";) {
        lines.push_back(line);
        if (line == markerLine) break;
    }
    EXPECT_EQ(follow.interrupt(), 0) << follow.err();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), markerLine);
    lines.pop_back();

    // FECs were only ever rewritten: any other event is a misreading of the table.
    std::vector<std::string> last(fecs + 1);
    for (auto const& line : lines) {
        std::string const head = "ipv4 fec   changed ";
        ASSERT_EQ(line.compare(0, head.size(), head), 0) << line;
        U32 const k = U32(std::stoul(line.substr(head.size())));
        ASSERT_TRUE(k >= 1 && k <= fecs) << line;
        last[k] = line;
    }
    for (U32 k = 1; k <= fecs; ++k) EXPECT_EQ(last[k], lineOf(k, lastVersion)) << "FEC " << k;
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
