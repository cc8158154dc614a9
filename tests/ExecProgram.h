// Replaces the calling (forked) process with a program the suite built, started through the
// emulator the build runs its programs under when there is one (RIDGE_TARGET_RUNNER). Returns
// only when the program could not be started.
#pragma once

#include <string>
#include <unistd.h>
#include <vector>

#ifndef RIDGE_TARGET_RUNNER
#define RIDGE_TARGET_RUNNER ""
#endif

namespace RidgeTest {

inline void execProgram(std::string const& path, std::vector<std::string> const& args) {
    std::string const runner = RIDGE_TARGET_RUNNER;
    std::vector<char*> argv;
    if (!runner.empty()) argv.push_back(const_cast<char*>(runner.c_str()));
    argv.push_back(const_cast<char*>(path.c_str()));
    for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
}

}  // namespace RidgeTest
