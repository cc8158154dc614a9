// What every table has in common: the errors and their classes, reading-only attachments,
// the detached table and its dummy kind, one writer at a time, attach errors, maintenance
// calls, and observing changes.
#include "StrataTestSupport.h"

#include "Kal/Exception.h"
#include "Kal/Tracing.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

namespace {

using Strata::ExceptionId;
using FS = Strata::Fib::ForwardingStatus;
using Strata::Fib::FecId;
using strata_test::fecVersion;
using strata_test::raised;
using strata_test::smallFecCapacity;
using strata_test::TablePrefix;

// ---- exceptions -------------------------------------------------------------------------------

TEST(StrataExceptionTest, IdsNamesAndConversionToTheFrameworkException) {
    // The ids in their order, by name.
    char const* const idNames[] = {"memoryResource", "corruptionDetected", "tableFull",
                                   "noPermission", "unimplemented", "invalidInitialize", "timeout",
                                   "duplicateWriter", "connection", "runtime"};
    for (U8 i = 0; i < 10; ++i) {
        EXPECT_STREQ(Strata::exceptionIdName(ExceptionId(i)), idNames[i]) << int(i);
    }

    Strata::NoPermissionException const np("write to read-only Strata table");
    Strata::CorruptionDetectedException const cd("StrataMap::corruptionDetected() x");
    Strata::UnimplementedException const un("readerCounters() not implemented");
    Strata::RuntimeException const rt("r");
    Strata::Exception const plain(ExceptionId::timeout_, "t");
    struct Case {
        Strata::Exception const& e; // the name is the class raised, also through the base
        char const* name;
        ExceptionId id;
    };
    for (Case c : {Case{np, "NoPermissionException", ExceptionId::noPermission_},
                   Case{cd, "CorruptionDetectedException", ExceptionId::corruptionDetected_},
                   Case{un, "UnimplementedException", ExceptionId::unimplemented_},
                   Case{rt, "RuntimeException", ExceptionId::runtime_},
                   Case{plain, "Exception", ExceptionId::timeout_}}) {
        EXPECT_STREQ(c.e.name(), c.name);
        EXPECT_EQ(c.e.id(), c.id) << c.name;
    }
    EXPECT_STREQ(np.what(), "write to read-only Strata table");

    try {
        KalStrata::throwKalStrataException(cd);
        ADD_FAILURE() << "nothing raised";
    } catch (Kal::Exception const& e) {
        EXPECT_EQ(e.message(), Kal::String8("StrataMap::corruptionDetected() x"));
        EXPECT_TRUE(e.hasId(Kal::ExceptionId::table_));
        EXPECT_TRUE(e.hasId(Kal::ExceptionId::generic_));
    }
}

// ---- reading-only attachments -----------------------------------------------------------------

// The helper's "reader-errors" attaches readers in another process, makes these calls
// through them and reports each outcome.
TEST(StrataReadOnlyTableTest, WritesRemovesAndMaintenanceAreRefused) {
    TablePrefix prefix;
    auto w = FS::writer(prefix, smallFecCapacity(8, 4));
    auto rw = Strata::Fib::RouteStatus::writer(prefix, Strata::RouteCapacity{8});
    w->fecIs(*fecVersion(1, 0));
    int out = -1;
    pid_t const pid = strata_test::spawnHelper({"reader-errors", prefix}, &out);
    std::string const text = strata_test::drain(out);
    ASSERT_EQ(strata_test::waitChild(pid), 0) << text;
    EXPECT_EQ(text, "fecIs: NoPermissionException write to read-only Strata table\n"
                    "fecDirectWrite: NoPermissionException write to read-only Strata table\n"
                    "fecCommit: NoPermissionException write to read-only Strata table\n"
                    "fecDel: NoPermissionException remove to read-only Strata table\n"
                    "routeIs: NoPermissionException write to read-only Strata table\n"
                    "routeDel: NoPermissionException remove to read-only Strata table\n"
                    "cleanup: NoPermissionException cleanup to read-only Strata table\n"
                    "validateFiles: NoPermissionException validateFiles to read-only Strata table\n"
                    "validate: NoPermissionException validate to read-only Strata table\n"
                    "writerCounters: UnimplementedException writerCounters() not implemented\n"
                    "fecs 1\n");
    // Nothing changed; a reader here is read-only too, and still reads.
    EXPECT_EQ(w->fecs(), 1u);
    auto r = FS::reader(prefix);
    EXPECT_TRUE(r->readOnly());
    EXPECT_EQ(raised<Strata::NoPermissionException>([&] { r->fecDel(FecId(1)); }),
              "remove to read-only Strata table");
    EXPECT_TRUE(r->fec(FecId(1)).has_value());
    EXPECT_EQ(r->readerCounters().lookups, 1u);
}

// ---- the detached table -----------------------------------------------------------------------

TEST(StrataDetachedTableTest, DummyKindTracesAndDoesNothingElse) {
    Kal::TraceCapture capture("StrataBase/0");
    FS::Ptr t = new FS("spare");
    EXPECT_EQ(capture.texts(), (std::vector<Kal::String8>{"StrataBaseDummy::initialize() spare"}));
    EXPECT_FALSE(t->attached());
    EXPECT_NE(dynamic_cast<Strata::StrataBaseDummy*>(t->kind().ptr()), nullptr);
    // Reads find nothing; maintenance does nothing; statistics are not kept.
    EXPECT_FALSE(t->fec(FecId(1)).has_value());
    EXPECT_EQ(t->fecs(), 0u);
    EXPECT_FALSE(t->fecIteratorConst());
    EXPECT_EQ(t->cleanup(), 0u);
    t->validate();
    t->validateFiles();
    using UE = Strata::UnimplementedException;
    EXPECT_EQ(raised<UE>([&] { t->writerCounters(); }), "writerCounters() not implemented");
    EXPECT_EQ(raised<UE>([&] { t->readerCounters(); }), "readerCounters() not implemented");
    // Writes have nowhere to go.
    ExceptionId id{};
    EXPECT_EQ(raised<Strata::Exception>([&] { t->fecIs(*fecVersion(1, 0)); }, &id),
              "write to detached Strata table spare");
    EXPECT_EQ(id, ExceptionId::connection_);
    EXPECT_EQ(raised<Strata::Exception>([&] { t->fecDel(FecId(1)); }),
              "remove to detached Strata table spare");
    EXPECT_EQ(raised<Strata::RuntimeException>([&] { t->fecDirectWrite(FecId(1)); }),
              "StrataMap::directWrite() in no man's land");
    EXPECT_EQ(capture.texts().size(), 1u) << "only initialize and detach trace";

    // Attaching detaches the dummy; detaching installs a new one.
    TablePrefix prefix;
    t->attach(prefix, Strata::Access::writer_, smallFecCapacity(4, 4));
    EXPECT_TRUE(t->attached());
    t->detach();
    EXPECT_FALSE(t->attached());
    EXPECT_EQ(capture.texts(), (std::vector<Kal::String8>{"StrataBaseDummy::initialize() spare",
                                                          "StrataBaseDummy::detach() spare",
                                                          "StrataBaseDummy::initialize() spare"}));
}

TEST(StrataDetachedTableTest, IteratorOfADetachedTableStops) {
    TablePrefix prefix;
    auto t = FS::writer(prefix, smallFecCapacity(8, 4));
    for (U64 id = 1; id <= 3; ++id) t->fecIs(*fecVersion(id, 0));
    auto it = t->fecIteratorConst();
    ASSERT_TRUE(it);
    U64 const first = it.key().value();
    t->detach();
    EXPECT_EQ(it.key().value(), first) << "the current FEC is the iterator's own copy";
    ++it;
    EXPECT_TRUE(it.isEnd());
}

// ---- one writer -------------------------------------------------------------------------------

TEST(StrataOneWriterTest, SecondWriterIsRefusedUntilTheFirstLetsGoOrDies) {
    TablePrefix prefix;
    auto first = FS::writer(prefix, smallFecCapacity(8, 4));
    ExceptionId id{};
    std::string const m = raised<Strata::Exception>([&] { FS::writer(prefix); }, &id);
    EXPECT_EQ(id, ExceptionId::duplicateWriter_) << m;
    EXPECT_EQ(m, "Strata table " + prefix.file("fib4-fec") + " already has a writer");
    // Readers are welcome meanwhile.
    auto r = FS::reader(prefix);
    first->fecIs(*fecVersion(9, 0));
    first = nullptr; // destroying the writer releases the table
    EXPECT_TRUE(FS::writer(prefix)->fec(FecId(9)).has_value());
    EXPECT_TRUE(r->fec(FecId(9)).has_value());

    // A writer in another process holds the table until it dies; the kernel drops its lock.
    int out = -1;
    TablePrefix other;
    pid_t const pid = strata_test::spawnHelper({"hold-writer", other}, &out);
    ASSERT_EQ(strata_test::readLine(out), "ready");
    id = {};
    raised<Strata::Exception>([&] { FS::writer(other); }, &id);
    EXPECT_EQ(id, ExceptionId::duplicateWriter_);
    ::kill(pid, SIGKILL);
    EXPECT_EQ(strata_test::waitChild(pid), 128 + SIGKILL);
    ::close(out);
    auto w = FS::writer(other);
    EXPECT_TRUE(w->attached());
    EXPECT_EQ(w->writerGeneration(), 2u);
}

// ---- attaching --------------------------------------------------------------------------------

TEST(StrataAttachTest, BadNamesCapacitiesAndMissingTablesAreRefused) {
    TablePrefix prefix;
    ExceptionId id{};
    EXPECT_EQ(raised<Strata::Exception>([&] { FS::reader(prefix); }, &id),
              "no Strata table " + prefix.file("fib4-fec"));
    EXPECT_EQ(id, ExceptionId::connection_);

    for (std::string const& bad :
         std::vector<std::string>{"", "a/b", "..", "-x", "sp ace", std::string(129, 'p')}) {
        auto const m = raised<Strata::Exception>([&] { FS::writer(bad, {}); }, &id);
        EXPECT_EQ(id, ExceptionId::invalidInitialize_) << bad;
        EXPECT_EQ(m.rfind("invalid Strata table prefix '" + bad + "'", 0), 0u) << m;
    }
    std::string m =
        raised<Strata::Exception>([&] { FS::writer(prefix, smallFecCapacity(0, 4)); }, &id);
    EXPECT_EQ(id, ExceptionId::invalidInitialize_);
    EXPECT_NE(m.find("maxRecords 0 outside"), std::string::npos) << m;
    EXPECT_FALSE(strata_test::fileExists(prefix.file("fib4-fec"))) << "a refused table, no file";

    auto t = FS::writer(prefix, smallFecCapacity(4, 4));
    m = raised<Strata::Exception>([&] { t->attach(prefix, Strata::Access::reader_); }, &id);
    EXPECT_EQ(id, ExceptionId::invalidInitialize_) << m;
    EXPECT_TRUE(t->attached());
}

TEST(StrataAttachTest, MemoryThatCannotBeReservedIsAnErrorAtCreation) {
    TablePrefix prefix;
    ExceptionId id{};
    auto const huge = smallFecCapacity(1u << 28, 1u << 26);
    using FS6 = Strata::Fib6::ForwardingStatus;
    std::string const m = raised<Strata::Exception>([&] { FS6::writer(prefix, huge); }, &id);
    EXPECT_EQ(id, ExceptionId::memoryResource_) << m;
    EXPECT_FALSE(Strata::StrataTable::removeFiles(prefix)) << "no table, no temporary file left";
}

TEST(StrataAttachTest, ExistingTableKeepsItsCapacityAndCountsWriters) {
    TablePrefix prefix;
    auto t = FS::writer(prefix, smallFecCapacity(10, 4));
    U64 const id = t->creationId();
    EXPECT_EQ(t->writerGeneration(), 1u);
    t->fecIs(*fecVersion(3, 0));
    t->detach();
    t->attach(prefix, Strata::Access::writer_, smallFecCapacity(1000, 400));
    EXPECT_EQ(t->fecCapacity(), 10u);
    EXPECT_EQ(t->fecClassCapacity(7), 4u);
    EXPECT_EQ(t->creationId(), id);
    EXPECT_EQ(t->writerGeneration(), 2u);
    EXPECT_TRUE(t->fec(FecId(3)).has_value());
    // A table removed and made again is another table.
    t->detach();
    Strata::StrataTable::removeFiles(prefix);
    t->attach(prefix, Strata::Access::writer_, smallFecCapacity(10, 4));
    EXPECT_NE(t->creationId(), id);
    EXPECT_EQ(t->fecs(), 0u);
}

// ---- maintenance and observation --------------------------------------------------------------

TEST(StrataMaintenanceTest, ValidateFilesNoticesAReplacedFile) {
    TablePrefix prefix;
    auto t = FS::writer(prefix, smallFecCapacity(4, 4));
    t->validateFiles();
    t->validate();
    // Someone removes the file and makes another under the name.
    Strata::StrataTable::removeFiles(prefix);
    auto other = FS::writer(prefix, smallFecCapacity(4, 4));
    ExceptionId id{};
    std::string const m = raised<Strata::Exception>([&] { t->validateFiles(); }, &id);
    EXPECT_EQ(id, ExceptionId::connection_);
    EXPECT_NE(m.find("no longer names the attached"), std::string::npos) << m;
    other->validateFiles();
}

TEST(StrataMaintenanceTest, CleanupRemovesTemporaryFilesOfDeadCreatorsOnly) {
    TablePrefix prefix;
    auto t = FS::writer(prefix, smallFecCapacity(4, 4));
    pid_t const dead = ::fork();
    if (dead == 0) ::_exit(0);
    strata_test::waitChild(dead);
    std::string const deadTmp = prefix.file("fib4-fec") + ".tmp." + std::to_string(dead) + ".1";
    std::string const liveTmp = prefix.file("fib4-fec") + ".tmp.1.1"; // pid 1 lives
    for (auto const& p : {deadTmp, liveTmp}) ::close(::open(p.c_str(), O_CREAT | O_WRONLY, 0644));
    EXPECT_EQ(t->cleanup(), 1u);
    EXPECT_FALSE(strata_test::fileExists(deadTmp));
    EXPECT_TRUE(strata_test::fileExists(liveTmp));
    ::unlink(liveTmp.c_str());
}

TEST(StrataObserveTest, ChangeSequenceMovesWithEveryChangeAndCanBeWaitedFor) {
    TablePrefix prefix;
    auto w = FS::writer(prefix, smallFecCapacity(8, 4));
    auto r = FS::reader(prefix);
    // Odd only inside a change: 2 per change, and even whenever the writer is between changes.
    U32 const s0 = r->changeSeq();
    EXPECT_EQ(s0 % 2, 0u);
    w->fecIs(*fecVersion(1, 0));
    EXPECT_EQ(r->changeSeq(), s0 + 2);
    w->fecDel(FecId(1));
    EXPECT_EQ(r->changeSeq(), s0 + 4);
    EXPECT_FALSE(w->fecDel(FecId(1)));
    EXPECT_EQ(r->changeSeq(), s0 + 4) << "removing nothing is no change";
    EXPECT_FALSE(r->waitForChange(s0 + 4, std::chrono::milliseconds(20)));
    std::thread later([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        w->fecIs(*fecVersion(2, 0));
    });
    EXPECT_TRUE(r->waitForChange(s0 + 4, std::chrono::milliseconds(5000)));
    later.join();
    EXPECT_TRUE(r->fec(FecId(2)).has_value());
}

} // namespace
