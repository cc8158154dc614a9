// Strata::StrataBase: a table kind, the machinery behind one table entity.
//
// A table entity (Strata::StrataTable and the four FIB tables built on it) always holds one
// table kind:
//   - StrataMap (Strata/StrataMap.h): a table file in shared memory, attached for reading or
//     for writing;
//   - StrataBaseDummy: the kind a table holds while nothing is attached. Its initialize() and
//     detach() trace "StrataBaseDummy::initialize() " and "StrataBaseDummy::detach() " (facility
//     "StrataBase", level 0, followed by the table's name) and do nothing else; its maintenance
//     calls do nothing; it keeps no statistics.
//
// Maintenance and statistics calls, the same for every kind:
//   cleanup()        removes what crashed creators of this table left behind (temporary files);
//                    returns how many files it removed.
//   validateFiles()  re-reads the table file's header from the file and checks it (magic,
//                    layout, checksum, size) and that the path still names the attached file.
//   validate()       checks every invariant of the attached table (index, slots, counts, free
//                    lists); CorruptionDetectedException when one does not hold.
//   writerCounters() / readerCounters()  this process's statistics of the table;
//                    UnimplementedException "writerCounters() not implemented" /
//                    "readerCounters() not implemented" for a kind without them (the dummy;
//                    a reader has no writer statistics).
// On a table attached for reading the first three raise NoPermissionException "cleanup to
// read-only Strata table", "validateFiles to read-only Strata table", "validate to read-only
// Strata table".
#pragma once

#include "Kal/PtrInterface.h"
#include "Kal/String.h"
#include "Kal/Types.h"

namespace Strata {

enum class Access : U8 {
    reader_ = 0, // maps the table read-only; any number of readers
    writer_ = 1, // the one process that changes the table
};

// This process's statistics of one attached table, a snapshot. Cheap relaxed counting: the
// counts of one thread are exact, but increments of threads racing on one table may be lost.
struct WriterCounters {
    U64 commits = 0;         // records stored (fecIs, fecCommit, routeIs)
    U64 deletes = 0;         // records removed
    U64 tableFull = 0;       // writes refused because the table or a size class was full
    U64 recoveredSlots = 0;  // slots freed by the recovery scan at attach
    U64 indexRebuilds = 0;   // times the attach rebuilt the index after an interrupted delete
};

struct ReaderCounters {
    U64 lookups = 0;  // finds by key
    U64 retries = 0;  // reads repeated because the writer changed what was being read
    U64 timeouts = 0; // reads given up (timeout_ raised)
};

class StrataBase : public Kal::PtrInterface {
  public:
    explicit StrataBase(Kal::Name name) : name_(std::move(name)) {}

    // The table's name (the entity's name).
    Kal::Name const& name() const noexcept { return name_; }

    virtual void initialize() = 0;
    virtual void detach() = 0;
    virtual bool attached() const noexcept = 0;
    virtual bool readOnly() const noexcept = 0;

    virtual U32 cleanup() = 0;
    virtual void validateFiles() = 0;
    virtual void validate() = 0;
    virtual WriterCounters writerCounters() const;
    virtual ReaderCounters readerCounters() const;

  private:
    Kal::Name name_;
};

class StrataBaseDummy final : public StrataBase {
  public:
    using StrataBase::StrataBase;

    void initialize() override;
    void detach() override;
    bool attached() const noexcept override { return false; }
    bool readOnly() const noexcept override { return false; }
    U32 cleanup() override { return 0; }
    void validateFiles() override {}
    void validate() override {}
};

} // namespace Strata
