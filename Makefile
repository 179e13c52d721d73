# Everyday commands. Each begins from nothing: the environment, the packages and the build that it
# needs are made on the way and are there the next time.
#
#   PRESET=release|debug|asan   the build to work with          make test PRESET=asan
#   ARGS="..."                  passed on to pytest             make test ARGS="-k bfd"
#   SECONDS=...                 how long to fuzz                make fuzz SECONDS=600
#   PYTHON39=...                the CPython 3.9 to build for    make PYTHON39=/opt/python3.9 build

.DEFAULT_GOAL := help
.NOTPARALLEL:
MAKEFLAGS += --no-print-directory

PRESET ?= release
BUILD := build/$(PRESET)
PYTHON := .venv/bin/python
CMAKE := .venv/bin/cmake
CXX_SOURCES = $(shell find $(wildcard veldarin util migbase veldarin_simulator tests checks benchmarks tools cross) \
	-name '*.cpp' -o -name '*.c' -o -name '*.h')

# What `python -m veldarin_simulator` and pytest are started with.
RUN = MODULES_UTIL_BUILD=$(BUILD) $(PYTHON)
ifeq ($(PRESET),asan)
RUN = MODULES_UTIL_BUILD=$(BUILD) tools/with-asan $(PYTHON)
endif

.PHONY: help
help:  ## this list
	@awk -F ':.*## ' '/^[a-z-]+:.*## / {printf "make %-14s %s\n", $$1, $$2}' $(MAKEFILE_LIST)

.PHONY: run
run: build  ## call all thirty functions against this machine's state
	@$(RUN) -m veldarin_simulator demo

.PHONY: console
console: build  ## every function in a browser
	@$(RUN) -m veldarin_simulator console $(ARGS)

.PHONY: test
test: build meter test-environment lint  ## build, lint, and every test
	@$(RUN) -m pytest -n auto --dist loadgroup $(ARGS)

.PHONY: build
build: environment $(BUILD)/build.ninja  ## the product, the host library and the staged import root
	@tools/step build-$(PRESET) "building $(PRESET)" $(CMAKE) --build --preset $(PRESET)

.PHONY: module
module: module-environment build/module/build.ninja  ## the product alone; prints its path
	@tools/step build-module "building the module" $(CMAKE) --build --preset module
	@realpath build/module/stage/veldarin/modules/modules_util.*.so

.PHONY: format
format: environment  ## put every source into the project's format
	@.venv/bin/ruff check --quiet --fix-only .
	@.venv/bin/ruff format --quiet .
	@.venv/bin/clang-format -i $(CXX_SOURCES)

.PHONY: lint
lint: build meter  ## formats, ruff, mypy, clang-tidy; quick when nothing changed
	@.venv/bin/ruff check --quiet .
	@.venv/bin/ruff format --quiet --check .
	@.venv/bin/mypy --no-error-summary
	@.venv/bin/clang-format --dry-run --Werror $(CXX_SOURCES)
	@tools/step tidy "clang-tidy" $(CMAKE) --build --preset $(PRESET) --target tidy -- -k 0

.PHONY: docs
docs: environment  ## the page of functions anew from the module's Python face
	@$(PYTHON) -m tools.generate_function_docs

.PHONY: bench
bench: build  ## the module against its peers and the floor: docs/benchmarks.md
	@benchmarks/bootstrap
	@tools/step build-bench "building the benchmarks" \
		$(CMAKE) --build --preset $(PRESET) --target benchmark_competitors
	@$(RUN) -m benchmarks $(ARGS)

.PHONY: bench-baseline
bench-baseline: build meter  ## today's instructions and allocations are those the tests hold to
	@$(RUN) -m benchmarks baseline

.PHONY: faults
faults: environment build/faults/build.ninja  ## every allocation of every call made to fail once
	@tools/step build-faults "building faults" $(CMAKE) --build --preset faults
	@MODULES_UTIL_BUILD=build/faults $(PYTHON) -m checks.fault_injection $(ARGS)

.PHONY: coverage
coverage: environment build/coverage/build.ninja  ## every line and branch of the module, run or excused
	@checks/coverage/bootstrap
	@tools/step build-coverage "building coverage" $(CMAKE) --build --preset coverage
	@$(PYTHON) -m checks.coverage $(ARGS)

.PHONY: fuzz
fuzz: fuzz-environment build/fuzz/build.ninja  ## texts that libFuzzer makes up, SECONDS=60 of them
	@tools/step build-fuzz "building fuzz" \
		$(CMAKE) --build --preset fuzz --target fuzz_parsers fuzz_text
	@$(PYTHON) -m checks.fuzz --seconds $(or $(SECONDS),60) $(ARGS)

.PHONY: sanitize
sanitize:  ## every test under the sanitizers, the parsers' under valgrind
	@$(MAKE) PRESET=asan build meter test-environment
	@$(MAKE) PRESET=debug build
	@$(PYTHON) -m checks.sanitizers $(ARGS)

.PHONY: soak
soak: build  ## a million calls from several threads: memory and counts stay flat
	@benchmarks/bootstrap
	@$(RUN) -m checks.soak $(ARGS)

.PHONY: lab
lab: build  ## the parsers on a network of real routing daemons, as root: docs/lab.md
	@lab/bootstrap
	@$(RUN) -m lab $(ARGS)

# What counts instructions for the tests.
.PHONY: meter
meter: build
	@benchmarks/bootstrap meter
	@tools/step build-meter "building the meter" \
		$(CMAKE) --build --preset $(PRESET) --target callgrind_tools

.PHONY: wheel
wheel: module-environment  ## the product as a wheel in build/wheel
	@tools/step wheel "building the wheel" \
		$(PYTHON) -m pip wheel --no-deps --no-build-isolation --wheel-dir build/wheel .
	@realpath build/wheel/*.whl

.PHONY: target
target: target-environment build/mips/build.ninja  ## the product for the appliance's processor, MIPS
	@tools/step build-mips "building mips" $(CMAKE) --build --preset mips
	@cross/mips/verify-elf build/mips/stage/veldarin/modules/modules_util.*.so

.PHONY: target-test
target-test: target  ## every test on that processor, emulated
	@cross/mips/test $(ARGS)

.PHONY: target-check
target-check:  ## build and test for the target within eight minutes, as CI does
	@cross/mips/ci-test $(ARGS)

.PHONY: target-faults
target-faults: target build/mips-faults/build.ninja  ## every allocation made to fail once there
	@tools/step build-mips-faults "building mips-faults" $(CMAKE) --build --preset mips-faults
	@cross/mips/fault-injection $(ARGS)

.PHONY: dist
dist: target  ## what ships, as an archive in build/dist
	@$(PYTHON) cross/mips/dist.py

.PHONY: lock
lock:  ## requirements.txt anew from requirements.in
	@tools/lock

.PHONY: clean
clean:  ## everything that was built; .venv stays
	@rm -rf build

.PHONY: environment module-environment test-environment target-environment fuzz-environment
environment:
	@tools/bootstrap
module-environment:
	@tools/bootstrap module
test-environment: environment
	@tests/bootstrap
target-environment: environment
	@cross/mips/bootstrap
fuzz-environment: environment
	@checks/fuzz/bootstrap

# This one is configured with the compiler that is looked after there.
build/fuzz/build.ninja: | fuzz-environment

# A preset is read when its tree is configured; ninja looks after everything else.
build/%/build.ninja: CMakePresets.json | module-environment
	@tools/step configure-$* "configuring $*" $(CMAKE) --preset $*

# These trees also remember the target's interpreter, which is another when its recipe changes.
build/mips/build.ninja build/mips-faults/build.ninja: CMakePresets.json cmake/mips-linux-gnu.cmake \
		$(addprefix cross/mips/,config.sh libraries cpython) | target-environment
	@tools/step configure-$(notdir $(@D)) "configuring $(notdir $(@D))" \
		$(CMAKE) --preset $(notdir $(@D)) --fresh
