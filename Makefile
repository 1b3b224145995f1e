# Front door: thin names over the CMake presets. `make run` and `make test` do all their own set-up.
PRESET ?= release
JOBS   ?= $(shell nproc)
ARGS   ?=
BUILD  := build/$(PRESET)
CTEST  := ctest --test-dir $(BUILD) -j $(JOBS) --schedule-random --output-on-failure --no-tests=error

.DEFAULT_GOAL := build
.PHONY: deps build run test lint format tidy asan tsan fuzz coverage bench install package clean

deps:
	@tools/install-deps

build: deps
	@cmake --preset $(PRESET) > /dev/null
	@cmake --build --preset $(PRESET) -j $(JOBS)

run: build
	@cmake --install $(BUILD) --prefix $(BUILD)/home > /dev/null
	@tools/demo/run --home $(BUILD)/home $(ARGS)

test: build lint
	$(CTEST) $(ARGS)

# Rules that need no compiler: include direction, log texts, format.
lint: deps
	@tools/check-includes
	@tools/check-logs
	@git ls-files -z -- '*.cpp' '*.h' | xargs -0 clang-format-14 --dry-run --Werror

format: deps
	@git ls-files -z -- '*.cpp' '*.h' | xargs -0 clang-format-14 -i

# Everything through clang with the thread-safety analysis, then clang-tidy.
tidy: deps
	@cmake --preset tidy > /dev/null
	@cmake --build --preset tidy -j $(JOBS)
	@tools/run-tidy build/tidy

asan tsan: deps
	@$(MAKE) --no-print-directory PRESET=$@ build
	$(CTEST:$(BUILD)=build/$@) --test-dir build/$@ $(ARGS)

fuzz coverage: deps
	@$(MAKE) --no-print-directory PRESET=$@ build
	ctest --test-dir build/$@ -j $(JOBS) --output-on-failure $(if $(filter fuzz,$@),-L fuzz) $(ARGS)

bench: build
	@bench/run $(BUILD) $(ARGS)

install: build
	@cmake --install $(BUILD) --prefix $(or $(PREFIX),/opt/zxagent)

# build/<preset>/zxagent_<version>_<arch>.deb
package: build
	@packaging/deb/build $(BUILD)

clean:
	rm -rf build
