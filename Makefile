# Thin wrapper over CMake + Ninja. `make test` and `make demo` work on a fresh machine.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
CMAKE_FLAGS ?=
JOBS ?= 2

.PHONY: all deps configure build test demo docs bench test-asan test-tsan test-valgrind fuzz-smoke mutate clean

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

# Builds only what the demo runs (the libraries and the tool), no test.
demo: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target quorvel
	@$(BUILD_DIR)/tools/quorvel demo

# The API reference of the public headers (Doxygen) in $(BUILD_DIR)/docs/html. A
# public member without a comment, like any other warning, fails it.
docs: deps
	@mkdir -p $(BUILD_DIR)/docs
	@AVQVL_VERSION=$$(sed -n 's/^#define AVQVL_VERSION_STRING "\(.*\)"/\1/p' client/Version.h) \
	    AVQVL_DOCS_OUTPUT=$(BUILD_DIR)/docs doxygen docs/Doxyfile
	@echo "API reference: $(BUILD_DIR)/docs/html/index.html"

# Google Benchmark programs; prints a table and writes JSON to $(BUILD_DIR)/bench/.
bench: deps
	@scripts/run-bench.sh

# Every test under AddressSanitizer + UndefinedBehaviorSanitizer + LeakSanitizer.
test-asan: deps
	@scripts/test-asan.sh

# The multi-threaded tests under ThreadSanitizer.
test-tsan: deps
	@scripts/test-tsan.sh

# The in-process test programs under valgrind memcheck.
test-valgrind: build
	@scripts/test-valgrind.sh

# Each libFuzzer target for a bounded time over its committed corpus.
fuzz-smoke: deps
	@scripts/fuzz-smoke.sh

# The fault check: each fault of scripts/mutations.tsv in a scratch copy, and
# the tests that catch it (slow; not in CI). Options through MUTATE_ARGS, e.g.
# make mutate MUTATE_ARGS="-f token-prefix,tls-no-verify -R Daemon".
mutate: deps
	@scripts/mutate.sh $(MUTATE_ARGS)

clean:
	@rm -rf $(BUILD_DIR) build-asan build-tsan build-fuzz build-bench build-mutate
