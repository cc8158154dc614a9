#include "Velnet/Ip6Addr.h"

#include "VelnetTestSupport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

namespace {

using Velnet::Ip6Addr;
using Velnet::IpAddr;
using velnet_test::refFmix32;
using velnet_test::refuses;

Ip6Addr fromGroups(std::array<U16, 8> const& g) {
    return Ip6Addr(g[0], g[1], g[2], g[3], g[4], g[5], g[6], g[7]);
}

// ---- layout -------------------------------------------------------------------------------

static_assert(sizeof(Ip6Addr) == 16 && alignof(Ip6Addr) == 4);
static_assert(std::is_trivially_copyable_v<Ip6Addr> && std::is_standard_layout_v<Ip6Addr>);
static_assert(std::has_unique_object_representations_v<Ip6Addr>);

TEST(Ip6AddrTest, StoredAsSixteenNetworkOrderBytes) {
    Ip6Addr const a(0x2001, 0x0db8, 0x1234, 0, 0, 0, 0xabcd, 0x0001);
    U8 image[16];
    std::memcpy(image, &a, sizeof image);
    U8 const expected[16] = {0x20, 0x01, 0x0d, 0xb8, 0x12, 0x34, 0, 0,
                             0,    0,    0,    0,    0xab, 0xcd, 0x00, 0x01};
    EXPECT_EQ(std::memcmp(image, expected, 16), 0);
    Ip6Addr::Bytes bytes;
    std::memcpy(bytes.data(), expected, 16);
    EXPECT_EQ(Ip6Addr(bytes), a);
    EXPECT_EQ(a.bytes(), bytes);
    EXPECT_EQ(a.group(0), 0x2001);
    EXPECT_EQ(a.group(6), 0xabcd);
    EXPECT_EQ(a.word(0), 0x20010db8u);
    EXPECT_EQ(a.word(3), 0xabcd0001u);
    EXPECT_EQ(Ip6Addr(), Ip6Addr(Ip6Addr::Bytes{}));
    EXPECT_EQ(Ip6Addr::v4Mapped(IpAddr(192, 0, 2, 1)),
              Ip6Addr(0, 0, 0, 0, 0, 0xffff, 0xc000, 0x0201));
}

// ---- text ---------------------------------------------------------------------------------

struct TextCase {
    char const* input;
    std::array<U16, 8> groups;
    char const* canonical;
};

TEST(Ip6AddrTest, PrintsTheCanonicalForm) {
    TextCase const cases[] = {
        {"::", {0, 0, 0, 0, 0, 0, 0, 0}, "::"},
        {"::1", {0, 0, 0, 0, 0, 0, 0, 1}, "::1"},
        {"1::", {1, 0, 0, 0, 0, 0, 0, 0}, "1::"},
        {"0:0:0:0:0:0:0:0", {0, 0, 0, 0, 0, 0, 0, 0}, "::"},
        // Leading zeros dropped, uppercase input, lowercase output.
        {"2001:0DB8:0000:0000:0000:0000:0000:0001", {0x2001, 0xdb8, 0, 0, 0, 0, 0, 1},
         "2001:db8::1"},
        {"FE80::ABCD", {0xfe80, 0, 0, 0, 0, 0, 0, 0xabcd}, "fe80::abcd"},
        {"0001:0010:0100:1000:000a:00B0:0c00:D000",
         {1, 0x10, 0x100, 0x1000, 0xa, 0xb0, 0xc00, 0xd000}, "1:10:100:1000:a:b0:c00:d000"},
        {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
         {0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff},
         "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
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
        {"0:0:0:0:0:FFFF:c000:201", {0, 0, 0, 0, 0, 0xffff, 0xc000, 0x0201},
         "::ffff:192.0.2.1"},
        {"::ffff:0:0", {0, 0, 0, 0, 0, 0xffff, 0, 0}, "::ffff:0.0.0.0"},
        {"::ffff:255.255.255.255", {0, 0, 0, 0, 0, 0xffff, 0xffff, 0xffff},
         "::ffff:255.255.255.255"},
        // Other embedded IPv4 forms are accepted and print in hex.
        {"::1.2.3.4", {0, 0, 0, 0, 0, 0, 0x0102, 0x0304}, "::102:304"},
        {"64:ff9b::192.0.2.33", {0x64, 0xff9b, 0, 0, 0, 0, 0xc000, 0x0221}, "64:ff9b::c000:221"},
        {"1:2:3:4:5:6:1.2.3.4", {1, 2, 3, 4, 5, 6, 0x0102, 0x0304}, "1:2:3:4:5:6:102:304"},
        {"::ffff:0:1.2.3.4", {0, 0, 0, 0, 0xffff, 0, 0x0102, 0x0304}, "::ffff:0:102:304"},
    };
    for (TextCase const& c : cases) {
        SCOPED_TRACE(c.input);
        Ip6Addr const a = Ip6Addr::fromString(c.input);
        EXPECT_EQ(a, fromGroups(c.groups));
        EXPECT_EQ(a.toString(), Kal::String8(c.canonical));
        EXPECT_EQ(Ip6Addr::fromString(c.canonical), a);
        std::ostringstream os;
        os << a;
        EXPECT_EQ(os.str(), c.canonical);
    }
}

TEST(Ip6AddrTest, RefusesMalformedTextNamingIt) {
    auto const parse = &Ip6Addr::fromString;
    struct Bad {
        char const* text;
        char const* reason;
    };
    Bad const cases[] = {
        {"", "empty"},
        // Two "::".
        {"1::2::3", "more than one '::'"},
        {"::1::", "more than one '::'"},
        {"1:2::3:4::", "more than one '::'"},
        // Too many digits or a non-hex digit in a group.
        {"12345::", "more than four hex digits"},
        {"1:2:3:4:5:6:7:00000", "more than four hex digits"},
        {"g::1", "not a hex digit"},
        {"2001:db8::1x", "not a hex digit"},
        {"1:2:3:4:5:6:7:-8", "not a hex digit"},
        // Group counts.
        {"1:2:3:4:5:6:7:8:9", "too many groups"},
        {"1:2:3:4:5:6:7:8::", "too many groups"},
        {"::1:2:3:4:5:6:7:8", "too many groups"},
        {"1:2:3:4::5:6:7:8", "too many groups"},
        {"1:2:3:4:5:6:7", "too few groups"},
        {"1", "too few groups"},
        {"1:2:3:4:5:6:1.2.3.4:8", "IPv4 tail not at the end"},
        // Lone colons.
        {":", "lone ':'"},
        {":::", "lone ':'"},
        {"1:::2", "lone ':'"},
        {":1:2:3:4:5:6:7:8", "lone ':'"},
        {"1:2:3:4:5:6:7:8:", "lone ':'"},
        {":1::", "lone ':'"},
        {"::1:", "lone ':'"},
        {"1::2:", "lone ':'"},
        // Dotted tails.
        {"::1.2.3", "malformed IPv4 tail"},
        {"::1.2.3.256", "malformed IPv4 tail"},
        {"::ffff:01.2.3.4", "malformed IPv4 tail"},
        {"::1.2.3.4.5", "malformed IPv4 tail"},
        {"::ffff:1.2.3.", "malformed IPv4 tail"},
        {"1.2.3.4", "too few groups"},
        {"1.2.3.4::", "IPv4 tail not at the end"},
        {"::1.2.3.4:5", "IPv4 tail not at the end"},
        {"1:2:3:4:5:6:7:1.2.3.4", "too many groups"},
        {"1:2:3:4:5:6:7::1.2.3.4", "too many groups"},
        // Zone ids, brackets, white space, prefixes.
        {"fe80::1%eth0", "zone id"},
        {"fe80::1%1", "zone id"},
        {"[::1]", "not a hex digit"},
        {" ::1", "not a hex digit"},
        {"::1 ", "not a hex digit"},
        {"2001:db8::/32", "not a hex digit"},
    };
    for (Bad const& c : cases) EXPECT_TRUE(refuses(parse, c.text, c.reason));
    EXPECT_TRUE(refuses(parse, "1::2::3", "invalid IPv6 address '1::2::3'"));
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
    std::array<U16, 8> g;
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
    std::string const alphabet = "0123456789abcdefABCDEF::::...g %";
    int accepted = 0;
    for (int i = 0; i < 30000; ++i) {
        Ip6Addr const original = randomAddress(rng);
        char buf[INET6_ADDRSTRLEN];
        ASSERT_NE(inet_ntop(AF_INET6, original.bytes().data(), buf, sizeof buf), nullptr);
        std::string const printed = original.toString().stringValue();
        if (!libcPrintsCompatibleForm(original)) {
            ASSERT_EQ(printed, buf);
        }
        ASSERT_EQ(Ip6Addr::fromString(printed), original) << printed;

        std::string t = rng() % 2 ? printed : std::string(buf);
        for (U32 edits = rng() % 3; edits > 0 && !t.empty(); --edits) {
            std::size_t const pos = rng() % t.size();
            switch (rng() % 3) {
            case 0: t.erase(pos, 1); break;
            case 1: t.insert(pos, 1, alphabet[rng() % alphabet.size()]); break;
            default: t[pos] = alphabet[rng() % alphabet.size()]; break;
            }
        }
        Ip6Addr::Bytes oracle{};
        bool const libcOk = inet_pton(AF_INET6, t.c_str(), oracle.data()) == 1;
        bool ok = true;
        Ip6Addr parsed;
        try {
            parsed = Ip6Addr::fromString(t);
        } catch (Kal::RangeException const&) {
            ok = false;
        }
        ASSERT_EQ(ok, libcOk) << "'" << t << "'";
        if (ok) {
            ++accepted;
            ASSERT_EQ(parsed, Ip6Addr(oracle)) << t;
        }
    }
    EXPECT_GT(accepted, 5000);
}

// ---- order --------------------------------------------------------------------------------

TEST(Ip6AddrTest, OrdersAsOneBigEndianNumber) {
    Ip6Addr const zero, one(0, 0, 0, 0, 0, 0, 0, 1);
    Ip6Addr const top(0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff);
    Ip6Addr const high(0x8000, 0, 0, 0, 0, 0, 0, 0);
    Ip6Addr const belowHigh(0x7fff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff);
    EXPECT_LT(zero, one);
    EXPECT_LT(one, top);
    EXPECT_LT(zero, top);
    EXPECT_LT(belowHigh, high); // the high byte decides, with no sign trouble
    EXPECT_LT(Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 0, 0xffff),
              Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 1, 0));
    EXPECT_LT(Ip6Addr(0x00ff, 0xffff, 0, 0, 0, 0, 0, 0), Ip6Addr(0x0100, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(one <=> Ip6Addr::fromString("::1"), std::strong_ordering::equal);

    // Sorting agrees with the order of the group arrays.
    std::mt19937 rng(99);
    std::vector<Ip6Addr> v;
    for (int i = 0; i < 500; ++i) v.push_back(randomAddress(rng));
    std::vector<Ip6Addr> expected = v;
    std::sort(expected.begin(), expected.end(), [](Ip6Addr const& x, Ip6Addr const& y) {
        std::array<U16, 8> gx, gy;
        for (unsigned i = 0; i < 8; ++i) {
            gx[i] = x.group(i);
            gy[i] = y.group(i);
        }
        return gx < gy;
    });
    std::sort(v.begin(), v.end());
    EXPECT_EQ(v, expected);
}

// ---- hash ---------------------------------------------------------------------------------

// The documented formula, from the groups the test chose.
U32 refHash(std::array<U16, 8> const& g) {
    U32 w[4];
    for (int i = 0; i < 4; ++i) w[i] = U32(g[2 * i]) << 16 | g[2 * i + 1];
    U32 h = refFmix32(w[0]);
    for (int i = 1; i < 4; ++i) h = refFmix32(h ^ w[i]);
    return h;
}

TEST(Ip6AddrTest, HashIsTheDocumentedChainOverTheFourWords) {
    // Pinned: computed outside this code base from the formula in Ip6Addr.h.
    EXPECT_EQ(Ip6Addr().hash(), 0u);
    EXPECT_EQ(Ip6Addr::fromString("::1").hash(), 0x514E28B7u);
    EXPECT_EQ(Ip6Addr::fromString("2001:db8::1").hash(), 0x7123BC7Au);
    EXPECT_EQ(Ip6Addr::fromString("fe80::1").hash(), 0x09A452DAu);
    EXPECT_EQ(Ip6Addr::fromString("::ffff:10.0.0.1").hash(), 0x9BC00C6Bu);

    std::mt19937 rng(5);
    for (int i = 0; i < 2000; ++i) {
        std::array<U16, 8> g;
        for (auto& x : g) x = U16(rng());
        Ip6Addr const a = fromGroups(g);
        ASSERT_EQ(a.hash(), refHash(g)) << a;
        ASSERT_EQ(std::hash<Ip6Addr>()(a), std::size_t(a.hash()));
    }
}

TEST(Ip6AddrTest, HashTellsWordsApart) {
    // The same value in different words (a weakness of a plain XOR fold) hashes apart.
    std::unordered_set<U32> seen;
    for (unsigned word = 0; word < 4; ++word) {
        std::array<U16, 8> g{};
        g[2 * word + 1] = 1;
        EXPECT_TRUE(seen.insert(fromGroups(g).hash()).second) << word;
    }
    EXPECT_NE(Ip6Addr::fromString("2001:db8::1:0:0:1").hash(),
              Ip6Addr::fromString("2001:db8:0:1::1").hash());
}

TEST(Ip6AddrTest, HashSpreadsSequentialHostsAndNetworks) {
    std::vector<U32> hosts, networks;
    for (U32 i = 0; i < 65536; ++i) {
        hosts.push_back(Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, U16(i >> 16), U16(i)).hash());
        networks.push_back(Ip6Addr(0x2001, 0xdb8, U16(i), 0, 0, 0, 0, 0).hash()); // /48s
    }
    EXPECT_TRUE(velnet_test::wellSpread(hosts));
    EXPECT_TRUE(velnet_test::wellSpread(networks));
}

} // namespace
