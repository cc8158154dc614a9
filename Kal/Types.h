// Fixed-width integer names used by every model attribute. They are spelled out (not
// <cstdint> aliases) so that U64 is `unsigned long long` on both the 64-bit and the
// i386 build: collection keys and trace signatures name that type.
#pragma once

using U8 = unsigned char;
using U16 = unsigned short;
using U32 = unsigned int;
using U64 = unsigned long long;
using S32 = int;
using S64 = long long;

static_assert(sizeof(U8) == 1 && sizeof(U16) == 2 && sizeof(U32) == 4 && sizeof(U64) == 8);

namespace Kal {

// Index of an attribute within its type description.
using AttributeId = U32;

} // namespace Kal
