#include "Kal/String.h"

#include <ostream>

namespace Kal {

U32 fnv1a(void const* data, std::size_t len, U32 seed) {
    auto const* p = static_cast<unsigned char const*>(data);
    U32 h = seed;
    for (std::size_t i = 0; i < len; ++i) {
        h ^= p[i];
        h *= 16777619u;
    }
    return h;
}

U32 String8::hash() const { return fnv1a(s_.data(), s_.size()); }

std::ostream& operator<<(std::ostream& os, String8 const& s) { return os << s.stringValue(); }

} // namespace Kal
