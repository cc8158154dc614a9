#include "Rix/ProcSys.h"

#include "Kal/Tracing.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

KAL_TRACE_HANDLE("RixProcSys", "ProcSys");

namespace Rix {

namespace {
std::mutex rootMutex;
std::string& root() {
    static std::string r;
    return r;
}
} // namespace

std::string procSysRootIs(std::string r) {
    std::lock_guard lock(rootMutex);
    std::swap(r, root());
    return r;
}

std::string procSysRoot() {
    std::lock_guard lock(rootMutex);
    return root();
}

bool writeProcSys(char const* path, char const* value) {
    std::string target = path;
    if (std::string const r = procSysRoot(); !r.empty()) {
        target = r + target;
        std::error_code ec;
        std::filesystem::create_directories(std::filesystem::path(target).parent_path(), ec);
    }
    int const fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        int const err = errno;
        KAL_TRACE(0, "bool Rix::writeProcSys(const char*, const char*) open " << target << ": "
                                                                             << std::strerror(err));
        return false;
    }
    std::size_t const len = std::strlen(value);
    ssize_t const n = ::write(fd, value, len);
    int const err = errno;
    ::close(fd);
    if (n != ssize_t(len)) {
        KAL_TRACE(0, "bool Rix::writeProcSys(const char*, const char*) write " << target << ": "
                                                                              << std::strerror(err));
        return false;
    }
    return true;
}

} // namespace Rix
