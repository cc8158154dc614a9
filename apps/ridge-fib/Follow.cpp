#include "Follow.h"

#include <algorithm>
#include <ostream>
#include <thread>
#include <vector>

#include <sys/stat.h>

namespace RidgeFib {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds busyPause{1};
constexpr milliseconds quietPause{50};
constexpr milliseconds replacedCheckInterval{500};

// Which file a path names now; empty when there is none.
struct FileIdentity {
    dev_t dev = 0;
    ino_t ino = 0;
    friend bool operator==(FileIdentity const&, FileIdentity const&) = default;
};

std::optional<FileIdentity> identityOf(std::string const& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    return FileIdentity{st.st_dev, st.st_ino};
}

FecRow rowOf(Family family, FecEntry<Strata::Fib::Via> const& e) { return fecRow(family, e); }
FecRow rowOf(Family family, FecEntry<Strata::Fib6::Via> const& e) { return fecRow(family, e); }
RouteRow rowOf(Family, Strata::Fib::Route const& r) { return routeRow(r); }
RouteRow rowOf(Family, Strata::Fib6::Route const& r) { return routeRow(r); }

void printChange(std::ostream& os, Change change, FecRow const& row, Format format) {
    printFecChange(os, change, row, format);
}
void printChange(std::ostream& os, Change change, RouteRow const& row, Format format) {
    printRouteChange(os, change, row, format);
}

std::string secondsText(milliseconds ms) {
    std::string s = std::to_string(ms.count() / 1000);
    if (U64 const frac = U64(ms.count() % 1000)) {
        std::string f = std::to_string(1000 + frac).substr(1);
        while (f.back() == '0') f.pop_back();
        s += "." + f;
    }
    return s;
}

// What one table held when last looked at, and how to bring that up to date.
template <class Table>
class TableFollower {
  public:
    using Map = typename TableTraits<Table>::Map;
    static constexpr Family family = TableTraits<Table>::family;

    TableFollower(Kal::Ptr<Table> table, std::string prefix)
        : table_(std::move(table)), prefix_(std::move(prefix)), path_(table_->path()),
          identity_(identityOf(path_)) {
        auto s = stableWalk(*table_);
        records_ = std::move(s.records);
        seen_ = s.changeSeq;
    }

    std::string const& path() const noexcept { return path_; }

    // Reports what was committed since the last look; true when the change counter had moved.
    template <class Emit>
    bool poll(Emit& emit) {
        if (table_->changeSeq() == seen_) return false;
        auto s = stableWalk(*table_);
        seen_ = s.changeSeq;
        reconcile(std::move(s.records), emit);
        return true;
    }

    // Notices a table file that was removed, or removed and made again.
    template <class Emit>
    void checkReplaced(std::ostream& err, Emit& emit) {
        auto const now = identityOf(path_);
        if (!now) {
            if (!missingNoted_) {
                err << "ridge-fib: " << path_ << " was removed; waiting for it to be made again\n";
                err.flush();
                missingNoted_ = true;
            }
            return;
        }
        if (now == identity_) return;
        table_ = Table::reader(prefix_);
        identity_ = now;
        missingNoted_ = false;
        err << "ridge-fib: " << path_ << " was made again; following the new table\n";
        err.flush();
        auto s = stableWalk(*table_);
        seen_ = s.changeSeq;
        reconcile(std::move(s.records), emit);
    }

  private:
    // Moves records_ to `fresh`, reporting each difference as the table's index has it now.
    template <class Emit>
    void reconcile(Map fresh, Emit& emit) {
        std::vector<typename Map::key_type> differing;
        auto a = records_.begin();
        auto b = fresh.begin();
        auto const less = records_.key_comp();
        while (a != records_.end() || b != fresh.end()) {
            if (b == fresh.end() || (a != records_.end() && less(a->first, b->first))) {
                differing.push_back((a++)->first);
            } else if (a == records_.end() || less(b->first, a->first)) {
                differing.push_back((b++)->first);
            } else {
                if (!(a->second == b->second)) differing.push_back(a->first);
                ++a;
                ++b;
            }
        }
        for (auto const& key : differing) {
            auto const committed = lookup(*table_, key);
            auto const old = records_.find(key);
            if (committed) {
                if (old == records_.end()) {
                    emit(Change::added, rowOf(family, *committed));
                } else if (!(old->second == *committed)) {
                    emit(Change::changed, rowOf(family, *committed));
                }
                fresh.insert_or_assign(key, *committed);
            } else {
                if (old != records_.end()) emit(Change::removed, rowOf(family, old->second));
                fresh.erase(key);
            }
        }
        records_ = std::move(fresh);
    }

    Kal::Ptr<Table> table_;
    std::string prefix_;
    std::string path_;
    std::optional<FileIdentity> identity_;
    bool missingNoted_ = false;
    Map records_;
    U32 seen_ = 0;
};

} // namespace

int follow(Tables const& tables, FollowLimits const& limits, Format format, std::ostream& out,
           std::ostream& err, std::atomic<bool> const& stop) {
    U64 printed = 0;
    auto wantMore = [&] { return !limits.count || printed < *limits.count; };
    auto emit = [&](Change change, auto const& row) {
        if (!wantMore()) return;
        printChange(out, change, row, format);
        ++printed;
    };

    // In the order the writer usually commits: a FEC before the routes that use it.
    std::optional<TableFollower<Strata::Fib::ForwardingStatus>> fec4;
    std::optional<TableFollower<Strata::Fib::RouteStatus>> route4;
    std::optional<TableFollower<Strata::Fib6::ForwardingStatus>> fec6;
    std::optional<TableFollower<Strata::Fib6::RouteStatus>> route6;
    if (tables.fec4) fec4.emplace(tables.fec4, tables.prefix);
    if (tables.route4) route4.emplace(tables.route4, tables.prefix);
    if (tables.fec6) fec6.emplace(tables.fec6, tables.prefix);
    if (tables.route6) route6.emplace(tables.route6, tables.prefix);

    auto forEach = [&](auto&& f) {
        if (fec4) f(*fec4);
        if (route4) f(*route4);
        if (fec6) f(*fec6);
        if (route6) f(*route6);
    };

    std::string names;
    forEach([&](auto& t) { names += (names.empty() ? "" : ", ") + t.path(); });
    err << "ridge-fib: following " << names << '\n';
    err.flush();

    auto const start = Clock::now();
    auto lastReplacedCheck = start;
    milliseconds pause = busyPause;
    bool timedOut = false;
    while (!stop.load(std::memory_order_relaxed) && wantMore()) {
        bool moved = false;
        forEach([&](auto& t) { moved = t.poll(emit) || moved; });
        auto const now = Clock::now();
        if (now - lastReplacedCheck >= replacedCheckInterval) {
            forEach([&](auto& t) { t.checkReplaced(err, emit); });
            lastReplacedCheck = now;
        }
        out.flush();
        if (!wantMore()) break;
        auto wait = std::chrono::duration_cast<Clock::duration>(pause);
        if (limits.timeout) {
            auto const elapsed = now - start;
            if (elapsed >= *limits.timeout) {
                timedOut = true;
                break;
            }
            wait = std::min(wait, *limits.timeout - elapsed);
        }
        pause = moved ? busyPause : std::min(pause * 2, quietPause);
        std::this_thread::sleep_for(wait);
    }
    out.flush();
    if (timedOut && limits.count && printed < *limits.count) {
        err << "ridge-fib: follow saw " << printed << " of " << *limits.count
            << (*limits.count == 1 ? " change" : " changes") << " within "
            << secondsText(*limits.timeout) << " s\n";
        return 1;
    }
    return 0;
}

} // namespace RidgeFib
