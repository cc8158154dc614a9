// ridge-fib follow: prints the FECs and routes that are added, changed or removed, as the
// writer commits them, one line (or JSON object) per change.
//
// Each table's change counter is polled (every millisecond while changes come, backing off to
// every 50 ms while it is quiet). When it has moved, the table is read again and compared
// with the previous reading; every difference is confirmed by a lookup by key before it is
// printed (FibTables.h says why a walk alone is not enough), and the confirmed record is
// what is printed and remembered. Changes that undo each other between two looks are not
// seen; what is printed always leads from one committed state of the table to another.
//
// A table file that is removed and made again (a new table under the same name) is noticed
// within half a second: it is attached afresh and compared with what was seen before. The
// notices about that, and the one naming the tables when following starts, go to `err`;
// `out` carries only the changes and is flushed after each look.
#pragma once

#include "FibReport.h"
#include "FibTables.h"

#include <atomic>
#include <chrono>
#include <iosfwd>
#include <optional>

namespace RidgeFib {

struct FollowLimits {
    std::optional<U64> count;                         // stop after this many changes
    std::optional<std::chrono::milliseconds> timeout; // stop after this long
};

// Follows every table in `tables` until `stop` is set, the count is reached or the time is
// up. Returns the exit status: 0, or 1 when a count was asked for and fewer changes came
// before the timeout. Table errors propagate as the library's exceptions.
int follow(Tables const& tables, FollowLimits const& limits, Format format, std::ostream& out,
           std::ostream& err, std::atomic<bool> const& stop);

} // namespace RidgeFib
