# Everyday commands. The real build lives in CMake (CMakePresets.json); this file only
# strings the steps together so that a fresh Debian 12 machine needs one command.

PRESET ?= default
JOBS   ?= $(shell nproc)
BUILD  := build/$(PRESET)

# Debian packages the build needs; `make deps` installs those that are missing. qemu-user runs
# the 32-bit test programs on machines whose kernel cannot run 32-bit code itself.
DEB_PACKAGES := cmake ninja-build g++ g++-multilib clang libgtest-dev googletest \
                libbenchmark-dev libabsl-dev liblmdb-dev python3 qemu-user

.PHONY: all deps configure build test bench demo fuzz clean

all: build

deps:
	@missing=""; \
	for p in $(DEB_PACKAGES); do \
	  dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q '^install ok installed$$' || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  SUDO=$$( [ "$$(id -u)" = 0 ] || echo sudo ); \
	  $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing; \
	fi

configure: deps
	cmake --preset $(PRESET)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	ctest --preset $(PRESET) -j $(JOBS)

bench: deps
	cmake --preset default
	cmake --build build/default -j $(JOBS) --target ridge-bench
	build/default/bench/ridge-bench --benchmark_counters_tabular=true $(BENCH_ARGS)

# libFuzzer targets under clang with address and undefined-behaviour sanitizers, each run for
# FUZZ_SECONDS on a working copy of its seed corpus (the committed corpus is not touched).
FUZZ_SECONDS ?= 60
FUZZ_BUILD   := build/fuzz
FUZZ_TARGETS := textform tableattach

fuzz: deps
	cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DRIDGE_BUILD_FUZZ=ON \
	  -DRIDGE_BUILD_TESTS=OFF -DRIDGE_BUILD_BENCH=OFF -DRIDGE_SANITIZE=address,undefined
	cmake --build $(FUZZ_BUILD) -j $(JOBS) $(addprefix --target fuzz-,$(FUZZ_TARGETS))
	@for t in $(FUZZ_TARGETS); do \
	  rm -rf $(FUZZ_BUILD)/corpus-$$t && cp -r tests/fuzz/corpus/$$t $(FUZZ_BUILD)/corpus-$$t && \
	  echo "fuzzing $$t for $(FUZZ_SECONDS)s" && \
	  $(FUZZ_BUILD)/tests/fuzz/fuzz-$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	    -artifact_prefix=$(FUZZ_BUILD)/crash-$$t- $(FUZZ_BUILD)/corpus-$$t || exit 1; \
	done

demo: deps
	@echo "make demo: the reference daemon host ridged is not built yet;"
	@echo "the library it will drive is built and tested (make test, make bench);"
	@echo "ridge-fib reads the shared-memory tables: build/default/apps/ridge-fib/ridge-fib --help"

clean:
	rm -rf build
