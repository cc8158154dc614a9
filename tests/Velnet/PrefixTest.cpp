#include "Velnet/Prefix.h"

#include "VelnetTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <random>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

namespace {

using Velnet::Ip6Addr;
using Velnet::Ip6Prefix;
using Velnet::IpAddr;
using Velnet::Prefix;
using velnet_test::refFmix32;
using velnet_test::refuses;

// Host bits cleared bit by bit, independently of the library's masks.
U32 refNetwork(U32 address, U32 len) {
    U32 r = 0;
    for (U32 bit = 0; bit < len; ++bit) r |= address & (0x80000000u >> bit);
    return r;
}

Ip6Addr refNetwork6(Ip6Addr const& a, U32 len) {
    Ip6Addr::Bytes b{};
    for (U32 bit = 0; bit < len; ++bit) b[bit / 8] |= a.bytes()[bit / 8] & (0x80u >> bit % 8);
    return Ip6Addr(b);
}

Ip6Addr const allOnes6(0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff);

// ---- layout -------------------------------------------------------------------------------

static_assert(sizeof(Prefix) == 8 && alignof(Prefix) == 4);
static_assert(sizeof(Ip6Prefix) == 20 && alignof(Ip6Prefix) == 4);
static_assert(std::is_trivially_copyable_v<Prefix> && std::is_standard_layout_v<Prefix>);
static_assert(std::is_trivially_copyable_v<Ip6Prefix> && std::is_standard_layout_v<Ip6Prefix>);
static_assert(std::has_unique_object_representations_v<Prefix>);
static_assert(std::has_unique_object_representations_v<Ip6Prefix>);

TEST(PrefixTest, ByteImageIsAddressLengthAndZeroPadding) {
    // Fill the storage with garbage first: the padding must be written, not inherited.
    alignas(Prefix) unsigned char storage[sizeof(Prefix)];
    std::memset(storage, 0xAB, sizeof storage);
    auto* p = new (storage) Prefix(IpAddr(10, 1, 2, 7), 24);
    U32 word = 0;
    std::memcpy(&word, storage, 4);
    EXPECT_EQ(word, 0x0A010200u);
    EXPECT_EQ(storage[4], 24);
    EXPECT_EQ(storage[5], 0);
    EXPECT_EQ(storage[6], 0);
    EXPECT_EQ(storage[7], 0);
    EXPECT_EQ(p->len(), 24u);

    alignas(Ip6Prefix) unsigned char storage6[sizeof(Ip6Prefix)];
    std::memset(storage6, 0xAB, sizeof storage6);
    new (storage6) Ip6Prefix(Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 0, 0), 32);
    U8 const expected6[20] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0,
                              0,    0,    0,    0,    0, 0, 32, 0, 0, 0};
    EXPECT_EQ(std::memcmp(storage6, expected6, 20), 0);

    // Default values: 0.0.0.0/0 and ::/0, all bytes zero.
    Prefix const d;
    Ip6Prefix const d6;
    U8 const zeros[20] = {};
    EXPECT_EQ(std::memcmp(&d, zeros, sizeof d), 0);
    EXPECT_EQ(std::memcmp(&d6, zeros, sizeof d6), 0);
    EXPECT_EQ(d, Prefix::fromString("0.0.0.0/0"));
    EXPECT_EQ(d6, Ip6Prefix::fromString("::/0"));
}

// ---- construction: canonical values -------------------------------------------------------

TEST(PrefixTest, ConstructorClearsHostBitsAtEveryLength) {
    for (U32 address : {0xFFFFFFFFu, 0x0A010203u, 0xC0A80001u, 0x80000001u}) {
        for (U32 len = 0; len <= 32; ++len) {
            Prefix const p(IpAddr(address), len);
            ASSERT_EQ(p.address().value(), refNetwork(address, len)) << len;
            ASSERT_EQ(p.len(), len);
            ASSERT_EQ(p.mask().value(), refNetwork(0xFFFFFFFFu, len));
        }
    }
    // Equal networks written with different host bits are one value, with one hash.
    Prefix const a(IpAddr(10, 0, 0, 1), 24), b(IpAddr(10, 0, 0, 200), 24);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.hash(), b.hash());
    EXPECT_EQ(a, Prefix::fromString("10.0.0.0/24"));
}

TEST(PrefixTest, Ip6ConstructorClearsHostBitsAtEveryLength) {
    Ip6Addr const samples[] = {allOnes6, Ip6Addr(0x2001, 0xdb8, 0x1234, 0x5678, 0x9abc, 0xdef0,
                                                 0x1357, 0x9bdf)};
    for (Ip6Addr const& a : samples) {
        for (U32 len = 0; len <= 128; ++len) {
            Ip6Prefix const p(a, len);
            ASSERT_EQ(p.address(), refNetwork6(a, len)) << len;
            ASSERT_EQ(p.len(), len);
        }
    }
    EXPECT_EQ(Ip6Prefix(allOnes6, 13).address(), Ip6Addr(0xfff8, 0, 0, 0, 0, 0, 0, 0));
    Ip6Prefix const a(Ip6Addr::fromString("2001:db8::1"), 64);
    Ip6Prefix const b(Ip6Addr::fromString("2001:db8::ffff:1"), 64);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.hash(), b.hash());
}

TEST(PrefixTest, LengthLimits) {
    EXPECT_EQ(Prefix(IpAddr(10, 1, 1, 1), 0), Prefix());
    EXPECT_EQ(Prefix(IpAddr(10, 1, 1, 1), 32).address(), IpAddr(10, 1, 1, 1));
    EXPECT_EQ(Ip6Prefix(allOnes6, 0), Ip6Prefix());
    EXPECT_EQ(Ip6Prefix(allOnes6, 128).address(), allOnes6);

    auto expectLengthRefused = [](auto make, char const* message) {
        try {
            make();
            ADD_FAILURE() << "accepted: " << message;
        } catch (Kal::RangeException const& e) {
            EXPECT_EQ(e.message(), Kal::String8(message));
        }
    };
    expectLengthRefused([] { return Prefix(IpAddr(), 33); },
                        "invalid IPv4 prefix length 33 (0-32)");
    expectLengthRefused([] { return Prefix(IpAddr(), 0xFFFFFFFFu); },
                        "invalid IPv4 prefix length 4294967295 (0-32)");
    expectLengthRefused([] { return Ip6Prefix(Ip6Addr(), 129); },
                        "invalid IPv6 prefix length 129 (0-128)");
    // A length that would fit a byte after truncation is still refused.
    expectLengthRefused([] { return Prefix(IpAddr(), 256 + 24); },
                        "invalid IPv4 prefix length 280 (0-32)");

    EXPECT_EQ(Prefix::fromString("0.0.0.0/0").len(), 0u);
    EXPECT_EQ(Prefix::fromString("255.255.255.255/32").len(), 32u);
    EXPECT_EQ(Ip6Prefix::fromString("::/0").len(), 0u);
    EXPECT_EQ(Ip6Prefix::fromString("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128").len(), 128u);
    EXPECT_TRUE(refuses(&Prefix::fromString, "10.0.0.0/33", "length out of range"));
    EXPECT_TRUE(refuses(&Ip6Prefix::fromString, "2001:db8::/129", "length out of range"));
    EXPECT_TRUE(refuses(&Prefix::fromString, "10.0.0.0/4294967296", "out of range"));
}

// ---- text ---------------------------------------------------------------------------------

TEST(PrefixTest, TextRoundTrips) {
    for (char const* text : {"0.0.0.0/0", "10.0.0.0/8", "10.0.0.0/24", "192.168.1.128/25",
                             "172.16.0.0/12", "255.255.255.254/31", "255.255.255.255/32",
                             "128.0.0.0/1"}) {
        SCOPED_TRACE(text);
        Prefix const p = Prefix::fromString(text);
        EXPECT_EQ(p.toString(), Kal::String8(text));
        std::ostringstream os;
        os << p;
        EXPECT_EQ(os.str(), text);
    }
    EXPECT_EQ(Prefix::fromString("10.0.0.0/24"), Prefix(IpAddr(10, 0, 0, 0), 24));

    struct Case6 {
        char const* input;
        char const* canonical;
    };
    for (Case6 c : {Case6{"::/0", "::/0"}, Case6{"2001:db8::/32", "2001:db8::/32"},
                    Case6{"2001:0DB8:0000::/48", "2001:db8::/48"}, Case6{"::1/128", "::1/128"},
                    Case6{"fe80::/10", "fe80::/10"},
                    Case6{"::ffff:10.0.0.0/104", "::ffff:10.0.0.0/104"},
                    Case6{"2001:db8:0:0:1:0:0:0/80", "2001:db8:0:0:1::/80"}}) {
        SCOPED_TRACE(c.input);
        Ip6Prefix const p = Ip6Prefix::fromString(c.input);
        EXPECT_EQ(p.toString(), Kal::String8(c.canonical));
        EXPECT_EQ(Ip6Prefix::fromString(c.canonical), p);
        std::ostringstream os;
        os << p;
        EXPECT_EQ(os.str(), c.canonical);
    }
    EXPECT_EQ(Ip6Prefix::fromString("2001:db8::/32"),
              Ip6Prefix(Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 0, 0), 32));
}

TEST(PrefixTest, RefusesHostBitsInTextNamingTheNetwork) {
    EXPECT_TRUE(refuses(&Prefix::fromString, "10.0.0.1/24",
                        "invalid IPv4 prefix '10.0.0.1/24': host bits set (the network is "
                        "10.0.0.0/24)"));
    for (char const* text : {"11.0.0.0/7", "0.0.0.1/0", "255.255.255.255/31", "10.0.0.128/24",
                             "128.0.0.0/0"}) {
        EXPECT_TRUE(refuses(&Prefix::fromString, text, "host bits set"));
    }
    EXPECT_TRUE(refuses(&Ip6Prefix::fromString, "2001:db8::1/64",
                        "invalid IPv6 prefix '2001:db8::1/64': host bits set (the network is "
                        "2001:db8::/64)"));
    for (char const* text : {"fe80::1/10", "::1/0", "2001:db8:8000::/32", "fff8::/12",
                             "::ffff:10.0.0.1/104"}) {
        EXPECT_TRUE(refuses(&Ip6Prefix::fromString, text, "host bits set"));
    }
}

TEST(PrefixTest, RefusesMalformedText) {
    auto const parse = &Prefix::fromString;
    EXPECT_TRUE(refuses(parse, "", "missing '/<length>'"));
    EXPECT_TRUE(refuses(parse, "10.0.0.0", "missing '/<length>'"));
    EXPECT_TRUE(refuses(parse, "10.0.0.0/", "missing number"));
    EXPECT_TRUE(refuses(parse, "10.0.0.0/024", "leading zero"));
    EXPECT_TRUE(refuses(parse, "10.0.0.0/00", "leading zero"));
    for (char const* text : {"10.0.0.0/-1", "10.0.0.0/+8", "10.0.0.0/ 8", "10.0.0.0/8 ",
                             "10.0.0.0/8/8", "10.0.0.0/0x8", "10.0.0.0/255.0.0.0"}) {
        EXPECT_TRUE(refuses(parse, text, "not a decimal number"));
    }
    EXPECT_TRUE(refuses(parse, "10.0.0/8", "expected four dot-separated decimal octets"));
    EXPECT_TRUE(refuses(parse, "010.0.0.0/8", "leading zero"));
    EXPECT_TRUE(refuses(parse, "256.0.0.0/8", "octet above 255"));
    EXPECT_TRUE(refuses(parse, "/8"));
    EXPECT_TRUE(refuses(parse, "::/0"));

    auto const parse6 = &Ip6Prefix::fromString;
    EXPECT_TRUE(refuses(parse6, "2001:db8::", "missing '/<length>'"));
    EXPECT_TRUE(refuses(parse6, "2001:db8::/", "missing number"));
    EXPECT_TRUE(refuses(parse6, "2001:db8::/032", "leading zero"));
    EXPECT_TRUE(refuses(parse6, "2001:db8::/3 2", "not a decimal number"));
    EXPECT_TRUE(refuses(parse6, "2001::db8::/32", "more than one '::'"));
    EXPECT_TRUE(refuses(parse6, "fe80::%eth0/64", "zone id"));
    EXPECT_TRUE(refuses(parse6, "fe80::/64%eth0", "not a decimal number"));
    EXPECT_TRUE(refuses(parse6, "/64", "empty"));
    EXPECT_TRUE(refuses(parse6, "10.0.0.0/8", "too few groups"));
}

// ---- containment --------------------------------------------------------------------------

TEST(PrefixTest, ContainsAddressesAndPrefixes) {
    Prefix const ten = Prefix::fromString("10.0.0.0/8");
    EXPECT_TRUE(ten.contains(IpAddr(10, 0, 0, 0)));
    EXPECT_TRUE(ten.contains(IpAddr(10, 255, 255, 255)));
    EXPECT_FALSE(ten.contains(IpAddr(11, 0, 0, 0)));
    EXPECT_FALSE(ten.contains(IpAddr(9, 255, 255, 255)));
    Prefix const all;
    EXPECT_TRUE(all.contains(IpAddr()));
    EXPECT_TRUE(all.contains(IpAddr(255, 255, 255, 255)));
    Prefix const host = Prefix::fromString("10.1.2.3/32");
    EXPECT_TRUE(host.contains(IpAddr(10, 1, 2, 3)));
    EXPECT_FALSE(host.contains(IpAddr(10, 1, 2, 2)));
    Prefix const odd = Prefix::fromString("192.168.1.128/25");
    EXPECT_TRUE(odd.contains(IpAddr(192, 168, 1, 255)));
    EXPECT_FALSE(odd.contains(IpAddr(192, 168, 1, 127)));

    Prefix const tenOne = Prefix::fromString("10.1.0.0/16");
    EXPECT_TRUE(ten.contains(tenOne));
    EXPECT_FALSE(tenOne.contains(ten));
    EXPECT_TRUE(ten.contains(ten));
    EXPECT_TRUE(all.contains(Prefix::fromString("255.255.255.255/32")));
    EXPECT_FALSE(ten.contains(Prefix::fromString("11.0.0.0/16")));
    EXPECT_FALSE(Prefix::fromString("10.0.0.0/9").contains(Prefix::fromString("10.128.0.0/9")));

    Ip6Prefix const doc = Ip6Prefix::fromString("2001:db8::/32");
    EXPECT_TRUE(doc.contains(Ip6Addr::fromString("2001:db8:ffff::1")));
    EXPECT_FALSE(doc.contains(Ip6Addr::fromString("2001:db9::")));
    Ip6Prefix const ll = Ip6Prefix::fromString("fe80::/10");
    EXPECT_TRUE(ll.contains(Ip6Addr::fromString("febf:ffff::1")));
    EXPECT_FALSE(ll.contains(Ip6Addr::fromString("fec0::1")));
    EXPECT_TRUE(Ip6Prefix().contains(allOnes6));
    Ip6Prefix const one = Ip6Prefix::fromString("::1/128");
    EXPECT_TRUE(one.contains(Ip6Addr::fromString("::1")));
    EXPECT_FALSE(one.contains(Ip6Addr::fromString("::")));
    EXPECT_TRUE(doc.contains(Ip6Prefix::fromString("2001:db8:1::/48")));
    EXPECT_FALSE(Ip6Prefix::fromString("2001:db8:1::/48").contains(doc));
    EXPECT_TRUE(doc.contains(doc));
    EXPECT_FALSE(ll.contains(Ip6Prefix::fromString("fec0::/10")));
}

// ---- order --------------------------------------------------------------------------------

TEST(PrefixTest, OrdersByAddressThenLength) {
    std::vector<Prefix> const expected = {
        Prefix::fromString("0.0.0.0/0"),      Prefix::fromString("0.0.0.0/8"),
        Prefix::fromString("10.0.0.0/8"),     Prefix::fromString("10.0.0.0/24"),
        Prefix::fromString("10.0.0.0/32"),    Prefix::fromString("10.0.1.0/24"),
        Prefix::fromString("127.0.0.0/8"),    Prefix::fromString("128.0.0.0/1"),
        Prefix::fromString("255.255.255.0/24"), Prefix::fromString("255.255.255.255/32"),
    };
    std::vector<Prefix> v = expected;
    std::mt19937 rng(11);
    std::shuffle(v.begin(), v.end(), rng);
    std::sort(v.begin(), v.end());
    EXPECT_EQ(v, expected);

    std::vector<Ip6Prefix> const expected6 = {
        Ip6Prefix::fromString("::/0"),          Ip6Prefix::fromString("::/128"),
        Ip6Prefix::fromString("::1/128"),       Ip6Prefix::fromString("2001:db8::/32"),
        Ip6Prefix::fromString("2001:db8::/64"), Ip6Prefix::fromString("2001:db8:1::/48"),
        Ip6Prefix::fromString("7fff::/16"),     Ip6Prefix::fromString("8000::/1"),
        Ip6Prefix::fromString("fe80::/10"),     Ip6Prefix::fromString("ff00::/8"),
    };
    std::vector<Ip6Prefix> v6 = expected6;
    std::shuffle(v6.begin(), v6.end(), rng);
    std::sort(v6.begin(), v6.end());
    EXPECT_EQ(v6, expected6);
    EXPECT_NE(Prefix::fromString("10.0.0.0/8"), Prefix::fromString("10.0.0.0/9"));
}

// ---- hash ---------------------------------------------------------------------------------

TEST(PrefixTest, HashIsTheDocumentedCombinationOfAddressAndLength) {
    // Pinned: computed outside this code base from "fmix32(address hash ^ length)".
    EXPECT_EQ(Prefix().hash(), 0u);
    EXPECT_EQ(Prefix::fromString("10.0.0.0/24").hash(), 0xB59D288Cu);
    EXPECT_EQ(Prefix::fromString("10.0.0.0/8").hash(), 0x69C5441Du);
    EXPECT_EQ(Ip6Prefix().hash(), 0u);
    EXPECT_EQ(Ip6Prefix::fromString("2001:db8::/32").hash(), 0x579AFB7Bu);
    EXPECT_EQ(Ip6Prefix::fromString("::/128").hash(), 0x888A6A77u);

    std::mt19937 rng(17);
    for (int i = 0; i < 2000; ++i) {
        U32 const len = rng() % 33;
        Prefix const p(IpAddr(U32(rng())), len);
        ASSERT_EQ(p.hash(), refFmix32(refFmix32(p.address().value()) ^ len)) << p;
        ASSERT_EQ(std::hash<Prefix>()(p), std::size_t(p.hash()));

        U32 const len6 = rng() % 129;
        Ip6Addr::Bytes b;
        for (auto& x : b) x = U8(rng());
        Ip6Prefix const p6(Ip6Addr(b), len6);
        auto const& a = p6.address().bytes();
        U32 w[4];
        for (int k = 0; k < 4; ++k) {
            w[k] = U32(a[4 * k]) << 24 | U32(a[4 * k + 1]) << 16 | U32(a[4 * k + 2]) << 8 |
                   a[4 * k + 3];
        }
        U32 const addressHash =
            refFmix32(refFmix32(refFmix32(refFmix32(w[0]) ^ w[1]) ^ w[2]) ^ w[3]);
        ASSERT_EQ(p6.hash(), refFmix32(addressHash ^ len6)) << p6;
        ASSERT_EQ(std::hash<Ip6Prefix>()(p6), std::size_t(p6.hash()));
    }
}

TEST(PrefixTest, HashSeparatesLengthsAndSpreadsNetworks) {
    std::unordered_set<U32> lengths, lengths6;
    for (U32 len = 0; len <= 32; ++len) lengths.insert(Prefix(IpAddr(), len).hash());
    for (U32 len = 0; len <= 128; ++len) lengths6.insert(Ip6Prefix(Ip6Addr(), len).hash());
    EXPECT_EQ(lengths.size(), 33u);
    EXPECT_EQ(lengths6.size(), 129u);

    std::vector<U32> slash24, slash64;
    for (U32 i = 0; i < 65536; ++i) {
        slash24.push_back(Prefix(IpAddr(0x0A000000u + (i << 8)), 24).hash());
        slash64.push_back(Ip6Prefix(Ip6Addr(0x2001, 0xdb8, 0, U16(i), 0, 0, 0, 0), 64).hash());
    }
    EXPECT_TRUE(velnet_test::wellSpread(slash24));
    EXPECT_TRUE(velnet_test::wellSpread(slash64));
}

} // namespace
