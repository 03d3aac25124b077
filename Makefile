# Entry points: make run, make test, make build, make asan, make tsan, make fuzz, make format, make lint,
# make bench, make install (PREFIX, default /usr; DESTDIR honoured), make deb.
JOBS ?= $(shell nproc)
BUILD ?= build
# What is installed or packaged is built apart, without the test switches.
RELEASE_BUILD ?= build-release
CMAKE_FLAGS ?=
CTEST_FLAGS ?= --output-on-failure
PREFIX ?= /usr
TEST_FLAGS = -DFTPS_TEST_HOOKS=ON

.PHONY: all setup build run test unit asan tsan fuzz format lint clean bench release install deb

all: build

setup:
	@bash scripts/setup.sh

$(BUILD)/Makefile: CMakeLists.txt
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

build: setup
	cmake -S . -B $(BUILD) $(TEST_FLAGS) $(CMAKE_FLAGS) >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

# What ships, as make install builds it (no test switches), and quietly.
run: setup
	@cmake -S . -B $(RELEASE_BUILD) -DFTPS_TEST_HOOKS=OFF $(CMAKE_FLAGS) >/dev/null
	@echo "building the daemon and ftps-cli ..."
	@cmake --build $(RELEASE_BUILD) -j $(JOBS) --target ftp_server.elf ftps-cli >$(RELEASE_BUILD)/run-build.log 2>&1 \
	  || { cat $(RELEASE_BUILD)/run-build.log; exit 1; }
	@bash scripts/run-dev.sh $(RELEASE_BUILD)

test: build
	cd $(BUILD) && ctest $(CTEST_FLAGS) -j $(JOBS) -LE long

unit: build
	cd $(BUILD) && ctest $(CTEST_FLAGS) -j $(JOBS) -L unit

asan: setup
	$(MAKE) --no-print-directory test BUILD=build-asan CMAKE_FLAGS="-DFTPS_SANITIZE=address -DCMAKE_BUILD_TYPE=Debug"

tsan: setup
	$(MAKE) --no-print-directory test BUILD=build-tsan CMAKE_FLAGS="-DFTPS_SANITIZE=thread -DCMAKE_BUILD_TYPE=Debug"

# Every libFuzzer target (clang) for FUZZ_SECONDS each, in build-fuzz; see tests/fuzz/run.sh.
FUZZ_SECONDS ?= 60
fuzz: setup
	FUZZ_SECONDS=$(FUZZ_SECONDS) JOBS=$(JOBS) bash tests/fuzz/run.sh

# Installing and packaging need only the two programs, not the test suite, and never carry the
# test switches (checked on the binary).
release: setup
	cmake -S . -B $(RELEASE_BUILD) -DFTPS_TEST_HOOKS=OFF $(CMAKE_FLAGS) >/dev/null
	cmake --build $(RELEASE_BUILD) -j $(JOBS) --target ftp_server.elf ftps-cli
	@! grep -q FTPS_TEST_ $(RELEASE_BUILD)/ftp_server.elf || { echo "release build holds a test switch"; exit 1; }

install: release
	DESTDIR="$(DESTDIR)" cmake --install $(RELEASE_BUILD) --prefix "$(PREFIX)" --strip

deb: release
	cd $(RELEASE_BUILD) && cpack -G DEB
	@echo "deb: $$(ls -t $(RELEASE_BUILD)/ftps_*.deb | head -n 1)"

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

# Side-by-side benchmark against the peers (as root; installs them); writes docs/performance.md.
# It measures what ships: the release build, without the test switches.
bench: release
	@bash bench/setup.sh
	python3 bench/run.py --build $(RELEASE_BUILD)

lint: build
	clang-tidy -p $(BUILD) --quiet $$(git ls-files 'ftp_server/*.cpp' 'lib/*.cpp' 'platform/*.cpp' 'tools/*.cpp' | grep -v '_test\.cpp$$')

clean:
	rm -rf build build-asan build-tsan build-release
