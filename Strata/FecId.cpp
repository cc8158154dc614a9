#include "Strata/FecId.h"

#include "Kal/Assert.h"

#include <ostream>

namespace Strata::Fib {

namespace {
// 48 leaves 16 bits for the type field and 48 bits (2^48 indices, next-hop-group ids well
// inside) for the index.
constexpr U32 layoutAdjTypePos = 48;
} // namespace

U32 adjTypePos() noexcept { return layoutAdjTypePos; }

FecId FecId::fromAdjType(AdjType type, U64 index) {
    KAL_ASSERT(index >> adjTypePos() == 0);
    return FecId(U64(type) << adjTypePos() | index);
}

U64 FecId::adjTypeField() const noexcept { return value_ >> adjTypePos(); }

AdjType FecId::adjType() const noexcept {
    U64 const field = adjTypeField();
    return field < adjTypeMax_ ? AdjType(field) : adjTypeMax_;
}

U64 FecId::adjTypeIndex() const noexcept {
    return value_ & ((U64(1) << adjTypePos()) - 1);
}

std::ostream& operator<<(std::ostream& os, FecId id) { return os << id.value(); }

} // namespace Strata::Fib
