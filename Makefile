# Both targets set up a fresh Debian machine, build, then run.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all setup configure build demo test bench clean format

all: build

setup:
	@bash scripts/setup.sh

configure: setup
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	$(BUILD)/kavelin-demo $(DEMO_ARGS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) $(CTEST_ARGS)

bench: build
	$(BUILD)/bench/kavelin-bench-playlist
	$(BUILD)/bench/kavelin-bench-playback

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD)
