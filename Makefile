# The README's commands. Each installs the Debian packages it needs when they are
# missing, then configures and builds with the CMake presets.
PRESET ?= release
JOBS ?= 2
# Debian's interpreter carries NumPy, meshio and matplotlib (python3 on PATH may not).
PYTHON ?= $(shell test -x /usr/bin/python3 && echo /usr/bin/python3 || echo python3)
DEMO_OUT ?= demo-output

.PHONY: all deps build test demo bench bench-peers test-asan test-tsan test-strict fuzz format format-check clean

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

# Speed side by side with Gmsh, VTK, SciPy and NumPy on the same meshes, and the time per
# element of every family (bench/peers, about 10 minutes; installs the peers' Debian
# packages when missing). Not part of `make test`. PEERS_ARGS=--quick for a short run,
# PEERS_ARGS=--update-docs to rewrite the figures of docs/performance.md.
# Only the libraries and the Python package are built for it.
PEERS_ARGS ?=
bench-peers: deps
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) --target tessel3d_python --parallel $(JOBS)
	$(PYTHON) bench/peers/run_peers.py --build build/$(PRESET) $(PEERS_ARGS)

test-asan:
	$(MAKE) test PRESET=asan

# The concurrency test under ThreadSanitizer: only it and the libraries are built.
test-tsan:
	@tools/install-deps.sh libtsan2
	cmake --preset tsan
	cmake --build --preset tsan --parallel $(JOBS)
	TSAN_OPTIONS=halt_on_error=1 build/tsan/tests/test_concurrency

# libFuzzer targets under ASan and UBSan, each run FUZZ_SECONDS from its seed corpus
# (fuzz/corpus/<target>); findings land in build/fuzz/findings.
FUZZ_SECONDS ?= 60
FUZZ_FLAGS = -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer
fuzz:
	@tools/install-deps.sh clang libclang-rt-14-dev
	cmake -S . -B build/fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DTESSEL3D_FUZZ=ON -DTESSEL3D_BUILD_TESTS=OFF -DTESSEL3D_BENCH=OFF -DTESSEL3D_EXAMPLES=OFF \
	  "-DCMAKE_CXX_FLAGS=$(FUZZ_FLAGS)" "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined"
	cmake --build build/fuzz --parallel $(JOBS)
	@mkdir -p build/fuzz/findings
	@for t in build/fuzz/fuzz/fuzz_*; do \
	  name=$$(basename $$t | sed 's/^fuzz_//'); mkdir -p build/fuzz/corpus/$$name fuzz/corpus/$$name; \
	  echo "== $$name ($(FUZZ_SECONDS) s)"; \
	  $$t -max_total_time=$(FUZZ_SECONDS) -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 \
	    -artifact_prefix=build/fuzz/findings/$$name- build/fuzz/corpus/$$name fuzz/corpus/$$name || exit 1; \
	done

# The warnings-as-errors build (-Wall -Wextra -Wpedantic -Wshadow -Werror) of the libraries,
# tests and examples; no test is run.
test-strict: deps
	cmake -S . -B build/strict -DCMAKE_BUILD_TYPE=Debug -DTESSEL3D_WERROR=ON -DTESSEL3D_BENCH=OFF -DTESSEL3D_PYTHON=OFF
	cmake --build build/strict --parallel $(JOBS)

# The C++ sources in .clang-format's style: `format` rewrites them, `format-check` lists
# what it would change and fails when anything would.
CLANG_FORMAT ?= clang-format
FORMAT_FILES = $(shell git ls-files '*.h' '*.cpp')
format:
	@tools/install-deps.sh clang-format
	$(CLANG_FORMAT) -i $(FORMAT_FILES)

format-check:
	@tools/install-deps.sh clang-format
	$(CLANG_FORMAT) --dry-run --Werror $(FORMAT_FILES)

clean:
	rm -rf build
