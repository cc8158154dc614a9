// Velnet::Ip6Addr: an IPv6 address.
//
// Layout: the 16 address bytes in network order (2001:db8::1 is 20 01 0d b8 00 .. 00 01),
// 16 bytes, 4-aligned (so that records holding an address keep their other fields on 4-byte
// boundaries in both the 64-bit and the i386 build), no padding.
//
// Text: toString() gives the RFC 5952 canonical form: lowercase hex, leading zeros of each
// group dropped, the longest run of two or more all-zero groups replaced by "::" (the
// leftmost run when two are equally long; a single zero group is written "0"), and
// IPv4-mapped addresses (::ffff:0:0/96) written with a dotted tail, "::ffff:192.0.2.1";
// every other address, including other IPv4 embeddings, is written in hex groups only.
// fromString() accepts every RFC 4291 text form: eight groups of one to four hex digits of
// either case, at most one "::" standing for one or more zero groups, and a dotted-quad tail
// in place of the last two groups ("::ffff:10.0.0.1", "64:ff9b::192.0.2.33"). The tail
// follows the IPv4 rules of IpAddr (no leading zeros). It refuses, with Kal::RangeException
// "invalid IPv6 address '<text>': <reason>": a second "::", a group of five or more digits,
// a non-hex character, too many or too few groups, an empty group (a lone leading or
// trailing ':'), a malformed or misplaced dotted tail, a zone id ("fe80::1%eth0": a zone
// belongs to an interface, not to the address value), brackets and white space.
//
// Hash: with w0..w3 the four 32-bit big-endian words of the address (w0 from bytes 0-3),
//   h = fmix32(w0); h = fmix32(h ^ w1); h = fmix32(h ^ w2); h = fmix32(h ^ w3)
// (fmix32 from Velnet/Hash.h). Each step is a bijection of its word, so addresses that differ
// in one word never collide, and moving a value between words changes the hash (which a plain
// XOR of the words would not). :: hashes to 0.
//
// Order: numeric order of the 128-bit address, i.e. byte-wise lexicographic order of
// bytes(): :: is the least, ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff the greatest, and
// 8000:: > 7fff:ffff:ffff:ffff:ffff:ffff:ffff:ffff.
#pragma once

#include "Kal/Assert.h"
#include "Kal/String.h"
#include "Kal/Types.h"
#include "Velnet/Hash.h"
#include "Velnet/ValueText.h"
#include "Velnet/IpAddr.h"

#include <array>
#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string_view>
#include <type_traits>

namespace Velnet {

class Ip6Addr {
  public:
    using Bytes = std::array<U8, 16>;

    // ::
    constexpr Ip6Addr() noexcept = default;
    constexpr explicit Ip6Addr(Bytes const& bytes) noexcept : bytes_(bytes) {}
    // From the eight 16-bit groups as written: Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 0, 1) is
    // 2001:db8::1.
    constexpr Ip6Addr(U16 g0, U16 g1, U16 g2, U16 g3, U16 g4, U16 g5, U16 g6, U16 g7) noexcept
        : bytes_{U8(g0 >> 8), U8(g0), U8(g1 >> 8), U8(g1), U8(g2 >> 8), U8(g2),
                 U8(g3 >> 8), U8(g3), U8(g4 >> 8), U8(g4), U8(g5 >> 8), U8(g5),
                 U8(g6 >> 8), U8(g6), U8(g7 >> 8), U8(g7)} {}

    // ::ffff:a.b.c.d, the IPv4-mapped form of an IPv4 address.
    static constexpr Ip6Addr v4Mapped(IpAddr a) noexcept {
        U32 const v = a.value();
        return Ip6Addr(0, 0, 0, 0, 0, 0xFFFF, U16(v >> 16), U16(v));
    }

    // Parses any RFC 4291 form described above; throws Kal::RangeException otherwise.
    static Ip6Addr fromString(std::string_view text);

    constexpr Bytes const& bytes() const noexcept { return bytes_; }
    // Group i counted from the left (group(0) of 2001:db8::1 is 0x2001); i must be 0 to 7.
    constexpr U16 group(unsigned i) const noexcept {
        KAL_ASSERT(i < 8);
        return U16(bytes_[2 * i] << 8 | bytes_[2 * i + 1]);
    }
    // The 32-bit big-endian word i (word(0) holds bytes 0-3); i must be 0 to 3.
    constexpr U32 word(unsigned i) const noexcept {
        KAL_ASSERT(i < 4);
        return U32(bytes_[4 * i]) << 24 | U32(bytes_[4 * i + 1]) << 16 |
               U32(bytes_[4 * i + 2]) << 8 | U32(bytes_[4 * i + 3]);
    }
    // True for ::ffff:0:0/96, the addresses that toString() prints with a dotted tail.
    constexpr bool isV4Mapped() const noexcept {
        return word(0) == 0 && word(1) == 0 && word(2) == 0xFFFFu;
    }

    constexpr U32 hash() const noexcept {
        U32 h = fmix32(word(0));
        h = fmix32(h ^ word(1));
        h = fmix32(h ^ word(2));
        return fmix32(h ^ word(3));
    }

    Kal::String8 toString() const;

    friend constexpr bool operator==(Ip6Addr const& a, Ip6Addr const& b) noexcept {
        return a.bytes_ == b.bytes_;
    }
    friend constexpr std::strong_ordering operator<=>(Ip6Addr const& a,
                                                      Ip6Addr const& b) noexcept {
        for (std::size_t i = 0; i < 16; ++i) {
            if (a.bytes_[i] != b.bytes_[i]) return a.bytes_[i] <=> b.bytes_[i];
        }
        return std::strong_ordering::equal;
    }

  private:
    alignas(4) Bytes bytes_{};
};

static_assert(sizeof(Ip6Addr) == 16 && alignof(Ip6Addr) == 4);
static_assert(std::is_trivially_copyable_v<Ip6Addr> && std::is_standard_layout_v<Ip6Addr>);
static_assert(std::has_unique_object_representations_v<Ip6Addr>, "no padding bytes");

std::ostream& operator<<(std::ostream& os, Ip6Addr const& a);

} // namespace Velnet

template <> struct std::hash<Velnet::Ip6Addr> {
    std::size_t operator()(Velnet::Ip6Addr const& a) const noexcept { return a.hash(); }
};
