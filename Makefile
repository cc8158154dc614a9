# Everyday commands. The real build lives in CMake (CMakePresets.json); this file only
# strings the steps together so that a fresh Debian 12 machine needs one command.

PRESET ?= default
JOBS   ?= $(shell nproc)
BUILD  := build/$(PRESET)

# Debian packages the build needs; `make deps` installs those that are missing.
DEB_PACKAGES := cmake ninja-build g++ g++-multilib clang libgtest-dev googletest \
                libbenchmark-dev libabsl-dev liblmdb-dev python3

.PHONY: all deps configure build test bench demo clean

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

demo: deps
	@echo "make demo: the reference daemon host ridged is not built yet;"
	@echo "it arrives with the adjacency helpers. Until then: make test, make bench."

clean:
	rm -rf build
