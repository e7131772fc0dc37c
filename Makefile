# The README's commands. Each installs the Debian packages it needs when they are
# missing, then configures and builds with the CMake presets.
PRESET ?= release
JOBS ?= 2
# Debian's interpreter carries NumPy, meshio and matplotlib (python3 on PATH may not).
PYTHON ?= $(shell test -x /usr/bin/python3 && echo /usr/bin/python3 || echo python3)
DEMO_OUT ?= demo-output

.PHONY: all deps build test demo bench test-asan clean

all: build

deps:
	@tools/install-deps.sh

build: deps
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) --parallel $(JOBS)

test: build
	ctest --preset $(PRESET) --parallel $(JOBS)

# The Python package's demo (build/$(PRESET)/examples/tessel3d_demo is the C++ one).
demo: build
	PYTHONPATH=build/$(PRESET)/python $(PYTHON) -m tessel3d demo --out $(DEMO_OUT)

bench: build
	@for b in build/$(PRESET)/bench/bench_*; do echo "== $$b"; $$b; done

test-asan:
	$(MAKE) test PRESET=asan

clean:
	rm -rf build
