#include "Kal/Ptr.h"

namespace Kal {

void throwNullValidPtr() { throwRangeException("null ValidPtr"); }

} // namespace Kal
