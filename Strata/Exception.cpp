#include "Strata/Exception.h"

#include "Kal/Exception.h"

namespace Strata {

char const* exceptionIdName(ExceptionId id) noexcept {
    switch (id) {
    case ExceptionId::memoryResource_: return "memoryResource";
    case ExceptionId::corruptionDetected_: return "corruptionDetected";
    case ExceptionId::tableFull_: return "tableFull";
    case ExceptionId::noPermission_: return "noPermission";
    case ExceptionId::unimplemented_: return "unimplemented";
    case ExceptionId::invalidInitialize_: return "invalidInitialize";
    case ExceptionId::timeout_: return "timeout";
    case ExceptionId::duplicateWriter_: return "duplicateWriter";
    case ExceptionId::connection_: return "connection";
    case ExceptionId::runtime_: return "runtime";
    }
    return "unknown";
}

} // namespace Strata

namespace KalStrata {

void throwKalStrataException(Strata::Exception const& e) {
    throw Kal::Exception(e.msg(), {Kal::ExceptionId::table_});
}

} // namespace KalStrata
