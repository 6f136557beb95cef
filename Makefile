# Thin wrapper over CMake. Build trees live in build/ (Release) and build-*/ (sanitizers).
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
BUILD ?= build
CMAKE_FLAGS ?=

FUZZ_SECONDS ?= 60
PREFIX ?= /usr/local

.PHONY: all deps build-dir configure build demo test bench sanitize tsan fuzz install clean format

all: build

# Debian packages the build, the tests and the fuzz run need; missing ones are installed when we
# are root (one apt-get update first), otherwise named.
DEPS = g++ cmake make zlib1g-dev libdeflate-dev libgtest-dev pkg-config libxml2-utils graphviz clang \
       pybind11-dev python3-dev python3-venv python3-numpy python3-pandas python3-sklearn python3-pytest \
       libclang-rt-14-dev python3-dask python3-distributed

deps:
	@missing=$$(for p in $(DEPS); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ] && command -v apt-get >/dev/null; then \
	    echo "installing: $$missing"; \
	    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; \
	  else \
	    echo "missing Debian packages (install them as root): $$missing"; exit 1; \
	  fi; \
	fi

# A build folder copied from another checkout keeps that checkout's path in its CMake cache, which
# CMake then refuses with a message that does not say what to do.
build-dir:
	@cache=$(BUILD)/CMakeCache.txt; \
	if [ -f "$$cache" ]; then \
	  home=$$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$$cache"); \
	  if [ -n "$$home" ] && [ "$$(cd "$$home" 2>/dev/null && pwd -P)" != "$$(pwd -P)" ]; then \
	    echo "$(BUILD)/ was configured for the sources in $$home, not these ($$(pwd -P))." >&2; \
	    echo "Remove it (make clean) or build elsewhere (make BUILD=another-folder)." >&2; \
	    exit 1; \
	  fi; \
	fi

configure: deps build-dir
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

DEMO = ./$(BUILD)/brixcmd -f examples/golf -tstd
DEMO_CSV = ./$(BUILD)/brix train examples/iris.csv
demo: configure
	cmake --build $(BUILD) -j $(JOBS) --target brixcmd brix_cmd
	@echo
	@echo "== $(DEMO)"
	@echo "   (a tree grown on the 14-day golf table, then its evaluation on the same days)"
	@echo
	@$(DEMO)
	@echo
	@echo "== $(DEMO_CSV)"
	@echo "   (the same from a CSV file with a header row: the class is the last column)"
	@echo
	@$(DEMO_CSV)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	bash bench/run.sh $(BUILD)/brixcmd

# The commands, libraries, headers, CMake package, pkg-config file, man pages and documents under
# PREFIX. Only what is installed is built: not the tests, benchmarks or the Python extension.
INSTALLED_TARGETS = brixcmd brix_cmd brix zel farm
install: configure
	cmake --build $(BUILD) -j $(JOBS) --target $(INSTALLED_TARGETS)
	cmake --install $(BUILD) --prefix $(PREFIX)

# The same tests with AddressSanitizer and UndefinedBehaviorSanitizer.
sanitize:
	$(MAKE) test BUILD=build-asan CMAKE_FLAGS="-DCMAKE_BUILD_TYPE=Debug -DBRIX_SANITIZE=address,undefined"

# The farm tests and the gzip streams (inflated on a second thread) with ThreadSanitizer.
tsan: deps
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBRIX_SANITIZE=thread
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && ctest --output-on-failure -j $(JOBS) -L farm
	cd build-tsan && ctest --output-on-failure -j $(JOBS) -R '^Stream\.Gzip'

# Every fuzz harness for FUZZ_SECONDS each, from its checked-in corpus (clang with libFuzzer).
fuzz: deps
	cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DBRIX_FUZZ=ON
	cmake --build build-fuzz -j $(JOBS)
	bash tests/fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf build build-asan build-tsan build-fuzz
