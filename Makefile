# The commands a newcomer runs: `make demo` and `make test`. CMake does the building.
JOBS ?= 2
CMAKE_FLAGS ?=
RELEASE := build/release
ASAN := build/asan
BENCH := build/bench
# Each case runs five times, interleaved at random with the others, and the ratios compare the
# best repetitions: a shared machine's noise only adds time, and hits kvlCV and its peer alike.
BENCH_RUN ?= --benchmark_min_time=0.1 --benchmark_repetitions=5 \
  --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true

.PHONY: all deps demo test test-release test-asan bench install clean

all: $(RELEASE)/Makefile
	cmake --build $(RELEASE) -j $(JOBS)

deps:
	@tools/deps.sh

$(RELEASE)/Makefile: | deps
	cmake -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

$(ASAN)/Makefile: | deps
	cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVL_SANITIZE="address;undefined" \
	  -DKVL_BUILD_TOOLS=ON $(CMAKE_FLAGS)

demo: all
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

install: all
	cmake --install $(RELEASE)

clean:
	rm -rf build demo-out
