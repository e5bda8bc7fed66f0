# The two commands of the README: `make run` and `make test`. Each installs
# what is missing, builds, and then runs Orvane or every test.
BUILD_DIR := build
ASAN_DIR := build-asan

FUZZ_DIR := build-fuzz
# `make fuzz` runs each fuzz target this many seconds (or FUZZ_RUNS inputs).
FUZZ_SECONDS ?= 120
FUZZ_RUNS ?=
# Only these fuzz targets (names, e.g. ManifestFuzz), when given.
FUZZ_TARGETS ?=

.PHONY: all deps build run test unit-asan fuzz bench format clean package-check

all: build

deps:
	@scripts/install-deps.sh

$(BUILD_DIR)/build.ninja: | deps
	@cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: deps $(BUILD_DIR)/build.ninja
	@cmake --build $(BUILD_DIR)
	@scripts/prepare-site-venv.sh

run: build
	@scripts/install-desktop-file.sh
	$(BUILD_DIR)/orvane

test: build unit-asan
	@scripts/install-claude-code.sh
	cd $(BUILD_DIR) && ctest --output-on-failure --timeout 1800

# The unit, integration, X11, KWin and GNOME tests once more, built with AddressSanitizer and
# UBSan.
unit-asan: deps
	@cmake -S . -B $(ASAN_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DORVANE_SANITIZE=ON \
		-DORVANE_E2E=OFF >/dev/null
	@cmake --build $(ASAN_DIR) --target orvane_unit_tests orvane_integration_tests orvane_x11_tests \
		orvane_kwin_tests orvane_kwin_selection_tests orvane_fake_keys orvane_gnome_tests \
		orvane_gnome_extension fuzz_targets
	cd $(ASAN_DIR) && ASAN_OPTIONS=detect_leaks=0 ctest --output-on-failure

# The fuzz targets under libFuzzer (clang, ASan, UBSan), each for a bounded
# time; `make test` only replays their checked-in corpora.
fuzz: deps
	@cmake -S . -B $(FUZZ_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVANE_FUZZ=ON \
		-DORVANE_E2E=OFF -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
	@cmake --build $(FUZZ_DIR) --target fuzz_targets
	scripts/run-fuzzers.sh $(FUZZ_DIR)/fuzz $(FUZZ_SECONDS) "$(FUZZ_RUNS)" $(FUZZ_TARGETS)

# A release installed on a clean, minimal Debian 12 (debootstrap) with apt,
# started as an ordinary user and purged (scripts/package-check.sh). Needs
# root and the network (about 330 MB); not part of `make test`.
package-check: build
	scripts/package-check.sh

# Benchmarks print figures against floors measured in the same run.
bench: build
	@cmake --build $(BUILD_DIR) --target orvane_library_bench orvane_probe_bench orvane_agent_bench \
		orvane_agent_page_bench orvane_placement_bench orvane_fake_keys orvane_startup_floor
	$(BUILD_DIR)/orvane_library_bench
	$(BUILD_DIR)/orvane_placement_bench
	$(BUILD_DIR)/orvane_probe_bench
	$(BUILD_DIR)/orvane_agent_bench
	NO_AT_BRIDGE=1 dbus-run-session -- xvfb-run -a $(BUILD_DIR)/orvane_agent_page_bench
	ORVANE_BIN=$(abspath $(BUILD_DIR))/orvane ORVANE_STARTUP_FLOOR=$(abspath $(BUILD_DIR))/orvane_startup_floor \
		/usr/bin/python3 bench/startup/startup_bench.py
	ORVANE_BIN=$(abspath $(BUILD_DIR))/orvane /usr/bin/python3 bench/summon/summon_bench.py
	ORVANE_BIN=$(abspath $(BUILD_DIR))/orvane /usr/bin/python3 bench/summon/hostile_clipboard_bench.py
	ORVANE_BIN=$(abspath $(BUILD_DIR))/orvane ORVANE_FAKE_KEYS=$(abspath $(BUILD_DIR))/orvane_fake_keys \
		/usr/bin/python3 bench/summon/summon_wayland_bench.py --desktop kwin
	ORVANE_BIN=$(abspath $(BUILD_DIR))/orvane \
		/usr/bin/python3 bench/summon/summon_wayland_bench.py --desktop gnome
	/usr/bin/python3 bench/gnome-extension-idle

format:
	clang-format -i $$(git ls-files 'src/*.cpp' 'src/*.h' 'tests/*.cpp' 'tests/*.h' 'bench/*.cpp')

clean:
	rm -rf $(BUILD_DIR) $(ASAN_DIR) $(FUZZ_DIR)
