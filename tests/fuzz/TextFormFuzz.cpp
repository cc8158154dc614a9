// Fuzz target for the value text-form parser and the network value parsers.
//
// The first byte picks the type, the rest is the text. Whatever the text, reading it either
// succeeds or raises Kal::RangeException; a value that was read prints to a text that reads
// back to an equal value. Anything else (a crash, another exception, a round trip that does
// not hold) is a finding.
#include "fwk/FibHelper.h"
#include "kalgen/GenTest.h"

#include "Kal/SerDes.h"
#include "Rix/VrfName.h"
#include "Velnet/IntfId.h"
#include "Velnet/Ip6Addr.h"
#include "Velnet/IpAddr.h"
#include "Velnet/Prefix.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

template <class T>
void roundTrip(Kal::String8 const& text) {
    T v;
    try {
        v = Kal::strepToValue<T>(text);
    } catch (Kal::RangeException const&) {
        return;
    }
    Kal::String8 const again = Kal::valueToStrep(v);
    if (!(Kal::strepToValue<T>(again) == v)) std::abort();
}

template <class T>
void netRoundTrip(std::string const& text) {
    T v;
    try {
        v = T::fromString(text);
    } catch (Kal::RangeException const&) {
        return;
    }
    if (!(T::fromString(v.toString().stringValue()) == v)) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size == 0) return 0;
    std::string const text(reinterpret_cast<char const*>(data) + 1, size - 1);
    Kal::String8 const s(text);
    switch (data[0] % 14) {
    case 0: roundTrip<KalTest::Point>(s); break;
    case 1: roundTrip<KalTest::Bag>(s); break;
    case 2: roundTrip<KalTest::Hop>(s); break;
    case 3: roundTrip<KalTest::Index>(s); break;
    case 4: roundTrip<Ip::VrfName>(s); break;
    case 5: roundTrip<U64>(s); break;
    case 6: roundTrip<Kal::String8>(s); break;
    case 7: netRoundTrip<Velnet::IpAddr>(text); break;
    case 8: netRoundTrip<Velnet::Ip6Addr>(text); break;
    case 9: netRoundTrip<Velnet::Prefix>(text); break;
    case 10: netRoundTrip<Velnet::Ip6Prefix>(text); break;
    case 11: netRoundTrip<Velnet::IntfId>(text); break;
    case 12: roundTrip<Ridge::ViaSet>(s); break;
    case 13: roundTrip<Ridge::Via6Set>(s); break;
    }
    return 0;
}
