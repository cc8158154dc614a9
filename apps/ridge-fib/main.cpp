// ridge-fib: reads ridge's shared-memory FIB tables from another process, the way a
// forwarding agent or an operator does, and prints them. `ridge-fib --help` gives the usage;
// CommandLine.h the grammar, FibReport.h the output, Follow.h how changes are followed.
//
// Exit status: 0 done; 1 a table error (missing, incompatible or corrupt table, a read that
// timed out), a FEC that is not there, or a follow --count not reached in time; 2 bad usage.
// Every failure is one line on stderr beginning "ridge-fib: ".
#include "CommandLine.h"
#include "FibReport.h"
#include "FibTables.h"
#include "Follow.h"

#include "Kal/Exception.h"
#include "Strata/Strata.h"

#include <atomic>
#include <csignal>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace RidgeFib;

// A failure that is neither a usage error nor the table library's: exit status 1.
class FibError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

std::atomic<bool> stopRequested{false};

extern "C" void onStopSignal(int) { stopRequested.store(true, std::memory_order_relaxed); }

void installStopHandlers() {
    struct sigaction sa {};
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
}

template <class Table>
auto listingOf(Table const& table) {
    auto s = stableWalk(table);
    if (!s.settled) {
        std::cerr << "ridge-fib: warning: " << table.path() << " changed during each of "
                  << maxWalks << " reads; this listing may miss records that moved meanwhile\n";
    }
    return std::move(s.records);
}

void listFecs(Options const& o) {
    Tables const t = openTables(o.prefix, o.families, true, false);
    std::vector<FecRow> rows;
    if (t.fec4) {
        for (auto const& [id, fec] : listingOf(*t.fec4)) rows.push_back(fecRow(Family::ipv4, fec));
    }
    if (t.fec6) {
        for (auto const& [id, fec] : listingOf(*t.fec6)) rows.push_back(fecRow(Family::ipv6, fec));
    }
    printFecList(std::cout, rows, o.format);
}

void showFec(Options const& o) {
    Tables const t = openTables(o.prefix, o.families, true, false);
    Strata::Fib::FecId const id(o.fecId);
    std::vector<FecRow> rows;
    std::string looked;
    if (t.fec4) {
        if (auto fec = lookup(*t.fec4, id)) rows.push_back(fecRow(Family::ipv4, *fec));
        looked = t.fec4->path();
    }
    if (t.fec6) {
        if (auto fec = lookup(*t.fec6, id)) rows.push_back(fecRow(Family::ipv6, *fec));
        looked += (looked.empty() ? "" : " or ") + t.fec6->path();
    }
    if (rows.empty()) {
        throw FibError("no FEC " + std::to_string(o.fecId) + " (" + hexText(o.fecId) + ") in " +
                       looked);
    }
    printFecDetail(std::cout, rows, o.format);
}

void listRoutes(Options const& o) {
    Tables const t = openTables(o.prefix, o.families, false, true);
    std::vector<RouteRow> rows;
    if (t.route4) {
        for (auto const& [prefix, route] : listingOf(*t.route4)) rows.push_back(routeRow(route));
    }
    if (t.route6) {
        for (auto const& [prefix, route] : listingOf(*t.route6)) rows.push_back(routeRow(route));
    }
    printRouteList(std::cout, rows, o.format);
}

void showCounts(Options const& o) {
    Tables const t = openTables(o.prefix, o.families, true, true);
    printFill(std::cout, readFill(t), o.format);
}

int followTables(Options const& o) {
    installStopHandlers();
    Tables const t = openTables(o.prefix, o.families, true, true);
    return follow(t, FollowLimits{o.count, o.timeout}, o.format, std::cout, std::cerr,
                  stopRequested);
}

int run(Options const& o) {
    switch (o.command) {
    case Command::fecs: listFecs(o); break;
    case Command::fec: showFec(o); break;
    case Command::routes: listRoutes(o); break;
    case Command::counts: showCounts(o); break;
    case Command::follow: return followTables(o);
    }
    return 0;
}

int fail(int status, std::string const& message) {
    std::cout.flush();
    std::cerr << "ridge-fib: " << message << '\n';
    return status;
}

} // namespace

int main(int argc, char** argv) {
    std::ios::sync_with_stdio(false);
    Options options;
    try {
        options = parseCommandLine(std::vector<std::string_view>(argv + 1, argv + argc));
    } catch (UsageError const& e) {
        return fail(2, std::string(e.what()) + "\nTry 'ridge-fib --help'.");
    }
    if (options.help) {
        std::cout << usageText;
        return 0;
    }
    try {
        int const status = run(options);
        std::cout.flush();
        return status;
    } catch (Strata::Exception const& e) {
        // A prefix the library cannot use as a file name is a bad argument.
        int const status = e.id() == Strata::ExceptionId::invalidInitialize_ ? 2 : 1;
        return fail(status, e.msg().stringValue());
    } catch (FibError const& e) {
        return fail(1, e.what());
    } catch (Kal::Exception const& e) {
        return fail(1, e.message().stringValue());
    } catch (std::exception const& e) {
        return fail(1, e.what());
    }
}
