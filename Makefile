# Both targets set up a fresh Debian machine, build, then run.
MAKEFLAGS += --no-print-directory
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all setup configure build demo demo-cs test bench clean format

all: build

setup:
	@bash scripts/setup.sh

configure: setup
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	$(BUILD)/kavelin-demo $(DEMO_ARGS)

# The C# example on Mono, headless and bounded (DEMO_CS_ARGS=seconds).
demo-cs: build
	@mkdir -p $(BUILD)/examples
	@mcs -nologo -warnaserror+ -out:$(BUILD)/examples/KavelinExample.exe bindings/csharp/*.cs examples/csharp/KavelinExample.cs
	KAVELIN_HEADLESS=1 LD_LIBRARY_PATH=$(BUILD) mono $(BUILD)/examples/KavelinExample.exe $(DEMO_CS_ARGS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) $(CTEST_ARGS)

bench: build
	@for b in $(BUILD)/bench/kavelin-bench-*; do echo "== $$(basename $$b)"; $$b || exit 1; done

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD)
