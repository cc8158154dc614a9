#include "Kal/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Kal {

void assertFail(char const* condition, char const* file, int line,
                char const* function) noexcept {
    std::fprintf(stderr, "assertion failed: %s\n  at %s:%d in %s\n", condition, file, line,
                 function);
    std::fflush(stderr);
    std::abort();
}

} // namespace Kal
