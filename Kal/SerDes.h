// The value text form and its parser.
//
// A value type prints as
//     Value('<qualified type>', ** {'<attr>': <value>, '<attr>': <value>})
// with its attributes in declaration order. Values inside: unsigned and signed integers in
// decimal; bool as True / False; names and strings in single quotes (a quote or backslash
// inside is escaped with a backslash); nested value types by their own text form; a
// collection attribute as None. Types that are not model types (addresses, prefixes, ...)
// print their usual text in single quotes ('10.0.0.0/24').
//
// An entity reference (an attribute holding a counted pointer) prints as None when null and
// otherwise as Ptr('<qualified type>', '<full name>'). Reading one back gives null for None;
// a Ptr(...) text is resolved through the entity type's name factory when it has one (a new
// entity of that name) and is refused otherwise: the text form names entities, it does not
// carry them.
//
// Reading (strepToValue<T>) parses one value from the start of the text and refuses:
//   - text that ends inside the value: "premature end of value type <T>" (T unqualified,
//     always the outermost type being read);
//   - an attribute name that T does not have: "<T> has no such attribute: <name>";
//   - anything left after the value: "junk at column <index> deserializing <whole text>",
//     the index zero-based.
// An error raised while one attribute's value is read is raised again through
// rethrowFromDeserializeAttr, which appends the attribute and the text being read.
// All of these are Kal::RangeException.
#pragma once

#include "Kal/Exception.h"
#include "Kal/KalType.h"
#include "Kal/String.h"
#include "Kal/Types.h"

#include <ostream>
#include <sstream>
#include <string_view>

namespace Kal {

using TextIt = String8::IteratorConst;

// Raised by the readers when the text runs out; turned into "premature end of value type
// <T>" by the outermost reader. Not a RangeException: it must pass every attribute level.
struct TextEnded {};

// Reading primitives. Each advances pos past what it read.
namespace text {
// Throws TextEnded when pos == end.
char peek(TextIt pos, TextIt end);
// Requires the literal at pos; a mismatch raises RangeException naming the expected text.
void expect(TextIt& pos, TextIt end, std::string_view literal);
// True (and consumed) when the literal is at pos.
bool accept(TextIt& pos, TextIt end, std::string_view literal);
U64 readUnsigned(TextIt& pos, TextIt end, U64 max, char const* what);
S64 readSigned(TextIt& pos, TextIt end, S64 min, S64 max, char const* what);
// A single-quoted string with backslash escapes.
std::string readQuoted(TextIt& pos, TextIt end);
void writeQuoted(std::ostream& os, std::string_view s);
} // namespace text

// Text of the built-in types.
void kalPrint(std::ostream& os, U8 v);
void kalPrint(std::ostream& os, U16 v);
void kalPrint(std::ostream& os, U32 v);
void kalPrint(std::ostream& os, U64 v);
void kalPrint(std::ostream& os, S32 v);
void kalPrint(std::ostream& os, S64 v);
void kalPrint(std::ostream& os, bool v);
void kalPrint(std::ostream& os, String8 const& v);
void kalParse(TextIt& pos, TextIt end, U8& v);
void kalParse(TextIt& pos, TextIt end, U16& v);
void kalParse(TextIt& pos, TextIt end, U32& v);
void kalParse(TextIt& pos, TextIt end, U64& v);
void kalParse(TextIt& pos, TextIt end, S32& v);
void kalParse(TextIt& pos, TextIt end, S64& v);
void kalParse(TextIt& pos, TextIt end, bool& v);
void kalParse(TextIt& pos, TextIt end, String8& v);
void kalParse(TextIt& pos, TextIt end, Name& v);

// Model value types print and read through their type description (the generated
// reflection tables walked by one routine).
void kalPrintValue(std::ostream& os, KalType const& type, void const* v);
void kalParseValue(TextIt& pos, TextIt end, KalType const& type, void* v);

template <class T>
    requires requires { T::_fwkType(); }
void kalPrint(std::ostream& os, T const& v) {
    kalPrintValue(os, T::_fwkType(), &v);
}
template <class T>
    requires requires { T::_fwkType(); }
void kalParse(TextIt& pos, TextIt end, T& v) {
    kalParseValue(pos, end, T::_fwkType(), &v);
}

// Entity references.
void kalPrintEntityRef(std::ostream& os, KalType const& type, PtrInterface const* p,
                       String8 const& fullName);
// Reads None (returns false) or Ptr('<type>', '<name>') (returns true, name in `name`);
// a type other than `type` is refused.
bool kalParseEntityRef(TextIt& pos, TextIt end, KalType const& type, Name& name);

[[noreturn]] void throwPrematureEnd(KalType const& type);
[[noreturn]] void throwPrematureEnd(std::string_view shortTypeName);
[[noreturn]] void throwJunk(long long column, String8 const& text);
[[noreturn]] void throwNoSuchAttribute(KalType const& type, std::string_view name);
// Raises e again with the attribute being read and the text appended.
[[noreturn]] void rethrowFromDeserializeAttr(RangeException const& e, String8 const& text,
                                             std::string_view attrName = {});

template <class T>
String8 valueToStrep(T const& v) {
    std::ostringstream os;
    kalPrint(os, v);
    return String8(os.str());
}

// Reads a T from [pos, end), leaving pos after it.
template <class T>
T sequenceToValue(TextIt& pos, TextIt end, std::string_view typeName) {
    T v{};
    try {
        kalParse(pos, end, v);
    } catch (TextEnded const&) {
        throwPrematureEnd(typeName);
    }
    return v;
}
template <class T>
T sequenceToValue(TextIt& pos, TextIt end) {
    String8 shortName;
    if constexpr (requires { T::_fwkType(); }) {
        shortName = T::_fwkType().shortName();
    } else if constexpr (requires { typename T::element_type; }) {
        shortName = kalTypeOf<std::remove_const_t<typename T::element_type>>().shortName();
    } else {
        shortName = kalTypeOf<T>().shortName();
    }
    return sequenceToValue<T>(pos, end, shortName);
}

// Reads a whole text as one T: nothing may follow the value.
template <class T>
T strepToValue(String8 const& text) {
    TextIt pos = text.begin();
    T v = sequenceToValue<T>(pos, text.end());
    if (pos != text.end()) throwJunk(static_cast<long long>(pos - text.begin()), text);
    return v;
}

} // namespace Kal
