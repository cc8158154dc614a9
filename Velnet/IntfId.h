// Velnet::IntfId: the id of an egress interface of the switch.
//
// Layout: one U32, 4 bytes, 4-aligned, no padding:
//
//   bits 31..24  kind (IntfKind)       bits 23..0  number within the kind
//
//   kind            text               numbers    example          value
//   none_         0 "none"             0 only     IntfId()         0x00000000
//   ethernet_     1 "Ethernet<n>"      1..65535   Ethernet12       0x0100000C
//   vlan_         2 "Vlan<n>"          1..4094    Vlan100          0x02000064
//   portChannel_  3 "Port-Channel<n>"  1..65535   Port-Channel5    0x03000005
//   loopback_     4 "Loopback<n>"      0..65535   Loopback0        0x04000000
//   tunnel_       5 "Tunnel<n>"        0..65535   Tunnel7          0x05000007
//   null_         6 "Null<n>"          0 only     Null0            0x06000000
//
// The empty id (value 0, "none") means "no interface". Vlan numbers are the usable 802.1Q
// ids (0 and 4095 are reserved); Null0 is the discard interface. The number field has room
// for 2^24 values so that ranges can grow without a layout change.
//
// The constructor from (kind, number) and fromString() accept only the combinations of the
// table; anything else raises Kal::RangeException naming the offending text or number. The
// constructor from a raw U32 accepts every value, because ids are read back from shared
// memory that a newer writer may have filled: a value outside the table (an unknown kind,
// a number out of its kind's range) is not wellFormed() and prints as "IntfId(0x%08x)"
// (eight lowercase hex digits), a form that fromString() also reads, so every value has
// exactly one text and round-trips. fromString() refuses that raw form for a value that
// has a name ("IntfId(0x0100000c)" must be written "Ethernet12").
//
// Names are matched exactly as printed: kind names are case-sensitive and numbers are
// decimal without sign or leading zeros ("Ethernet012", "ethernet12", "Ethernet 12" are
// refused).
//
// Hash: fmix32(value() ^ 0x9E3779B9) (Velnet/Hash.h). The constant keeps an interface's
// hash different from that of the IPv4 address with the same 32-bit value: a via hashes as
// hop.hash() ^ intfId.hash(), and with one function for both, via (1.0.0.12, Ethernet12)
// would hash to 0 and vias (a, b) and (b, a) would always collide.
//
// Order: numeric order of value(), that is by kind, then by number: none < Ethernet1 <
// Ethernet2 < Vlan1 < Port-Channel1 < Loopback0 < Tunnel0 < Null0.
#pragma once

#include "Kal/String.h"
#include "Kal/Types.h"
#include "Velnet/Hash.h"
#include "Velnet/ValueText.h"

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string_view>
#include <type_traits>

namespace Velnet {

enum class IntfKind : U8 {
    none_ = 0,
    ethernet_ = 1,
    vlan_ = 2,
    portChannel_ = 3,
    loopback_ = 4,
    tunnel_ = 5,
    null_ = 6,
};

class IntfId {
  public:
    static constexpr unsigned kindShift = 24;
    static constexpr U32 numberMask = (U32(1) << kindShift) - 1;
    static constexpr U32 hashSalt = 0x9E3779B9u;

    // The empty id, "none".
    constexpr IntfId() noexcept = default;
    // Any raw value, as read from a stored record; see wellFormed().
    constexpr explicit IntfId(U32 value) noexcept : value_(value) {}
    // A named interface; throws Kal::RangeException when the number is outside the kind's
    // range or the kind is not one of IntfKind's.
    IntfId(IntfKind kind, U32 number);

    // Parses a name of the table above, "none" or the raw form; throws Kal::RangeException.
    static IntfId fromString(std::string_view text);

    struct NumberRange {
        U32 min;
        U32 max;
    };
    // The inclusive number range of a kind; empty for a value that IntfKind does not name.
    static constexpr std::optional<NumberRange> numberRange(IntfKind kind) noexcept {
        switch (kind) {
        case IntfKind::none_: return NumberRange{0, 0};
        case IntfKind::ethernet_: return NumberRange{1, 65535};
        case IntfKind::vlan_: return NumberRange{1, 4094};
        case IntfKind::portChannel_: return NumberRange{1, 65535};
        case IntfKind::loopback_: return NumberRange{0, 65535};
        case IntfKind::tunnel_: return NumberRange{0, 65535};
        case IntfKind::null_: return NumberRange{0, 0};
        }
        return std::nullopt;
    }

    constexpr U32 value() const noexcept { return value_; }
    // The top byte, which may be a value IntfKind does not name when !wellFormed().
    constexpr IntfKind kind() const noexcept { return IntfKind(value_ >> kindShift); }
    constexpr U32 number() const noexcept { return value_ & numberMask; }
    constexpr bool empty() const noexcept { return value_ == 0; }
    // True when the value is the empty id or a kind with a number in its range.
    constexpr bool wellFormed() const noexcept {
        auto const range = numberRange(kind());
        return range && number() >= range->min && number() <= range->max;
    }

    constexpr U32 hash() const noexcept { return fmix32(value_ ^ hashSalt); }

    Kal::String8 toString() const;

    friend constexpr bool operator==(IntfId, IntfId) noexcept = default;
    friend constexpr std::strong_ordering operator<=>(IntfId a, IntfId b) noexcept {
        return a.value_ <=> b.value_;
    }

  private:
    U32 value_ = 0;
};

static_assert(sizeof(IntfId) == 4 && alignof(IntfId) == 4);
static_assert(std::is_trivially_copyable_v<IntfId> && std::is_standard_layout_v<IntfId>);
static_assert(std::has_unique_object_representations_v<IntfId>, "no padding bytes");

std::ostream& operator<<(std::ostream& os, IntfId id);

} // namespace Velnet

template <> struct std::hash<Velnet::IntfId> {
    std::size_t operator()(Velnet::IntfId id) const noexcept { return id.hash(); }
};
