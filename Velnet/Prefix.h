// Velnet::Prefix (IPv4) and Velnet::Ip6Prefix (IPv6): an address and a prefix length.
//
// Layout (4-aligned, explicit zeroed padding, no implicit padding; the same in the 64-bit
// and the i386 build, since both read route records keyed by these types):
//   Prefix     offset 0 IpAddr address, 4 U8 len (0-32),  5 U8 pad[3] = 0   8 bytes
//   Ip6Prefix  offset 0 Ip6Addr address, 16 U8 len (0-128), 17 U8 pad[3] = 0  20 bytes
//
// Canonical values: a prefix never holds host bits. The constructor from (address, length)
// clears every address bit beyond the length, so Prefix(10.0.0.1, 24) == 10.0.0.0/24, and
// equal networks always compare and hash equal. A length above 32 (128) is a programming
// or input error and raises Kal::RangeException "invalid IPv4 prefix length 33 (0-32)".
//
// Text: "<address>/<length>", "10.0.0.0/24", "2001:db8::/32", the address in its type's
// text form and the length in decimal. fromString() requires the '/' and a decimal length
// without sign or leading zeros within range, and refuses text whose address has host bits
// set ("10.0.0.1/24"), as `ip route` does, because it usually means a mistyped address or
// length. Refusals raise Kal::RangeException "invalid IPv4 prefix '<text>': <reason>"
// ("invalid IPv6 prefix ..." for Ip6Prefix).
//
// Hash: fmix32(address().hash() ^ len()) (Velnet/Hash.h and the address types' hashes), so
// 10.0.0.0/8 and 10.0.0.0/24 hash apart. 0.0.0.0/0 and ::/0 hash to 0.
//
// Order: by address (the address type's numeric order), then by length:
//   0.0.0.0/0 < 10.0.0.0/8 < 10.0.0.0/24 < 10.0.1.0/24 < 255.255.255.255/32.
#pragma once

#include "Kal/Assert.h"
#include "Kal/String.h"
#include "Kal/Types.h"
#include "Velnet/Hash.h"
#include "Velnet/ValueText.h"
#include "Velnet/Ip6Addr.h"
#include "Velnet/IpAddr.h"

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string_view>
#include <type_traits>

namespace Velnet {

class Prefix {
  public:
    static constexpr U32 maxLen = 32;

    // The network mask of a length: maskOf(24) is 255.255.255.0. len must be 0 to 32.
    static constexpr U32 maskOf(U32 len) noexcept {
        KAL_ASSERT(len <= maxLen);
        return len == 0 ? 0u : ~U32(0) << (maxLen - len);
    }

    // 0.0.0.0/0
    constexpr Prefix() noexcept = default;
    // Clears the host bits of `address`; throws Kal::RangeException when len > 32.
    Prefix(IpAddr address, U32 len);

    // Parses "<dotted quad>/<length>" as described above; throws Kal::RangeException.
    static Prefix fromString(std::string_view text);

    constexpr IpAddr address() const noexcept { return address_; }
    constexpr U32 len() const noexcept { return len_; }
    constexpr IpAddr mask() const noexcept { return IpAddr(maskOf(len_)); }

    // True when `a` lies in this network; 0.0.0.0/0 contains every address.
    constexpr bool contains(IpAddr a) const noexcept {
        return (a.value() & maskOf(len_)) == address_.value();
    }
    // True when every address of `p` lies in this network (a prefix contains itself).
    constexpr bool contains(Prefix const& p) const noexcept {
        return p.len_ >= len_ && contains(p.address_);
    }

    constexpr U32 hash() const noexcept { return fmix32(address_.hash() ^ U32(len_)); }

    Kal::String8 toString() const;

    friend constexpr bool operator==(Prefix const& a, Prefix const& b) noexcept {
        return a.address_ == b.address_ && a.len_ == b.len_;
    }
    friend constexpr std::strong_ordering operator<=>(Prefix const& a, Prefix const& b) noexcept {
        if (auto c = a.address_ <=> b.address_; c != 0) return c;
        return a.len_ <=> b.len_;
    }

  private:
    // Checked here because offsetof needs the complete class and access to the members.
    static void layoutChecks() noexcept {
        static_assert(offsetof(Prefix, address_) == 0);
        static_assert(offsetof(Prefix, len_) == 4);
        static_assert(offsetof(Prefix, pad_) == 5);
    }

    IpAddr address_;
    U8 len_ = 0;
    U8 pad_[3] = {}; // always zero: records holding a prefix compare and copy byte-wise
};

static_assert(sizeof(Prefix) == 8 && alignof(Prefix) == 4);
static_assert(std::is_trivially_copyable_v<Prefix> && std::is_standard_layout_v<Prefix>);
static_assert(std::has_unique_object_representations_v<Prefix>, "no implicit padding");

class Ip6Prefix {
  public:
    static constexpr U32 maxLen = 128;

    // ::/0
    constexpr Ip6Prefix() noexcept = default;
    // Clears the host bits of `address`; throws Kal::RangeException when len > 128.
    Ip6Prefix(Ip6Addr const& address, U32 len);

    // Parses "<IPv6 address>/<length>" as described above; throws Kal::RangeException.
    static Ip6Prefix fromString(std::string_view text);

    constexpr Ip6Addr const& address() const noexcept { return address_; }
    constexpr U32 len() const noexcept { return len_; }

    // True when `a` lies in this network; ::/0 contains every address.
    bool contains(Ip6Addr const& a) const noexcept;
    // True when every address of `p` lies in this network (a prefix contains itself).
    bool contains(Ip6Prefix const& p) const noexcept {
        return p.len_ >= len_ && contains(p.address_);
    }

    constexpr U32 hash() const noexcept { return fmix32(address_.hash() ^ U32(len_)); }

    Kal::String8 toString() const;

    friend constexpr bool operator==(Ip6Prefix const& a, Ip6Prefix const& b) noexcept {
        return a.address_ == b.address_ && a.len_ == b.len_;
    }
    friend constexpr std::strong_ordering operator<=>(Ip6Prefix const& a,
                                                      Ip6Prefix const& b) noexcept {
        if (auto c = a.address_ <=> b.address_; c != 0) return c;
        return a.len_ <=> b.len_;
    }

  private:
    // Checked here because offsetof needs the complete class and access to the members.
    static void layoutChecks() noexcept {
        static_assert(offsetof(Ip6Prefix, address_) == 0);
        static_assert(offsetof(Ip6Prefix, len_) == 16);
        static_assert(offsetof(Ip6Prefix, pad_) == 17);
    }

    Ip6Addr address_;
    U8 len_ = 0;
    U8 pad_[3] = {}; // always zero: records holding a prefix compare and copy byte-wise
};

static_assert(sizeof(Ip6Prefix) == 20 && alignof(Ip6Prefix) == 4);
static_assert(std::is_trivially_copyable_v<Ip6Prefix> && std::is_standard_layout_v<Ip6Prefix>);
static_assert(std::has_unique_object_representations_v<Ip6Prefix>, "no implicit padding");

std::ostream& operator<<(std::ostream& os, Prefix const& p);
std::ostream& operator<<(std::ostream& os, Ip6Prefix const& p);

} // namespace Velnet

template <> struct std::hash<Velnet::Prefix> {
    std::size_t operator()(Velnet::Prefix const& p) const noexcept { return p.hash(); }
};
template <> struct std::hash<Velnet::Ip6Prefix> {
    std::size_t operator()(Velnet::Ip6Prefix const& p) const noexcept { return p.hash(); }
};
