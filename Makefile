# The commands a newcomer runs: `make demo` and `make test`. CMake does the building.
JOBS ?= 2
CMAKE_FLAGS ?=
RELEASE := build/release
ASAN := build/asan
BENCH := build/bench
FUZZ := build/fuzz
# Seconds each fuzz target runs in `make fuzz`, and the checks it relaxes (KVL_FUZZ_LENIENT in
# fuzz/fuzz.h: NaN payloads where two NaNs meet, which the header leaves open; FUZZ_LENIENT= runs
# every check).
FUZZ_SECONDS ?= 60
FUZZ_LENIENT ?= nan
# Each case runs five times, interleaved at random with the others, and the ratios compare the
# best repetitions: a shared machine's noise only adds time, and hits kvlCV and its peer alike.
BENCH_RUN ?= --benchmark_min_time=0.1 --benchmark_repetitions=5 \
  --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true

.PHONY: all deps demo test test-release test-asan bench fuzz install clean

all: $(RELEASE)/Makefile
	cmake --build $(RELEASE) -j $(JOBS)

deps:
	@tools/deps.sh

$(RELEASE)/Makefile: | deps
	cmake -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

# -O1 and line tables only: the sanitizers check the same and their reports keep file and line,
# and the vector kernels compile in half the time of -O2 -g.
ASAN_CFLAGS := -O1 -g1 -DNDEBUG
$(ASAN)/Makefile: | deps
	cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVL_SANITIZE="address;undefined" \
	  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$(ASAN_CFLAGS)" \
	  -DCMAKE_C_FLAGS_RELWITHDEBINFO="$(ASAN_CFLAGS)" \
	  -DKVL_BUILD_TOOLS=ON $(CMAKE_FLAGS)

# The library and the tool only; the tests are built by `make test`.
demo: $(RELEASE)/Makefile
	cmake --build $(RELEASE) -j $(JOBS) --target kvlcv_cli
	$(RELEASE)/tools/kvlcv demo

# Release and ASan+UBSan builds, each built and tested; the last line sums both.
test: $(RELEASE)/Makefile $(ASAN)/Makefile
	cmake --build $(RELEASE) -j $(JOBS)
	cmake --build $(ASAN) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 tools/run_tests.sh $(RELEASE) $(ASAN)

bench:
	@tools/deps.sh --bench
	cmake -S . -B $(BENCH) -DCMAKE_BUILD_TYPE=Release -DKVL_BUILD_BENCH=ON -DKVL_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build $(BENCH) -j $(JOBS)
	$(BENCH)/bench/kvlcv_bench $(BENCH_RUN) $(BENCH_ARGS)

# Every fuzz target built with clang, libFuzzer, ASan and UBSan, each run FUZZ_SECONDS from its
# seed corpus; stops at the first failure and names the input.
fuzz:
	@tools/deps.sh --fuzz
	cmake -S . -B $(FUZZ) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang-14 \
	  -DCMAKE_CXX_COMPILER=clang++-14 -DKVL_FUZZ=ON -DKVL_SANITIZE="address;undefined" \
	  -DKVL_BUILD_TESTS=OFF -DKVL_BUILD_TOOLS=OFF $(CMAKE_FLAGS)
	cmake --build $(FUZZ) -j $(JOBS) --target kvl_fuzz
	KVL_FUZZ_LENIENT=$(FUZZ_LENIENT) fuzz/run.sh $(FUZZ) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

install: all
	cmake --install $(RELEASE)

clean:
	rm -rf build demo-out
