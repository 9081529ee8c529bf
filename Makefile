# Entry points for people and CI.  Everything builds with CMake under build*/.
#   make demo      build everything and run the kystore command on a sample storage
#   make test      build and run every test
#   make sanitize  the tests under AddressSanitizer and UndefinedBehaviorSanitizer
#   make fuzz      build the libFuzzer targets and run each for FUZZ_TIME seconds
#   make bench     build and run the benchmarks (writes docs/PERFORMANCE.md);
#                  BENCH_ARGS=--benchmark_filter=... picks some, KYSTORE_BENCH_SCALE=small
#                  divides every size by 10
#   make install PREFIX=/usr/local
#   make deps      install the Debian packages the build needs

BUILD      ?= build
PREFIX     ?= /usr/local
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
FUZZ_TIME  ?= 60
FUZZ_TARGETS ?= fuzz_open fuzz_popop fuzz_ops fuzz_replay
BENCH_ARGS ?=
CMAKE      ?= cmake

.PHONY: all deps check-deps configure build demo test sanitize fuzz bench install format clean

all: build

deps:
	scripts/install-deps.sh

check-deps:
	@scripts/install-deps.sh --if-missing

configure: check-deps
	$(CMAKE) -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: configure
	$(CMAKE) --build $(BUILD) -j $(JOBS)

# The build's own output would bury the demo: it goes to demo-build.log.
demo: check-deps
	@$(CMAKE) -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@$(CMAKE) --build $(BUILD) -j $(JOBS) >$(BUILD)/demo-build.log 2>&1 || \
	  { tail -n 30 $(BUILD)/demo-build.log; exit 1; }
	@scripts/demo.sh $(BUILD)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The install test is left out: a plain program cannot link the instrumented library.
sanitize: check-deps
	$(CMAKE) -S . -B $(BUILD)-sanitize -DCMAKE_BUILD_TYPE=Debug -DKYSTORE_SANITIZE=ON \
	  -DKYSTORE_BUILD_TOOLS=ON -DKYSTORE_PYTHON=OFF >/dev/null
	$(CMAKE) --build $(BUILD)-sanitize -j $(JOBS)
	cd $(BUILD)-sanitize && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS) -LE install

fuzz: check-deps
	CXX=clang++ $(CMAKE) -S . -B $(BUILD)-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DKYSTORE_BUILD_FUZZ=ON -DKYSTORE_BUILD_TESTS=OFF -DKYSTORE_BUILD_TOOLS=OFF >/dev/null
	$(CMAKE) --build $(BUILD)-fuzz -j $(JOBS)
	@for t in $(FUZZ_TARGETS); do \
	  mkdir -p fuzz-corpus/$$t; \
	  echo "== $$t for $(FUZZ_TIME) s"; \
	  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  $(BUILD)-fuzz/fuzz/$$t -max_total_time=$(FUZZ_TIME) -max_len=65536 -timeout=10 \
	    fuzz-corpus/$$t fuzz/seeds/$$t || exit 1; \
	done

bench: check-deps
	$(CMAKE) -S . -B $(BUILD)-bench -DCMAKE_BUILD_TYPE=Release -DKYSTORE_BUILD_BENCH=ON \
	  -DKYSTORE_BUILD_TESTS=OFF >/dev/null
	$(CMAKE) --build $(BUILD)-bench -j $(JOBS)
	scripts/bench.sh $(BUILD)-bench $(BENCH_ARGS)

install: build
	$(CMAKE) --install $(BUILD) --prefix $(PREFIX)

format:
	find platform include container streamdata hierarchy entries recording access tools tests \
	  bench fuzz examples -name '*.h' -o -name '*.cpp' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(BUILD)-sanitize $(BUILD)-fuzz $(BUILD)-bench
