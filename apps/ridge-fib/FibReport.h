// How ridge-fib prints FECs, routes, table fill and changes, as text or as JSON.
//
// Rows are family-neutral copies of the records with their names resolved, built from what
// FibTables.h reads (fecRow, routeRow); the printers only format them.
//
// Text: lists have a header line and one entry per line, columns separated by two spaces and
// padded to the widest entry (the last column is not padded); numbers of `counts` are
// right-aligned. A type number that no name is known for prints as "unknown(<number>)", so a
// table written by a newer writer still lists.
//
// JSON: lists are an array of objects, one object per line; `counts` is one object; each
// change of `follow` is one object on its own line (JSON Lines). Object fields:
//   FEC    family, id (number), idHex, adjType, fecType, nexthopGroupId (number, null when
//          none), vias: [{position, hop, intf, label}]
//   route  family, prefix, routeType, fecId (number)
//   change event ("added", "changed", "removed") and fec or route: the record after the
//          change, or, for "removed", the record that was removed
//   counts {"<family>": {"fecs": {records, capacity, classes: [{maxVias, records,
//          capacity}]}, "routes": {records, capacity}}}
#pragma once

#include "FibTables.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace RidgeFib {

enum class Format { text, json };

struct ViaRow {
    U32 position = 0;
    std::string hop;
    std::string intf;
    U32 label = 0;
    std::string text; // hop%intf[ label N]
};

struct FecRow {
    Family family = Family::ipv4;
    U64 id = 0;
    U64 adjTypeField = 0; // the FecId bits from adjTypePos() up
    U64 adjIndex = 0;     // the bits below
    U8 fecType = 0;
    U16 nexthopGroupId = 0xFFFF;
    std::vector<ViaRow> vias;
};

struct RouteRow {
    Family family = Family::ipv4;
    std::string prefix;
    U8 routeType = 0;
    U64 fecId = 0;
};

FecRow fecRow(Family family, FecEntry<Strata::Fib::Via> const& fec);
FecRow fecRow(Family family, FecEntry<Strata::Fib6::Via> const& fec);
RouteRow routeRow(Strata::Fib::Route const& route);
RouteRow routeRow(Strata::Fib6::Route const& route);

// Names as the enumerators read without their trailing underscore ("nextHopGroup").
std::string adjTypeName(U64 adjTypeField);
std::string fecTypeName(U8 fecType);
std::string routeTypeName(Family family, U8 routeType);
// "0x" and lowercase hex digits.
std::string hexText(U64 value);

void printFecList(std::ostream& os, std::vector<FecRow> const& fecs, Format format);
// One block per FEC, its vias with their positions (a FEC may have holes); JSON as the list.
void printFecDetail(std::ostream& os, std::vector<FecRow> const& fecs, Format format);
void printRouteList(std::ostream& os, std::vector<RouteRow> const& routes, Format format);
void printFill(std::ostream& os, std::vector<TableFill> const& tables, Format format);

enum class Change { added, changed, removed };

// One line:
//   ipv4 fec   added   3 0x3 fib forward nhg none vias 10.0.0.1%Ethernet1
//   ipv6 route removed 2001:db8::/32 bgp fec 6
void printFecChange(std::ostream& os, Change change, FecRow const& fec, Format format);
void printRouteChange(std::ostream& os, Change change, RouteRow const& route, Format format);

} // namespace RidgeFib
