# Test programs built for another word size than the machine runs natively (the 32-bit switch
# build on an x86_64 kernel without 32-bit support, as some virtual machines have) run under
# qemu's user-mode emulator. The probe compiles and runs one program with the build's flags; only
# when it cannot run is the emulator used, so machines that run 32-bit code natively test natively.
# -DRIDGE_TARGET_RUNNER=<emulator> skips the probe and runs everything under the one given (to
# try the emulated run on a machine that would not need it).
#
# Sets RIDGE_TARGET_RUNNER to the emulator (empty when none is needed). CMake starts test and
# discovery runs through it; the suites put it in front of the programs they start themselves.
set(RIDGE_TARGET_RUNNER "" CACHE STRING "emulator that runs the test programs (empty: probe)")
if(RIDGE_BUILD_TESTS AND NOT CMAKE_CROSSCOMPILING AND NOT RIDGE_TARGET_RUNNER)
  set(_probe_dir ${CMAKE_BINARY_DIR}/CMakeFiles/target-runner-probe)
  file(WRITE ${_probe_dir}/probe.c "int main(void) { return 0; }\n")
  try_run(_probe_run _probe_compile ${_probe_dir}/build ${_probe_dir}/probe.c
          RUN_OUTPUT_VARIABLE _probe_output)
  if(NOT _probe_compile)
    message(FATAL_ERROR "cannot build a program with the configured flags (${CMAKE_C_FLAGS})")
  endif()
  if(NOT _probe_run EQUAL 0)
    if(CMAKE_SIZEOF_VOID_P EQUAL 4)
      find_program(RIDGE_QEMU NAMES qemu-i386 qemu-i386-static)
    endif()
    if(NOT RIDGE_QEMU)
      message(FATAL_ERROR "programs built with the flags \"${CMAKE_C_FLAGS}\" do not run on this "
                          "machine (${_probe_run}) and no emulator was found; for the 32-bit "
                          "build install Debian's qemu-user (make deps does)")
    endif()
    set(RIDGE_TARGET_RUNNER ${RIDGE_QEMU})
  endif()
endif()
if(RIDGE_TARGET_RUNNER)
  message(STATUS "Test programs run under ${RIDGE_TARGET_RUNNER}")
  set(CMAKE_CROSSCOMPILING_EMULATOR ${RIDGE_TARGET_RUNNER})
endif()
