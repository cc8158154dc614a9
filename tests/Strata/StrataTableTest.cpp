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

using Strata::Fib::FecId;
using strata_test::smallFecCapacity;
using strata_test::TablePrefix;

template <class E, class F>
std::string raised(F f, Strata::ExceptionId* id = nullptr) {
    try {
        f();
    } catch (E const& e) {
        if (id) *id = e.id();
        return e.msg().stringValue();
    } catch (std::exception const& e) {
        return std::string("<other exception> ") + e.what();
    }
    return "<nothing raised>";
}

std::unique_ptr<Strata::Fib::Fec> oneViaFec(U64 id) {
    auto f = std::make_unique<Strata::Fib::Fec>(FecId(id));
    f->viaIs(0, strata_test::selfCheckVia<Strata::Fib::Fec>(id, 0, 0));
    return f;
}

// ---- exceptions -------------------------------------------------------------------------------

TEST(StrataExceptionTest, IdsNamesAndConversionToTheFrameworkException) {
    using Strata::ExceptionId;
    EXPECT_EQ(U8(ExceptionId::memoryResource_), 0);
    EXPECT_EQ(U8(ExceptionId::corruptionDetected_), 1);
    EXPECT_EQ(U8(ExceptionId::tableFull_), 2);
    EXPECT_EQ(U8(ExceptionId::noPermission_), 3);
    EXPECT_EQ(U8(ExceptionId::unimplemented_), 4);
    EXPECT_EQ(U8(ExceptionId::invalidInitialize_), 5);
    EXPECT_EQ(U8(ExceptionId::timeout_), 6);
    EXPECT_EQ(U8(ExceptionId::duplicateWriter_), 7);
    EXPECT_EQ(U8(ExceptionId::connection_), 8);
    EXPECT_EQ(U8(ExceptionId::runtime_), 9);
    EXPECT_STREQ(Strata::exceptionIdName(ExceptionId::tableFull_), "tableFull");

    Strata::NoPermissionException const np("write to read-only Strata table");
    Strata::CorruptionDetectedException const cd("StrataMap::corruptionDetected() x");
    Strata::UnimplementedException const un("readerCounters() not implemented");
    Strata::RuntimeException const rt("r");
    Strata::Exception const plain(ExceptionId::timeout_, "t");
    EXPECT_STREQ(np.name(), "NoPermissionException");
    EXPECT_STREQ(cd.name(), "CorruptionDetectedException");
    EXPECT_STREQ(un.name(), "UnimplementedException");
    EXPECT_STREQ(rt.name(), "RuntimeException");
    EXPECT_STREQ(plain.name(), "Exception");
    EXPECT_EQ(np.id(), ExceptionId::noPermission_);
    EXPECT_EQ(cd.id(), ExceptionId::corruptionDetected_);
    EXPECT_EQ(un.id(), ExceptionId::unimplemented_);
    EXPECT_EQ(rt.id(), ExceptionId::runtime_);
    Strata::Exception const& base = np;
    EXPECT_STREQ(base.name(), "NoPermissionException") << "the name is the class raised";
    EXPECT_STREQ(base.what(), "write to read-only Strata table");

    try {
        KalStrata::throwKalStrataException(cd);
    } catch (Kal::Exception const& e) {
        EXPECT_EQ(e.message(), Kal::String8("StrataMap::corruptionDetected() x"));
        EXPECT_TRUE(e.hasId(Kal::ExceptionId::table_));
        EXPECT_TRUE(e.hasId(Kal::ExceptionId::generic_));
    }
}

// ---- reading-only attachments -----------------------------------------------------------------

TEST(StrataReadOnlyTableTest, WritesRemovesAndMaintenanceAreRefused) {
    TablePrefix prefix;
    auto w = Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(8, 4));
    auto rw = Strata::Fib::RouteStatus::writer(prefix, Strata::RouteCapacity{8});
    w->fecIs(*oneViaFec(1));
    auto r = Strata::Fib::ForwardingStatus::reader(prefix);
    auto rr = Strata::Fib::RouteStatus::reader(prefix);
    EXPECT_TRUE(r->readOnly());
    std::string const write = "write to read-only Strata table";
    std::string const remove = "remove to read-only Strata table";
    auto f = oneViaFec(2);
    using NP = Strata::NoPermissionException;
    EXPECT_EQ(raised<NP>([&] { r->fecIs(*f); }), write);
    EXPECT_EQ(raised<NP>([&] { r->fecDirectWrite(FecId(2)); }), write);
    EXPECT_EQ(raised<NP>([&] { r->fecCommit(f.get()); }), write);
    EXPECT_EQ(raised<NP>([&] { r->fecDel(FecId(1)); }), remove);
    EXPECT_EQ(raised<NP>([&] { rr->routeIs(strata_test::selfCheckRoute(1, 1)); }), write);
    EXPECT_EQ(raised<NP>([&] { rr->routeDel(strata_test::selfCheckRoutePrefix(1)); }), remove);
    EXPECT_EQ(raised<NP>([&] { r->cleanup(); }), "cleanup to read-only Strata table");
    EXPECT_EQ(raised<NP>([&] { r->validateFiles(); }), "validateFiles to read-only Strata table");
    EXPECT_EQ(raised<NP>([&] { r->validate(); }), "validate to read-only Strata table");
    EXPECT_EQ(raised<Strata::UnimplementedException>([&] { r->writerCounters(); }),
              "writerCounters() not implemented");
    // Nothing changed, and the reader still reads.
    EXPECT_EQ(r->fecs(), 1u);
    EXPECT_TRUE(r->fec(FecId(1)).has_value());
    EXPECT_EQ(r->readerCounters().lookups, 1u);
    EXPECT_EQ(w->fecs(), 1u);
}

TEST(StrataReadOnlyTableTest, ReaderInAnotherProcessIsRefusedToo) {
    TablePrefix prefix;
    auto w = Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(8, 4));
    auto rw = Strata::Fib::RouteStatus::writer(prefix, Strata::RouteCapacity{8});
    w->fecIs(*oneViaFec(1));
    int out = -1;
    pid_t const pid = strata_test::spawnHelper({"reader-errors", prefix}, &out);
    std::string const text = strata_test::drain(out);
    ASSERT_EQ(strata_test::waitChild(pid), 0) << text;
    EXPECT_EQ(text,
              "fecIs: NoPermissionException write to read-only Strata table\n"
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
    EXPECT_EQ(w->fecs(), 1u);
}

// ---- the detached table -----------------------------------------------------------------------

TEST(StrataDetachedTableTest, DummyKindTracesAndDoesNothingElse) {
    Kal::TraceCapture capture("StrataBase/0");
    Strata::Fib::ForwardingStatus::Ptr t = new Strata::Fib::ForwardingStatus("spare");
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
    EXPECT_EQ(raised<Strata::UnimplementedException>([&] { t->writerCounters(); }),
              "writerCounters() not implemented");
    EXPECT_EQ(raised<Strata::UnimplementedException>([&] { t->readerCounters(); }),
              "readerCounters() not implemented");
    // Writes have nowhere to go.
    Strata::ExceptionId id{};
    EXPECT_EQ(raised<Strata::Exception>([&] { t->fecIs(*oneViaFec(1)); }, &id),
              "write to detached Strata table spare");
    EXPECT_EQ(id, Strata::ExceptionId::connection_);
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
    auto t = Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(8, 4));
    for (U64 id = 1; id <= 3; ++id) t->fecIs(*oneViaFec(id));
    auto it = t->fecIteratorConst();
    ASSERT_TRUE(it);
    U64 const first = it.key().value();
    t->detach();
    EXPECT_EQ(it.key().value(), first) << "the current FEC is the iterator's own copy";
    ++it;
    EXPECT_TRUE(it.isEnd());
}

// ---- one writer -------------------------------------------------------------------------------

TEST(StrataOneWriterTest, SecondWriterIsRefusedUntilTheFirstLetsGo) {
    TablePrefix prefix;
    auto first = Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(8, 4));
    Strata::ExceptionId id{};
    std::string const m = raised<Strata::Exception>(
        [&] { Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(8, 4)); }, &id);
    EXPECT_EQ(id, Strata::ExceptionId::duplicateWriter_) << m;
    EXPECT_EQ(m, "Strata table " + prefix.file("fib4-fec") + " already has a writer");
    // Readers are welcome meanwhile.
    auto r = Strata::Fib::ForwardingStatus::reader(prefix);
    first->fecIs(*oneViaFec(9));
    first = nullptr; // destroying the writer releases the table
    auto second = Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(8, 4));
    EXPECT_TRUE(second->fec(FecId(9)).has_value());
    EXPECT_TRUE(r->fec(FecId(9)).has_value());
}

TEST(StrataOneWriterTest, WriterInAnotherProcessHoldsTheTableUntilItDies) {
    TablePrefix prefix;
    int out = -1;
    pid_t const pid = strata_test::spawnHelper({"hold-writer", prefix}, &out);
    ASSERT_EQ(strata_test::readLine(out), "ready");
    Strata::ExceptionId id{};
    raised<Strata::Exception>([&] { Strata::Fib::ForwardingStatus::writer(prefix); }, &id);
    EXPECT_EQ(id, Strata::ExceptionId::duplicateWriter_);
    ::kill(pid, SIGKILL);
    EXPECT_EQ(strata_test::waitChild(pid), 128 + SIGKILL);
    ::close(out);
    // The kernel dropped the dead writer's lock.
    auto w = Strata::Fib::ForwardingStatus::writer(prefix);
    EXPECT_TRUE(w->attached());
    EXPECT_EQ(w->writerGeneration(), 2u);
}

// ---- attaching --------------------------------------------------------------------------------

TEST(StrataAttachTest, BadNamesCapacitiesAndMissingTablesAreRefused) {
    TablePrefix prefix;
    Strata::ExceptionId id{};
    EXPECT_EQ(raised<Strata::Exception>([&] { Strata::Fib::ForwardingStatus::reader(prefix); }, &id),
              "no Strata table " + prefix.file("fib4-fec"));
    EXPECT_EQ(id, Strata::ExceptionId::connection_);

    for (std::string bad : std::vector<std::string>{"", "a/b", "..", "-x", "sp ace", std::string(129, 'p')}) {
        std::string const m = raised<Strata::Exception>(
            [&] { Strata::Fib::ForwardingStatus::writer(bad, smallFecCapacity(4, 4)); }, &id);
        EXPECT_EQ(id, Strata::ExceptionId::invalidInitialize_) << bad;
        EXPECT_EQ(m.rfind("invalid Strata table prefix '" + bad + "'", 0), 0u) << m;
    }
    std::string m = raised<Strata::Exception>(
        [&] { Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(0, 4)); }, &id);
    EXPECT_EQ(id, Strata::ExceptionId::invalidInitialize_);
    EXPECT_NE(m.find("maxRecords 0 outside"), std::string::npos) << m;
    EXPECT_FALSE(strata_test::fileExists(prefix.file("fib4-fec"))) << "a refused table leaves no file";

    auto t = Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(4, 4));
    m = raised<Strata::Exception>(
        [&] { t->attach(prefix, Strata::Access::reader_); }, &id);
    EXPECT_EQ(id, Strata::ExceptionId::invalidInitialize_) << m;
    EXPECT_TRUE(t->attached());
}

TEST(StrataAttachTest, MemoryThatCannotBeReservedIsAnErrorAtCreation) {
    TablePrefix prefix;
    Strata::FecCapacity huge = smallFecCapacity(1u << 28, 1u << 26);
    Strata::ExceptionId id{};
    std::string const m = raised<Strata::Exception>(
        [&] { Strata::Fib6::ForwardingStatus::writer(prefix, huge); }, &id);
    EXPECT_EQ(id, Strata::ExceptionId::memoryResource_) << m;
    EXPECT_FALSE(strata_test::fileExists(prefix.file("fib6-fec")));
    EXPECT_TRUE(Strata::StrataTable::removeFiles(prefix) == false) << "no temporary file is left";
}

TEST(StrataAttachTest, ExistingTableKeepsItsCapacityAndCountsWriters) {
    TablePrefix prefix;
    auto t = Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(10, 4));
    U64 const id = t->creationId();
    EXPECT_EQ(t->writerGeneration(), 1u);
    t->fecIs(*oneViaFec(3));
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
    auto t = Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(4, 4));
    t->validateFiles();
    t->validate();
    // Someone removes the file and makes another under the name.
    Strata::StrataTable::removeFiles(prefix);
    auto other = Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(4, 4));
    Strata::ExceptionId id{};
    std::string const m = raised<Strata::Exception>([&] { t->validateFiles(); }, &id);
    EXPECT_EQ(id, Strata::ExceptionId::connection_);
    EXPECT_NE(m.find("no longer names the attached"), std::string::npos) << m;
    other->validateFiles();
}

TEST(StrataMaintenanceTest, CleanupRemovesTemporaryFilesOfDeadCreatorsOnly) {
    TablePrefix prefix;
    auto t = Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(4, 4));
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
    auto w = Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(8, 4));
    auto r = Strata::Fib::ForwardingStatus::reader(prefix);
    // Odd only inside a change: 2 per change, and even whenever the writer is between changes.
    U32 const s0 = r->changeSeq();
    EXPECT_EQ(s0 % 2, 0u);
    w->fecIs(*oneViaFec(1));
    EXPECT_EQ(r->changeSeq(), s0 + 2);
    w->fecDel(FecId(1));
    EXPECT_EQ(r->changeSeq(), s0 + 4);
    EXPECT_FALSE(w->fecDel(FecId(1)));
    EXPECT_EQ(r->changeSeq(), s0 + 4) << "removing nothing is no change";
    EXPECT_FALSE(r->waitForChange(s0 + 4, std::chrono::milliseconds(20)));
    std::thread later([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        w->fecIs(*oneViaFec(2));
    });
    EXPECT_TRUE(r->waitForChange(s0 + 4, std::chrono::milliseconds(5000)));
    later.join();
    EXPECT_TRUE(r->fec(FecId(2)).has_value());
}

} // namespace
