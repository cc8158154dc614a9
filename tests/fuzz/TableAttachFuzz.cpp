// Fuzz target for attaching to table files: whatever bytes a table file holds, attaching it
// (as a reader or as a writer, which runs the recovery scan), looking records up, walking the
// table, validating it and writing to it either works or raises a Strata::Exception. Anything
// else (a crash, a sanitizer report, another exception) is a finding.
//
// Input: byte 0 chooses the table (bits 0-1: IPv4 FEC, IPv6 FEC, IPv4 route, IPv6 route), the
// access (bit 2: writer) and whether the header checksum is recomputed over the mutated header
// (bit 3), so that damage behind a valid checksum is explored too; the rest is the file.
// The seed corpus (corpus/tableattach) holds small valid files of each table.
#include "Strata/Strata.h"
#include "Strata/StrataLayout.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using Strata::Fib::FecId;

char const* const suffixes[] = {"fib4-fec", "fib6-fec", "fib4-route", "fib6-route"};

template <class Table>
void exerciseFecs(Table& t, bool writer) {
    using FecT = typename Table::Fec;
    auto f = std::make_unique<FecT>();
    for (U64 k = 0; k < 12; ++k) (void)t.fec(FecId(k), *f);
    (void)t.fec(FecId::fromAdjType(Strata::Fib::nextHopGroupAdj_, 7), *f);
    for (auto it = t.fecIteratorConst(); it; ++it) (void)it->vias();
    (void)t.fecs();
    if (!writer) return;
    t.validate();
    f = std::make_unique<FecT>(FecId(5));
    f->viaIs(0, typename FecT::Via());
    t.fecIs(*f);
    FecT* slot = t.fecDirectWrite(FecId(6));
    slot->viaIs(3, typename FecT::Via());
    t.fecCommit(slot);
    t.fecDel(FecId(4));
    t.validate();
}

template <class Table>
void exerciseRoutes(Table& t, bool writer) {
    using R = typename Table::Route;
    typename R::Key key;
    (void)t.route(key);
    for (auto it = t.routeIteratorConst(); it; ++it) (void)it.fecId();
    (void)t.routes();
    if (!writer) return;
    t.validate();
    t.routeIs(R(key, FecId(3), typename R::RouteType(1)));
    t.routeDel(key);
    t.validate();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size == 0) return 0;
    U32 const kind = data[0] & 3;
    bool const writer = data[0] & 4;
    bool const reseal = data[0] & 8;
    std::vector<U8> bytes(data + 1, data + size);
    if (reseal && bytes.size() >= sizeof(Strata::layout::FileHeader)) {
        U64 const sum = Strata::layout::headerChecksum(bytes.data());
        std::memcpy(bytes.data() + offsetof(Strata::layout::FileHeader, checksum), &sum, 8);
    }
    std::string const prefix = "fuzzta-" + std::to_string(::getpid());
    std::string const path = std::string(Strata::defaultDirectory) + "/" + prefix + "-" + suffixes[kind];
    Strata::StrataTable::removeFiles(prefix);
    int const fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return 0;
    if (!bytes.empty() && ::write(fd, bytes.data(), bytes.size()) != ssize_t(bytes.size())) {
        ::close(fd);
        return 0;
    }
    ::close(fd);
    Strata::AttachOptions options;
    options.readTimeoutMs = 1;
    Strata::Access const access = writer ? Strata::Access::writer_ : Strata::Access::reader_;
    try {
        switch (kind) {
        case 0: {
            Strata::Fib::ForwardingStatus::Ptr t = new Strata::Fib::ForwardingStatus("fuzz");
            t->attach(prefix, access, Strata::FecCapacity::forFecs(4), options);
            exerciseFecs(*t, writer);
            break;
        }
        case 1: {
            Strata::Fib6::ForwardingStatus::Ptr t = new Strata::Fib6::ForwardingStatus("fuzz");
            t->attach(prefix, access, Strata::FecCapacity::forFecs(4), options);
            exerciseFecs(*t, writer);
            break;
        }
        case 2: {
            Strata::Fib::RouteStatus::Ptr t = new Strata::Fib::RouteStatus("fuzz");
            t->attach(prefix, access, Strata::RouteCapacity{4}, options);
            exerciseRoutes(*t, writer);
            break;
        }
        default: {
            Strata::Fib6::RouteStatus::Ptr t = new Strata::Fib6::RouteStatus("fuzz");
            t->attach(prefix, access, Strata::RouteCapacity{4}, options);
            exerciseRoutes(*t, writer);
            break;
        }
        }
    } catch (Strata::Exception const&) {
    }
    Strata::StrataTable::removeFiles(prefix);
    return 0;
}
