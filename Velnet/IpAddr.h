// Velnet::IpAddr: an IPv4 address.
//
// Layout: one U32 holding the address in host byte order (10.1.2.3 is 0x0A010203), 4 bytes,
// 4-aligned, no padding. It is stored as is in shared-memory records that the 64-bit and the
// i386 build both read, so the layout is pinned by the static_asserts below.
//
// Text: the dotted quad "10.1.2.3". fromString() accepts exactly four decimal octets 0-255
// separated by '.', and refuses an octet with a leading zero ("10.01.0.1"): inet_aton would
// read "010" as octal 8 while other tools read it as decimal 10, so such text is ambiguous
// and is refused rather than guessed at. No white space, no short forms ("10.1"), no hex.
// A refused text raises Kal::RangeException "invalid IPv4 address '<text>': <reason>".
//
// Hash: fmix32(value()) (Velnet/Hash.h). 0.0.0.0 hashes to 0.
//
// Order: numeric order of value(), so 0.0.0.0 is the least and 255.255.255.255 the greatest
// address, and 9.255.255.255 < 10.0.0.0.
#pragma once

#include "Kal/Assert.h"
#include "Kal/String.h"
#include "Kal/Types.h"
#include "Velnet/Hash.h"
#include "Velnet/ValueText.h"

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string_view>
#include <type_traits>

namespace Velnet {

class IpAddr {
  public:
    // 0.0.0.0
    constexpr IpAddr() noexcept = default;
    constexpr explicit IpAddr(U32 value) noexcept : value_(value) {}
    // IpAddr(10, 1, 2, 3) is 10.1.2.3.
    constexpr IpAddr(U8 a, U8 b, U8 c, U8 d) noexcept
        : value_(U32(a) << 24 | U32(b) << 16 | U32(c) << 8 | U32(d)) {}

    // Parses the dotted quad described above; throws Kal::RangeException otherwise.
    static IpAddr fromString(std::string_view text);

    constexpr U32 value() const noexcept { return value_; }
    // Octet i counted from the left: octet(0) of 10.1.2.3 is 10. i must be 0 to 3.
    constexpr U8 octet(unsigned i) const noexcept {
        KAL_ASSERT(i < 4);
        return U8(value_ >> (24 - 8 * i));
    }

    constexpr U32 hash() const noexcept { return fmix32(value_); }

    Kal::String8 toString() const;

    friend constexpr bool operator==(IpAddr, IpAddr) noexcept = default;
    friend constexpr std::strong_ordering operator<=>(IpAddr a, IpAddr b) noexcept {
        return a.value_ <=> b.value_;
    }

  private:
    U32 value_ = 0;
};

static_assert(sizeof(IpAddr) == 4 && alignof(IpAddr) == 4);
static_assert(std::is_trivially_copyable_v<IpAddr> && std::is_standard_layout_v<IpAddr>);
static_assert(std::has_unique_object_representations_v<IpAddr>, "no padding bytes");

std::ostream& operator<<(std::ostream& os, IpAddr a);

} // namespace Velnet

template <> struct std::hash<Velnet::IpAddr> {
    std::size_t operator()(Velnet::IpAddr a) const noexcept { return a.hash(); }
};
