// Corrupt and truncated table files: each kind of damage is reported as corruption with a
// message naming it and a report file beside the table, for readers and for writers, and
// never crashes; random damage never does either.
#include "StrataTestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>

namespace {

using Strata::Fib::FecId;
using Strata::layout::FileHeader;
using Strata::layout::refOf;
using strata_test::fecVersion;
using strata_test::MappedFile;
using strata_test::TablePrefix;

// A small IPv4 FEC table holding FECs 1..6 at versions k % 4, detached: FEC 2 (one via) is
// in slot 0 of class 0, FEC 4 in slot 1, FEC 6 in slot 2; FECs 1 and 5 (128 vias) in class 7.
void makeTable(TablePrefix const& prefix) {
    auto t = Strata::Fib::ForwardingStatus::writer(prefix, strata_test::smallFecCapacity(16, 8));
    for (U64 k = 1; k <= 6; ++k) t->fecIs(*fecVersion(k, U32(k % 4)));
}

// The corruption message `op` raises for the table file at `path`, after checking the report
// file beside it; a marker text when op raises something else or nothing.
std::string corruption(std::string const& path, std::function<void()> const& op) {
    std::string const report = path + ".corruption-report";
    ::unlink(report.c_str());
    try {
        op();
    } catch (Strata::CorruptionDetectedException const& e) {
        std::string const m = e.msg().stringValue();
        EXPECT_EQ(m.rfind("StrataMap::corruptionDetected() " + path + ": ", 0), 0u) << m;
        EXPECT_EQ(e.id(), Strata::ExceptionId::corruptionDetected_);
        std::string const text = strata_test::readFile(report);
        EXPECT_NE(text.find(m), std::string::npos) << "the report holds the message: " << text;
        EXPECT_NE(text.find("process " + std::to_string(::getpid())), std::string::npos) << text;
        return m;
    } catch (Strata::Exception const& e) {
        return std::string("<") + e.name() + "> " + e.msg().stringValue();
    }
    return "<no corruption found>";
}

// The corruption message a reader or a writer attaching the FEC table raises.
std::string attachCorruption(TablePrefix const& prefix, bool writer) {
    return corruption(prefix.file("fib4-fec"), [&] {
        if (writer) {
            Strata::Fib::ForwardingStatus::writer(prefix);
        } else {
            Strata::Fib::ForwardingStatus::reader(prefix);
        }
    });
}

struct HeaderCase {
    char const* name;
    std::function<void(FileHeader&)> change;
    bool reseal;         // the checksum made to fit the change
    char const* message; // part of the message
};

class StrataHeaderDamageTest : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(StrataHeaderDamageTest, ReadersAndWritersRefuseTheFile) {
    TablePrefix prefix;
    makeTable(prefix);
    {
        MappedFile f(prefix.file("fib4-fec"));
        GetParam().change(f.header());
        if (GetParam().reseal) f.reseal();
    }
    for (bool writer : {false, true}) {
        std::string const m = attachCorruption(prefix, writer);
        EXPECT_NE(m.find(GetParam().message), std::string::npos)
            << (writer ? "writer: " : "reader: ") << m;
    }
}

INSTANTIATE_TEST_SUITE_P(
    StrataCorruptionTest, StrataHeaderDamageTest,
    ::testing::Values(
        HeaderCase{"BadMagic", [](FileHeader& h) { h.magic ^= 1; }, false, "header: bad magic 0x"},
        HeaderCase{"OtherVersion", [](FileHeader& h) { h.version = 2; }, true,
                   "header: layout version 2, this build reads 1"},
        HeaderCase{"OtherByteOrder", [](FileHeader& h) { h.byteOrder = 0x04030201u; }, true,
                   "header: byte order marker 0x4030201"},
        HeaderCase{"ChecksumMismatch", [](FileHeader& h) { h.maxRecords += 1; }, false,
                   "header: checksum 0x"},
        HeaderCase{"OtherTableKind", [](FileHeader& h) { h.tableKind = 2; }, true,
                   "header: ABI signature differs: table kind 2, this build 1"},
        HeaderCase{"OtherViaSize", [](FileHeader& h) { h.viaSize = 24; }, true,
                   "header: ABI signature differs: via size 24, this build 12"},
        HeaderCase{"OtherAdjTypePos", [](FileHeader& h) { h.adjTypePos = 40; }, true,
                   "header: ABI signature differs: adjTypePos 40, this build 48"},
        HeaderCase{"IndexOutsideTheFile", [](FileHeader& h) { h.indexOffset = h.fileSize; },
                   true, "header: index at"},
        HeaderCase{"OverlappingClasses",
                   [](FileHeader& h) { h.classes[3].offset = h.classes[2].offset; }, true,
                   "header: size class at"},
        HeaderCase{"SlotCountNotCapacityPlusOne",
                   [](FileHeader& h) { h.classes[1].slotCount += 1; }, true,
                   "header: size class 1 has 10 slots for capacity 8"},
        HeaderCase{"ImpossibleIndexSize", [](FileHeader& h) { h.indexEntries = h.maxRecords; },
                   true, "header: index of 16 entries for 16 records"}),
    [](auto const& info) { return std::string(info.param.name); });

TEST(StrataCorruptionTest, TruncatedAndEmptyFilesAreCorruptNotFatal) {
    TablePrefix prefix;
    makeTable(prefix);
    std::string const path = prefix.file("fib4-fec");
    auto const size = strata_test::readFile(path).size();
    ASSERT_EQ(::truncate(path.c_str(), off_t(size / 2)), 0);
    std::string const half = "header: file is " + std::to_string(size / 2) +
                             " bytes, the header says " + std::to_string(size);
    for (bool writer : {false, true}) {
        EXPECT_NE(attachCorruption(prefix, writer).find(half), std::string::npos);
    }
    ASSERT_EQ(::truncate(path.c_str(), 100), 0);
    std::string m = attachCorruption(prefix, false);
    EXPECT_NE(m.find("file is 100 bytes, shorter than its 672-byte header"), std::string::npos)
        << m;
    ASSERT_EQ(::truncate(path.c_str(), 0), 0);
    m = attachCorruption(prefix, true);
    EXPECT_NE(m.find("file is 0 bytes"), std::string::npos) << m;
}

// Damage past the header: found by the writer's recovery scan, and by readers when they reach it.
TEST(StrataCorruptionTest, ImpossibleReferencesAndRecordsAreFound) {
    struct Case {
        char const* name;
        std::function<void(MappedFile&)> damage;
        char const* writerMessage;
        char const* readerMessage; // what a reader looking FEC 2 up meets (null: not checked)
    };
    Case const cases[] = {
        {"ReferenceOutsideItsClass",
         [](MappedFile& f) { f.entryOf(refOf(0, 0)).ref = refOf(0, 999); },
         "slot reference 0x3e80 outside the table", "slot reference 0x3e80 outside the table"},
        {"ReferenceToAClassThatDoesNotExist",
         [](MappedFile& f) { f.entryOf(refOf(0, 0)).ref = refOf(12, 0); },
         "slot reference 0x1c outside the table", "slot reference 0x1c outside the table"},
        {"TagNotTheHashOfTheKey", [](MappedFile& f) { f.entryOf(refOf(0, 0)).tag ^= 1; },
         "is not the hash of its key", nullptr},
        {"ViaPositionsBeyond128",
         [](MappedFile& f) { f.slot(0, 0)[1] = (f.slot(0, 0)[1] & 0xFF00FFFFu) | (200u << 16); },
         "via positions beyond 128", "via positions beyond 128"},
        {"ViaCountDisagrees", [](MappedFile& f) { f.slot(0, 0)[4] += 1u << 16; },
         "via count differs from the dense positions", "via count differs"},
        {"ReferencedSlotIsFree", [](MappedFile& f) { f.slot(0, 0)[1] &= ~0xFFu; },
         "references free slot", nullptr},
        {"HighWaterBeyondTheClass", [](MappedFile& f) { f.header().classHighWater[0] = 1000; },
         "high-water mark 1000 above its 9 slots", nullptr},
        {"TwoEntriesForOneSlot",
         [](MappedFile& f) {
             // A second entry for FEC 2's slot right behind the first, in its probe run.
             auto& first = f.entryOf(refOf(0, 0));
             ASSERT_EQ((&first + 1)->ref, 0u) << "the test expects a free entry behind FEC 2's";
             *(&first + 1) = first;
         },
         "two index entries reference slot", nullptr},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.name);
        TablePrefix prefix;
        makeTable(prefix);
        {
            MappedFile f(prefix.file("fib4-fec"));
            c.damage(f);
        }
        if (c.readerMessage) {
            auto r = Strata::Fib::ForwardingStatus::reader(prefix);
            std::string const m = corruption(prefix.file("fib4-fec"), [&] { r->fec(FecId(2)); });
            EXPECT_NE(m.find(c.readerMessage), std::string::npos) << m;
        }
        std::string const m = attachCorruption(prefix, true);
        EXPECT_NE(m.find(c.writerMessage), std::string::npos) << m;
    }
}

TEST(StrataCorruptionTest, RandomDamageNeverCrashes) {
    // Whatever bytes a table file holds, attaching, reading, walking, recovering and writing
    // either work or raise a Strata error; the fuzz target (tests/fuzz/TableAttachFuzz.cpp)
    // explores the same far longer.
    TablePrefix prefix;
    makeTable(prefix);
    std::string const path = prefix.file("fib4-fec");
    std::string const pristine = strata_test::readFile(path);
    unsigned const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    int const rounds = strata_test::stressRequested() ? 20000 : 300;
    U32 refused = 0;
    auto f = std::make_unique<Strata::Fib::Fec>();
    Strata::AttachOptions o;
    o.readTimeoutMs = 2;
    for (int round = 0; round < rounds; ++round) {
        std::string bytes = pristine;
        for (U32 n = 1 + rng() % 8; n > 0; --n) {
            // Mostly the header, index and first slots, where damage matters most.
            std::size_t const at = rng() % 4 ? rng() % std::min<std::size_t>(bytes.size(), 2048)
                                             : rng() % bytes.size();
            bytes[at] = char(rng() % 3 ? rng() : bytes[at] ^ (1 << (rng() % 8)));
        }
        int const fd = ::open(path.c_str(), O_WRONLY | O_TRUNC);
        ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
        ::close(fd);
        try {
            bool const writer = rng() % 2;
            auto t = writer ? Strata::Fib::ForwardingStatus::writer(prefix, {}, o)
                            : Strata::Fib::ForwardingStatus::reader(prefix, o);
            for (U64 k = 0; k <= 8; ++k) (void)t->fec(FecId(k), *f);
            for (auto it = t->fecIteratorConst(); it; ++it) (void)it->vias();
            if (writer) {
                t->validate();
                t->fecIs(*fecVersion(7, 1));
                t->fecDel(FecId(2));
                t->validate();
            }
        } catch (Strata::Exception const&) {
            ++refused;
        }
    }
    std::printf("%d damaged files, %u refused\n", rounds, refused);
    EXPECT_GT(refused, 0u);
}

// A route slot whose prefix has a host bit set (or a length beyond the family's, or padding)
// is refused by a walk and by the writer's recovery.
template <class Table>
void expectNonCanonicalPrefixRefused(char const* suffix, typename Table::Route const& route,
                                     U32 byteToSpoil, U8 value, char const* message) {
    SCOPED_TRACE(std::string(suffix) + " byte " + std::to_string(byteToSpoil));
    TablePrefix prefix;
    Table::writer(prefix, Strata::RouteCapacity{4})->routeIs(route);
    std::string const path = prefix.file(suffix);
    {
        MappedFile f(path);
        reinterpret_cast<U8*>(f.slot(0, 0))[Strata::layout::keyOffset + byteToSpoil] = value;
    }
    std::string m = corruption(path, [&] {
        for (auto it = Table::reader(prefix)->routeIteratorConst(); it; ++it) {
        }
    });
    EXPECT_NE(m.find(message), std::string::npos) << "walk: " << m;
    m = corruption(path, [&] { Table::writer(prefix); });
    EXPECT_NE(m.find(message), std::string::npos) << "writer: " << m;
}

TEST(StrataCorruptionTest, RoutePrefixesMustBeCanonical) {
    using R4 = Strata::Fib::RouteStatus;
    using R6 = Strata::Fib6::RouteStatus;
    Strata::Fib::Route const r4(Velnet::Prefix::fromString("10.1.0.0/16"), FecId(1),
                                Routing::Fib::kernel_);
    // The address is a host-order word: byte 0 is its lowest octet (10.1.0.x).
    expectNonCanonicalPrefixRefused<R4>("fib4-route", r4, 0, 1, "prefix not canonical");
    expectNonCanonicalPrefixRefused<R4>("fib4-route", r4, 4, 33, "prefix length out of range");
    expectNonCanonicalPrefixRefused<R4>("fib4-route", r4, 6, 1, "prefix padding not zero");
    Strata::Fib6::Route const r6(Velnet::Ip6Prefix::fromString("2001:db8::/36"), FecId(1),
                                 Routing6::Fib::kernel_);
    // /36: byte 4 may use its top four bits only.
    expectNonCanonicalPrefixRefused<R6>("fib6-route", r6, 4, 0x08, "prefix not canonical");
    expectNonCanonicalPrefixRefused<R6>("fib6-route", r6, 15, 0x01, "prefix not canonical");
    expectNonCanonicalPrefixRefused<R6>("fib6-route", r6, 16, 129, "prefix length out of range");
}

} // namespace
