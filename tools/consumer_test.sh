#!/usr/bin/env bash
# arbo used the way another project uses it: a scratch rebar3 application
# that depends on this repository by git URL (its committed HEAD) is built,
# run in an erl on its _build, released and run from the release, and built
# as an escript; then the same from a mix project when Elixir is installed.
# Offline: nothing comes from hex. Each step checks what the README promises:
# the library loaded from the dependency's priv/, only the library built (no
# tests, no benchmarks), no C++ sources in a release, docs for h/2, the
# application started by arbo_tree:new/0.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/arbo_consumer.XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() { echo "consumer test FAILED: $*" >&2; exit 1; }
step() { echo "== consumer: $*"; }

# Only make deps, demo and test may install packages.
for t in all build native asan erl check unit eunit eunit-asan consumer bench reliability clean; do
  if make -n -C "$root" "$t" 2>/dev/null | grep -q install_deps; then
    fail "make $t would install packages"
  fi
done

if rev=$(git -C "$root" rev-parse HEAD 2>/dev/null); then
  url=file://$root
  if [ -n "$(git -C "$root" status --porcelain --untracked-files=no)" ]; then
    echo "consumer test: uses the committed HEAD $rev (the working tree has changes)"
  fi
else
  # Not a git checkout (an unpacked archive): a repository of its files.
  url=file://$work/arbo.git
  mkdir "$work/arbo.git"
  (cd "$root" && tar cf - --exclude='./build*' --exclude=./_build --exclude=./priv \
     --exclude=./ebin --exclude=./test/ebin --exclude=./doc .) | tar xf - -C "$work/arbo.git"
  git -C "$work/arbo.git" init -q
  git -C "$work/arbo.git" add -A
  git -C "$work/arbo.git" -c user.name=arbo -c user.email=arbo@localhost commit -qm snapshot
  rev=$(git -C "$work/arbo.git" rev-parse HEAD)
fi
export HEX_OFFLINE=1 REBAR_CACHE_DIR="$work/rebar3_cache"
export MIX_HOME="$work/mix" HEX_HOME="$work/hex" MIX_REBAR3="$(command -v rebar3)"
export ARBO_JOBS=${ARBO_JOBS:-2}
unset ARBO_NIF_DIR ERL_LIBS

# The check's output must hold this line, with the library's folder in it.
expect() { # expect OUTPUT LIBRARY_DIR_PATTERN WHAT
  grep -q "^shelf ok $2/arbo_nif$" <<<"$1" || { printf '%s\n' "$1" >&2; fail "$3"; }
}

# ---- the rebar3 project -----------------------------------------------------
app=$work/shelf
mkdir -p "$app/src"
cat >"$app/rebar.config" <<EOF
{deps, [{arbo, {git, "$url", {ref, "$rev"}}}]}.
{relx, [{release, {shelf, "0.1.0"}, [shelf]}, {mode, prod}, {include_erts, false}]}.
{escript_main_app, shelf}.
{escript_incl_apps, [arbo]}.
EOF
cat >"$app/src/shelf.app.src" <<'EOF'
{application, shelf,
 [{vsn, "0.1.0"}, {applications, [kernel, stdlib, arbo]}, {mod, {shelf, []}}, {env, []}]}.
EOF
cat >"$app/src/shelf.erl" <<'EOF'
-module(shelf).
-behaviour(application).
-export([start/2, stop/1, check/0, main/1]).

%% In the release, the check runs when the application starts.
start(_, _) ->
    case os:getenv("SHELF_CHECK") of
        "1" -> spawn(fun() ->
                         try check(), erlang:halt(0)
                         catch C:R:S -> io:format("~p~n", [{C, R, S}]), erlang:halt(1)
                         end
                     end);
        _ -> ok
    end,
    {ok, spawn(fun() -> receive stop -> ok end end)}.
stop(_) -> ok.

main(_) -> check().

%% A sorted list saved and loaded again; the docs of arbo_tree (releases
%% strip them from the modules, an escript's archive hides them); the tree listed by arbo_app:info/0; then
%% the folder the library came from.
check() ->
    T = arbo_tree:new(),
    L = arbo_tree:add_list(T, arbo_tree:root(T), 1, sorted),
    [arbo_tree:add(T, L, {int, I}) || I <- [3, 1, 2]],
    [{int, 1}, {int, 2}, {int, 3}] = [arbo_tree:key(T, N) || N <- arbo_tree:children(T, L)],
    File = filename:join(os:getenv("SHELF_DIR"), "shelf.arbo"),
    ok = arbo_tree:save(T, File),
    T2 = arbo_tree:new(),
    {ok, #{nodes := 4}} = arbo_tree:load(T2, File),
    #{size := 4} = arbo_tree:info(T2),
    case code:get_doc(arbo_tree) of
        {ok, {docs_v1, _, _, _, _, _, Docs}} -> true = lists:keymember({function, new, 1}, 1, Docs);
        {error, _} -> "1" = os:getenv("SHELF_NODOCS")
    end,
    2 = length([I || #{owner := O} = I <- arbo_app:info(), O =:= self()]),
    {ok, _} = application:get_key(arbo, vsn),
    io:format("shelf ok ~ts~n", [arbo:nif_path()]).
EOF
export SHELF_DIR=$work
cd "$app"

step "rebar3 compile (git dependency)"
rebar3 compile >"$work/compile.log" 2>&1 || { cat "$work/compile.log"; fail "rebar3 compile"; }
dep=$app/_build/default/lib/arbo
[ -f "$dep/priv/arbo_nif.so" ] || fail "no priv/arbo_nif.so in the dependency"
grep -q '{vsn,"0.2.0"}' "$dep/ebin/arbo.app" || fail "arbo.app without version 0.2.0"
if find "$dep" -name 'arbo_unit_tests' -o -name 'arbo_micro_bench' | grep -q .; then
  fail "the dependency built tests or benchmarks"
fi

step "erl on the project's _build"
out=$(erl -noshell -pa "$app"/_build/default/lib/*/ebin -eval 'shelf:check(), halt().' 2>&1) || true
expect "$out" "$dep/priv" "erl run on _build"

step "rebar3 release, started"
rebar3 release >"$work/release.log" 2>&1 || { cat "$work/release.log"; fail "rebar3 release"; }
rel=$app/_build/default/rel/shelf
lib=$(echo "$rel"/lib/arbo-0.2.0)
[ -d "$lib" ] || fail "no lib/arbo-0.2.0 in the release"
extra=$(cd "$lib" && ls -A | grep -v -x -e ebin -e priv || true)
[ -z "$extra" ] || fail "the release ships more than ebin and priv of arbo: $extra"
out=$(SHELF_CHECK=1 SHELF_NODOCS=1 timeout 60 "$rel/bin/shelf" foreground 2>&1) || true
expect "$out" "$lib/priv" "release run"

step "rebar3 escriptize, run with ARBO_NIF_DIR"
rebar3 escriptize >"$work/escript.log" 2>&1 || { cat "$work/escript.log"; fail "rebar3 escriptize"; }
out=$(SHELF_NODOCS=1 ARBO_NIF_DIR="$dep/priv" _build/default/bin/shelf 2>&1) || true
expect "$out" "$dep/priv" "escript run"

# ---- the mix project ----------------------------------------------------------
if ! command -v mix >/dev/null 2>&1; then
  echo "== consumer: mix not installed, the mix project is skipped"
  exit 0
fi
mixapp=$work/shelf_ex
mkdir -p "$mixapp/lib"
cat >"$mixapp/mix.exs" <<EOF
defmodule ShelfEx.MixProject do
  use Mix.Project
  def project do
    [app: :shelf_ex, version: "0.1.0", deps: [{:arbo, git: "$url", ref: "$rev"}],
     releases: [shelf_ex: [include_erts: false]]]
  end
  def application, do: [extra_applications: []]
end
EOF
cat >"$mixapp/lib/shelf_ex.ex" <<'EOF'
defmodule ShelfEx do
  # The same check as the rebar3 project's, in Elixir; docs read as iex's h/1 does.
  def check do
    t = :arbo_tree.new()
    l = :arbo_tree.add_list(t, :arbo_tree.root(t), 1, :sorted)
    for i <- [3, 1, 2], do: :arbo_tree.add(t, l, {:int, i})
    [{:int, 1}, {:int, 2}, {:int, 3}] = for n <- :arbo_tree.children(t, l), do: :arbo_tree.key(t, n)
    case Code.fetch_docs(:arbo_tree) do
      {:docs_v1, _, :erlang, _, _, _, docs} -> true = List.keymember?(docs, {:function, :new, 1}, 0)
      {:error, _} -> "1" = System.get_env("SHELF_NODOCS")
    end
    IO.puts("shelf ok #{:arbo.nif_path()}")
  end
end
EOF
cd "$mixapp"

step "mix deps.get, compile, run"
{ mix deps.get && mix compile; } >"$work/mix.log" 2>&1 || { cat "$work/mix.log"; fail "mix compile"; }
out=$(mix run -e 'ShelfEx.check()' 2>&1) || true
expect "$out" "$mixapp/_build/dev/lib/arbo/priv" "mix run"

step "mix release, run"
MIX_ENV=prod mix release >"$work/mixrel.log" 2>&1 || { cat "$work/mixrel.log"; fail "mix release"; }
mrel=$mixapp/_build/prod/rel/shelf_ex
mlib=$(echo "$mrel"/lib/arbo-0.2.0)
[ -f "$mlib/priv/arbo_nif.so" ] || fail "mix release without arbo's library"
extra=$(cd "$mlib" && ls -A | grep -v -x -e ebin -e priv || true)
[ -z "$extra" ] || fail "the mix release ships more than ebin and priv of arbo: $extra"
out=$(SHELF_NODOCS=1 "$mrel/bin/shelf_ex" eval 'ShelfEx.check()' 2>&1) || true
expect "$out" "$mlib/priv" "mix release run"
echo "== consumer: all passed"
