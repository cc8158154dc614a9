#include "Strata/Strata.h"

#include "Strata/RecordText.h"

namespace Strata {

void kalInitStrata() {
    kalInitStrataRecords();
    Fib::ForwardingStatus::_fwkType();
    Fib6::ForwardingStatus::_fwkType();
    Fib::RouteStatus::_fwkType();
    Fib6::RouteStatus::_fwkType();
}

} // namespace Strata
