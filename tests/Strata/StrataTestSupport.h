// Helpers shared by the Strata table tests: unique table prefixes whose files are removed at
// the end of the test, the helper program that plays other processes, the error a call
// raises, self-checking FECs, and a table file mapped writable to damage it or to leave it
// as a dead writer would.
#pragma once

#include "Strata/Strata.h"
#include "Strata/StrataLayout.h"
#include "helper/SelfCheck.h"
#include "tests/ExecProgram.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace strata_test {

// A table prefix no other test (or concurrent test run) uses: "sttest-<pid>-<n>". Its files
// are removed when the guard goes out of scope, and before use (a crashed earlier run).
class TablePrefix {
  public:
    TablePrefix() {
        static int counter = 0;
        name_ = "sttest-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
        Strata::StrataTable::removeFiles(name_);
    }
    ~TablePrefix() { Strata::StrataTable::removeFiles(name_); }
    TablePrefix(TablePrefix const&) = delete;
    TablePrefix& operator=(TablePrefix const&) = delete;

    std::string const& str() const { return name_; }
    operator std::string const&() const { return name_; }
    std::string file(char const* suffix) const {
        return std::string(Strata::defaultDirectory) + "/" + name_ + "-" + suffix;
    }

  private:
    std::string name_;
};

inline bool fileExists(std::string const& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

inline std::string readFile(std::string const& path) {
    std::string out;
    int const fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return out;
    char buf[4096];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) out.append(buf, std::size_t(n));
    ::close(fd);
    return out;
}

// The message of the E that f raises (and its id in *id); a marker text for anything else.
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

// Starts the helper program with these arguments; its stdout goes to a pipe when asked for.
inline pid_t spawnHelper(std::vector<std::string> const& args, int* stdoutFd = nullptr) {
    int pipeFds[2] = {-1, -1};
    if (stdoutFd && ::pipe(pipeFds) != 0) return -1;
    pid_t const pid = ::fork();
    if (pid == 0) {
        if (stdoutFd) {
            ::dup2(pipeFds[1], 1);
            ::close(pipeFds[0]);
            ::close(pipeFds[1]);
        }
        RidgeTest::execProgram(STRATA_HELPER, args);
        ::_exit(127);
    }
    if (stdoutFd) {
        ::close(pipeFds[1]);
        *stdoutFd = pipeFds[0];
    }
    return pid;
}

// Waits for the child; its exit status (128 + signal when killed).
inline int waitChild(pid_t pid) {
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid) return -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

// Reads everything the child writes to the pipe until it closes it.
inline std::string drain(int fd) {
    std::string out;
    char buf[1024];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) out.append(buf, std::size_t(n));
    ::close(fd);
    return out;
}

// Reads one line (without the newline) from the pipe.
inline std::string readLine(int fd) {
    std::string line;
    char c;
    while (::read(fd, &c, 1) == 1 && c != '\n') line += c;
    return line;
}

// True when an environment variable asks for the long stress runs.
inline bool stressRequested() {
    char const* s = std::getenv("STRATA_STRESS");
    return s && *s && std::string(s) != "0";
}

// Small capacities: every class holds `perClass` FECs.
inline Strata::FecCapacity smallFecCapacity(U32 maxFecs, U32 perClass) {
    Strata::FecCapacity c;
    c.maxFecs = maxFecs;
    c.classFecs.fill(perClass);
    return c;
}

// The self-checking IPv4 FEC k at version v (SelfCheck.h), off the stack.
inline std::unique_ptr<Strata::Fib::Fec> fecVersion(U64 k, U32 v) {
    auto f = std::make_unique<Strata::Fib::Fec>();
    makeSelfCheckFec(k, v, *f);
    return f;
}

// A table file mapped writable, to damage it or to put it into the state a dead writer leaves.
class MappedFile {
  public:
    explicit MappedFile(std::string const& path) {
        fd_ = ::open(path.c_str(), O_RDWR);
        struct stat st {};
        ::fstat(fd_, &st);
        size_ = std::size_t(st.st_size);
        void* p = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
        base_ = p == MAP_FAILED ? nullptr : static_cast<U8*>(p);
        EXPECT_NE(base_, nullptr) << path;
    }
    ~MappedFile() {
        if (base_) ::munmap(base_, size_);
        ::close(fd_);
    }
    MappedFile(MappedFile const&) = delete;
    MappedFile& operator=(MappedFile const&) = delete;

    Strata::layout::FileHeader& header() {
        return *reinterpret_cast<Strata::layout::FileHeader*>(base_);
    }
    // Makes the header's checksum fit what it holds now.
    void reseal() { header().checksum = Strata::layout::headerChecksum(base_); }
    Strata::layout::IndexEntry* index() {
        return reinterpret_cast<Strata::layout::IndexEntry*>(base_ + header().indexOffset);
    }
    U32* slot(U32 cls, U32 slot) {
        auto const& c = header().classes[cls];
        return reinterpret_cast<U32*>(base_ + c.offset + U64(slot) * c.slotSize);
    }
    // The index entry holding this slot reference.
    Strata::layout::IndexEntry& entryOf(U32 ref) {
        for (U32 i = 0; i < header().indexEntries; ++i) {
            if (index()[i].ref == ref) return index()[i];
        }
        ADD_FAILURE() << "reference " << ref << " not in the index";
        return none_;
    }

  private:
    int fd_ = -1;
    std::size_t size_ = 0;
    U8* base_ = nullptr;
    Strata::layout::IndexEntry none_{};
};

} // namespace strata_test
