// Strata::Fib::FecId: the key of a FEC (forwarding equivalence class) in the FEC tables of both
// address families, and the enumerations that go with it.
//
// A FecId is one unsigned 64-bit value. The bits from adjTypePos() upward hold the adjacency
// type (AdjType) of the adjacency the FEC belongs to; the bits below it are the index within
// that type (an allocator's index for fibAdj_, a next-hop-group id for nextHopGroupAdj_):
//
//   63 ............ adjTypePos()   adjTypePos()-1 ........................ 0
//   [ adjacency type field      ] [ index within the type                     ]
//
// adjTypePos() is a function on purpose: callers read it, never assume it. It is part of the
// tables' file signature, so a build with another position refuses the files of this one.
//
// Reserved values (FecIdConstants): 0 names no FEC, 1 the IPv4 drop FEC, 2 the IPv6 drop FEC.
//
// Layout: one U64, alignas(8), so that records holding a FecId have the same layout in the
// 64-bit and the i386 build (where a plain U64 member would be 4-aligned).
//
// Hash: the rule of every U64 key of the framework, high word XOR low word. Order: numeric.
//
// Text form (value text of the framework, see Strata/RecordText.h):
//   Value('Strata::Fib::FecId', ** {'value': 42})
#pragma once

#include "Kal/Types.h"
#include "Strata/RecordText.h"

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <type_traits>

namespace Strata::Fib {

// Adjacency types, as held in the top bits of a FecId.
enum AdjType : U8 {
    fibAdj_ = 0,
    resilientEcmpAdj_ = 1,
    nextHopGroupAdj_ = 2,
    attachedAdj_ = 3,
    adjTypeMax_ = 4, // one past the last type; also what adjType() reports for an unknown field
};

// FEC types (the fecType byte of a FEC).
enum FecType : U8 {
    forward_ = 0,
    drop_ = 1,
    receive_ = 2,
    attached_ = 3,
    receiveBcast_ = 4,
    nextHopGroup_ = 5,
    kernel_ = 6,
};

// Reserved FecId values.
enum FecIdConstants : U64 {
    invalidFecId_ = 0,
    ipv4DropFecId_ = 1,
    ipv6DropFecId_ = 2,
};

// The bit position of the adjacency type field inside a FecId (48 in this layout).
U32 adjTypePos() noexcept;

class FecId {
  public:
    // invalidFecId_
    constexpr FecId() noexcept = default;
    constexpr explicit FecId(U64 value) noexcept : value_(value) {}

    // (type << adjTypePos()) | index. The index must fit below adjTypePos() (checked: an index
    // with bits at or above the position is a programming error).
    static FecId fromAdjType(AdjType type, U64 index);

    constexpr U64 value() const noexcept { return value_; }
    void valueIs(U64 value) noexcept { value_ = value; }

    // The adjacency type field (the bits from adjTypePos() upward) when it names one of
    // fibAdj_ .. attachedAdj_; adjTypeMax_ for any other field value.
    AdjType adjType() const noexcept;
    // The raw field, whatever it holds.
    U64 adjTypeField() const noexcept;
    // The bits below adjTypePos(): the index within the adjacency type.
    U64 adjTypeIndex() const noexcept;

    constexpr U32 hash() const noexcept { return U32(value_ >> 32) ^ U32(value_); }

    friend constexpr bool operator==(FecId, FecId) noexcept = default;
    friend constexpr std::strong_ordering operator<=>(FecId a, FecId b) noexcept {
        return a.value_ <=> b.value_;
    }

  private:
    alignas(8) U64 value_ = 0;
};

static_assert(sizeof(FecId) == 8 && alignof(FecId) == 8);
static_assert(std::is_trivially_copyable_v<FecId> && std::is_standard_layout_v<FecId>);
static_assert(std::has_unique_object_representations_v<FecId>, "no padding bytes");

// Prints the value in decimal.
std::ostream& operator<<(std::ostream& os, FecId id);

} // namespace Strata::Fib

template <> struct std::hash<Strata::Fib::FecId> {
    std::size_t operator()(Strata::Fib::FecId id) const noexcept { return id.hash(); }
};
