// ridge-fib's command line:
//
//   ridge-fib --prefix <name> [--family 4|6|all] <command> [--json]
//   commands: fecs | fec <id> | routes | counts | follow [--count N] [--timeout S]
//
// Options may stand before or after the command, as "--opt value" or "--opt=value". Anything
// else (an unknown command or option, a missing or repeated value, a bad number) raises
// UsageError with a message naming what was wrong; the program exits with status 2 then.
#pragma once

#include "FibReport.h"
#include "FibTables.h"

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace RidgeFib {

class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

enum class Command { fecs, fec, routes, counts, follow };

struct Options {
    bool help = false;
    std::string prefix;
    FamilySet families;
    Command command = Command::fecs;
    U64 fecId = 0;              // fec
    Format format = Format::text;
    std::optional<U64> count;   // follow: stop after this many changes
    std::optional<std::chrono::milliseconds> timeout; // follow: stop after this long
};

// The arguments after the program name.
Options parseCommandLine(std::vector<std::string_view> const& args);

// A FEC id in decimal, or "0x" and hex digits; the whole U64 range.
U64 parseFecId(std::string_view text);

// What --help prints.
extern char const usageText[];

} // namespace RidgeFib
