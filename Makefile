# Everyday commands. Each installs and builds what it needs first, and skips what is there already.
#
#   PRESET=release|debug|asan   the build to use                make test PRESET=asan
#   ARGS="..."                  passed on to the command        make test ARGS="-k bfd"
#   SECONDS=... JOBS=...        how long to fuzz, processes     make fuzz SECONDS=600 JOBS=4
#   PYTHON39=...                the CPython 3.9 to build for    make PYTHON39=/opt/python3.9 build

.DEFAULT_GOAL := help
.NOTPARALLEL:
SHELL := bash
MAKEFLAGS += --no-print-directory

PRESET ?= release
ifeq ($(filter release debug asan,$(PRESET)),)
$(error PRESET=$(PRESET): choose release, debug or asan; the others have a command, see make help)
endif
# A goal that is not a command: make takes a folder's name for something that is up to date.
ifneq ($(MAKECMDGOALS),)
commands := $(shell sed -n 's/^\.PHONY: //p' $(firstword $(MAKEFILE_LIST)))
similar = $(strip $(foreach name,$(commands),\
	$(if $(filter $(name)%,$1)$(filter $1%,$(name)),make $(name))))
$(foreach goal,$(filter-out $(commands) bootstrap-% build/%,$(MAKECMDGOALS)),$(error no command \
	"make $(goal)"$(if $(call similar,$(goal)),; similar: $(call similar,$(goal))); make help lists all))
endif

BUILD := build/$(PRESET)
PYTHON := .venv/bin/python
CMAKE := .venv/bin/cmake
CXX_SOURCES = $(shell find veldarin util migbase veldarin_simulator tests checks benchmarks cross \
	-name '*.[ch]' -o -name '*.cpp')

# Starts the interpreter with the modules of $(BUILD).
RUN = MODULES_UTIL_BUILD=$(BUILD) $(if $(filter asan,$(PRESET)),tools/with-asan) $(PYTHON)
# Builds PRESET, or TARGETs of it: $(call build,PRESET[,TARGET ...]).
build = @tools/step --lock $(1) build-$(1) "building $(1)" $(CMAKE) --build build/$(1) $(if $(2),--target $(2))

.PHONY: help
help:  ## List these commands
	@awk -F ':.*## ' '/^[a-z-]+:.*## / {printf "make %-24s %s\n", $$1, $$2}' $(MAKEFILE_LIST)

.PHONY: run
run: bootstrap-run $(BUILD)/build.ninja  ## Call all thirty functions against this machine's state
	$(call build,$(PRESET),modules_util simulator veldarin_simulator/siblings/all)
	@$(RUN) -m veldarin_simulator demo

.PHONY: console
console: bootstrap-console build  ## Serve the web console, which calls every function
	@$(RUN) -m veldarin_simulator console $(ARGS)

.PHONY: check
check: bootstrap-lint build  ## Lint, and run the module's own tests; for the inner loop
	@$(MAKE) lint & \
	HYPOTHESIS_EXAMPLES=10 $(RUN) -m pytest -q -p no:xdist -m "not slow" tests/module $(ARGS); \
	status=$$?; wait $$! && exit $$status

.PHONY: test
test: bootstrap-browser+lint+callgrind+example lint build wheels  ## Lint, and run every test
	$(call build,$(PRESET),benchmark_competitors exhaustive_texts)
	@# The tests of the page and of the setup scripts wait half of the time: a worker more.
	@$(RUN) -m pytest -n $$(($$(nproc) + 1)) --dist loadgroup $(ARGS)

.PHONY: build
build: bootstrap-run $(BUILD)/build.ninja  ## Build the module and the simulator
	$(call build,$(PRESET))

.PHONY: module
module: bootstrap-module build/module/build.ninja  ## Build the module alone and print its path
	$(call build,module)
	@realpath build/module/stage/veldarin/modules/modules_util.*.so

.PHONY: format
format: bootstrap-lint  ## Format every source
	@.venv/bin/ruff check --quiet --fix-only .
	@.venv/bin/ruff format --quiet .
	@.venv/bin/clang-format -i $(CXX_SOURCES)

.PHONY: lint lint-ruff lint-mypy lint-clang-format lint-clang-tidy lint-spelling
lint: lint-ruff lint-mypy lint-clang-format lint-clang-tidy lint-spelling  ## Check formats, types, C++ and words
lint-ruff: bootstrap-lint
	@.venv/bin/ruff check --quiet .
	@.venv/bin/ruff format --quiet --check .
lint-mypy: bootstrap-lint
	@.venv/bin/mypy --no-error-summary
lint-clang-format: bootstrap-lint
	@.venv/bin/clang-format --dry-run --Werror $(CXX_SOURCES)
lint-clang-tidy: bootstrap-lint bootstrap-callgrind $(BUILD)/build.ninja
	@tools/step --lock $(PRESET) tidy "clang-tidy" $(CMAKE) --build $(BUILD) --target tidy -- -k 0
lint-spelling: bootstrap-lint
	@$(PYTHON) tools/check_words.py

.PHONY: docs
docs: bootstrap-run  ## Write docs/functions.md from the module's type stub
	@$(PYTHON) -m tools.generate_function_docs

.PHONY: bench
bench: bootstrap-bench bootstrap-callgrind build  ## Compare the module's speed with its competitors' and the lower bound
	$(call build,$(PRESET),benchmark_competitors)
	@$(RUN) -m benchmarks $(ARGS)

.PHONY: bench-baseline
bench-baseline: bootstrap-test build callgrind  ## Record the instructions and allocations that the tests compare with
	@$(RUN) -m benchmarks baseline

.PHONY: fault-injection
fault-injection: bootstrap-test build/fault-injection/build.ninja  ## Fail every allocation of every call once
	$(call build,fault-injection)
	@MODULES_UTIL_BUILD=build/fault-injection $(PYTHON) -m checks.fault_injection $(ARGS)

.PHONY: coverage
coverage: bootstrap-coverage build/coverage/build.ninja  ## Check that the tests run every line and branch of the module
	$(call build,coverage)
	@$(PYTHON) -m checks.coverage $(ARGS)

.PHONY: fuzz
fuzz: bootstrap-test bootstrap-fuzz build/fuzz/build.ninja build/fuzz-fast/build.ninja  ## Fuzz the parsers for SECONDS=60
	$(call build,fuzz,fuzz_parsers fuzz_text)
	$(if $(filter 1,$(JOBS)),,$(call build,fuzz-fast,fuzz_parsers))
	@$(PYTHON) -m checks.fuzz --seconds $(or $(SECONDS),60) $(if $(JOBS),--jobs $(JOBS)) $(ARGS)

.PHONY: sanitize
sanitize: bootstrap-browser  ## Run every test under the sanitizers, and the parsers' under valgrind
	@$(MAKE) PRESET=asan build callgrind
	@$(MAKE) PRESET=debug build
	@$(PYTHON) -m checks.sanitizers $(ARGS)

.PHONY: exhaustive
exhaustive: bootstrap-test build  ## Compare every short text with Python: minutes on all processors
	$(call build,$(PRESET),exhaustive_texts)
	@$(RUN) -m checks.exhaustive $(ARGS)

.PHONY: mutation
mutation: bootstrap-test build/release/build.ninja build/fault-injection/build.ninja  ## Change the module in one place at a time: a test must fail
	$(call build,release)
	$(call build,fault-injection)
	@$(PYTHON) -m checks.mutation $(ARGS)

.PHONY: soak
soak: bootstrap-bench build  ## Call every function a million times from four threads and check for growth
	@$(RUN) -m checks.soak $(ARGS)

.PHONY: lab
lab: bootstrap-test bootstrap-lab build  ## Test the parsers on a network of real routing daemons, as root
	@$(RUN) -m lab $(ARGS)

# The tools that count instructions for the tests.
.PHONY: callgrind
callgrind: bootstrap-callgrind build
	$(call build,$(PRESET),callgrind_tools)

.PHONY: wheels
wheels: bootstrap-wheels  ## Build the wheels of the simulator and of the module
	@tools/step wheels "building the wheels" packaging/build-wheels
	@realpath build/wheels/*.whl

.PHONY: mips
mips: bootstrap-run bootstrap-mips build/mips/build.ninja  ## Build the module for the appliance's processor
	$(call build,mips,all exhaustive_texts)
	@cross/mips/verify-elf build/mips/stage/veldarin/modules/modules_util.*.so

.PHONY: mips-test
mips-test: bootstrap-browser mips  ## Run every test on that processor, emulated
	@cross/mips/test $(ARGS)

.PHONY: mips-check
mips-check: bootstrap-browser  ## Build and test for that processor within eight minutes, as CI does
	@cross/mips/ci-test $(ARGS)

.PHONY: mips-bench
mips-bench: bootstrap-test callgrind mips  ## Count the instructions of calls on that processor, emulated
	$(call build,$(PRESET),benchmark_competitors)
	$(call build,mips,benchmark_competitors)
	@$(RUN) -m benchmarks mips

.PHONY: mips-fault-injection
mips-fault-injection: mips build/mips-fault-injection/build.ninja  ## Fail every allocation on that processor once
	$(call build,mips-fault-injection)
	@. cross/mips/config.sh && MODULES_UTIL_BUILD=build/mips-fault-injection \
		"$$mips_python" -m checks.fault_injection $(or $(ARGS),--one-shot)

.PHONY: dist
dist: mips  ## Pack what ships into an archive in build/dist
	@$(PYTHON) cross/mips/dist.py

.PHONY: lock
lock:  ## Lock the newest packages of pyproject.toml in requirements/
	@tools/lock

.PHONY: clean
clean:  ## Remove everything that was built; .venv stays
	@rm -rf build

# One group, or several with a "+" between them: what is missing is then named in one line.
bootstrap-%:
	@tools/bootstrap $(subst +, ,$*)

# Configures a tree when the presets change; ninja tracks everything else.
build/%/build.ninja: CMakePresets.json
	@tools/step --lock $* configure-$* "configuring $*" $(CMAKE) --preset $*

# These trees also keep the path of the MIPS interpreter, which changes with the scripts that build it.
build/mips/build.ninja build/mips-fault-injection/build.ninja: CMakePresets.json \
		cmake/mips-linux-gnu.cmake $(addprefix cross/mips/,config.sh build-libraries build-cpython)
	@tools/step --lock $(notdir $(@D)) configure-$(notdir $(@D)) "configuring $(notdir $(@D))" \
		$(CMAKE) --preset $(notdir $(@D)) --fresh
