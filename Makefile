# arbo: build, test, demo and benchmarks. `make demo` and `make test` install
# whatever is missing first (tools/install_deps.sh, as root, Debian 12).
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= 2
ERLC_FLAGS ?= -Werror +debug_info
ERL        ?= erl

ERL_SRC   := $(wildcard src/*.erl)
TEST_SRC  := $(wildcard test/*.erl)
BENCH_SRC := $(wildcard bench/*.erl)
EUNIT_MODS = $(subst $(space),$(comma),$(sort $(basename $(notdir $(wildcard test/*_tests.erl)))))
comma := ,
space := $(empty) $(empty)

.PHONY: all deps build native asan erl test unit eunit eunit-asan demo bench clean check reliability

all: build

deps:
	@tools/install_deps.sh

build: deps native erl

native:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS)
	@mkdir -p priv && cp $(BUILD)/arbo_nif.so priv/arbo_nif.so

asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DARBO_SANITIZE=ON -DARBO_BENCH=OFF >/dev/null
	cmake --build $(ASAN_BUILD) -j$(JOBS)

erl: ebin/.stamp test/ebin/.stamp

ebin/.stamp: $(ERL_SRC) $(wildcard src/*.hrl include/*.hrl)
	@mkdir -p ebin
	erlc $(ERLC_FLAGS) -I src -I include -o ebin $(ERL_SRC)
	@touch $@

test/ebin/.stamp: $(TEST_SRC) $(BENCH_SRC) $(wildcard test/*.hrl bench/*.hrl) ebin/.stamp
	@mkdir -p test/ebin
	erlc $(ERLC_FLAGS) -pa ebin -o test/ebin $(TEST_SRC) $(BENCH_SRC)
	@touch $@

# Every suite: C++ unit tests, the Erlang suites against the release build,
# then the Erlang suites again against the sanitizer build.
test: build asan
	$(MAKE) check unit eunit eunit-asan

unit:
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)
	cd $(ASAN_BUILD) && ctest --output-on-failure -j$(JOBS)

eunit: erl
	tools/run_eunit.sh $(CURDIR)/priv "$(EUNIT_MODS)"

# The sanitizer runtime must be the first library in the VM: preload it.
eunit-asan: erl
	ARBO_ASAN=1 tools/run_eunit.sh $(CURDIR)/$(ASAN_BUILD) "$(EUNIT_MODS)"

demo: build
	$(ERL) -noshell -pa ebin -eval 'arbo_demo:main(), halt().'

bench: build
	$(BUILD)/arbo_micro_bench --benchmark_min_time=0.2
	$(ERL) -noshell -pa ebin -pa test/ebin -eval 'arbo_bench:main(), halt().'

# The reliability scenarios at full scale, with the figures the README quotes.
reliability: build
	ARBO_NIF_DIR=$(CURDIR)/priv $(ERL) -noshell -pa ebin -pa test/ebin -eval 'arbo_reliability:main(), halt().'

# Dialyzer over the Erlang modules (the PLT of erts, kernel and stdlib is
# built once into $(BUILD)/), then the API docs with EDoc into doc/.
PLT ?= $(BUILD)/arbo.plt
check: erl
	@test -f $(PLT) || dialyzer --build_plt --apps erts kernel stdlib --output_plt $(PLT)
	dialyzer --plt $(PLT) ebin/*.beam
	$(ERL) -noshell -eval 'edoc:files(filelib:wildcard("src/*.erl"), [{dir, "doc"}, {preprocess, true}, {includes, ["src"]}]), halt().'

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) ebin test/ebin priv
