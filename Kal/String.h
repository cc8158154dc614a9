// Kal::String8: the framework's 8-bit text (messages, text forms, trace texts).
// Kal::Name: the text of names (types, attributes, entities).
//
// Both are thin wrappers over std::string: they exist so that the model code can say which
// kind of text a value is, and so that the text-form parser has one iterator type to walk
// (String8::IteratorConst). Neither interns or shares storage.
#pragma once

#include "Kal/Types.h"

#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Kal {

class String8 {
  public:
    using IteratorConst = std::string::const_iterator;

    String8() = default;
    String8(char const* s) : s_(s ? s : "") {}
    String8(std::string s) : s_(std::move(s)) {}
    String8(std::string_view s) : s_(s) {}
    String8(IteratorConst b, IteratorConst e) : s_(b, e) {}

    std::string const& stringValue() const { return s_; }
    std::string& stringValue() { return s_; }
    char const* charPtr() const { return s_.c_str(); }
    U32 charCount() const { return static_cast<U32>(s_.size()); }
    bool empty() const { return s_.empty(); }
    operator std::string_view() const { return s_; }

    IteratorConst begin() const { return s_.begin(); }
    IteratorConst end() const { return s_.end(); }

    String8& operator+=(std::string_view t) { s_ += t; return *this; }
    friend String8 operator+(String8 a, std::string_view b) { a.s_ += b; return a; }

    friend bool operator==(String8 const& a, String8 const& b) { return a.s_ == b.s_; }
    friend auto operator<=>(String8 const& a, String8 const& b) { return a.s_ <=> b.s_; }

    // FNV-1a over the bytes: stable across builds and word sizes.
    U32 hash() const;

  private:
    std::string s_;
};

class Name : public String8 {
  public:
    using String8::String8;
    Name() = default;
    explicit Name(String8 const& s) : String8(s) {}
};

std::ostream& operator<<(std::ostream& os, String8 const& s);

// FNV-1a of a byte range; the hash of every text key of the framework.
U32 fnv1a(void const* data, std::size_t len, U32 seed = 2166136261u);

} // namespace Kal

template <> struct std::hash<Kal::String8> {
    std::size_t operator()(Kal::String8 const& s) const { return s.hash(); }
};
template <> struct std::hash<Kal::Name> {
    std::size_t operator()(Kal::Name const& s) const { return s.hash(); }
};
