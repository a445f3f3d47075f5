%% Helpers shared by the native-level suites: fresh tables, the reason of a
%% raised exception, child walks, encoded values, random picks, snapshots of
%% whole trees, the library's counters and a child VM for risky cases.
-module(arbo_test_util).

-include_lib("eunit/include/eunit.hrl").
-include("arbo_codes.hrl").

-export([with_table/1, reason/1, hide/1, children/2, str/1, u32/1, deactivate/2, shuffle/1, pick/1,
         child_vm/2]).
-export([child_keys/2, lib_mem/0, type0_node/2, snapshot/1, expect/1, nul/1, wait_until/2]).
%% for the safe-API suites
-export([tmp/1, start_peer/1]).

%% Runs Fun(T) on a fresh table and closes it afterwards.
with_table(Fun) -> T = arbo:new(), try Fun(T) after catch arbo:close(T) end.

%% The Reason of an exception raised by the library, or {returned, Result}.
reason(Fun) ->
    try Fun() of R -> {returned, R}
    catch error:{Reason, File, Line} when is_list(File), is_integer(Line) -> Reason
    end.

%% The same table seen with inactive nodes hidden.
hide({arbo, Res, _, Any}) -> {arbo, Res, 16#100, Any}.

%% Node's children in chain order, unfiltered.
children(T, Node) -> chain(T, arbo:first_child_nif(T, Node, [], 0)).
chain(_T, 0) -> [];
chain(T, C) -> [C | chain(T, arbo:next_sibling_nif(T, C, [], 0))].

%% Encoded values (type byte first).
str(S) -> B = iolist_to_binary(S), <<?T_STRING, (byte_size(B)):8, B/binary>>.
u32(N) -> <<?T_UINT32, N:32>>.

%% An instance is inactive when its attribute list begins with key 0.
deactivate(T, Node) -> arbo:do_set_attr(T, Node, 0, <<1>>).

shuffle(L) -> [X || {_, X} <- lists:sort([{rand:uniform(), X} || X <- L])].
pick(L) -> lists:nth(rand:uniform(length(L)), L).

%% Runs Expr (Erlang source text) in a fresh VM that loads the library under
%% test, for traps that abort or stall the VM. Gives up after Secs seconds.
%% Returns {ExitStatus, Output}; 137 means the VM was still running and was
%% killed.
child_vm(Expr, Secs) ->
    Ebin = filename:dirname(code:which(arbo)),
    Env = case os:getenv("ARBO_NIF_DIR") of false -> ""; Dir -> "ARBO_NIF_DIR=" ++ Dir ++ " " end,
    %% Two schedulers, so that one stuck in a trap leaves the other free.
    Cmd = lists:flatten(io_lib:format("~stimeout -s KILL ~b erl +S 2:2 -noshell -pa ~s -eval '~s' 2>&1; echo \"EXIT=$?\"",
                                      [Env, Secs, Ebin, Expr])),
    Out = os:cmd(Cmd),
    [_, Status] = string:split(Out, "EXIT=", trailing),
    {list_to_integer(string:trim(Status)), Out}.

%% A path as the natives take it.
nul(Path) -> <<(iolist_to_binary(Path))/binary, 0>>.

%% Whether F() held within Ms milliseconds, asked every millisecond or so.
wait_until(F, Ms) -> F() orelse (Ms > 0 andalso timer:sleep(1) =:= ok andalso wait_until(F, Ms - 1)).

%% A scratch path in /tmp, private to this VM.
tmp(Name) -> filename:join("/tmp", "arbo_" ++ os:getpid() ++ "_" ++ Name).

%% Named expectations: each {Name, Want, Got} is checked on its own, so a
%% failure says which measure was off.
expect(Rows) ->
    [?assertEqual({Name, Want}, {Name, Got}) || {Name, Want, Got} <- Rows],
    ok.

child_keys(T, Node) -> [arbo:get_hkey0(T, C) || C <- children(T, Node)].

lib_mem() -> hd(arbo:alloc_info()).

%% A reference whose type bits read as 0: eight bytes into a childless leaf
%% (56 bytes), the type word falls on the leaf's null child link. Only fit
%% for functions that check the type before they read anything else.
type0_node(T, Parent) -> arbo:add_hkey(T, Parent, [7 | 4242], ?KEY_TAG_ALT) + 8.

%% Every node below the root as {Key, Type, Value, Flags, Attributes,
%% Children}, children in chain order, attributes as {Key, Value}: two trees
%% hold the same data exactly when their snapshots are equal.
snapshot(T) -> [node_snapshot(T, C) || C <- children(T, arbo:get_root(T))].

node_snapshot(T, N) ->
    {arbo:get_hkey0(T, N), arbo:get_type(T, N), arbo:get_val_raw(T, N), arbo:get_flags(T, N),
     attrs(T, arbo:get_attr_root(T, N)), [node_snapshot(T, C) || C <- children(T, N)]}.

attrs(_T, 0) -> [];
attrs(T, A) ->
    [{arbo:get_hkey0(T, A), arbo:get_val_raw(T, A)} | attrs(T, arbo:next_sibling_nif(T, A, [], 0))].

%% peer:start(Opts) for a VM that loads this VM's code (the library and the
%% suites); Opts's args follow the code paths. {Peer, Node}.
start_peer(Opts) ->
    Dirs = lists:usort([filename:absname(filename:dirname(code:which(M))) || M <- [?MODULE, arbo]]),
    Args = lists:append([["-pa", D] || D <- Dirs]) ++ maps:get(args, Opts, []),
    {ok, Peer, Node} = peer:start(Opts#{args => Args}),
    {Peer, Node}.
