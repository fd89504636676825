# The commands of the project. Each runs scripts/setup first, which installs what is missing and
# prints nothing when all is there.
#   make demo      build the library and the examples against its installed package, then run
#                  the main job (examples/Demo) under Wine, and export the registry keys it made
#                  with regplist, and print the demo's dependency tree with skerry-deps
#   make test      build everything, run the whole suite under Wine with CTest (and the static
#                  analysis, scripts/tidy, as its test StaticAnalysis)
#   make tidy      the static analysis alone: clang-tidy over the library's sources
#   make bench     build and run the benchmarks under Wine
#   make install PREFIX=dir   install headers, DLLs, import libraries, plist-tool, the CMake package
#                  with its toolchain file and the pkg-config file
#   make package   the same as a release archive, build/release/LibSkerry-<version>-i686-w64-mingw32.zip
#   make native    build Plinth's portable core with the host compiler and run its tests natively
#   make fuzz      run Plinth's property-list fuzz targets and the import reader's (clang,
#                  libFuzzer) for 60 s each

BUILD   ?= build
NATIVE  ?= build-native
PREFIX  ?= $(CURDIR)/install
JOBS    ?= $(shell nproc)

# A host that can't run 32-bit programs (some virtual machines run 64-bit code only) runs Wine in
# an emulated test machine: the wine, wineserver and wineboot of scripts/test-machine/bin stand in
# for Wine's own, with the same paths, environment, output and exit status.
ifeq ($(shell scripts/test-machine/needed && echo yes),yes)
export PATH := $(CURDIR)/scripts/test-machine/bin:$(PATH)
endif

export WINEPREFIX := $(CURDIR)/$(BUILD)/wineprefix
export SKERRY_WINEPREFIX := $(WINEPREFIX)
export WINEARCH := win32
export WINEDEBUG := -all
# The ANSI code page follows the locale; tests and demo run under a known one (code page 1252).
export LANG := C.UTF-8
export LC_ALL := C.UTF-8

.PHONY: setup configure build examples demo test tidy bench install package clean

setup:
	@scripts/setup

CONFIGURE = test -f $(BUILD)/CMakeCache.txt || cmake -S . -B $(BUILD) -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-i686-mingw.cmake >/dev/null

configure: setup
	@$(CONFIGURE)

# cmake's own make must not inherit ours: it would print every directory it enters.
CMAKE_BUILD = env -u MAKEFLAGS -u MAKELEVEL -u MFLAGS cmake --build $(BUILD) -j $(JOBS)

build: configure
	@$(CMAKE_BUILD) --target all benches

# The examples are a project of their own (examples/CMakeLists.txt), built as any program is
# against the package, installed here in build/prefix. They build quietly and show the build's
# output only when it fails.
EXAMPLES_PREFIX = $(abspath $(BUILD))/prefix
QUIETLY = >$(BUILD)/build.log 2>&1 || { cat $(BUILD)/build.log; exit 1; }
examples: configure
	@$(CMAKE_BUILD) --target LibSkerry JOT Plinth plist-tool regplist skerry-deps skerry-glob $(QUIETLY)
	@cmake --install $(BUILD) --prefix $(EXAMPLES_PREFIX) $(QUIETLY)
	@test -f $(BUILD)/examples/CMakeCache.txt || cmake -S examples -B $(BUILD)/examples \
	  -DCMAKE_TOOLCHAIN_FILE=$(EXAMPLES_PREFIX)/share/LibSkerry/toolchain-i686-mingw.cmake \
	  -DCMAKE_PREFIX_PATH=$(EXAMPLES_PREFIX) $(QUIETLY)
	@env -u MAKEFLAGS -u MAKELEVEL -u MFLAGS cmake --build $(BUILD)/examples -j $(JOBS) $(QUIETLY)

# Wine starts its server and system processes with the first program; started cold inside a test
# run they slow every test and hold CTest's output pipe. Keep a server warm for the whole run.
define warm_wine
	wineserver -p; wine cmd /c exit >/dev/null 2>&1
endef

# After the demo, regplist exports the registry keys that it made, and skerry-deps prints the
# tree of libraries that the demo imports.
demo: examples
	@$(warm_wine); wine $(BUILD)/examples/Demo.exe && printf '\n$$ regplist export "HKCU\\Software\\Tolvane Demo"\n' \
	  && wine $(EXAMPLES_PREFIX)/bin/regplist.exe export 'HKCU\Software\Tolvane Demo' \
	  && printf '\n$$ skerry-deps Demo.exe\n' && wine $(EXAMPLES_PREFIX)/bin/skerry-deps.exe $(BUILD)/examples/Demo.exe; \
	  status=$$?; wineserver -k; exit $$status

test: build
	@$(warm_wine); cd $(BUILD) && ctest --output-on-failure -j 2; status=$$?; wineserver -k; exit $$status

# clang-tidy reads the commands of the configured build: no compiling needed first.
tidy: configure
	@scripts/tidy $(BUILD)

bench: configure
	@$(CMAKE_BUILD) --target benches
	@cmake -S plinth -B $(NATIVE) >/dev/null && env -u MAKEFLAGS -u MAKELEVEL -u MFLAGS cmake --build $(NATIVE) -j $(JOBS) --target PlinthBench PropertyListBench >/dev/null && $(NATIVE)/PlinthBench && $(NATIVE)/PropertyListBench
	@$(warm_wine); status=0; for b in $(BUILD)/bin/*Bench.exe; do wine $$b || status=1; done; wineserver -k; exit $$status

# Installing builds what it installs and nothing else: no tests, no benchmarks, no Wine prefix.
install:
	@scripts/setup --build-only
	@$(CONFIGURE)
	@$(CMAKE_BUILD) --target LibSkerry JOT Plinth plist-tool regplist skerry-deps skerry-glob
	@cmake --install $(BUILD) --prefix $(PREFIX)

# The release archive: what `make install` installs, in a zip file named after the version.
package:
	@scripts/setup --build-only
	@$(CONFIGURE)
	@$(CMAKE_BUILD) --target ReleaseArchive

# Plinth's portable core, natively: the same tests as under Wine, with the sanitizers.
.PHONY: native
native: setup
	@cmake -S plinth -B $(NATIVE) >/dev/null
	@env -u MAKEFLAGS -u MAKELEVEL -u MFLAGS cmake --build $(NATIVE) -j $(JOBS) --target PlinthTests PlinthAllocationTests plist-tool
	@cd $(NATIVE) && ctest --output-on-failure

clean:
	rm -rf $(BUILD) $(NATIVE) build-fuzz

# The property-list readers and the import reader under libFuzzer, natively with clang: FUZZ_SECONDS (60) per target,
# executions and coverage printed; a crash keeps its input in build-fuzz/crashes/.
.PHONY: fuzz
fuzz: setup
	@plinth/fuzz/run-fuzzers $(CURDIR)/build-fuzz
	@fuzz/run-image-fuzzer $(CURDIR)/build-fuzz/images
