#include "Strata/Route.h"

#include <ostream>

namespace Strata {

namespace Fib {
std::ostream& operator<<(std::ostream& os, Route const& route) {
    kalPrint(os, route);
    return os;
}
} // namespace Fib

namespace Fib6 {
std::ostream& operator<<(std::ostream& os, Route const& route) {
    kalPrint(os, route);
    return os;
}
} // namespace Fib6

} // namespace Strata
