# Front door. CMake builds (CMakePresets.json); this file only has the handy names.

.PHONY: help setup windows package relay test fuzz soak mutate bench bench-relay demo screenshots
help:
	@echo "make demo      build all, then show a host's screen in a viewer, last by the desktop"
	@echo "               application (KEEP=1: stay up; RELAY=1: through a relay from the start)"
	@echo "make windows   build/windows/: qv.exe, and qv_client.exe and qv_host.exe for the command"
	@echo "               line"
	@echo "make package   build/package/: an installer and a zip file of them (docs/packaging.md)"
	@echo "make relay     build/relay/qv_relay, where hosts and viewers meet (docs/relay.md)"
	@echo "make test      every test and check, natively and under Wine (some minutes)"
	@echo "make fuzz      each fuzz target for a minute, two at once (SECONDS=n: each so long)"
	@echo "make soak      random sessions between a host and a viewer (SECONDS=n: so long, else 300)"
	@echo "make bench     how fast it is, against known libraries (BASE=commit: and what changed;"
	@echo "               LINES=1: how sessions feel over emulated slow lines instead)"
	@echo "make bench-relay  the relay, beside plain TCP forwards (two minutes; docs/relay.md)"
	@echo "make mutate    what notices when a safety clause is removed (20 minutes; docs/testing.md)"
	@echo "make screenshots   the pictures of the desktop application in docs/images/"
	@echo
	@echo "Each first installs what it needs (tools/setup; Debian 12, root or sudo)."

setup:
	@tools/setup

windows: setup
	cmake --preset mingw-release
	cmake --build --preset mingw-release --parallel 2 --target qv_program qv_client_program qv_host_program
	tools/check_imports build/windows/qv.exe build/windows/qv_client.exe build/windows/qv_host.exe

package: windows
	@tools/package

relay: setup
	cmake --preset linux-release
	cmake --build --preset linux-release --parallel 2 --target qv_relay_program

test: setup
	@tools/run_tests

fuzz: setup
	@tools/fuzz --seconds $(or $(SECONDS),60)

# Ends at the first failure, with the seed that repeats it: QV_SEED=n in the environment.
soak: setup
	cmake --preset linux-asan
	cmake --build --preset linux-asan --parallel 2 --target random_session_test
	nice -n 19 env QV_SECONDS=$(or $(SECONDS),300) build/linux-asan/tests/random_session_test

mutate: setup
	@tools/mutate

# Under three minutes; docs/performance.md says how to read it.
bench: setup
	@tools/bench $(if $(LINES),--lines,$(if $(BASE),--base $(BASE)))

# Two minutes.
bench-relay: relay
	@tools/bench_relay

demo: windows relay
	cmake --build --preset mingw-release --parallel 2 --target probe_tool console_double
	@tools/demo

# The pictures hold a new password each time.
screenshots: windows
	cmake --build --preset mingw-release --parallel 2 --target probe_tool console_double
	@tools/screenshots
