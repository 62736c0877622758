# The front door. Everything real is in CMake presets and in tools/.

MAKEFLAGS += --no-print-directory
BENCH_ARGS ?=
SECONDS ?= 30
SEEDS ?= 1000
NODES ?= 5
SCENARIO ?= all
FIRST ?= 1
JOBS ?=

.PHONY: help setup build run cluster test test-dev test-asan fuzz sim bench package docs format lint coverage clean

help: ## show this list
	@awk -F ':.*## ' '/^[a-z-]+:.*## / { printf "  make %-10s %s\n", $$1, $$2 }' Makefile

setup: ## install the Debian packages that are missing
	@tools/setup.sh build test

build: ## build the daemon and its tools (build/release/bin)
	@tools/setup.sh build
	@tools/build.sh release dsd dsctl

run: build ## set up, build and show the main job on real processes
	@tools/demo.sh build/release/bin

cluster: ## set up and show three nodes with an etcd on this machine
	@tools/setup.sh build test
	@tools/build.sh release dsd dsctl
	@tools/cluster.sh build/release/bin

test: test-dev test-asan ## set up and pass the whole suite, then once more under the sanitizers

test-dev: ## the suite, built with g++
	@tools/setup.sh build test
	@tools/build.sh dev
	@ctest --preset dev

test-asan: ## the suite, built with clang++ and the address and undefined behaviour sanitizers
	@tools/setup.sh build test
	@tools/build.sh asan
	@ctest --preset asan

fuzz: ## fuzz each target for SECONDS (30) from its corpus
	@tools/setup.sh build test
	@tools/fuzz.sh $(SECONDS)

sim: ## simulate clusters under faults: SEEDS=n NODES=n SCENARIO=name (docs/simulator.md)
	@tools/setup.sh build
	@tools/sim.sh $(SEEDS) $(NODES) $(SCENARIO) $(FIRST) $(JOBS)

bench: ## run the benchmarks (BENCH_ARGS="relay --runs 3" for one of library, daemon, relay)
	@tools/setup.sh build bench
	@tools/bench.sh $(BENCH_ARGS)

package: ## build Debian packages of daemon and client library (build/packages)
	@tools/setup.sh build package
	@tools/package.sh

docs: ## print docs/log_points.md anew from the table of log points
	@tools/setup.sh build test
	@tools/build.sh dev log_points_page
	@build/dev/bin/log_points_page > docs/log_points.md

format: ## format every source
	@git ls-files '*.cpp' '*.h' | grep -v -e '^bench/peers/' | xargs clang-format -i

lint: ## clang-tidy over the product's sources
	@tools/setup.sh build test lint
	@tools/build.sh asan
	@git ls-files 'shared_pkg/*.cpp' 'platform_default/*.cpp' 'proto/*.cpp' 'host/*.cpp' 'relay/*.cpp' \
	  'client/*.cpp' 'cli/*.cpp' | xargs -P 2 -n 4 clang-tidy --quiet -p build/asan

coverage: ## line and branch coverage of the library, by its unit tests
	@tools/setup.sh build test coverage
	@tools/build.sh coverage unit_tests
	@tools/coverage.sh build/coverage

clean: ## remove every build
	@rm -rf build out
