# Entry points: `make demo`, `make check`; see README.md.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE ?= cmake
FUZZ_SECONDS ?= 60
SOAK_SECONDS ?= 600

.PHONY: all setup build demo check check-native check-armhf check-armhf-user check-stress tsan fuzz soak bench install uninstall docs package clean

all: build

setup:
	@scripts/setup.sh

build: setup
	$(CMAKE) -S . -B $(BUILD)/release -DCMAKE_BUILD_TYPE=Release -DIBP_BUILD_TESTS=OFF
	$(CMAKE) --build $(BUILD)/release -j $(JOBS)

# The same build as `make build`, one line per step and its output kept in
# $(BUILD)/release.*.log unless it fails, so the demo is what the screen shows.
demo: setup
	@scripts/quiet_build.sh $(BUILD)/release
	@scripts/demo.sh $(BUILD)/release

check: setup
	@scripts/check.sh $(BUILD)

check-native: setup
	@scripts/check.sh $(BUILD) native

check-armhf: setup
	@scripts/check.sh $(BUILD) armhf

# The quick armhf run: static programs under qemu-user (not part of `check`).
check-armhf-user: setup
	@scripts/check.sh $(BUILD) armhf-user

# The native tests repeated (up to 5 times each) and then the armhf tests,
# with a busy loop on every core beside them (not part of `check`).
check-stress: setup
	@scripts/check_stress.sh $(BUILD)

# The threaded tests once more under ThreadSanitizer (not part of `check`).
tsan: setup
	@scripts/check.sh $(BUILD) tsan

# libFuzzer targets of tests/fuzz, built with clang in $(BUILD)/fuzz and run
# for FUZZ_SECONDS each on a copy of their corpus; a crash fails it.
fuzz: setup
	@JOBS=$(JOBS) FUZZ_SECONDS=$(FUZZ_SECONDS) scripts/fuzz.sh $(BUILD)

# Release build of the benchmarks and one table of figures next to their
# floors (bench/README.md); builds in $(BUILD)/bench and $(BUILD)/bench-armhf.
bench: setup
	@JOBS=$(JOBS) scripts/bench.sh $(BUILD)

# The sample service under AddressSanitizer and UBSan for SOAK_SECONDS, beside
# pings, debug tool lines, an async flood and hostile datagrams, in a private
# namespace; a summary with its verdicts (scripts/soak.sh). Builds in $(BUILD)/soak.
soak: setup
	@SOAK_SECONDS=$(SOAK_SECONDS) JOBS=$(JOBS) scripts/soak.sh $(BUILD)

install: build
	$(CMAKE) --install $(BUILD)/release $(if $(PREFIX),--prefix $(PREFIX))

# Removes what the last `make install` put in (its install_manifest.txt).
uninstall:
	$(CMAKE) -DMANIFEST=$(BUILD)/release/install_manifest.txt -P cmake/uninstall.cmake

# API reference of include/ibp/ in $(BUILD)/docs/html; a warning fails it.
docs: setup
	@$(CMAKE) -S . -B $(BUILD)/release -DCMAKE_BUILD_TYPE=Release -DIBP_BUILD_TESTS=OFF \
		-DIBP_DOCS_DIR=$(abspath $(BUILD))/docs >/dev/null
	$(CMAKE) --build $(BUILD)/release --target docs

# Debian packages for x86-64 and armhf in $(BUILD)/packages, then checked.
package: setup
	@JOBS=$(JOBS) scripts/package.sh $(BUILD)

clean:
	rm -rf $(BUILD)
