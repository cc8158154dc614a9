#include "Kal/Tracing.h"

#include "Kal/Assert.h"
#include "Kal/Exception.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <map>
#include <memory>
#include <system_error>
#include <utility>

namespace Kal {

namespace {

bool isFacilityChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '.' || c == '-';
}

bool isTraceFacilityName(std::string_view name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), isFacilityChar);
}

// Calls `f` on each piece of `text` between `separator`s, empty pieces included.
template <class F> void forEachPiece(std::string_view text, char separator, F f) {
    for (std::size_t start = 0;;) {
        std::size_t const end = text.find(separator, start);
        f(text.substr(start, end == text.npos ? text.npos : end - start));
        if (end == text.npos) return;
        start = end + 1;
    }
}

// A character as an error message shows it: printable ones as they are, others in hex.
std::string shownChar(char c) {
    auto const u = static_cast<unsigned char>(c);
    if (u >= 0x20 && u < 0x7f) return std::string(1, c);
    char buf[8];
    std::snprintf(buf, sizeof buf, "\\x%02x", u);
    return buf;
}

// The levels one setting string gives each facility.
struct TraceLevelSetting {
    String8 text;
    U32 everyFacility = 0;                                   // from "*" entries
    std::map<std::string, U32, std::less<>> namedFacilities; // from named entries

    U32 levelsOf(std::string_view facility) const {
        U32 levels = everyFacility;
        if (auto it = namedFacilities.find(facility); it != namedFacilities.end()) {
            levels |= it->second;
        }
        return levels;
    }
};

// Parses one setting string; raises RangeException naming the first bad entry.
class TraceSettingParser {
  public:
    explicit TraceSettingParser(String8 const& setting) : setting_(setting) {}

    TraceLevelSetting parse() {
        TraceLevelSetting result;
        result.text = setting_;
        if (setting_.empty()) return result;
        forEachPiece(setting_, ',', [&](std::string_view entry) {
            entry_ = entry;
            ++entryNumber_;
            parseEntry(result);
        });
        return result;
    }

  private:
    [[noreturn]] void fail(std::string const& what) const {
        std::string message = "traceSetting \"" + setting_.stringValue() + "\": entry " +
                              std::to_string(entryNumber_) + " \"" + std::string(entry_) +
                              "\": " + what;
        throwRangeException(String8(std::move(message)));
    }

    void parseEntry(TraceLevelSetting& result) const {
        if (entry_.empty()) fail("empty entry");
        std::size_t const slash = entry_.find('/');
        std::string_view const facility = entry_.substr(0, slash);
        if (facility.empty()) fail("empty facility");
        if (facility != "*") {
            for (char c : facility) {
                if (!isFacilityChar(c)) fail("bad character '" + shownChar(c) + "' in facility");
            }
        }
        U32 levels = traceAllLevels;
        if (slash != std::string_view::npos) {
            std::string_view const list = entry_.substr(slash + 1);
            if (list.find('/') != std::string_view::npos) fail("more than one '/'");
            if (list.empty()) fail("empty level list");
            levels = parseLevelList(list);
        }
        if (facility == "*") {
            result.everyFacility |= levels;
        } else {
            result.namedFacilities[std::string(facility)] |= levels;
        }
    }

    U32 parseLevelList(std::string_view list) const {
        U32 levels = 0;
        forEachPiece(list, '+', [&](std::string_view part) { levels |= parsePart(part); });
        return levels;
    }

    U32 parsePart(std::string_view part) const {
        if (part.empty()) fail("empty level");
        std::size_t const dash = part.find('-');
        if (dash == std::string_view::npos) return 1u << parseLevel(part);
        int const low = parseLevel(part.substr(0, dash));
        int const high = parseLevel(part.substr(dash + 1));
        if (low > high) fail("reversed range " + std::string(part));
        return ((1u << (high + 1)) - 1) & ~((1u << low) - 1);
    }

    int parseLevel(std::string_view digits) const {
        if (digits.empty()) fail("missing level");
        for (char c : digits) {
            if (c < '0' || c > '9') fail("malformed level \"" + std::string(digits) + "\"");
        }
        unsigned value = 0;
        auto const parsed = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (parsed.ec != std::errc() || value > static_cast<unsigned>(traceLevelMax)) {
            fail("level " + std::string(digits) + " outside 0-9");
        }
        return static_cast<int>(value);
    }

    String8 const& setting_;
    std::string_view entry_;
    int entryNumber_ = 0;
};

// One line per record on stderr, written in one call so that even writers outside the
// trace lock rarely split it.
class StderrTraceSink : public TraceSink {
  public:
    void write(TraceRecord const& record) override {
        std::string line = traceLine(record);
        line += '\n';
        std::fwrite(line.data(), 1, line.size(), stderr);
        std::fflush(stderr);
    }
};

// Sink and coverage stream, and the lock that serializes writing to them.
struct TraceOutput {
    std::mutex mutex;
    Ptr<TraceSink> defaultSink = new StderrTraceSink;
    Ptr<TraceSink> sink = defaultSink;

    // Never destroyed: trace statements may run from static destructors.
    static TraceOutput& instance() {
        static TraceOutput* const output = new TraceOutput;
        return *output;
    }
};

// Set while this thread writes a record. A statement issued from inside a sink is dropped
// (it would wait for the lock its own thread holds).
thread_local bool traceWriteOnThisThread = false;

class TraceWriteScope {
  public:
    TraceWriteScope() { traceWriteOnThisThread = true; }
    ~TraceWriteScope() { traceWriteOnThisThread = false; }
    TraceWriteScope(TraceWriteScope const&) = delete;
    TraceWriteScope& operator=(TraceWriteScope const&) = delete;
};

void appendEscaped(std::string& out, std::string_view text) {
    for (char c : text) {
        switch (c) {
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\\': out += "\\\\"; break;
        default: out += c; break;
        }
    }
}

} // namespace

namespace detail {

// All handles and the setting in force. Handles are created and levels changed under one
// lock, so a handle created while a setting changes gets either the old or the new levels
// and then follows every later change.
class TraceRegistry {
  public:
    // Never destroyed, and neither are the handles it owns.
    static TraceRegistry& instance() {
        static TraceRegistry* const registry = new TraceRegistry;
        return *registry;
    }

    TraceHandle& handle(std::string_view facility) {
        std::lock_guard lock(mutex_);
        auto it = handles_.find(facility);
        if (it == handles_.end()) {
            std::unique_ptr<TraceHandle> created(
                new TraceHandle(String8(facility), setting_.levelsOf(facility)));
            it = handles_.emplace(std::string(facility), std::move(created)).first;
        }
        return *it->second;
    }

    void settingIs(TraceLevelSetting setting) {
        std::lock_guard lock(mutex_);
        setting_ = std::move(setting);
        for (auto const& [facility, handle] : handles_) {
            handle->levels_.store(setting_.levelsOf(facility), std::memory_order_relaxed);
        }
    }

    String8 setting() const {
        std::lock_guard lock(mutex_);
        return setting_.text;
    }

  private:
    mutable std::mutex mutex_;
    TraceLevelSetting setting_;
    std::map<std::string, std::unique_ptr<TraceHandle>, std::less<>> handles_;
};

} // namespace detail

TraceHandle& traceHandle(std::string_view facility) {
    if (!isTraceFacilityName(facility)) {
        std::fprintf(stderr, "trace facility name \"%.*s\" not allowed\n",
                     static_cast<int>(facility.size()), facility.data());
    }
    KAL_ASSERT(isTraceFacilityName(facility));
    return detail::TraceRegistry::instance().handle(facility);
}

void traceSettingIs(String8 const& setting) {
    // Parse completely before anything changes: a bad entry anywhere leaves the old setting.
    TraceLevelSetting parsed = TraceSettingParser(setting).parse();
    detail::TraceRegistry::instance().settingIs(std::move(parsed));
}

String8 traceSetting() { return detail::TraceRegistry::instance().setting(); }

std::string traceLine(TraceRecord const& record) {
    std::string line;
    line.reserve(record.facility.size() + record.source.size() + record.text.size() + 24);
    line += record.facility;
    line += '/';
    line += std::to_string(record.level);
    line += ' ';
    line += record.source;
    line += ':';
    line += std::to_string(record.line);
    line += ' ';
    if (!record.object.empty()) {
        appendEscaped(line, record.object);
        line += ": ";
    }
    appendEscaped(line, record.text);
    return line;
}

Ptr<TraceSink> traceSinkIs(Ptr<TraceSink> sink) {
    KAL_ASSERT(!traceWriteOnThisThread);
    auto& output = TraceOutput::instance();
    std::lock_guard lock(output.mutex);
    std::swap(output.sink, sink);
    return sink;
}

Ptr<TraceSink> traceSink() {
    auto& output = TraceOutput::instance();
    std::lock_guard lock(output.mutex);
    return output.sink;
}

Ptr<TraceSink> defaultTraceSink() { return TraceOutput::instance().defaultSink; }

std::ostream* coverageStreamIs(std::ostream* stream) {
    KAL_ASSERT(!traceWriteOnThisThread);
    auto& output = TraceOutput::instance();
    std::lock_guard lock(output.mutex);
    return coverageStream_.exchange(stream, std::memory_order_relaxed);
}

void traceHelper(std::string_view facility, int level, std::string_view source, int line,
                 std::string_view function, std::string_view text, bool enabled,
                 std::string_view object) {
    if (traceWriteOnThisThread) return;
    TraceRecord const record{facility, level, source, line, function, text, object};
    auto& output = TraceOutput::instance();
    std::lock_guard lock(output.mutex);
    TraceWriteScope const scope;
    if (enabled && output.sink) output.sink->write(record);
    if (std::ostream* coverage = coverageStream_.load(std::memory_order_relaxed)) {
        *coverage << traceLine(record) << '\n';
    }
}

void CaptureTraceSink::write(TraceRecord const& record) {
    Record copy{.facility = String8(record.facility),
                .level = record.level,
                .source = String8(record.source),
                .line = record.line,
                .function = String8(record.function),
                .text = String8(record.text),
                .object = String8(record.object)};
    std::lock_guard lock(mutex_);
    records_.push_back(std::move(copy));
}

std::vector<CaptureTraceSink::Record> CaptureTraceSink::records() const {
    std::lock_guard lock(mutex_);
    return records_;
}

std::vector<String8> CaptureTraceSink::texts() const {
    std::lock_guard lock(mutex_);
    std::vector<String8> result;
    result.reserve(records_.size());
    for (auto const& r : records_) result.push_back(r.text);
    return result;
}

std::size_t CaptureTraceSink::recordCount() const {
    std::lock_guard lock(mutex_);
    return records_.size();
}

void CaptureTraceSink::recordDelAll() {
    std::lock_guard lock(mutex_);
    records_.clear();
}

TraceCapture::TraceCapture() : sink_(new CaptureTraceSink) { previousSink_ = traceSinkIs(sink_); }

TraceCapture::TraceCapture(String8 const& setting) : sink_(new CaptureTraceSink) {
    previousSetting_ = traceSetting();
    traceSettingIs(setting); // may throw: nothing is installed yet
    restoreSetting_ = true;
    previousSink_ = traceSinkIs(sink_);
}

TraceCapture::~TraceCapture() {
    traceSinkIs(previousSink_);
    // The previous setting was accepted once, so it parses again.
    if (restoreSetting_) traceSettingIs(previousSetting_);
}

} // namespace Kal
