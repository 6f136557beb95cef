# Thin wrapper over CMake. Build trees live in build/ (Release) and build-*/ (sanitizers).
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
BUILD ?= build
CMAKE_FLAGS ?=

FUZZ_SECONDS ?= 60

.PHONY: all build demo test bench sanitize tsan fuzz clean format

all: build

build:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	@echo
	@echo "== brixcmd -f examples/golf -tstd  (tree and evaluation on the 14-day golf table)"
	@echo
	./$(BUILD)/brixcmd -f examples/golf -tstd -lstd

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	bash bench/run.sh $(BUILD)/brixcmd

# The same tests with AddressSanitizer and UndefinedBehaviorSanitizer.
sanitize:
	$(MAKE) test BUILD=build-asan CMAKE_FLAGS="-DCMAKE_BUILD_TYPE=Debug -DBRIX_SANITIZE=address,undefined"

# The farm tests with ThreadSanitizer.
tsan:
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBRIX_SANITIZE=thread
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && ctest --output-on-failure -j $(JOBS) -L farm

# Every fuzz harness for FUZZ_SECONDS each, from its checked-in corpus (clang with libFuzzer).
fuzz:
	cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DBRIX_FUZZ=ON
	cmake --build build-fuzz -j $(JOBS)
	bash tests/fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf build build-asan build-tsan build-fuzz
