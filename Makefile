# Front door. CMake builds (CMakePresets.json); this file only has the handy names.

.PHONY: help setup windows test fuzz demo
help:
	@echo "make demo      build all, then show a host's screen in a viewer (KEEP=1: stay up)"
	@echo "make windows   build/windows/qv_client.exe and build/windows/qv_host.exe"
	@echo "make test      every test and check, natively and under Wine (some minutes)"
	@echo "make fuzz      each fuzz target for a minute, two at once (SECONDS=n: longer)"
	@echo
	@echo "Each first installs what it needs (tools/setup; Debian 12, root or sudo)."

setup:
	@tools/setup

windows: setup
	cmake --preset mingw-release
	cmake --build --preset mingw-release --parallel 2 --target qv_client_program qv_host_program
	tools/check_imports build/windows/qv_client.exe build/windows/qv_host.exe

test: setup
	@tools/run_tests

fuzz: setup
	@tools/fuzz --seconds $(or $(SECONDS),60)

demo: windows
	cmake --build --preset mingw-release --parallel 2 --target probe_tool
	@tools/demo
