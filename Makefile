# Set-up and test entry points; see README.md.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
# Time-outs in the end-to-end tests mostly wait, so run more tests than cores.
TEST_JOBS  ?= $(shell echo $$(( $$(nproc) * 3 )))

.PHONY: all deps build build-asan install test test-asan check faults demo package clean format fuzz bench

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSYLV_SANITIZE=ON
	cmake --build $(ASAN_BUILD) -j $(JOBS)

# The tool, its documentation and the Ansible collection (under
# /usr/share/ansible/collections, where Ansible looks); PREFIX defaults to /usr/local.
install: build
	cmake --install $(BUILD) $(if $(PREFIX),--prefix $(PREFIX))

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(TEST_JOBS)

test-asan: build-asan
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(TEST_JOBS)

# Every test, in a normal build and in an ASan + UBSan build.
check: test test-asan

# Every allocation of a normal run of each main command fails in turn, one
# run per point, against the fake agent in a private network namespace; the
# table says how each run ended and the target fails if one died or hung.
# It runs the tool's twin with libc loaded dynamically, which the shim can
# interpose.
faults: build
	unshare -rn sh -c 'ip link set lo up && exec "$$0" "$$@"' python3 tests/faults/sweep.py \
		$(BUILD)/tests/faults/libfailmalloc.so \
		$(BUILD)/tests/sylvane-service-dynamic

# A short tour of the tool against the Transfer Agent simulator; builds
# only the tool.
demo: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD) -j $(JOBS) --target sylvane-service
	@tools/demo.sh $(BUILD)/cli/sylvane-service

# Release build in build-package/, then a Debian package there.
package: deps
	cmake -S . -B build-package -G Ninja -DCMAKE_BUILD_TYPE=Release -DSYLV_TESTS=OFF
	cmake --build build-package -j $(JOBS)
	cd build-package && cpack -G DEB

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)

# libFuzzer targets (clang) in fuzz-build/: a short run of each, or
# FUZZ_SECONDS=600 make fuzz for a long one.
fuzz:
	@scripts/install-deps.sh clang libclang-rt-14-dev
	@fuzz/run.sh $(FUZZ_SECONDS)

# Latency, scale and micro-benchmarks; the table goes to bench/RESULTS.md.
bench:
	@scripts/install-deps.sh libbenchmark-dev
	@bench/run.sh
