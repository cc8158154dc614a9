// Framework exceptions. A Kal::Exception carries its message and the set of exception ids
// that classify it (a range error is also a plain framework error, say), so a handler can
// test for a kind without depending on the class it was thrown as.
#pragma once

#include "Kal/String.h"
#include "Kal/Types.h"

#include <exception>

namespace Kal {

enum class ExceptionId : U8 {
    generic_ = 0,      // every framework exception has this one
    range_ = 1,        // a value outside its allowed range or a malformed text
    const_ = 2,        // modification through a read-only reference
    type_ = 3,         // an argument of the wrong type (reflection)
    opNotSupported_ = 4,
    unknownArg_ = 5,
    badIndex_ = 6,
    nameInUse_ = 7,    // re-creating an entity with different constructor parameters
    table_ = 8,        // raised from a shared-memory table operation
};

class ExceptionIds {
  public:
    ExceptionIds() = default;
    ExceptionIds(std::initializer_list<ExceptionId> ids) {
        for (auto id : ids) bits_ |= bit(id);
    }
    bool has(ExceptionId id) const { return bits_ & bit(id); }
    void add(ExceptionId id) { bits_ |= bit(id); }
    U32 bits() const { return bits_; }
    friend bool operator==(ExceptionIds, ExceptionIds) = default;

  private:
    static U32 bit(ExceptionId id) { return 1u << static_cast<U32>(id); }
    U32 bits_ = 0;
};

class Exception : public std::exception {
  public:
    explicit Exception(String8 message, ExceptionIds ids = {})
        : message_(std::move(message)), ids_(ids) {
        ids_.add(ExceptionId::generic_);
    }
    String8 const& message() const noexcept { return message_; }
    ExceptionIds ids() const noexcept { return ids_; }
    bool hasId(ExceptionId id) const noexcept { return ids_.has(id); }
    char const* what() const noexcept override { return message_.charPtr(); }

  private:
    String8 message_;
    ExceptionIds ids_;
};

class RangeException : public Exception {
  public:
    explicit RangeException(String8 message, ExceptionIds ids = {})
        : Exception(std::move(message), withRange(ids)) {}

  private:
    static ExceptionIds withRange(ExceptionIds ids) {
        ids.add(ExceptionId::range_);
        return ids;
    }
};

// Raised for a bad value or text: "<Type>::<attr> <condition> not allowed" and the like.
[[noreturn]] void throwRangeException(String8 const& message);
// Raised when a modifying operation reaches a read-only instance.
[[noreturn]] void throwConstException();

} // namespace Kal
