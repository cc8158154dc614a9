// Strata::Fib::Via and Strata::Fib6::Via: one next hop of a FEC (an address and the egress
// interface, with an MPLS label), and Strata::Fib::ViaIndex, a via's position inside a FEC.
//
// Layout (4-aligned, no padding; the same in the 64-bit and the i386 build, since these are
// stored as they are in the shared-memory FEC tables):
//   Fib::Via    offset 0 IpAddr hop,  4 IntfId intfId,  8 U32 mplsLabel     12 bytes
//   Fib6::Via   offset 0 Ip6Addr hop, 16 IntfId intfId, 20 U32 mplsLabel    24 bytes
// A default Via (0.0.0.0 or ::, no interface, label 0) is the empty via: what a FEC holds at
// a position that has none.
//
// Equality compares all three fields. Hash: hop.hash() ^ intfId.hash(); the label is not
// hashed (the via sets' collection buckets are derived from this exact rule, so it must not
// change). Order (the collection key order): by intfId, then hop, then mplsLabel.
//
// Text: "<hop>%<interface>" and, when the label is not 0, " label <decimal>" after it:
//   10.0.0.1%Ethernet5       2001:db8::1%Vlan100 label 16
// The hop and the interface are in their Velnet text forms ('%' cannot occur in either, an
// IPv6 zone being refused by Ip6Addr). fromString() accepts exactly what toString() writes
// (label 0 written out, " label 0", is accepted too) and refuses anything else with
// Kal::RangeException "invalid Strata::Fib::Via '<text>': <reason>" ("invalid Strata::Fib6::Via
// ..." for IPv6), bytes outside printable ASCII shown as \xNN. In the value text form
// a via prints in single quotes: '10.0.0.1%Ethernet5'.
//
// ViaIndex: 0 to 127. Constructing one from any integer outside that range raises
// Kal::RangeException "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed".
#pragma once

#include "Kal/String.h"
#include "Kal/Types.h"
#include "Strata/RecordText.h"
#include "Velnet/IntfId.h"
#include "Velnet/Ip6Addr.h"
#include "Velnet/IpAddr.h"

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Strata {

namespace detail {
// Raises the ViaIndex range error.
[[noreturn]] void throwViaIndexRange();
} // namespace detail

namespace Fib {

class ViaIndex {
  public:
    static constexpr U32 min = 0;
    static constexpr U32 max = 127;

    constexpr ViaIndex() noexcept = default;
    // Any integer type: a negative value or one above 127 raises the range error.
    template <std::integral T>
    constexpr ViaIndex(T value) : value_(U32(value)) {
        if (std::cmp_less(value, min) || std::cmp_greater(value, max)) detail::throwViaIndexRange();
    }

    constexpr U32 value() const noexcept { return value_; }

    friend constexpr bool operator==(ViaIndex, ViaIndex) noexcept = default;
    friend constexpr auto operator<=>(ViaIndex, ViaIndex) noexcept = default;

  private:
    U32 value_ = 0;
};

class Via {
  public:
    using Addr = Velnet::IpAddr;

    constexpr Via() noexcept = default;
    constexpr Via(Velnet::IpAddr hop, Velnet::IntfId intfId, U32 mplsLabel = 0) noexcept
        : hop_(hop), intfId_(intfId), mplsLabel_(mplsLabel) {}

    // Parses the text form above; throws Kal::RangeException.
    static Via fromString(std::string_view text);

    constexpr Velnet::IpAddr hop() const noexcept { return hop_; }
    constexpr Velnet::IntfId intfId() const noexcept { return intfId_; }
    constexpr U32 mplsLabel() const noexcept { return mplsLabel_; }
    void hopIs(Velnet::IpAddr hop) noexcept { hop_ = hop; }
    void intfIdIs(Velnet::IntfId intfId) noexcept { intfId_ = intfId; }
    void mplsLabelIs(U32 label) noexcept { mplsLabel_ = label; }

    // True for the empty via (all fields zero).
    constexpr bool empty() const noexcept { return *this == Via(); }

    constexpr U32 hash() const noexcept { return hop_.hash() ^ intfId_.hash(); }

    Kal::String8 toString() const;

    friend constexpr bool operator==(Via const&, Via const&) noexcept = default;
    friend constexpr std::strong_ordering operator<=>(Via const& a, Via const& b) noexcept {
        if (auto c = a.intfId_ <=> b.intfId_; c != 0) return c;
        if (auto c = a.hop_ <=> b.hop_; c != 0) return c;
        return a.mplsLabel_ <=> b.mplsLabel_;
    }

  private:
    static void layoutChecks() noexcept;

    Velnet::IpAddr hop_;
    Velnet::IntfId intfId_;
    U32 mplsLabel_ = 0;
};

static_assert(sizeof(Via) == 12 && alignof(Via) == 4);
static_assert(std::is_trivially_copyable_v<Via> && std::is_standard_layout_v<Via>);
static_assert(std::has_unique_object_representations_v<Via>, "no padding bytes");

std::ostream& operator<<(std::ostream& os, Via const& v);

} // namespace Fib

namespace Fib6 {

using Fib::ViaIndex;

class Via {
  public:
    using Addr = Velnet::Ip6Addr;

    constexpr Via() noexcept = default;
    constexpr Via(Velnet::Ip6Addr const& hop, Velnet::IntfId intfId, U32 mplsLabel = 0) noexcept
        : hop_(hop), intfId_(intfId), mplsLabel_(mplsLabel) {}

    // Parses the text form above; throws Kal::RangeException.
    static Via fromString(std::string_view text);

    constexpr Velnet::Ip6Addr const& hop() const noexcept { return hop_; }
    constexpr Velnet::IntfId intfId() const noexcept { return intfId_; }
    constexpr U32 mplsLabel() const noexcept { return mplsLabel_; }
    void hopIs(Velnet::Ip6Addr const& hop) noexcept { hop_ = hop; }
    void intfIdIs(Velnet::IntfId intfId) noexcept { intfId_ = intfId; }
    void mplsLabelIs(U32 label) noexcept { mplsLabel_ = label; }

    constexpr bool empty() const noexcept { return *this == Via(); }

    constexpr U32 hash() const noexcept { return hop_.hash() ^ intfId_.hash(); }

    Kal::String8 toString() const;

    friend constexpr bool operator==(Via const&, Via const&) noexcept = default;
    friend constexpr std::strong_ordering operator<=>(Via const& a, Via const& b) noexcept {
        if (auto c = a.intfId_ <=> b.intfId_; c != 0) return c;
        if (auto c = a.hop_ <=> b.hop_; c != 0) return c;
        return a.mplsLabel_ <=> b.mplsLabel_;
    }

  private:
    static void layoutChecks() noexcept;

    Velnet::Ip6Addr hop_;
    Velnet::IntfId intfId_;
    U32 mplsLabel_ = 0;
};

static_assert(sizeof(Via) == 24 && alignof(Via) == 4);
static_assert(std::is_trivially_copyable_v<Via> && std::is_standard_layout_v<Via>);
static_assert(std::has_unique_object_representations_v<Via>, "no padding bytes");

std::ostream& operator<<(std::ostream& os, Via const& v);

} // namespace Fib6

} // namespace Strata

template <> struct std::hash<Strata::Fib::Via> {
    std::size_t operator()(Strata::Fib::Via const& v) const noexcept { return v.hash(); }
};
template <> struct std::hash<Strata::Fib6::Via> {
    std::size_t operator()(Strata::Fib6::Via const& v) const noexcept { return v.hash(); }
};
