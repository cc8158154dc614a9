#include "Velnet/IntfId.h"

#include "Kal/Exception.h"
#include "Velnet/Text.h"

#include <ostream>
#include <string>

namespace Velnet {

namespace {

constexpr std::string_view emptyText = "none";
constexpr std::string_view rawPrefix = "IntfId(0x";

// Text name of each named kind, indexed by the kind's value; none_ has no name prefix.
constexpr std::string_view kindNames[] = {
    "", "Ethernet", "Vlan", "Port-Channel", "Loopback", "Tunnel", "Null",
};
constexpr U32 kindCount = sizeof(kindNames) / sizeof(kindNames[0]);

std::string rangeReason(IntfId::NumberRange range) {
    std::string why = "number out of range ";
    detail::appendDecimal(why, range.min);
    if (range.max != range.min) {
        why += '-';
        detail::appendDecimal(why, range.max);
    }
    return why;
}

void appendRaw(std::string& s, U32 value) {
    static constexpr char hex[] = "0123456789abcdef";
    s += rawPrefix;
    for (int shift = 28; shift >= 0; shift -= 4) s += hex[(value >> shift) & 0xFu];
    s += ')';
}

// The raw form "IntfId(0x%08x)" with exactly eight lowercase hex digits.
bool parseRaw(std::string_view text, U32& value) {
    if (text.size() != rawPrefix.size() + 9 || text.substr(0, rawPrefix.size()) != rawPrefix ||
        text.back() != ')') {
        return false;
    }
    U32 v = 0;
    for (char c : text.substr(rawPrefix.size(), 8)) {
        int const d = detail::hexDigitValue(c);
        if (d < 0 || (c >= 'A' && c <= 'F')) return false;
        v = v << 4 | U32(d);
    }
    value = v;
    return true;
}

} // namespace

IntfId::IntfId(IntfKind kind, U32 number) {
    auto const range = numberRange(kind);
    if (!range) {
        std::string m = "invalid interface kind ";
        detail::appendDecimal(m, U32(kind));
        Kal::throwRangeException(Kal::String8(std::move(m)));
    }
    if (number < range->min || number > range->max) {
        std::string m = "invalid interface number ";
        detail::appendDecimal(m, number);
        m += " for ";
        m += kind == IntfKind::none_ ? emptyText : kindNames[U32(kind)];
        m += ": ";
        m += rangeReason(*range);
        Kal::throwRangeException(Kal::String8(std::move(m)));
    }
    value_ = U32(kind) << kindShift | number;
}

IntfId IntfId::fromString(std::string_view text) {
    if (text == emptyText) return IntfId();
    if (text.substr(0, rawPrefix.size()) == rawPrefix) {
        U32 raw = 0;
        if (!parseRaw(text, raw)) {
            detail::throwInvalid("interface id", text,
                                 "raw form must be IntfId(0x) with eight lowercase hex digits");
        }
        if (IntfId(raw).wellFormed()) {
            detail::throwInvalid("interface id", text, "a named interface must be written by name");
        }
        return IntfId(raw);
    }
    for (U32 k = 1; k < kindCount; ++k) {
        std::string_view const name = kindNames[k];
        if (text.substr(0, name.size()) != name) continue;
        auto const kind = IntfKind(k);
        NumberRange const range = *numberRange(kind);
        U32 number = 0;
        if (auto why = detail::parseDecimal(text.substr(name.size()), ~U32(0), number)) {
            detail::throwInvalid("interface id", text, why);
        }
        if (number < range.min || number > range.max) {
            detail::throwInvalid("interface id", text, rangeReason(range).c_str());
        }
        return IntfId(kind, number);
    }
    detail::throwInvalid("interface id", text, "unknown interface kind");
}

Kal::String8 IntfId::toString() const {
    std::string s;
    if (empty()) {
        s = emptyText;
    } else if (!wellFormed()) {
        appendRaw(s, value_);
    } else {
        s = kindNames[U32(kind())];
        detail::appendDecimal(s, number());
    }
    return Kal::String8(std::move(s));
}

std::ostream& operator<<(std::ostream& os, IntfId id) { return os << id.toString(); }

} // namespace Velnet
