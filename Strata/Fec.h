// Strata::Fib::Fec and Strata::Fib6::Fec: a FEC (forwarding equivalence class) record, the
// value of the FEC tables: its key, a type, a next-hop-group id and up to 128 vias.
//
// Vias sit at positions 0 to 127 (ViaIndex). Position and via belong together: viaIs(i, v)
// sets position i, viaDel(i) clears it, via(i) reads it. Writers fill positions 0, 1, 2 ...
// densely, and readers that walk 0 .. vias()-1 rely on that; but a FEC may have holes (a via
// deleted from the middle), and the record keeps them exactly:
//   - vias() is the number of positions that hold a via;
//   - viaEnd() is one past the highest such position (0 for none); vias() == viaEnd() exactly
//     when the positions are dense;
//   - via(i) of a position without a via is the empty Via() (hasVia(i) tells them apart);
//   - the via iterator visits exactly the positions that hold a via, in ascending order.
// A position is refused with the ViaIndex range error ("ViaIndex::value < ViaIndex::min or >
// ViaIndex::max not allowed") for 128 and beyond, before anything changes.
//
// A default FEC has FecId 0, fecType forward_, nexthopGroupId 0xFFFF (none) and no vias.
//
// Layout: trivially copyable, fixed (the same in the 64-bit and the i386 build), so that the
// tables' direct-write slot can hold one in shared memory:
//   offset 0  FecId fecId (8, alignas 8)     8 U8 fecType     9 U8 reserved (0)
//         10  U16 nexthopGroupId            12 U32 viaMask[4]: bit i set = position i holds a via
//         28  U32 reserved (0)              32 Via via[128]: what a position without a via holds
//                                              is left unspecified (deleting a via clears its
//                                              bit only), so emptying a FEC costs four stores
//   Fib::Fec 1568 bytes, Fib6::Fec 3104 bytes.
// Equality compares every field (the positions and their vias included).
//
// Text form (value text of the framework, see Strata/RecordText.h):
//   Value('Strata::Fib::Fec', ** {'fecId': Value('Strata::Fib::FecId', ** {'value': 7}),
//         'fecType': 0, 'nexthopGroupId': 65535,
//         'via': {0: '10.0.0.1%Ethernet1', 1: '10.0.0.2%Ethernet2'}})
// (one line; the via map lists the set positions in ascending order, {} when none).
#pragma once

#include "Kal/Assert.h"
#include "Kal/Types.h"
#include "Strata/FecId.h"
#include "Strata/RecordText.h"
#include "Strata/Via.h"

#include <bit>
#include <cstddef>
#include <iosfwd>
#include <type_traits>

namespace Strata::detail {

// The record of both families; Fib::Fec and Fib6::Fec are its two instances.
template <class V>
class BasicFec {
  public:
    using Via = V;
    using ViaIndex = Fib::ViaIndex;
    static constexpr U32 maxVias = 128;
    static constexpr U16 noNexthopGroupId = 0xFFFF;

    // Walks the positions that hold a via, in ascending order.
    class ViaIteratorConst {
      public:
        ViaIteratorConst() noexcept = default;
        // The position of the current via.
        ViaIndex position() const noexcept { return ViaIndex(pos_); }
        V const& via() const noexcept {
            KAL_DASSERT(pos_ < maxVias);
            return fec_->via_[pos_];
        }
        V const& operator*() const noexcept { return via(); }
        V const* operator->() const noexcept { return &via(); }
        ViaIteratorConst& operator++() noexcept {
            pos_ = fec_->nextPosition(pos_ + 1);
            return *this;
        }
        explicit operator bool() const noexcept { return pos_ < maxVias; }
        bool isEnd() const noexcept { return pos_ >= maxVias; }

      private:
        friend class BasicFec;
        ViaIteratorConst(BasicFec const* fec, U32 pos) noexcept : fec_(fec), pos_(pos) {}
        BasicFec const* fec_ = nullptr;
        U32 pos_ = maxVias;
    };

    constexpr BasicFec() noexcept = default;
    constexpr explicit BasicFec(Fib::FecId fecId) noexcept : fecId_(fecId) {}

    Fib::FecId fecId() const noexcept { return fecId_; }
    void fecIdIs(Fib::FecId fecId) noexcept { fecId_ = fecId; }

    // The type byte; it may hold a value FecType does not name (as read from a table).
    Fib::FecType fecType() const noexcept { return fecType_; }
    void fecTypeIs(Fib::FecType type) noexcept { fecType_ = type; }
    void fecTypeIs(U8 type) noexcept { fecType_ = Fib::FecType(type); }

    U16 nexthopGroupId() const noexcept { return nexthopGroupId_; }
    void nexthopGroupIdIs(U16 id) noexcept { nexthopGroupId_ = id; }

    // The via at a position; the empty Via() where there is none.
    V const& via(ViaIndex i) const noexcept { return hasVia(i) ? via_[i.value()] : emptyVia; }
    bool hasVia(ViaIndex i) const noexcept {
        return (viaMask_[i.value() / 32] >> (i.value() % 32)) & 1u;
    }
    void viaIs(ViaIndex i, V const& via) noexcept {
        via_[i.value()] = via;
        viaMask_[i.value() / 32] |= 1u << (i.value() % 32);
    }
    void viaDel(ViaIndex i) noexcept { viaMask_[i.value() / 32] &= ~(1u << (i.value() % 32)); }
    void viaDelAll() noexcept {
        for (U32& w : viaMask_) w = 0;
    }

    // Positions holding a via.
    U32 vias() const noexcept {
        U32 n = 0;
        for (U32 w : viaMask_) n += bitCount(w);
        return n;
    }
    // One past the highest position holding a via; 0 when there is none.
    U32 viaEnd() const noexcept {
        for (U32 w = 4; w-- > 0;) {
            if (viaMask_[w]) return w * 32 + 32 - U32(std::countl_zero(viaMask_[w]));
        }
        return 0;
    }
    // True when the vias sit at 0 .. vias()-1 without holes.
    bool viasDense() const noexcept { return vias() == viaEnd(); }

    ViaIteratorConst viaIteratorConst() const noexcept {
        return ViaIteratorConst(this, nextPosition(0));
    }

    // The occupancy bitmap, word w covering positions 32w .. 32w+31 (for the table codec).
    U32 viaMaskWord(U32 w) const noexcept {
        KAL_DASSERT(w < 4);
        return viaMask_[w];
    }
    // The via array itself, positions 0 .. 127; only the positions holding a via are
    // meaningful (for the table codec, which copies a dense run at once).
    V const* viaArray() const noexcept { return via_; }

    friend bool operator==(BasicFec const& a, BasicFec const& b) noexcept {
        if (a.fecId_ != b.fecId_ || a.fecType_ != b.fecType_ ||
            a.nexthopGroupId_ != b.nexthopGroupId_) {
            return false;
        }
        for (U32 w = 0; w < 4; ++w) {
            if (a.viaMask_[w] != b.viaMask_[w]) return false;
        }
        for (U32 i = a.nextPosition(0); i < maxVias; i = a.nextPosition(i + 1)) {
            if (!(a.via_[i] == b.via_[i])) return false;
        }
        return true;
    }

  protected:
    static constexpr void layoutChecks() noexcept {
        static_assert(offsetof(BasicFec, fecId_) == 0);
        static_assert(offsetof(BasicFec, fecType_) == 8);
        static_assert(offsetof(BasicFec, reserved_) == 9);
        static_assert(offsetof(BasicFec, nexthopGroupId_) == 10);
        static_assert(offsetof(BasicFec, viaMask_) == 12);
        static_assert(offsetof(BasicFec, reserved2_) == 28);
        static_assert(offsetof(BasicFec, via_) == 32);
        static_assert(sizeof(BasicFec) == 32 + maxVias * sizeof(V));
    }

  private:
    static constexpr V emptyVia{};

    // The bits set in w, without relying on a popcount instruction (a baseline x86 or i386
    // build would call a library routine for std::popcount).
    static constexpr U32 bitCount(U32 w) noexcept {
        w = w - ((w >> 1) & 0x55555555u);
        w = (w & 0x33333333u) + ((w >> 2) & 0x33333333u);
        return (((w + (w >> 4)) & 0x0F0F0F0Fu) * 0x01010101u) >> 24;
    }
    // The first position >= from that holds a via; maxVias when none.
    U32 nextPosition(U32 from) const noexcept {
        while (from < maxVias) {
            U32 const w = viaMask_[from / 32] >> (from % 32);
            if (w) return from + U32(std::countr_zero(w));
            from = (from / 32 + 1) * 32;
        }
        return maxVias;
    }

    Fib::FecId fecId_;
    Fib::FecType fecType_ = Fib::forward_;
    U8 reserved_ = 0;
    U16 nexthopGroupId_ = noNexthopGroupId;
    U32 viaMask_[4] = {};
    U32 reserved2_ = 0;
    V via_[maxVias] = {};
};

} // namespace Strata::detail

namespace Strata::Fib {

class Fec : public detail::BasicFec<Via> {
  public:
    using BasicFec::BasicFec;

  private:
    static constexpr void checks() noexcept { layoutChecks(); }
};

static_assert(sizeof(Fec) == 1568 && alignof(Fec) == 8);
static_assert(std::is_trivially_copyable_v<Fec> && std::is_standard_layout_v<Fec>);

std::ostream& operator<<(std::ostream& os, Fec const& fec);

} // namespace Strata::Fib

namespace Strata::Fib6 {

using Fib::FecId;
using Fib::FecType;

class Fec : public detail::BasicFec<Via> {
  public:
    using BasicFec::BasicFec;

  private:
    static constexpr void checks() noexcept { layoutChecks(); }
};

static_assert(sizeof(Fec) == 3104 && alignof(Fec) == 8);
static_assert(std::is_trivially_copyable_v<Fec> && std::is_standard_layout_v<Fec>);

std::ostream& operator<<(std::ostream& os, Fec const& fec);

} // namespace Strata::Fib6
