// Rix::writeProcSys: writes one kernel setting, such as
//   Rix::writeProcSys("/proc/sys/net/ipv6/conf/all/forwarding", "1");
//
// The value is written to the file in one write and the file closed; nothing else is done to
// it. Callers do not look at the result (the setting is the kernel's to refuse), so the
// function returns whether the write went through and traces a failure (facility
// "RixProcSys", level 0) with the path and the system's reason.
//
// Tests aim it elsewhere with procSysRootIs(dir): every path is then taken below dir
// ("<dir>/proc/sys/..."), and the directories on the way are made as needed. An empty root
// (the default) writes the real files.
#pragma once

#include <string>

namespace Rix {

bool writeProcSys(char const* path, char const* value);

// Installs a root directory for writeProcSys (empty: the real file system) and returns the
// previous one.
std::string procSysRootIs(std::string root);
std::string procSysRoot();

} // namespace Rix
