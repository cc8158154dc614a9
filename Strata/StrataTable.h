// Strata::StrataTable: what every shared-memory table entity has in common (the four FIB
// tables, Strata::Fib::ForwardingStatus and friends, derive from it).
//
// A table is a framework entity (held through Kal::Ptr) that is either detached, holding the
// dummy table kind, or attached to its table file through a StrataMap (Strata/StrataBase.h,
// Strata/StrataMap.h). Attach as a writer (the file is created when there is none, and
// recovered after a writer that died otherwise) or as a reader (read-only mapping; the file
// must exist). detach() unmaps the file and, for a writer, releases the table for the next
// writer; so does the entity's destruction.
//
// Errors common to the operations of every table:
//   - writing through a reader: NoPermissionException "write to read-only Strata table", and
//     "remove to read-only Strata table" for removals;
//   - writing through a detached table: Strata::Exception connection_ "write to detached
//     Strata table <name>" (or "remove to ..."); reads of a detached table find nothing;
//   - attaching an attached table: invalidInitialize_.
//
// Observing changes: changeSeq() is a counter in the file, odd while the writer is inside a
// change and advanced by 2 per change (wrapping at 2^32); a reader polls it, or waits for it
// to move with waitForChange(). A walk over the records is whole when the counter was even
// before it and is unchanged after it.
// writerGeneration() advances each time a writer attaches (after a restart, say).
//
// Threads: lookups, iteration, counts and the change counter may be used from several threads
// at once (also beside the writer); writes, attach and detach belong to one thread.
#pragma once

#include "Kal/Entity.h"
#include "Kal/Ptr.h"
#include "Kal/Types.h"
#include "Strata/StrataBase.h"
#include "Strata/StrataMap.h"

#include <chrono>
#include <string>

namespace Strata {

// Where a table's file lives and how patient its reads are.
struct AttachOptions {
    std::string directory = defaultDirectory;
    U32 readTimeoutMs = 1000; // a read that finds no stable copy this long raises timeout_
};

class StrataTable : public Kal::Entity {
  public:
    ~StrataTable() override;

    bool attached() const noexcept;
    bool readOnly() const noexcept;
    // The table file's path; empty while detached.
    std::string path() const;
    // Bytes of the table file (all of it reserved at creation).
    U64 fileBytes() const noexcept;

    U32 changeSeq() const noexcept;
    // Waits until changeSeq() differs from `seen` or the time is up; true when it changed.
    // Polls, sleeping at most a millisecond between looks.
    bool waitForChange(U32 seen, std::chrono::milliseconds timeout) const;
    U32 writerGeneration() const noexcept;
    // A random number drawn when the file was made: a reader that sees it change knows the
    // table was removed and made again.
    U64 creationId() const noexcept;

    void detach();

    U32 cleanup();
    void validateFiles();
    void validate();
    WriterCounters writerCounters() const;
    ReaderCounters readerCounters() const;

    // The table kind in use: a StrataMap when attached, the dummy otherwise.
    Kal::Ptr<StrataBase> kind() const noexcept { return kind_; }

    // Removes every file of the tables with this prefix (the four tables, their temporary and
    // corruption report files); true when any was there. For tests and tools: a table that
    // is attached somewhere keeps working on its unlinked file.
    static bool removeFiles(std::string const& prefix,
                            std::string const& directory = defaultDirectory);

  protected:
    StrataTable(Kal::Name name, TableShape const& shape);

    void attachTable(std::string const& prefix, Access access, Capacity const& capacity,
                     AttachOptions const& options);
    // The attached map, or null.
    StrataMap* map() const noexcept { return map_.ptr(); }
    // The map to write (op "write") or remove (op "remove") through; raises when read-only
    // or detached.
    StrataMap& writable(char const* op) const;

  private:
    void installDummy();

    TableShape const& shape_;
    Kal::Ptr<StrataBase> kind_;
    Kal::Ptr<StrataMap> map_;
};

} // namespace Strata
