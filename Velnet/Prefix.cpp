#include "Velnet/Prefix.h"

#include "Kal/Exception.h"
#include "Velnet/Text.h"

#include <ostream>
#include <string>

namespace Velnet {

namespace {

[[noreturn]] void throwBadLength(char const* family, U32 len, U32 maxLen) {
    std::string m = "invalid ";
    m += family;
    m += " prefix length ";
    detail::appendDecimal(m, len);
    m += " (0-";
    detail::appendDecimal(m, maxLen);
    m += ')';
    Kal::throwRangeException(Kal::String8(std::move(m)));
}

// Splits "<address>/<length>" and parses the length; the address text is left to the caller.
detail::ParseError splitPrefix(std::string_view text, U32 maxLen, std::string_view& address,
                               U32& len) noexcept {
    std::size_t const slash = text.find('/');
    if (slash == std::string_view::npos) return "missing '/<length>'";
    address = text.substr(0, slash);
    std::string_view const digits = text.substr(slash + 1);
    if (auto why = detail::parseDecimal(digits, ~U32(0), len)) return why;
    if (len > maxLen) return "length out of range";
    return nullptr;
}

template <class P>
[[noreturn]] void throwHostBits(char const* what, std::string_view text, P const& canonical) {
    std::string why = "host bits set (the network is ";
    why += canonical.toString().stringValue();
    why += ')';
    detail::throwInvalid(what, text, why.c_str());
}

} // namespace

Prefix::Prefix(IpAddr address, U32 len) {
    if (len > maxLen) throwBadLength("IPv4", len, maxLen);
    address_ = IpAddr(address.value() & maskOf(len));
    len_ = U8(len);
}

Prefix Prefix::fromString(std::string_view text) {
    constexpr char const* what = "IPv4 prefix";
    std::string_view addressText;
    U32 len = 0;
    if (auto why = splitPrefix(text, maxLen, addressText, len)) {
        detail::throwInvalid(what, text, why);
    }
    U32 value = 0;
    if (auto why = detail::parseDottedQuad(addressText, value)) {
        detail::throwInvalid(what, text, why);
    }
    Prefix const p(IpAddr(value), len);
    if (p.address_.value() != value) throwHostBits(what, text, p);
    return p;
}

Kal::String8 Prefix::toString() const {
    std::string s;
    s.reserve(18);
    detail::appendDottedQuad(s, address_.value());
    s += '/';
    detail::appendDecimal(s, len_);
    return Kal::String8(std::move(s));
}

Ip6Prefix::Ip6Prefix(Ip6Addr const& address, U32 len) {
    if (len > maxLen) throwBadLength("IPv6", len, maxLen);
    Ip6Addr::Bytes b = address.bytes();
    for (U32 i = 0; i < 16; ++i) {
        U32 const bitsKept = len > 8 * i ? len - 8 * i : 0;
        if (bitsKept < 8) b[i] = U8(b[i] & (0xFF00u >> bitsKept));
    }
    address_ = Ip6Addr(b);
    len_ = U8(len);
}

Ip6Prefix Ip6Prefix::fromString(std::string_view text) {
    constexpr char const* what = "IPv6 prefix";
    std::string_view addressText;
    U32 len = 0;
    if (auto why = splitPrefix(text, maxLen, addressText, len)) {
        detail::throwInvalid(what, text, why);
    }
    U16 g[8];
    if (auto why = detail::parseIp6(addressText, g)) detail::throwInvalid(what, text, why);
    Ip6Addr const a(g[0], g[1], g[2], g[3], g[4], g[5], g[6], g[7]);
    Ip6Prefix const p(a, len);
    if (p.address_ != a) throwHostBits(what, text, p);
    return p;
}

bool Ip6Prefix::contains(Ip6Addr const& a) const noexcept {
    return Ip6Prefix(a, len_).address_ == address_;
}

Kal::String8 Ip6Prefix::toString() const {
    std::string s = address_.toString().stringValue();
    s += '/';
    detail::appendDecimal(s, len_);
    return Kal::String8(std::move(s));
}

std::ostream& operator<<(std::ostream& os, Prefix const& p) { return os << p.toString(); }
std::ostream& operator<<(std::ostream& os, Ip6Prefix const& p) { return os << p.toString(); }

} // namespace Velnet
