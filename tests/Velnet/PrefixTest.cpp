#include "Velnet/Prefix.h"

#include "VelnetTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Velnet::Ip6Addr;
using Velnet::Ip6Prefix;
using Velnet::IpAddr;
using Velnet::Prefix;
using velnet_test::refFmix32;

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

TEST(PrefixTest, ByteImageIsAddressLengthAndZeroPadding) {
    // Fill the storage with garbage first: the padding must be written, not inherited.
    alignas(Prefix) unsigned char storage[sizeof(Prefix)];
    std::memset(storage, 0xAB, sizeof storage);
    new (storage) Prefix(IpAddr(10, 1, 2, 7), 24);
    U32 word = 0;
    std::memcpy(&word, storage, 4);
    EXPECT_EQ(word, 0x0A010200u);
    U8 const tail[4] = {24, 0, 0, 0};
    EXPECT_EQ(std::memcmp(storage + 4, tail, 4), 0);

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
}

TEST(PrefixTest, ConstructorsClearHostBitsAtEveryLength) {
    for (U32 address : {0xFFFFFFFFu, 0x0A010203u, 0x80000001u}) {
        for (U32 len = 0; len <= 32; ++len) {
            Prefix const p(IpAddr(address), len);
            ASSERT_EQ(p.address().value(), refNetwork(address, len)) << len;
            ASSERT_EQ(p.len(), len);
            ASSERT_EQ(p.mask().value(), refNetwork(0xFFFFFFFFu, len));
        }
    }
    for (Ip6Addr const& a :
         {allOnes6, Ip6Addr(0x2001, 0xdb8, 0x1234, 0x5678, 0x9abc, 0xdef0, 0x1357, 0x9bdf)}) {
        for (U32 len = 0; len <= 128; ++len) {
            Ip6Prefix const p(a, len);
            ASSERT_EQ(p.address(), refNetwork6(a, len)) << len;
            ASSERT_EQ(p.len(), len);
        }
    }
    // Equal networks written with different host bits are one value, with one hash.
    Prefix const a(IpAddr(10, 0, 0, 1), 24), b(IpAddr(10, 0, 0, 200), 24);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.hash(), b.hash());
}

TEST(PrefixTest, LengthsBeyondTheAddressAreRefused) {
    auto refusal = [](auto make) -> std::string {
        try {
            make();
        } catch (Kal::RangeException const& e) {
            return e.message().stringValue();
        }
        return "accepted";
    };
    EXPECT_EQ(refusal([] { return Prefix(IpAddr(), 33); }),
              "invalid IPv4 prefix length 33 (0-32)");
    EXPECT_EQ(refusal([] { return Ip6Prefix(Ip6Addr(), 129); }),
              "invalid IPv6 prefix length 129 (0-128)");
    // A length that would fit a byte after truncation is still refused.
    EXPECT_EQ(refusal([] { return Prefix(IpAddr(), 256 + 24); }),
              "invalid IPv4 prefix length 280 (0-32)");
    velnet_test::expectRefusals(&Prefix::fromString, {{"10.0.0.0/33", "length out of range"},
                                                      {"10.0.0.0/4294967296", "out of range"}});
    velnet_test::expectRefusals(&Ip6Prefix::fromString,
                                {{"2001:db8::/129", "length out of range"}});
}

TEST(PrefixTest, ContainsExactlyTheAddressesThatShareTheNetworkBits) {
    // Flipping one bit of the network's address leaves it inside exactly when the bit is a
    // host bit.
    std::mt19937 rng(23);
    for (int i = 0; i < 2000; ++i) {
        U32 const len = rng() % 33, len6 = rng() % 129, bit = rng() % 32, bit6 = rng() % 128;
        Prefix const p(IpAddr(U32(rng())), len);
        ASSERT_EQ(p.contains(IpAddr(p.address().value() ^ (0x80000000u >> bit))), bit >= len)
            << p << " bit " << bit;
        Ip6Addr::Bytes b;
        for (auto& x : b) x = U8(rng());
        Ip6Prefix const p6(Ip6Addr(b), len6);
        b = p6.address().bytes();
        b[bit6 / 8] ^= U8(0x80u >> bit6 % 8);
        ASSERT_EQ(p6.contains(Ip6Addr(b)), bit6 >= len6) << p6 << " bit " << bit6;
    }
    // A prefix contains the longer ones inside it and itself, never a shorter one, even one
    // whose address it contains.
    Prefix const ten = Prefix::fromString("10.0.0.0/8");
    EXPECT_TRUE(ten.contains(Prefix::fromString("10.1.0.0/16")));
    EXPECT_TRUE(ten.contains(ten));
    EXPECT_FALSE(Prefix::fromString("10.0.0.0/16").contains(ten));
    EXPECT_FALSE(Prefix::fromString("10.0.0.0/9").contains(Prefix::fromString("10.128.0.0/9")));
    Ip6Prefix const doc = Ip6Prefix::fromString("2001:db8::/32");
    EXPECT_TRUE(doc.contains(Ip6Prefix::fromString("2001:db8:1::/48")));
    EXPECT_TRUE(doc.contains(doc));
    EXPECT_FALSE(Ip6Prefix::fromString("2001:db8::/48").contains(doc));
}

TEST(PrefixTest, RefusesMalformedTextAndHostBits) {
    velnet_test::expectRefusals(&Prefix::fromString, {
        {"10.0.0.1/24",
         "invalid IPv4 prefix '10.0.0.1/24': host bits set (the network is 10.0.0.0/24)"},
        {"11.0.0.0/7", "host bits set"},
        {"10.0.0.0", "missing '/<length>'"},
        {"10.0.0.0/", "missing number"},
        {"10.0.0.0/024", "leading zero"},
        {"10.0.0.0/+8", "not a decimal number"},
        {"10.0.0.0/8/8", "not a decimal number"},
        {"10.0.0/8", "expected four dot-separated decimal octets"},
        {"256.0.0.0/8", "octet above 255"},
        {"::/0", "expected four dot-separated decimal octets"},
    });
    velnet_test::expectRefusals(&Ip6Prefix::fromString, {
        {"2001:db8::1/64",
         "invalid IPv6 prefix '2001:db8::1/64': host bits set (the network is 2001:db8::/64)"},
        {"fff8::/12", "host bits set"},
        {"2001:db8::", "missing '/<length>'"},
        {"2001:db8::/", "missing number"},
        {"2001:db8::/032", "leading zero"},
        {"2001::db8::/32", "more than one '::'"},
        {"fe80::/64%eth0", "not a decimal number"},
        {"10.0.0.0/8", "too few groups"},
    });
}

// Parses the texts, which are in ascending order, and sorts a shuffled copy.
template <class P>
void expectSortedAsListed(std::vector<char const*> const& texts) {
    std::vector<P> expected;
    for (char const* text : texts) expected.push_back(P::fromString(text));
    auto v = expected;
    std::shuffle(v.begin(), v.end(), std::mt19937(11));
    std::sort(v.begin(), v.end());
    EXPECT_EQ(v, expected);
}

TEST(PrefixTest, OrdersByAddressThenLength) {
    expectSortedAsListed<Prefix>({"0.0.0.0/0", "0.0.0.0/8", "10.0.0.0/8", "10.0.0.0/24",
                                  "10.0.0.0/32", "10.0.1.0/24", "127.0.0.0/8", "128.0.0.0/1",
                                  "255.255.255.255/32"});
    expectSortedAsListed<Ip6Prefix>({"::/0", "::/128", "::1/128", "2001:db8::/32",
                                     "2001:db8::/64", "2001:db8:1::/48", "7fff::/16", "8000::/1",
                                     "ff00::/8"});
}

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
        // The address hash is checked against its own reference in the address tests.
        ASSERT_EQ(p6.hash(), refFmix32(p6.address().hash() ^ len6)) << p6;
        ASSERT_EQ(std::hash<Ip6Prefix>()(p6), std::size_t(p6.hash()));
    }
}

} // namespace
