#include "fwk/RidgeVersion.h"

namespace Ridge {

char const* libraryVersion() noexcept { return RIDGE_VERSION_STRING; }

} // namespace Ridge
