#include "Velnet/IpAddr.h"

#include "Velnet/Text.h"

#include <ostream>

namespace Velnet {

IpAddr IpAddr::fromString(std::string_view text) {
    U32 value = 0;
    if (auto why = detail::parseDottedQuad(text, value)) {
        detail::throwInvalid("IPv4 address", text, why);
    }
    return IpAddr(value);
}

Kal::String8 IpAddr::toString() const {
    std::string s;
    s.reserve(15);
    detail::appendDottedQuad(s, value_);
    return Kal::String8(std::move(s));
}

std::ostream& operator<<(std::ostream& os, IpAddr a) { return os << a.toString(); }

} // namespace Velnet
