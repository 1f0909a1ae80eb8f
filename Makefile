# The two commands of a fresh clone:
#   make tour   builds and runs the qwvm tool's tour
#   make test   builds and runs every test
BUILD ?= build
JOBS ?= 2
CMAKE_FLAGS ?=

.PHONY: all build test tour clean

all: build

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j$(JOBS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)

tour: build
	$(BUILD)/tools/qwvm/qwvm tour $(BUILD)/qwvm-tour

clean:
	rm -rf $(BUILD)
