#include "CommandLine.h"

#include <cstdio>
#include <limits>

namespace RidgeFib {

char const usageText[] =
    "usage: ridge-fib --prefix <name> [--family 4|6|all] <command> [--json]\n"
    "\n"
    "Reads the shared-memory FIB tables that a ridge writer keeps in\n"
    "/dev/shm/<name>-fib4-fec, -fib4-route, -fib6-fec and -fib6-route. The tables are\n"
    "opened read-only and never changed.\n"
    "\n"
    "commands:\n"
    "  fecs              list the FECs: family, id in decimal and hex, adjacency type,\n"
    "                    FEC type, next-hop group (none when unset), vias as\n"
    "                    hop%interface[ label N]\n"
    "  fec <id>          one FEC with the positions of its vias; id in decimal or 0x hex\n"
    "  routes            list the routes: family, prefix, route type, FEC id\n"
    "  counts            records and capacity of each table, and the fill of each FEC\n"
    "                    size class (class <=N holds the FECs of up to N vias)\n"
    "  follow [--count N] [--timeout S]\n"
    "                    print FEC and route changes as they are committed, until\n"
    "                    interrupted, N changes are printed or S seconds have passed\n"
    "\n"
    "options:\n"
    "  --prefix <name>   the name prefix the writer gave its tables (required)\n"
    "  --family 4|6|all  the address family to read (default all)\n"
    "  --json            JSON: an array of objects for fecs, fec and routes, one object\n"
    "                    for counts, one object per line for follow\n"
    "  --help            this text\n"
    "\n"
    "exit status: 0 done; 1 a table is missing, incompatible or corrupt, the FEC is not\n"
    "there, or follow --count saw fewer changes before its --timeout; 2 bad usage\n";

namespace {

// The argument as it may be shown in a message: bytes outside printable ASCII as \xNN.
std::string shown(std::string_view text) {
    std::string out;
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7f) {
            out += char(c);
        } else {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\x%02x", unsigned(c));
            out += buf;
        }
    }
    return out;
}

[[noreturn]] void usage(std::string const& message) { throw UsageError(message); }

bool parseDecimal(std::string_view text, U64& out) {
    if (text.empty()) return false;
    U64 v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        U64 const d = U64(c - '0');
        if (v > (std::numeric_limits<U64>::max() - d) / 10) return false;
        v = v * 10 + d;
    }
    out = v;
    return true;
}

bool parseHex(std::string_view text, U64& out) {
    if (text.empty() || text.size() > 16) return false;
    U64 v = 0;
    for (char c : text) {
        U64 d;
        if (c >= '0' && c <= '9') {
            d = U64(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            d = U64(c - 'a' + 10);
        } else if (c >= 'A' && c <= 'F') {
            d = U64(c - 'A' + 10);
        } else {
            return false;
        }
        v = v << 4 | d;
    }
    out = v;
    return true;
}

U64 parseCount(std::string_view text) {
    U64 v = 0;
    if (!parseDecimal(text, v) || v == 0) {
        usage("--count needs a whole number above 0, not '" + shown(text) + "'");
    }
    return v;
}

// Seconds as "10" or "2.5" (to the millisecond).
std::chrono::milliseconds parseSeconds(std::string_view text) {
    auto const dot = text.find('.');
    std::string_view const whole = text.substr(0, dot);
    std::string_view const frac = dot == std::string_view::npos ? "" : text.substr(dot + 1);
    U64 seconds = 0;
    U64 millis = 0;
    bool ok = parseDecimal(whole, seconds) && seconds <= 1000000000 && frac.size() <= 3 &&
              (dot == std::string_view::npos || !frac.empty());
    if (ok && !frac.empty()) {
        ok = parseDecimal(frac, millis);
        for (std::size_t i = frac.size(); i < 3; ++i) millis *= 10;
    }
    if (!ok) usage("--timeout needs seconds, as 10 or 2.5, not '" + shown(text) + "'");
    return std::chrono::milliseconds(seconds * 1000 + millis);
}

FamilySet parseFamily(std::string_view text) {
    if (text == "4") return {true, false};
    if (text == "6") return {false, true};
    if (text == "all") return {true, true};
    usage("--family takes 4, 6 or all, not '" + shown(text) + "'");
}

std::optional<Command> commandNamed(std::string_view name) {
    if (name == "fecs") return Command::fecs;
    if (name == "fec") return Command::fec;
    if (name == "routes") return Command::routes;
    if (name == "counts") return Command::counts;
    if (name == "follow") return Command::follow;
    return std::nullopt;
}

} // namespace

U64 parseFecId(std::string_view text) {
    U64 v = 0;
    bool const ok = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')
                        ? parseHex(text.substr(2), v)
                        : parseDecimal(text, v);
    if (!ok) {
        usage("invalid FEC id '" + shown(text) +
              "': a decimal number or 0x and up to 16 hex digits, at most 2^64-1");
    }
    return v;
}

Options parseCommandLine(std::vector<std::string_view> const& args) {
    Options o;
    std::optional<Command> command;
    std::optional<std::string_view> fecIdText;
    bool prefixSeen = false;
    bool familySeen = false;

    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string_view arg = args[i];
        if (arg == "--help" || arg == "-h") {
            o.help = true;
            return o;
        }
        if (arg.size() > 1 && arg[0] == '-') {
            std::string_view name = arg;
            std::optional<std::string_view> inlineValue;
            if (auto const eq = arg.find('='); arg.substr(0, 2) == "--" && eq != arg.npos) {
                name = arg.substr(0, eq);
                inlineValue = arg.substr(eq + 1);
            }
            auto value = [&]() -> std::string_view {
                if (inlineValue) return *inlineValue;
                if (i + 1 >= args.size()) usage(std::string(name) + " needs a value");
                return args[++i];
            };
            if (name == "--json") {
                if (inlineValue) usage("--json takes no value");
                o.format = Format::json;
            } else if (name == "--prefix") {
                if (prefixSeen) usage("--prefix given twice");
                prefixSeen = true;
                o.prefix = std::string(value());
                if (o.prefix.empty()) usage("--prefix needs a table name prefix, not ''");
            } else if (name == "--family") {
                if (familySeen) usage("--family given twice");
                familySeen = true;
                o.families = parseFamily(value());
            } else if (name == "--count") {
                if (o.count) usage("--count given twice");
                o.count = parseCount(value());
            } else if (name == "--timeout") {
                if (o.timeout) usage("--timeout given twice");
                o.timeout = parseSeconds(value());
            } else {
                usage("unknown option '" + shown(name) + "'");
            }
            continue;
        }
        if (!command) {
            command = commandNamed(arg);
            if (!command) {
                usage("unknown command '" + shown(arg) +
                      "' (commands: fecs, fec <id>, routes, counts, follow)");
            }
            continue;
        }
        if (*command == Command::fec && !fecIdText) {
            fecIdText = arg;
            continue;
        }
        usage("unexpected argument '" + shown(arg) + "'");
    }

    if (!command) usage("no command given (fecs, fec <id>, routes, counts or follow)");
    o.command = *command;
    if (!prefixSeen) usage("--prefix <name> is required: the name prefix of the tables");
    if (o.command == Command::fec) {
        if (!fecIdText) usage("fec needs a FEC id, in decimal or 0x hex");
        o.fecId = parseFecId(*fecIdText);
    }
    if (o.command != Command::follow) {
        if (o.count) usage("--count is an option of follow only");
        if (o.timeout) usage("--timeout is an option of follow only");
    }
    return o;
}

} // namespace RidgeFib
