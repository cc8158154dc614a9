#include "Kal/Exception.h"

namespace Kal {

void throwRangeException(String8 const& message) { throw RangeException(message); }

void throwConstException() {
    throw Exception("attempting to modify a const instance", {ExceptionId::const_});
}

} // namespace Kal
