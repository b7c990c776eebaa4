# Entry points: `make demo`, `make check`; see README.md.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE ?= cmake

.PHONY: all setup build demo check check-native check-armhf tsan bench install clean

all: build

setup:
	@scripts/setup.sh

build: setup
	$(CMAKE) -S . -B $(BUILD)/release -DCMAKE_BUILD_TYPE=Release -DIBP_BUILD_TESTS=OFF
	$(CMAKE) --build $(BUILD)/release -j $(JOBS)

demo: build
	@scripts/demo.sh $(BUILD)/release

check: setup
	@scripts/check.sh $(BUILD)

check-native: setup
	@scripts/check.sh $(BUILD) native

check-armhf: setup
	@scripts/check.sh $(BUILD) armhf

# The threaded tests once more under ThreadSanitizer (not part of `check`).
tsan: setup
	@scripts/check.sh $(BUILD) tsan

# Release build of the benchmarks and one table of figures next to their
# floors (bench/README.md); builds in $(BUILD)/bench and $(BUILD)/bench-armhf.
bench: setup
	@JOBS=$(JOBS) scripts/bench.sh $(BUILD)

install: build
	$(CMAKE) --install $(BUILD)/release

clean:
	rm -rf $(BUILD)
