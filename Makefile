# arbo: build, test, demo and benchmarks for development (a project that
# uses arbo builds it with rebar3 or mix: rebar.config). Only `make deps`,
# `make demo` and `make test` install what is missing (tools/install_deps.sh,
# as root, Debian 12); every other target uses what is there.
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

.PHONY: all deps build native asan erl test unit eunit eunit-asan demo bench clean check reliability consumer

all: build

deps:
	@tools/install_deps.sh

build: native erl

native:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS)
	@mkdir -p priv && cp $(BUILD)/arbo_nif.so priv/arbo_nif.so

asan:
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DARBO_SANITIZE=ON -DARBO_BENCH=OFF >/dev/null
	cmake --build $(ASAN_BUILD) -j$(JOBS)

erl: ebin/.stamp ebin/arbo.app test/ebin/.stamp

ebin/.stamp: $(ERL_SRC) $(wildcard src/*.hrl include/*.hrl)
	@mkdir -p ebin
	erlc $(ERLC_FLAGS) -I src -I include -o ebin $(ERL_SRC)
	@touch $@

# The application file, as rebar3 makes it: the .app.src with the modules.
APP_FILE = {ok, [{application, A, P}]} = file:consult("src/arbo.app.src"), \
  Ms = lists:sort([list_to_atom(filename:basename(F, ".erl")) || F <- filelib:wildcard("src/*.erl")]), \
  ok = file:write_file("ebin/arbo.app", io_lib:format("~tp.~n", [{application, A, lists:keystore(modules, 1, P, {modules, Ms})}])), \
  halt().
ebin/arbo.app: src/arbo.app.src $(ERL_SRC)
	@mkdir -p ebin
	@$(ERL) -noshell -eval '$(APP_FILE)'

test/ebin/.stamp: $(TEST_SRC) $(BENCH_SRC) $(wildcard test/*.hrl bench/*.hrl) ebin/.stamp
	@mkdir -p test/ebin
	erlc $(ERLC_FLAGS) -pa ebin -o test/ebin $(TEST_SRC) $(BENCH_SRC)
	@touch $@

# Every suite: C++ unit tests, the Erlang suites against the release build,
# then the Erlang suites again against the sanitizer build.
test: deps
	$(MAKE) build asan
	$(MAKE) check unit eunit eunit-asan consumer

unit:
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)
	cd $(ASAN_BUILD) && ctest --output-on-failure -j$(JOBS)

eunit: erl
	tools/run_eunit.sh $(CURDIR)/priv "$(EUNIT_MODS)"

# The sanitizer runtime must be the first library in the VM: preload it.
eunit-asan: erl
	ARBO_ASAN=1 tools/run_eunit.sh $(CURDIR)/$(ASAN_BUILD) "$(EUNIT_MODS)"

demo: deps
	$(MAKE) build
	$(ERL) -noshell -pa ebin -eval 'arbo_demo:main(), halt().'

bench: build
	$(BUILD)/arbo_micro_bench --benchmark_min_time=0.2
	$(ERL) -noshell -pa ebin -pa test/ebin -eval 'arbo_bench:main(), halt().'

# The reliability scenarios at full scale, with the figures the README quotes.
reliability: build
	ARBO_NIF_DIR=$(CURDIR)/priv $(ERL) -noshell -pa ebin -pa test/ebin -eval 'arbo_reliability:main(), halt().'

# xref and Dialyzer over the application through rebar3 (the first run
# builds the PLT of erts, kernel and stdlib into ~/.cache/rebar3, about a
# minute), then the API docs: EDoc pages into doc/, doc chunks into doc/chunks
# (where h/2 finds them for the modules in ebin/).
check: erl
	rebar3 xref
	rebar3 dialyzer
	$(ERL) -noshell -eval 'edoc:files(filelib:wildcard("src/*.erl"), [{dir, "doc"}, {preprocess, true}, {includes, ["src"]}]), halt().'
	rebar3 edoc
	@$(ERL) -noshell -pa ebin -eval '{ok, _} = code:get_doc(arbo_tree), halt().' || \
	  { echo "h/2 finds no docs for the modules in ebin/"; exit 1; }

# A scratch rebar3 project (and a mix one when Elixir is installed) that
# depends on this checkout: builds, runs, releases (tools/consumer_test.sh).
consumer:
	tools/consumer_test.sh

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) build-nif _build ebin test/ebin priv
