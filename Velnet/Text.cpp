#include "Velnet/Text.h"

#include "Kal/Exception.h"

namespace Velnet::detail {

ParseError parseDecimal(std::string_view text, U32 max, U32& out) noexcept {
    if (text.empty()) return "missing number";
    U64 v = 0;
    for (char c : text) {
        if (!isDecimalDigit(c)) return "not a decimal number";
        if (v <= max) v = v * 10 + U64(c - '0'); // saturates just above max: no overflow
    }
    if (text.size() > 1 && text[0] == '0') return "number with a leading zero";
    if (v > max) return "number out of range";
    out = U32(v);
    return nullptr;
}

ParseError parseDottedQuad(std::string_view text, U32& out) noexcept {
    constexpr ParseError shape = "expected four dot-separated decimal octets";
    U32 value = 0;
    std::size_t i = 0;
    for (int k = 0; k < 4; ++k) {
        if (k > 0) {
            if (i >= text.size() || text[i] != '.') return shape;
            ++i;
        }
        std::size_t const start = i;
        U32 octet = 0;
        while (i < text.size() && isDecimalDigit(text[i])) {
            if (octet <= 255) octet = octet * 10 + U32(text[i] - '0');
            ++i;
        }
        if (i == start) return shape;
        if (i - start > 1 && text[start] == '0') return "octet with a leading zero";
        if (octet > 255) return "octet above 255";
        value = value << 8 | octet;
    }
    if (i != text.size()) return shape;
    out = value;
    return nullptr;
}

namespace {

// The groups of one side of a "::" (or of a whole address without one).
struct Groups {
    U16 g[8] = {};
    int n = 0;
};

// Parses a colon-separated list of groups. An empty text is an empty list (the side of a
// "::" that has nothing). A dotted-quad item is allowed only as the very last item of the
// whole address (`endsAddress` and no item after it), where it stands for two groups.
ParseError parseGroups(std::string_view s, bool endsAddress, Groups& out) noexcept {
    out.n = 0;
    if (s.empty()) return nullptr;
    std::size_t i = 0;
    for (;;) {
        std::size_t const colon = s.find(':', i);
        std::string_view const item =
            s.substr(i, colon == std::string_view::npos ? std::string_view::npos : colon - i);
        if (item.empty()) return "empty group (a lone ':')";
        if (item.find('.') != std::string_view::npos) {
            if (!endsAddress || colon != std::string_view::npos) {
                return "IPv4 tail not at the end";
            }
            U32 v4 = 0;
            if (parseDottedQuad(item, v4)) return "malformed IPv4 tail";
            if (out.n + 2 > 8) return "too many groups";
            out.g[out.n++] = U16(v4 >> 16);
            out.g[out.n++] = U16(v4);
            return nullptr;
        }
        U32 value = 0;
        for (char c : item) {
            int const d = hexDigitValue(c);
            if (d < 0) return "not a hex digit";
            value = value << 4 | U32(d);
        }
        if (item.size() > 4) return "group of more than four hex digits";
        if (out.n == 8) return "too many groups";
        out.g[out.n++] = U16(value);
        if (colon == std::string_view::npos) return nullptr;
        i = colon + 1;
    }
}

} // namespace

ParseError parseIp6(std::string_view text, U16 (&groups)[8]) noexcept {
    if (text.empty()) return "empty text";
    if (text.find('%') != std::string_view::npos) return "zone id not accepted";
    std::size_t const gap = text.find("::");
    if (gap == std::string_view::npos) {
        Groups all;
        if (auto why = parseGroups(text, true, all)) return why;
        if (all.n != 8) return "too few groups";
        for (int i = 0; i < 8; ++i) groups[i] = all.g[i];
        return nullptr;
    }
    if (text.find("::", gap + 2) != std::string_view::npos) return "more than one '::'";
    Groups head, tail;
    if (auto why = parseGroups(text.substr(0, gap), false, head)) return why;
    if (auto why = parseGroups(text.substr(gap + 2), true, tail)) return why;
    // "::" stands for at least one zero group.
    if (head.n + tail.n > 7) return "too many groups";
    for (int i = 0; i < 8; ++i) groups[i] = 0;
    for (int i = 0; i < head.n; ++i) groups[i] = head.g[i];
    for (int i = 0; i < tail.n; ++i) groups[8 - tail.n + i] = tail.g[i];
    return nullptr;
}

void appendDecimal(std::string& s, U32 value) {
    char digits[10];
    int n = 0;
    do {
        digits[n++] = char('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (n > 0) s += digits[--n];
}

void appendDottedQuad(std::string& s, U32 value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        appendDecimal(s, (value >> shift) & 0xFFu);
        if (shift != 0) s += '.';
    }
}

void throwInvalid(std::string_view what, std::string_view text, ParseError why) {
    static constexpr char hex[] = "0123456789abcdef";
    std::string m = "invalid ";
    m += what;
    m += " '";
    for (char c : text) {
        auto const b = static_cast<unsigned char>(c);
        if (b >= 0x20 && b < 0x7F) {
            m += c;
        } else {
            m += "\\x";
            m += hex[b >> 4];
            m += hex[b & 0xF];
        }
    }
    m += "': ";
    m += why;
    Kal::throwRangeException(Kal::String8(std::move(m)));
}

} // namespace Velnet::detail
