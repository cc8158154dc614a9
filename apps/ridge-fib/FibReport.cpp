#include "FibReport.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <ostream>
#include <string_view>

namespace RidgeFib {

namespace {

std::string unknownName(U64 value) { return "unknown(" + std::to_string(value) + ")"; }

template <class ViaT>
FecRow makeFecRow(Family family, FecEntry<ViaT> const& fec) {
    FecRow r;
    r.family = family;
    r.id = fec.id.value();
    r.adjTypeField = fec.id.adjTypeField();
    r.adjIndex = fec.id.adjTypeIndex();
    r.fecType = fec.fecType;
    r.nexthopGroupId = fec.nexthopGroupId;
    r.vias.reserve(fec.vias.size());
    for (auto const& [position, via] : fec.vias) {
        r.vias.push_back({position, via.hop().toString().stringValue(),
                          via.intfId().toString().stringValue(), via.mplsLabel(),
                          via.toString().stringValue()});
    }
    return r;
}

std::string nexthopGroupText(U16 id) {
    return id == Strata::Fib::Fec::noNexthopGroupId ? "none" : std::to_string(id);
}

std::string viaListText(std::vector<ViaRow> const& vias) {
    if (vias.empty()) return "none";
    std::string s;
    for (auto const& v : vias) {
        if (!s.empty()) s += ", ";
        s += v.text;
    }
    return s;
}

// ---- aligned text tables --------------------------------------------------------------------

struct Column {
    char const* header;
    bool rightAligned;
};

void printTable(std::ostream& os, std::vector<Column> const& columns,
                std::vector<std::vector<std::string>> const& rows) {
    std::vector<std::size_t> width(columns.size());
    for (std::size_t c = 0; c < columns.size(); ++c) width[c] = std::string_view(columns[c].header).size();
    for (auto const& row : rows) {
        for (std::size_t c = 0; c < columns.size(); ++c) width[c] = std::max(width[c], row[c].size());
    }
    auto line = [&](auto const& cell) {
        std::string s;
        for (std::size_t c = 0; c < columns.size(); ++c) {
            std::string_view const text = cell(c);
            std::string const pad(width[c] - text.size(), ' ');
            if (c > 0) s += "  ";
            if (columns[c].rightAligned) s += pad;
            s += text;
            if (!columns[c].rightAligned && c + 1 < columns.size()) s += pad;
        }
        while (!s.empty() && s.back() == ' ') s.pop_back();
        os << s << '\n';
    };
    line([&](std::size_t c) { return std::string_view(columns[c].header); });
    for (auto const& row : rows) line([&](std::size_t c) { return std::string_view(row[c]); });
}

// ---- JSON ---------------------------------------------------------------------------------------

std::string jsonString(std::string_view s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20 || c >= 0x7f) {
                // Every text printed here is ASCII; anything else is shown, not passed on raw.
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", unsigned(c));
                out += buf;
            } else {
                out += char(c);
            }
        }
    }
    return out + "\"";
}

void fecJson(std::ostream& os, FecRow const& f) {
    os << "{\"family\":" << jsonString(familyName(f.family)) << ",\"id\":" << f.id
       << ",\"idHex\":" << jsonString(hexText(f.id))
       << ",\"adjType\":" << jsonString(adjTypeName(f.adjTypeField))
       << ",\"fecType\":" << jsonString(fecTypeName(f.fecType)) << ",\"nexthopGroupId\":";
    if (f.nexthopGroupId == Strata::Fib::Fec::noNexthopGroupId) {
        os << "null";
    } else {
        os << f.nexthopGroupId;
    }
    os << ",\"vias\":[";
    for (std::size_t i = 0; i < f.vias.size(); ++i) {
        ViaRow const& v = f.vias[i];
        os << (i ? "," : "") << "{\"position\":" << v.position << ",\"hop\":" << jsonString(v.hop)
           << ",\"intf\":" << jsonString(v.intf) << ",\"label\":" << v.label << "}";
    }
    os << "]}";
}

void routeJson(std::ostream& os, RouteRow const& r) {
    os << "{\"family\":" << jsonString(familyName(r.family))
       << ",\"prefix\":" << jsonString(r.prefix)
       << ",\"routeType\":" << jsonString(routeTypeName(r.family, r.routeType))
       << ",\"fecId\":" << r.fecId << "}";
}

template <class Row, class Print>
void jsonArray(std::ostream& os, std::vector<Row> const& rows, Print print) {
    if (rows.empty()) {
        os << "[]\n";
        return;
    }
    os << "[\n";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        os << "  ";
        print(os, rows[i]);
        os << (i + 1 < rows.size() ? ",\n" : "\n");
    }
    os << "]\n";
}

char const* changeName(Change change) {
    switch (change) {
    case Change::added: return "added";
    case Change::changed: return "changed";
    case Change::removed: return "removed";
    }
    return "?";
}

std::string padded(std::string_view s, std::size_t width) {
    std::string out(s);
    if (out.size() < width) out.append(width - out.size(), ' ');
    return out;
}

// "12.5%": records in tenths of a percent of capacity, rounded down.
std::string fillText(U32 records, U32 capacity) {
    if (capacity == 0) return "-";
    U64 const permille = U64(records) * 1000 / capacity;
    return std::to_string(permille / 10) + "." + std::to_string(permille % 10) + "%";
}

} // namespace

FecRow fecRow(Family family, FecEntry<Strata::Fib::Via> const& fec) { return makeFecRow(family, fec); }
FecRow fecRow(Family family, FecEntry<Strata::Fib6::Via> const& fec) { return makeFecRow(family, fec); }

RouteRow routeRow(Strata::Fib::Route const& route) {
    return {Family::ipv4, route.prefix().toString().stringValue(), U8(route.routeType()),
            route.fecId().value()};
}

RouteRow routeRow(Strata::Fib6::Route const& route) {
    return {Family::ipv6, route.prefix().toString().stringValue(), U8(route.routeType()),
            route.fecId().value()};
}

std::string adjTypeName(U64 field) {
    switch (field) {
    case Strata::Fib::fibAdj_: return "fib";
    case Strata::Fib::resilientEcmpAdj_: return "resilientEcmp";
    case Strata::Fib::nextHopGroupAdj_: return "nextHopGroup";
    case Strata::Fib::attachedAdj_: return "attached";
    }
    return unknownName(field);
}

std::string fecTypeName(U8 type) {
    switch (type) {
    case Strata::Fib::forward_: return "forward";
    case Strata::Fib::drop_: return "drop";
    case Strata::Fib::receive_: return "receive";
    case Strata::Fib::attached_: return "attached";
    case Strata::Fib::receiveBcast_: return "receiveBcast";
    case Strata::Fib::nextHopGroup_: return "nextHopGroup";
    case Strata::Fib::kernel_: return "kernel";
    }
    return unknownName(type);
}

std::string routeTypeName(Family family, U8 type) {
    static constexpr char const* ipv4Names[] = {
        "invalid",   "receive",       "receiveBcast",  "attached",      "staticConfig",
        "kernel",    "rip",           "connected",     "redirect",      "bgpAggregate",
        "ospfAggregate", "ospfIntraArea", "ospfInterArea", "ospfAseE1", "ospfAseE2",
        "ospfNssaE1", "ospfNssaE2",   "ibgp",          "ebgp",          "isis",
        "nexthopGroup", "unknown"};
    static constexpr char const* ipv6Names[] = {
        "invalid", "receive", "attached",      "staticConfig", "kernel", "rip",  "connected",
        "redirect", "bgpAggregate", "ospfAggregate", "ospf", "bgp", "isis", "unknown"};
    static_assert(std::size(ipv4Names) == Routing::Fib::unknown_ + 1);
    static_assert(std::size(ipv6Names) == Routing6::Fib::unknown_ + 1);
    if (family == Family::ipv4 && type < std::size(ipv4Names)) return ipv4Names[type];
    if (family == Family::ipv6 && type < std::size(ipv6Names)) return ipv6Names[type];
    return unknownName(type);
}

std::string hexText(U64 value) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(value));
    return buf;
}

void printFecList(std::ostream& os, std::vector<FecRow> const& fecs, Format format) {
    if (format == Format::json) {
        jsonArray(os, fecs, fecJson);
        return;
    }
    std::vector<std::vector<std::string>> rows;
    rows.reserve(fecs.size());
    for (auto const& f : fecs) {
        rows.push_back({familyName(f.family), std::to_string(f.id), hexText(f.id),
                        adjTypeName(f.adjTypeField), fecTypeName(f.fecType),
                        nexthopGroupText(f.nexthopGroupId), viaListText(f.vias)});
    }
    printTable(os,
               {{"FAMILY", false}, {"ID", false}, {"HEX", false}, {"ADJ-TYPE", false},
                {"FEC-TYPE", false}, {"NHG", false}, {"VIAS", false}},
               rows);
}

void printFecDetail(std::ostream& os, std::vector<FecRow> const& fecs, Format format) {
    if (format == Format::json) {
        jsonArray(os, fecs, fecJson);
        return;
    }
    bool first = true;
    for (auto const& f : fecs) {
        if (!first) os << '\n';
        first = false;
        os << familyName(f.family) << " FEC " << f.id << " (" << hexText(f.id) << ")\n";
        os << "  adjacency type  " << adjTypeName(f.adjTypeField) << ", index " << f.adjIndex
           << '\n';
        os << "  FEC type        " << fecTypeName(f.fecType) << '\n';
        os << "  next-hop group  " << nexthopGroupText(f.nexthopGroupId) << '\n';
        os << "  vias            " << f.vias.size() << '\n';
        std::size_t const width =
            f.vias.empty() ? 1 : std::to_string(f.vias.back().position).size();
        for (auto const& v : f.vias) {
            std::string const pos = std::to_string(v.position);
            os << "    " << std::string(width - pos.size(), ' ') << pos << "  " << v.text << '\n';
        }
    }
}

void printRouteList(std::ostream& os, std::vector<RouteRow> const& routes, Format format) {
    if (format == Format::json) {
        jsonArray(os, routes, routeJson);
        return;
    }
    std::vector<std::vector<std::string>> rows;
    rows.reserve(routes.size());
    for (auto const& r : routes) {
        rows.push_back({familyName(r.family), r.prefix, routeTypeName(r.family, r.routeType),
                        std::to_string(r.fecId)});
    }
    printTable(os, {{"FAMILY", false}, {"PREFIX", false}, {"TYPE", false}, {"FEC", false}}, rows);
}

void printFill(std::ostream& os, std::vector<TableFill> const& tables, Format format) {
    if (format == Format::json) {
        os << "{";
        bool firstFamily = true;
        for (Family family : {Family::ipv4, Family::ipv6}) {
            bool any = false;
            for (auto const& t : tables) {
                if (t.family != family) continue;
                if (!any) {
                    os << (firstFamily ? "" : ",") << jsonString(familyName(family)) << ":{";
                    firstFamily = false;
                } else {
                    os << ",";
                }
                any = true;
                os << jsonString(t.table) << ":{\"records\":" << t.records
                   << ",\"capacity\":" << t.capacity;
                if (!t.classes.empty()) {
                    os << ",\"classes\":[";
                    for (std::size_t i = 0; i < t.classes.size(); ++i) {
                        ClassFill const& c = t.classes[i];
                        os << (i ? "," : "") << "{\"maxVias\":" << c.maxVias
                           << ",\"records\":" << c.records << ",\"capacity\":" << c.capacity << "}";
                    }
                    os << "]";
                }
                os << "}";
            }
            if (any) os << "}";
        }
        os << "}\n";
        return;
    }
    std::vector<std::vector<std::string>> rows;
    for (auto const& t : tables) {
        rows.push_back({familyName(t.family), t.table, "total", std::to_string(t.records),
                        std::to_string(t.capacity), fillText(t.records, t.capacity)});
        for (auto const& c : t.classes) {
            rows.push_back({familyName(t.family), t.table, "<=" + std::to_string(c.maxVias),
                            std::to_string(c.records), std::to_string(c.capacity),
                            fillText(c.records, c.capacity)});
        }
    }
    printTable(os,
               {{"FAMILY", false}, {"TABLE", false}, {"CLASS", false}, {"RECORDS", true},
                {"CAPACITY", true}, {"FILL", true}},
               rows);
}

void printFecChange(std::ostream& os, Change change, FecRow const& f, Format format) {
    if (format == Format::json) {
        os << "{\"event\":" << jsonString(changeName(change)) << ",\"fec\":";
        fecJson(os, f);
        os << "}\n";
        return;
    }
    os << familyName(f.family) << " fec   " << padded(changeName(change), 7) << ' ' << f.id << ' '
       << hexText(f.id) << ' ' << adjTypeName(f.adjTypeField) << ' ' << fecTypeName(f.fecType)
       << " nhg " << nexthopGroupText(f.nexthopGroupId) << " vias " << viaListText(f.vias) << '\n';
}

void printRouteChange(std::ostream& os, Change change, RouteRow const& r, Format format) {
    if (format == Format::json) {
        os << "{\"event\":" << jsonString(changeName(change)) << ",\"route\":";
        routeJson(os, r);
        os << "}\n";
        return;
    }
    os << familyName(r.family) << " route " << padded(changeName(change), 7) << ' ' << r.prefix
       << ' ' << routeTypeName(r.family, r.routeType) << " fec " << r.fecId << '\n';
}

} // namespace RidgeFib
