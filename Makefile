# The two commands: `make demo` and `make test`. Both install what is missing,
# build, and run everything under Wine in a prefix inside the build tree.
# The CMake presets (CMakePresets.json) say how each compiler configures:
# "mingw" (GCC, into build/, the release build that ships) and "clang" (into
# build-clang/, the checked build: traps on undefined behaviour, container bounds
# checked). `make test` runs the whole suite on both.
BUILD     := build
CLANG_BUILD := build-clang
JOBS      ?= $(shell nproc)
WINEPREFIX_DIR := $(abspath $(BUILD))/wineprefix
WINE_ENV  := WINEPREFIX=$(WINEPREFIX_DIR) WINEDEBUG=-all WINEARCH=win64
# CMake's own Makefiles run as sub-makes of this one: no "Entering directory" lines from them.
MAKEFLAGS += --no-print-directory
comma := ,

# Debian packages the build needs, and a file or command that shows each is there.
PACKAGES  := g++-mingw-w64-x86-64-posix mingw-w64-tools libwine-dev wine64 wine cmake googletest clang lld \
             wixl msitools
NEEDED    := /usr/bin/x86_64-w64-mingw32-g++-posix /usr/bin/x86_64-w64-mingw32-widl \
             /usr/include/wine/wine/windows/oaidl.idl /usr/bin/wine /usr/bin/cmake \
             /usr/src/googletest/CMakeLists.txt /usr/bin/clang++ /usr/bin/ld.lld /usr/bin/wixl /usr/bin/msiinfo

.PHONY: all help deps configure build build-clang demo-build prefix test demo run replay bench fuzz package msi \
        coverage clean format format-deps format-check

all: build

help:
	@echo "make demo                 build what the demo runs, then show both metrics end to end"
	@echo "make test                 build with GCC and Clang, run every test under Wine"
	@echo "make run ARGS=\"...\"       zeph-host with those options, in the demo's Wine prefix"
	@echo "                          (build/zeph-host does the same once built; no ARGS: --help)"
	@echo "make replay EVTX=FILE     what the provider reports for a saved Windows event log"
	@echo "make package              the release archive and the Windows Installer package"
	@echo "make msi                  the Windows Installer package alone"
	@echo "make bench                the benchmarks, each figure beside its floor; exit 1 on a missed goal"
	@echo "make fuzz SECONDS=N       the fuzzer for N seconds (SEED=N repeats a run); tools/fuzz/README.md"
	@echo "make coverage             the suite with coverage counters, in build-coverage/"
	@echo "make build                everything (product, tools, tests, benchmarks) with GCC, in build/"
	@echo "make build-clang          everything with Clang, in build-clang/, the checked build"
	@echo "make demo-build           only what the demo and make run need"
	@echo "make deps                 install the Debian packages the build needs"
	@echo "make format               apply .clang-format; make format-check names the files that differ"
	@echo "make clean                remove build/, build-clang/ and build-coverage/"

# $(call quiet_build,TARGETS,WHAT): builds CMake targets with the build's output in
# $(BUILD)/build.log, whose end is shown only when the build fails.
define quiet_build
@echo "== building $(2) (output in $(BUILD)/build.log)"
@cmake --build $(BUILD) -j $(JOBS) --target $(1) >$(BUILD)/build.log 2>&1 || \
  { tail -n 40 $(BUILD)/build.log; echo "== the build failed; its whole output is in $(BUILD)/build.log" >&2; exit 1; }
endef

deps:
	@missing=""; for f in $(NEEDED); do [ -e "$$f" ] || missing="$$missing $$f"; done; \
	if [ -n "$$missing" ]; then \
	  echo "== installing build dependencies (missing:$$missing)"; \
	  SUDO=""; [ "$$(id -u)" = 0 ] || SUDO=sudo; \
	  $$SUDO apt-get update -q && \
	  DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -q --no-install-recommends $(PACKAGES); \
	fi

configure: deps
	@[ -f $(BUILD)/CMakeCache.txt ] || { echo "== configuring $(BUILD)/ (cmake --preset mingw)"; mkdir -p $(BUILD); \
	  cmake --preset mingw >$(BUILD)/configure.log 2>&1 || { cat $(BUILD)/configure.log; exit 1; }; }

build: configure
	cmake --build --preset mingw -j $(JOBS)

# The second compiler, the checked build: everything built, warnings as errors.
build-clang: deps
	@[ -f $(CLANG_BUILD)/CMakeCache.txt ] || cmake --preset clang
	cmake --build --preset clang -j $(JOBS)

# Only what the demo runs: zeph-host, and through its dependencies the DLL, the
# simulated event log and Agent.tlb. GoogleTest and the tests wait for `make test`.
demo-build: configure
	$(call quiet_build,zeph_host,zeph-host.exe$(comma) zeph_eventlog.dll$(comma) the simulated event log and Agent.tlb)

prefix: configure
	@if [ ! -f $(WINEPREFIX_DIR)/system.reg ]; then \
	  echo "== creating the Wine prefix $(WINEPREFIX_DIR)"; \
	  mkdir -p $(WINEPREFIX_DIR) && $(WINE_ENV) wineboot -i >/dev/null 2>&1; \
	  $(WINE_ENV) wineserver -w; \
	fi

# The suite runs on the GCC build, then on the checked build (each in its own
# Wine prefix); both run whatever the first gave, and any failure fails.
# A persistent wineserver makes each Wine start take about a second instead of several;
# it goes away by itself shortly after the last test. One still alive from an
# earlier run (exit code 2) serves as well.
test: build build-clang prefix
	@$(MAKE) --no-print-directory prefix BUILD=$(CLANG_BUILD)
	@$(WINE_ENV) wineserver -p10 </dev/null >/dev/null 2>&1 || true
	@ctest --preset mingw; gcc=$$?; \
	WINEPREFIX=$(abspath $(CLANG_BUILD))/wineprefix WINEDEBUG=-all WINEARCH=win64 wineserver -p10 </dev/null >/dev/null 2>&1; \
	echo "== the suite on the checked build ($(CLANG_BUILD))"; \
	ctest --preset clang && exit $$gcc

bench: build prefix
	@$(WINE_ENV) wineserver -p10 </dev/null >/dev/null 2>&1 || true
	ZEPH_WINEPREFIX=$(WINEPREFIX_DIR) $(BUILD)/wine-run $(BUILD)/bin/zeph-bench.exe --json $(BUILD)/bench.json

# The fuzzer (tools/fuzz/README.md) on the checked build: SECONDS shared among its
# targets, inputs drawn from SEED (a new one each run unless given); prints the
# inputs tried per target and per second, saves each failing input in
# $(CLANG_BUILD)/fuzz with the command that replays it. `make test` runs a short
# sweep of it with seed 1 on both builds.
SECONDS ?= 600
SEED    ?= $(shell date +%s)
fuzz: build-clang
	@$(MAKE) --no-print-directory prefix BUILD=$(CLANG_BUILD)
	@WINEPREFIX=$(abspath $(CLANG_BUILD))/wineprefix WINEDEBUG=-all WINEARCH=win64 wineserver -p10 </dev/null >/dev/null 2>&1 || true
	bash tools/fuzz/fuzz.sh $(CLANG_BUILD) --seconds $(SECONDS) --seed $(SEED)

# Line and branch coverage of the whole suite: a build of its own (preset
# "coverage", into build-coverage/, with gcov counters), every test run under
# Wine one at a time (the test programs share the core's counter files), then a
# per-folder summary by gcovr through the MinGW gcov (over the objects the run
# wrote counters for: notes files left by sources since moved would clash). The
# report with the lines not covered goes to build-coverage/coverage.txt.
coverage: deps
	@command -v gcovr >/dev/null 2>&1 || { \
	  echo "== installing gcovr"; SUDO=""; [ "$$(id -u)" = 0 ] || SUDO=sudo; \
	  $$SUDO apt-get update -q && \
	  DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -q --no-install-recommends gcovr; }
	@[ -f build-coverage/CMakeCache.txt ] || cmake --preset coverage
	find build-coverage -name '*.gcda' -delete
	$(MAKE) --no-print-directory prefix BUILD=build-coverage
	cmake --build --preset coverage -j $(JOBS)
	@WINEPREFIX=$(abspath build-coverage)/wineprefix WINEDEBUG=-all wineserver -p10 </dev/null >/dev/null 2>&1
	cd build-coverage && ctest --timeout 900 -j 1 > ctest.log; status=$$?; tail -n 3 ctest.log; \
	cd .. && for notes in $$(find build-coverage -name '*.gcno'); do \
	  [ -f "$${notes%.gcno}.gcda" ] || rm "$$notes"; done && \
	gcovr --gcov-executable x86_64-w64-mingw32-gcov -r . build-coverage \
	  --filter src/ --filter tools/ --exclude-throw-branches --exclude-unreachable-branches \
	  --json-summary build-coverage/coverage.json --txt build-coverage/coverage.txt && \
	python3 cmake/coverage-summary.py build-coverage/coverage.json && exit $$status

# The demo prepares a Wine prefix of its own (BUILD/demo-prefix, see demo/prefix.sh),
# apart from the tests'.
demo: demo-build
	@bash demo/run.sh $(BUILD)

# zeph-host with ARGS, in the demo's prefix with the simulated event log:
#   make run ARGS="--config demo/zeph-host.xml --scenario demo/scenario.xml --once"
ARGS ?= --help
run: demo-build
	@$(BUILD)/zeph-host $(ARGS)

# Replays a saved event log through the demo's configuration, without the demo's
# made-up layering agent:
#   make replay EVTX=path/to/Application.evtx
replay:
	@[ -n "$(EVTX)" ] || { echo "usage: make replay EVTX=path/to/Application.evtx" >&2; exit 2; }
	@[ -f "$(EVTX)" ] || { echo "make replay: no such file: $(EVTX)" >&2; exit 2; }
	@if ! command -v evtxexport >/dev/null 2>&1; then \
	  echo "== installing evtxexport (libevtx-utils)"; \
	  SUDO=""; [ "$$(id -u)" = 0 ] || SUDO=sudo; \
	  $$SUDO apt-get update -q && \
	  DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -q --no-install-recommends libevtx-utils; \
	fi
	@$(MAKE) demo-build
	@bash demo/run.sh $(BUILD) --evtx "$(EVTX)"

# The release archive, $(BUILD)/zeph_eventlog-<version>-win64.zip (see cmake/Package.cmake),
# and beside it the Windows Installer package, $(BUILD)/zeph_eventlog-<version>-win64.msi.
# Only what they hold is built, and the registration harvest the .msi is made from
# (zeph-host's build brings the simulated event log along).
package: configure
	$(call quiet_build,zeph_host msi,zeph_eventlog.dll$(comma) zeph-host.exe$(comma) Agent.tlb$(comma) the registration harvest and the .msi)
	@echo "== packing the release archive"
	@cd $(BUILD) && cpack -G ZIP >cpack.log 2>&1 || { cat cpack.log; exit 1; }
	@echo "== $(BUILD)/$$(cd $(BUILD) && ls zeph_eventlog-*-win64.zip)"
	@echo "== $(BUILD)/$$(cd $(BUILD) && ls zeph_eventlog-*-win64.msi)"

# The Windows Installer package alone (see tools/msi).
msi: configure
	$(call quiet_build,msi,zeph_eventlog.dll$(comma) the registration harvest and the .msi)

# One format for the tree, stated in .clang-format: `make format` applies it,
# `make format-check` (run by CI) names every C++ file that differs from it.
FORMAT_FILES = $(shell git ls-files '*.cpp' '*.h')

format-deps:
	@command -v clang-format >/dev/null 2>&1 || { \
	  echo "== installing clang-format"; SUDO=""; [ "$$(id -u)" = 0 ] || SUDO=sudo; \
	  $$SUDO apt-get update -q && \
	  DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -q --no-install-recommends clang-format; }

format: format-deps
	clang-format -i $(FORMAT_FILES)

format-check: format-deps
	@clang-format --dry-run --Werror $(FORMAT_FILES) || \
	  { echo "format-check: the files above differ from .clang-format; run 'make format'" >&2; exit 1; }

clean:
	rm -rf $(BUILD) $(CLANG_BUILD) build-coverage
