# Both targets set up a fresh Debian machine, build, then run.
MAKEFLAGS += --no-print-directory
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKAVELIN_CHECK_MAIN_QUEUE=ON
# The project's own builds fail on any warning; a game's build of the library does not.
WERROR_FLAGS ?= -DKAVELIN_WERROR=ON
PREFIX ?= /usr/local

.PHONY: all setup configure build demo demo-cs test bench clean format asan tsan fuzz install

all: build

setup:
	@bash scripts/setup.sh

configure: setup
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) $(WERROR_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	$(BUILD)/kavelin-demo $(DEMO_ARGS)

# The C# example on Mono, headless and bounded (DEMO_CS_ARGS=seconds).
demo-cs: build
	@mkdir -p $(BUILD)/examples
	@mcs -nologo -warnaserror+ -out:$(BUILD)/examples/KavelinExample.exe bindings/csharp/*.cs examples/csharp/KavelinExample.cs
	KAVELIN_HEADLESS=1 LD_LIBRARY_PATH=$(BUILD) mono $(BUILD)/examples/KavelinExample.exe $(DEMO_CS_ARGS)

install: build
	@cmake --install $(BUILD) --prefix $(PREFIX)

test: build
	cd $(BUILD) && ctest --output-on-failure --no-tests=error -j $(JOBS) $(CTEST_ARGS)

bench: build
	@for b in $(BUILD)/bench/kavelin-bench-*; do echo "== $$(basename $$b)"; $$b || exit 1; done

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD)

# Whole suite under the sanitizers, each in its own build directory. Third-party
# reports are suppressed by the files in tests/sanitizers. Without a session bus,
# SDL's video start makes libdbus fork to autolaunch one; under ThreadSanitizer
# that child of a threaded process can hang before its exec, and the window's
# opening (and an exit waiting for it) with it. The suite needs no bus.
SAN_ENV = DBUS_SESSION_BUS_ADDRESS=disabled: \
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=0 \
	LSAN_OPTIONS=suppressions=$(CURDIR)/tests/sanitizers/lsan.supp:print_suppressions=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	TSAN_OPTIONS=suppressions=$(CURDIR)/tests/sanitizers/tsan.supp:halt_on_error=1:second_deadlock_stack=1
asan tsan: setup
	@cmake -S . -B build-$@ -DCMAKE_BUILD_TYPE=Debug -DKAVELIN_SANITIZE=$(if $(filter asan,$@),address,thread) $(WERROR_FLAGS) >/dev/null
	@mkdir -p build-$@/fonts && cp -n build/fonts/*.ttf build-$@/fonts/ 2>/dev/null || true
	@cmake --build build-$@ -j $(JOBS)
	cd build-$@ && $(SAN_ENV) ctest --output-on-failure -j $(JOBS) $(CTEST_ARGS)

# libFuzzer (clang 14): every target for FUZZ_SECONDS on a scratch copy of its corpus;
# a crash leaves its reproducer in build-fuzz/crashes/<target>.
FUZZ_SECONDS ?= 60
fuzz: setup
	@CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKAVELIN_FUZZ=ON $(WERROR_FLAGS) >/dev/null
	@cmake --build build-fuzz -j $(JOBS) --target fuzzers
	@for t in playlists:Playlists episodes:Episodes mid_roll_policy:MidRollPolicy state_file:StateFile call_program:CallProgram; do \
	  dir=$${t%%:*}; name=$${t##*:}; mkdir -p build-fuzz/corpus/$$dir build-fuzz/crashes/$$dir; \
	  echo "== fuzz_$$name"; \
	  KAVELIN_HEADLESS=1 build-fuzz/tests/fuzz/fuzz_$$name -max_total_time=$(FUZZ_SECONDS) -timeout=10 -rss_limit_mb=4096 \
	    -dict=tests/fuzz/$$dir.dict -artifact_prefix=build-fuzz/crashes/$$dir/ -print_final_stats=1 \
	    build-fuzz/corpus/$$dir tests/fuzz/corpus/$$dir >build-fuzz/fuzz_$$name.log 2>&1; rc=$$?; \
	  grep -E "^stat::(number_of_executed_units|average_exec_per_sec)|^SUMMARY" build-fuzz/fuzz_$$name.log; \
	  [ $$rc -eq 0 ] || { tail -40 build-fuzz/fuzz_$$name.log; exit 1; }; \
	done

# Minutes of real playback watching memory, threads and descriptors (not in make test).
.PHONY: soak
soak: build
	KAVELIN_HEADLESS=1 $(BUILD)/bench/kavelin-soak $(SOAK_ARGS)
