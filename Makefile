# Quick start: `make demo` and `make test`. Both install what is missing,
# configure, build and run.

PRESET ?= release
BUILD_DIR := build/$(PRESET)
JOBS ?= $(shell nproc)

.PHONY: deps configure build test demo asan tsan fuzz bench soak install clean

deps:
	@./scripts/install-deps.sh

configure: deps
	@cmake --preset $(PRESET) >/dev/null

build: configure
	@cmake --build --preset $(PRESET) -j $(JOBS)

# Every test of the suite (unit, integration, tool), then the sanitizer and
# fuzzing stages of scripts/check.sh.
test:
	@./scripts/check.sh

demo: build
	@$(BUILD_DIR)/tools/kel/kel demo --out out/demo

asan:
	@./scripts/check.sh asan

tsan:
	@./scripts/check.sh tsan

fuzz:
	@./scripts/check.sh fuzz

bench:
	@./scripts/install-deps.sh --bench
	@cmake --preset release -DKEL_BUILD_BENCH=ON >/dev/null && cmake --build --preset release -j $(JOBS)
	@./scripts/run-benchmarks.sh $(BUILD_DIR)

# The generated container tests with fresh seeds for SOAK_SECONDS (default 600).
soak: deps
	@./scripts/soak.sh $(or $(SOAK_SECONDS),600)

install: build
	@cmake --install $(BUILD_DIR) --prefix $(or $(PREFIX),/usr/local)

clean:
	@rm -rf build out
