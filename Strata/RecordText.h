// The Strata record types inside the model framework: each has a type description (the
// registry names "Strata::Fib::Via", "Strata::Fib6::Via", "Strata::Fib::ViaIndex",
// "Strata::Fib::FecId", "Strata::Fib::Fec", "Strata::Fib6::Fec", "Strata::Fib::Route",
// "Strata::Fib6::Route") and a place in the value text form.
//
// Text forms:
//   - a via prints as its own text in single quotes, '10.0.0.1%Ethernet5' or
//     '2001:db8::1%Ethernet5 label 16' (Strata/Via.h gives the grammar);
//   - a via position prints as its number, 5;
//   - FecId, Fec and Route print in the framework's record form with their attributes in
//     declaration order, Value('Strata::Fib::FecId', ** {'value': 42}) (Strata/FecId.h,
//     Fec.h and Route.h show each); a FEC's vias print as a map from position to via,
//     {0: '10.0.0.1%Ethernet1', 3: '10.0.0.4%Ethernet4'}.
// Every form reads back to an equal value. Text that is not one of them raises
// Kal::RangeException naming what was wrong: "invalid Strata::Fib::Via '<text>': <reason>",
// the ViaIndex range error for a position above 127, and the framework's record-form errors
// ("premature end of value type Route", "Route has no such attribute: <name>", ...).
//
// The record descriptions carry their attributes (name, type, read and text operations), so
// reflection can list and read them. Declared beside the types (and found by
// argument-dependent lookup) so that model attributes and collection keys of these types
// print, read and reflect with no further glue.
#pragma once

#include <iosfwd>
#include <string>

namespace Kal {
class KalType;
}

namespace Strata {

using TextIt = std::string::const_iterator;

namespace Fib {
class ViaIndex;
class Via;
class FecId;
class Fec;
class Route;

Kal::KalType const& kalTypeOf(ViaIndex const*);
Kal::KalType const& kalTypeOf(Via const*);
Kal::KalType const& kalTypeOf(FecId const*);
Kal::KalType const& kalTypeOf(Fec const*);
Kal::KalType const& kalTypeOf(Route const*);

void kalPrint(std::ostream& os, ViaIndex const& v);
void kalPrint(std::ostream& os, Via const& v);
void kalPrint(std::ostream& os, FecId const& v);
void kalPrint(std::ostream& os, Fec const& v);
void kalPrint(std::ostream& os, Route const& v);

void kalParse(TextIt& pos, TextIt end, ViaIndex& v);
void kalParse(TextIt& pos, TextIt end, Via& v);
void kalParse(TextIt& pos, TextIt end, FecId& v);
void kalParse(TextIt& pos, TextIt end, Fec& v);
void kalParse(TextIt& pos, TextIt end, Route& v);
} // namespace Fib

namespace Fib6 {
class Via;
class Fec;
class Route;

Kal::KalType const& kalTypeOf(Via const*);
Kal::KalType const& kalTypeOf(Fec const*);
Kal::KalType const& kalTypeOf(Route const*);

void kalPrint(std::ostream& os, Via const& v);
void kalPrint(std::ostream& os, Fec const& v);
void kalPrint(std::ostream& os, Route const& v);

void kalParse(TextIt& pos, TextIt end, Via& v);
void kalParse(TextIt& pos, TextIt end, Fec& v);
void kalParse(TextIt& pos, TextIt end, Route& v);
} // namespace Fib6

// Describes every Strata record type to the type registry now (each is otherwise described
// on first use).
void kalInitStrataRecords();

} // namespace Strata
