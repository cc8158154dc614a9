// Tracing: levelled, per-facility trace statements that cost two loads and a branch when off.
//
// Use. Each .cpp that traces names its facility and its source name once, at namespace scope,
// and then writes trace statements with a level and a stream expression:
//
//   KAL_TRACE_HANDLE("RidgeRoutingSm", "RoutingSm");
//   ...
//   KAL_TRACE(0, "void Ridge::RoutingSm::handleRouting()" << " for vrf " << vrfName());
//
// The record's message is the composed text alone. The enclosing function's signature
// travels beside it as location (record.function: its short name, from __func__), but a message
// that must begin with the signature spells it out itself, as the model declares it:
// compiler signatures differ between g++ and clang and resolve typedefs (U64 becomes
// "long long unsigned int", Status::Ptr becomes Kal::Ptr<...>), while the published texts
// must not change with the compiler. Numbers print in decimal (U8 and signed char
// too: they are numbers here, not characters) unless the statement switches the stream to
// hex, which by the house convention it announces with a "0x" in front; booleans print "0"/"1".
//
// Levels. 0 start-up steps, 2 request entry and hits, 4 creations and drops, 9 per-via
// detail; levels outside 0-9 are never enabled.
//
// Cost when off. A statement loads its handle's level mask (one relaxed atomic load; the
// handle itself comes from a function-local static, whose guard is one more load) and the
// coverage stream pointer, and branches. The composing code is out of line, so the traced
// function carries no stream. Only if the level is on, or a coverage stream is installed, are
// the operands evaluated and the text composed in a string stream; otherwise none of the
// expressions after the level is evaluated, so a statement may read state that is only valid
// while tracing (and must not rely on side effects of its operands). The operands are
// evaluated inside a lambda: they may use locals and members, but __func__ in an operand
// names the lambda.
//
// Where records go. A composed record is handed to traceHelper together with whether the
// handle was on. A record of an enabled handle goes to the installed TraceSink (by default a
// sink writing one line per record to stderr, see traceLine). When a coverage stream is
// installed (coverageStream_, set through coverageStreamIs), every composed record, enabled
// or not, is also written to it as one line; a record composed only for coverage never
// reaches the sink. Coverage runs compose every statement to prove that composing is safe.
// Writes to the sink and the coverage stream are serialized under one lock, so records from
// different threads never interleave. A statement issued from inside a sink's write (on the
// same thread) is dropped rather than deadlocking.
//
// Settings. The host program passes one setting string to traceSettingIs; the library reads
// no files and no environment. Grammar:
//
//   setting  := ""  |  entry ("," entry)*
//   entry    := facility [ "/" levels ]          no "/levels": all of 0-9
//   facility := "*"  |  one or more of [A-Za-z0-9_.-]      "*": every facility
//   levels   := part ("+" part)*
//   part     := level | level "-" level          a range, low end first
//   level    := a decimal number 0-9
//
// Example: "RidgeRoutingSm/0,RidgeAdjacencyHelper/0-9,*/0+2+4-9". A facility's levels are the
// union of all entries naming it and all "*" entries; the empty string turns everything off.
// A setting applies to existing handles at once and to handles created later. A malformed
// string raises Kal::RangeException naming the bad entry and changes nothing.
//
// Threads. Handles may be created, enabled and used from any thread. A setting change reaches
// each handle as a relaxed store: a statement racing with the change may see the old or the
// new levels, never anything else.
#pragma once

#include "Kal/Ptr.h"
#include "Kal/PtrInterface.h"
#include "Kal/String.h"
#include "Kal/Types.h"

#include <atomic>
#include <ios>
#include <mutex>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Kal {

namespace detail {
class TraceRegistry;
}

inline constexpr int traceLevelMax = 9;
// The level bits a handle can hold: 0-9.
inline constexpr U32 traceAllLevels = (1u << (traceLevelMax + 1)) - 1;

// The switch of one facility. Handles live for the whole process (they are never destroyed,
// so tracing from static destructors is safe) and are shared by every file of the facility.
class TraceHandle {
  public:
    TraceHandle(TraceHandle const&) = delete;
    TraceHandle& operator=(TraceHandle const&) = delete;

    String8 const& facility() const noexcept { return facility_; }

    // One relaxed load and a bit test (the range test folds away for a constant level).
    // Levels outside 0-9 are never enabled.
    bool enabled(int level) const noexcept {
        U32 const l = static_cast<U32>(level);
        return l <= static_cast<U32>(traceLevelMax) &&
               ((levels_.load(std::memory_order_relaxed) >> l) & 1u);
    }
    // Bit n set: level n is on.
    U32 levels() const noexcept { return levels_.load(std::memory_order_relaxed); }

  private:
    friend class detail::TraceRegistry;
    TraceHandle(String8 facility, U32 levels) : facility_(std::move(facility)), levels_(levels) {}

    String8 const facility_;
    std::atomic<U32> levels_;
};

// The handle of `facility`, created on first use with the levels the current setting gives
// it. The same facility always yields the same handle. A facility name must match the
// setting grammar's facility (not "*"): a name that no setting could enable is a programming
// error and ends the process.
TraceHandle& traceHandle(std::string_view facility);

// Replaces the whole setting (grammar above). On a malformed string raises RangeException
//   traceSetting "<setting>": entry <n> "<entry>": <what is wrong>
// (as: traceSetting "A/0,B/12": entry 2 "B/12": level 12 outside 0-9) and keeps the
// previous setting fully in force: the string is parsed completely before anything changes.
void traceSettingIs(String8 const& setting);
// The setting last accepted, as it was given ("" initially).
String8 traceSetting();

// One trace record as handed to a sink. The views are valid only during the call.
struct TraceRecord {
    std::string_view facility;
    int level;
    std::string_view source; // the file's source name, as "RoutingSm"
    int line;
    std::string_view function; // the emitting function's short name (location)
    std::string_view text;     // the composed text: the message
    std::string_view object = {}; // the object the record speaks of, where the statement names one
};

// The line form used by the default sink and the coverage stream, without a newline:
//   "<facility>/<level> <source>:<line> <text>", or with an object
//   "<facility>/<level> <source>:<line> <object>: <text>"
// as "RidgeRoutingSm/0 RoutingSm:42 void Ridge::RoutingSm::handleRouting() for vrf blue".
// A newline or carriage return inside the text is written as "\n" or "\r" (and a
// backslash as "\\"), so every record is exactly one line.
std::string traceLine(TraceRecord const& record);

// Where enabled records go. write() is called under the trace lock: it never runs
// concurrently with itself or with another sink's write, and must not replace the sink.
// An exception from write() leaves through the trace statement.
class TraceSink : public PtrInterface {
  public:
    virtual void write(TraceRecord const& record) = 0;
};

// Installs `sink` (null: enabled records are discarded) and returns the previous sink. When
// it returns, no write to the previous sink is in progress or will start.
Ptr<TraceSink> traceSinkIs(Ptr<TraceSink> sink);
Ptr<TraceSink> traceSink();
// The sink installed at start-up: one traceLine per record on stderr.
Ptr<TraceSink> defaultTraceSink();

// Coverage stream: while non-null, every trace statement composes its record, enabled or
// not, and its traceLine (with a newline) is written here. Read by every trace statement,
// so it is atomic; replace it through coverageStreamIs, which waits for writes in progress.
inline std::atomic<std::ostream*> coverageStream_{nullptr};
// Installs `stream` (null: coverage off) and returns the previous one. When it returns,
// nothing is being or will be written to the previous stream.
std::ostream* coverageStreamIs(std::ostream* stream);

// Hands one composed record over: to the sink if `enabled` (the handle was on at `level`),
// and to the coverage stream if one is installed. Called by the trace statements.
void traceHelper(std::string_view facility, int level, std::string_view source, int line,
                 std::string_view function, std::string_view text, bool enabled,
                 std::string_view object = {});

// A sink that keeps every record, in arrival order, for tests to read.
class CaptureTraceSink : public TraceSink {
  public:
    struct Record {
        String8 facility;
        int level;
        String8 source;
        int line;
        String8 function;
        String8 text; // the message
        String8 object;
    };

    void write(TraceRecord const& record) override;

    std::vector<Record> records() const;
    std::vector<String8> texts() const;
    std::size_t recordCount() const;
    void recordDelAll();

  private:
    mutable std::mutex mutex_; // readers may run while another thread traces
    std::vector<Record> records_;
};

// Scope guard for tests: installs a fresh CaptureTraceSink and, if given, a setting; on scope
// exit puts back the previous sink and setting.
//
//   Kal::TraceCapture capture("RidgeRoutingSm/0");
//   sm->handleRouting();
//   EXPECT_EQ(capture.texts(), (std::vector<Kal::String8>{"void ... not init!!"}));
class TraceCapture {
  public:
    TraceCapture();
    explicit TraceCapture(String8 const& setting);
    ~TraceCapture();
    TraceCapture(TraceCapture const&) = delete;
    TraceCapture& operator=(TraceCapture const&) = delete;

    CaptureTraceSink& sink() const noexcept { return *sink_; }
    std::vector<CaptureTraceSink::Record> records() const { return sink_->records(); }
    std::vector<String8> texts() const { return sink_->texts(); }

  private:
    Ptr<CaptureTraceSink> sink_;
    Ptr<TraceSink> previousSink_;
    String8 previousSetting_;
    bool restoreSetting_ = false;
};

// The stream a trace statement composes into: an ostringstream that prints U8 and signed
// char as numbers and a null C string as "(null)". Manipulators (std::hex, std::setw) work.
class TraceText {
  public:
    // The text of a record's object: anything a stream can print.
    template <class T>
    static std::string objectText(T const& object) {
        std::ostringstream os;
        os << object;
        return os.str();
    }
    template <class T> TraceText& operator<<(T const& value) {
        os_ << value;
        return *this;
    }
    TraceText& operator<<(unsigned char value) {
        os_ << static_cast<unsigned>(value);
        return *this;
    }
    TraceText& operator<<(signed char value) {
        os_ << static_cast<int>(value);
        return *this;
    }
    TraceText& operator<<(char const* s) {
        os_ << (s ? s : "(null)");
        return *this;
    }
    TraceText& operator<<(char* s) { return *this << static_cast<char const*>(s); }
    TraceText& operator<<(std::ostream& (*manipulator)(std::ostream&)) {
        manipulator(os_);
        return *this;
    }
    TraceText& operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
        manipulator(os_);
        return *this;
    }

    std::string str() const { return os_.str(); }

  private:
    std::ostringstream os_;
};

} // namespace Kal

// Once per .cpp, at namespace scope: defines this file's _defaultTraceHandle() (the handle
// of `facility`, looked up on first use) and _defaultTraceSource() (`source`, the name trace
// lines give for this file). Both are internal to the file.
#define KAL_TRACE_HANDLE(facility, source)                                                         \
    namespace {                                                                                    \
    [[maybe_unused]] ::Kal::TraceHandle& _defaultTraceHandle() {                                   \
        static ::Kal::TraceHandle& handle = ::Kal::traceHandle(facility);                          \
        return handle;                                                                             \
    }                                                                                              \
    [[maybe_unused]] constexpr char const* _defaultTraceSource() { return source; }                \
    }                                                                                              \
    static_assert(true, "KAL_TRACE_HANDLE is followed by a semicolon")

// A trace statement of this file's facility: KAL_TRACE(level, a << b << c).
#define KAL_TRACE(level, ...)                                                                      \
    KAL_TRACE_TO(_defaultTraceHandle(), _defaultTraceSource(), level, __VA_ARGS__)

// A trace statement that names the object it speaks of (KAL_TRACE_OBJECT(level, name, a << b));
// the name is evaluated only when the text is composed.
#define KAL_TRACE_OBJECT(level, object, ...)                                                       \
    KAL_TRACE_OBJECT_TO(_defaultTraceHandle(), _defaultTraceSource(), object, level, __VA_ARGS__)

// A trace statement of this file's facility made by shared code on behalf of the operation
// `function` (its short name, as the record's location gives it).
#define KAL_TRACE_IN(function, level, ...)                                                         \
    KAL_TRACE_CORE(_defaultTraceHandle(), _defaultTraceSource(), function, ::std::string_view(),   \
                   level, __VA_ARGS__)

// The same with an explicit handle and source name.
#define KAL_TRACE_TO(handle, source, level, ...)                                                   \
    KAL_TRACE_OBJECT_TO(handle, source, ::std::string_view(), level, __VA_ARGS__)

#define KAL_TRACE_OBJECT_TO(handle, source, object, level, ...)                                    \
    KAL_TRACE_CORE(handle, source, __func__, object, level, __VA_ARGS__)

// The statement itself.
//
// The composing code sits in a lambda kept out of line and marked cold, so that the
// statement adds to its function only the level test, the coverage test and a branch (no
// stream object in its frame, no calls on its fast path). The function name is taken
// outside the lambda: inside it, __func__ would name the lambda.
#define KAL_TRACE_CORE(handle, source, function, object, level, ...)                               \
    do {                                                                                           \
        ::Kal::TraceHandle const& kalTraceHandle_ = (handle);                                      \
        int const kalTraceLevel_ = (level);                                                        \
        bool const kalTraceOn_ = kalTraceHandle_.enabled(kalTraceLevel_);                          \
        if (kalTraceOn_ || ::Kal::coverageStream_.load(::std::memory_order_relaxed) != nullptr)    \
            [[unlikely]] {                                                                         \
            char const* const kalTraceFunction_ = (function);                                      \
            [&]() __attribute__((noinline, cold)) {                                                \
                ::Kal::TraceText kalTraceText_;                                                    \
                kalTraceText_ << __VA_ARGS__;                                                      \
                ::Kal::traceHelper(kalTraceHandle_.facility(), kalTraceLevel_, (source), __LINE__, \
                                   kalTraceFunction_, kalTraceText_.str(), kalTraceOn_,            \
                                   ::Kal::TraceText::objectText(object));                          \
            }();                                                                                   \
        }                                                                                          \
    } while (false)
