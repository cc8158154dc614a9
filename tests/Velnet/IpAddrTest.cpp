#include "Velnet/IpAddr.h"

#include "VelnetTestSupport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <sstream>
#include <string>

namespace {

using Velnet::IpAddr;

TEST(IpAddrTest, StoredAsOneHostOrderWord) {
    IpAddr const a(10, 1, 2, 3);
    U32 word = 0;
    std::memcpy(&word, &a, sizeof word);
    EXPECT_EQ(word, 0x0A010203u);
    EXPECT_EQ(IpAddr(0xC0A80101u), IpAddr(192, 168, 1, 1));
    EXPECT_EQ(a.octet(0), 10);
    EXPECT_EQ(a.octet(3), 3);
    std::ostringstream os;
    os << a;
    EXPECT_EQ(os.str(), "10.1.2.3");
}

TEST(IpAddrTest, RefusesMalformedTextNamingIt) {
    velnet_test::expectRefusals(&IpAddr::fromString, {
        {"", "expected four dot-separated decimal octets"},
        {"1.2.3", "expected four dot-separated decimal octets"},
        {"1.2.3.4.5", "expected four dot-separated decimal octets"},
        {"1..2.3", "expected four dot-separated decimal octets"},
        {"1.2.3.4 ", "expected four dot-separated decimal octets"},
        {"+1.2.3.4", "expected four dot-separated decimal octets"},
        {"10.0.0.256", "invalid IPv4 address '10.0.0.256': octet above 255"},
        {"1.2.3.4294967297", "octet above 255"}, // would wrap to 1 in 32 bits
        {"01.2.3.4", "octet with a leading zero"},
        {"1.2.3.00", "octet with a leading zero"},
    });
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
    // an independent oracle; and an accepted text is canonical, so it must print back as it
    // was. Mutations of valid addresses probe the edges of the grammar.
    U32 const seed = 20240611;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    int accepted = 0;
    for (int i = 0; i < 10000; ++i) {
        std::string t = std::to_string(rng() % 256);
        for (U32 range : {256, 300, 256}) t += "." + std::to_string(rng() % range);
        t = velnet_test::mutated(t, rng, "0123456789.. x-");
        in_addr oracle{};
        bool const libcOk = inet_pton(AF_INET, t.c_str(), &oracle) == 1;
        auto const a = velnet_test::parsedOrNot<IpAddr>(t);
        ASSERT_EQ(a.has_value(), libcOk) << "'" << t << "'";
        if (a) {
            ++accepted;
            ASSERT_EQ(a->value(), ntohl(oracle.s_addr)) << t;
            ASSERT_EQ(a->toString().stringValue(), t);
        }
    }
    EXPECT_GT(accepted, 1000); // the loop exercised acceptance as well as refusal
}

TEST(IpAddrTest, OrdersNumerically) {
    EXPECT_LT(IpAddr(9, 255, 255, 255), IpAddr(10, 0, 0, 0)); // the first octet weighs most
    EXPECT_LT(IpAddr(127, 255, 255, 255), IpAddr(128, 0, 0, 0)); // no sign trouble
    EXPECT_LT(IpAddr(10, 0, 0, 2), IpAddr(10, 0, 0, 10));         // numbers, not text
}

TEST(IpAddrTest, HashIsTheDocumentedFinaliserOfTheValue) {
    // Pinned: computed outside this code base from "fmix32(value)".
    EXPECT_EQ(IpAddr(0, 0, 0, 0).hash(), 0u);
    EXPECT_EQ(IpAddr(10, 0, 0, 1).hash(), 0x1B0BA38Fu);
    EXPECT_EQ(IpAddr(192, 168, 1, 1).hash(), 0x7363FC6Eu);
    EXPECT_EQ(IpAddr(255, 255, 255, 255).hash(), 0x81F16F39u);
    for (U64 v = 0; v <= 0xFFFFFFFFull; v += 0x01010101ull * 3 + 7) {
        IpAddr const a{U32(v)};
        ASSERT_EQ(a.hash(), velnet_test::refFmix32(U32(v))) << a;
        ASSERT_EQ(std::hash<IpAddr>()(a), std::size_t(a.hash()));
    }
}

} // namespace
