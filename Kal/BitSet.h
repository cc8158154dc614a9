// Kal::BitSet<bits, Word>: a fixed set of flag bits in one machine word; bit i has value
// 1 << i. The flag set of a notifiee is a BitSet<27, unsigned>. A position outside
// 0..bits-1 is a programming error and ends the process ("pos>=0 && pos<bits").
#pragma once

#include "Kal/Assert.h"

#include <climits>

namespace Kal {

template <int bits, class Word = unsigned>
class BitSet {
    static_assert(bits > 0 && bits <= int(sizeof(Word) * CHAR_BIT), "bits must fit the word");

  public:
    static constexpr Word mask =
        bits == int(sizeof(Word) * CHAR_BIT) ? Word(~Word(0)) : Word((Word(1) << bits) - 1);

    constexpr BitSet() noexcept = default;
    constexpr explicit BitSet(Word value) noexcept : word_(value & mask) {}

    bool bit(int pos) const {
        KAL_ASSERT(pos>=0 && pos<bits);
        return (word_ >> pos) & 1u;
    }
    void bitIs(int pos, bool value) {
        KAL_ASSERT(pos>=0 && pos<bits);
        if (value) {
            word_ = Word(word_ | (Word(1) << pos));
        } else {
            word_ = Word(word_ & ~(Word(1) << pos));
        }
    }
    Word value() const noexcept { return word_; }
    void valueIs(Word value) noexcept { word_ = Word(value & mask); }
    static constexpr int size() noexcept { return bits; }

    friend constexpr bool operator==(BitSet, BitSet) noexcept = default;

  private:
    Word word_ = 0;
};

} // namespace Kal
