# SPDX-License-Identifier: GPL-2.0
#
# A thin front: the scripts and the CMake build that it calls do all the work.

BUILD  ?= build
JOBS   ?= $(shell nproc)
PREFIX ?= /usr/local
KERNEL ?= $(shell uname -r)
KERNELS ?= 6.1 6.12
DEBIAN ?= 13

asan = address,undefined

# $(call build,<directory>,<sanitizers>,<test labels>[,<targets>])
build = cmake -G Ninja -S . -B $(1) -DKELM_SANITIZE=$(2) -DKELM_TESTS="$(3)" --log-level=WARNING \
        && cmake --build $(1) -j $(JOBS) $(if $(4),--target $(4))
say = @printf '\n==> %s\n' "$(1)"
version = $(shell sed -n 's/^project(kelm VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
sources = $(shell git ls-files '*.h' '*.c' '*.cpp')

.PHONY: help all demo module test vm-kernels vm-test vm-test-debug debian-test bench bench-plots install install-module deb clean tidy format format-check

help:
	@echo 'kelm: BFD offload. Targets, on Debian 12, as root where packages are missing:'
	@echo
	@echo '  make all           build kelmd, kelmctl and the libraries into $(BUILD)/'
	@echo '  make module        build kelm.ko for the kernel KDIR (see scripts/build-module --help)'
	@echo '  make demo          see it work: a session between two namespaces, the link is cut'
	@echo '  make test          all tests: unit, end to end on kelmd and kelm.ko, soak, checks'
	@echo '  make vm-test       only those of kelm.ko, on KERNELS ($(KERNELS)) in virtual machines'
	@echo '  make vm-test-debug the same on a kernel for debugging, which is built first'
	@echo "  make debian-test   build, and run the unit tests, in a root file system of Debian DEBIAN ($(DEBIAN))"
	@echo '  make bench         benchmarks: measure and print'
	@echo '  make bench-plots   measure cost and load, and draw bench/figures/'
	@echo '  make install       install into PREFIX ($(PREFIX)), below DESTDIR'
	@echo "  make install-module  install kelm.ko by DKMS for KERNEL and load it at boot"
	@echo '  make deb           build the Debian packages into $(BUILD)/deb/'
	@echo '  make tidy          clang-tidy over all sources'
	@echo '  make format        reformat the sources; make format-check only checks'
	@echo '  make clean         remove $(BUILD)/'

all:
	$(call say,packages for building)
	@scripts/install-deps build
	$(call say,release build in $(BUILD)/)
	@$(call build,$(BUILD),,e2e;soak;check;vm)

demo: all
	@scripts/install-deps demo
	$(call say,demo)
	@scripts/demo $(BUILD) $(HOST)

module:
	$(call say,packages for building the module)
	@scripts/install-deps module
	$(call say,kelm.ko)
	@scripts/build-module $(if $(KDIR),--kernel $(KDIR))

test: all vm-kernels
	$(call say,packages for the tests)
	@scripts/install-deps test
	$(call say,address and undefined-behaviour sanitizer build in $(BUILD)/asan/)
	@$(call build,$(BUILD)/asan,$(asan),unit;e2e)
	$(call say,thread sanitizer build in $(BUILD)/tsan/)
	@$(call build,$(BUILD)/tsan,thread,e2e,kelmd kelmctl)
	$(call say,tests)
	@ctest --test-dir $(BUILD) -j $$(($(JOBS) + 1)) --output-on-failure # virtual machines often wait

vm-kernels:
	$(call say,kernels for the virtual machines: $(KERNELS))
	@set -e; for kernel in $(KERNELS); do scripts/vm-kernel $$kernel; done

vm-test: all vm-kernels
	@set -e; for kernel in $(KERNELS); do KELM_BUILD=$(BUILD) tests/vm/run $$kernel; done

vm-test-debug: all
	$(call say,kernel for debugging)
	@scripts/vm-kernel debug
	@KELM_BUILD=$(BUILD) tests/vm/run debug

debian-test: tree = $(BUILD)/debian$(DEBIAN)
debian-test: run = scripts/debian-root $(DEBIAN)
debian-test:
	$(call say,root file system of Debian $(DEBIAN) in build/debian/$(DEBIAN)/)
	@$(run) scripts/install-deps build unit
	$(call say,build in $(tree)/)
	@$(run) sh -c '$(call build,$(tree),,unit)'
	$(call say,unit tests)
	@$(run) ctest --test-dir $(tree) -L unit -j $(JOBS) --output-on-failure

bench: all
	@scripts/install-deps bench
	$(call say,benchmarks)
	@bench/run $(BUILD)

bench-plots: all
	@scripts/install-deps bench plots
	$(call say,benchmarks of cost and load)
	@cmake --build $(BUILD) --target bench >/dev/null
	@$(BUILD)/bin/kelm_bench_engine | tee $(BUILD)/engine.txt
	@KELM_BUILD=$(BUILD) scripts/isolated bench/ladder.py --json $(BUILD)/ladder.json
	$(call say,figures in bench/figures/)
	@bench/plots.py $(BUILD)/engine.txt $(BUILD)/ladder.json bench/figures

install: all
	@cmake --install $(BUILD) --prefix $(PREFIX)

install-module: all
	$(call say,kelm.ko for $(KERNEL) by DKMS)
	@scripts/install-deps module dkms
	@if dkms status kelm/$(version) | grep -q .; then dkms remove kelm/$(version) --all; fi
	@cmake --install $(BUILD) --component dkms --prefix /usr
	@dkms install kelm/$(version) -k $(KERNEL)
	@echo 'It is loaded at boot; to load it now: modprobe kelm. See kelm(4).'

deb:
	$(call say,packages for building packages)
	@scripts/install-deps build deb
	$(call say,Debian packages in $(BUILD)/deb/)
	@scripts/build-deb --output $(BUILD)/deb

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
