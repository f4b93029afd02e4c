# Every target first installs whatever Debian packages are missing.
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 300
CMAKE ?= cmake
CTEST_FLAGS ?= --output-on-failure -j$(JOBS) --timeout 300

export ASAN_OPTIONS ?= detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS ?= print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS ?= halt_on_error=1:second_deadlock_stack=1

.PHONY: deps build check check-asan check-tsan bench fuzz-config fuzz-definition fuzz-expression fuzz-mdl fuzz-format clean

deps:
	@scripts/install-deps

build: deps
	$(CMAKE) -S . -B build -G Ninja
	$(CMAKE) --build build

check: build
	ctest --test-dir build $(CTEST_FLAGS)

# AddressSanitizer and UndefinedBehaviorSanitizer, g++.
check-asan: deps
	$(CMAKE) -S . -B build-asan -G Ninja -DXRV_SANITIZE=address -DXRV_BENCH=OFF
	$(CMAKE) --build build-asan
	ctest --test-dir build-asan $(CTEST_FLAGS)

# ThreadSanitizer, clang: the same build also checks the lock annotations.
check-tsan: deps
	CC=clang CXX=clang++ $(CMAKE) -S . -B build-tsan -G Ninja -DXRV_SANITIZE=thread -DXRV_BENCH=OFF
	$(CMAKE) --build build-tsan
	ctest --test-dir build-tsan $(CTEST_FLAGS)

bench: build
	@scripts/install-deps --bench
	bench/run build

.PHONY: demo soak

# The demo agent in the foreground, its HTTP API on http://127.0.0.1:9310 (Ctrl-C
# stops it).
demo: build
	scripts/demo build

# Not part of check. First the log engine's rotation harness for SOAK_HARNESS_SECONDS
# (default 300): every line exactly once through renames, copytruncates, truncations,
# deletions and restarts, round after round; then the demo under load for SOAK_SECONDS
# (default 600): memory and descriptors must stay flat and no request may fail.
SOAK_HARNESS_SECONDS ?= 300
soak: build
	XRVLOG_HARNESS_SECONDS=$(SOAK_HARNESS_SECONDS) \
	  build/tests/logengine/tail/logengine_tail_harness_test
	@scripts/install-deps --bench
	bench/soak build

# libFuzzer targets, each for FUZZ_SECONDS (default 300 s; 600 s for definitions),
# starting from the seeds under tests/fuzz/corpus/NAME. A crash leaves crash-* in
# the current directory: once fixed, add it to the seeds as a regression-* file.
#   fuzz-config:     configuration file and trace rules; what it finds stays in
#                    build-fuzz/corpus-config
#   fuzz-definition: the agent-definition reader; what it finds is merged into the
#                    kept corpus tests/fuzz/corpus/definition
#   fuzz-expression: the formula and filter parsers and the evaluator (600 s); what
#                    it finds is merged into tests/fuzz/corpus/expression
#   fuzz-mdl:        the log engine's MDL reader (600 s); what it finds is merged
#                    into tests/fuzz/corpus/mdl
#   fuzz-format:     the format-file parser and the MDL text it generates (600 s);
#                    what it finds is merged into tests/fuzz/corpus/format
FUZZ_CONFIGURE = CC=clang CXX=clang++ $(CMAKE) -S . -B build-fuzz -G Ninja -DXRV_FUZZ=ON \
  -DXRV_SANITIZE=address -DXRV_BENCH=OFF

fuzz-config: deps
	$(FUZZ_CONFIGURE)
	$(CMAKE) --build build-fuzz --target fuzz_config
	mkdir -p build-fuzz/corpus-config
	build-fuzz/tests/fuzz/fuzz_config -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	  build-fuzz/corpus-config tests/fuzz/corpus/config

# $(call fuzz_kept,NAME,MAX_LEN,OPTIONS): runs fuzz_NAME from its kept corpus
# tests/fuzz/corpus/NAME with the dictionary tests/fuzz/NAME.dict, then merges what it
# found into the kept corpus.
define fuzz_kept
	$(FUZZ_CONFIGURE)
	$(CMAKE) --build build-fuzz --target fuzz_$(1)
	mkdir -p build-fuzz/corpus-$(1)
	build-fuzz/tests/fuzz/fuzz_$(1) -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	  -max_len=$(2) $(3) -dict=tests/fuzz/$(1).dict \
	  build-fuzz/corpus-$(1) tests/fuzz/corpus/$(1)
	build-fuzz/tests/fuzz/fuzz_$(1) -merge=1 -max_len=$(2) \
	  tests/fuzz/corpus/$(1) build-fuzz/corpus-$(1)
endef

fuzz-definition: FUZZ_SECONDS = 600
fuzz-definition: deps
	$(call fuzz_kept,definition,16384,)

fuzz-expression: FUZZ_SECONDS = 600
fuzz-expression: deps
	$(call fuzz_kept,expression,512,-timeout=10)

fuzz-mdl: FUZZ_SECONDS = 600
fuzz-mdl: deps
	$(call fuzz_kept,mdl,4096,-timeout=10)

fuzz-format: FUZZ_SECONDS = 600
fuzz-format: deps
	$(call fuzz_kept,format,4096,-timeout=10)

clean:
	rm -rf build build-asan build-tsan build-fuzz
