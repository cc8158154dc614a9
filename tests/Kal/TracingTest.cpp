#include "Kal/Tracing.h"

#include "Kal/Exception.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
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
    for (int level : {-1, 10, 11, 31, 32, INT_MIN, INT_MAX}) {
        EXPECT_FALSE(h.enabled(level)) << h.facility() << " level " << level;
    }
    U32 mask = 0;
    for (int level = 0; level <= Kal::traceLevelMax; ++level) {
        if (h.enabled(level)) mask |= 1u << level;
    }
    EXPECT_EQ(mask, h.levels()) << h.facility();
    return mask;
}

// ---- Settings ----------------------------------------------------------------------------

TEST_F(TracingTest, SettingEnablesExactlyTheGivenLevels) {
    auto& a = Kal::traceHandle("KalTrGrammarA");
    auto& b = Kal::traceHandle("KalTrGrammarB");
    struct Case {
        char const* setting;
        U32 a;
        U32 b;
    };
    Case const cases[] = {
        {"KalTrGrammarA/0", 0x001, 0},
        {"KalTrGrammarA/9", 0x200, 0},
        {"KalTrGrammarA/0-9", 0x3FF, 0},
        {"KalTrGrammarA", 0x3FF, 0},
        {"KalTrGrammarA/3-3", 0x008, 0},
        {"KalTrGrammarA/2-5", 0x03C, 0},
        {"KalTrGrammarA/0+2+4-9", 0x3F5, 0},
        {"KalTrGrammarA/7+1", 0x082, 0},
        {"KalTrGrammarA/1,KalTrGrammarA/5", 0x022, 0},
        {"KalTrGrammarA/0,KalTrGrammarB/0-9", 0x001, 0x3FF},
        {"*/2", 0x004, 0x004},
        {"*", 0x3FF, 0x3FF},
        {"KalTrGrammarA/1,*/2", 0x006, 0x004},
        {"KalTrOther/0-9", 0, 0},
        {"", 0, 0},
    };
    for (auto const& c : cases) {
        Kal::traceSettingIs(c.setting);
        EXPECT_EQ(enabledMask(a), c.a) << "setting \"" << c.setting << "\"";
        EXPECT_EQ(enabledMask(b), c.b) << "setting \"" << c.setting << "\"";
        EXPECT_EQ(Kal::traceSetting(), String8(c.setting));
    }
}

TEST_F(TracingTest, MalformedSettingNamesTheBadEntryAndChangesNothing) {
    auto& a = Kal::traceHandle("KalTrBadA");
    auto& c = Kal::traceHandle("KalTrBadC");
    String8 const good = "KalTrBadA/3,*/7";
    Kal::traceSettingIs(good);
    ASSERT_EQ(a.levels(), 0x088u);
    ASSERT_EQ(c.levels(), 0x080u);

    struct Case {
        char const* setting;
        char const* message;
    };
    Case const cases[] = {
        {"KalTrBadA/12",
         "traceSetting \"KalTrBadA/12\": entry 1 \"KalTrBadA/12\": level 12 outside 0-9"},
        {"KalTrBadA/99999999999999999999",
         "traceSetting \"KalTrBadA/99999999999999999999\": "
         "entry 1 \"KalTrBadA/99999999999999999999\": level 99999999999999999999 outside 0-9"},
        {"KalTrBadC/0,/3", "traceSetting \"KalTrBadC/0,/3\": entry 2 \"/3\": empty facility"},
        {"KalTrBadC/5-2",
         "traceSetting \"KalTrBadC/5-2\": entry 1 \"KalTrBadC/5-2\": reversed range 5-2"},
        {"KalTrBadC/x",
         "traceSetting \"KalTrBadC/x\": entry 1 \"KalTrBadC/x\": malformed level \"x\""},
        {"KalTrBadC/-1", "traceSetting \"KalTrBadC/-1\": entry 1 \"KalTrBadC/-1\": missing level"},
        {"KalTrBadC/1+", "traceSetting \"KalTrBadC/1+\": entry 1 \"KalTrBadC/1+\": empty level"},
        {"KalTrBadC/", "traceSetting \"KalTrBadC/\": entry 1 \"KalTrBadC/\": empty level list"},
        {"KalTrBadC/1/2",
         "traceSetting \"KalTrBadC/1/2\": entry 1 \"KalTrBadC/1/2\": more than one '/'"},
        {"KalTrBadC,,KalTrBadA",
         "traceSetting \"KalTrBadC,,KalTrBadA\": entry 2 \"\": empty entry"},
        {"KalTrBadC/4, KalTrBadA",
         "traceSetting \"KalTrBadC/4, KalTrBadA\": entry 2 \" KalTrBadA\": "
         "bad character ' ' in facility"},
        {"KalTr\tBad",
         "traceSetting \"KalTr\tBad\": entry 1 \"KalTr\tBad\": bad character '\\x09' in facility"},
        {"**/1", "traceSetting \"**/1\": entry 1 \"**/1\": bad character '*' in facility"},
    };
    for (auto const& k : cases) {
        try {
            Kal::traceSettingIs(k.setting);
            ADD_FAILURE() << "accepted \"" << k.setting << "\"";
        } catch (Kal::RangeException const& e) {
            EXPECT_EQ(e.message(), String8(k.message));
            EXPECT_TRUE(e.hasId(Kal::ExceptionId::range_));
        }
        // The earlier entries of the bad string (KalTrBadC/0, KalTrBadC/4) were not applied.
        EXPECT_EQ(Kal::traceSetting(), good) << "after \"" << k.setting << "\"";
        EXPECT_EQ(a.levels(), 0x088u) << "after \"" << k.setting << "\"";
        EXPECT_EQ(c.levels(), 0x080u) << "after \"" << k.setting << "\"";
    }
    // A handle created after a refused setting follows the one still in force.
    EXPECT_EQ(Kal::traceHandle("KalTrBadLate").levels(), 0x080u);
}

// ---- Handles -----------------------------------------------------------------------------

TEST_F(TracingTest, OneHandlePerFacilityCreatedWithTheSettingInForce) {
    Kal::traceSettingIs("KalTrLate/3,*/8,KalTrLateOther/1");
    auto& late = Kal::traceHandle("KalTrLate");
    EXPECT_EQ(late.facility(), String8("KalTrLate"));
    EXPECT_EQ(enabledMask(late), (1u << 3) | (1u << 8));
    EXPECT_EQ(&Kal::traceHandle("KalTrLate"), &late);
    EXPECT_NE(&Kal::traceHandle("KalTrLate2"), &late);
    EXPECT_EQ(Kal::traceHandle("KalTrLate2").levels(), 1u << 8);

    // The file's own handle is the registry's handle of its facility.
    EXPECT_EQ(&_defaultTraceHandle(), &Kal::traceHandle("KalTracingTest"));
    EXPECT_STREQ(_defaultTraceSource(), "TracingTest");

    // Later settings reach handles that already exist.
    Kal::traceSettingIs("KalTrLate/0");
    EXPECT_EQ(late.levels(), 1u);
    EXPECT_EQ(Kal::traceHandle("KalTrLate2").levels(), 0u);
}

TEST_F(TracingTest, FacilityNameThatNoSettingCouldEnableEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Kal::traceHandle("Ridge/Bad"), "isTraceFacilityName\\(facility\\)");
    EXPECT_DEATH(Kal::traceHandle("*"), "trace facility name \"\\*\" not allowed");
    EXPECT_DEATH(Kal::traceHandle(""), "isTraceFacilityName\\(facility\\)");
}

// ---- Trace statements --------------------------------------------------------------------

TEST_F(TracingTest, DisabledStatementEvaluatesNoOperand) {
    Kal::TraceCapture capture;
    auto& h = Kal::traceHandle("KalTrLazy");
    int evaluations = 0;
    auto operand = [&] { return ++evaluations; };

    Kal::traceSettingIs("KalTrLazy/0+2-9");
    KAL_TRACE_TO(h, "Lazy", 1, " n=" << operand());
    EXPECT_EQ(evaluations, 0);
    EXPECT_TRUE(capture.records().empty());

    KAL_TRACE_TO(h, "Lazy", 2, " n=" << operand());
    EXPECT_EQ(evaluations, 1);
    EXPECT_EQ(capture.texts(), (Strings{" n=1"}));

    // The level expression is evaluated exactly once either way.
    int levelEvaluations = 0;
    KAL_TRACE_TO(h, "Lazy", (++levelEvaluations, 1), " n=" << operand());
    KAL_TRACE_TO(h, "Lazy", (++levelEvaluations, 3), " n=" << operand());
    EXPECT_EQ(levelEvaluations, 2);
    EXPECT_EQ(evaluations, 2);
    EXPECT_EQ(capture.texts(), (Strings{" n=1", " n=2"}));

    Kal::traceSettingIs("");
    KAL_TRACE_TO(h, "Lazy", 2, " n=" << operand());
    EXPECT_EQ(evaluations, 2);
    EXPECT_EQ(capture.records().size(), 2u);
}

TEST_F(TracingTest, CaptureSinkReceivesExactRecords) {
    Kal::TraceCapture capture("KalTracingTest/2+5");
    int const line1 = TracingProbe::emit(7);
    int const offLine = TracingProbe::emitAt(4, 8);
    int const line2 = TracingProbe::emitAt(5, 9);
    (void)offLine;

    auto const records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].facility, String8("KalTracingTest"));
    EXPECT_EQ(records[0].level, 2);
    EXPECT_EQ(records[0].source, String8("TracingTest"));
    EXPECT_EQ(records[0].line, line1);
    EXPECT_EQ(records[0].function, String8("emit"));
    EXPECT_EQ(records[0].text, String8("int TracingProbe::emit(int) value 7 done"));

    EXPECT_EQ(records[1].level, 5);
    EXPECT_EQ(records[1].line, line2);
    EXPECT_EQ(records[1].function, String8("emitAt"));
    EXPECT_EQ(capture.texts(), (Strings{"int TracingProbe::emit(int) value 7 done",
                                        "int TracingProbe::emitAt(int, int) at 5 value 9"}));

    capture.sink().recordDelAll();
    EXPECT_EQ(capture.sink().recordCount(), 0u);
    TracingProbe::emit(3);
    EXPECT_EQ(capture.texts(), (Strings{"int TracingProbe::emit(int) value 3 done"}));
}

TEST_F(TracingTest, TextsPrintNumbersInDecimalAndBooleansAsDigits) {
    Kal::TraceCapture capture("KalTrText/0");
    auto& h = Kal::traceHandle("KalTrText");
    U8 const u8 = 200;
    signed char const s8 = -5;
    U64 const u64 = ~0ull;
    char const* nothing = nullptr;
    KAL_TRACE_TO(h, "Text", 0, u8 << " " << s8 << " " << u64 << " " << true << " " << false);
    KAL_TRACE_TO(h, "Text", 0, "0x" << std::hex << 255u << " " << 'c' << " " << nothing);
    KAL_TRACE_TO(h, "Text", 0, String8("vrf ") << std::string_view("blue") << std::setw(4) << 7);
    EXPECT_EQ(capture.texts(),
              (Strings{"200 -5 18446744073709551615 1 0", "0xff c (null)", "vrf blue   7"}));
}

TEST_F(TracingTest, CoverageStreamGetsTextsComposedWhileTheHandleIsOff) {
    Kal::TraceCapture capture("KalTrCover/1");
    auto& h = Kal::traceHandle("KalTrCover");
    std::ostringstream coverage;
    int evaluations = 0;
    auto operand = [&] { return ++evaluations; };

    EXPECT_EQ(Kal::coverageStreamIs(&coverage), nullptr);
    int const offLine = __LINE__ + 1;
    KAL_TRACE_TO(h, "Cover", 0, "off " << operand());
    EXPECT_EQ(evaluations, 1);
    EXPECT_TRUE(capture.records().empty()) << "composed only for coverage, so not for the sink";

    int const onLine = __LINE__ + 1;
    KAL_TRACE_TO(h, "Cover", 1, "on " << operand());
    EXPECT_EQ(capture.texts(), (Strings{"on 2"}));

    EXPECT_EQ(coverage.str(), "KalTrCover/0 Cover:" + std::to_string(offLine) + " off 1\n" +
                                  "KalTrCover/1 Cover:" + std::to_string(onLine) + " on 2\n");

    EXPECT_EQ(Kal::coverageStreamIs(nullptr), &coverage);
    KAL_TRACE_TO(h, "Cover", 0, "off " << operand());
    EXPECT_EQ(evaluations, 2);
    EXPECT_EQ(capture.records().size(), 1u);
}

TEST_F(TracingTest, SinkReplacementReturnsThePreviousSink) {
    auto const initial = Kal::traceSink();
    EXPECT_EQ(initial, Kal::defaultTraceSink()) << "no other test may leave its sink behind";
    auto& h = Kal::traceHandle("KalTrSinks");
    Kal::traceSettingIs("KalTrSinks/0");

    Kal::Ptr<Kal::CaptureTraceSink> first = new Kal::CaptureTraceSink;
    Kal::Ptr<Kal::CaptureTraceSink> second = new Kal::CaptureTraceSink;
    EXPECT_EQ(Kal::traceSinkIs(first), initial);
    KAL_TRACE_TO(h, "Sinks", 0, "one");
    EXPECT_EQ(Kal::traceSinkIs(second), first);
    KAL_TRACE_TO(h, "Sinks", 0, "two");
    EXPECT_EQ(Kal::traceSinkIs(nullptr), second);
    KAL_TRACE_TO(h, "Sinks", 0, "dropped");
    EXPECT_EQ(Kal::traceSinkIs(initial), nullptr);

    EXPECT_EQ(first->texts(), (Strings{"one"}));
    EXPECT_EQ(second->texts(), (Strings{"two"}));
}

TEST_F(TracingTest, TraceCaptureRestoresSinkAndSetting) {
    Kal::traceSettingIs("KalTrScope/1");
    auto const before = Kal::traceSink();
    {
        Kal::TraceCapture capture("KalTrScope/4");
        EXPECT_EQ(Kal::traceSink(), Kal::Ptr<Kal::TraceSink>(&capture.sink()));
        EXPECT_EQ(Kal::traceSetting(), String8("KalTrScope/4"));
        {
            Kal::TraceCapture inner;
            EXPECT_EQ(Kal::traceSink(), Kal::Ptr<Kal::TraceSink>(&inner.sink()));
            EXPECT_EQ(Kal::traceSetting(), String8("KalTrScope/4"));
        }
        EXPECT_EQ(Kal::traceSink(), Kal::Ptr<Kal::TraceSink>(&capture.sink()));
    }
    EXPECT_EQ(Kal::traceSink(), before);
    EXPECT_EQ(Kal::traceSetting(), String8("KalTrScope/1"));
    EXPECT_EQ(Kal::traceHandle("KalTrScope").levels(), 1u << 1);

    // A refused setting installs nothing.
    EXPECT_THROW(Kal::TraceCapture bad("KalTrScope/x"), Kal::RangeException);
    EXPECT_EQ(Kal::traceSink(), before);
    EXPECT_EQ(Kal::traceSetting(), String8("KalTrScope/1"));
}

// A sink that traces while writing: the inner statement must neither deadlock nor recurse.
class TracingSink : public Kal::CaptureTraceSink {
  public:
    void write(Kal::TraceRecord const& record) override {
        Kal::CaptureTraceSink::write(record);
        KAL_TRACE_TO(Kal::traceHandle("KalTrNested"), "Nested", 0, "from inside the sink");
    }
};

TEST_F(TracingTest, StatementIssuedFromInsideTheSinkIsDropped) {
    Kal::traceSettingIs("KalTrNested/0");
    Kal::Ptr<TracingSink> sink = new TracingSink;
    Kal::traceSinkIs(sink);
    KAL_TRACE_TO(Kal::traceHandle("KalTrNested"), "Nested", 0, "outer");
    KAL_TRACE_TO(Kal::traceHandle("KalTrNested"), "Nested", 0, "second");
    EXPECT_EQ(sink->texts(), (Strings{"outer", "second"}));
}

// ---- Line form and the default sink ------------------------------------------------------

TEST_F(TracingTest, TraceLineGivesFacilityLevelSourceLineAndMessage) {
    Kal::TraceRecord const record{"RidgeRoutingSm", 0, "RoutingSm", 42, "handleRouting",
                                  "void Ridge::RoutingSm::handleRouting() for vrf blue not init!!"};
    EXPECT_EQ(Kal::traceLine(record), "RidgeRoutingSm/0 RoutingSm:42 void "
                                      "Ridge::RoutingSm::handleRouting() for vrf blue not init!!");

    Kal::TraceRecord const withObject{"RidgeRouting6Sm", 0, "Routing6Sm", 7, "handleRouting",
                                      "void Ridge::Routing6Sm::handleRouting() enabled: 1",
                                      "<unknown>"};
    EXPECT_EQ(Kal::traceLine(withObject), "RidgeRouting6Sm/0 Routing6Sm:7 <unknown>: void "
                                          "Ridge::Routing6Sm::handleRouting() enabled: 1");

    // Line breaks inside the message cannot split the record over several lines.
    Kal::TraceRecord const multiLine{"F", 9, "S", 1, "void f()", "a\nb\\n\rc"};
    EXPECT_EQ(Kal::traceLine(multiLine), "F/9 S:1 a\\nb\\\\n\\rc");
}

// Runs `body` with fd 2 redirected into a pipe and returns what was written to it.
template <class Body> std::string capturedStderr(Body body) {
    int fds[2];
    if (::pipe(fds) != 0) {
        ADD_FAILURE() << "pipe failed";
        return {};
    }
    std::fflush(stderr);
    int const saved = ::dup(2);
    ::dup2(fds[1], 2);
    ::close(fds[1]);
    body();
    std::fflush(stderr);
    ::dup2(saved, 2);
    ::close(saved);
    std::string out;
    char buf[512];
    for (ssize_t n; (n = ::read(fds[0], buf, sizeof buf)) > 0;)
        out.append(buf, static_cast<std::size_t>(n));
    ::close(fds[0]);
    return out;
}

TEST_F(TracingTest, DefaultSinkWritesOneLinePerRecordToStderr) {
    ASSERT_EQ(Kal::traceSink(), Kal::defaultTraceSink());
    Kal::traceSettingIs("KalTracingTest/2");
    int line1 = 0;
    int line2 = 0;
    std::string const out = capturedStderr([&] {
        line1 = TracingProbe::emit(5);
        TracingProbe::emitAt(3, 6); // off
        line2 = TracingProbe::emitAt(2, 7);
    });
    EXPECT_EQ(out, "KalTracingTest/2 TracingTest:" + std::to_string(line1) +
                       " int TracingProbe::emit(int) value 5 done\n"
                       "KalTracingTest/2 TracingTest:" +
                       std::to_string(line2) +
                       " int TracingProbe::emitAt(int, int) at 2 value 7\n");
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
    Kal::coverageStreamIs(nullptr);

    // The sink has every enabled record, whole, each thread's in that thread's order.
    auto const texts = capture.texts();
    ASSERT_EQ(texts.size(), std::size_t(threadCount * perThread));
    std::vector<int> next(threadCount, 0);
    for (auto const& text : texts) {
        int value = -1;
        ASSERT_EQ(std::sscanf(text.charPtr(), "int TracingProbe::emitAt(int, int) at 3 value %d", &value), 1) << text;
        ASSERT_TRUE(value >= 0 && value / 1000 < threadCount) << text;
        EXPECT_EQ(text, String8("int TracingProbe::emitAt(int, int) at 3 value " +
                               std::to_string(value)));
        EXPECT_EQ(value % 1000, next[value / 1000]++) << "out of its thread's order: " << text;
    }

    // The coverage stream has every composed record as a line of its own.
    int const line = TracingProbe::emitAt(0, 0); // off, and no coverage now: just its line
    std::vector<std::string> expected;
    for (int level : {3, 4}) {
        for (int value = 0; value < threadCount * 1000; value += 1000) {
            for (int i = 0; i < perThread; ++i) {
                expected.push_back("KalTracingTest/" + std::to_string(level) +
                                   " TracingTest:" + std::to_string(line) +
                                   " int TracingProbe::emitAt(int, int) at " +
                                   std::to_string(level) + " value " + std::to_string(value + i));
            }
        }
    }
    std::vector<std::string> written;
    std::istringstream lines(coverage.str());
    for (std::string l; std::getline(lines, l);) written.push_back(l);
    std::sort(expected.begin(), expected.end());
    std::sort(written.begin(), written.end());
    ASSERT_EQ(written.size(), expected.size());
    auto const [w, e] = std::mismatch(written.begin(), written.end(), expected.begin());
    EXPECT_TRUE(w == written.end()) << "written: " << *w << "\nexpected: " << *e;
}

TEST_F(TracingTest, HandlesAreCreatedAndEnabledSafelyFromManyThreads) {
    constexpr int threadCount = 4;
    constexpr int rounds = 300;
    Kal::TraceCapture capture;
    // Two settings that never enable level 5 of either facility.
    char const* const settings[] = {"KalTrRaceA/1,KalTrRaceB/2", "KalTrRaceA/3,KalTrRaceB/1+3"};
    std::atomic<bool> stop{false};

    std::thread switcher([&] {
        for (int n = 0; !stop.load(); ++n) Kal::traceSettingIs(settings[n % 2]);
    });
    std::vector<Kal::TraceHandle const*> seenA(threadCount);
    std::vector<Kal::TraceHandle const*> seenB(threadCount);
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
        EXPECT_NE(r.level, 5);
        if (a) {
            EXPECT_NE(r.level, 2);
        }
        EXPECT_EQ(r.text, String8((a ? "a " : "b ") + std::to_string(r.level)));
    }
    // Once the switching stops, every handle has the levels of the setting left in force.
    Kal::traceSettingIs(settings[1]);
    EXPECT_EQ(Kal::traceHandle("KalTrRaceA").levels(), 1u << 3);
    EXPECT_EQ(Kal::traceHandle("KalTrRaceB").levels(), (1u << 1) | (1u << 3));
}

} // namespace

namespace {

TEST(TracingObjectTest, ObjectNameIsRecordedAndOnlyComposedWhenOn) {
    Kal::TraceCapture capture("KalTrObject/0");
    auto& h = Kal::traceHandle("KalTrObject");
    int evaluations = 0;
    auto object = [&] {
        ++evaluations;
        return std::string("<unknown>");
    };
    KAL_TRACE_OBJECT_TO(h, "Obj", object(), 1, "off");
    EXPECT_EQ(evaluations, 0) << "the object of a trace that is off is not evaluated";
    KAL_TRACE_OBJECT_TO(h, "Obj", object(), 0, "on");
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].object, Kal::String8("<unknown>"));
    EXPECT_EQ(capture.records()[0].text, Kal::String8("on"));
    EXPECT_EQ(evaluations, 1);
}

} // namespace
