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
#include <vector>

KAL_TRACE_HANDLE("KalTracingTest", "TracingTest");

// Trace statements that begin their texts with their own signature, as the model code does.
// Each returns the line of its statement.
namespace TracingProbe {

int emit(int value) {
    int const line = __LINE__ + 1;
    KAL_TRACE(2, "int TracingProbe::emit(int)" << " value " << value << " done");
    return line;
}

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
    struct Case {
        char const* setting;
        U32 a;
        U32 b;
    };
    Case const cases[] = {
        {"KalTrGrammarA/0", 0x001, 0},        {"KalTrGrammarA/9", 0x200, 0},
        {"KalTrGrammarA/0-9", 0x3FF, 0},      {"KalTrGrammarA", 0x3FF, 0},
        {"KalTrGrammarA/3-3", 0x008, 0},      {"KalTrGrammarA/2-5", 0x03C, 0},
        {"KalTrGrammarA/0+2+4-9", 0x3F5, 0},  {"KalTrGrammarA/1,KalTrGrammarA/5", 0x022, 0},
        {"KalTrGrammarA/0,KalTrGrammarB/0-9", 0x001, 0x3FF},
        {"*/2", 0x004, 0x004},                {"*", 0x3FF, 0x3FF},
        {"KalTrGrammarA/1,*/2", 0x006, 0x004}, {"KalTrOther/0-9", 0, 0},
        {"", 0, 0},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.setting);
        Kal::traceSettingIs(c.setting);
        EXPECT_EQ(enabledMask(a), c.a);
        EXPECT_EQ(enabledMask(b), c.b);
        EXPECT_EQ(Kal::traceSetting(), String8(c.setting));
    }
}

TEST_F(TracingTest, MalformedSettingNamesTheBadEntryAndChangesNothing) {
    auto& a = Kal::traceHandle("KalTrBadA");
    auto& c = Kal::traceHandle("KalTrBadC");
    String8 const good = "KalTrBadA/3,*/7";
    Kal::traceSettingIs(good);
    // One setting per reason; the message is
    //   traceSetting "<setting>": entry <n> "<entry>": <reason>
    struct Case {
        char const* setting;
        int entry;
        char const* text;
        char const* reason;
    };
    Case const cases[] = {
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
    for (auto const& k : cases) {
        SCOPED_TRACE(k.setting);
        try {
            Kal::traceSettingIs(k.setting);
            ADD_FAILURE() << "accepted";
        } catch (Kal::RangeException const& e) {
            EXPECT_EQ(e.message().stringValue(), "traceSetting \"" + std::string(k.setting) +
                                                     "\": entry " + std::to_string(k.entry) +
                                                     " \"" + k.text + "\": " + k.reason);
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

TEST_F(TracingTest, DisabledStatementEvaluatesNeitherOperandNorObject) {
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
    // The level expression is evaluated exactly once either way.
    int levelEvaluations = 0;
    KAL_TRACE_TO(h, "Lazy", (++levelEvaluations, 1), " n=" << operand());
    KAL_TRACE_TO(h, "Lazy", (++levelEvaluations, 3), " n=" << operand());
    EXPECT_EQ(levelEvaluations, 2);
    Kal::traceSettingIs("");
    KAL_TRACE_TO(h, "Lazy", 2, " n=" << operand());
    EXPECT_EQ(evaluations, 3);
    EXPECT_EQ(capture.texts(), (Strings{" n=1", "on", " n=3"}));
    EXPECT_EQ(capture.records()[1].object, String8("obj2"));
    EXPECT_EQ(capture.records()[0].object, String8(""));
}

TEST_F(TracingTest, RecordsCarryTheirLocationAndTheDefaultSinkWritesOneLineEach) {
    ASSERT_EQ(Kal::traceSink(), Kal::defaultTraceSink());
    Kal::traceSettingIs("KalTracingTest/2+5");
    ::testing::internal::CaptureStderr();
    int const line1 = TracingProbe::emit(7);
    TracingProbe::emitAt(4, 8); // off
    int const line2 = TracingProbe::emitAt(5, 9);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "KalTracingTest/2 TracingTest:" + std::to_string(line1) +
                  " int TracingProbe::emit(int) value 7 done\nKalTracingTest/5 TracingTest:" +
                  std::to_string(line2) + " int TracingProbe::emitAt(int, int) at 5 value 9\n");

    // A capture sink gets the same records, with the function's short name as location.
    Kal::TraceCapture capture;
    TracingProbe::emitAt(5, 9);
    auto const r = capture.records();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].function, String8("emitAt"));
    EXPECT_EQ(r[0].source, String8("TracingTest"));
    EXPECT_EQ(r[0].line, line2);
}

TEST_F(TracingTest, TextsPrintNumbersInDecimalAndBooleansAsDigits) {
    Kal::TraceCapture capture("KalTrText/0");
    auto& h = Kal::traceHandle("KalTrText");
    U8 const u8 = 200;
    signed char const s8 = -5;
    char const* nothing = nullptr;
    KAL_TRACE_TO(h, "Text", 0, u8 << " " << s8 << " " << ~0ull << " " << true << " " << false);
    KAL_TRACE_TO(h, "Text", 0, "0x" << std::hex << 255u << " " << 'c' << " " << nothing);
    KAL_TRACE_TO(h, "Text", 0, String8("vrf ") << std::string_view("blue") << std::setw(4) << 7);
    EXPECT_EQ(capture.texts(),
              (Strings{"200 -5 18446744073709551615 1 0", "0xff c (null)", "vrf blue   7"}));
}

TEST_F(TracingTest, SinkReplacementAndTraceCaptureRestoreWhatWasThere) {
    auto const initial = Kal::traceSink();
    EXPECT_EQ(initial, Kal::defaultTraceSink()) << "no other test may leave its sink behind";
    auto& h = Kal::traceHandle("KalTrSinks");
    Kal::traceSettingIs("KalTrSinks/0");
    EXPECT_EQ(Kal::traceSinkIs(nullptr), initial);
    KAL_TRACE_TO(h, "Sinks", 0, "dropped"); // no sink: discarded
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
    // A refused setting installs nothing.
    EXPECT_THROW(Kal::TraceCapture bad("KalTrSinks/x"), Kal::RangeException);
    EXPECT_EQ(Kal::traceSink(), nullptr);
    EXPECT_EQ(Kal::traceSetting(), String8("KalTrSinks/0"));
}

TEST_F(TracingTest, StatementIssuedFromInsideTheSinkIsDropped) {
    // A sink that traces while writing: the inner statement must neither deadlock nor recurse.
    struct TracingSink : Kal::CaptureTraceSink {
        void write(Kal::TraceRecord const& record) override {
            Kal::CaptureTraceSink::write(record);
            KAL_TRACE_TO(Kal::traceHandle("KalTrNested"), "Nested", 0, "from inside the sink");
        }
    };
    Kal::traceSettingIs("KalTrNested/0");
    Kal::Ptr<TracingSink> sink = new TracingSink;
    Kal::traceSinkIs(sink);
    KAL_TRACE_TO(Kal::traceHandle("KalTrNested"), "Nested", 0, "outer");
    KAL_TRACE_TO(Kal::traceHandle("KalTrNested"), "Nested", 0, "second");
    EXPECT_EQ(sink->texts(), (Strings{"outer", "second"}));
}

TEST_F(TracingTest, TraceLineNamesTheObjectAndKeepsTheRecordOnOneLine) {
    // The plain form is shown by the default sink; here the object and the escapes.
    Kal::TraceRecord const withObject{"RidgeRouting6Sm", 0, "Routing6Sm", 7, "handleRouting",
                                      "void Ridge::Routing6Sm::handleRouting() enabled: 1",
                                      "<unknown>"};
    EXPECT_EQ(Kal::traceLine(withObject), "RidgeRouting6Sm/0 Routing6Sm:7 <unknown>: void "
                                          "Ridge::Routing6Sm::handleRouting() enabled: 1");
    // Line breaks inside the message cannot split the record over several lines.
    Kal::TraceRecord const multiLine{"F", 9, "S", 1, "void f()", "a\nb\\n\rc"};
    EXPECT_EQ(Kal::traceLine(multiLine), "F/9 S:1 a\\nb\\\\n\\rc");
}

// ---- Threads -----------------------------------------------------------------------------

TEST_F(TracingTest, ConcurrentStatementsProduceWholeRecordsInEachThreadsOrder) {
    constexpr int threadCount = 4;
    constexpr int perThread = 200;
    Kal::TraceCapture capture("KalTracingTest/3");
    std::ostringstream coverage;
    Kal::coverageStreamIs(&coverage);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < perThread; ++i) {
                TracingProbe::emitAt(3, t * 1000 + i);
                TracingProbe::emitAt(4, t * 1000 + i); // composed for coverage only
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(Kal::coverageStreamIs(nullptr), &coverage);

    // The sink has every enabled record, whole, each thread's in that thread's order; the
    // records composed only for coverage are not among them.
    auto const texts = capture.texts();
    ASSERT_EQ(texts.size(), std::size_t(threadCount * perThread));
    std::vector<int> next(threadCount, 0);
    for (auto const& text : texts) {
        int value = -1;
        std::string const head = "int TracingProbe::emitAt(int, int) at 3 value ";
        ASSERT_EQ(std::sscanf(text.charPtr(), (head + "%d").c_str(), &value), 1) << text;
        ASSERT_TRUE(value >= 0 && value / 1000 < threadCount) << text;
        EXPECT_EQ(text, String8(head + std::to_string(value)));
        EXPECT_EQ(value % 1000, next[value / 1000]++) << "out of its thread's order: " << text;
    }

    // The coverage stream has every composed record as a line of its own.
    int const line = TracingProbe::emitAt(0, 0); // off, and no coverage now: just its line
    std::multiset<std::string> expected, written;
    for (int level : {3, 4}) {
        for (int t = 0; t < threadCount; ++t) {
            for (int i = 0; i < perThread; ++i) {
                std::string const l = std::to_string(level);
                expected.insert("KalTracingTest/" + l + " TracingTest:" + std::to_string(line) +
                                " int TracingProbe::emitAt(int, int) at " + l + " value " +
                                std::to_string(t * 1000 + i));
            }
        }
    }
    std::istringstream lines(coverage.str());
    for (std::string l; std::getline(lines, l);) written.insert(l);
    EXPECT_TRUE(written == expected) << "coverage lines differ (" << written.size() << " written)";
}

TEST_F(TracingTest, HandlesAreCreatedAndEnabledSafelyFromManyThreads) {
    constexpr int threadCount = 4;
    constexpr int rounds = 300;
    Kal::TraceCapture capture;
    // Two settings that never enable level 5 of either facility, nor level 2 of A.
    char const* const settings[] = {"KalTrRaceA/1,KalTrRaceB/2", "KalTrRaceA/3,KalTrRaceB/1+3"};
    std::atomic<bool> stop{false};
    std::thread switcher([&] {
        for (int n = 0; !stop.load(); ++n) Kal::traceSettingIs(settings[n % 2]);
    });
    std::vector<Kal::TraceHandle const*> seenA(threadCount), seenB(threadCount);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i) {
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

    for (int t = 0; t < threadCount; ++t) {
        EXPECT_EQ(seenA[t], &Kal::traceHandle("KalTrRaceA"));
        EXPECT_EQ(seenB[t], &Kal::traceHandle("KalTrRaceB"));
    }
    // Every record was enabled by one of the two settings, and is intact.
    for (auto const& r : capture.records()) {
        bool const a = r.facility == String8("KalTrRaceA");
        EXPECT_TRUE(a || r.facility == String8("KalTrRaceB")) << r.facility;
        EXPECT_TRUE(r.level != 5 && !(a && r.level == 2)) << r.facility << "/" << r.level;
        EXPECT_EQ(r.text, String8((a ? "a " : "b ") + std::to_string(r.level)));
    }
    // Once the switching stops, every handle has the levels of the setting left in force.
    Kal::traceSettingIs(settings[1]);
    EXPECT_EQ(Kal::traceHandle("KalTrRaceA").levels(), 1u << 3);
    EXPECT_EQ(Kal::traceHandle("KalTrRaceB").levels(), (1u << 1) | (1u << 3));
}

} // namespace
