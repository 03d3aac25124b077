# Entry points: make run, make test, make build, make asan, make tsan, make format, make lint.
JOBS ?= $(shell nproc)
BUILD ?= build
CMAKE_FLAGS ?=
CTEST_FLAGS ?= --output-on-failure

.PHONY: all setup build run test unit asan tsan format lint clean

all: build

setup:
	@bash scripts/setup.sh

$(BUILD)/Makefile: CMakeLists.txt
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

build: setup
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

run: build
	@bash scripts/run-dev.sh $(BUILD)

test: build
	cd $(BUILD) && ctest $(CTEST_FLAGS) -j $(JOBS) -LE long

unit: build
	cd $(BUILD) && ctest $(CTEST_FLAGS) -j $(JOBS) -L unit

asan: setup
	$(MAKE) --no-print-directory test BUILD=build-asan CMAKE_FLAGS="-DFTPS_SANITIZE=address -DCMAKE_BUILD_TYPE=Debug"

tsan: setup
	$(MAKE) --no-print-directory test BUILD=build-tsan CMAKE_FLAGS="-DFTPS_SANITIZE=thread -DCMAKE_BUILD_TYPE=Debug"

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

lint: build
	clang-tidy -p $(BUILD) --quiet $$(git ls-files 'ftp_server/*.cpp' 'lib/*.cpp' 'platform/*.cpp' 'tools/*.cpp')

clean:
	rm -rf build build-asan build-tsan
