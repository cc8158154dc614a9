#include "Velnet/Ip6Addr.h"

#include "VelnetTestSupport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <string>

namespace {

using Velnet::Ip6Addr;
using Velnet::IpAddr;
using velnet_test::refFmix32;
using Groups = std::array<U16, 8>;

Ip6Addr fromGroups(Groups const& g) {
    return Ip6Addr(g[0], g[1], g[2], g[3], g[4], g[5], g[6], g[7]);
}

TEST(Ip6AddrTest, StoredAsSixteenNetworkOrderBytesAndOrderedByThem) {
    Ip6Addr const a(0x2001, 0x0db8, 0x1234, 0, 0, 0, 0xabcd, 0x0001);
    Ip6Addr::Bytes const expected = {0x20, 0x01, 0x0d, 0xb8, 0x12, 0x34, 0, 0,
                                     0,    0,    0,    0,    0xab, 0xcd, 0x00, 0x01};
    EXPECT_EQ(std::memcmp(&a, expected.data(), 16), 0);
    EXPECT_EQ(Ip6Addr(expected), a);
    EXPECT_EQ(Ip6Addr::v4Mapped(IpAddr(192, 0, 2, 1)),
              fromGroups({0, 0, 0, 0, 0, 0xffff, 0xc000, 0x201}));
    // Ordered as one big-endian number: the first byte weighs most, with no sign trouble; the
    // last byte still counts.
    EXPECT_LT(fromGroups({0x7fff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff}),
              fromGroups({0x8000, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_LT(fromGroups({0x00ff, 0xffff, 0, 0, 0, 0, 0, 0}),
              fromGroups({0x0100, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_LT(fromGroups({0, 0, 0, 0, 0, 0, 0, 0x1fe}), fromGroups({0, 0, 0, 0, 0, 0, 0, 0x1ff}));
    EXPECT_EQ(Ip6Addr() <=> Ip6Addr(), std::strong_ordering::equal);
}

TEST(Ip6AddrTest, PrintsTheCanonicalForm) {
    struct Case {
        char const* input;
        Groups groups;
        char const* canonical;
    };
    Case const cases[] = {
        {"::", {0, 0, 0, 0, 0, 0, 0, 0}, "::"},
        {"::1", {0, 0, 0, 0, 0, 0, 0, 1}, "::1"},
        {"1::", {1, 0, 0, 0, 0, 0, 0, 0}, "1::"},
        // Leading zeros dropped, uppercase input, lowercase output.
        {"2001:0DB8:0000:0000:0000:0000:0000:0001", {0x2001, 0xdb8, 0, 0, 0, 0, 0, 1},
         "2001:db8::1"},
        {"FE80::ABCD", {0xfe80, 0, 0, 0, 0, 0, 0, 0xabcd}, "fe80::abcd"},
        {"0001:0010:0100:1000:000a:00B0:0c00:D000",
         {1, 0x10, 0x100, 0x1000, 0xa, 0xb0, 0xc00, 0xd000}, "1:10:100:1000:a:b0:c00:d000"},
        // Which run is compressed: the longest; on a tie the first; never a single group.
        {"2001:db8:0:0:1:0:0:1", {0x2001, 0xdb8, 0, 0, 1, 0, 0, 1}, "2001:db8::1:0:0:1"},
        {"2001:0:0:1:0:0:0:1", {0x2001, 0, 0, 1, 0, 0, 0, 1}, "2001:0:0:1::1"},
        {"0:0:1:0:0:0:0:1", {0, 0, 1, 0, 0, 0, 0, 1}, "0:0:1::1"},
        {"0:0:1:1:1:1:0:0", {0, 0, 1, 1, 1, 1, 0, 0}, "::1:1:1:1:0:0"},
        {"1:0:0:1:1:1:0:0", {1, 0, 0, 1, 1, 1, 0, 0}, "1::1:1:1:0:0"},
        {"2001:db8:0:1:1:1:1:1", {0x2001, 0xdb8, 0, 1, 1, 1, 1, 1}, "2001:db8:0:1:1:1:1:1"},
        {"1:0:1:0:1:0:1:0", {1, 0, 1, 0, 1, 0, 1, 0}, "1:0:1:0:1:0:1:0"},
        {"0:1:0:0:0:0:0:0", {0, 1, 0, 0, 0, 0, 0, 0}, "0:1::"},
        {"1:2:3:4:5:6:7::", {1, 2, 3, 4, 5, 6, 7, 0}, "1:2:3:4:5:6:7:0"},
        {"::2:3:4:5:6:7:8", {0, 2, 3, 4, 5, 6, 7, 8}, "0:2:3:4:5:6:7:8"},
        {"1:2:3::6:7:8", {1, 2, 3, 0, 0, 6, 7, 8}, "1:2:3::6:7:8"},
        // IPv4-mapped addresses print a dotted tail however they were written.
        {"::ffff:192.0.2.1", {0, 0, 0, 0, 0, 0xffff, 0xc000, 0x0201}, "::ffff:192.0.2.1"},
        {"0:0:0:0:0:FFFF:c000:201", {0, 0, 0, 0, 0, 0xffff, 0xc000, 0x0201}, "::ffff:192.0.2.1"},
        {"::ffff:0:0", {0, 0, 0, 0, 0, 0xffff, 0, 0}, "::ffff:0.0.0.0"},
        // Other embedded IPv4 forms are accepted and print in hex.
        {"::1.2.3.4", {0, 0, 0, 0, 0, 0, 0x0102, 0x0304}, "::102:304"},
        {"64:ff9b::192.0.2.33", {0x64, 0xff9b, 0, 0, 0, 0, 0xc000, 0x0221}, "64:ff9b::c000:221"},
        {"1:2:3:4:5:6:1.2.3.4", {1, 2, 3, 4, 5, 6, 0x0102, 0x0304}, "1:2:3:4:5:6:102:304"},
        {"::ffff:0:1.2.3.4", {0, 0, 0, 0, 0xffff, 0, 0x0102, 0x0304}, "::ffff:0:102:304"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.input);
        Ip6Addr const a = Ip6Addr::fromString(c.input);
        EXPECT_EQ(a, fromGroups(c.groups));
        EXPECT_EQ(Ip6Addr::fromString(c.canonical), a);
        EXPECT_EQ(a.toString(), Kal::String8(c.canonical));
    }
}

TEST(Ip6AddrTest, RefusesMalformedTextNamingIt) {
    velnet_test::expectRefusals(&Ip6Addr::fromString, {
        {"", "empty"},
        {"1::2::3", "invalid IPv6 address '1::2::3': more than one '::'"},
        {"12345::", "more than four hex digits"},
        {"g::1", "not a hex digit"},
        {"1:2:3:4:5:6:7:8:9", "too many groups"},
        {"1:2:3:4::5:6:7:8", "too many groups"}, // "::" stands for at least one group
        {"1:2:3:4:5:6:7:1.2.3.4", "too many groups"},
        {"1:2:3:4:5:6:7", "too few groups"},
        {"1:2:3:4:5:6:1.2.3.4:8", "IPv4 tail not at the end"},
        {"1.2.3.4::", "IPv4 tail not at the end"},
        {":1:2:3:4:5:6:7:8", "lone ':'"},
        {"1::2:", "lone ':'"},
        {"::ffff:01.2.3.4", "malformed IPv4 tail"},
        {"fe80::1%eth0", "zone id"},
    });
}

// inet_ntop prints ::a.b.c.d (the deprecated IPv4-compatible form) with a dotted tail; the
// canonical form keeps dotted tails for IPv4-mapped addresses only. Those are the only
// addresses where the two printers may differ.
bool libcPrintsCompatibleForm(Ip6Addr const& a) {
    for (unsigned i = 0; i < 6; ++i) {
        if (a.group(i) != 0) return false;
    }
    return a.group(6) != 0;
}

// Fills the groups from a few values so that zero runs of every length and position occur.
Ip6Addr randomAddress(std::mt19937& rng) {
    U16 const pool[] = {0, 0, 0, 0, 1, 0xffff, 0xdb8, 0x2001, 0xa, 0xf00};
    Groups g;
    for (auto& x : g) x = rng() % 4 == 0 ? U16(rng()) : pool[rng() % 10];
    return fromGroups(g);
}

TEST(Ip6AddrTest, AgreesWithTheCLibraryOnRandomAddressesAndMutatedText) {
    // glibc's inet_pton/inet_ntop implement the same RFC 4291 grammar (one "::", one to four
    // hex digits, an IPv4 tail without leading zeros) and RFC 5952 compression, so they are an
    // independent oracle for acceptance, value and printed form.
    U32 const seed = 1234567;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    int accepted = 0;
    for (int i = 0; i < 15000; ++i) {
        Ip6Addr const original = randomAddress(rng);
        char buf[INET6_ADDRSTRLEN];
        ASSERT_NE(inet_ntop(AF_INET6, original.bytes().data(), buf, sizeof buf), nullptr);
        std::string const printed = original.toString().stringValue();
        if (!libcPrintsCompatibleForm(original)) {
            ASSERT_EQ(printed, buf);
        }
        ASSERT_EQ(Ip6Addr::fromString(printed), original) << printed;

        std::string const t = velnet_test::mutated(rng() % 2 ? printed : std::string(buf), rng,
                                                   "0123456789abcdefABCDEF::::...g %");
        Ip6Addr::Bytes oracle{};
        bool const libcOk = inet_pton(AF_INET6, t.c_str(), oracle.data()) == 1;
        auto const parsed = velnet_test::parsedOrNot<Ip6Addr>(t);
        ASSERT_EQ(parsed.has_value(), libcOk) << "'" << t << "'";
        if (parsed) {
            ++accepted;
            ASSERT_EQ(*parsed, Ip6Addr(oracle)) << t;
        }
    }
    EXPECT_GT(accepted, 2500);
}

TEST(Ip6AddrTest, HashIsTheDocumentedChainOverTheFourWords) {
    // Pinned: computed outside this code base from the formula in Ip6Addr.h.
    EXPECT_EQ(Ip6Addr().hash(), 0u);
    EXPECT_EQ(Ip6Addr::fromString("::1").hash(), 0x514E28B7u);
    EXPECT_EQ(Ip6Addr::fromString("2001:db8::1").hash(), 0x7123BC7Au);
    EXPECT_EQ(Ip6Addr::fromString("fe80::1").hash(), 0x09A452DAu);
    EXPECT_EQ(Ip6Addr::fromString("::ffff:10.0.0.1").hash(), 0x9BC00C6Bu);
    // The documented formula, from the groups the test chose.
    std::mt19937 rng(5);
    for (int i = 0; i < 2000; ++i) {
        Groups g;
        for (auto& x : g) x = U16(rng());
        U32 h = 0;
        for (int w = 0; w < 4; ++w) h = refFmix32(h ^ (U32(g[2 * w]) << 16 | g[2 * w + 1]));
        Ip6Addr const a = fromGroups(g);
        ASSERT_EQ(a.hash(), h) << a;
        ASSERT_EQ(std::hash<Ip6Addr>()(a), std::size_t(a.hash()));
    }
}

} // namespace
