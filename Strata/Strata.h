// The Strata layer in one include: the FIB record types, the four shared-memory tables and
// their errors.
//
//   Records    Strata::Fib::FecId, Via, ViaIndex, Fec, Route; Strata::Fib6::Via, Fec, Route;
//              Routing::Fib::RouteType, Routing6::Fib::RouteType (Strata/FecId.h, Via.h,
//              Fec.h, Route.h).
//   Tables     Strata::Fib::ForwardingStatus, Strata::Fib6::ForwardingStatus (FECs),
//              Strata::Fib::RouteStatus, Strata::Fib6::RouteStatus (routes)
//              (Strata/ForwardingStatus.h, RouteStatus.h, common parts in StrataTable.h).
//   Errors     Strata::Exception and its subclasses (Strata/Exception.h).
//   The file layout and the writer/reader protocol: Strata/StrataLayout.h.
#pragma once

#include "Strata/Exception.h"
#include "Strata/Fec.h"
#include "Strata/FecId.h"
#include "Strata/ForwardingStatus.h"
#include "Strata/Route.h"
#include "Strata/RouteStatus.h"
#include "Strata/StrataBase.h"
#include "Strata/StrataTable.h"
#include "Strata/Via.h"

namespace Strata {

// Describes every Strata type (records and tables) to the type registry now; each is
// otherwise described on first use.
void kalInitStrata();

} // namespace Strata
