// Corrupt and truncated table files: each kind of damage is reported as corruption with a
// message naming it and a report file beside the table, for readers and for writers, and
// never crashes; random damage never does either.
#include "StrataTestSupport.h"

#include "Strata/StrataLayout.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <random>

#include <sys/mman.h>

namespace {

using Strata::Fib::FecId;
using strata_test::smallFecCapacity;
using strata_test::TablePrefix;
using Strata::layout::FileHeader;

// Applies `damage` to the bytes of a table file (mapped writable).
void damage(std::string const& path, std::function<void(U8* bytes, std::size_t size)> const& f) {
    int const fd = ::open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    struct stat st {};
    ::fstat(fd, &st);
    auto* p = static_cast<U8*>(::mmap(nullptr, std::size_t(st.st_size), PROT_READ | PROT_WRITE,
                                      MAP_SHARED, fd, 0));
    ASSERT_NE(p, MAP_FAILED);
    f(p, std::size_t(st.st_size));
    ::munmap(p, std::size_t(st.st_size));
    ::close(fd);
}

FileHeader& hdr(U8* bytes) { return *reinterpret_cast<FileHeader*>(bytes); }
void reseal(U8* bytes) { hdr(bytes).checksum = Strata::layout::headerChecksum(bytes); }

std::unique_ptr<Strata::Fib::Fec> fecVersion(U64 k, U32 v) {
    auto f = std::make_unique<Strata::Fib::Fec>();
    strata_test::makeSelfCheckFec(k, v, *f);
    return f;
}

// A small IPv4 FEC table holding FECs 1..6, detached.
void makeTable(TablePrefix const& prefix) {
    auto t = Strata::Fib::ForwardingStatus::writer(prefix, smallFecCapacity(16, 8));
    for (U64 k = 1; k <= 6; ++k) t->fecIs(*fecVersion(k, U32(k % 4)));
}

// The corruption message `op` raises, after checking the report file beside the table.
std::string corruption(TablePrefix const& prefix, std::function<void()> const& op) {
    std::string const report = prefix.file("fib4-fec") + ".corruption-report";
    ::unlink(report.c_str());
    try {
        op();
    } catch (Strata::CorruptionDetectedException const& e) {
        std::string const m = e.msg().stringValue();
        EXPECT_EQ(m.rfind("StrataMap::corruptionDetected() " + prefix.file("fib4-fec") + ": ", 0), 0u)
            << m;
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

struct HeaderCase {
    char const* name;
    std::function<void(U8*, std::size_t)> damage;
    char const* message; // what the message says after "<file>: header: "
};

class StrataHeaderDamageTest : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(StrataHeaderDamageTest, ReadersAndWritersRefuseTheFile) {
    TablePrefix prefix;
    makeTable(prefix);
    damage(prefix.file("fib4-fec"), GetParam().damage);
    for (bool writer : {false, true}) {
        SCOPED_TRACE(writer ? "writer" : "reader");
        std::string const m = corruption(prefix, [&] {
            if (writer) {
                Strata::Fib::ForwardingStatus::writer(prefix);
            } else {
                Strata::Fib::ForwardingStatus::reader(prefix);
            }
        });
        EXPECT_NE(m.find(GetParam().message), std::string::npos) << m;
    }
}

INSTANTIATE_TEST_SUITE_P(
    StrataCorruptionTest, StrataHeaderDamageTest,
    ::testing::Values(
        HeaderCase{"BadMagic", [](U8* b, std::size_t) { b[0] ^= 1; }, "header: bad magic 0x"},
        HeaderCase{"OtherVersion",
                   [](U8* b, std::size_t) {
                       hdr(b).version = 2;
                       reseal(b);
                   },
                   "header: layout version 2, this build reads 1"},
        HeaderCase{"OtherByteOrder",
                   [](U8* b, std::size_t) {
                       hdr(b).byteOrder = 0x04030201u;
                       reseal(b);
                   },
                   "header: byte order marker 0x4030201"},
        HeaderCase{"ChecksumMismatch", [](U8* b, std::size_t) { hdr(b).maxRecords += 1; },
                   "header: checksum 0x"},
        HeaderCase{"OtherViaSize",
                   [](U8* b, std::size_t) {
                       hdr(b).viaSize = 24;
                       reseal(b);
                   },
                   "header: ABI signature differs: via size 24, this build 12"},
        HeaderCase{"OtherAdjTypePos",
                   [](U8* b, std::size_t) {
                       hdr(b).adjTypePos = 40;
                       reseal(b);
                   },
                   "header: ABI signature differs: adjTypePos 40, this build 48"},
        HeaderCase{"IndexOutsideTheFile",
                   [](U8* b, std::size_t) {
                       hdr(b).indexOffset = hdr(b).fileSize;
                       reseal(b);
                   },
                   "header: index at"},
        HeaderCase{"OverlappingClasses",
                   [](U8* b, std::size_t) {
                       hdr(b).classes[3].offset = hdr(b).classes[2].offset;
                       reseal(b);
                   },
                   "header: size class at"},
        HeaderCase{"SlotCountNotCapacityPlusOne",
                   [](U8* b, std::size_t) {
                       hdr(b).classes[1].slotCount += 1;
                       reseal(b);
                   },
                   "header: size class 1 has 10 slots for capacity 8"},
        HeaderCase{"ImpossibleIndexSize",
                   [](U8* b, std::size_t) {
                       hdr(b).indexEntries = hdr(b).maxRecords;
                       reseal(b);
                   },
                   "header: index of 16 entries for 16 records"}),
    [](auto const& info) { return std::string(info.param.name); });

TEST(StrataCorruptionTest, TruncatedAndEmptyFilesAreCorruptNotFatal) {
    TablePrefix prefix;
    makeTable(prefix);
    std::string const path = prefix.file("fib4-fec");
    struct stat st {};
    ::stat(path.c_str(), &st);
    ASSERT_EQ(::truncate(path.c_str(), st.st_size / 2), 0);
    std::string m = corruption(prefix, [&] { Strata::Fib::ForwardingStatus::reader(prefix); });
    EXPECT_NE(m.find("header: file is " + std::to_string(st.st_size / 2) + " bytes, the header says " +
                     std::to_string(st.st_size)),
              std::string::npos)
        << m;
    m = corruption(prefix, [&] { Strata::Fib::ForwardingStatus::writer(prefix); });
    EXPECT_NE(m.find("bytes, the header says"), std::string::npos) << m;
    ASSERT_EQ(::truncate(path.c_str(), 100), 0);
    m = corruption(prefix, [&] { Strata::Fib::ForwardingStatus::reader(prefix); });
    EXPECT_NE(m.find("file is 100 bytes, shorter than its 672-byte header"), std::string::npos) << m;
    ASSERT_EQ(::truncate(path.c_str(), 0), 0);
    m = corruption(prefix, [&] { Strata::Fib::ForwardingStatus::writer(prefix); });
    EXPECT_NE(m.find("file is 0 bytes"), std::string::npos) << m;
}

TEST(StrataCorruptionTest, AnotherTablesFileIsRefusedByItsKind) {
    TablePrefix prefix;
    Strata::Fib6::ForwardingStatus::writer(prefix, smallFecCapacity(4, 4))->detach();
    ASSERT_EQ(::rename(prefix.file("fib6-fec").c_str(), prefix.file("fib4-fec").c_str()), 0);
    std::string const m = corruption(prefix, [&] { Strata::Fib::ForwardingStatus::reader(prefix); });
    EXPECT_NE(m.find("ABI signature differs: table kind 2, this build 1"), std::string::npos) << m;
}

// Damage past the header: found by the writer's recovery scan, and by readers when they reach it.
TEST(StrataCorruptionTest, ImpossibleReferencesAndRecordsAreFound) {
    struct Case {
        char const* name;
        std::function<void(U8*)> damage;  // may use ASSERT (returns void)
        char const* writerMessage;
        U64 readerKey; // a reader looking this key up meets the damage (0: none does)
        char const* readerMessage;
    };
    auto slot = [](U8* b, U32 cls, U32 s) {
        return reinterpret_cast<U32*>(b + hdr(b).classes[cls].offset + U64(s) * hdr(b).classes[cls].slotSize);
    };
    auto entryOf = [](U8* b, U32 ref) -> Strata::layout::IndexEntry& {
        auto* e = reinterpret_cast<Strata::layout::IndexEntry*>(b + hdr(b).indexOffset);
        for (U32 i = 0;; ++i) {
            if (e[i].ref == ref) return e[i];
        }
    };
    // FECs 1..6 at versions k % 4, stored in this order: FEC 2 (one via) is in slot 0 of
    // class 0, FEC 4 in slot 1, FEC 6 in slot 2; FECs 1 and 5 (128 vias) in class 7.
    Case const cases[] = {
        {"ReferenceOutsideItsClass",
         [&](U8* b) { entryOf(b, Strata::layout::refOf(0, 0)).ref = Strata::layout::refOf(0, 999); },
         "slot reference 0x3e80 outside the table", 2, "slot reference 0x3e80 outside the table"},
        {"ReferenceToAClassThatDoesNotExist",
         [&](U8* b) { entryOf(b, Strata::layout::refOf(0, 0)).ref = Strata::layout::refOf(12, 0); },
         "slot reference 0x1c outside the table", 2, "slot reference 0x1c outside the table"},
        {"TagNotTheHashOfTheKey",
         [&](U8* b) { entryOf(b, Strata::layout::refOf(0, 0)).tag ^= 1; },
         "is not the hash of its key", 0, ""},
        {"ViaPositionsBeyond128",
         [&](U8* b) { slot(b, 0, 0)[1] = (slot(b, 0, 0)[1] & 0xFF00FFFFu) | (200u << 16); },
         "via positions beyond 128", 2, "via positions beyond 128"},
        {"ViaCountDisagrees",
         [&](U8* b) { slot(b, 0, 0)[4] += 1u << 16; },
         "via count differs from the dense positions", 2, "via count differs"},
        {"ReferencedSlotIsFree",
         [&](U8* b) { slot(b, 0, 0)[1] &= ~0xFFu; },
         "references free slot", 0, ""},
        {"HighWaterBeyondTheClass",
         [&](U8* b) { hdr(b).classHighWater[0] = 1000; },
         "high-water mark 1000 above its 9 slots", 0, ""},
        {"TwoEntriesForOneSlot",
         [&](U8* b) {
             // A second entry for FEC 2's slot right behind the first, in its probe run.
             auto& first = entryOf(b, Strata::layout::refOf(0, 0));
             auto* next = &first + 1;
             ASSERT_EQ(next->ref, 0u) << "the test expects a free entry behind FEC 2's";
             *next = first;
         },
         "two index entries reference slot", 0, ""},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.name);
        TablePrefix prefix;
        makeTable(prefix);
        damage(prefix.file("fib4-fec"), [&](U8* b, std::size_t) { c.damage(b); });
        if (c.readerKey) {
            auto r = Strata::Fib::ForwardingStatus::reader(prefix);
            std::string const m = corruption(prefix, [&] { r->fec(FecId(c.readerKey)); });
            EXPECT_NE(m.find(c.readerMessage), std::string::npos) << m;
        }
        std::string const m = corruption(prefix, [&] { Strata::Fib::ForwardingStatus::writer(prefix); });
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

} // namespace

namespace {

// A route slot whose prefix has a host bit set (or a length beyond the family's) is refused by
// a walk and by the writer's recovery; both families.
template <class Table>
void expectNonCanonicalPrefixRefused(char const* suffix, typename Table::Route const& route,
                                     U32 byteToSpoil, U8 value, char const* message) {
    TablePrefix prefix;
    {
        auto t = Table::writer(prefix, Strata::RouteCapacity{4});
        t->routeIs(route);
    }
    std::string const path = prefix.file(suffix);
    damage(path, [&](U8* b, std::size_t) {
        U8* slot = b + hdr(b).classes[0].offset;
        slot[Strata::layout::keyOffset + byteToSpoil] = value;
    });
    std::string const report = path + ".corruption-report";
    for (bool writer : {false, true}) {
        ::unlink(report.c_str());
        try {
            if (writer) {
                Table::writer(prefix);
            } else {
                auto r = Table::reader(prefix);
                for (auto it = r->routeIteratorConst(); it; ++it) {
                }
            }
            ADD_FAILURE() << suffix << ": damage not found";
        } catch (Strata::CorruptionDetectedException const& e) {
            EXPECT_NE(e.msg().stringValue().find(message), std::string::npos) << e.msg();
            EXPECT_TRUE(strata_test::fileExists(report));
        }
    }
}

TEST(StrataCorruptionTest, RoutePrefixesMustBeCanonical) {
    Strata::Fib::Route const r4(Velnet::Prefix::fromString("10.1.0.0/16"), FecId(1), Routing::Fib::kernel_);
    // The address is a host-order word: byte 0 is its lowest octet (10.1.0.x).
    expectNonCanonicalPrefixRefused<Strata::Fib::RouteStatus>("fib4-route", r4, 0, 1, "prefix not canonical");
    expectNonCanonicalPrefixRefused<Strata::Fib::RouteStatus>("fib4-route", r4, 4, 33,
                                                              "prefix length out of range");
    expectNonCanonicalPrefixRefused<Strata::Fib::RouteStatus>("fib4-route", r4, 6, 1, "prefix padding not zero");
    Strata::Fib6::Route const r6(Velnet::Ip6Prefix::fromString("2001:db8::/36"), FecId(1), Routing6::Fib::kernel_);
    // /36: byte 4 may use its top four bits only.
    expectNonCanonicalPrefixRefused<Strata::Fib6::RouteStatus>("fib6-route", r6, 4, 0x08, "prefix not canonical");
    expectNonCanonicalPrefixRefused<Strata::Fib6::RouteStatus>("fib6-route", r6, 15, 0x01, "prefix not canonical");
    expectNonCanonicalPrefixRefused<Strata::Fib6::RouteStatus>("fib6-route", r6, 16, 129,
                                                               "prefix length out of range");
}

} // namespace
