// Errors of the shared-memory tables.
//
// Every table error is a Strata::Exception carrying an identifier (ExceptionId) and a message
// (msg()). The named subclasses are the ones a caller meets by name:
//
//   class                          id                   raised when
//   NoPermissionException          noPermission_        a write, remove or maintenance call on a
//                                                       table attached for reading
//   UnimplementedException         unimplemented_       a statistics call of a table kind
//                                                       without statistics
//   CorruptionDetectedException    corruptionDetected_  anything impossible found in a table file
//                                                       (a report file is written beside it)
//   RuntimeException               runtime_             the direct-write slot asked for where
//                                                       there is none, and other misuse at run time
// The other identifiers are raised as a plain Strata::Exception: memoryResource_ (the memory
// for a table cannot be reserved), tableFull_ (the table or one of its size classes is full),
// invalidInitialize_ (bad table name or capacity, attaching an attached table), timeout_ (a
// reader found no stable copy of a record within its retries), duplicateWriter_ (another
// process holds the table for writing), connection_ (the table file is missing or cannot be
// opened, or the table is not attached).
//
// name() is the class name as raised ("CorruptionDetectedException"; "Exception" for the base).
//
// KalStrata::throwKalStrataException turns a table error into the framework's exception with
// the same message (and the framework's table_ id), for table wrappers that must surface
// framework exceptions.
#pragma once

#include "Kal/String.h"
#include "Kal/Types.h"

#include <exception>
#include <string>

namespace Strata {

enum class ExceptionId : U8 {
    memoryResource_ = 0,
    corruptionDetected_ = 1,
    tableFull_ = 2,
    noPermission_ = 3,
    unimplemented_ = 4,
    invalidInitialize_ = 5,
    timeout_ = 6,
    duplicateWriter_ = 7,
    connection_ = 8,
    runtime_ = 9,
};

// The identifier's name without the trailing underscore ("tableFull").
char const* exceptionIdName(ExceptionId id) noexcept;

class Exception : public std::exception {
  public:
    Exception(ExceptionId id, Kal::String8 msg) : id_(id), msg_(std::move(msg)) {}

    ExceptionId id() const noexcept { return id_; }
    Kal::String8 const& msg() const noexcept { return msg_; }
    char const* what() const noexcept override { return msg_.charPtr(); }
    virtual char const* name() const noexcept { return "Exception"; }

  private:
    ExceptionId id_;
    Kal::String8 msg_;
};

class RuntimeException : public Exception {
  public:
    explicit RuntimeException(Kal::String8 msg) : Exception(ExceptionId::runtime_, std::move(msg)) {}
    char const* name() const noexcept override { return "RuntimeException"; }
};

class UnimplementedException : public Exception {
  public:
    explicit UnimplementedException(Kal::String8 msg)
        : Exception(ExceptionId::unimplemented_, std::move(msg)) {}
    char const* name() const noexcept override { return "UnimplementedException"; }
};

class NoPermissionException : public Exception {
  public:
    explicit NoPermissionException(Kal::String8 msg)
        : Exception(ExceptionId::noPermission_, std::move(msg)) {}
    char const* name() const noexcept override { return "NoPermissionException"; }
};

class CorruptionDetectedException : public Exception {
  public:
    explicit CorruptionDetectedException(Kal::String8 msg)
        : Exception(ExceptionId::corruptionDetected_, std::move(msg)) {}
    char const* name() const noexcept override { return "CorruptionDetectedException"; }
};

} // namespace Strata

namespace KalStrata {

// Raises Kal::Exception with e's message and the framework's table_ id.
[[noreturn]] void throwKalStrataException(Strata::Exception const& e);

} // namespace KalStrata
