// The 64-bit and the i386 build share table files. Checked with reference files committed in
// tests/Strata/data (made by the 64-bit build from the fixed sequence of changes below):
//   - every build makes the same sequence and must produce the same bytes, apart from the
//     three header fields that differ by nature (the creation id, the checksum over it, the
//     writer's pid);
//   - every build attaches copies of the committed files, as a reader and as a writer, and
//     finds exactly the records the sequence leaves.
// So the i386 build reads what the 64-bit build wrote, and writes what it would have written.
// STRATA_WRITE_REFERENCE=1 rewrites the reference files from the build that runs the test
// (only ever needed after a deliberate layout change, which also bumps the layout version).
#include "StrataTestSupport.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <map>
#include <memory>

namespace {

using Strata::Fib::FecId;
using strata_test::TablePrefix;

std::string const dataDir = STRATA_TEST_DATA;
char const* const suffixes[] = {"fib4-fec", "fib6-fec", "fib4-route", "fib6-route"};

// What the sequence leaves in each table.
struct Reference {
    std::map<U64, std::unique_ptr<Strata::Fib::Fec>> fecs4;
    std::map<U64, std::unique_ptr<Strata::Fib6::Fec>> fecs6;
    std::map<Velnet::Prefix, Strata::Fib::Route> routes4;
    std::map<Velnet::Ip6Prefix, Strata::Fib6::Route> routes6;
};

template <class FecT>
std::unique_ptr<FecT> referenceFec(U64 id, U32 vias, U32 hole = 999) {
    auto f = std::make_unique<FecT>(FecId(id));
    f->fecTypeIs(U8(id % 7));
    f->nexthopGroupIdIs(U16(id * 3));
    for (U32 i = 0; i < vias; ++i) f->viaIs(i, strata_test::selfCheckVia<FecT>(id, vias, i));
    if (hole < vias) f->viaDel(hole);
    return f;
}

// The fixed sequence: FECs of several sizes (one with a hole, one through the direct-write
// slot), a replacement into another class, deletions; routes likewise.
template <class Table>
void writeFecs(std::string const& prefix,
               std::map<U64, std::unique_ptr<typename Table::Fec>>& model) {
    using FecT = typename Table::Fec;
    Strata::FecCapacity cap;
    cap.maxFecs = 8;
    cap.classFecs = {4, 4, 2, 2, 1, 1, 1, 1};
    auto t = Table::writer(prefix, cap);
    auto put = [&](std::unique_ptr<FecT> f) {
        t->fecIs(*f);
        U64 const id = f->fecId().value();
        model[id] = std::move(f);
    };
    auto drop = std::make_unique<FecT>(FecId(Strata::Fib::ipv4DropFecId_));
    drop->fecTypeIs(Strata::Fib::drop_);
    put(std::move(drop));
    put(referenceFec<FecT>(3, 1));
    put(referenceFec<FecT>(4, 2));
    put(referenceFec<FecT>(5, 4, 1));
    put(referenceFec<FecT>(6, 128));
    put(referenceFec<FecT>(7, 9));
    put(referenceFec<FecT>(4, 40)); // moves to another class
    t->fecDel(FecId(3));
    model.erase(3);
    FecT* slot = t->fecDirectWrite(FecId::fromAdjType(Strata::Fib::nextHopGroupAdj_, 7));
    *slot = *referenceFec<FecT>(slot->fecId().value(), 3);
    model[slot->fecId().value()] = std::make_unique<FecT>(*slot);
    t->fecCommit(slot);
}

void writeReference(std::string const& prefix, Reference& ref) {
    writeFecs<Strata::Fib::ForwardingStatus>(prefix, ref.fecs4);
    writeFecs<Strata::Fib6::ForwardingStatus>(prefix, ref.fecs6);
    auto r4 = Strata::Fib::RouteStatus::writer(prefix, Strata::RouteCapacity{6});
    auto r6 = Strata::Fib6::RouteStatus::writer(prefix, Strata::RouteCapacity{6});
    auto put4 = [&](Strata::Fib::Route const& r) {
        r4->routeIs(r);
        ref.routes4[r.prefix()] = r;
    };
    for (U32 k = 0; k < 5; ++k) {
        put4(Strata::Fib::Route(Velnet::Prefix(Velnet::IpAddr(10, U8(k), 0, 0), 16 + k),
                                FecId(40 + k), Routing::Fib::RouteType(k * 4)));
        Velnet::Ip6Prefix const p6(Velnet::Ip6Addr(0x2001, 0xdb8, U16(k), 0, 0, 0, 0, 0), 48);
        Strata::Fib6::Route const r(p6, FecId(U64(k) << 40 | 7), Routing6::Fib::RouteType(k * 3));
        r6->routeIs(r);
        ref.routes6[r.prefix()] = r;
    }
    r4->routeDel(Velnet::Prefix(Velnet::IpAddr(10, 2, 0, 0), 18));
    ref.routes4.erase(Velnet::Prefix(Velnet::IpAddr(10, 2, 0, 0), 18));
    put4(Strata::Fib::Route(Velnet::Prefix(Velnet::IpAddr(10, 1, 0, 0), 17), FecId(99),
                            Routing::Fib::nexthopGroup_));
}

template <class Table, class Model>
void expectFecs(std::string const& prefix, Strata::Access access, Model const& model) {
    typename Table::Ptr t = new Table("f");
    t->attach(prefix, access);
    EXPECT_EQ(t->fecs(), model.size());
    for (auto const& [id, f] : model) {
        auto got = t->fec(FecId(id));
        ASSERT_TRUE(got.has_value()) << id;
        EXPECT_EQ(*got, *f) << id;
    }
    U32 n = 0;
    for (auto it = t->fecIteratorConst(); it; ++it, ++n) {
        EXPECT_EQ(*it, *model.at(it.key().value()));
    }
    EXPECT_EQ(n, model.size());
    if (access == Strata::Access::writer_) {
        t->validate();
        // And the table takes more changes.
        t->fecDel(FecId(4));
        t->fecIs(*referenceFec<typename Table::Fec>(8, 2));
        t->validate();
    }
}

template <class Table, class Model>
void expectRoutes(std::string const& prefix, Strata::Access access, Model const& model) {
    typename Table::Ptr t = new Table("r");
    t->attach(prefix, access);
    Model walked;
    for (auto it = t->routeIteratorConst(); it; ++it) walked.emplace(it.key(), *it);
    EXPECT_EQ(walked, model);
    EXPECT_EQ(t->routes(), model.size());
    if (access == Strata::Access::writer_) t->validate();
}

// Blanks the header fields that differ between any two makings of the same table.
void blankVolatileFields(std::string& bytes) {
    using Strata::layout::FileHeader;
    ASSERT_GE(bytes.size(), sizeof(FileHeader));
    std::memset(bytes.data() + offsetof(FileHeader, creationId), 0, 8);
    std::memset(bytes.data() + offsetof(FileHeader, checksum), 0, 8);
    std::memset(bytes.data() + offsetof(FileHeader, writerPid), 0, 4);
}

TEST(StrataCrossBuildTest, SameBytesAsTheCommittedReferenceFiles) {
    TablePrefix prefix;
    Reference ref;
    writeReference(prefix, ref);
    bool const rewrite = std::getenv("STRATA_WRITE_REFERENCE") != nullptr;
    for (char const* suffix : suffixes) {
        SCOPED_TRACE(suffix);
        std::string const golden = dataDir + "/reference-" + suffix + ".bin";
        std::string made = strata_test::readFile(prefix.file(suffix));
        if (rewrite) {
            int const fd = ::open(golden.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            ASSERT_EQ(::write(fd, made.data(), made.size()), ssize_t(made.size()));
            ::close(fd);
            continue;
        }
        if (!strata_test::fileExists(golden)) GTEST_SKIP() << "no reference file " << golden;
        std::string committed = strata_test::readFile(golden);
        ASSERT_EQ(made.size(), committed.size());
        blankVolatileFields(made);
        blankVolatileFields(committed);
        std::size_t diff = 0;
        while (diff < made.size() && made[diff] == committed[diff]) ++diff;
        EXPECT_EQ(diff, made.size()) << "first difference at byte " << diff;
    }
}

TEST(StrataCrossBuildTest, CommittedReferenceFilesReadBack) {
    TablePrefix prefix;
    Reference ref;
    {
        TablePrefix scratch;
        writeReference(scratch, ref); // only for the expected records
    }
    for (char const* suffix : suffixes) {
        std::string const golden = dataDir + "/reference-" + suffix + ".bin";
        if (!strata_test::fileExists(golden)) GTEST_SKIP() << "no reference file " << golden;
        std::string const bytes = strata_test::readFile(golden);
        int const fd = ::open(prefix.file(suffix).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
        ::close(fd);
    }
    for (auto access : {Strata::Access::reader_, Strata::Access::writer_}) {
        expectFecs<Strata::Fib::ForwardingStatus>(prefix, access, ref.fecs4);
        expectFecs<Strata::Fib6::ForwardingStatus>(prefix, access, ref.fecs6);
        expectRoutes<Strata::Fib::RouteStatus>(prefix, access, ref.routes4);
        expectRoutes<Strata::Fib6::RouteStatus>(prefix, access, ref.routes6);
    }
}

} // namespace
