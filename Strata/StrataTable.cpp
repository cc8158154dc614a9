#include "Strata/StrataTable.h"

#include "Strata/Exception.h"

#include <thread>

#include <dirent.h>
#include <unistd.h>

namespace Strata {

StrataTable::StrataTable(Kal::Name name, TableShape const& shape)
    : Kal::Entity(std::move(name)), shape_(shape) {
    installDummy();
}

StrataTable::~StrataTable() {
    if (map_) map_->detach();
}

void StrataTable::installDummy() {
    kind_ = new StrataBaseDummy(name());
    kind_->initialize();
}

void StrataTable::attachTable(std::string const& prefix, Access access, Capacity const& capacity,
                              AttachOptions const& options) {
    if (map_) {
        throw Exception(ExceptionId::invalidInitialize_,
                        "Strata table " + name().stringValue() + " is attached already");
    }
    TableOptions o;
    o.directory = options.directory;
    o.prefix = prefix;
    o.access = access;
    o.capacity = capacity;
    o.readTimeoutMs = options.readTimeoutMs;
    Kal::Ptr<StrataMap> m = new StrataMap(name(), shape_, std::move(o));
    m->initialize();
    kind_->detach();
    kind_ = m;
    map_ = m;
}

void StrataTable::detach() {
    if (!map_) return;
    map_->detach();
    map_ = nullptr;
    installDummy();
}

bool StrataTable::attached() const noexcept { return map_ && map_->attached(); }
bool StrataTable::readOnly() const noexcept { return map_ && map_->readOnly(); }
std::string StrataTable::path() const { return map_ ? map_->path() : std::string(); }
U64 StrataTable::fileBytes() const noexcept { return map_ ? map_->fileSize() : 0; }
U32 StrataTable::changeSeq() const noexcept { return map_ ? map_->changeSeq() : 0; }
U32 StrataTable::writerGeneration() const noexcept { return map_ ? map_->writerGeneration() : 0; }
U64 StrataTable::creationId() const noexcept { return map_ ? map_->creationId() : 0; }

bool StrataTable::waitForChange(U32 seen, std::chrono::milliseconds timeout) const {
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    auto pause = std::chrono::microseconds(20);
    for (;;) {
        if (changeSeq() != seen) return true;
        auto const now = std::chrono::steady_clock::now();
        if (now >= deadline) return false;
        std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(pause, deadline - now));
        pause = std::min(pause * 2, std::chrono::microseconds(1000));
    }
}

U32 StrataTable::cleanup() { return kind_->cleanup(); }
void StrataTable::validateFiles() { kind_->validateFiles(); }
void StrataTable::validate() { kind_->validate(); }
WriterCounters StrataTable::writerCounters() const { return kind_->writerCounters(); }
ReaderCounters StrataTable::readerCounters() const { return kind_->readerCounters(); }

StrataMap& StrataTable::writable(char const* op) const {
    if (!map_) {
        throw Exception(ExceptionId::connection_,
                        std::string(op) + " to detached Strata table " + name().stringValue());
    }
    map_->checkWritable(op);
    return *map_;
}

bool StrataTable::removeFiles(std::string const& prefix, std::string const& directory) {
    bool any = false;
    DIR* d = ::opendir(directory.c_str());
    if (!d) return false;
    std::string const stem = prefix + "-fib";
    while (dirent* e = ::readdir(d)) {
        std::string const name = e->d_name;
        if (name.compare(0, stem.size(), stem) != 0) continue;
        std::string const rest = name.substr(stem.size());
        bool ours = false;
        for (char const* suffix : {"4-fec", "6-fec", "4-route", "6-route"}) {
            std::string const s = suffix;
            if (rest.compare(0, s.size(), s) == 0 &&
                (rest.size() == s.size() || rest[s.size()] == '.')) {
                ours = true;
            }
        }
        if (ours && ::unlinkat(::dirfd(d), name.c_str(), 0) == 0) any = true;
    }
    ::closedir(d);
    return any;
}

} // namespace Strata
