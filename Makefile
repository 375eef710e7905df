# What one types here. Everything is set up on the way and only when something has changed: a virtual
# environment in .venv, the build in build/, nothing outside of this folder.
#
#   PYTHON=/path/to/python3.12   which interpreter to use, when the one found is not the right one
#   CXX=g++-13                   which C++ compiler

MAKEFLAGS += --no-builtin-rules --no-print-directory
BIN := .venv/bin

.DEFAULT_GOAL := help
.PHONY: help demo test examples package coverage sanitize format format-check stubs fuzz bench-define bench-derived bench-helper bench-latency bench-edit bench-queue bench-remote bench-rescan bench-resolve bench-scan bench-text \
        install venv venv-dev clean

help:
	@echo "make demo          build, then scan the standard library and show what was found"
	@echo "make test          build, then run all tests, under python and python -O"
	@echo "make sanitize      run the tests of the C++ code under ASan and UBSan"
	@echo "make stubs         check the type stubs against the modules, and the types of loom"
	@echo "make examples      run the examples, and the main loops for Qt and GLib"
	@echo "make package       build what is published into dist/, and install and check it"
	@echo "make coverage      tell which lines no test runs"
	@echo "make format        format the C++ sources; make format-check only looks"
	@echo "make bench-queue   measure the scan queue; bench-scan the scanning, bench-text the text helpers,"
	@echo "                   bench-latency how long others wait for a scan; bench-edit what an edit costs,"
	@echo "                   bench-resolve how names become files; bench-define what names mean, beside jedi,"
	@echo "                   bench-derived what the second stage costs,"
	@echo "                   bench-helper scans in processes of their own"
	@echo "make fuzz          look for inputs that break what walks text (needs clang++)"
	@echo "make clean         remove .venv, build and dist"

venv:
	@scripts/setup_venv.sh build

venv-dev:
	@scripts/setup_venv.sh dev

install: venv
	@scripts/install.sh

demo: install
	@scripts/demo.sh

test: venv-dev
	@scripts/check_toolchain.sh --tests
	@scripts/install.sh
	@scripts/run_tests.sh

sanitize: venv-dev
	@scripts/check_toolchain.sh --tests --sanitize
	@scripts/run_sanitized.sh

examples: venv-dev
	@scripts/check_toolchain.sh --toolkits
	@scripts/setup_venv.sh toolkits
	@scripts/install.sh
	@scripts/run_examples.sh

package: venv-dev
	@scripts/check_toolchain.sh
	@scripts/setup_venv.sh package
	@scripts/check_package.sh

coverage: venv-dev
	@scripts/check_toolchain.sh --tests
	@scripts/setup_venv.sh coverage
	@scripts/install.sh
	@scripts/run_coverage.sh

stubs: venv-dev
	@scripts/install.sh
	@scripts/check_types.sh

format: venv-dev
	@scripts/format.sh -i

format-check: venv-dev
	@scripts/format.sh --dry-run --Werror

fuzz: venv-dev
	@scripts/run_fuzz.sh

bench-define: venv-dev
	@scripts/setup_venv.sh bench
	@scripts/install.sh
	@$(BIN)/python -P benchmarks/define/run.py

bench-derived bench-helper bench-latency bench-edit bench-queue bench-remote bench-rescan bench-resolve bench-scan bench-text: bench-%: venv-dev
	@scripts/install.sh
	@$(BIN)/python -P benchmarks/$*/run.py

clean:
	rm -rf .venv build dist
