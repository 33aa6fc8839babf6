# SPDX-License-Identifier: GPL-2.0
#
# A thin front: everything is done by the scripts and the CMake build that it calls.

BUILD  ?= build
JOBS   ?= $(shell nproc)
PREFIX ?= /usr/local

asan = address,undefined

# $(call build,<directory>,<sanitizers>,<test labels>)
build = cmake -G Ninja -S . -B $(1) -DKELM_SANITIZE=$(2) -DKELM_TESTS="$(3)" --log-level=WARNING \
        && cmake --build $(1) -j $(JOBS)
say = @printf '\n==> %s\n' "$(1)"
sources = $(shell git ls-files '*.h' '*.c' '*.cpp')

.PHONY: help all demo test bench install clean tidy format format-check

help:
	@echo 'kelm: BFD offload. Targets, on Debian 12, as root where packages are missing:'
	@echo
	@echo '  make all           build kelmd, kelmctl and the libraries into $(BUILD)/'
	@echo '  make demo          see it work: a session between two namespaces, the link is cut'
	@echo '  make test          all tests: unit, end to end, soak, checks of the tree'
	@echo '  make bench         measure; prints, judges nothing'
	@echo '  make install       install into PREFIX ($(PREFIX)), below DESTDIR'
	@echo '  make tidy          clang-tidy over all sources'
	@echo '  make format        reformat the sources; make format-check only looks'
	@echo '  make clean         remove $(BUILD)/'

all:
	$(call say,packages for building)
	@scripts/install-deps build
	$(call say,release build in $(BUILD)/)
	@$(call build,$(BUILD),,e2e;soak;check)

demo: all
	@scripts/install-deps demo
	$(call say,demo)
	@scripts/demo $(BUILD)

test: all
	$(call say,packages for the tests)
	@scripts/install-deps test
	$(call say,address and undefined-behaviour sanitizer build in $(BUILD)/asan/)
	@$(call build,$(BUILD)/asan,$(asan),unit;e2e)
	$(call say,thread sanitizer build in $(BUILD)/tsan/)
	@$(call build,$(BUILD)/tsan,thread,e2e)
	$(call say,tests)
	@ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure

bench: all
	@scripts/install-deps bench
	$(call say,benchmarks)
	@bench/run $(BUILD)

install: all
	@cmake --install $(BUILD) --prefix $(PREFIX)

tidy: all
	@scripts/install-deps test
	@$(call build,$(BUILD)/tidy,,unit;e2e)
	@run-clang-tidy -quiet -p $(BUILD)/tidy -j $(JOBS)

format:
	@clang-format -i $(sources)

format-check:
	@clang-format --dry-run -Werror $(sources)

clean:
	rm -rf $(BUILD)
