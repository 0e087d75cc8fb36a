# The two commands of the project:
#   make test   installs what is missing, configures, builds and runs every test
#   make demo   the end-to-end demonstration on the host platform
PRESET ?= default
JOBS ?= $(shell nproc)

.PHONY: all deps configure build test demo clean

all: build

deps:
	@./scripts/install-deps

configure: deps
	cmake --preset $(PRESET) $(CMAKE_ARGS)

build: configure
	cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET) -j $(JOBS)

demo: build
	./scripts/demo $(PRESET)

clean:
	rm -rf build
