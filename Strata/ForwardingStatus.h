// Strata::Fib::ForwardingStatus and Strata::Fib6::ForwardingStatus: the FEC tables, FECs keyed
// by FecId in shared memory (one file per table, "<prefix>-fib4-fec" / "<prefix>-fib6-fec";
// Strata/StrataLayout.h describes the file and the writer/reader protocol).
//
//   // The writer (one process): creates the table, or attaches and recovers it.
//   auto fib = Strata::Fib::ForwardingStatus::writer("sw1", Strata::FecCapacity::forFecs(1 << 16));
//   Strata::Fib::Fec* fec = fib->fecDirectWrite(Strata::Fib::FecId(7));  // a fresh FEC 7
//   fec->viaIs(0, Strata::Fib::Via(hop, intf));
//   fib->fecCommit(fec);          // readers see FEC 7 from here on, whole
//   fib->fecDel(Strata::Fib::FecId(7));
//
//   // A reader (any number of other processes):
//   auto ro = Strata::Fib::ForwardingStatus::reader("sw1");
//   if (auto f = ro->fec(Strata::Fib::FecId(7))) use(*f);
//   for (auto it = ro->fecIteratorConst(); it; ++it) use(it.key(), *it);
//
// Writing
//   fecIs(fec)          stores a whole FEC under fec.fecId(), replacing any FEC with that id.
//   fecDirectWrite(id)  hands out the table's direct-write slot holding a fresh FEC with this id
//                       (fecType forward_, nexthopGroupId 0xFFFF, no vias; it does not start from
//                       a FEC already stored under the id). The caller fills it in place.
//   fecCommit(slot)     publishes what the slot holds (under its fecId) in one step: readers see
//                       the whole FEC or the one it replaces, never a mix. The slot is gone after
//                       fecCommit returns or raises; the pointer must not be used again.
//   fecDirectWriteAbandon()  gives an outstanding slot up without storing it. A caller whose
//                       filling fails (a via position above 127, say) abandons the slot; until
//                       then, asking for another slot raises the no-man's-land error below.
//   fecDel(id)          removes the FEC; false when there was none.
//   Errors: tableFull_ when the table holds its maximum of FECs or the FEC's size class is full
//   (the class is chosen by the FEC's highest via position); nothing changes then.
//   RuntimeException "StrataMap::directWrite() in no man's land" when the direct-write slot is
//   asked for while one is outstanding or while the table is detached, and when fecCommit finds
//   no outstanding slot. Committing a pointer other than the slot handed out is a programming
//   error (assertion "fec == directWriteSlot_"). Through a reader, fecIs, fecDirectWrite and
//   fecCommit raise NoPermissionException "write to read-only Strata table" and fecDel "remove
//   to read-only Strata table".
//
// Reading (writer or reader): fec(id) finds a FEC; the iterator visits every FEC once when no
// change runs concurrently (see Strata/StrataLayout.h for a walk during changes). A read that
// sees only writes in progress for readTimeoutMs raises timeout_; anything impossible in the
// file raises CorruptionDetectedException.
//
// Capacity: maxFecs FECs at once (the index), and per size class the number of FECs with up to
// 1, 2, 4, 8, 16, 32, 64 and 128 vias (positions 0 .. 2^c - 1; a FEC with holes needs room for
// its bitmap too, see ForwardingStatus.cpp). Fixed when the file is made; attaching an existing
// table keeps its capacity whatever is asked.
#pragma once

#include "Kal/KalType.h"
#include "Kal/Ptr.h"
#include "Kal/Types.h"
#include "Strata/Fec.h"
#include "Strata/FecId.h"
#include "Strata/StrataTable.h"

#include <array>
#include <memory>
#include <optional>
#include <string>

namespace Strata {

struct FecCapacity {
    static constexpr U32 classes = 8;

    U32 maxFecs = 0;
    std::array<U32, classes> classFecs{}; // FECs with up to 1, 2, 4 ... 128 vias

    // maxFecs FECs of up to 8 vias each, maxFecs / 4 of 16 vias, / 16 of 32, / 64 of 64 and
    // / 256 of 128 (each at least 4).
    static FecCapacity forFecs(U32 maxFecs);
    // Up to 1 << cls vias.
    static constexpr U32 classVias(U32 cls) noexcept { return U32(1) << cls; }
};

namespace detail {

template <class FecT>
class FecTable : public StrataTable {
  public:
    using Fec = FecT;

    class FecIteratorConst {
      public:
        FecIteratorConst() = default;
        FecIteratorConst(FecIteratorConst const& o);
        FecIteratorConst& operator=(FecIteratorConst const& o);
        FecIteratorConst(FecIteratorConst&&) noexcept = default;
        FecIteratorConst& operator=(FecIteratorConst&&) noexcept = default;

        Fib::FecId key() const noexcept { return fec_->fecId(); }
        FecT const& fec() const noexcept { return *fec_; }
        FecT const& operator*() const noexcept { return *fec_; }
        FecT const* operator->() const noexcept { return fec_.get(); }
        FecIteratorConst& operator++();
        explicit operator bool() const noexcept { return fec_ != nullptr; }
        bool isEnd() const noexcept { return fec_ == nullptr; }

      private:
        friend class FecTable;
        explicit FecIteratorConst(Kal::Ptr<StrataMap const> map);
        void seek();

        Kal::Ptr<StrataMap const> map_;
        U32 cls_ = 0;
        U32 slot_ = 0;
        std::unique_ptr<FecT> fec_; // null at the end
    };

    void attach(std::string const& prefix, Access access,
                FecCapacity const& capacity = FecCapacity::forFecs(65536),
                AttachOptions const& options = {});

    void fecIs(FecT const& fec);
    FecT* fecDirectWrite(Fib::FecId const& id);
    void fecCommit(FecT const* fec);
    void fecDirectWriteAbandon() noexcept;
    bool fecDirectWriteOutstanding() const noexcept { return directWriteSlot_ != nullptr; }
    bool fecDel(Fib::FecId const& id);

    std::optional<FecT> fec(Fib::FecId const& id) const;
    // The same without copying a whole FEC out: true and the FEC in `out`, or false.
    bool fec(Fib::FecId const& id, FecT& out) const;
    FecIteratorConst fecIteratorConst() const;

    U32 fecs() const noexcept;
    U32 fecCapacity() const noexcept;
    static constexpr U32 fecClasses() noexcept { return FecCapacity::classes; }
    U32 fecClassCapacity(U32 cls) const noexcept;
    U32 fecClassFecs(U32 cls) const noexcept;
    // The size class a FEC is stored in.
    static U32 fecClassOf(FecT const& fec) noexcept;

  protected:
    FecTable(Kal::Name name);

  private:
    // hash: StrataMap::keyHash of fec.fecId().
    void store(StrataMap& m, FecT const& fec, U32 hash);

    // The outstanding slot, or null.
    FecT* directWriteSlot_ = nullptr;
    // The id the slot was handed out for and its key hash, worked out then (and its index
    // entry fetched) so that the commit need not wait for them; the caller may change the id.
    Fib::FecId directWriteId_;
    U32 directWriteHash_ = 0;
    // The size class of the last FEC stored: the next one is likely of the same size, so its
    // slot is fetched when the direct-write slot is handed out.
    U32 lastClass_ = 0;
    // The map whose slot this table last handed out (it holds a FEC made by this process);
    // held so that a map attached later cannot take its address.
    Kal::Ptr<StrataMap const> directWriteMap_;
};

} // namespace detail

namespace Fib {

class ForwardingStatus final : public detail::FecTable<Fec> {
  public:
    using Ptr = Kal::Ptr<ForwardingStatus>;
    using PtrConst = Kal::Ptr<ForwardingStatus const>;

    // A detached table (holding the dummy kind) named `name`.
    explicit ForwardingStatus(Kal::Name name);

    // The table "<prefix>-fib4-fec" attached for writing (created when absent).
    static Ptr writer(std::string const& prefix,
                      FecCapacity const& capacity = FecCapacity::forFecs(65536),
                      AttachOptions const& options = {});
    // The same attached for reading; the file must exist (connection_ otherwise).
    static Ptr reader(std::string const& prefix, AttachOptions const& options = {});

    static Kal::KalType const& _fwkType();
    Kal::KalType const* fwkType() const override { return &_fwkType(); }
};

} // namespace Fib

namespace Fib6 {

class ForwardingStatus final : public detail::FecTable<Fec> {
  public:
    using Ptr = Kal::Ptr<ForwardingStatus>;
    using PtrConst = Kal::Ptr<ForwardingStatus const>;

    explicit ForwardingStatus(Kal::Name name);

    // The table "<prefix>-fib6-fec".
    static Ptr writer(std::string const& prefix,
                      FecCapacity const& capacity = FecCapacity::forFecs(65536),
                      AttachOptions const& options = {});
    static Ptr reader(std::string const& prefix, AttachOptions const& options = {});

    static Kal::KalType const& _fwkType();
    Kal::KalType const* fwkType() const override { return &_fwkType(); }
};

} // namespace Fib6

namespace detail {
extern template class FecTable<Fib::Fec>;
extern template class FecTable<Fib6::Fec>;
} // namespace detail

} // namespace Strata
