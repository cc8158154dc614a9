#include "Strata/StrataBase.h"

#include "Kal/Tracing.h"
#include "Strata/Exception.h"

KAL_TRACE_HANDLE("StrataBase", "StrataBase");

namespace Strata {

WriterCounters StrataBase::writerCounters() const {
    throw UnimplementedException("writerCounters() not implemented");
}

ReaderCounters StrataBase::readerCounters() const {
    throw UnimplementedException("readerCounters() not implemented");
}

void StrataBaseDummy::initialize() { KAL_TRACE(0, "StrataBaseDummy::initialize() " << name()); }

void StrataBaseDummy::detach() { KAL_TRACE(0, "StrataBaseDummy::detach() " << name()); }

} // namespace Strata
