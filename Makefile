# The two commands: `make demo` and `make test`. Both install what is missing,
# build, and run everything under Wine in a prefix inside the build tree.
BUILD     ?= build
JOBS      ?= $(shell nproc)
WINEPREFIX_DIR := $(abspath $(BUILD))/wineprefix
WINE_ENV  := WINEPREFIX=$(WINEPREFIX_DIR) WINEDEBUG=-all WINEARCH=win64

# Debian packages the build needs, and a file or command that shows each is there.
PACKAGES  := g++-mingw-w64-x86-64-posix mingw-w64-tools libwine-dev wine64 wine cmake googletest
NEEDED    := /usr/bin/x86_64-w64-mingw32-g++-posix /usr/bin/x86_64-w64-mingw32-widl \
             /usr/include/wine/wine/windows/oaidl.idl /usr/bin/wine /usr/bin/cmake \
             /usr/src/googletest/CMakeLists.txt

.PHONY: all deps configure build prefix test demo replay bench coverage clean

all: build

deps:
	@missing=""; for f in $(NEEDED); do [ -e "$$f" ] || missing="$$missing $$f"; done; \
	if [ -n "$$missing" ]; then \
	  echo "== installing build dependencies (missing:$$missing)"; \
	  SUDO=""; [ "$$(id -u)" = 0 ] || SUDO=sudo; \
	  $$SUDO apt-get update -q && \
	  DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -q --no-install-recommends $(PACKAGES); \
	fi

configure: deps
	@[ -f $(BUILD)/CMakeCache.txt ] || cmake -S . -B $(BUILD) \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: configure
	cmake --build $(BUILD) -j $(JOBS)

prefix: configure
	@if [ ! -f $(WINEPREFIX_DIR)/system.reg ]; then \
	  echo "== creating the Wine prefix $(WINEPREFIX_DIR)"; \
	  mkdir -p $(WINEPREFIX_DIR) && $(WINE_ENV) wineboot -i >/dev/null 2>&1; \
	  $(WINE_ENV) wineserver -w; \
	fi

# A persistent wineserver makes each Wine start take about a second instead of several;
# it goes away by itself shortly after the last test.
test: build prefix
	@$(WINE_ENV) wineserver -p10 </dev/null >/dev/null 2>&1
	cd $(BUILD) && ctest --output-on-failure --timeout 900 -j 2

bench: build prefix
	@$(WINE_ENV) wineserver -p10 </dev/null >/dev/null 2>&1
	$(BUILD)/wine-run $(BUILD)/bin/zeph-bench.exe --json $(BUILD)/bench.json

# Line and branch coverage of the whole suite: a build of its own with gcov
# instrumentation (atomic counters: events arrive on other threads), every test
# run under Wine, one at a time (the test programs share the core's counter
# files), then a per-folder summary by gcovr through the MinGW gcov. The
# report with the lines not covered goes to BUILD_COVERAGE/coverage.txt.
BUILD_COVERAGE ?= build-coverage
COVERAGE_FLAGS := --coverage -fprofile-update=atomic
coverage: deps
	@command -v gcovr >/dev/null 2>&1 || { \
	  echo "== installing gcovr"; SUDO=""; [ "$$(id -u)" = 0 ] || SUDO=sudo; \
	  $$SUDO apt-get update -q && \
	  DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -q --no-install-recommends gcovr; }
	@[ -f $(BUILD_COVERAGE)/CMakeCache.txt ] || cmake -S . -B $(BUILD_COVERAGE) \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake -DCMAKE_BUILD_TYPE=Debug \
	  "-DCMAKE_C_FLAGS=$(COVERAGE_FLAGS)" "-DCMAKE_CXX_FLAGS=$(COVERAGE_FLAGS)" \
	  "-DCMAKE_EXE_LINKER_FLAGS=-static --coverage" "-DCMAKE_SHARED_LINKER_FLAGS=-static --coverage"
	find $(BUILD_COVERAGE) -name '*.gcda' -delete
	$(MAKE) --no-print-directory prefix BUILD=$(BUILD_COVERAGE)
	cmake --build $(BUILD_COVERAGE) -j $(JOBS)
	@WINEPREFIX=$(abspath $(BUILD_COVERAGE))/wineprefix WINEDEBUG=-all wineserver -p10 </dev/null >/dev/null 2>&1
	cd $(BUILD_COVERAGE) && ctest --timeout 900 -j 1 > ctest.log; status=$$?; tail -n 3 ctest.log; \
	cd .. && gcovr --gcov-executable x86_64-w64-mingw32-gcov -r . $(BUILD_COVERAGE) \
	  --filter src/ --filter tools/ --exclude-throw-branches --exclude-unreachable-branches \
	  --json-summary $(BUILD_COVERAGE)/coverage.json --txt $(BUILD_COVERAGE)/coverage.txt && \
	python3 cmake/coverage-summary.py $(BUILD_COVERAGE)/coverage.json && exit $$status

# The demo prepares a Wine prefix of its own (BUILD/demo-prefix), apart from the tests'.
demo: build
	bash demo/run.sh $(BUILD)

# Replays a saved event log through the demo's configuration:
#   make replay EVTX=path/to/Application.evtx
replay: build
	@[ -n "$(EVTX)" ] || { echo "usage: make replay EVTX=path/to/Application.evtx" >&2; exit 2; }
	@if ! command -v evtxexport >/dev/null 2>&1; then \
	  echo "== installing evtxexport (libevtx-utils)"; \
	  SUDO=""; [ "$$(id -u)" = 0 ] || SUDO=sudo; \
	  $$SUDO apt-get update -q && \
	  DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -q --no-install-recommends libevtx-utils; \
	fi
	bash demo/run.sh $(BUILD) --evtx "$(EVTX)"

clean:
	rm -rf $(BUILD)
