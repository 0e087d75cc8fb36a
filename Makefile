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

# The demo needs only the entities and the two clients, not the tests and
# benchmarks, which would take most of the build time.
DEMO_TARGETS = log-storage signature-verifier update-registry verifier registry-cli verifier-cli

demo: configure
	cmake --build --preset $(PRESET) -j $(JOBS) --target $(DEMO_TARGETS)
	./scripts/demo $(PRESET)

clean:
	rm -rf build
