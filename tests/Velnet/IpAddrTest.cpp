#include "Velnet/IpAddr.h"

#include "VelnetTestSupport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

namespace {

using Velnet::IpAddr;
using velnet_test::refFmix32;
using velnet_test::refuses;

std::string dotted(U32 a, U32 b, U32 c, U32 d) {
    return std::to_string(a) + "." + std::to_string(b) + "." + std::to_string(c) + "." +
           std::to_string(d);
}

// ---- layout -------------------------------------------------------------------------------

static_assert(sizeof(IpAddr) == 4 && alignof(IpAddr) == 4);
static_assert(std::is_trivially_copyable_v<IpAddr> && std::is_standard_layout_v<IpAddr>);
static_assert(std::has_unique_object_representations_v<IpAddr>);

TEST(IpAddrTest, StoredAsOneHostOrderWord) {
    IpAddr const a(10, 1, 2, 3);
    U32 word = 0;
    std::memcpy(&word, &a, sizeof word);
    EXPECT_EQ(word, 0x0A010203u);
    EXPECT_EQ(IpAddr().value(), 0u);
    EXPECT_EQ(IpAddr(0xC0A80101u), IpAddr(192, 168, 1, 1));
    EXPECT_EQ(a.octet(0), 10);
    EXPECT_EQ(a.octet(1), 1);
    EXPECT_EQ(a.octet(2), 2);
    EXPECT_EQ(a.octet(3), 3);
}

// ---- text ---------------------------------------------------------------------------------

TEST(IpAddrTest, ParsesAndPrintsDottedQuads) {
    struct Case {
        char const* text;
        U32 value;
    };
    for (Case c : {Case{"0.0.0.0", 0u}, Case{"255.255.255.255", 0xFFFFFFFFu},
                   Case{"10.1.2.3", 0x0A010203u}, Case{"192.168.100.200", 0xC0A864C8u},
                   Case{"1.0.0.0", 0x01000000u}, Case{"0.0.0.1", 1u},
                   Case{"127.0.0.1", 0x7F000001u}, Case{"128.0.0.0", 0x80000000u}}) {
        SCOPED_TRACE(c.text);
        IpAddr const a = IpAddr::fromString(c.text);
        EXPECT_EQ(a.value(), c.value);
        EXPECT_EQ(a.toString(), Kal::String8(c.text));
        std::ostringstream os;
        os << a;
        EXPECT_EQ(os.str(), c.text);
    }
}

TEST(IpAddrTest, EveryOctetWidthRoundTrips) {
    // Octet values at each digit-count boundary, in every position.
    U32 const octets[] = {0, 1, 9, 10, 99, 100, 199, 200, 249, 250, 255};
    for (U32 a : octets)
        for (U32 b : octets)
            for (U32 c : octets)
                for (U32 d : octets) {
                    std::string const text = dotted(a, b, c, d);
                    IpAddr const addr = IpAddr::fromString(text);
                    ASSERT_EQ(addr, IpAddr(U8(a), U8(b), U8(c), U8(d))) << text;
                    ASSERT_EQ(addr.toString().stringValue(), text);
                }
}

TEST(IpAddrTest, RefusesMalformedTextNamingIt) {
    auto const parse = &IpAddr::fromString;
    // Shape: missing, extra or empty octets, stray characters, white space.
    for (char const* text :
         {"", ".", "1.2.3", "1.2.3.4.5", "1.2.3.4.", ".1.2.3.4", "1..2.3", "1.2.3.", "a.b.c.d",
          "1.2.3.x", "0x1.2.3.4", "1.2.3.-4", "+1.2.3.4", " 1.2.3.4", "1.2.3.4 ", "1.2.3.4/24",
          "1.2.3.4:80", "1,2,3,4", "10", "::1"}) {
        EXPECT_TRUE(refuses(parse, text, "expected four dot-separated decimal octets"));
    }
    // Range.
    for (char const* text : {"256.0.0.0", "1.2.3.256", "1000.1.1.1", "99999999999.1.1.1",
                             "1.2.3.4294967297"}) {
        EXPECT_TRUE(refuses(parse, text, "octet above 255"));
    }
    // Leading zeros are ambiguous (octal to inet_aton, decimal elsewhere): refused.
    for (char const* text : {"01.2.3.4", "1.2.3.00", "10.010.0.1", "0.0.0.00", "1.2.3.0255"}) {
        EXPECT_TRUE(refuses(parse, text, "leading zero"));
    }
    EXPECT_TRUE(refuses(parse, "10.0.0.256", "invalid IPv4 address '10.0.0.256'"));
}

TEST(IpAddrTest, MessagesShowUnprintableBytesEscaped) {
    try {
        IpAddr::fromString(std::string("1.2.3.4\t\0", 9));
        FAIL() << "accepted";
    } catch (Kal::RangeException const& e) {
        EXPECT_EQ(e.message(), Kal::String8("invalid IPv4 address '1.2.3.4\\x09\\x00': "
                                            "expected four dot-separated decimal octets"));
    }
}

TEST(IpAddrTest, AcceptsExactlyWhatTheCLibraryStrictParserAccepts) {
    // inet_pton(AF_INET) also takes exactly four decimal octets without leading zeros, so it is
    // an independent oracle. Mutations of valid addresses probe the edges of the grammar.
    U32 const seed = 20240611;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    std::string const alphabet = "0123456789.. x-";
    int accepted = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string t = dotted(rng() % 256, rng() % 256, rng() % 300, rng() % 256);
        for (U32 edits = rng() % 3; edits > 0 && !t.empty(); --edits) {
            std::size_t const pos = rng() % t.size();
            switch (rng() % 3) {
            case 0: t.erase(pos, 1); break;
            case 1: t.insert(pos, 1, alphabet[rng() % alphabet.size()]); break;
            default: t[pos] = alphabet[rng() % alphabet.size()]; break;
            }
        }
        in_addr oracle{};
        bool const libcOk = inet_pton(AF_INET, t.c_str(), &oracle) == 1;
        bool ok = true;
        IpAddr a;
        try {
            a = IpAddr::fromString(t);
        } catch (Kal::RangeException const&) {
            ok = false;
        }
        ASSERT_EQ(ok, libcOk) << "'" << t << "'";
        if (ok) {
            ++accepted;
            ASSERT_EQ(a.value(), ntohl(oracle.s_addr)) << t;
        }
    }
    EXPECT_GT(accepted, 2000); // the loop exercised acceptance as well as refusal
}

// ---- order --------------------------------------------------------------------------------

TEST(IpAddrTest, OrdersNumerically) {
    EXPECT_LT(IpAddr(0, 0, 0, 0), IpAddr(255, 255, 255, 255));
    EXPECT_GT(IpAddr(255, 255, 255, 255), IpAddr(0, 0, 0, 0));
    EXPECT_LT(IpAddr(9, 255, 255, 255), IpAddr(10, 0, 0, 0));
    EXPECT_LT(IpAddr(127, 255, 255, 255), IpAddr(128, 0, 0, 0)); // no sign trouble
    EXPECT_LT(IpAddr(10, 0, 0, 2), IpAddr(10, 0, 0, 10));
    EXPECT_EQ(IpAddr(10, 0, 0, 1) <=> IpAddr(10, 0, 0, 1), std::strong_ordering::equal);
    EXPECT_NE(IpAddr(10, 0, 0, 1), IpAddr(10, 0, 0, 2));

    // Sorting agrees with the order of the octet tuples.
    std::mt19937 rng(7);
    std::vector<IpAddr> v;
    for (int i = 0; i < 500; ++i) {
        v.emplace_back(U8(rng() % 4 * 64), U8(rng() % 3 + 254), U8(rng()), U8(rng() % 2 * 255));
    }
    auto byOctets = [](IpAddr x, IpAddr y) {
        return std::make_tuple(x.octet(0), x.octet(1), x.octet(2), x.octet(3)) <
               std::make_tuple(y.octet(0), y.octet(1), y.octet(2), y.octet(3));
    };
    std::vector<IpAddr> expected = v;
    std::sort(expected.begin(), expected.end(), byOctets);
    std::sort(v.begin(), v.end());
    EXPECT_EQ(v, expected);
}

// ---- hash ---------------------------------------------------------------------------------

TEST(IpAddrTest, HashIsTheDocumentedFinaliserOfTheValue) {
    // Pinned: computed outside this code base from "fmix32(value)".
    EXPECT_EQ(IpAddr(0, 0, 0, 0).hash(), 0u);
    EXPECT_EQ(IpAddr(10, 0, 0, 1).hash(), 0x1B0BA38Fu);
    EXPECT_EQ(IpAddr(192, 168, 1, 1).hash(), 0x7363FC6Eu);
    EXPECT_EQ(IpAddr(255, 255, 255, 255).hash(), 0x81F16F39u);
    for (U64 v = 0; v <= 0xFFFFFFFFull; v += 0x01010101ull * 3 + 7) {
        IpAddr const a{U32(v)};
        ASSERT_EQ(a.hash(), refFmix32(U32(v))) << a;
        ASSERT_EQ(std::hash<IpAddr>()(a), std::size_t(a.hash()));
    }
}

TEST(IpAddrTest, HashSpreadsSequentialAddressesAndNetworks) {
    std::vector<U32> hosts, networks;
    std::unordered_set<U32> distinct;
    for (U32 i = 0; i < 65536; ++i) {
        hosts.push_back(IpAddr(0x0A000000u + i).hash());
        networks.push_back(IpAddr(0x0A000000u + (i << 8)).hash()); // 10.0.0.0, 10.0.1.0, ...
        distinct.insert(hosts.back());
    }
    EXPECT_TRUE(velnet_test::wellSpread(hosts));
    EXPECT_TRUE(velnet_test::wellSpread(networks));
    EXPECT_EQ(distinct.size(), 65536u);
}

} // namespace
