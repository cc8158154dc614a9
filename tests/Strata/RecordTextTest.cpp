// The record types in the model framework: registry names, text forms, round trips, parse
// errors and reflection.
#include "Strata/RecordText.h"

#include "Kal/GenericIf.h"
#include "Kal/KalType.h"
#include "Kal/SerDes.h"
#include "Strata/Fec.h"
#include "Strata/FecId.h"
#include "Strata/Route.h"
#include "Strata/Via.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>

namespace {

using Strata::Fib::FecId;
using Velnet::IntfId;
using Velnet::IntfKind;

std::string parseError(auto parse) {
    try {
        parse();
    } catch (Kal::RangeException const& e) {
        return e.message().stringValue();
    }
    return "<accepted>";
}

TEST(StrataRecordTextTest, EveryRecordTypeIsRegisteredUnderItsQualifiedName) {
    Strata::kalInitStrataRecords();
    for (char const* name :
         {"Strata::Fib::ViaIndex", "Strata::Fib::Via", "Strata::Fib6::Via", "Strata::Fib::FecId",
          "Strata::Fib::Fec", "Strata::Fib6::Fec", "Strata::Fib::Route", "Strata::Fib6::Route"}) {
        SCOPED_TRACE(name);
        auto const* t = Kal::typeByName(name);
        ASSERT_NE(t, nullptr);
        EXPECT_TRUE(t->isValue());
        EXPECT_EQ(t->name(), Kal::Name(name));
    }
    EXPECT_EQ(&Kal::kalTypeOf<Strata::Fib::Via>(), Kal::typeByName("Strata::Fib::Via"));
    EXPECT_EQ(Kal::kalTypeOf<Strata::Fib::ViaIndex>().constraint("max"), Kal::String8("127"));
}

// v prints as `text` (one line) and reads back from it.
template <class T>
void expectText(T const& v, std::string const& text) {
    EXPECT_EQ(Kal::valueToStrep(v).stringValue(), text);
    EXPECT_TRUE(Kal::strepToValue<T>(text) == v) << text;
}

TEST(StrataRecordTextTest, RecordsPrintAsValuesAndReadBack) {
    // Vias in quotes; the other records as values of their type, with every attribute.
    expectText(Strata::Fib::Via(Velnet::IpAddr(10, 0, 0, 1), IntfId(IntfKind::ethernet_, 5)),
               "'10.0.0.1%Ethernet5'");
    expectText(Strata::Fib6::Via(Velnet::Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 0, 1),
                                 IntfId(IntfKind::ethernet_, 5), 16),
               "'2001:db8::1%Ethernet5 label 16'");
    expectText(FecId(42), "Value('Strata::Fib::FecId', ** {'value': 42})");
    Strata::Fib::Route const r(Velnet::Prefix::fromString("10.0.0.0/24"), FecId(42),
                               Routing::Fib::connected_);
    expectText(r, "Value('Strata::Fib::Route', ** {'prefix': '10.0.0.0/24', 'fecId': "
                  "Value('Strata::Fib::FecId', ** {'value': 42}), 'routeType': 7})");
    std::ostringstream os;
    os << r;
    EXPECT_EQ(os.str(), Kal::valueToStrep(r).stringValue());
    expectText(Strata::Fib6::Route(Velnet::Ip6Prefix::fromString("2001:db8::/32"),
                                   FecId(U64(1) << 60), Routing6::Fib::unknown_),
               "Value('Strata::Fib6::Route', ** {'prefix': '2001:db8::/32', 'fecId': "
               "Value('Strata::Fib::FecId', ** {'value': 1152921504606846976}), 'routeType': 13})");

    // A FEC lists the positions that hold a via, ascending.
    auto f = std::make_unique<Strata::Fib::Fec>(FecId(7));
    expectText(*f, "Value('Strata::Fib::Fec', ** {'fecId': Value('Strata::Fib::FecId', "
                   "** {'value': 7}), 'fecType': 0, 'nexthopGroupId': 65535, 'via': {}})");
    f->viaIs(3, Strata::Fib::Via(Velnet::IpAddr(10, 0, 0, 4), IntfId(IntfKind::ethernet_, 4), 3));
    f->viaIs(0, Strata::Fib::Via(Velnet::IpAddr(10, 0, 0, 1), IntfId(IntfKind::ethernet_, 1)));
    f->fecTypeIs(Strata::Fib::nextHopGroup_);
    f->nexthopGroupIdIs(12);
    expectText(*f, "Value('Strata::Fib::Fec', ** {'fecId': Value('Strata::Fib::FecId', "
                   "** {'value': 7}), 'fecType': 5, 'nexthopGroupId': 12, 'via': "
                   "{0: '10.0.0.1%Ethernet1', 3: '10.0.0.4%Ethernet4 label 3'}})");
}

TEST(StrataRecordTextTest, FecTextRoundTripsForRandomFecs) {
    unsigned const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    for (int i = 0; i < 50; ++i) {
        auto f = std::make_unique<Strata::Fib6::Fec>(FecId(rng()));
        f->fecTypeIs(U8(rng() % 7));
        f->nexthopGroupIdIs(U16(rng()));
        for (U32 n = rng() % 128; n > 0; --n) {
            f->viaIs(rng() % 128, Strata::Fib6::Via(Velnet::Ip6Addr(U16(rng()), 0, 0, 0, 0, 0, 0,
                                                                    U16(rng())),
                                                    IntfId(IntfKind::vlan_, 1 + rng() % 4094),
                                                    rng() % 3 ? 0 : rng()));
        }
        auto back = std::make_unique<Strata::Fib6::Fec>(
            Kal::strepToValue<Strata::Fib6::Fec>(Kal::valueToStrep(*f)));
        ASSERT_EQ(*back, *f) << Kal::valueToStrep(*f);
    }
}

template <class T>
std::string parseAs(std::string const& text) {
    return parseError([&] { Kal::strepToValue<T>(text); });
}

TEST(StrataRecordTextTest, BadRecordTextIsRefusedWithItsReason) {
    using Strata::Fib::Fec;
    using Strata::Fib::Route;
    using Strata::Fib::Via;
    std::string const fec = "Value('Strata::Fib::Fec', ** {'via': {";
    std::string const route = "Value('Strata::Fib::Route', ** {";
    struct Case {
        std::string text;
        std::string (*parse)(std::string const&);
        char const* message; // how the message starts
    };
    for (Case const& c : {
             Case{"'10.0.0.1'", parseAs<Via>,
                  "invalid Strata::Fib::Via '10.0.0.1': expected <hop>%<interface>"},
             Case{"'10.0.0.1%Ethernet1", parseAs<Via>, "premature end of value type Via"},
             Case{"'1.1.1.1%Ethernet1' x", parseAs<Via>,
                  "junk at column 19 deserializing '1.1.1.1%Ethernet1' x"},
             Case{fec + "128: '1.1.1.1%Ethernet1'}})", parseAs<Fec>,
                  "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed"},
             Case{fec + "1: '1.1.1.1%Ethernet1', 1: '1.1.1.2%Ethernet1'}})", parseAs<Fec>,
                  "duplicate via position 1"},
             Case{fec + "0: '1.1.1.1'}})", parseAs<Fec>, "invalid Strata::Fib::Via '1.1.1.1'"},
             Case{route + "'hop': 1})", parseAs<Route>, "Route has no such attribute: hop"},
             Case{route + "'fecId': ", parseAs<Route>, "premature end of value type Route"},
             Case{route + "'prefix': '10.0.0.1/24'})", parseAs<Route>,
                  "invalid IPv4 prefix '10.0.0.1/24'"},
             Case{"Value('Strata::Fib::FecId', ** {'value': -1})", parseAs<FecId>, "expected U64"},
             Case{"128", parseAs<Strata::Fib::ViaIndex>,
                  "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed"},
         }) {
        std::string const m = c.parse(c.text);
        EXPECT_EQ(m.rfind(c.message, 0), 0u) << c.text << ": " << m;
    }
    EXPECT_EQ(Kal::strepToValue<Strata::Fib::ViaIndex>("127"), Strata::Fib::ViaIndex(127));
}

TEST(StrataRecordTextTest, ReflectionReadsRecordAttributes) {
    Strata::Fib::Route r(Velnet::Prefix::fromString("10.9.0.0/16"), FecId(99), Routing::Fib::rip_);
    auto const& type = Kal::kalTypeOf<Strata::Fib::Route>();
    Kal::Ptr<Kal::GenericIf> gi = new Kal::GenericIf(type, &r, true);
    Kal::GenericValue v;
    gi->attributeOp(Kal::GenericIf::opOf(gi->attributeId("fecId"), Kal::GenericIf::read_), {}, v);
    EXPECT_EQ(v.as<FecId>("fecId"), FecId(99));
    gi->attributeOp(Kal::GenericIf::opOf(gi->attributeId("prefix"), Kal::GenericIf::read_), {}, v);
    EXPECT_EQ(v.as<Velnet::Prefix>("prefix"), r.prefix());
    EXPECT_EQ(gi->attributeString(gi->attributeId("routeType")), Kal::String8("6"));
    EXPECT_EQ(type.attributes(), 3u);

    auto f = std::make_unique<Strata::Fib::Fec>(FecId(1));
    f->viaIs(4, Strata::Fib::Via(Velnet::IpAddr(1, 1, 1, 1), IntfId(IntfKind::ethernet_, 2)));
    Kal::Ptr<Kal::GenericIf> fi =
        new Kal::GenericIf(Kal::kalTypeOf<Strata::Fib::Fec>(), f.get(), true);
    Kal::AttributeId const via = fi->attributeId("via");
    fi->attributeOp(Kal::GenericIf::opOf(via, Kal::GenericIf::size_), {}, v);
    EXPECT_EQ(v.as<U32>("size"), 1u);
    fi->attributeOp(Kal::GenericIf::opOf(via, Kal::GenericIf::lookup_),
                    Kal::GenericValue::of(Strata::Fib::ViaIndex(4)), v);
    EXPECT_EQ(v.as<Strata::Fib::Via>("via"), f->via(4));
}

} // namespace
