// Version of the ridge library, as built.
#pragma once

namespace Ridge {

// "major.minor.patch" of the library the process has loaded.
char const* libraryVersion() noexcept;

} // namespace Ridge
