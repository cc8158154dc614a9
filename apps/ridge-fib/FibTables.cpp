#include "FibTables.h"

namespace RidgeFib {

char const* familyName(Family family) noexcept {
    return family == Family::ipv4 ? "ipv4" : "ipv6";
}

Tables openTables(std::string const& prefix, FamilySet families, bool fecs, bool routes) {
    Tables t;
    t.prefix = prefix;
    if (families.ipv4 && fecs) t.fec4 = Strata::Fib::ForwardingStatus::reader(prefix);
    if (families.ipv4 && routes) t.route4 = Strata::Fib::RouteStatus::reader(prefix);
    if (families.ipv6 && fecs) t.fec6 = Strata::Fib6::ForwardingStatus::reader(prefix);
    if (families.ipv6 && routes) t.route6 = Strata::Fib6::RouteStatus::reader(prefix);
    return t;
}

namespace {

template <class FecTable>
TableFill fecFill(FecTable const& table, Family family) {
    TableFill f;
    f.family = family;
    f.table = "fecs";
    f.records = table.fecs();
    f.capacity = table.fecCapacity();
    for (U32 c = 0; c < table.fecClasses(); ++c) {
        f.classes.push_back({Strata::FecCapacity::classVias(c), table.fecClassFecs(c),
                             table.fecClassCapacity(c)});
    }
    return f;
}

template <class RouteTable>
TableFill routeFill(RouteTable const& table, Family family) {
    TableFill f;
    f.family = family;
    f.table = "routes";
    f.records = table.routes();
    f.capacity = table.routeCapacity();
    return f;
}

} // namespace

std::vector<TableFill> readFill(Tables const& tables) {
    std::vector<TableFill> out;
    if (tables.fec4) out.push_back(fecFill(*tables.fec4, Family::ipv4));
    if (tables.route4) out.push_back(routeFill(*tables.route4, Family::ipv4));
    if (tables.fec6) out.push_back(fecFill(*tables.fec6, Family::ipv6));
    if (tables.route6) out.push_back(routeFill(*tables.route6, Family::ipv6));
    return out;
}

} // namespace RidgeFib
