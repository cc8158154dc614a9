#include "Strata/Via.h"

#include "Kal/Exception.h"

#include <cstddef>
#include <ostream>
#include <string>

namespace Strata {

namespace detail {

void throwViaIndexRange() {
    Kal::throwRangeException("ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed");
}

namespace {

constexpr std::string_view labelWord = " label ";

// The text for a message: bytes outside printable ASCII as \xNN, so it stays one line.
std::string printable(std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7f) {
            out += char(c);
        } else {
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 0xF];
        }
    }
    return out;
}

[[noreturn]] void throwInvalidVia(char const* type, std::string_view text, std::string_view why) {
    Kal::throwRangeException("invalid " + std::string(type) + " '" + printable(text) +
                             "': " + std::string(why));
}

// Decimal U32 without sign or leading zeros.
bool parseLabel(std::string_view s, U32& out) {
    if (s.empty() || s.size() > 10 || (s.size() > 1 && s[0] == '0')) return false;
    U64 v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + U64(c - '0');
    }
    if (v > 0xFFFFFFFFull) return false;
    out = U32(v);
    return true;
}

} // namespace

// Splits "<hop>%<intf>[ label <n>]" and reads each part; Addr is the hop's type.
template <class V>
V parseVia(char const* type, std::string_view text) {
    auto const percent = text.find('%');
    if (percent == std::string_view::npos) {
        throwInvalidVia(type, text, "expected <hop>%<interface>");
    }
    std::string_view const hopText = text.substr(0, percent);
    std::string_view rest = text.substr(percent + 1);
    U32 label = 0;
    if (auto const l = rest.find(labelWord); l != std::string_view::npos) {
        if (!parseLabel(rest.substr(l + labelWord.size()), label)) {
            throwInvalidVia(type, text, "label is not a decimal number 0-4294967295");
        }
        rest = rest.substr(0, l);
    }
    typename V::Addr hop;
    Velnet::IntfId intf;
    try {
        hop = V::Addr::fromString(hopText);
        intf = Velnet::IntfId::fromString(rest);
    } catch (Kal::RangeException const& e) {
        throwInvalidVia(type, text, e.message().stringValue());
    }
    return V(hop, intf, label);
}

template <class V>
Kal::String8 viaText(V const& v) {
    std::string s = v.hop().toString().stringValue();
    s += '%';
    s += v.intfId().toString().stringValue();
    if (v.mplsLabel() != 0) {
        s += labelWord;
        s += std::to_string(v.mplsLabel());
    }
    return Kal::String8(std::move(s));
}

} // namespace detail

namespace Fib {

void Via::layoutChecks() noexcept {
    static_assert(offsetof(Via, hop_) == 0);
    static_assert(offsetof(Via, intfId_) == 4);
    static_assert(offsetof(Via, mplsLabel_) == 8);
}

Via Via::fromString(std::string_view text) {
    return detail::parseVia<Via>("Strata::Fib::Via", text);
}

Kal::String8 Via::toString() const { return detail::viaText(*this); }

std::ostream& operator<<(std::ostream& os, Via const& v) { return os << v.toString(); }

} // namespace Fib

namespace Fib6 {

void Via::layoutChecks() noexcept {
    static_assert(offsetof(Via, hop_) == 0);
    static_assert(offsetof(Via, intfId_) == 16);
    static_assert(offsetof(Via, mplsLabel_) == 20);
}

Via Via::fromString(std::string_view text) {
    return detail::parseVia<Via>("Strata::Fib6::Via", text);
}

Kal::String8 Via::toString() const { return detail::viaText(*this); }

std::ostream& operator<<(std::ostream& os, Via const& v) { return os << v.toString(); }

} // namespace Fib6

} // namespace Strata
