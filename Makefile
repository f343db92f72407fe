# Front of the build: all work is in CMake.
#   make demo                install what is missing, build, show in 40 s what the agent does, told line by line
#   make run [FOR=seconds]   the same agent with a live page of its own, until Ctrl-C
#   make fleet-demo          a broker and three agents on loopback in half a minute: an outage, a limit that goes back
#   make test                build and run every test that this machine allows; says which it could not run and why
#   make test-all            the same, and the tests that take long: every row under a real service manager, many rounds
#   make sanitize            the same tests under the address, undefined and thread sanitizers (sanitize-module: a part)
#   make lint [ALL=1]        cppcheck on everything, clang-tidy on what has changed or on everything
#   make mutate [SUITE=module] [ARGS=]  small faults planted in the sources: which of them does no test notice?
#   make matrix [ARGS=]      the agent on every kernel, layout and place of its own in guests; more than an hour
#   make portability [ARGS=]  the tree under C++20, on Debian 13 and for arm64, with the tests that can run there
#   make soak [FOR=600] [ARGS="--seed N"]  the agent through kills, drift, full disks and outages: nothing may grow
#   make fuzz [FOR=600] [ARGS=FuzzX]  the fuzz targets with libFuzzer, the time divided among them
#   make coverage            which lines and branches of src/ and runtime/ the tests without guests run
#   make bench               build and measure every figure of docs/PERFORMANCE.md, beside a floor and peers
#   make bench-peers         the same, after installing the peers from Debian without starting their services
#   make bench-scale         what one more group, component, thread, descriptor and event costs, as a plot in docs/
#   make bench-fleet         what 100, 1,000 and 10,000 hosts of a fleet cost their broker, as a plot in docs/
#   make package             Debian packages in build/package/packages: libzelmonitor0, libzelmonitor-dev, tervane
#   make install [PREFIX=]   install libraries, headers, agent, unit file and man pages, and the sample configuration in
#                            /etc/tervane where there is none (DESTDIR= is heeded)
#   make uninstall           take away what that has installed, and no more
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
FOR ?=
SUITE ?= module
ARGS ?=
ASAN_QUICK = UnitCore UnitLimits UnitCgroup UnitAbnormal UnitUnifiedModel AllFuzzers RuntimeBaseTests SweepModule FleetRule FleetFrames
TSAN_QUICK = UnitCore UnitLimits RuntimeBaseTests RuntimeUtilTests RuntimeIpcTests

.PHONY: all demo run fleet-demo test test-all lint sanitize sanitize-module mutate mutate-sample matrix portability soak bench bench-peers bench-scale bench-fleet fuzz coverage package install uninstall clean deps deps-build

all: deps
	cmake --preset dev
	cmake --build --preset dev -j $(JOBS)

deps:
	scripts/install-deps

deps-build:
	scripts/install-deps --build

demo: deps-build
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	build/release/bin/tervanedemo --samples agent

run: deps-build
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	scripts/demo --build build/release $(if $(FOR),--for $(FOR))

fleet-demo:
	scripts/install-deps --fleet
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	scripts/fleet-demo --build build/release

test: deps
	cmake --preset dev
	cmake --build --preset dev -j $(JOBS)
	scripts/run-tests dev

test-all: deps
	cmake --preset dev
	cmake --build --preset dev -j $(JOBS)
	scripts/run-tests dev --all

lint: deps
	cmake --preset dev
	ALL=$(ALL) scripts/lint build/dev

# Everything but the virtual machines and the whole agent, whose budgets instrumented programs do not fit in.
sanitize: deps
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS)
	scripts/run-tests asan -LE "vm|system|long"
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS)
	scripts/run-tests tsan -LE "vm|system|tree|long"

# The module, the ground floor and the fuzz corpora: what CI has the time for.
sanitize-module: deps
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS) --target $(ASAN_QUICK)
	scripts/run-tests asan -L "unit|fuzz|runtime" -E "NOT_BUILT|UtilExports|SweepModule.pairs|SweepPower|FleetRule.histories"
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS) --target $(TSAN_QUICK)
	scripts/run-tests tsan -L "unit|runtime" -E "NOT_BUILT|UnitUnifiedModel|LongRun|Sweep|FleetRule"

mutate: deps
	cmake --preset dev
	scripts/mutate --build build/dev --suite $(SUITE) --jobs $(JOBS) $(ARGS)

# Sixty faults drawn by the commit. The bound stands well below what a full run gives, see docs/TESTING.md.
mutate-sample: deps
	cmake --preset dev
	scripts/mutate --build build/dev --jobs $(JOBS) --sample 60 --seed "$$(git rev-parse HEAD)" --least 80

fuzz: deps
	cmake --preset fuzz -DCMAKE_CXX_COMPILER=$$(scripts/find-clang clang++)
	cmake --build --preset fuzz -j $(JOBS) --target AllFuzzers
	scripts/fuzz --build build/fuzz $(if $(FOR),--for $(FOR)) --jobs $(JOBS) $(ARGS)

matrix: deps
	cmake --preset dev
	cmake --build --preset dev -j $(JOBS) --target tervane tervanectl vmMatrixTests
	tests/system/matrix/matrix.py --build build/dev --write docs/TESTING.md $(ARGS)

# What the tests that need no guest run of src/ and runtime/, beside the bounds in scripts/coverage.
coverage: deps
	cmake --preset coverage
	cmake --build --preset coverage -j $(JOBS)
	scripts/coverage --build build/coverage $(ARGS)

portability:
	scripts/install-deps --portability
	JOBS=$(JOBS) scripts/portability $(ARGS)

soak: deps
	cmake --preset dev
	cmake --build --preset dev -j $(JOBS) --target tervane tervanectl
	tests/soak/soak.py --build build/dev $(if $(FOR),--for $(FOR)) $(ARGS)

bench: deps
	cmake --preset bench
	cmake --build --preset bench -j $(JOBS)
	bench/rows.py --build build/bench --write docs/PERFORMANCE.md

bench-peers:
	scripts/install-deps --peers
	$(MAKE) bench

bench-scale: deps
	cmake --preset bench
	cmake --build --preset bench -j $(JOBS)
	bench/scale.py --build build/bench --draw docs/scale.svg

bench-fleet: deps
	cmake --preset bench
	cmake --build --preset bench -j $(JOBS) --target FleetScale
	bench/fleet-scale --build build/bench --draw docs/fleet-scale.svg

install: deps-build
	cmake --preset release -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build --preset release -j $(JOBS)
	cmake --install build/release
	cp build/release/install_manifest.txt build/release/installed.txt
	install -d -m 0755 "$(DESTDIR)/etc/tervane"
	for file in resource_config components.json agent.json; do \
	  [ -e "$(DESTDIR)/etc/tervane/$$file" ] || install -m 0640 agent/conf/$$file "$(DESTDIR)/etc/tervane/$$file"; \
	done

uninstall:
	@[ -e build/release/installed.txt ] || { echo "uninstall: this tree has installed nothing"; exit 1; }
	sed "s|^|$(DESTDIR)|" build/release/installed.txt | tr '\n' '\0' | xargs -0 rm -f
	rm build/release/installed.txt
	@echo "uninstall: configuration in /etc/tervane and state in /var/lib/tervane are left; remove them by hand"

package: deps-build
	cmake --preset package
	cmake --build --preset package -j $(JOBS)
	cd build/package && cpack

clean:
	rm -rf build
