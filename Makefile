# The README's commands. Each installs the Debian packages it needs when they are
# missing, then configures and builds with the CMake presets.
PRESET ?= release
JOBS ?= 2

.PHONY: all deps build test demo bench test-asan clean

all: build

deps:
	@tools/install-deps.sh

build: deps
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) --parallel $(JOBS)

test: build
	ctest --preset $(PRESET) --parallel $(JOBS)

demo: build
	build/$(PRESET)/examples/tessel3d_demo

bench: build
	@for b in build/$(PRESET)/bench/bench_*; do echo "== $$b"; $$b; done

test-asan:
	$(MAKE) test PRESET=asan

clean:
	rm -rf build
