#include "Strata/Fec.h"

#include <ostream>

namespace Strata {

namespace Fib {
std::ostream& operator<<(std::ostream& os, Fec const& fec) {
    kalPrint(os, fec);
    return os;
}
} // namespace Fib

namespace Fib6 {
std::ostream& operator<<(std::ostream& os, Fec const& fec) {
    kalPrint(os, fec);
    return os;
}
} // namespace Fib6

} // namespace Strata
