#include "Kal/Tracing.h"

#include "Kal/Exception.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <iomanip>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

KAL_TRACE_HANDLE("KalTracingTest", "TracingTest");

// A trace statement that begins its text with its own signature, as the model code does.
// Returns the line of its statement.
namespace TracingProbe {

int emitAt(int level, int value) {
    int const line = __LINE__ + 1;
    KAL_TRACE(level, "int TracingProbe::emitAt(int, int)" << " at " << level << " value " << value);
    return line;
}

} // namespace TracingProbe

namespace {

using Kal::String8;
using Strings = std::vector<String8>;

// Every test starts with tracing off, no coverage stream and the sink it found, and leaves
// things so. Facility names are unique per test: handles live for the whole process.
class TracingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        savedSetting_ = Kal::traceSetting();
        Kal::traceSettingIs("");
        savedSink_ = Kal::traceSink();
        ASSERT_EQ(Kal::coverageStreamIs(nullptr), nullptr);
    }
    void TearDown() override {
        Kal::coverageStreamIs(nullptr);
        Kal::traceSinkIs(savedSink_);
        Kal::traceSettingIs(savedSetting_);
    }

  private:
    String8 savedSetting_;
    Kal::Ptr<Kal::TraceSink> savedSink_;
};

// Levels 0-9 as a mask, read through enabled() so that the hot-path test itself is checked;
// the out-of-range levels around it must read as off.
U32 enabledMask(Kal::TraceHandle const& h) {
    for (int level : {-1, 10, 32, INT_MIN, INT_MAX}) {
        EXPECT_FALSE(h.enabled(level)) << h.facility() << " level " << level;
    }
    U32 mask = 0;
    for (int level = 0; level <= Kal::traceLevelMax; ++level) {
        if (h.enabled(level)) mask |= 1u << level;
    }
    EXPECT_EQ(mask, h.levels()) << h.facility();
    return mask;
}

// ---- Settings -------------------------------------------------------------------------

TEST_F(TracingTest, SettingEnablesExactlyTheGivenLevels) {
    auto& a = Kal::traceHandle("KalTrGrammarA");
    auto& b = Kal::traceHandle("KalTrGrammarB");
    // Setting, levels of A, levels of B.
    std::tuple<char const*, U32, U32> const cases[] = {
        {"KalTrGrammarA/0", 0x001, 0},        {"KalTrGrammarA/9", 0x200, 0},
        {"KalTrGrammarA/0-9", 0x3FF, 0},      {"KalTrGrammarA", 0x3FF, 0},
        {"KalTrGrammarA/3-3", 0x008, 0},      {"KalTrGrammarA/2-5", 0x03C, 0},
        {"KalTrGrammarA/0+2+4-9", 0x3F5, 0},  {"KalTrGrammarA/1,KalTrGrammarA/5", 0x022, 0},
        {"KalTrGrammarA/0,KalTrGrammarB/0-9", 0x001, 0x3FF},
        {"*/2", 0x004, 0x004},                {"*", 0x3FF, 0x3FF},
        {"KalTrGrammarA/1,*/2", 0x006, 0x004}, {"KalTrOther/0-9", 0, 0},
        {"", 0, 0},
    };
    for (auto const& [setting, levelsA, levelsB] : cases) {
        SCOPED_TRACE(setting);
        Kal::traceSettingIs(setting);
        EXPECT_EQ(enabledMask(a), levelsA);
        EXPECT_EQ(enabledMask(b), levelsB);
        EXPECT_EQ(Kal::traceSetting(), String8(setting));
    }
}

TEST_F(TracingTest, MalformedSettingNamesTheBadEntryAndChangesNothing) {
    auto& a = Kal::traceHandle("KalTrBadA");
    auto& c = Kal::traceHandle("KalTrBadC");
    String8 const good = "KalTrBadA/3,*/7";
    Kal::traceSettingIs(good);
    // One setting per reason, and the entry the message names; the message is
    //   traceSetting "<setting>": entry <n> "<entry>": <reason>
    std::tuple<char const*, int, char const*, char const*> const cases[] = {
        {"KalTrBadA/12", 1, "KalTrBadA/12", "level 12 outside 0-9"},
        {"KalTrBadA/99999999999999999999", 1, "KalTrBadA/99999999999999999999",
         "level 99999999999999999999 outside 0-9"},
        {"KalTrBadC/0,/3", 2, "/3", "empty facility"},
        {"KalTrBadC/5-2", 1, "KalTrBadC/5-2", "reversed range 5-2"},
        {"KalTrBadC/x", 1, "KalTrBadC/x", "malformed level \"x\""},
        {"KalTrBadC/-1", 1, "KalTrBadC/-1", "missing level"},
        {"KalTrBadC/1+", 1, "KalTrBadC/1+", "empty level"},
        {"KalTrBadC/", 1, "KalTrBadC/", "empty level list"},
        {"KalTrBadC/1/2", 1, "KalTrBadC/1/2", "more than one '/'"},
        {"KalTrBadC/4,,KalTrBadA", 2, "", "empty entry"},
        {"KalTr\tBad", 1, "KalTr\tBad", "bad character '\\x09' in facility"},
        {"**/1", 1, "**/1", "bad character '*' in facility"},
    };
    for (auto const& [setting, entry, text, reason] : cases) {
        SCOPED_TRACE(setting);
        try {
            Kal::traceSettingIs(setting);
            ADD_FAILURE() << "accepted";
        } catch (Kal::RangeException const& e) {
            EXPECT_EQ(e.message().stringValue(), "traceSetting \"" + std::string(setting) +
                                                     "\": entry " + std::to_string(entry) +
                                                     " \"" + text + "\": " + reason);
            EXPECT_TRUE(e.hasId(Kal::ExceptionId::range_));
        }
        // The earlier entries of the bad string (KalTrBadC/0, KalTrBadC/4) were not applied.
        EXPECT_EQ(Kal::traceSetting(), good);
        EXPECT_EQ(a.levels(), 0x088u);
        EXPECT_EQ(c.levels(), 0x080u);
    }
    // A handle created after a refused setting follows the one still in force.
    EXPECT_EQ(Kal::traceHandle("KalTrBadLate").levels(), 0x080u);
}

TEST_F(TracingTest, FacilityNameThatNoSettingCouldEnableEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Kal::traceHandle("Ridge/Bad"), "isTraceFacilityName\\(facility\\)");
    EXPECT_DEATH(Kal::traceHandle("*"), "trace facility name \"\\*\" not allowed");
    EXPECT_DEATH(Kal::traceHandle(""), "isTraceFacilityName\\(facility\\)");
}

// ---- Trace statements --------------------------------------------------------------------

// A statement that is off evaluates neither its operands nor its object, and its level
// expression exactly once. Numbers print in decimal (U8 and signed char too), booleans as
// digits, hex only when the statement asks for it.
TEST_F(TracingTest, StatementsComposeTheirTextsOnlyWhenOn) {
    Kal::TraceCapture capture;
    auto& h = Kal::traceHandle("KalTrLazy");
    int evaluations = 0;
    auto operand = [&] { return ++evaluations; };
    auto object = [&] { return "obj" + std::to_string(++evaluations); };

    Kal::traceSettingIs("KalTrLazy/0+2-9");
    KAL_TRACE_TO(h, "Lazy", 1, " n=" << operand());
    KAL_TRACE_OBJECT_TO(h, "Lazy", object(), 1, "off");
    EXPECT_EQ(evaluations, 0);
    KAL_TRACE_TO(h, "Lazy", 2, " n=" << operand());
    KAL_TRACE_OBJECT_TO(h, "Lazy", object(), 0, "on");
    int levelEvaluations = 0;
    KAL_TRACE_TO(h, "Lazy", (++levelEvaluations, 1), " n=" << operand());
    KAL_TRACE_TO(h, "Lazy", (++levelEvaluations, 3), " n=" << operand());
    EXPECT_EQ(levelEvaluations, 2);
    U8 const u8 = 200;
    signed char const s8 = -5;
    char const* nothing = nullptr;
    KAL_TRACE_TO(h, "Lazy", 0, u8 << " " << s8 << " " << ~0ull << " " << true << " " << false);
    KAL_TRACE_TO(h, "Lazy", 0, "0x" << std::hex << 255u << " " << 'c' << " " << nothing);
    KAL_TRACE_TO(h, "Lazy", 0, String8("vrf ") << std::string_view("blue") << std::setw(4) << 7);
    Kal::traceSettingIs("");
    KAL_TRACE_TO(h, "Lazy", 2, " n=" << operand());
    EXPECT_EQ(evaluations, 3);
    EXPECT_EQ(capture.texts(), (Strings{" n=1", "on", " n=3", "200 -5 18446744073709551615 1 0",
                                        "0xff c (null)", "vrf blue   7"}));
    EXPECT_EQ(capture.records()[1].object, String8("obj2"));
    EXPECT_EQ(capture.records()[0].object, String8(""));
}

// ---- Sinks -------------------------------------------------------------------------------

// The default sink writes one line per record on stderr: facility/level source:line, the
// object if there is one, and the text with its line breaks escaped.
TEST_F(TracingTest, SinksGetEveryEnabledRecordWithItsLocation) {
    ASSERT_EQ(Kal::traceSink(), Kal::defaultTraceSink()) << "no other test may leave its sink behind";
    Kal::traceSettingIs("KalTracingTest/2+5");
    ::testing::internal::CaptureStderr();
    int const line1 = TracingProbe::emitAt(2, 7);
    TracingProbe::emitAt(4, 8); // off
    int const line2 = TracingProbe::emitAt(5, 9);
    int const line3 = __LINE__ + 1;
    KAL_TRACE_OBJECT(5, "<unknown>", "enabled: a\nb\\n\rc");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "KalTracingTest/2 TracingTest:" + std::to_string(line1) +
                  " int TracingProbe::emitAt(int, int) at 2 value 7\n"
                  "KalTracingTest/5 TracingTest:" + std::to_string(line2) +
                  " int TracingProbe::emitAt(int, int) at 5 value 9\n"
                  "KalTracingTest/5 TracingTest:" + std::to_string(line3) +
                  " <unknown>: enabled: a\\nb\\\\n\\rc\n");

    // A capture sink gets the same records, with the function's short name as location.
    {
        Kal::TraceCapture capture;
        TracingProbe::emitAt(5, 9);
        auto const r = capture.records();
        ASSERT_EQ(r.size(), 1u);
        EXPECT_EQ(r[0].function, String8("emitAt"));
        EXPECT_EQ(r[0].source, String8("TracingTest"));
        EXPECT_EQ(r[0].line, line2);
    }

    // Sinks and captures are replaced and put back in order; without a sink, enabled records
    // are discarded; a refused setting installs nothing.
    auto& h = Kal::traceHandle("KalTrSinks");
    Kal::traceSettingIs("KalTrSinks/0");
    EXPECT_EQ(Kal::traceSinkIs(nullptr), Kal::defaultTraceSink());
    KAL_TRACE_TO(h, "Sinks", 0, "dropped");
    {
        Kal::TraceCapture capture("KalTrSinks/4");
        EXPECT_EQ(Kal::traceSink(), Kal::Ptr<Kal::TraceSink>(&capture.sink()));
        {
            Kal::TraceCapture inner;
            EXPECT_EQ(Kal::traceSink(), Kal::Ptr<Kal::TraceSink>(&inner.sink()));
            EXPECT_EQ(Kal::traceSetting(), String8("KalTrSinks/4"));
        }
        EXPECT_EQ(Kal::traceSink(), Kal::Ptr<Kal::TraceSink>(&capture.sink()));
    }
    EXPECT_EQ(Kal::traceSink(), nullptr);
    EXPECT_EQ(h.levels(), 1u);
    EXPECT_THROW(Kal::TraceCapture bad("KalTrSinks/x"), Kal::RangeException);
    EXPECT_EQ(Kal::traceSink(), nullptr);
    EXPECT_EQ(Kal::traceSetting(), String8("KalTrSinks/0"));

    // A sink that traces while writing: the inner statement is dropped, neither deadlocking
    // nor recursing.
    struct TracingSink : Kal::CaptureTraceSink {
        void write(Kal::TraceRecord const& record) override {
            Kal::CaptureTraceSink::write(record);
            KAL_TRACE_TO(Kal::traceHandle("KalTrSinks"), "Sinks", 0, "from inside the sink");
        }
    };
    Kal::Ptr<TracingSink> sink = new TracingSink;
    Kal::traceSinkIs(sink);
    KAL_TRACE_TO(h, "Sinks", 0, "outer");
    KAL_TRACE_TO(h, "Sinks", 0, "second");
    EXPECT_EQ(sink->texts(), (Strings{"outer", "second"}));
}

// ---- Threads -----------------------------------------------------------------------------

// Threads trace while they create handles and another thread switches between two settings
// that both enable KalTracingTest/3, and a coverage stream composes every statement. The
// sink gets every enabled record whole, each thread's in that thread's order, and none that
// was composed only for coverage; every handle is created once; no record is of a level that
// neither setting enables.
TEST_F(TracingTest, ThreadsTraceCreateHandlesAndSwitchSettingsSafely) {
    constexpr int threadCount = 4;
    constexpr int perThread = 200;
    char const* const settings[] = {"KalTracingTest/3,KalTrRaceA/1,KalTrRaceB/2",
                                    "KalTracingTest/3,KalTrRaceA/3,KalTrRaceB/1+3"};
    Kal::TraceCapture capture(settings[0]);
    std::ostringstream coverage;
    Kal::coverageStreamIs(&coverage);
    std::atomic<bool> stop{false};
    std::thread switcher([&] {
        for (int n = 0; !stop.load(); ++n) Kal::traceSettingIs(settings[n % 2]);
    });
    std::vector<Kal::TraceHandle const*> seenA(threadCount), seenB(threadCount);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                TracingProbe::emitAt(3, t * 1000 + i);
                TracingProbe::emitAt(4, t * 1000 + i); // composed for coverage only
                auto& a = Kal::traceHandle("KalTrRaceA");
                auto& b = Kal::traceHandle("KalTrRaceB");
                seenA[t] = &a;
                seenB[t] = &b;
                for (int level : {1, 2, 3, 5}) {
                    KAL_TRACE_TO(a, "Race", level, "a " << level);
                    KAL_TRACE_TO(b, "Race", level, "b " << level);
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    stop = true;
    switcher.join();
    EXPECT_EQ(Kal::coverageStreamIs(nullptr), &coverage);

    std::vector<int> next(threadCount, 0);
    std::string const head = "int TracingProbe::emitAt(int, int) at 3 value ";
    for (auto const& r : capture.records()) {
        if (r.facility == String8("KalTracingTest")) {
            int value = -1;
            ASSERT_EQ(std::sscanf(r.text.charPtr(), (head + "%d").c_str(), &value), 1) << r.text;
            ASSERT_TRUE(value >= 0 && value / 1000 < threadCount) << r.text;
            EXPECT_EQ(r.text, String8(head + std::to_string(value)));
            EXPECT_EQ(value % 1000, next[value / 1000]++) << "out of its thread's order: " << r.text;
            continue;
        }
        bool const a = r.facility == String8("KalTrRaceA");
        EXPECT_TRUE(a || r.facility == String8("KalTrRaceB")) << r.facility;
        EXPECT_TRUE(r.level != 5 && !(a && r.level == 2)) << r.facility << "/" << r.level;
        EXPECT_EQ(r.text, String8((a ? "a " : "b ") + std::to_string(r.level)));
    }
    EXPECT_EQ(next, std::vector<int>(threadCount, perThread));
    for (int t = 0; t < threadCount; ++t) {
        EXPECT_EQ(seenA[t], &Kal::traceHandle("KalTrRaceA"));
        EXPECT_EQ(seenB[t], &Kal::traceHandle("KalTrRaceB"));
    }
    // Once the switching stops, every handle has the levels of the setting left in force.
    Kal::traceSettingIs(settings[1]);
    EXPECT_EQ(Kal::traceHandle("KalTrRaceA").levels(), 1u << 3);
    EXPECT_EQ(Kal::traceHandle("KalTrRaceB").levels(), (1u << 1) | (1u << 3));

    // The coverage stream has every composed record of the probe as a line of its own.
    int const line = TracingProbe::emitAt(0, 0); // off, and no coverage now: just its line
    std::multiset<std::string> expected, written;
    for (int t = 0; t < threadCount; ++t) {
        for (int i = 0; i < perThread; ++i) {
            for (std::string level : {"3", "4"}) {
                expected.insert("KalTracingTest/" + level + " TracingTest:" + std::to_string(line) +
                                " int TracingProbe::emitAt(int, int) at " + level + " value " +
                                std::to_string(t * 1000 + i));
            }
        }
    }
    std::istringstream lines(coverage.str());
    for (std::string l; std::getline(lines, l);) {
        if (l.rfind("KalTracingTest/", 0) == 0) written.insert(l);
    }
    EXPECT_TRUE(written == expected) << "coverage lines differ (" << written.size() << " written)";
}

} // namespace
