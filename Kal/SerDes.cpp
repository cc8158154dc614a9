#include "Kal/SerDes.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <limits>

namespace Kal {

namespace text {

char peek(TextIt pos, TextIt end) {
    if (pos == end) throw TextEnded{};
    return *pos;
}

void expect(TextIt& pos, TextIt end, std::string_view literal) {
    for (char c : literal) {
        if (pos == end) throw TextEnded{};
        if (*pos != c) {
            throwRangeException("expected \"" + std::string(literal) + "\" but found \"" +
                                std::string(pos, end).substr(0, 24) + "\"");
        }
        ++pos;
    }
}

bool accept(TextIt& pos, TextIt end, std::string_view literal) {
    TextIt p = pos;
    for (char c : literal) {
        if (p == end || *p != c) return false;
        ++p;
    }
    pos = p;
    return true;
}

U64 readUnsigned(TextIt& pos, TextIt end, U64 max, char const* what) {
    if (pos == end) throw TextEnded{};
    if (*pos < '0' || *pos > '9') {
        throwRangeException(std::string("expected ") + what + " but found \"" +
                            std::string(pos, end).substr(0, 24) + "\"");
    }
    U64 v = 0;
    TextIt const start = pos;
    while (pos != end && *pos >= '0' && *pos <= '9') {
        U64 const digit = U64(*pos - '0');
        if (v > (max - digit) / 10) {
            while (pos != end && *pos >= '0' && *pos <= '9') ++pos;
            throwRangeException(std::string(what) + " out of range: " + std::string(start, pos));
        }
        v = v * 10 + digit;
        ++pos;
    }
    return v;
}

S64 readSigned(TextIt& pos, TextIt end, S64 min, S64 max, char const* what) {
    bool const negative = accept(pos, end, "-");
    U64 const limit = negative ? U64(-(min + 1)) + 1 : U64(max);
    U64 const magnitude = readUnsigned(pos, end, limit, what);
    return negative ? S64(0 - magnitude) : S64(magnitude);
}

std::string readQuoted(TextIt& pos, TextIt end) {
    expect(pos, end, "'");
    std::string out;
    for (;;) {
        char c = peek(pos, end);
        ++pos;
        if (c == '\'') return out;
        if (c == '\\') {
            c = peek(pos, end);
            ++pos;
        }
        out += c;
    }
}

void writeQuoted(std::ostream& os, std::string_view s) {
    os << '\'';
    for (char c : s) {
        if (c == '\'' || c == '\\') os << '\\';
        os << c;
    }
    os << '\'';
}

} // namespace text

void kalPrint(std::ostream& os, U8 v) { os << unsigned(v); }
void kalPrint(std::ostream& os, U16 v) { os << unsigned(v); }
void kalPrint(std::ostream& os, U32 v) { os << v; }
void kalPrint(std::ostream& os, U64 v) { os << v; }
void kalPrint(std::ostream& os, S32 v) { os << v; }
void kalPrint(std::ostream& os, S64 v) { os << v; }
void kalPrint(std::ostream& os, bool v) { os << (v ? "True" : "False"); }
void kalPrint(std::ostream& os, String8 const& v) { text::writeQuoted(os, v.stringValue()); }

void kalParse(TextIt& pos, TextIt end, U8& v) {
    v = U8(text::readUnsigned(pos, end, 0xFF, "U8"));
}
void kalParse(TextIt& pos, TextIt end, U16& v) {
    v = U16(text::readUnsigned(pos, end, 0xFFFF, "U16"));
}
void kalParse(TextIt& pos, TextIt end, U32& v) {
    v = U32(text::readUnsigned(pos, end, 0xFFFFFFFFu, "U32"));
}
void kalParse(TextIt& pos, TextIt end, U64& v) {
    v = text::readUnsigned(pos, end, std::numeric_limits<U64>::max(), "U64");
}
void kalParse(TextIt& pos, TextIt end, S32& v) {
    v = S32(text::readSigned(pos, end, std::numeric_limits<S32>::min(),
                             std::numeric_limits<S32>::max(), "S32"));
}
void kalParse(TextIt& pos, TextIt end, S64& v) {
    v = text::readSigned(pos, end, std::numeric_limits<S64>::min(),
                         std::numeric_limits<S64>::max(), "S64");
}
void kalParse(TextIt& pos, TextIt end, bool& v) {
    text::peek(pos, end);
    if (text::accept(pos, end, "True")) {
        v = true;
    } else if (text::accept(pos, end, "False")) {
        v = false;
    } else {
        throwRangeException("expected True or False but found \"" +
                            std::string(pos, end).substr(0, 24) + "\"");
    }
}
void kalParse(TextIt& pos, TextIt end, String8& v) { v = String8(text::readQuoted(pos, end)); }
void kalParse(TextIt& pos, TextIt end, Name& v) { v = Name(text::readQuoted(pos, end)); }

void kalPrintValue(std::ostream& os, KalType const& type, void const* v) {
    os << "Value('" << type.name() << "', ** {";
    bool first = true;
    for (auto it = type.attributeIteratorConst(); it; ++it) {
        KalAttr const& a = *it;
        if (!a.ops().print) continue; // functions and the like have no value
        if (!first) os << ", ";
        first = false;
        os << '\'' << a.name() << "': ";
        a.ops().print(v, os);
    }
    os << "})";
}

void kalParseValue(TextIt& pos, TextIt end, KalType const& type, void* v) {
    TextIt const start = pos;
    text::expect(pos, end, "Value('");
    text::expect(pos, end, type.name().stringValue());
    text::expect(pos, end, "', ** {");
    if (text::accept(pos, end, "})")) return;
    for (;;) {
        std::string const name = text::readQuoted(pos, end);
        KalAttr const* a = type.attr(name);
        if (!a || !a->ops().parse) throwNoSuchAttribute(type, name);
        text::expect(pos, end, ": ");
        try {
            a->ops().parse(v, pos, end);
        } catch (RangeException const& e) {
            rethrowFromDeserializeAttr(e, String8(std::string(start, end)), name);
        }
        if (text::accept(pos, end, "})")) return;
        text::expect(pos, end, ", ");
    }
}

void kalPrintEntityRef(std::ostream& os, KalType const& type, PtrInterface const* p,
                       String8 const& fullName) {
    if (!p) {
        os << "None";
        return;
    }
    os << "Ptr(";
    text::writeQuoted(os, type.name().stringValue());
    os << ", ";
    text::writeQuoted(os, fullName.stringValue());
    os << ')';
}

bool kalParseEntityRef(TextIt& pos, TextIt end, KalType const& type, Name& name) {
    if (text::accept(pos, end, "None")) return false;
    text::expect(pos, end, "Ptr(");
    std::string const typeName = text::readQuoted(pos, end);
    if (typeName != type.name().stringValue()) {
        throwRangeException("entity reference to " + typeName + " where " +
                            type.name().stringValue() + " is expected");
    }
    text::expect(pos, end, ", ");
    name = Name(text::readQuoted(pos, end));
    text::expect(pos, end, ")");
    return true;
}

void throwPrematureEnd(KalType const& type) { throwPrematureEnd(type.shortName()); }

void throwPrematureEnd(std::string_view shortTypeName) {
    throwRangeException("premature end of value type " + std::string(shortTypeName));
}

namespace {
std::string formatted(char const* format, ...) __attribute__((format(printf, 1, 2)));
std::string formatted(char const* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int const n = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string out(std::size_t(n > 0 ? n : 0) + 1, '\0');
    std::vsnprintf(out.data(), out.size(), format, again);
    va_end(again);
    out.resize(out.size() - 1);
    return out;
}
} // namespace

void throwJunk(long long column, String8 const& text) {
    throwRangeException(
        String8(formatted("junk at column %lld deserializing %s", column, text.charPtr())));
}

void throwNoSuchAttribute(KalType const& type, std::string_view name) {
    throwRangeException(type.shortName() + " has no such attribute: " + std::string(name));
}

void rethrowFromDeserializeAttr(RangeException const& e, String8 const& text,
                                std::string_view attrName) {
    std::string msg = e.message().stringValue();
    msg += " (reading attribute '";
    msg += attrName;
    msg += "' of ";
    msg += text.stringValue();
    msg += ")";
    throw RangeException(String8(std::move(msg)), e.ids());
}

} // namespace Kal
