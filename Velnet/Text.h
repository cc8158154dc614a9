// Text helpers shared by the Velnet parsers and printers (internal to Velnet).
//
// A parse step returns a ParseError: null on success, otherwise a static text saying what
// was wrong ("octet above 255"). The public fromString() functions turn it into a
// Kal::RangeException whose message quotes the whole offending text:
//
//   invalid IPv4 address '10.0.0.256': octet above 255
//
// Parsers are strict and allocation free: they accept exactly the forms their type
// documents, with no surrounding white space, signs or alternative radixes.
#pragma once

#include "Kal/Types.h"

#include <string>
#include <string_view>

namespace Velnet::detail {

using ParseError = char const*;

constexpr bool isDecimalDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// Value of a hexadecimal digit of either case, or -1.
constexpr int hexDigitValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// A decimal number: digits only, no sign, no leading zero unless it is "0", at most `max`.
ParseError parseDecimal(std::string_view text, U32 max, U32& out) noexcept;

// A dotted quad: exactly four decimal octets 0-255 separated by '.', each without leading
// zeros ("010" is refused rather than read as octal or as ten). `out` is in host order.
ParseError parseDottedQuad(std::string_view text, U32& out) noexcept;

// An IPv6 address in any RFC 4291 text form (see Ip6Addr.h for what is accepted), as its
// eight 16-bit groups.
ParseError parseIp6(std::string_view text, U16 (&groups)[8]) noexcept;

void appendDecimal(std::string& s, U32 value);
void appendDottedQuad(std::string& s, U32 value);

// Throws Kal::RangeException "invalid <what> '<text>': <why>". Bytes of the text that are
// not printable ASCII are shown as \xNN so that the message stays one readable line.
[[noreturn]] void throwInvalid(std::string_view what, std::string_view text, ParseError why);

} // namespace Velnet::detail
