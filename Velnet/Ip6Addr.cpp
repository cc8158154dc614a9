#include "Velnet/Ip6Addr.h"

#include "Velnet/Text.h"

#include <ostream>

namespace Velnet {

namespace {

void appendHexGroup(std::string& s, U16 g) {
    static constexpr char hex[] = "0123456789abcdef";
    bool started = false;
    for (int shift = 12; shift >= 0; shift -= 4) {
        unsigned const d = (g >> shift) & 0xFu;
        if (d != 0 || started || shift == 0) {
            s += hex[d];
            started = true;
        }
    }
}

} // namespace

Ip6Addr Ip6Addr::fromString(std::string_view text) {
    U16 g[8];
    if (auto why = detail::parseIp6(text, g)) detail::throwInvalid("IPv6 address", text, why);
    return Ip6Addr(g[0], g[1], g[2], g[3], g[4], g[5], g[6], g[7]);
}

Kal::String8 Ip6Addr::toString() const {
    std::string s;
    s.reserve(39);
    if (isV4Mapped()) {
        s += "::ffff:";
        detail::appendDottedQuad(s, word(3));
        return Kal::String8(std::move(s));
    }
    // The longest run of at least two zero groups; the leftmost one wins a tie.
    int bestStart = -1, bestLen = 1;
    for (int i = 0; i < 8;) {
        if (group(unsigned(i)) != 0) {
            ++i;
            continue;
        }
        int j = i;
        while (j < 8 && group(unsigned(j)) == 0) ++j;
        if (j - i > bestLen) {
            bestStart = i;
            bestLen = j - i;
        }
        i = j;
    }
    for (int i = 0; i < 8;) {
        if (i == bestStart) {
            s += "::";
            i += bestLen;
            continue;
        }
        if (i > 0 && i != bestStart + bestLen) s += ':';
        appendHexGroup(s, group(unsigned(i)));
        ++i;
    }
    return Kal::String8(std::move(s));
}

std::ostream& operator<<(std::ostream& os, Ip6Addr const& a) { return os << a.toString(); }

} // namespace Velnet
